// Eight threads share one handle and search through referrals to a second
// slapd at once: subtree searches whose search references are followed,
// and URL searches of the second server. Unbinding closes the referral
// connections with the rest. Also run under ThreadSanitizer.
#include "loopback.h"
#include "slapd_fixture.h"
#include "zor8ldap_api.h"

#include <gtest/gtest.h>

#include <thread>

using namespace zldap_test;

TEST(ReferralThreads, EightThreadsFollowReferralsOnOneHandleAndUnbindClosesEveryConnection)
{
    Slapd second(SlapdData{.people = 3});
    std::string people = "ou=people,dc=example,dc=com", url = second.url() + "/" + people + "?uid?one";
    Slapd first(SlapdData{.people = 0, .ldif = ReferralLdif("ou=far," + people, second.url() + "/" + people)});
    ZLDAP_REQUIRE_SLAPD(second.running() ? first : second);
    int before = OpenDescriptorCount();
    LDAP *ld = ldap_init(first.host().c_str(), 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 10; round++) {
                LDAPMessage *res = nullptr;
                EXPECT_EQ(t % 2 ? ldap_url_search_s(ld, url.c_str(), 0, &res)
                                : ldap_search_s(ld, people.c_str(), LDAP_SCOPE_SUBTREE, "(objectClass=*)", nullptr, 0, &res),
                          0);
                EXPECT_EQ(ldap_count_entries(ld, res), t % 2 ? 3 : 5) << "the first server's ou=people and four referred";
                ldap_msgfree(res);
            }
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(ldap_unbind(ld), 0);
    EXPECT_EQ(OpenDescriptorCount(), before);
}
