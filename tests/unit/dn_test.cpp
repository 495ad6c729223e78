// DN parsing: well-formed DNs through every output form, malformed DNs and
// their codes, DNS-style names, and the arrays the explode functions return.
#include "proto/dn.h"
#include "results/results.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace {

using Strings = std::vector<std::string>;

// Takes over an array from the library and releases it.
Strings Take(char **array)
{
    Strings out;
    for (char **s = array; s && *s; s++)
        out.push_back(*s);
    ldap_value_free(array);
    return out;
}

std::string TakeString(char *s)
{
    std::string out = s ? s : "<NULL>";
    ldap_memfree(s);
    return out;
}

struct WellFormed {
    const char *dn;
    Strings exploded;         // with types
    Strings exploded_notypes; // values only
    const char *ufn;
    const char *normalized;
};

const WellFormed kWellFormed[] = {
    {"cn=John Smith,o=Example", {"cn=John Smith", "o=Example"}, {"John Smith", "Example"}, "John Smith,Example",
     "cn=John Smith,o=Example"},
    {"cn=Smith\\, John,o=Ex", {"cn=Smith\\, John", "o=Ex"}, {"Smith\\, John", "Ex"}, "Smith\\, John,Ex",
     "cn=Smith\\, John,o=Ex"},
    {"cn=A+sn=B,o=X", {"cn=A+sn=B", "o=X"}, {"A+B", "X"}, "A+B,X", "cn=A+sn=B,o=X"},
    {"cn=a\\+b", {"cn=a\\+b"}, {"a\\+b"}, "a\\+b", "cn=a\\+b"},
    {" cn = x , o=y ", {"cn=x", "o=y"}, {"x", "y"}, "x,y", "cn=x,o=y"},
    {"cn=x\t,\no=y", {"cn=x", "o=y"}, {"x", "y"}, "x,y", "cn=x,o=y"},
    {"cn=\\ a\\ ", {"cn=\\ a\\ "}, {"\\ a\\ "}, "\\ a\\ ", "cn=\\ a\\ "},
    {"cn=a b  \\  ,o=y", {"cn=a b  \\ ", "o=y"}, {"a b  \\ ", "y"}, "a b  \\ ,y", "cn=a b  \\ ,o=y"},
    {"cn=#0403616263", {"cn=abc"}, {"abc"}, "abc", "cn=abc"},
    {"cn=#048103616263", {"cn=abc"}, {"abc"}, "abc", "cn=abc"},
    {"cn=#04036162 ,o=y", {"cn=ab", "o=y"}, {"ab", "y"}, "ab,y", "cn=ab,o=y"},
    {"cn=\"Smith, John\",o=X", {"cn=Smith\\, John", "o=X"}, {"Smith\\, John", "X"}, "Smith\\, John,X",
     "cn=Smith\\, John,o=X"},
    {"cn=\"a\\\"b\"  ;o=X", {"cn=a\\\"b", "o=X"}, {"a\\\"b", "X"}, "a\\\"b,X", "cn=a\\\"b,o=X"},
    {"cn=J\\C3\\BCrgen", {"cn=J\xC3\xBCrgen"}, {"J\xC3\xBCrgen"}, "J\xC3\xBCrgen", "cn=J\xC3\xBCrgen"},
    {"cn=J\xC3\xBCrgen", {"cn=J\xC3\xBCrgen"}, {"J\xC3\xBCrgen"}, "J\xC3\xBCrgen", "cn=J\xC3\xBCrgen"},
    {"OID.2.5.4.3=x,2.5.4.10=y", {"OID.2.5.4.3=x", "2.5.4.10=y"}, {"x", "y"}, "x,y", "OID.2.5.4.3=x,2.5.4.10=y"},
    {"cn=a;o=b", {"cn=a", "o=b"}, {"a", "b"}, "a,b", "cn=a,o=b"},
    {"cn=\\#1", {"cn=\\#1"}, {"\\#1"}, "\\#1", "cn=\\#1"},
    {"cn=a#1", {"cn=a#1"}, {"a#1"}, "a#1", "cn=a#1"},
    {"cn=a\\2Cb\\3d\\\\c", {"cn=a\\,b\\=\\\\c"}, {"a\\,b\\=\\\\c"}, "a\\,b\\=\\\\c", "cn=a\\,b\\=\\\\c"},
    {"ORN-KerberosName=u@R", {"orn-kn=u@R"}, {"u@R"}, "u@R", "orn-kn=u@R"},
    // A trailing separator ends the DN without another RDN.
    {"cn=x,", {"cn=x"}, {"x"}, "x", "cn=x"},
};

