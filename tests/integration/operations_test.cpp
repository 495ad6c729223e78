// Operations end to end against a real slapd: binds, searches of every
// scope and filter kind, size limits, binary values, walking entries, and
// every update and compare result.
#include "core/ldap_error.h"
#include "engine/ldap_result.h"
#include "ops/ldap_bind.h"
#include "ops/search.h"
#include "ops/update.h"
#include "results/results.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"
#include "slapd_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

using namespace zldap_test;

namespace {

class Directory : public testing::Test {
protected:
    void SetUp() override
    {
        ZLDAP_REQUIRE_SLAPD(SharedSlapd());
        ld = ldap_init(SharedSlapd().host().c_str(), 0);
        ASSERT_NE(ld, nullptr);
    }
    void TearDown() override { ldap_unbind(ld); }

    // The DNs of a search's entries, in the order received.
    std::vector<std::string> Dns(LDAPMessage *res)
    {
        std::vector<std::string> dns;
        for (LDAPMessage *e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
            char *dn = ldap_get_dn(ld, e);
            dns.push_back(dn ? dn : "<NULL>");
            ldap_memfree(dn);
        }
        return dns;
    }

    int Count(const char *base, int scope, const char *filter)
    {
        LDAPMessage *res = nullptr;
        int rc = ldap_search_s(ld, base, scope, filter, nullptr, 0, &res);
        int n = rc == 0 ? ldap_count_entries(ld, res) : -rc;
        ldap_msgfree(res);
        return n;
    }

