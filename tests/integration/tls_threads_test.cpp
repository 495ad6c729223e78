// Many threads on one secure handle: their requests and answers share one
// TLS connection, whose reads and writes run in different threads at once.
#include "slapd_fixture.h"
#include "zor8ldap_api.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using namespace zldap_test;

TEST(TlsThreads, ManyThreadsShareOneSecureConnection)
{
    static Slapd server(SlapdData{.people = 40, .tls_cert = "server"});
    ZLDAP_REQUIRE_SLAPD(server);
    ASSERT_LE(ldap_ssl_client_init((TestPki() + "/keys.kdb").c_str(), nullptr, 0, nullptr), LDAP_SECURE_INIT_DONE);
    LDAP *ld = ldap_init(server.ldaps_url().c_str(), 0);
    ASSERT_EQ(ldap_simple_bind_s(ld, Slapd::kRootDn, Slapd::kRootPassword), 0);
    std::atomic<int> found{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20; i++) {
                LDAPMessage *res = nullptr;
                std::string filter = "(uid=user0" + std::to_string(10 + (t * 20 + i) % 30) + ")";
                if (ldap_search_s(ld, Slapd::kPeople, LDAP_SCOPE_ONELEVEL, filter.c_str(), nullptr, 0, &res) == 0)
                    found += ldap_count_entries(ld, res);
                ldap_msgfree(res);
            }
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(found.load(), 8 * 20);
    ldap_unbind(ld);
}
