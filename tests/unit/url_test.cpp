// LDAP URL parsing with and without defaults, and its refusals.
#include "proto/url.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string Str(const char *s) { return s ? s : "<NULL>"; }

std::vector<std::string> Attrs(char **attrs)
{
    std::vector<std::string> out;
    for (char **a = attrs; a && *a; a++)
        out.push_back(*a);
    return out;
}

TEST(UrlParse, DefaultsAreFilledInOnlyByThePublicParser)
{
    LDAPURLDesc *d = nullptr;
    ASSERT_EQ(ldap_url_parse("ldap://h", &d), 0);
    EXPECT_EQ(Str(d->lud_host), "h");
    EXPECT_EQ(d->lud_port, 389);
    EXPECT_EQ(d->lud_dn, nullptr);
    EXPECT_EQ(d->lud_scope, 0);
    EXPECT_EQ(Str(d->lud_filter), "(objectClass=*)");
    EXPECT_EQ(d->lud_string, nullptr);
    ldap_free_urldesc(d);

    ASSERT_EQ(ldap_url_parse_internal("ldap://h", &d), 0);
    EXPECT_EQ(d->lud_port, -1);
    EXPECT_EQ(d->lud_scope, -1);
    EXPECT_EQ(d->lud_filter, nullptr);
    ldap_free_urldesc(d);

    ASSERT_EQ(ldap_url_parse("ldaps://h", &d), 0);
    EXPECT_EQ(d->lud_port, 636);
    EXPECT_EQ(Str(d->lud_scheme), "ldaps");
    ldap_free_urldesc(d);
    ASSERT_EQ(ldap_url_parse_internal("ldaps://h", &d), 0);
    EXPECT_EQ(d->lud_port, -2);
    ldap_free_urldesc(d);
}

TEST(UrlParse, EveryPart)
{
    LDAPURLDesc *d = nullptr;
    ASSERT_EQ(ldap_url_parse("LDAP://h:1389/o=a%20b?cn,mail?sub?(cn=x)", &d), 0);
    EXPECT_EQ(Str(d->lud_scheme), "LDAP");
    EXPECT_EQ(Str(d->lud_host), "h");
    EXPECT_EQ(d->lud_port, 1389);
    EXPECT_EQ(Str(d->lud_dn), "o=a b");
    EXPECT_EQ(Attrs(d->lud_attrs), (std::vector<std::string>{"cn", "mail"}));
    EXPECT_EQ(d->lud_scope, 2);
    EXPECT_EQ(Str(d->lud_filter), "(cn=x)");
    ldap_free_urldesc(d);

    ASSERT_EQ(ldap_url_parse("ldap:///o=x??one?(a=?b)", &d), 0);
    EXPECT_EQ(d->lud_host, nullptr);
    EXPECT_EQ(d->lud_attrs, nullptr);
    EXPECT_EQ(d->lud_scope, 1);
    EXPECT_EQ(Str(d->lud_filter), "(a=?b)") << "everything after the third ? is the filter";
    ldap_free_urldesc(d);

    ASSERT_EQ(ldap_url_parse("ldap://h/?a,,b?BASE", &d), 0);
    EXPECT_EQ(Attrs(d->lud_attrs), (std::vector<std::string>{"a", "", "b"}));
    EXPECT_EQ(d->lud_scope, 0);
    ldap_free_urldesc(d);
}

TEST(UrlParse, EnclosedFormsIPv6AndPorts)
{
    LDAPURLDesc *d = nullptr;
    ASSERT_EQ(ldap_url_parse("<URL:ldap://h/>", &d), 0);
    EXPECT_EQ(Str(d->lud_host), "h");
    EXPECT_EQ(d->lud_dn, nullptr);
    ldap_free_urldesc(d);
    ASSERT_EQ(ldap_url_parse("ldap://[::1]:1389/o=x", &d), 0);
    EXPECT_EQ(Str(d->lud_host), "::1");
    EXPECT_EQ(d->lud_port, 1389);
    ldap_free_urldesc(d);
    ASSERT_EQ(ldap_url_parse("ldap://h:/o=x", &d), 0);
    EXPECT_EQ(d->lud_port, 0) << "an empty port reads as 0";
    ldap_free_urldesc(d);
    ASSERT_EQ(ldap_url_parse("ldap://a%2db/", &d), 0);
    EXPECT_EQ(Str(d->lud_host), "a-b");
    ldap_free_urldesc(d);
}

struct Refusal {
    const char *url;
    int code;
};

void PrintTo(const Refusal &r, std::ostream *os) { *os << (r.url ? r.url : "NULL"); }

class UrlRefusals : public testing::TestWithParam<Refusal> {};

TEST_P(UrlRefusals, GiveTheirCodeAndNoRecord)
{
    LDAPURLDesc *d = reinterpret_cast<LDAPURLDesc *>(1);
    EXPECT_EQ(ldap_url_parse(GetParam().url, &d), GetParam().code);
    EXPECT_EQ(d, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Kinds, UrlRefusals,
                         testing::Values(Refusal{"http://h/", LDAP_URL_NOT_LDAP}, Refusal{nullptr, LDAP_URL_NOT_LDAP},
                                         Refusal{"", LDAP_URL_NOT_LDAP}, Refusal{"ldap:/h", LDAP_URL_NOT_LDAP},
                                         Refusal{"ldap://h:12a/", LDAP_INVALID_SYNTAX},
                                         Refusal{"ldap://h:99999999999/", LDAP_INVALID_SYNTAX},
                                         Refusal{"ldap://h/o=x??subtree", LDAP_URL_BAD_SCOPE},
                                         Refusal{"ldap://h/o=x??x?", LDAP_URL_BAD_SCOPE}));

TEST(UrlParse, IsLdapUrl)
{
    EXPECT_EQ(ldap_is_ldap_url("ldap://x"), 1);
    EXPECT_EQ(ldap_is_ldap_url("<URL:LDAPS://x>"), 1);
    EXPECT_EQ(ldap_is_ldap_url("ldapx://x"), 0);
    EXPECT_EQ(ldap_is_ldap_url(nullptr), 0);
    ldap_free_urldesc(nullptr);
}

} // namespace
