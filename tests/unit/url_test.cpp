// LDAP URL parsing with and without defaults, and its refusals.
#include "proto/url.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// A record as "scheme|host|port|dn|attrs|scope|filter|string", "-" for
// absent parts and attributes joined by commas.
std::string Describe(const LDAPURLDesc *d)
{
    auto str = [](const char *s) { return std::string(s ? s : "-"); };
    std::string attrs = d->lud_attrs ? "" : "-";
    for (char **a = d->lud_attrs; a && *a; a++)
        attrs += (a == d->lud_attrs ? "" : ",") + std::string(*a);
    return str(d->lud_scheme) + "|" + str(d->lud_host) + "|" + std::to_string(d->lud_port) + "|" + str(d->lud_dn) +
           "|" + attrs + "|" + std::to_string(d->lud_scope) + "|" + str(d->lud_filter) + "|" + str(d->lud_string);
}

// Only the public parser fills in defaults; the internal one marks an
// absent port by the scheme (-1 ldap, -2 ldaps) and leaves scope and
// filter unset. Everything after the third ? is the filter; an empty port
// reads as 0.
TEST(UrlParse, EveryPartWithAndWithoutDefaults)
{
    const struct {
        const char *url;
        bool internal;
        const char *expected;
    } cases[] = {
        {"ldap://h", false, "ldap|h|389|-|-|0|(objectClass=*)|-"},
        {"ldap://h", true, "ldap|h|-1|-|-|-1|-|-"},
        {"ldaps://h", false, "ldaps|h|636|-|-|0|(objectClass=*)|-"},
        {"ldaps://h", true, "ldaps|h|-2|-|-|-1|-|-"},
        {"LDAP://h:1389/o=a%20b?cn,mail?sub?(cn=x)", false, "LDAP|h|1389|o=a b|cn,mail|2|(cn=x)|-"},
        {"ldap:///o=x??one?(a=?b)", false, "ldap|-|389|o=x|-|1|(a=?b)|-"},
        {"ldap://h/?a,,b?BASE", false, "ldap|h|389|-|a,,b|0|(objectClass=*)|-"},
        {"<URL:ldap://h/>", false, "ldap|h|389|-|-|0|(objectClass=*)|-"},
        {"ldap://[::1]:1389/o=x", false, "ldap|::1|1389|o=x|-|0|(objectClass=*)|-"},
        {"ldap://h:/o=x", false, "ldap|h|0|o=x|-|0|(objectClass=*)|-"},
        {"ldap://a%2db/", false, "ldap|a-b|389|-|-|0|(objectClass=*)|-"},
        {"ldap://h:65535/o=%4A%6a", false, "ldap|h|65535|o=Jj|-|0|(objectClass=*)|-"},
    };
    for (const auto &c : cases) {
        LDAPURLDesc *d = nullptr;
        ASSERT_EQ(c.internal ? ldap_url_parse_internal(c.url, &d) : ldap_url_parse(c.url, &d), 0) << c.url;
        EXPECT_EQ(Describe(d), c.expected) << c.url;
        ldap_free_urldesc(d);
    }
}

TEST(UrlParse, RefusalsGiveTheirCodeAndNoRecord)
{
    const struct {
        const char *url;
        int code;
    } cases[] = {
        {"http://h/", LDAP_URL_NOT_LDAP},           {nullptr, LDAP_URL_NOT_LDAP},
        {"", LDAP_URL_NOT_LDAP},                    {"ldap:/h", LDAP_URL_NOT_LDAP},
        {"ldap://h:12a/", LDAP_INVALID_SYNTAX},     {"ldap://h:99999999999/", LDAP_INVALID_SYNTAX},
        {"ldap://h/o=x??subtree", LDAP_URL_BAD_SCOPE}, {"ldap://h/o=x??x?", LDAP_URL_BAD_SCOPE},
        {"ldap://h:65536/", LDAP_INVALID_SYNTAX},
        // A bad escape, or text after the "]" of an address, never shortens
        // a part: refused wherever it stands.
        {"ldap://h/o=admin%zz,c=us", LDAP_INVALID_SYNTAX}, {"ldap://h/o=a%2z", LDAP_INVALID_SYNTAX},
        {"ldap://h/o=a%00,c=us", LDAP_INVALID_SYNTAX},    {"ldap://h/o=a%4", LDAP_INVALID_SYNTAX},
        {"ldap://h%zzevil.example/", LDAP_INVALID_SYNTAX}, {"ldap://h/?cn%,mail", LDAP_INVALID_SYNTAX},
        {"ldap://h/o=x?cn?sub?(cn=a%2)", LDAP_INVALID_SYNTAX},
        {"ldap://[::1]evil.example/", LDAP_INVALID_SYNTAX}, {"ldap://h]evil.example", LDAP_INVALID_SYNTAX},
    };
    for (const auto &c : cases) {
        LDAPURLDesc *d = reinterpret_cast<LDAPURLDesc *>(1);
        EXPECT_EQ(ldap_url_parse(c.url, &d), c.code) << (c.url ? c.url : "NULL");
        EXPECT_EQ(d, nullptr);
    }
}

TEST(UrlParse, IsLdapUrl)
{
    EXPECT_EQ(ldap_is_ldap_url("ldap://x"), 1);
    EXPECT_EQ(ldap_is_ldap_url("<URL:LDAPS://x>"), 1);
    EXPECT_EQ(ldap_is_ldap_url("ldapx://x"), 0);
}

} // namespace