void PrintTo(const WellFormed &row, std::ostream *os) { *os << row.dn; }

class DnWellFormed : public testing::TestWithParam<WellFormed> {};

TEST_P(DnWellFormed, EveryForm)
{
    const WellFormed &row = GetParam();
    EXPECT_EQ(Take(ldap_explode_dn(row.dn, 0)), row.exploded);
    EXPECT_EQ(Take(ldap_explode_dn(row.dn, 1)), row.exploded_notypes);
    EXPECT_EQ(TakeString(ldap_dn2ufn(row.dn)), row.ufn);

    int error = -99;
    zldap::ParsedDn *dn = zldap::parse_dn(row.dn, &error);
    ASSERT_NE(dn, nullptr);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(dn->count, static_cast<int64_t>(row.exploded.size()));
    EXPECT_STREQ(dn->normalized, row.normalized);
    std::string upper = row.normalized;
    for (char &c : upper)
        c = (c >= 'a' && c <= 'z') ? c - 'a' + 'A' : c;
    EXPECT_EQ(dn->normalized_upper, upper);
    zldap::release_parsed_dn(dn);
}

INSTANTIATE_TEST_SUITE_P(Rows, DnWellFormed, testing::ValuesIn(kWellFormed));

struct Malformed {
    const char *dn;
    int error;
};

const Malformed kMalformed[] = {
    // Types: no equals sign, no type, something after the type, empty RDNs and pairs.
    {"cn,o=x", 1},
    {"=x", 1},
    {"c n=x", 1},
    {"cn:=x", 1},
    {"cn=x,,o=y", 1},
    {"cn=x, ", 1},
    {"cn=a+", 1},
    // Numeric OIDs with an empty or non-numeric component.
    {"2.5.4.=x", 7},
    {"OID.cn=x", 7},
    {"2.5..4=x", 7},
    // Empty values; a separator where the value should start.
    {"cn=", -1},
    {"cn=  ", -1},
    {"cn=,o=x", 6},
    // Unescaped specials, bad escapes, bad hexadecimal values.
    {"cn=a=b", 6},
    {"cn=a<b", 6},
    {"cn=a\"b", 6},
    {"cn=\\q", 2},
    {"cn=\\4g", 3},
    {"cn=#04zz", 4},
    // A hex value is cut at a blank; nothing but blanks after a closing quote.
    {"cn=#0403 61", 9},
    {"cn=\"a\"b", 9},
    // BER values: another tag, the number sign alone, a short length octet,
    // an odd digit, nine further length octets, announced octets missing.
    {"cn=#0C03616263", 1},
    {"cn=#", 1},
    {"cn=#040", 1},
    {"cn=#04036", 1},
    {"cn=#0489010203040506070809", 1},
    {"cn=#0482", 1},
    // Unclosed quotes, an escaped space in the middle, a backslash at the end.
    {"cn=\"abc", 1},
    {"cn=\"a\\\"", 1},
    {"cn=a\\ b", 1},
    {"cn=a\\", 1},
};

void PrintTo(const Malformed &row, std::ostream *os) { *os << row.dn << " -> " << row.error; }

class DnMalformed : public testing::TestWithParam<Malformed> {};

