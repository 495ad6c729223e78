// Referral chasing and URL searches against two real slapd servers of one
// suffix: the first holds referral objects into the second's users, to a
// missing entry there, to a closed port, and one whose ldaps URL comes
// first; a third server never answers (search references are followed in
// referrals_threads_test). Each row is a subtree search of the first
// server, or a URL search through the exported function, with one option
// set; each ends with every row of the handle's own table given back (a
// URL search's stand-in row included, also after a time-out).
#include "loopback.h"
#include "message/ldap_table.h"
#include "slapd_fixture.h"
#include "zor8ldap_api.h"

#include <gtest/gtest.h>

using namespace zldap_test;

const int kPortB = RefusedPort().port(); // the rows name the second server before it starts
const RefusedPort kClosed;
const LoopbackListener kSilent; // connects complete in its backlog; nothing answers
const std::string kPeople = "ou=people,dc=example,dc=com", kFar = "ou=far," + kPeople;

std::string Url(int port, const std::string &dn) { return "ldap://127.0.0.1:" + std::to_string(port) + "/" + dn; }

Slapd &First()
{
    static Slapd b(SlapdData{.people = 3, .port = kPortB});
    static Slapd a(SlapdData{
        .people = 0,
        .ldif = ReferralLdif(kFar, Url(kPortB, kPeople)) + ReferralLdif("ou=gone,dc=example,dc=com", Url(kPortB, "o=gone")) +
                ReferralLdif("ou=dead,dc=example,dc=com", Url(kClosed.port(), "o=x")) +
                ReferralLdif("ou=mixed,dc=example,dc=com",
                             "ldaps" + Url(kPortB, "").substr(4) + "\nref: " + Url(kPortB, kPeople))});
    return b.running() ? a : b;
}

int Refuse(LDAP *, char **, char **, int *, int freeit) { return freeit ? 0 : LDAP_INVALID_CREDENTIALS; }
const void *const kRefuse = reinterpret_cast<const void *>(Refuse);

// A base DN or a URL; what comes back: the code, the entries, and the first
// referral URL handed over or else the result's text; the option set.
struct Row { const char *name; std::string target, outcome; int option = LDAP_OPT_REFERRALS; const void *value = LDAP_OPT_ON; };

const Row kRows[] = {
    {"BaseIsAReferralObject", kFar, "0 4 "},
    {"ChasingOff", kFar, "10 0 " + Url(kPortB, kPeople + "??sub"), LDAP_OPT_REFERRALS, LDAP_OPT_OFF},
    {"TheSecondServersFailure", "ou=gone,dc=example,dc=com", "32 0 "},
    {"ClosedPort", "ou=dead,dc=example,dc=com", "0 0 Referral:\n" + Url(kClosed.port(), "o=x??sub\n")},
    {"LdapsSkipped", "ou=mixed,dc=example,dc=com", "0 4 "},
    {"RebindRefused", kFar, "0 0 Referral:\n" + Url(kPortB, kPeople + "??sub\n"), LDAP_OPT_REBIND_PROC, kRefuse},
    {"UrlOwnServer", "ldap:///ou=far," + kPeople + "??sub", "0 4 "},
    {"UrlOtherServerAfterARefusedRebind", Url(kPortB, kPeople + "?uid?one"), "0 3 ", LDAP_OPT_REBIND_PROC, kRefuse},
    {"UrlSilentServer", Url(kSilent.port(), "o=x"), "85 0 "},
};

class Referral : public testing::TestWithParam<Row> {};

TEST_P(Referral, EndsAsTheServersSay)
{
    ZLDAP_REQUIRE_SLAPD(First());
    LDAP *ld = ldap_init(First().host().c_str(), 0);
    ldap_set_option(ld, GetParam().option, GetParam().value);
    LDAPMessage *res = nullptr;
    struct timeval wait {3, 0}; // ample for slapd on a loaded machine, and the silent server's time-out
    const char *t = GetParam().target.c_str();
    int rc = ldap_is_ldap_url(t) ? zor_ldap_url_search_st(ld, t, 0, &wait, &res)
                                 : ldap_search_st(ld, t, LDAP_SCOPE_SUBTREE, "(objectClass=*)", nullptr, 0, &wait, &res);
    std::string outcome = std::to_string(rc) + " " + std::to_string(res ? ldap_count_entries(ld, res) : 0) + " ";
    char *text = nullptr, **urls = nullptr;
    if (res && ldap_parse_result(ld, res, nullptr, nullptr, &text, &urls, nullptr, 1) == 0)
        outcome += urls ? urls[0] : text;
    EXPECT_EQ(outcome, GetParam().outcome);
    EXPECT_EQ(ldap_msg_table_outstanding(ld->ld_defconn->lconn_msgtable), 0);
    ldap_memfree(text);
    ldap_value_free(urls);
    ldap_unbind(ld);
}

INSTANTIATE_TEST_SUITE_P(Rows, Referral, testing::ValuesIn(kRows), [](const auto &info) { return info.param.name; });