    LDAP *ld = nullptr;
};

TEST_F(Directory, AnonymousAndSimpleBinds)
{
    EXPECT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0);
    EXPECT_EQ(ldap_simple_bind_s(ld, Slapd::kRootDn, Slapd::kRootPassword), 0);
    EXPECT_EQ(ldap_simple_bind_s(ld, Slapd::kRootDn, "wrong"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_INVALID_CREDENTIALS);
}

TEST_F(Directory, ScopesCountWhatTheDataHolds)
{
    int people = SharedSlapd().data().people;
    EXPECT_EQ(Count(Slapd::kPeople, LDAP_SCOPE_BASE, "(objectClass=*)"), 1);
    EXPECT_EQ(Count(Slapd::kPeople, LDAP_SCOPE_ONELEVEL, "(objectClass=*)"), people);
    EXPECT_EQ(Count(Slapd::kPeople, LDAP_SCOPE_SUBTREE, "(objectClass=*)"), people + 1);
    EXPECT_EQ(Count("ou=nowhere,dc=example,dc=com", LDAP_SCOPE_BASE, "(objectClass=*)"), -LDAP_NO_SUCH_OBJECT);
}

struct FilterCount {
    const char *filter;
    int count;
};

void PrintTo(const FilterCount &f, std::ostream *os) { *os << f.filter; }

class Filters : public Directory, public testing::WithParamInterface<FilterCount> {};

TEST_P(Filters, MatchWhatTheServerMatches)
{
    EXPECT_EQ(Count(Slapd::kPeople, LDAP_SCOPE_ONELEVEL, GetParam().filter), GetParam().count);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, Filters,
    testing::Values(FilterCount{"(uid=user007)", 1}, FilterCount{"uid=user007", 1}, FilterCount{"(uid=user00*)", 10},
                    FilterCount{"(uid=*07)", 2}, FilterCount{"(mail=*007@mail*)", 1},
                    FilterCount{"(&(uid=user0*)(!(uid=user00*)))", 90}, FilterCount{"(|(uid=user001)(uid=user002))", 2},
                    FilterCount{"(jpegPhoto=*)", 20}, FilterCount{"(cn:caseExactMatch:=User 5)", 1},
                    FilterCount{"(uid:dn:=user005)", 1}, FilterCount{"(ou:dn:=people)", 200},
                    FilterCount{"(telephoneNumber=+1 555 1010)", 1}, FilterCount{"(cn=User \\35)", 1},
                    FilterCount{"(uid=nobody)", 0}));

TEST_F(Directory, EscapedDnsComeBackAsStored)
{
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_s(ld, "ou=special,dc=example,dc=com", LDAP_SCOPE_ONELEVEL, "(sn=special)", nullptr, 0, &res), 0);
    std::vector<std::string> dns = Dns(res);
    ldap_msgfree(res);
    // The server hands DNs back in its own escaping: hex pairs.
    std::vector<std::string> expected = {
        "cn=Smith\\2C John,ou=special,dc=example,dc=com", "cn=a\\2Bb,ou=special,dc=example,dc=com",
        "cn=\\22quoted\\22,ou=special,dc=example,dc=com", "cn=back\\5Cslash,ou=special,dc=example,dc=com",
        "cn=\\23hash,ou=special,dc=example,dc=com", "cn=J\xC3\xBCrgen,ou=special,dc=example,dc=com"};
    std::sort(dns.begin(), dns.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(dns, expected);
    EXPECT_EQ(Count("ou=special,dc=example,dc=com", LDAP_SCOPE_ONELEVEL, "(cn=Smith, John)"), 1);
    EXPECT_EQ(Count("ou=special,dc=example,dc=com", LDAP_SCOPE_ONELEVEL, "(cn=\\28*)"), 0);
    EXPECT_EQ(Count("ou=special,dc=example,dc=com", LDAP_SCOPE_ONELEVEL, "(cn=back\\5cslash)"), 1);
}

TEST_F(Directory, SizeLimitExceededComesWithTheEntries)
{
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_ext_s(ld, Slapd::kPeople, LDAP_SCOPE_ONELEVEL, "(objectClass=*)", nullptr, 0, nullptr,
                                nullptr, nullptr, 7, &res),
              LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(ldap_count_entries(ld, res), 7);
    ldap_msgfree(res);
}

TEST_F(Directory, AttributeListsAndAttrsOnly)
{
    char uid[] = "uid", mail[] = "mail";
    char *attrs[] = {uid, mail, nullptr};
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_s(ld, "uid=user003,ou=people,dc=example,dc=com", LDAP_SCOPE_BASE, "(objectClass=*)", attrs,
                            0, &res),
              0);
    LDAPMessage *e = ldap_first_entry(ld, res);
    ASSERT_NE(e, nullptr);
    std::set<std::string> names;
    BerElement *cursor = nullptr;
    for (char *a = ldap_first_attribute(ld, e, &cursor); a; a = ldap_next_attribute(ld, e, cursor)) {
        names.insert(a);
        ldap_memfree(a);
    }
    ldap_ber_free(cursor, 0);
    EXPECT_EQ(names, (std::set<std::string>{"uid", "mail"}));
    char **values = ldap_get_values(ld, e, "MAIL");
    ASSERT_NE(values, nullptr);
    EXPECT_EQ(ldap_count_values(values), 2);
    ldap_value_free(values);
    EXPECT_EQ(ldap_get_values(ld, e, "sn"), nullptr);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_DECODING_ERROR);
    ldap_msgfree(res);

    ASSERT_EQ(ldap_search_s(ld, "uid=user003,ou=people,dc=example,dc=com", LDAP_SCOPE_BASE, "(objectClass=*)", attrs,
                            1, &res),
              0);
    e = ldap_first_entry(ld, res);
    struct berval **none = ldap_get_values_len(ld, e, "mail");
    EXPECT_EQ(ldap_count_values_len(none), 0) << "attrs-only sends no values";
    ldap_value_free_len(none);
    ldap_msgfree(res);
}

TEST_F(Directory, BinaryValuesKeepTheirZeroBytes)
{
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_s(ld, "uid=user010,ou=people,dc=example,dc=com", LDAP_SCOPE_BASE, "(objectClass=*)",
                            nullptr, 0, &res),
              0);
    struct berval **photo = ldap_get_values_len(ld, ldap_first_entry(ld, res), "jpegPhoto");
    ASSERT_EQ(ldap_count_values_len(photo), 1);
    std::string expected("\x89PNG\0\0\x01\x02\x0A\0end", 13);
    EXPECT_EQ(std::string(photo[0]->bv_val, photo[0]->bv_len), expected);
    ldap_value_free_len(photo);
    ldap_msgfree(res);
}