TEST_P(DnMalformed, CodeAndNoOutput)
{
    const Malformed &row = GetParam();
    int error = 0;
    zldap::ParsedDn *dn = zldap::parse_dn(row.dn, &error);
    ASSERT_NE(dn, nullptr);
    EXPECT_EQ(error, row.error);
    zldap::release_parsed_dn(dn);
    EXPECT_EQ(ldap_explode_dn(row.dn, 0), nullptr);
    EXPECT_EQ(ldap_explode_rdn(row.dn, 0), nullptr);
    EXPECT_EQ(ldap_dn2ufn(row.dn), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Rows, DnMalformed, testing::ValuesIn(kMalformed));

TEST(DnParse, KeepsTheRdnsBeforeAnError)
{
    int error = 0;
    zldap::ParsedDn *dn = zldap::parse_dn("cn=x+sn=y,o=", &error);
    EXPECT_EQ(error, -1);
    EXPECT_EQ(dn->count, 1);
    ASSERT_NE(dn->first, nullptr);
    EXPECT_EQ(dn->first->count, 2);
    EXPECT_STREQ(dn->first->first->pair.type, "cn");
    EXPECT_STREQ(dn->first->first->next->pair.type, "sn");
    EXPECT_STREQ(dn->normalized, "cn=x+sn=y");
    zldap::release_parsed_dn(dn);
}

TEST(DnParse, EmptyAndNullTexts)
{
    for (const char *text : {static_cast<const char *>(nullptr), ""}) {
        int error = -99;
        zldap::ParsedDn *dn = zldap::parse_dn(text, &error);
        EXPECT_EQ(error, 0);
        EXPECT_EQ(dn->count, 0);
        EXPECT_STREQ(dn->normalized, "");
        EXPECT_STREQ(dn->normalized_upper, "");
        zldap::release_parsed_dn(dn);
        EXPECT_EQ(ldap_explode_dn(text, 0), nullptr);
        EXPECT_EQ(ldap_explode_rdn(text, 0), nullptr);
        EXPECT_EQ(ldap_dn2ufn(text), nullptr);
    }
}

TEST(DnExplodeRdn, PairsOfTheFirstRdnUnescaped)
{
    EXPECT_EQ(Take(ldap_explode_rdn("cn=a\\,b+sn=\"c+d\"+OID.1.2=#0400,o=x", 0)),
              (Strings{"cn=a,b", "sn=c+d", "OID.1.2="}));
    EXPECT_EQ(Take(ldap_explode_rdn("cn=a\\,b+sn=\"c+d\",o=x", 1)), (Strings{"a,b", "c+d"}));
    EXPECT_EQ(ldap_explode_rdn("cn=x,o=", 0), nullptr) << "an error anywhere in the DN";
}

TEST(DnDnsNames, SplitAtAtSignsAndFullStops)
{
    EXPECT_EQ(Take(ldap_split_dns_name("user@mail.example.com")), (Strings{"user", "mail", "example", "com"}));
    EXPECT_EQ(Take(ldap_split_dns_name("..a@@b.")), (Strings{"a", "b"}));
    EXPECT_EQ(Take(ldap_split_dns_name("a.b.c.d.e.f.g.h.i.j.k.l.m.n.o.p.q")).size(), 17u) << "the array grows";
    char **none = ldap_split_dns_name("");
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none[0], nullptr);
    ldap_value_free(none);
    EXPECT_EQ(ldap_split_dns_name(nullptr), nullptr);

    // Without "=" and "," a text is a DNS or mail name, not a DN.
    EXPECT_EQ(Take(ldap_explode_dn("john@example.com", 0)), (Strings{"john", "example", "com"}));
    EXPECT_EQ(TakeString(ldap_dn2ufn("john@example.com")), "john@example.com");
    EXPECT_EQ(TakeString(ldap_dn2ufn("plain name")), "plain name");
}

} // namespace
