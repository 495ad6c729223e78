// xlate_slapd_test.cpp - a client process in a Latin-1 locale against a
// real slapd: what it adds is stored as UTF-8, its Latin-1 filters find
// it, and a value that Latin-1 cannot hold fails to decode.
#include "fresh_process.h"
#include "slapd_fixture.h"

#include "core/ldap_error.h"
#include "ops/search.h"
#include "ops/update.h"
#include "ops/ldap_bind.h"
#include "results/results.h"
#include "session/ldap_init.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"
#include "xlate/ldap_charset_internal.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <optional>
#include <string>

using namespace zldap_test;

namespace {

constexpr const char *kLatin1Locale = "de_DE.ISO-8859-1";
constexpr const char *kScratch = "ou=scratch,dc=example,dc=com";

// A bound handle; translation is off on a new handle and turned on here
// when asked for.
LDAP *Connect(const std::string &host, bool translate)
{
    LDAP *ld = ldap_init(host.c_str(), 0);
    if (!ld)
        return nullptr;
    if ((translate && ldap_set_option(ld, LDAP_OPT_NO_TRANSLATION, LDAP_OPT_OFF) != 0) ||
        ldap_simple_bind_s(ld, Slapd::kRootDn, Slapd::kRootPassword) != 0) {
        ldap_unbind(ld);
        return nullptr;
    }
    return ld;
}

void Add(LDAP *ld, const std::string &dn, const char *cn_value, const char *second_cn)
{
    char person[] = "person", surname[] = "Latin";
    char *oc[] = {person, nullptr}, *sn[] = {surname, nullptr};
    char *cn[] = {const_cast<char *>(cn_value), const_cast<char *>(second_cn), nullptr};
    LDAPMod m1{LDAP_MOD_ADD, const_cast<char *>("objectClass"), {oc}};
    LDAPMod m2{LDAP_MOD_ADD, const_cast<char *>("cn"), {cn}};
    LDAPMod m3{LDAP_MOD_ADD, const_cast<char *>("sn"), {sn}};
    LDAPMod *attrs[] = {&m1, &m2, &m3, nullptr};
    ASSERT_EQ(ldap_add_s(ld, dn.c_str(), attrs), 0) << dn;
}

// The one entry a filter finds below the scratch entry, with its DN and cn
// values (NULL values count as none); the search's own code on failure.
struct Found {
    int rc;
    int entries;
    std::string dn;
    char **cn;
};

Found SearchOne(LDAP *ld, const char *filter)
{
    LDAPMessage *res = nullptr;
    Found found{ldap_search_s(ld, kScratch, LDAP_SCOPE_ONELEVEL, filter, nullptr, 0, &res), 0, "", nullptr};
    found.entries = ldap_count_entries(ld, res);
    if (LDAPMessage *e = ldap_first_entry(ld, res)) {
        char *dn = ldap_get_dn(ld, e);
        found.dn = dn ? dn : "<NULL>";
        ldap_memfree(dn);
        found.cn = ldap_get_values(ld, e, "cn");
    }
    ldap_msgfree(res);
    return found;
}

TEST(Latin1Client, StoresUtf8AndFindsWithLatin1Filters)
{
    if (!InFreshProcess()) {
        ZLDAP_REQUIRE_SLAPD(SharedSlapd());
        locale_t probe = newlocale(LC_ALL_MASK, kLatin1Locale, nullptr);
        if (!probe)
            GTEST_SKIP() << "locale " << kLatin1Locale
                         << " is not installed (localedef -i de_DE -f ISO-8859-1 de_DE.ISO-8859-1)";
        freelocale(probe);
        // A value Latin-1 has no place for, stored by a client that does
        // not translate.
        LDAP *plain = Connect(SharedSlapd().host(), false);
        ASSERT_NE(plain, nullptr);
        Add(plain, std::string("cn=Nihon,") + kScratch, "Nihon", "\xE6\x97\xA5\xE6\x9C\xAC");
        ldap_unbind(plain);
        setenv("ZLDAP_TEST_SLAPD_HOST", SharedSlapd().host().c_str(), 1);
    }
    // The client runs in a process of its own, started in the Latin-1 locale.
    ScopedEnv locale("LC_ALL", kLatin1Locale);
    ScopedEnv codepage("LDAP_CODEPAGE", std::nullopt);
    ZLDAP_IN_FRESH_PROCESS({
        LDAP *ld = Connect(std::getenv("ZLDAP_TEST_SLAPD_HOST"), true);
        ASSERT_NE(ld, nullptr);
        Add(ld, std::string("cn=M\xFCller,") + kScratch, "M\xFCller", nullptr);
        EXPECT_STREQ(zldap::charset::local_codepage(), "ISO-8859-1");

        Found mueller = SearchOne(ld, "(cn=M\xFCller)");
        EXPECT_EQ(mueller.rc, 0);
        EXPECT_EQ(mueller.entries, 1);
        EXPECT_EQ(mueller.dn, std::string("cn=M\xFCller,") + kScratch);
        ASSERT_NE(mueller.cn, nullptr);
        EXPECT_STREQ(mueller.cn[0], "M\xFCller");
        ldap_value_free(mueller.cn);

        // The entry is found, but its Japanese value cannot be decoded here.
        Found nihon = SearchOne(ld, "(cn=Nihon)");
        EXPECT_EQ(nihon.entries, 1);
        EXPECT_EQ(nihon.cn, nullptr);
        EXPECT_EQ(ldap_get_errno(ld), LDAP_DECODING_ERROR);
        ldap_unbind(ld);
    });

    // A client that does not translate sees what the server stored.
    LDAP *plain = Connect(SharedSlapd().host(), false);
    ASSERT_NE(plain, nullptr);
    Found stored = SearchOne(plain, "(cn=M\xC3\xBCller)");
    EXPECT_EQ(stored.entries, 1);
    EXPECT_EQ(stored.dn, std::string("cn=M\xC3\xBCller,") + kScratch);
    ASSERT_NE(stored.cn, nullptr);
    EXPECT_STREQ(stored.cn[0], "M\xC3\xBCller");
    ldap_value_free(stored.cn);
    EXPECT_EQ(SearchOne(plain, "(cn=M\xFCller)").entries, 0);
    ldap_unbind(plain);
}

} // namespace
