// BER encoder: the wire form of every item, byte for byte, tag handling,
// nesting limits, growth with open sequences, when strings are translated,
// and memory exhaustion.
#include "alloc_faults.h"
#include "ber/ber_internal.h"
#include "ber_test_support.h"
#include "fresh_process.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <functional>
#include <string>

using zldap_test::BerPtr;
using zldap_test::Bytes;
using zldap_test::Hex;
using zldap_test::ToHex;
using zldap_test::Written;

namespace {

struct WireCase {
    const char *name;
    std::function<int(BerElement *)> encode;
    const char *expected;
};

void PrintTo(const WireCase &c, std::ostream *os) { *os << c.name; }

char a_value[] = "a", bc_value[] = "bc";
char *two_strings[] = {a_value, bc_value, nullptr};
char *no_strings[] = {nullptr};
struct berval bv_xy = {2, const_cast<char *>("xy")}, bv_empty = {0, nullptr};
struct berval *two_bervals[] = {&bv_xy, &bv_empty, nullptr};

const WireCase kWireCases[] = {
    {"SequenceOfEnumerated", [](BerElement *b) { return fber_printf(b, "{e}", 5); },
     "30 84 00 00 00 03 0A 01 05"},
    {"SequenceOfString", [](BerElement *b) { return fber_printf(b, "{s}", "ab"); },
     "30 84 00 00 00 04 04 02 61 62"},
    {"Integer0", [](BerElement *b) { return fber_printf(b, "i", 0); }, "02 01 00"},
    {"Integer127", [](BerElement *b) { return fber_printf(b, "i", 127); }, "02 01 7F"},
    {"Integer128", [](BerElement *b) { return fber_printf(b, "i", 128); }, "02 04 00 00 00 80"},
    {"IntegerMinus1", [](BerElement *b) { return fber_printf(b, "i", -1); }, "02 04 FF FF FF FF"},
    {"IntegerMin", [](BerElement *b) { return fber_printf(b, "i", INT_MIN); }, "02 04 80 00 00 00"},
    {"EnumeratedNegative", [](BerElement *b) { return fber_printf(b, "e", -5); }, "0A 04 FF FF FF FB"},
    {"BooleanTrueIsAnyNonZero", [](BerElement *b) { return fber_printf(b, "bb", 1, -7); },
     "01 01 FF 01 01 FF"},
    {"BooleanFalse", [](BerElement *b) { return fber_printf(b, "b", 0); }, "01 01 00"},
    {"Null", [](BerElement *b) { return fber_printf(b, "n"); }, "05 00"},
    {"OctetsKeepZeroBytes", [](BerElement *b) { return fber_printf(b, "o", "a\0b", 3); }, "04 03 61 00 62"},
    {"EmptyString", [](BerElement *b) { return fber_printf(b, "s", ""); }, "04 00"},
    {"EmptySequence", [](BerElement *b) { return fber_printf(b, "{}"); }, "30 84 00 00 00 00"},
    {"SetWithBracketsEitherWay", [](BerElement *b) { return fber_printf(b, "[n}{n]"); },
     "31 84 00 00 00 02 05 00 30 84 00 00 00 02 05 00"},
    {"NestedLengthsCountInnerHeaders", [](BerElement *b) { return fber_printf(b, "{{}}"); },
     "30 84 00 00 00 06 30 84 00 00 00 00"},
    {"TagReplacesSequenceTagOnce", [](BerElement *b) { return fber_printf(b, "t{i}{}", ber_tag_t{0x63}, 5); },
     "63 84 00 00 00 03 02 01 05 30 84 00 00 00 00"},
    {"TagAppliesToNextItemOnly", [](BerElement *b) { return fber_printf(b, "tii", ber_tag_t{0x80}, 1, 2); },
     "80 01 01 02 01 02"},
    {"TagWritesLowEightBits", [](BerElement *b) { return fber_printf(b, "tn", ber_tag_t{0x1A1}); }, "A1 00"},
    {"TagCarriesOverToTheNextCall",
     [](BerElement *b) { return fber_printf(b, "t", ber_tag_t{0x87}) || fber_printf(b, "ss", "x", "y"); },
     "87 01 78 04 01 79"},
    {"BitStringPadsLastOctet", [](BerElement *b) { return fber_printf(b, "B", "\xA0", 3); }, "03 02 05 A0"},
    {"BitStringWholeOctets", [](BerElement *b) { return fber_printf(b, "B", "\x12\x34", 16); },
     "03 03 00 12 34"},
    {"BitStringEmpty", [](BerElement *b) { return fber_printf(b, "B", "", 0); }, "03 01 00"},
    {"StringArray", [](BerElement *b) { return fber_printf(b, "v", two_strings); }, "04 01 61 04 02 62 63"},
    {"TagAppliesToEveryMember", [](BerElement *b) { return fber_printf(b, "tvn", ber_tag_t{0x81}, two_strings); },
     "81 01 61 81 02 62 63 05 00"},
    {"NullStringArrayEmitsNothing", [](BerElement *b) { return fber_printf(b, "[v]", nullptr); },
     "31 84 00 00 00 00"},
    {"EmptyStringArrayEmitsNothing", [](BerElement *b) { return fber_printf(b, "v", no_strings); }, ""},
    {"BervalArray", [](BerElement *b) { return fber_printf(b, "V", two_bervals); }, "04 02 78 79 04 00"},
    {"NullBervalArrayEmitsNothing", [](BerElement *b) { return fber_printf(b, "tVn", ber_tag_t{0x81}, nullptr); },
     "05 00"},
    {"EmptyFormat", [](BerElement *b) { return fber_printf(b, ""); }, ""},
};

class EncoderWireForm : public testing::TestWithParam<WireCase> {};

TEST_P(EncoderWireForm, WritesExactly)
{
    const WireCase &c = GetParam();
    BerPtr ber(fber_alloc());
    ASSERT_EQ(c.encode(ber.get()), 0);
    EXPECT_EQ(ToHex(Written(ber.get())), ToHex(Hex(c.expected)));
}

INSTANTIATE_TEST_SUITE_P(Items, EncoderWireForm, testing::ValuesIn(kWireCases),
                         [](const testing::TestParamInfo<WireCase> &info) { return info.param.name; });

// Strings and bit strings switch to the four-octet length past 127 octets
// of contents.
TEST(EncoderLengths, SwitchToLongFormAfter127Octets)
{
    struct Case {
        size_t size;
        const char *header;
    } cases[] = {{127, "04 7F"}, {128, "04 84 00 00 00 80"}, {70000, "04 84 00 01 11 70"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.size);
        std::string value(c.size, 'q');
        BerPtr ber(fber_alloc());
        ASSERT_EQ(fber_printf(ber.get(), "s", value.c_str()), 0);
        Bytes expected = zldap_test::Concat(Hex(c.header), Bytes(value.begin(), value.end()));
        EXPECT_EQ(Written(ber.get()), expected);
    }
    // The unused-bits octet counts: 126 data octets fit the short form, 127 do not.
    std::string bits(127, '\x01');
    BerPtr ber(fber_alloc());
    ASSERT_EQ(fber_printf(ber.get(), "BB", bits.data(), 126 * 8, bits.data(), 127 * 8), 0);
    Bytes out = Written(ber.get());
    EXPECT_EQ(ToHex(Bytes(out.begin(), out.begin() + 3)), "03 7F 00");
    EXPECT_EQ(ToHex(Bytes(out.begin() + 129, out.begin() + 136)), "03 84 00 00 00 80 00");
}

TEST(EncoderResult, RecordsTheBytesEncodedInBerLen)
{
    BerPtr ber(fber_alloc());
    ASSERT_EQ(fber_printf(ber.get(), "{it{", 1, ber_tag_t{0x63}), 0);
    EXPECT_EQ(ber->ber_len, 15u);
    ASSERT_EQ(fber_printf(ber.get(), "s}}", "x"), 0);
    EXPECT_EQ(ber->ber_len, 18u);
}

struct FailureCase {
    const char *name;
    std::function<int(BerElement *)> encode;
    const char *kept; // what stays written
};

void PrintTo(const FailureCase &c, std::ostream *os) { *os << c.name; }

const FailureCase kFailureCases[] = {
    {"UnknownFormatCharacter", [](BerElement *b) { return fber_printf(b, "nqn"); }, "05 00"},
    {"CloseWithoutOpen", [](BerElement *b) { return fber_printf(b, "{}}"); }, "30 84 00 00 00 00"},
    {"NullString", [](BerElement *b) { return fber_printf(b, "ns", nullptr); }, "05 00"},
    {"NegativeOctetLength", [](BerElement *b) { return fber_printf(b, "o", "abc", -1); }, ""},
    {"NegativeBitCount", [](BerElement *b) { return fber_printf(b, "B", "abc", -8); }, ""},
    {"OctetsWithoutData", [](BerElement *b) { return fber_printf(b, "o", nullptr, 3); }, ""},
    {"FailingArrayMemberKeepsEarlierOnes",
     [](BerElement *b) {
         static struct berval bad = {4, nullptr};
         static struct berval *values[] = {&bv_xy, &bad, nullptr};
         return fber_printf(b, "V", values);
     },
     "04 02 78 79"},
};

class EncoderFailure : public testing::TestWithParam<FailureCase> {};

TEST_P(EncoderFailure, FailsAndKeepsWhatWasWritten)
{
    const FailureCase &c = GetParam();
    BerPtr ber(fber_alloc());
    EXPECT_EQ(c.encode(ber.get()), -1);
    EXPECT_EQ(ToHex(Written(ber.get())), ToHex(Hex(c.kept)));
}

INSTANTIATE_TEST_SUITE_P(Items, EncoderFailure, testing::ValuesIn(kFailureCases),
                         [](const testing::TestParamInfo<FailureCase> &info) { return info.param.name; });

TEST(EncoderFailure, UnknownFormatCharacterIsTraced)
{
    zldap_test::TraceCapture capture(0x0010);
    BerPtr ber(fber_alloc());
    EXPECT_EQ(fber_printf(ber.get(), "q"), -1);
    EXPECT_NE(capture.text().find("unknown fmt q\n"), std::string::npos) << capture.text();
}

TEST(EncoderFailure, ElementOfAnotherKindIsLeftAloneWithSuccess)
{
    BerPtr ber(fber_alloc());
    ber->ber_options = 0;
    zldap_test::TraceCapture capture(0x0010);
    EXPECT_EQ(fber_printf(ber.get(), "{i}", 3), 0);
    EXPECT_EQ(ber->ber_ptr, ber->ber_buf);
    EXPECT_NE(capture.text().find("is not an FBER!!!"), std::string::npos) << capture.text();
}

TEST(EncoderFailure, NullArgumentsFail)
{
    BerPtr ber(fber_alloc());
    EXPECT_EQ(fber_printf(nullptr, "n"), -1);
    EXPECT_EQ(fber_printf(ber.get(), nullptr), -1);
}

TEST(EncoderNesting, HundredLevelsOpenAndCloseThe101stFails)
{
    BerPtr ber(fber_alloc());
    std::string open(100, '{');
    ASSERT_EQ(fber_printf(ber.get(), open.c_str()), 0);
    EXPECT_EQ(fber_printf(ber.get(), "{"), -1);
    ASSERT_EQ(fber_printf(ber.get(), std::string(100, '}').c_str()), 0);
    // Level k (from 0, outermost) holds the 99 - k levels inside it.
    Bytes out = Written(ber.get());
    ASSERT_EQ(out.size(), 600u);
    for (size_t k = 0; k < 100; k++) {
        uint32_t len = (uint32_t{out[k * 6 + 2]} << 24) | (uint32_t{out[k * 6 + 3]} << 16) |
                       (uint32_t{out[k * 6 + 4]} << 8) | out[k * 6 + 5];
        EXPECT_EQ(len, (99 - k) * 6) << "level " << k;
    }
    EXPECT_EQ(fber_printf(ber.get(), "{}"), 0) << "the stack is usable again once closed";
}

// A request that outgrows the inline buffer moves to the heap while
// sequences are open; their placeholders are offsets, so every one is
// still patched in the right place.
TEST(EncoderGrowth, PendingSequencesArePatchedAfterMovingToTheHeap)
{
    BerPtr ber(fber_alloc());
    char *inline_buffer = ber->ber_buf;
    ASSERT_EQ(fber_printf(ber.get(), "{it{s{", 5, ber_tag_t{0x68}, "cn=big"), 0);
    std::string value(1000, 'v');
    for (int i = 0; i < 10; i++)
        ASSERT_EQ(fber_printf(ber.get(), "{s[s]}", "attr", value.c_str()), 0);
    ASSERT_EQ(fber_printf(ber.get(), "}}}"), 0);
    EXPECT_NE(ber->ber_buf, inline_buffer);
    ASSERT_GT(ber->ber_len, 6144u);

    Bytes out = Written(ber.get());
    BerPtr reader = zldap_test::ExactReader(out);
    int id = 0;
    char *dn = nullptr;
    ber_len_t len = 0;
    ASSERT_EQ(fber_scanf(reader.get(), "{i{a", &id, &dn), 0x04u);
    EXPECT_EQ(id, 5);
    EXPECT_STREQ(dn, "cn=big");
    zldap::mem_free(dn);
    char *last = nullptr;
    ASSERT_EQ(fber_first_element(reader.get(), &len, &last), 0x30u);
    EXPECT_EQ(last, reader->ber_end);
    int attributes = 0;
    while (reader->ber_ptr < last) {
        char *type = nullptr;
        char **values = nullptr;
        ASSERT_NE(fber_scanf(reader.get(), "{a[v]}", &type, &values), LBER_DEFAULT);
        EXPECT_STREQ(type, "attr");
        ASSERT_TRUE(values && values[0] && !values[1]);
        EXPECT_EQ(values[0], value);
        zldap::mem_free(type);
        zldap::mem_free(values[0]);
        zldap::mem_free(values);
        attributes++;
    }
    EXPECT_EQ(attributes, 10);
}

TEST(EncoderGrowth, AnElementWithoutInlineRoomGrowsFromNothing)
{
    BerPtr ber(fber_alloc_t(-5));
    EXPECT_EQ(ber->ber_end, ber->ber_buf);
    ASSERT_EQ(fber_printf(ber.get(), "{sss}", "one", "two", "three"), 0);
    EXPECT_EQ(ToHex(Written(ber.get())), "30 84 00 00 00 11 04 03 6F 6E 65 04 03 74 77 6F 04 05 74 68 72 65 65");
}

// Allocates the owned settings fields the way new_ldap_ber does; false
// when memory runs out.
bool SetStringSettings(BerElement *ber, int32_t version, const uint32_t *no_xlate)
{
    ber->ber_version = static_cast<int32_t *>(zldap::mem_malloc(sizeof(int32_t)));
    if (!ber->ber_version)
        return false;
    *ber->ber_version = version;
    if (no_xlate) {
        ber->ber_no_xlate = static_cast<uint32_t *>(zldap::mem_malloc(sizeof(uint32_t)));
        if (!ber->ber_no_xlate)
            return false;
        *ber->ber_no_xlate = *no_xlate;
    }
    return true;
}

int PrintfWithMode(BerElement *ber, int mode, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = vfber_printf(ber, fmt, ap, mode);
    va_end(ap);
    return rc;
}

// Once its converter is open (by the process's first translation), the
// translation allocates exactly one buffer per string it converts, so the
// allocation count shows where conversion happened.
long AllocationsToEncode(int32_t version, const uint32_t *no_xlate, const std::function<int(BerElement *)> &encode)
{
    BerPtr first(fber_alloc());
    EXPECT_TRUE(SetStringSettings(first.get(), 3, nullptr));
    EXPECT_EQ(fber_printf(first.get(), "s", "x"), 0);
    BerPtr ber(fber_alloc());
    EXPECT_TRUE(SetStringSettings(ber.get(), version, no_xlate));
    zldap::mem_tracking_start(0);
    int rc = encode(ber.get());
    zldap::AllocCounters counters = zldap::mem_tracking_stop();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(counters.live, 0);
    return counters.allocations;
}

TEST(EncoderTranslation, ConvertsEachNonEmptyStringOfVersion3Elements)
{
    const uint32_t off = 0, on = 1;
    auto strings = [](BerElement *b) {
        return fber_printf(b, "so{v}V", "abc", "de", 2, two_strings, two_bervals);
    };
    // abc, de, a, bc, xy: the empty berval is written as it is.
    EXPECT_EQ(AllocationsToEncode(3, nullptr, strings), 5);
    EXPECT_EQ(AllocationsToEncode(3, &off, strings), 5);
    EXPECT_EQ(AllocationsToEncode(2, nullptr, strings), 0);
    EXPECT_EQ(AllocationsToEncode(3, &on, strings), 0);
    EXPECT_EQ(AllocationsToEncode(3, nullptr, [](BerElement *b) { return fber_printf_noxlate(b, "ss", "a", "b"); }),
              0);
    auto forced = [](BerElement *b) { return PrintfWithMode(b, 1, "s", "abc"); };
    EXPECT_EQ(AllocationsToEncode(3, &on, forced), 1);
    EXPECT_EQ(AllocationsToEncode(3, nullptr, [](BerElement *b) { return fber_printf(b, "inbB", 1, 1, "", 0); }), 0);
}

TEST(EncoderTranslation, ElementsWithoutAVersionAreNeverConverted)
{
    BerPtr ber(fber_alloc());
    zldap::mem_tracking_start(0);
    EXPECT_EQ(fber_printf(ber.get(), "ss", "abc", "def"), 0);
    EXPECT_EQ(zldap::mem_tracking_stop().allocations, 0);
}

TEST(EncoderTranslation, LegacyModeWritesBytesUnchangedAndIsReadOnce)
{
    ZLDAP_IN_FRESH_PROCESS({
        setenv("LDAP_LEGACY_UTF8_XLATE_MODE", "", 1);
        zldap_test::TraceCapture capture(0x0010);
        EXPECT_EQ(AllocationsToEncode(3, nullptr, [](BerElement *b) { return fber_printf(b, "s", "abc"); }), 0);
        unsetenv("LDAP_LEGACY_UTF8_XLATE_MODE");
        EXPECT_EQ(AllocationsToEncode(3, nullptr, [](BerElement *b) { return fber_printf(b, "s", "abc"); }), 0);
        std::string text = capture.text();
        EXPECT_NE(text.find("LDAP_LEGACY_UTF8_XLATE_MODE = true\n"), std::string::npos) << text;
        EXPECT_EQ(text.find("LDAP_LEGACY_UTF8_XLATE_MODE", text.find("= true") + 1), std::string::npos)
            << "the flag was read twice:\n" << text;
    });
}

TEST(EncoderTranslation, WithoutLegacyModeTheFirstCallTracesFalse)
{
    ZLDAP_IN_FRESH_PROCESS({
        unsetenv("LDAP_LEGACY_UTF8_XLATE_MODE");
        zldap_test::TraceCapture capture(0x0010);
        BerPtr ber(fber_alloc());
        EXPECT_EQ(fber_printf(ber.get(), "n"), 0);
        EXPECT_NE(capture.text().find("LDAP_LEGACY_UTF8_XLATE_MODE = false\n"), std::string::npos);
    });
}

// Every allocation of a request that grows twice and converts its strings
// fails in turn: the call reports -1 and the element releases everything.
TEST(EncoderMemory, EachFailingAllocationFailsTheCallWithoutLeaking)
{
    std::string value(5000, 'z');
    long allocations = zldap_test::ExpectEachAllocationFailure({
        [&]() {
            BerElement *ber = fber_alloc_t(16);
            if (!ber)
                return -1;
            int rc = SetStringSettings(ber, 3, nullptr) ? 0 : -1;
            if (rc == 0)
                rc = fber_printf(ber, "{it{s{s[ss]}}}", 2, ber_tag_t{0x68}, "cn=x", "description", value.c_str(),
                                 value.c_str());
            fber_free(ber);
            return rc;
        },
        -1,
        nullptr,
    });
    EXPECT_GE(allocations, 6);
}

} // namespace
