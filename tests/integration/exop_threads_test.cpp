// Abandon while another thread of the same handle is inside ldap_result,
// collecting the entries of the search being abandoned from slapd. Also run
// under ThreadSanitizer.
#include "session/ldap_unbind.h"
#include "slapd_fixture.h"
#include "zor8ldap_api.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace zldap_test;

namespace {

constexpr int kBulk = 10000;
constexpr int kRounds = 5;

Slapd &Server()
{
    static Slapd server(SlapdData{200, kBulk});
    return server;
}

TEST(AbandonThreads, AbandonWhileAnotherThreadCollects)
{
    ZLDAP_REQUIRE_SLAPD(Server());
    LDAP *ld = ldap_init(Server().host().c_str(), 0);
    ASSERT_NE(ld, nullptr);
    for (int round = 0; round < kRounds; round++) {
        int search =
            ldap_search(ld, "ou=bulk,dc=example,dc=com", LDAP_SCOPE_SUBTREE, "(objectClass=person)", nullptr, 0);
        ASSERT_GT(search, 0);
        std::atomic<int> entries{0};
        std::atomic<bool> finished{false};
        std::atomic<bool> stopped{false};
        // The collector stops when the id is refused. A wait that times out
        // (nothing more comes for an abandoned search, or the machine is
        // slow) just tries again, a bounded number of times.
        std::thread collector([&] {
            struct timeval tv {1, 0};
            for (int attempt = 0; attempt < 20000 && !stopped; attempt++) {
                LDAPMessage *msg = nullptr;
                int type = ldap_result(ld, search, LDAP_MSG_ONE, &tv, &msg);
                if (type == LDAP_RES_SEARCH_ENTRY)
                    entries++;
                else if (type == LDAP_RES_SEARCH_RESULT)
                    finished = true;
                ldap_msgfree(msg);
                stopped = type == -1 || finished;
            }
            stopped = true;
        });
        while (entries.load() < 50 && !stopped.load())
            std::this_thread::yield();
        EXPECT_EQ(ldap_abandon(ld, search), 0) << "round " << round;
        collector.join();
        EXPECT_FALSE(finished.load()) << "round " << round << ": the whole search reached the caller";
        EXPECT_LT(entries.load(), kBulk) << "round " << round;
    }
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_s(ld, Slapd::kPeople, LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, &res), 0);
    EXPECT_EQ(ldap_count_entries(ld, res), 1);
    ldap_msgfree(res);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

} // namespace
