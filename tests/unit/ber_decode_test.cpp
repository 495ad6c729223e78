// BER decoder: headers and values byte for byte, every kind of malformed
// input, SET OF walks, round trips of the messages the library exchanges,
// every prefix of them, translation and memory exhaustion. Readers own
// exactly their data, so the sanitizer build catches any read past ber_end.
#include "alloc_faults.h"
#include "ber_test_support.h"
#include "fresh_process.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <string>

using zldap_test::BerPtr;
using zldap_test::Bytes;
using zldap_test::Concat;
using zldap_test::ExactReader;
using zldap_test::Hex;
using zldap_test::ScanByItems;
using zldap_test::ScanOutputs;

namespace {

TEST(DecoderHeader, ShortAndLongFormLengthsAgree)
{
    Bytes value(256, 0x41);
    for (const char *header : {"04 84 00 00 01 00", "04 82 01 00", "04 88 00 00 00 00 00 00 01 00"}) {
        SCOPED_TRACE(header);
        BerPtr ber = ExactReader(Concat(Hex(header), value));
        ber_len_t len = 0;
        EXPECT_EQ(fber_peek_tag(ber.get(), &len), 0x04u);
        EXPECT_EQ(len, 256u);
        EXPECT_EQ(ber->ber_ptr, ber->ber_buf) << "peek moved the position";
        char *s = nullptr;
        EXPECT_EQ(fber_scanf(ber.get(), "a", &s), 0x04u);
        EXPECT_EQ(std::string(s), std::string(256, 'A'));
        zldap::mem_free(s);
    }
}

TEST(DecoderHeader, GetTagLeavesThePositionOnTheContents)
{
    BerPtr ber = ExactReader(Hex("30 03 02 01 05"));
    ber_len_t len = 0;
    EXPECT_EQ(fber_get_tag(ber.get(), &len), 0x30u);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(ber->ber_ptr, ber->ber_buf + 2);
}

TEST(DecoderHeader, IndefiniteFormReadsAsLengthZero)
{
    BerPtr ber = ExactReader(Hex("04 80 05 00"));
    char *s = nullptr;
    EXPECT_EQ(fber_scanf(ber.get(), "an", &s), 0x05u);
    EXPECT_STREQ(s, "");
    zldap::mem_free(s);
}

struct IntCase {
    const char *contents;
    int value;
};

class DecoderInteger : public testing::TestWithParam<IntCase> {};

TEST_P(DecoderInteger, SignExtendsBigEndianContents)
{
    const IntCase &c = GetParam();
    Bytes contents = Hex(c.contents);
    Bytes element = Concat(Bytes{0x02, static_cast<unsigned char>(contents.size())}, contents);
    BerPtr ber = ExactReader(element);
    int value = 12345;
    ASSERT_EQ(fber_get_int(ber.get(), &value), 0x02u);
    EXPECT_EQ(value, c.value);
    EXPECT_EQ(ber->ber_ptr, ber->ber_end);
}

INSTANTIATE_TEST_SUITE_P(Contents, DecoderInteger,
                         testing::Values(IntCase{"00 80", 128}, IntCase{"FF 7F", -129}, IntCase{"FF", -1},
                                         IntCase{"", 0}, IntCase{"7F", 127}, IntCase{"80 00 00 00", INT_MIN},
                                         IntCase{"7F FF FF FF", INT_MAX}, IntCase{"00 00 00 00 05", 5},
                                         IntCase{"FF FF FF FF FF FF FF FE", -2},
                                         IntCase{"FF FF FF FF 80 00 00 00", INT_MIN}));

TEST(DecoderInteger, BooleanAndEnumeratedFollowTheSameRule)
{
    BerPtr ber = ExactReader(Hex("01 01 FF 01 01 00 0A 01 03 80 01 07"));
    int t = 0, f = 1, e = 0, tagged = 0;
    EXPECT_EQ(fber_scanf(ber.get(), "bbei", &t, &f, &e, &tagged), 0x80u);
    EXPECT_EQ(t, -1);
    EXPECT_EQ(f, 0);
    EXPECT_EQ(e, 3);
    EXPECT_EQ(tagged, 7);
}

// One case per kind of malformed input. Every one must fail with
// LBER_DEFAULT, store nothing that outlives the item, and read only the
// data (the readers own exactly these bytes).
struct MalformedCase {
    const char *name;
    const char *bytes;
    const char *format;
};

void PrintTo(const MalformedCase &c, std::ostream *os) { *os << c.name; }

const MalformedCase kMalformed[] = {
    {"Empty", "", "a"},
    {"OnlyATag", "04", "a"},
    {"TruncatedString", "04 05 61 62", "a"},
    {"TruncatedStringIntoBuffer", "04 05 61 62", "s"},
    {"TruncatedRawOctets", "04 05 61 62", "o"},
    {"TruncatedBerval", "04 05 61 62", "O"},
    {"TruncatedInteger", "02 04 00 01", "i"},
    {"TruncatedBitString", "03 03 00 FF", "B"},
    {"TruncatedLongLength", "04 84 00 00 01", "a"},
    {"LengthPastTheData", "04 84 00 00 10 00 61", "a"},
    {"LengthPastTheDataInsideSequence", "30 03 04 09 61 62", "{a}"},
    {"MultiOctetTag", "1F 01 00", "a"},
    {"MultiOctetContextTag", "BF 01 00", "t"},
    {"MultiOctetTagOnSkip", "5F 00", "x"},
    {"MultiOctetTagOnSequence", "3F 00", "{"},
    {"NineLengthOctets", "04 89 00 00 00 00 00 00 00 00 01 61", "a"},
    {"FiveOctetLengthBeyond32Bits", "04 85 01 00 00 00 00 61", "a"},
    {"EightOctetLengthBeyond32Bits", "04 88 80 00 00 00 00 00 00 01 61", "l"},
    {"IntegerAbove32Bits", "02 05 00 80 00 00 00", "i"},
    {"IntegerBelow32Bits", "02 05 FF 7F FF FF FF", "e"},
    {"IntegerOfNineOctets", "02 09 00 00 00 00 00 00 00 00 01", "i"},
    {"NullWithContents", "05 01 00", "n"},
    {"BitStringWithoutUnusedCount", "03 00", "B"},
    {"BitStringUnusedCountAbove7", "03 02 08 FF", "B"},
    {"BitStringUnusedBitsWithoutOctets", "03 01 03", "B"},
    {"StringDoesNotFitBuffer", "04 84 00 00 01 00" /* + 256 octets below */, "s"},
    {"SetMemberPastTheData", "31 06 04 01 61 04 09 62", "v"},
    {"SetMemberOfBervalsPastTheData", "31 84 00 00 00 09 04 01 61 04 84 00 00 00 09", "V"},
    // An unreadable member header ends the SET; the next read then fails.
    {"SetMemberMultiOctetTag", "31 05 04 01 61 1F 00", "Vx"},
    {"SkipThenReadPastTheEnd", "04 10 61 04 01 61", "xa"},
    {"UnknownFormatCharacter", "04 01 61", "q"},
};

class DecoderMalformed : public testing::TestWithParam<MalformedCase> {};

TEST_P(DecoderMalformed, FailsWithoutLeakingOrReadingOutside)
{
    const MalformedCase &c = GetParam();
    Bytes bytes = Hex(c.bytes);
    if (std::string(c.name) == "StringDoesNotFitBuffer")
        bytes.resize(bytes.size() + 256, 'x');
    BerPtr ber = ExactReader(bytes);
    ScanOutputs out;
    zldap::mem_tracking_start(0);
    ber_tag_t rc = ScanByItems(ber.get(), c.format, out);
    zldap::AllocCounters counters = zldap::mem_tracking_stop();
    EXPECT_EQ(rc, LBER_DEFAULT);
    EXPECT_EQ(counters.live, 0);
    EXPECT_GE(ber->ber_ptr, ber->ber_buf);
    EXPECT_LE(ber->ber_ptr, ber->ber_end);
}

INSTANTIATE_TEST_SUITE_P(Inputs, DecoderMalformed, testing::ValuesIn(kMalformed),
                         [](const testing::TestParamInfo<MalformedCase> &info) { return info.param.name; });

// What a failed item stores is NULL (or an empty berval): the caller can
// release every output it passed, whatever happened.
TEST(DecoderMalformed, FailedItemsStoreNothing)
{
    BerPtr ber = ExactReader(Hex("04 05 61"));
    char *s = reinterpret_cast<char *>(1);
    EXPECT_EQ(fber_scanf(ber.get(), "a", &s), LBER_DEFAULT);
    EXPECT_EQ(s, nullptr);
    ber = ExactReader(Hex("04 05 61"));
    struct berval *bv = reinterpret_cast<struct berval *>(1);
    EXPECT_EQ(fber_scanf(ber.get(), "O", &bv), LBER_DEFAULT);
    EXPECT_EQ(bv, nullptr);
    ber = ExactReader(Hex("04 05 61"));
    struct berval raw = {99, reinterpret_cast<char *>(1)};
    EXPECT_EQ(fber_scanf(ber.get(), "o", &raw), LBER_DEFAULT);
    EXPECT_EQ(raw.bv_val, nullptr);
    EXPECT_EQ(raw.bv_len, 0u);
    ber = ExactReader(Hex("31 05 04 01 61 04 05"));
    char **values = reinterpret_cast<char **>(1);
    EXPECT_EQ(fber_scanf(ber.get(), "v", &values), LBER_DEFAULT);
    EXPECT_EQ(values, nullptr);
}

TEST(DecoderMalformed, EarlierItemsKeepWhatTheyStored)
{
    BerPtr ber = ExactReader(Hex("04 01 61 04 05 62"));
    char *first = nullptr, *second = nullptr;
    EXPECT_EQ(fber_scanf(ber.get(), "aa", &first, &second), LBER_DEFAULT);
    EXPECT_STREQ(first, "a");
    EXPECT_EQ(second, nullptr);
    zldap::mem_free(first);
}

TEST(DecoderMalformed, UnknownFormatCharacterIsTraced)
{
    BerPtr ber = ExactReader(Hex("04 01 61"));
    zldap_test::TraceCapture capture(0x0010);
    EXPECT_EQ(fber_scanf(ber.get(), "q"), LBER_DEFAULT);
    EXPECT_NE(capture.text().find("unknown fmt q\n"), std::string::npos);
}

TEST(DecoderMalformed, NullArgumentsFail)
{
    BerPtr ber = ExactReader(Hex("04 01 61 02 01 01"));
    EXPECT_EQ(fber_scanf(nullptr, "a"), LBER_DEFAULT);
    EXPECT_EQ(fber_scanf(ber.get(), nullptr), LBER_DEFAULT);
    EXPECT_EQ(fber_scanf(ber.get(), "a", nullptr), LBER_DEFAULT);
    ber_len_t len;
    EXPECT_EQ(fber_get_tag(nullptr, &len), LBER_DEFAULT);
    EXPECT_EQ(fber_peek_tag(nullptr, &len), LBER_DEFAULT);
    EXPECT_EQ(fber_skip_element(nullptr), -1);
}

TEST(DecoderStrings, BufferNeedsRoomForTheNul)
{
    char buf[8];
    BerPtr ber = ExactReader(Hex("04 03 61 62 63"));
    ber_len_t size = 3;
    EXPECT_EQ(fber_scanf(ber.get(), "s", buf, &size), LBER_DEFAULT);
    ber = ExactReader(Hex("04 03 61 62 63"));
    size = 0;
    EXPECT_EQ(fber_scanf(ber.get(), "s", buf, &size), LBER_DEFAULT);
    ber = ExactReader(Hex("04 03 61 62 63"));
    size = 4;
    EXPECT_EQ(fber_scanf(ber.get(), "s", buf, &size), 0x04u);
    EXPECT_EQ(size, 3u);
    EXPECT_STREQ(buf, "abc");
}

TEST(DecoderStrings, ValuesCarryANulThatTheLengthDoesNotCount)
{
    BerPtr ber = ExactReader(Hex("04 03 61 00 62 80 02 78 79 04 00"));
    struct berval *bv = nullptr;
    struct berval raw = {0, nullptr};
    char *empty = nullptr;
    EXPECT_EQ(fber_scanf(ber.get(), "Ooa", &bv, &raw, &empty), 0x04u);
    ASSERT_EQ(bv->bv_len, 3u);
    EXPECT_EQ(std::string(bv->bv_val, 4), std::string("a\0b\0", 4));
    ASSERT_EQ(raw.bv_len, 2u);
    EXPECT_EQ(std::string(raw.bv_val, 3), std::string("xy\0", 3));
    EXPECT_STREQ(empty, "");
    ber_bvfree(bv);
    zldap::mem_free(raw.bv_val);
    zldap::mem_free(empty);
}

TEST(DecoderStrings, BitStringGivesOctetsAndBitCount)
{
    BerPtr ber = ExactReader(Hex("03 03 04 AB C0 03 01 00"));
    char *bits = nullptr, *none = nullptr;
    ber_len_t count = 0, zero = 9;
    EXPECT_EQ(fber_scanf(ber.get(), "BB", &bits, &count, &none, &zero), 0x03u);
    EXPECT_EQ(count, 12u);
    EXPECT_EQ(static_cast<unsigned char>(bits[0]), 0xABu);
    EXPECT_EQ(static_cast<unsigned char>(bits[1]), 0xC0u);
    EXPECT_EQ(zero, 0u);
    zldap::mem_free(bits);
    zldap::mem_free(none);
}

TEST(DecoderNavigation, TagsLengthsAndSkips)
{
    BerPtr ber = ExactReader(Hex("63 05 04 01 61 05 00 0A 01 02"));
    uint32_t peeked = 0, taken = 0;
    ber_len_t len = 0;
    EXPECT_EQ(fber_scanf(ber.get(), "tlT", &peeked, &len, &taken), 0x63u);
    EXPECT_EQ(peeked, 0x63u);
    EXPECT_EQ(taken, 0x63u);
    EXPECT_EQ(len, 5u);
    EXPECT_EQ(fber_scanf(ber.get(), "xn"), 0x05u);
    EXPECT_EQ(fber_skip_element(ber.get()), 0);
    EXPECT_EQ(ber->ber_ptr, ber->ber_end);
    EXPECT_EQ(fber_skip_element(ber.get()), -1);
}

TEST(DecoderNavigation, SkipStopsAtTheEndOfTheData)
{
    BerPtr ber = ExactReader(Hex("04 7F 61 62"));
    EXPECT_EQ(fber_skip_element(ber.get()), 0);
    EXPECT_EQ(ber->ber_ptr, ber->ber_end);
}

TEST(DecoderNavigation, SequenceThenSkipLeavesTheNextAttribute)
{
    // Two attributes: {cn [a]} {sn [b c]}.
    BerPtr ber = ExactReader(Hex("30 09 04 02 63 6E 31 03 04 01 61"
                                 "30 0C 04 02 73 6E 31 06 04 01 62 04 01 63"));
    char buf[8];
    ber_len_t size = sizeof buf;
    EXPECT_EQ(fber_scanf(ber.get(), "{sx}", buf, &size), 0x31u);
    EXPECT_STREQ(buf, "cn");
    EXPECT_EQ(ber->ber_ptr, ber->ber_buf + 11);
    char *type = nullptr;
    char **values = nullptr;
    EXPECT_EQ(fber_scanf(ber.get(), "{a[v]}", &type, &values), 0x04u);
    EXPECT_STREQ(type, "sn");
    ASSERT_TRUE(values && values[0] && values[1] && !values[2]);
    EXPECT_STREQ(values[1], "c");
    zldap::mem_free(type);
    for (char **p = values; *p; p++)
        zldap::mem_free(*p);
    zldap::mem_free(values);
}

TEST(DecoderNavigation, FirstElementWalksASetOf)
{
    BerPtr ber = ExactReader(Hex("31 09 04 01 61 04 01 62 04 01 63 02 01 09"));
    ber_len_t len = 0;
    char *last = nullptr;
    ASSERT_EQ(fber_first_element(ber.get(), &len, &last), 0x04u);
    EXPECT_EQ(len, 9u);
    EXPECT_EQ(last, ber->ber_buf + 11);
    std::string seen;
    while (ber->ber_ptr < last && fber_peek_tag(ber.get(), nullptr) != LBER_DEFAULT) {
        char *s = nullptr;
        ASSERT_EQ(fber_scanf(ber.get(), "a", &s), 0x04u);
        seen += s;
        zldap::mem_free(s);
    }
    EXPECT_EQ(seen, "abc");
    int after = 0;
    EXPECT_EQ(fber_get_int(ber.get(), &after), 0x02u);
    EXPECT_EQ(after, 9);

    ber = ExactReader(Hex("31 00 02 01 01"));
    EXPECT_EQ(fber_first_element(ber.get(), &len, &last), LBER_DEFAULT) << "an empty SET has no first member";
    // A SET that claims more than the data ends where the data ends.
    ber = ExactReader(Hex("31 84 7F FF FF FF 04 01 61"));
    ASSERT_EQ(fber_first_element(ber.get(), &len, &last), 0x04u);
    EXPECT_EQ(last, ber->ber_end);
}

TEST(DecoderSetOf, EmptySetLeavesNullAndTheCallGoesOn)
{
    BerPtr ber = ExactReader(Hex("31 00 02 01 05"));
    char **values = reinterpret_cast<char **>(1);
    int after = 0;
    EXPECT_EQ(fber_scanf(ber.get(), "{v}i", &values, &after), 0x02u);
    EXPECT_EQ(values, nullptr);
    EXPECT_EQ(after, 5);
    // An empty set leaves the result at the tag of the item before it.
    ber = ExactReader(Hex("04 01 61 31 00"));
    char *s = nullptr;
    struct berval **bvals = nullptr;
    EXPECT_EQ(fber_scanf(ber.get(), "aV", &s, &bvals), 0x04u);
    EXPECT_EQ(bvals, nullptr);
    zldap::mem_free(s);
}

TEST(DecoderSetOf, HostileCountsAreBoundedByTheData)
{
    // A SET that claims four gigabytes but holds one member.
    BerPtr ber = ExactReader(Hex("31 84 FF FF FF FF 04 01 61"));
    char **values = nullptr;
    ASSERT_EQ(fber_scanf(ber.get(), "v", &values), 0x04u);
    ASSERT_TRUE(values && values[0] && !values[1]);
    EXPECT_STREQ(values[0], "a");
    zldap::mem_free(values[0]);
    zldap::mem_free(values);

    // Five thousand empty members grow the array past its 1024-step size.
    Bytes many = Hex("31 84 00 00 27 10");
    for (int i = 0; i < 5000; i++)
        many = Concat(many, Hex("04 00"));
    ber = ExactReader(many);
    struct berval **bvals = nullptr;
    ASSERT_EQ(fber_scanf(ber.get(), "V", &bvals), 0x04u);
    size_t count = 0;
    while (bvals[count])
        count++;
    EXPECT_EQ(count, 5000u);
    ber_bvecfree(bvals);
}

// The messages the library sends and receives decode back to what was
// encoded, both from a whole message (as fber_init2 gives it) and from the
// framed contents.
TEST(DecoderRoundTrip, SearchRequestFields)
{
    zldap_test::SampleMessage search = zldap_test::SampleMessages()[0];
    struct berval bv = {search.bytes.size(), reinterpret_cast<char *>(search.bytes.data())};
    BerPtr ber(fber_init2(&bv));
    int id = 0, scope = 0, deref = 0, size = 0, time = 0, attrsonly = 1;
    char *base = nullptr, *type = nullptr, *value = nullptr;
    char **attrs = nullptr;
    uint32_t op = 0;
    ASSERT_EQ(fber_scanf(ber.get(), "{it{aeeiib", &id, &op, &base, &scope, &deref, &size, &time, &attrsonly),
              0x01u);
    ber_tag_t filter = fber_peek_tag(ber.get(), nullptr);
    ASSERT_EQ(fber_scanf(ber.get(), "{aa}{v}}}", &type, &value, &attrs), 0x04u);
    EXPECT_EQ(id, 7);
    EXPECT_EQ(op, 0x63u);
    EXPECT_STREQ(base, "dc=example,dc=com");
    EXPECT_EQ(scope, 2);
    EXPECT_EQ(deref, 0);
    EXPECT_EQ(size, 100);
    EXPECT_EQ(time, 30);
    EXPECT_EQ(attrsonly, 0);
    EXPECT_EQ(filter, 0xA3u);
    EXPECT_STREQ(type, "cn");
    EXPECT_STREQ(value, "Babs Jensen");
    ASSERT_TRUE(attrs && attrs[0] && attrs[1] && !attrs[2]);
    EXPECT_STREQ(attrs[1], "mail");
    for (char *p : {base, type, value, attrs[0], attrs[1]})
        zldap::mem_free(p);
    zldap::mem_free(attrs);
}

TEST(DecoderRoundTrip, ResultAndEntryFormats)
{
    std::vector<zldap_test::SampleMessage> samples = zldap_test::SampleMessages();
    {
        BerPtr ber = ExactReader(zldap_test::Contents(samples[2].bytes));
        int id = 0, code = 0;
        char *matched = nullptr, *text = nullptr;
        ASSERT_EQ(fber_get_int(ber.get(), &id), 0x02u);
        ASSERT_EQ(fber_peek_tag(ber.get(), nullptr), 0x65u);
        EXPECT_EQ(fber_scanf(ber.get(), "{iaa}", &code, &matched, &text), 0x04u);
        EXPECT_EQ(code, 32);
        EXPECT_STREQ(matched, "dc=example,dc=com");
        EXPECT_STREQ(text, "no such object");
        zldap::mem_free(matched);
        zldap::mem_free(text);
    }
    {
        BerPtr ber = ExactReader(zldap_test::Contents(samples[1].bytes));
        char *dn = nullptr, *type = nullptr;
        struct berval **values = nullptr;
        int id = 0;
        ASSERT_EQ(fber_get_int(ber.get(), &id), 0x02u);
        // The DN, then the first attribute's type after skipping nothing else.
        ASSERT_EQ(fber_scanf(ber.get(), "{a{{a[V]}", &dn, &type, &values), 0x04u);
        EXPECT_STREQ(dn, "cn=Babs,dc=example,dc=com");
        EXPECT_STREQ(type, "cn");
        ASSERT_TRUE(values && values[0] && !values[1]);
        EXPECT_EQ(std::string(values[0]->bv_val, values[0]->bv_len), "Babs Jensen");
        zldap::mem_free(dn);
        zldap::mem_free(type);
        ber_bvecfree(values);
        // The rest by "{x{{s": here the remaining attributes one by one.
        char buf[64];
        ber_len_t size = sizeof buf;
        EXPECT_EQ(fber_scanf(ber.get(), "{s", buf, &size), 0x04u);
        EXPECT_STREQ(buf, "mail");
    }
    {
        // Past the message id an entry is read from its protocol operation.
        BerPtr ber = ExactReader(zldap_test::Contents(samples[1].bytes));
        int id = 0;
        ASSERT_EQ(fber_get_int(ber.get(), &id), 0x02u);
        char buf[64];
        ber_len_t size = sizeof buf;
        EXPECT_EQ(fber_scanf(ber.get(), "{x{{s", buf, &size), 0x04u);
        EXPECT_STREQ(buf, "cn");
        EXPECT_EQ(size, 2u);
    }
}

// Every sample decodes completely with its contents format; every proper
// prefix of its contents either fails or, where the cut falls between the
// members of a final SET OF, yields no more than the whole message did.
TEST(DecoderPrefixes, EveryPrefixOfEveryMessageFailsCleanly)
{
    for (const zldap_test::SampleMessage &sample : zldap_test::SampleMessages()) {
        SCOPED_TRACE(sample.name);
        ASSERT_FALSE(sample.bytes.empty());
        const Bytes contents = zldap_test::Contents(sample.bytes);
        ScanOutputs whole;
        {
            BerPtr ber = ExactReader(contents);
            ASSERT_NE(ScanByItems(ber.get(), sample.contents_format, whole), LBER_DEFAULT);
            EXPECT_EQ(ber->ber_ptr, ber->ber_end) << "the format does not read the whole message";
        }
        // The framed contents, and the whole message as fber_init2 gives it.
        const std::string full_format = "{" + sample.contents_format + "}";
        for (const auto &[data, fmt] : {std::pair{&contents, &sample.contents_format},
                                        std::pair{&sample.bytes, &full_format}}) {
            for (size_t cut = 0; cut < data->size(); cut++) {
                SCOPED_TRACE(testing::Message() << *fmt << " cut at " << cut);
                BerPtr ber = ExactReader(data->data(), cut);
                ScanOutputs part;
                zldap::mem_tracking_start(0);
                ber_tag_t rc = ScanByItems(ber.get(), *fmt, part);
                EXPECT_EQ(zldap::mem_tracking_stop().live, 0);
                if (rc == LBER_DEFAULT)
                    continue;
                // Only a cut between the members of a SET OF may pass.
                ASSERT_EQ(part.strings, whole.strings);
                ASSERT_EQ(part.sets.size(), whole.sets.size());
                EXPECT_LT(part.sets.back().size(), whole.sets.back().size());
            }
        }
    }
}

TEST(DecoderPrefixes, EveryPrefixFailsTheNavigationReaders)
{
    zldap_test::SampleMessage entry = zldap_test::SampleMessages()[1];
    for (size_t cut = 0; cut < 2; cut++) {
        BerPtr ber = ExactReader(entry.bytes.data(), cut);
        ber_len_t len = 0;
        char *last = nullptr;
        int n = 0;
        EXPECT_EQ(fber_get_tag(ber.get(), &len), LBER_DEFAULT);
        EXPECT_EQ(fber_peek_tag(ber.get(), &len), LBER_DEFAULT);
        EXPECT_EQ(fber_skip_element(ber.get()), -1);
        EXPECT_EQ(fber_first_element(ber.get(), &len, &last), LBER_DEFAULT);
        EXPECT_EQ(fber_get_int(ber.get(), &n), LBER_DEFAULT);
    }
    Bytes contents = zldap_test::Contents(entry.bytes);
    for (size_t cut = 0; cut < 3; cut++) {
        BerPtr ber = ExactReader(contents.data(), cut);
        int n = 0;
        EXPECT_EQ(fber_get_int(ber.get(), &n), LBER_DEFAULT) << cut;
    }
}

// Decoding allocates one buffer per value; once the converter is open a
// translated value costs one more, which shows where the decoder translates.
long AllocationsToDecode(BerElement *ber, const char *fmt)
{
    ScanOutputs out;
    zldap::mem_tracking_start(0);
    EXPECT_NE(ScanByItems(ber, fmt, out), LBER_DEFAULT);
    return zldap::mem_tracking_stop().allocations;
}

// NULL when memory runs out.
BerPtr ReaderWithSettings(const Bytes &bytes, int32_t version, const uint32_t *no_xlate)
{
    BerPtr ber = ExactReader(bytes);
    if (!ber)
        return nullptr;
    ber->ber_version = static_cast<int32_t *>(zldap::mem_malloc(sizeof(int32_t)));
    if (!ber->ber_version)
        return nullptr;
    *ber->ber_version = version;
    if (no_xlate) {
        ber->ber_no_xlate = static_cast<uint32_t *>(zldap::mem_malloc(sizeof(uint32_t)));
        if (!ber->ber_no_xlate)
            return nullptr;
        *ber->ber_no_xlate = *no_xlate;
    }
    return ber;
}

TEST(DecoderTranslation, ConvertsNonEmptyValuesOfVersion3ElementsExceptRawOctets)
{
    // a "ab", O "cd", o "ef", s "gh", v {"x", ""}, V {"y"}
    Bytes bytes = Hex("04 02 61 62 04 02 63 64 04 02 65 66 04 02 67 68 31 05 04 01 78 04 00 31 03 04 01 79");
    const char *fmt = "aOosvV";
    const uint32_t off = 0, on = 1;
    // The process's first translation opens the converter.
    ScanOutputs first;
    EXPECT_NE(ScanByItems(ReaderWithSettings(Hex("04 01 78"), 3, nullptr).get(), "a", first), LBER_DEFAULT);
    // Without conversion: a 1, O 2, o 1, s 0, v 2 members + the array and
    // its growth for the terminator, V array + berval + bytes: 11.
    BerPtr plain = ReaderWithSettings(bytes, 2, nullptr);
    EXPECT_EQ(AllocationsToDecode(plain.get(), fmt), 11);
    BerPtr blocked = ReaderWithSettings(bytes, 3, &on);
    EXPECT_EQ(AllocationsToDecode(blocked.get(), fmt), 11);
    // Converted: a, O, s, the non-empty member of v and the member of V.
    BerPtr converted = ReaderWithSettings(bytes, 3, &off);
    EXPECT_EQ(AllocationsToDecode(converted.get(), fmt), 11 + 5);
    BerPtr no_flag = ReaderWithSettings(bytes, 3, nullptr);
    EXPECT_EQ(AllocationsToDecode(no_flag.get(), fmt), 11 + 5);
}

TEST(DecoderTranslation, LegacyModeIsReadOnceAndStopsConversion)
{
    ZLDAP_IN_FRESH_PROCESS({
        setenv("LDAP_LEGACY_UTF8_XLATE_MODE", "0", 1);
        Bytes bytes = Hex("04 02 61 62");
        {
            zldap_test::TraceCapture capture(0x0010);
            BerPtr ber = ReaderWithSettings(bytes, 3, nullptr);
            char *s = nullptr;
            EXPECT_EQ(fber_scanf(ber.get(), "a", &s), 0x04u);
            zldap::mem_free(s);
            EXPECT_NE(capture.text().find("LDAP_LEGACY_UTF8_XLATE_MODE = true\n"), std::string::npos);
        }
        // One allocation: the copy, without a conversion.
        BerPtr ber = ReaderWithSettings(bytes, 3, nullptr);
        EXPECT_EQ(AllocationsToDecode(ber.get(), "a"), 1);
        unsetenv("LDAP_LEGACY_UTF8_XLATE_MODE");
        ber = ReaderWithSettings(bytes, 3, nullptr);
        EXPECT_EQ(AllocationsToDecode(ber.get(), "a"), 1);
        // The encoder keeps its own flag: it reads the variable, now unset, on its first use.
        zldap_test::TraceCapture capture(0x0010);
        BerPtr writer(fber_alloc());
        EXPECT_EQ(fber_printf(writer.get(), "n"), 0);
        EXPECT_NE(capture.text().find("LDAP_LEGACY_UTF8_XLATE_MODE = false\n"), std::string::npos);
    });
}

TEST(DecoderTrace, ShowsTheFormatAndThePosition)
{
    BerPtr ber = ExactReader(Hex("04 0E 75 73 65 72 70 61 73 73 77 6F 72 64 41 42 04 06 73 65 63 72 65 74"));
    zldap_test::TraceCapture capture(0x0010);
    char *a = nullptr, *b = nullptr;
    ASSERT_EQ(fber_scanf(ber.get(), "a", &a), 0x04u);
    ASSERT_EQ(fber_scanf(ber.get(), "a", &b), 0x04u);
    EXPECT_STREQ(b, "secret");
    zldap::mem_free(a);
    zldap::mem_free(b);
    std::string text = capture.text();
    EXPECT_NE(text.find("fber_scanf fmt (a) ber:\n"), std::string::npos) << text;
    EXPECT_NE(text.find("fber_dump: buf="), std::string::npos);
    EXPECT_NE(text.find("          current len=24, contents:\n"), std::string::npos) << text;
    EXPECT_NE(text.find("fber_scanf fmt (a) offset=16 length=24\n"), std::string::npos) << text;
    // The dump masks the password value that follows the attribute name.
    EXPECT_EQ(text.find("secret"), std::string::npos) << text;
    EXPECT_NE(text.find("xxxxxx"), std::string::npos) << text;
}

struct AllocReaderCase {
    const char *name;
    const char *bytes;
    const char *format;
};

void PrintTo(const AllocReaderCase &c, std::ostream *os) { *os << c.name; }

class DecoderMemory : public testing::TestWithParam<AllocReaderCase> {};

// Every allocation of every allocating reader fails in turn, on an element
// that converts its strings: the call fails and the walk frees all it got.
TEST_P(DecoderMemory, EachFailingAllocationFailsTheCallWithoutLeaking)
{
    const AllocReaderCase &c = GetParam();
    Bytes bytes = Hex(c.bytes);
    long allocations = zldap_test::ExpectEachAllocationFailure({
        [&]() {
            BerPtr ber = ReaderWithSettings(bytes, 3, nullptr);
            ScanOutputs out;
            return ber && ScanByItems(ber.get(), c.format, out) != LBER_DEFAULT ? 0 : -1;
        },
        -1,
        nullptr,
    });
    EXPECT_GT(allocations, 0);
}

const AllocReaderCase kAllocReaders[] = {
    {"String", "04 02 61 62", "a"},
    {"StringIntoBuffer", "04 02 61 62", "s"},
    {"RawOctets", "04 02 61 62", "o"},
    {"Berval", "04 02 61 62", "O"},
    {"BitString", "03 02 00 FF", "B"},
    {"StringSet", "31 0C 04 01 61 04 01 62 04 01 63 04 01 64", "v"},
    {"BervalSet", "31 0C 04 01 61 04 01 62 04 01 63 04 01 64", "V"},
    {"ResultWithReferrals", "30 16 0A 01 0A 04 00 04 00 A3 0D 04 05 6C 64 61 70 3A 04 04 6C 64 61 70",
     "{eaa{v}}"},
};

INSTANTIATE_TEST_SUITE_P(Readers, DecoderMemory, testing::ValuesIn(kAllocReaders),
                         [](const testing::TestParamInfo<AllocReaderCase> &info) { return info.param.name; });

} // namespace
