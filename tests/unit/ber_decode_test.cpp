// BER decoder: what every reader yields from well-formed input, every kind
// of malformed input, every prefix of the messages the library exchanges,
// where strings are translated, and the trace dump of an element. Readers
// own exactly their data, so the sanitizer build catches any read past
// ber_end.
#include "ber_test_support.h"
#include "fresh_process.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using namespace zldap_test;

// The outputs of a walk as one line: strings quoted (octets outside
// printable ASCII as \XX), then numbers, then sets.
std::string Describe(const ScanOutputs &out)
{
    std::string text;
    for (const std::string &s : out.strings) {
        text += " \"";
        for (unsigned char c : s)
            text += c >= 0x20 && c < 0x7F ? std::string(1, static_cast<char>(c)) : "\\" + ToHex({c});
        text += "\"";
    }
    for (long n : out.numbers)
        text += " " + std::to_string(n);
    for (const auto &set : out.sets) {
        text += " {";
        for (const std::string &member : set)
            text += (&member == set.data() ? "" : ",") + member;
        text += "}";
    }
    return text.empty() ? text : text.substr(1);
}

// Well-formed input gives its values and the tag of the last item read;
// every kind of malformed input fails with LBER_DEFAULT and a failed item
// stores nothing (NULL, or an empty berval), so the caller can release
// every output it passed. Either way nothing the walk made outlives it and
// the position stays within the data, which the reader owns exactly.
struct DecodeCase {
    const char *name;
    const char *bytes;
    const char *format;
    const char *outputs; // what the items stored, a failed one nothing
    ber_tag_t tag = LBER_DEFAULT;
    size_t left = 0; // octets a successful walk leaves unread
};

const DecodeCase kReads[] = {
    {"TwoLengthOctets", "04 82 01 00", "l", "256", 0x04, 4},
    {"FourLengthOctets", "04 84 00 00 01 00", "l", "256", 0x04, 6},
    {"EightLengthOctets", "04 88 00 00 00 00 00 00 01 00", "l", "256", 0x04, 10},
    {"LongFormStringAndIntoABuffer", "04 84 00 00 00 03 61 62 63 04 03 61 62 63", "as", "\"abc\" \"abc\"", 0x04},
    {"IndefiniteLengthReadsAsZero", "04 80 05 00", "an", "\"\"", 0x05},
    {"ShortIntegers", "02 00 02 02 00 80 02 02 FF 7F 02 01 FF 02 01 7F", "iiiii", "0 128 -129 -1 127", 0x02},
    {"IntegersAtTheLimits", "02 04 80 00 00 00 02 04 7F FF FF FF", "ii", "-2147483648 2147483647", 0x02},
    // Five to eight octets only as a redundant sign extension.
    {"LongIntegers", "02 05 00 00 00 00 05 02 08 FF FF FF FF FF FF FF FE 02 08 FF FF FF FF 80 00 00 00", "iii",
     "5 -2 -2147483648", 0x02},
    {"BooleanEnumeratedTagged", "01 01 FF 01 01 00 0A 01 03 80 01 07", "bbei", "-1 0 3 7", 0x80},
    {"TagsLengthsAndSkips", "63 05 04 01 61 05 00 0A 01 02", "tlTxnx", "99 5 99", 0x0A},
    {"SkipStopsAtTheEndOfTheData", "04 7F 61 62", "x", "", 0x04},
    {"SkipAnAttributesValuesThenReadTheNext",
     "30 09 04 02 63 6E 31 03 04 01 61 30 0C 04 02 73 6E 31 06 04 01 62 04 01 63", "{sx}{a[v]}",
     "\"cn\" \"sn\" {b,c}", 0x04},
    {"ValuesKeepZeroOctets", "04 03 61 00 62 80 02 78 79 04 00", "Ooa", "\"a\\00b\" \"xy\" \"\"", 0x04},
    {"BitStrings", "03 03 04 AB C0 03 01 00", "BB", "\"\\AB\\C0\" \"\" 12 0", 0x03},
    {"EmptySetThenInteger", "31 00 02 01 05", "{v}i", "5 {}", 0x02},
    {"EmptySetKeepsThePreviousTag", "04 01 61 31 00", "aV", "\"a\" {}", 0x04},
    {"SetCountBoundedByTheData", "31 84 FF FF FF FF 04 01 61", "v", "{a}", 0x04},
};

