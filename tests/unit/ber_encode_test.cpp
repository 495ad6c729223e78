// BER encoder and element memory: the wire form of every item byte for
// byte, tag handling, refusals, nesting limits, growth with open
// sequences, when strings are translated, copying elements in and out,
// and the elements a handle makes.
#include "ber_test_support.h"
#include "message/ldap_message.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <memory>
#include <string>

namespace {

using namespace zldap_test;

struct WireCase {
    const char *name;
    std::function<int(BerElement *)> encode;
    const char *expected; // what stays written, after a refusal too
    int rc = 0;
};

// An encoding of fmt with these arguments (a tag must be a ber_tag_t).
template <typename... Args> std::function<int(BerElement *)> Printf(const char *fmt, Args... args)
{
    return [=](BerElement *ber) { return fber_printf(ber, fmt, args...); };
}

char a_value[] = "a", bc_value[] = "bc";
char *two_strings[] = {a_value, bc_value, nullptr}, *no_strings[] = {nullptr};
struct berval bv_xy = {2, const_cast<char *>("xy")}, bv_empty = {0, nullptr}, bv_bad = {4, nullptr};
struct berval *two_bervals[] = {&bv_xy, &bv_empty, nullptr}, *bad_second[] = {&bv_xy, &bv_bad, nullptr};

const WireCase kWireCases[] = {
    {"Sequences", Printf("{e}{s}", 5, "ab"), "30 84 00 00 00 03 0A 01 05 30 84 00 00 00 04 04 02 61 62"},
    {"IntegersShortUpTo127", Printf("iii", 0, 127, 128), "02 01 00 02 01 7F 02 04 00 00 00 80"},
    {"NegativeIntegers", Printf("iie", -1, INT_MIN, -5), "02 04 FF FF FF FF 02 04 80 00 00 00 0A 04 FF FF FF FB"},
    {"BooleansAndNull", Printf("bbbn", 1, -7, 0), "01 01 FF 01 01 FF 01 01 00 05 00"},
    {"OctetsKeepZeroBytes", Printf("os", "a\0b", 3, ""), "04 03 61 00 62 04 00"},
    {"SetWithBracketsEitherWay", Printf("[n}{n]"), "31 84 00 00 00 02 05 00 30 84 00 00 00 02 05 00"},
    {"NestedLengthsCountInnerHeaders", Printf("{{}}"), "30 84 00 00 00 06 30 84 00 00 00 00"},
    {"TagReplacesSequenceTagOnce", Printf("t{i}{}", ber_tag_t{0x63}, 5),
     "63 84 00 00 00 03 02 01 05 30 84 00 00 00 00"},
    {"TagAppliesToNextItemOnlyAndWritesItsLowEightBits", Printf("tiitn", ber_tag_t{0x80}, 1, 2, ber_tag_t{0x1A1}),
     "80 01 01 02 01 02 A1 00"},
    {"TagCarriesOverToTheNextCall",
     [](BerElement *b) { return fber_printf(b, "t", ber_tag_t{0x87}) || fber_printf(b, "ss", "x", "y"); },
     "87 01 78 04 01 79"},
    {"BitStrings", Printf("BBB", "\xA0", 3, "\x12\x34", 16, "", 0), "03 02 05 A0 03 03 00 12 34 03 01 00"},
    {"StringAndBervalArrays", Printf("vV", two_strings, two_bervals), "04 01 61 04 02 62 63 04 02 78 79 04 00"},
    {"TagAppliesToEveryMember", Printf("tvn", ber_tag_t{0x81}, two_strings), "81 01 61 81 02 62 63 05 00"},
    {"NullStringArrayEmitsNothing", Printf("[v]", static_cast<char **>(nullptr)), "31 84 00 00 00 00"},
    {"EmptyStringArrayEmitsNothing", Printf("v", no_strings), ""},
    {"NullBervalArrayEmitsNothing", Printf("tVn", ber_tag_t{0x81}, static_cast<berval **>(nullptr)), "05 00"},
    {"EmptyFormat", Printf(""), ""},
    {"UnknownFormatCharacter", Printf("nqn"), "05 00", -1},
    {"CloseWithoutOpen", Printf("{}}"), "30 84 00 00 00 00", -1},
    {"NullString", Printf("ns", static_cast<char *>(nullptr)), "05 00", -1},
    {"NegativeOctetLength", Printf("o", "abc", -1), "", -1},
    {"NegativeBitCount", Printf("B", "abc", -8), "", -1},
    {"OctetsWithoutData", Printf("o", static_cast<char *>(nullptr), 3), "", -1},
    {"FailingArrayMemberKeepsEarlierOnes", Printf("V", bad_second), "04 02 78 79", -1},
};

class EncoderWireForm : public testing::TestWithParam<WireCase> {};

TEST_P(EncoderWireForm, WritesExactly)
{
    const WireCase &c = GetParam();
    BerPtr ber(fber_alloc());
    ASSERT_EQ(c.encode(ber.get()), c.rc);
    EXPECT_EQ(ToHex(Written(ber.get())), ToHex(Hex(c.expected)));
    EXPECT_TRUE(c.rc != 0 || ber->ber_len == Written(ber.get()).size()) << "ber_len records the bytes encoded";
}

INSTANTIATE_TEST_SUITE_P(Items, EncoderWireForm, testing::ValuesIn(kWireCases),
                         [](const testing::TestParamInfo<WireCase> &info) { return info.param.name; });

// The writer writes what one format call writes: bytes, code and ber_len,
// after a failure too.
struct WriterCase {
    const char *name;
    std::function<int(BerElement *)> writer, format;
};
const WriterCase kWriterCases[] = {
    {"SearchShape",
     [](BerElement *b) {
         return FberWriter(b).open(0x63).string("dc=x").enumerated(2).enumerated(3).integer(128).integer(-1)
             .boolean(7).open().strings(two_strings).close().close().finish();
     },
     Printf("t{seeiib{v}}", ber_tag_t{0x63}, "dc=x", 2, 3, 128, -1, 7, two_strings)},
    {"TaggedItems",
     [](BerElement *b) {
         return FberWriter(b).integer(5, 0x80).boolean(0, 0x81).octets("a\0b", 3, 0x82).enumerated(1, 0x1A4)
             .strings(two_strings, 0x85).open(0xA0).close().finish();
     },
     Printf("titbtotetvt{}", ber_tag_t{0x80}, 5, ber_tag_t{0x81}, 0, ber_tag_t{0x82}, "a\0b", 3, ber_tag_t{0x1A4}, 1,
            ber_tag_t{0x85}, two_strings, ber_tag_t{0xA0})},
    {"PendingTagOfAnEarlierCall",
     [](BerElement *b) { return fber_printf(b, "t", ber_tag_t{0x87}) || FberWriter(b).string("x").string("y").finish(); },
     Printf("tss", ber_tag_t{0x87}, "x", "y")},
    {"FailureStopsTheRest", [](BerElement *b) { return FberWriter(b).integer(1).string(nullptr).integer(2).finish(); },
     Printf("isi", 1, static_cast<char *>(nullptr), 2)},
    {"CloseWithoutOpen", [](BerElement *b) { return FberWriter(b).open().close().close().integer(1).finish(); },
     Printf("{}}i", 1)},
    {"NegativeOctetLength", [](BerElement *b) { return FberWriter(b).octets("abc", -1).finish(); },
     Printf("o", "abc", -1)},
};

TEST(EncoderWireForm, WriterWritesWhatTheFormatWrites)
{
    for (const WriterCase &c : kWriterCases) {
        BerPtr direct(fber_alloc()), format(fber_alloc());
        EXPECT_EQ(c.writer(direct.get()), c.format(format.get())) << c.name;
        EXPECT_EQ(ToHex(Written(direct.get())), ToHex(Written(format.get()))) << c.name;
        EXPECT_EQ(direct->ber_len, format->ber_len) << c.name;
    }
}

// Strings and bit strings switch to the four-octet length past 127
// octets of contents (for bit strings the unused-bits octet counts).
TEST(EncoderWireForm, LongFormAfter127OctetsOfContents)
{
    for (size_t size : {127, 128, 70000}) {
        std::string value(size, 'q');
        BerPtr ber(fber_alloc());
        ASSERT_EQ(fber_printf(ber.get(), "sB", value.c_str(), value.data(), static_cast<int>(size - 1) * 8), 0);
        EXPECT_EQ(Written(ber.get()), Join({Tlv(0x04, Text(value)), Tlv(0x03, Join({{0}, Text(value.substr(1))}))}))
            << size;
    }
}

TEST(EncoderWireForm, HundredLevelsOpenAndCloseThe101stFails)
{
    BerPtr ber(fber_alloc());
    ASSERT_EQ(fber_printf(ber.get(), std::string(100, '{').c_str()), 0);
    EXPECT_EQ(fber_printf(ber.get(), "{"), -1);
    ASSERT_EQ(fber_printf(ber.get(), std::string(100, '}').c_str()), 0);
    // Each level holds the levels inside it: 99 * 6 octets the outermost.
    Bytes out = Written(ber.get());
    ASSERT_EQ(out.size(), 600u);
    EXPECT_EQ(ToHex(Bytes(out.begin(), out.begin() + 12)), "30 84 00 00 02 52 30 84 00 00 02 4C");
    EXPECT_EQ(ToHex(Bytes(out.end() - 6, out.end())), "30 84 00 00 00 00");
    EXPECT_EQ(fber_printf(ber.get(), "{}"), 0) << "the stack is usable again once closed";
}

// A request that outgrows its buffer moves to the heap while sequences are
// open; their placeholders are offsets, so the bytes come out the same as
// in an element that never grows, including one with no inline room.
TEST(EncoderWireForm, GrowingWithOpenSequencesChangesNoByte)
{
    std::string value(1000, 'v');
    auto encode = [&](BerElement *ber) {
        int rc = fber_printf(ber, "{it{s{", 5, ber_tag_t{0x68}, "cn=big");
        for (int i = 0; i < 10; i++)
            rc = rc || fber_printf(ber, "{s[s]}", "attr", value.c_str());
        return rc || fber_printf(ber, "}}}");
    };
    BerPtr roomy(fber_alloc_t(20000));
    ASSERT_EQ(encode(roomy.get()), 0);
    for (int size : {-5, 0, 16, kFberDefaultSize}) {
        BerPtr ber(fber_alloc_t(size));
        ASSERT_EQ(encode(ber.get()), 0) << size;
        EXPECT_EQ(Written(ber.get()), Written(roomy.get())) << size;
    }
}

// Once its converter is open, the translation allocates exactly one buffer
// per string it converts, so the allocation count shows where conversion
// happened.
// version 0: the element carries no version at all.
long AllocationsToEncode(int32_t version, const uint32_t *no_xlate, const std::function<int(BerElement *)> &encode)
{
    // The process's first translation opens the converter.
    BerPtr first(fber_alloc());
    EXPECT_TRUE(SetStringSettings(first.get(), 3, nullptr));
    EXPECT_EQ(fber_printf(first.get(), "s", "x"), 0);
    BerPtr ber(fber_alloc());
    EXPECT_TRUE(version == 0 || SetStringSettings(ber.get(), version, no_xlate));
    zldap::mem_tracking_start(0);
    int rc = encode(ber.get());
    zldap::AllocCounters counters = zldap::mem_tracking_stop();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(counters.live, 0);
    return counters.allocations;
}

int PrintfWithMode(BerElement *ber, int mode, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = vfber_printf(ber, fmt, ap, mode);
    va_end(ap);
    return rc;
}

TEST(EncoderTranslation, ConvertsEachNonEmptyStringOfVersion3Elements)
{
    const uint32_t off = 0, on = 1;
    auto strings = [](BerElement *b) { return fber_printf(b, "so{v}V", "abc", "de", 2, two_strings, two_bervals); };
    // abc, de, a, bc, xy: the empty berval is written as it is.
    EXPECT_EQ(AllocationsToEncode(3, nullptr, strings), 5);
    EXPECT_EQ(AllocationsToEncode(3, &off, strings), 5);
    EXPECT_EQ(AllocationsToEncode(2, nullptr, strings), 0);
    EXPECT_EQ(AllocationsToEncode(0, nullptr, strings), 0);
    EXPECT_EQ(AllocationsToEncode(3, &on, strings), 0);
    EXPECT_EQ(AllocationsToEncode(3, nullptr, [](BerElement *b) { return fber_printf_noxlate(b, "ss", "a", "b"); }),
              0);
    EXPECT_EQ(AllocationsToEncode(3, &on, [](BerElement *b) { return PrintfWithMode(b, 1, "s", "abc"); }), 1);
    auto written = [](BerElement *b) { return FberWriter(b).string("abc").strings(two_strings).finish(); };
    EXPECT_EQ(AllocationsToEncode(3, nullptr, written), 3);
    EXPECT_EQ(AllocationsToEncode(3, &on, written), 0);
    EXPECT_EQ(AllocationsToEncode(3, &on, [](BerElement *b) { return FberWriter(b, 1).string("abc").finish(); }), 1);
}

TEST(BerElement, MissingArgumentsAndOtherKindsOfElementAreRefused)
{
    BerPtr ber(fber_alloc());
    EXPECT_EQ(fber_printf(nullptr, "n"), -1);
    EXPECT_EQ(fber_scanf(nullptr, "a"), LBER_DEFAULT);
    EXPECT_EQ(fber_peek_tag(nullptr, nullptr), LBER_DEFAULT);
    EXPECT_EQ(fber_init2(nullptr), nullptr);
    EXPECT_EQ(new_ldap_ber(nullptr), nullptr);
    EXPECT_EQ(fber_write(ber.get(), nullptr, 3), -1);
    // An element of another kind is left alone, with success.
    ber->ber_options = 0;
    EXPECT_EQ(fber_printf(ber.get(), "{i}", 3), 0);
    EXPECT_EQ(FberWriter(ber.get()).open().integer(3).close().finish(), 0);
    EXPECT_EQ(ber->ber_ptr, ber->ber_buf);
    EXPECT_EQ(FberWriter(nullptr).integer(3).finish(), -1);
}

// Bytes copied in for reading (of sizes around the inline buffer's) and
// copied out with a NUL after them; a reset after reading leaves nothing
// to read and forgets a pending flush.
TEST(BerElement, CopiesInAndOutAndResets)
{
    for (size_t size : {0, 5, kFberDefaultSize, 20000}) {
        std::string value(size, 'k');
        struct berval bv = {value.size(), value.data()};
        BerPtr ber(fber_init2(&bv));
        EXPECT_EQ(std::string(ber->ber_ptr, ber->ber_end), value) << size;
    }
    BerPtr ber(fber_alloc());
    ASSERT_EQ(fber_printf(ber.get(), "{s}", "ab"), 0);
    struct berval *bv = nullptr;
    ASSERT_EQ(fber_flatten(ber.get(), &bv), 0);
    EXPECT_EQ(std::string(bv->bv_val, bv->bv_len + 1), std::string("\x30\x84\0\0\0\x04\x04\x02" "ab\0", 11));
    ber_bvfree(bv);
    EXPECT_EQ(fber_flatten(ber.get(), nullptr), -1);
    ASSERT_EQ(fber_flatten(nullptr, &bv), 0) << "no element flattens to an empty value";
    EXPECT_TRUE(bv->bv_len == 0 && !bv->bv_val);
    ber_bvfree(bv);
    ber->ber_rwptr = ber->ber_buf;
    fber_reset(ber.get(), 0);
    EXPECT_EQ(ber->ber_ptr, ber->ber_end);
    EXPECT_EQ(ber->ber_rwptr, nullptr);
}

// Elements made for a handle copy its version and translation flag at
// creation; later changes to the handle do not reach them.
TEST(BerElement, HandleElementsCopyTheSettingsAtCreation)
{
    LDAP *ld = ldap_init("localhost", 389);
    ASSERT_NE(ld, nullptr);
    ld->ld_version = 2;
    ld->ld_no_xlate = 7;
    BerPtr writer(new_ldap_ber(ld));
    std::unique_ptr<LDAPMessage, void (*)(LDAPMessage *)> response(ldap_alloc_response(ld, nullptr),
                                                                   [](LDAPMessage *m) { free_msg(m, 0); });
    BerElement *reader = response->msg_ber;
    ld->ld_version = 3;
    ld->ld_no_xlate = 0;
    for (BerElement *ber : {writer.get(), reader})
        EXPECT_EQ(std::pair(*ber->ber_version, *ber->ber_no_xlate), std::pair(2, 7u));
    EXPECT_EQ(writer->ber_end - writer->ber_buf, kFberDefaultSize);
    EXPECT_EQ(reader->ber_end - reader->ber_buf, 0) << "a reader gets its buffer when framed";
    EXPECT_EQ(ldap_unbind(ld), 0);
}

} // namespace
