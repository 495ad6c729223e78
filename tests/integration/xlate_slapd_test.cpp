// xlate_slapd_test.cpp - a client process in a Latin-1 locale against a
// real slapd: what it adds is stored as UTF-8, its Latin-1 filters find
// it, and a value that Latin-1 cannot hold fails to decode.
#include "fresh_process.h"
#include "slapd_fixture.h"
#include "zor8ldap_api.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <optional>

using namespace zldap_test;

namespace {

constexpr const char *kLatin1Locale = "de_DE.ISO-8859-1";
const std::string kScratch = ",ou=scratch,dc=example,dc=com";

// Adds the device cn=<name>, whose cn has the other value too, if any.
int Add(LDAP *ld, const char *name, const char *other = nullptr)
{
    char *oc[] = {const_cast<char *>("device"), nullptr};
    char *cn[] = {const_cast<char *>(name), const_cast<char *>(other), nullptr};
    LDAPMod m1{LDAP_MOD_ADD, const_cast<char *>("objectClass"), {oc}}, m2{LDAP_MOD_ADD, const_cast<char *>("cn"), {cn}};
    LDAPMod *attrs[] = {&m1, &m2, nullptr};
    return ldap_add_s(ld, ("cn=" + std::string(name) + kScratch).c_str(), attrs);
}

// The DN and last cn value of the one entry a filter finds ("<none>" for
// values that cannot be had).
std::string FindOne(LDAP *ld, const char *filter)
{
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_s(ld, "ou=scratch,dc=example,dc=com", LDAP_SCOPE_ONELEVEL, filter, nullptr, 0, &res), 0);
    LDAPMessage *e = ldap_first_entry(ld, res);
    char *dn = e ? ldap_get_dn(ld, e) : nullptr, **cn = e ? ldap_get_values(ld, e, "cn") : nullptr;
    std::string found = std::string(dn ? dn : "<none>") + " " + (cn ? cn[ldap_count_values(cn) - 1] : "<none>");
    ldap_memfree(dn);
    ldap_value_free(cn);
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
                         << " is missing (localedef -i de_DE -f ISO-8859-1 de_DE.ISO-8859-1)";
        freelocale(probe);
        setenv("ZLDAP_TEST_SLAPD_HOST", SharedSlapd().host().c_str(), 1);
    }
    // The client runs in a process of its own, started in the Latin-1 locale.
    ScopedEnv locale("LC_ALL", kLatin1Locale);
    ScopedEnv codepage("LDAP_CODEPAGE", std::nullopt);
    ZLDAP_IN_FRESH_PROCESS({
        // A new handle does not translate until told to.
        const char *host = std::getenv("ZLDAP_TEST_SLAPD_HOST");
        LDAP *ld = ldap_init(host, 0), *plain = ldap_init(host, 0);
        EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_NO_TRANSLATION, LDAP_OPT_OFF), 0);
        for (LDAP *handle : {ld, plain})
            EXPECT_EQ(ldap_simple_bind_s(handle, Slapd::kRootDn, Slapd::kRootPassword), 0);
        EXPECT_EQ(Add(ld, "M\xFCller"), 0);
        EXPECT_EQ(FindOne(ld, "(cn=M\xFCller)"), "cn=M\xFCller" + kScratch + " M\xFCller");
        // What the server stored, as a handle that does not translate sees it.
        EXPECT_EQ(FindOne(plain, "(cn=M\xC3\xBCller)"), "cn=M\xC3\xBCller" + kScratch + " M\xC3\xBCller");
        // A value Latin-1 has no place for: the entry is found, the value cannot be decoded.
        EXPECT_EQ(Add(plain, "Nihon", "\xE6\x97\xA5\xE6\x9C\xAC"), 0);
        EXPECT_EQ(FindOne(ld, "(cn=Nihon)"), "cn=Nihon" + kScratch + " <none>");
        EXPECT_EQ(ldap_get_errno(ld), LDAP_DECODING_ERROR);
        ldap_unbind(ld);
        ldap_unbind(plain);
    });
}

} // namespace