const DecodeCase kMalformed[] = {
    {"Empty", "", "a", ""},
    {"EmptyPeek", "", "t", ""},
    {"OnlyATag", "04", "a", ""},
    {"OnlyATagSkip", "30", "x", ""},
    {"TruncatedMessageId", "02 01", "i", ""},
    {"TruncatedString", "04 05 61 62", "a", ""},
    {"TruncatedStringIntoBuffer", "04 05 61 62", "s", ""},
    {"TruncatedRawOctets", "04 05 61 62", "o", ""},
    {"TruncatedBerval", "04 05 61 62", "O", ""},
    {"TruncatedInteger", "02 04 00 01", "i", ""},
    {"TruncatedBitString", "03 03 00 FF", "B", ""},
    {"TruncatedLongLength", "04 84 00 00 01", "a", ""},
    {"LengthPastTheData", "04 84 00 00 10 00 61", "a", ""},
    {"LengthPastTheDataInsideSequence", "30 03 04 09 61 62", "{a}", ""},
    {"MultiOctetTag", "1F 01 00", "a", ""},
    {"MultiOctetContextTag", "BF 01 00", "t", ""},
    {"MultiOctetTagOnSkip", "5F 00", "x", ""},
    {"MultiOctetTagOnSequence", "3F 00", "{", ""},
    {"NineLengthOctets", "04 89 00 00 00 00 00 00 00 00 01 61", "a", ""},
    {"FiveOctetLengthBeyond32Bits", "04 85 01 00 00 00 00 61", "a", ""},
    {"EightOctetLengthBeyond32Bits", "04 88 80 00 00 00 00 00 00 01 61", "l", ""},
    {"IntegerAbove32Bits", "02 05 00 80 00 00 00", "i", ""},
    {"IntegerBelow32Bits", "02 05 FF 7F FF FF FF", "e", ""},
    {"IntegerOfNineOctets", "02 09 00 00 00 00 00 00 00 00 01", "i", ""},
    {"NullWithContents", "05 01 00", "n", ""},
    {"BitStringWithoutUnusedCount", "03 00", "B", ""},
    {"BitStringUnusedCountAbove7", "03 02 08 FF", "B", ""},
    {"BitStringUnusedBitsWithoutOctets", "03 01 03", "B", ""},
    {"StringDoesNotFitBuffer", "04 84 00 00 01 00" /* + 256 octets below */, "s", ""},
    {"SetMemberPastTheData", "31 06 04 01 61 04 09 62", "v", "{}"},
    {"SetMemberOfBervalsPastTheData", "31 84 00 00 00 09 04 01 61 04 84 00 00 00 09", "V", "{}"},
    // An unreadable member header ends the SET; the next read then fails.
    {"SetMemberMultiOctetTag", "31 05 04 01 61 1F 00", "Vx", "{a}"},
    {"SkipThenReadPastTheEnd", "04 10 61 04 01 61", "xa", ""},
    {"UnknownFormatCharacter", "04 01 61", "q", ""},
    // Earlier items keep what they stored; a failed one stores nothing.
    {"SecondStringTruncated", "04 01 61 04 05 62", "aa", "\"a\""},
};

class DecoderInputs : public testing::TestWithParam<DecodeCase> {};

TEST_P(DecoderInputs, YieldTheirValuesOrFailCleanly)
{
    const DecodeCase &c = GetParam();
    Bytes bytes = Hex(c.bytes);
    if (std::string(c.name) == "StringDoesNotFitBuffer")
        bytes.resize(bytes.size() + 256, 'x');
    BerPtr ber = ExactReader(bytes);
    ScanOutputs out;
    zldap::mem_tracking_start(0);
    EXPECT_EQ(ScanByItems(ber.get(), c.format, out), c.tag);
    EXPECT_EQ(zldap::mem_tracking_stop().live, 0);
    EXPECT_TRUE(ber->ber_ptr >= ber->ber_buf && ber->ber_ptr <= ber->ber_end) << "the position left the data";
    EXPECT_EQ(Describe(out), c.outputs);
    EXPECT_TRUE(c.tag == LBER_DEFAULT || static_cast<size_t>(ber->ber_end - ber->ber_ptr) == c.left) << "octets left";
}

