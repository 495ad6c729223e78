// Connections shared between threads: concurrent lookups of a missing
// server open it once, and thread bindings stay per thread while other
// threads look connections up.
#include "conn/ldap_connect.h"
#include "loopback.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

TEST(ConnectThreads, ConcurrentLookupsOpenAMissingServerOnce)
{
    zldap_test::LoopbackListener listener;
    LDAP *ld = ldap_init("127.0.0.1", 389);
    constexpr int kThreads = 4;
    std::vector<LDAPConn *> found(kThreads, nullptr);
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++)
        threads.emplace_back([&, i] {
            for (ready++; ready.load() < kThreads;) {
            }
            found[i] = find_connection(ld, "localhost", listener.port(), 1, nullptr, 0);
        });
    for (auto &t : threads)
        t.join();
    for (LDAPConn *lc : found)
        EXPECT_TRUE(lc && lc == ld->ld_defconn->lconn_next && !lc->lconn_next);
    EXPECT_GE(listener.Accept(2000).get(), 0);
    EXPECT_LT(listener.Accept(100).get(), 0) << "one connect only";
    EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST(ConnectThreads, BindingsStayWithTheirThreadDuringLookups)
{
    zldap_test::LoopbackListener listener;
    LDAP *ld = ldap_init("127.0.0.1", 389);
    LDAPConn *other = find_connection(ld, "127.0.0.1", listener.port(), 1, nullptr, 0);
    ASSERT_NE(other, nullptr);
    std::atomic<bool> wrong{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&, i] {
            for (int round = 0; round < 50; round++) {
                bool bind = (i + round) % 2 == 0;
                wrong = wrong || (bind && set_thread_connection(ld, other) != 0) ||
                        get_default_connection(ld) != (bind ? other : ld->ld_defconn) ||
                        find_connection(ld, "127.0.0.1", listener.port(), 0, nullptr, 0) != other ||
                        (bind && set_thread_connection(ld, nullptr) != 0);
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_FALSE(wrong.load());
    EXPECT_EQ(ld->ld_thread_conns, nullptr);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

} // namespace
