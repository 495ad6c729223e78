// The search filter encoder: byte-exact items of every kind, escapes,
// nesting, and one case per kind of malformed filter.
#include "ber_test_support.h"
#include "proto/filter.h"

#include <gtest/gtest.h>

using namespace zldap_test;

namespace {

// The filter's encoding, or "FAILED".
std::string Encode(const char *filter)
{
    BerPtr ber(fber_alloc());
    if (put_filter(ber.get(), filter, 0) != 0)
        return "FAILED";
    return ToHex(Written(ber.get()));
}

struct FilterCase {
    const char *filter;
    const char *hex;
};

void PrintTo(const FilterCase &c, std::ostream *os) { *os << c.filter; }

class FilterEncoding : public testing::TestWithParam<FilterCase> {};

TEST_P(FilterEncoding, IsByteExact) { EXPECT_EQ(Encode(GetParam().filter), GetParam().hex); }

INSTANTIATE_TEST_SUITE_P(
    Items, FilterEncoding,
    testing::Values(
        FilterCase{"(cn=a*b)", "A4 84 00 00 00 10 04 02 63 6E 30 84 00 00 00 06 80 01 61 82 01 62"},
        FilterCase{"(&(objectClass=*)(cn=x))", "A0 84 00 00 00 1A 87 0B 6F 62 6A 65 63 74 43 6C 61 73 73 A3 84 00 00 "
                                               "00 07 04 02 63 6E 04 01 78"},
        FilterCase{"(cn:dn:2.5.13.5:=x)",
                   "A9 84 00 00 00 14 81 08 32 2E 35 2E 31 33 2E 35 82 02 63 6E 83 01 78 84 01 FF"},
        FilterCase{"(cn=a\\28b)", "A3 84 00 00 00 09 04 02 63 6E 04 03 61 28 62"},
        FilterCase{"(cn=a\\00b)", "A3 84 00 00 00 09 04 02 63 6E 04 03 61 00 62"},
        FilterCase{"  cn=x  ", "A3 84 00 00 00 07 04 02 63 6E 04 01 78"},
        FilterCase{"(cn= x )", "A3 84 00 00 00 07 04 02 63 6E 04 01 78"},
        FilterCase{"(cn=*x*)", "A4 84 00 00 00 0D 04 02 63 6E 30 84 00 00 00 03 81 01 78"},
        FilterCase{"(cn=x*)", "A4 84 00 00 00 0D 04 02 63 6E 30 84 00 00 00 03 80 01 78"},
        FilterCase{"(cn=a*b*c*d)", "A4 84 00 00 00 16 04 02 63 6E 30 84 00 00 00 0C 80 01 61 81 01 62 81 01 63 82 01 64"},
        FilterCase{"(cn=a\\2ab*)", "A4 84 00 00 00 0F 04 02 63 6E 30 84 00 00 00 05 80 03 61 2A 62"},
        FilterCase{"(age>=5)", "A5 84 00 00 00 08 04 03 61 67 65 04 01 35"},
        FilterCase{"(age<=5)", "A6 84 00 00 00 08 04 03 61 67 65 04 01 35"},
        FilterCase{"(cn~=x)", "A8 84 00 00 00 07 04 02 63 6E 04 01 78"},
        FilterCase{"(cn:dn:=x)", "A9 84 00 00 00 0A 82 02 63 6E 83 01 78 84 01 FF"},
        FilterCase{"(cn::=x)", "A9 84 00 00 00 0A 82 02 63 6E 83 01 78 84 01 00"},
        FilterCase{"(cn:dn::=x)", "A9 84 00 00 00 0A 82 02 63 6E 83 01 78 84 01 FF"},
        FilterCase{"(cn:2.5.13.5:=x)", "A9 84 00 00 00 14 81 08 32 2E 35 2E 31 33 2E 35 82 02 63 6E 83 01 78 84 01 00"},
        FilterCase{"(:dn:2.5.13.5:=x)", "A9 84 00 00 00 10 81 08 32 2E 35 2E 31 33 2E 35 83 01 78 84 01 FF"},
        FilterCase{"(:2.5.13.5:=a\\2a)", "A9 84 00 00 00 13 81 08 32 2E 35 2E 31 33 2E 35 83 04 61 5C 32 61 84 01 00"},
        FilterCase{"(!(a=b)(c=d))", "A2 84 00 00 00 18 A3 84 00 00 00 06 04 01 61 04 01 62 A3 84 00 00 00 06 04 01 63 "
                                    "04 01 64"},
        FilterCase{"(|(a=b)(&(c=d)(!(e=*))))",
                   "A1 84 00 00 00 27 A3 84 00 00 00 06 04 01 61 04 01 62 A0 84 00 00 00 15 A3 84 00 00 00 06 04 01 "
                   "63 04 01 64 A2 84 00 00 00 03 87 01 65"},
        FilterCase{"(a=\\29)(b=c)", "A3 84 00 00 00 06 04 01 61 04 01 29 A3 84 00 00 00 06 04 01 62 04 01 63"}));

class MalformedFilters : public testing::TestWithParam<const char *> {};

TEST_P(MalformedFilters, AreRefused) { EXPECT_EQ(Encode(GetParam()), "FAILED") << GetParam(); }

INSTANTIATE_TEST_SUITE_P(Kinds, MalformedFilters,
                         testing::Values("", "   ", "(cn=x))", "(cn=x", "((cn=x)", ")", "(cn)", "(&(cn=x)",
                                         "(cn=a\\2)", "(cn=a\\zz)", "(cn=x\\ )", "(cn:=x)", "(cn:::=x)",
                                         "(cn:dn:::=x)", "(&(a=b)(c))", "(cn=a\\"));

TEST(FilterEncoding, RefusesNullArguments)
{
    BerPtr ber(fber_alloc());
    EXPECT_EQ(put_filter(nullptr, "(a=b)", 0), -1);
    EXPECT_EQ(put_filter(ber.get(), nullptr, 0), -1);
}

TEST(FilterEncoding, CompressHexCountsZeroBytes)
{
    char text[] = "a\\00\\41";
    ber_len_t len = 0;
    ASSERT_EQ(compress_hex(text, &len), 0);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(std::string(text, 3), std::string("a\0A", 3));
}

} // namespace