auto CaseName = [](const testing::TestParamInfo<DecodeCase> &info) { return std::string(info.param.name); };
INSTANTIATE_TEST_SUITE_P(Reads, DecoderInputs, testing::ValuesIn(kReads), CaseName);
INSTANTIATE_TEST_SUITE_P(Malformed, DecoderInputs, testing::ValuesIn(kMalformed), CaseName);

// Five thousand members grow the array past its 1024-slot steps. The SET
// claims more than the data; the end of the data is then its end.
TEST(DecoderReads, LargeSetsGrowTheirArrayWithinTheData)
{
    Bytes many = Hex("31 84 7F FF FF FF");
    for (int i = 0; i < 5000; i++)
        many.insert(many.end(), {0x04, 0x00});
    ScanOutputs out;
    ASSERT_EQ(ScanByItems(ExactReader(many).get(), "V", out), 0x04u);
    EXPECT_EQ(out.sets[0].size(), 5000u);
    BerPtr ber = ExactReader(many);
    ber_len_t len = 0;
    char *last = nullptr;
    ASSERT_EQ(fber_first_element(ber.get(), &len, &last), 0x04u);
    EXPECT_EQ(last, ber->ber_end);
}

// A decoded value array is one block; ber_bvecfree still frees exactly what
// a caller put into it, and arrays built piece by piece.
TEST(DecoderReads, ValueArraysFreeWhateverTheCallerPutIntoThem)
{
    auto own_value = [] {
        auto *bv = static_cast<struct berval *>(zldap::mem_malloc(sizeof(struct berval)));
        *bv = berval{3, zldap::mem_strdup("own")};
        return bv;
    };
    BerPtr ber = ExactReader(Hex("31 09 04 01 61 04 01 62 04 01 63"));
    zldap::mem_tracking_start(0);
    struct berval **values = nullptr;
    ASSERT_EQ(fber_scanf(ber.get(), "[V]", &values), 0x04u);
    ASSERT_EQ(std::string(values[2]->bv_val, values[2]->bv_len), "c");
    values[0]->bv_val = zldap::mem_strdup("own bytes");
    values[1] = own_value();
    auto **piecewise = static_cast<struct berval **>(zldap::mem_calloc(2, sizeof(struct berval *)));
    piecewise[0] = own_value();
    ber_bvecfree(values);
    ber_bvecfree(piecewise);
    EXPECT_EQ(zldap::mem_tracking_stop().live, 0);
}

// Every sample decodes completely with its contents format; every proper
// prefix of its contents either fails or, where the cut falls between the
// members of a final SET OF, yields no more than the whole message did.
TEST(DecoderPrefixes, EveryPrefixOfEveryMessageFailsCleanly)
{
    for (const SampleMessage &sample : SampleMessages()) {
        // The contents, as the framing reader leaves them: past the outer
        // SEQUENCE header, which the encoder writes in six octets.
        const Bytes contents(sample.bytes.begin() + 6, sample.bytes.end());
        const std::string full_format = "{" + sample.contents_format + "}";
        ScanOutputs whole;
        BerPtr ber = ExactReader(contents);
        ASSERT_NE(ScanByItems(ber.get(), sample.contents_format, whole), LBER_DEFAULT) << sample.name;
        ASSERT_EQ(ber->ber_ptr, ber->ber_end) << sample.name << ": the format does not read the whole message";
        // The framed contents, and the whole message as fber_init2 gives it.
        for (const auto &[data, fmt] : {std::pair{&contents, &sample.contents_format},
                                        std::pair{&sample.bytes, &full_format}}) {
            for (size_t cut = 0; cut < data->size(); cut++) {
                SCOPED_TRACE(testing::Message() << sample.name << " " << *fmt << " cut at " << cut);
                ber = ExactReader(data->data(), cut);
                ScanOutputs part;
                zldap::mem_tracking_start(0);
                ber_tag_t rc = ScanByItems(ber.get(), *fmt, part);
                ASSERT_EQ(zldap::mem_tracking_stop().live, 0);
                // Only a cut between the members of a final SET OF may pass.
                if (rc != LBER_DEFAULT) {
                    ASSERT_EQ(part.strings, whole.strings);
                    ASSERT_EQ(part.sets.size(), whole.sets.size());
                    ASSERT_LT(part.sets.back().size(), whole.sets.back().size());
                }
            }
        }
    }
}