TEST_F(Directory, UpdatesAndComparesReturnTheServersCodes)
{
    ASSERT_EQ(ldap_simple_bind_s(ld, Slapd::kRootDn, Slapd::kRootPassword), 0);
    const char *dn = "cn=new,ou=scratch,dc=example,dc=com";
    char person[] = "person", name[] = "new", surname[] = "Person";
    char *oc[] = {person, nullptr}, *cn[] = {name, nullptr}, *sn[] = {surname, nullptr};
    LDAPMod m1{LDAP_MOD_ADD, const_cast<char *>("objectClass"), {oc}};
    LDAPMod m2{LDAP_MOD_ADD, const_cast<char *>("cn"), {cn}};
    LDAPMod m3{LDAP_MOD_ADD, const_cast<char *>("sn"), {sn}};
    LDAPMod *attrs[] = {&m1, &m2, &m3, nullptr};
    ASSERT_EQ(ldap_add_s(ld, dn, attrs), 0);
    EXPECT_EQ(ldap_add_s(ld, dn, attrs), LDAP_ALREADY_EXISTS);

    char text[] = "hello";
    char *desc[] = {text, nullptr};
    LDAPMod replace{LDAP_MOD_REPLACE, const_cast<char *>("description"), {desc}};
    LDAPMod *mods[] = {&replace, nullptr};
    ASSERT_EQ(ldap_modify_s(ld, dn, mods), 0);
    EXPECT_EQ(ldap_compare_s(ld, dn, "description", "hello"), LDAP_COMPARE_TRUE);
    EXPECT_EQ(ldap_compare_s(ld, dn, "description", "other"), LDAP_COMPARE_FALSE);

    EXPECT_EQ(ldap_modrdn_s(ld, dn, "cn=renamed", 1), 0);
    const char *renamed = "cn=renamed,ou=scratch,dc=example,dc=com";
    EXPECT_EQ(ldap_compare_s(ld, dn, "cn", "new"), LDAP_NO_SUCH_OBJECT);
    char *matched = nullptr;
    ldap_get_error_direct(ld, &matched, nullptr);
    EXPECT_STREQ(matched, "ou=scratch,dc=example,dc=com");
    ldap_memfree(matched);
    EXPECT_EQ(ldap_delete_s(ld, renamed), 0);
    // A success's empty matched DN and text read back as empty, not absent.
    char *text_back = nullptr;
    ldap_get_error_direct(ld, &matched, &text_back);
    EXPECT_STREQ(matched, "");
    EXPECT_STREQ(text_back, "");
    ldap_memfree(matched);
    ldap_memfree(text_back);
    EXPECT_EQ(ldap_delete_s(ld, renamed), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(ldap_delete_s(ld, "ou=people,dc=example,dc=com"), LDAP_NOT_ALLOWED_ON_NONLEAF);
}

TEST_F(Directory, AnonymousWritesAreRefused)
{
    int rc = ldap_delete_s(ld, "uid=user001,ou=people,dc=example,dc=com");
    EXPECT_TRUE(rc == LDAP_STRONG_AUTH_REQUIRED || rc == LDAP_INSUFFICIENT_ACCESS) << rc;
    char *text = nullptr;
    ldap_get_error_direct(ld, nullptr, &text);
    EXPECT_TRUE(text && *text) << "the server's text comes with the code";
    ldap_memfree(text);
}

TEST_F(Directory, ResultsCollectedOneByOne)
{
    int id = ldap_search(ld, Slapd::kPeople, LDAP_SCOPE_ONELEVEL, "(uid=user01*)", nullptr, 0);
    ASSERT_GT(id, 0);
    int entries = 0;
    for (;;) {
        LDAPMessage *msg = nullptr;
        struct timeval tv {30, 0};
        int type = ldap_result(ld, id, LDAP_MSG_ONE, &tv, &msg);
        ASSERT_GT(type, 0);
        EXPECT_EQ(ldap_next_message(ld, msg), nullptr);
        ldap_msgfree(msg);
        if (type == LDAP_RES_SEARCH_RESULT)
            break;
        entries++;
    }
    EXPECT_EQ(entries, 10);
    EXPECT_EQ(ldap_msg_table_outstanding(ld->ld_defconn->lconn_msgtable), 0);
}

} // namespace