// Decoding allocates one buffer per value; once the converter is open a
// converted value costs one more, which shows where the
// decoder translates.
long AllocationsToDecode(const Bytes &bytes, const char *fmt, int32_t version, const uint32_t *no_xlate)
{
    // The process's first translation opens the converter.
    BerPtr first = ExactReader(Hex("04 01 78"));
    EXPECT_TRUE(SetStringSettings(first.get(), 3, nullptr));
    ScanOutputs warm;
    EXPECT_NE(ScanByItems(first.get(), "a", warm), LBER_DEFAULT);
    BerPtr ber = ExactReader(bytes);
    EXPECT_TRUE(SetStringSettings(ber.get(), version, no_xlate));
    ScanOutputs out;
    zldap::mem_tracking_start(0);
    EXPECT_NE(ScanByItems(ber.get(), fmt, out), LBER_DEFAULT);
    return zldap::mem_tracking_stop().allocations;
}

TEST(DecoderTranslation, ConvertsNonEmptyValuesOfVersion3ElementsExceptRawOctets)
{
    // a "ab", O "cd", o "ef", s "gh", v {"x", ""}, V {"y"}
    Bytes bytes = Hex("04 02 61 62 04 02 63 64 04 02 65 66 04 02 67 68 31 05 04 01 78 04 00 31 03 04 01 79");
    const uint32_t off = 0, on = 1;
    // Without conversion: a 1, O 2, o 1, s 0, v 2 members + the array
    // (sized once), V one block with its bervals and bytes: 8.
    EXPECT_EQ(AllocationsToDecode(bytes, "aOosvV", 2, nullptr), 8);
    EXPECT_EQ(AllocationsToDecode(bytes, "aOosvV", 3, &on), 8);
    // Converted: a, O, s, the non-empty member of v and the member of V.
    EXPECT_EQ(AllocationsToDecode(bytes, "aOosvV", 3, &off), 8 + 5);
    EXPECT_EQ(AllocationsToDecode(bytes, "aOosvV", 3, nullptr), 8 + 5);
}

// The legacy switch is read once per side, on that side's first use: the
// decoder sees it set and never converts; the encoder, first used after it
// is unset, converts.
TEST(DecoderTranslation, LegacyModeIsReadOnceBySideAndStopsConversion)
{
    ZLDAP_IN_FRESH_PROCESS({
        setenv("LDAP_LEGACY_UTF8_XLATE_MODE", "", 1);
        EXPECT_EQ(AllocationsToDecode(Hex("04 02 61 62"), "a", 3, nullptr), 1);
        unsetenv("LDAP_LEGACY_UTF8_XLATE_MODE");
        EXPECT_EQ(AllocationsToDecode(Hex("04 02 61 62"), "a", 3, nullptr), 1);
        BerPtr writer(fber_alloc());
        ASSERT_TRUE(SetStringSettings(writer.get(), 3, nullptr));
        EXPECT_EQ(fber_printf(writer.get(), "s", "x"), 0); // opens the converter
        zldap::mem_tracking_start(0);
        EXPECT_EQ(fber_printf(writer.get(), "s", "ab"), 0);
        EXPECT_EQ(zldap::mem_tracking_stop().allocations, 1);
    });
}

// The first read of an element dumps it, later ones give the position;
// the dump masks the password value that follows the attribute name.
// Unknown format characters are traced on both sides.
TEST(DecoderTrace, DumpsThenGivesThePositionAndMasksPasswords)
{
    BerPtr ber = ExactReader(Hex("04 0E 75 73 65 72 70 61 73 73 77 6F 72 64 41 42 04 06 73 65 63 72 65 74"));
    TraceCapture capture(0x0010);
    ScanOutputs out;
    ASSERT_EQ(ScanByItems(ber.get(), "aaq", out), LBER_DEFAULT);
    EXPECT_EQ(fber_printf(BerPtr(fber_alloc()).get(), "q"), -1);
    EXPECT_EQ(out.strings[1], "secret");
    std::string text = capture.text();
    for (const char *part : {"fber_scanf fmt (a) ber:\n", "fber_dump: buf=", "          current len=24, contents:\n",
                             "fber_scanf fmt (a) offset=16 length=24\n", "xxxxxx"})
        EXPECT_NE(text.find(part), std::string::npos) << part << " in\n" << text;
    EXPECT_EQ(text.find("secret"), std::string::npos) << text;
}

} // namespace
