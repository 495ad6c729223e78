// Extended operations and abandon against a real slapd: Who am I?, a
// password set by the password modify operation and an unknown request
// name; abandon while another thread of the same handle is inside
// ldap_result collecting the entries of the search being abandoned: the
// search stops short, nothing arriving late is kept for it, and the
// connection goes on. Also run under ThreadSanitizer.
#include "engine_fixture.h"
#include "slapd_fixture.h"
#include "zor8ldap_api.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

using namespace zldap_test;

namespace {

// The bulk subtree makes a search long enough to abandon.
Slapd &Server()
{
    static Slapd server(SlapdData{200, 10000});
    return server;
}

// "code name value" of what ldap_extended_operation_s handed out for a
// request with this value (none when empty).
std::string Extended(LDAP *ld, const char *oid, Bytes value = {})
{
    struct berval bv {value.size(), reinterpret_cast<char *>(value.data())}, *data = nullptr;
    char *name = nullptr;
    int rc = ldap_extended_operation_s(ld, oid, value.empty() ? nullptr : &bv, nullptr, nullptr, &name, &data);
    std::string out = std::to_string(rc) + " " + (name ? name : "-") + " " +
                      (data ? std::string(data->bv_val, data->bv_len) : "-");
    ldap_memfree(name);
    ber_bvfree(data);
    return out;
}

TEST(Exop, WhoAmIPasswordModifyAndAnUnknownName)
{
    ZLDAP_REQUIRE_SLAPD(Server());
    LDAP *ld = ldap_init(Server().host().c_str(), 0);
    const char *who = "1.3.6.1.4.1.4203.1.11.3", *user = "uid=user001,ou=people,dc=example,dc=com";
    ASSERT_EQ(ldap_simple_bind_s(ld, Slapd::kRootDn, Slapd::kRootPassword), 0);
    EXPECT_EQ(Extended(ld, who), std::string("0 - dn:") + Slapd::kRootDn);
    EXPECT_EQ(Extended(ld, "1.2.3.4.5.6.7"), "2 - -") << "a protocol error; nothing handed out";
    // A password modify request: the user [0] and the new password [2].
    EXPECT_EQ(Extended(ld, "1.3.6.1.4.1.4203.1.11.1", Seq({Octets(user, 0x80), Octets("first", 0x82)})), "0 - -");
    ASSERT_EQ(ldap_simple_bind_s(ld, user, "first"), 0);
    EXPECT_EQ(Extended(ld, who), std::string("0 - dn:") + user);
    ldap_unbind(ld);
}

TEST(AbandonThreads, AbandonWhileAnotherThreadCollects)
{
    ZLDAP_REQUIRE_SLAPD(Server());
    LDAP *ld = ldap_init(Server().host().c_str(), 0);
    int search = 0;
    for (int round = 0; round < 5; round++) {
        search = ldap_search(ld, "ou=bulk,dc=example,dc=com", LDAP_SCOPE_SUBTREE, "(objectClass=person)", nullptr, 0);
        ASSERT_GT(search, 0);
        std::atomic<int> entries{0}, last{0};
        // The collector stops when the id is refused. A wait that times out
        // (nothing more comes for an abandoned search, or the machine is
        // slow) just tries again, a bounded number of times.
        std::thread collector([&] {
            struct timeval tv {1, 0};
            for (int attempt = 0; attempt < 20000 && last != -1 && last != LDAP_RES_SEARCH_RESULT; attempt++) {
                LDAPMessage *msg = nullptr;
                last = ldap_result(ld, search, LDAP_MSG_ONE, &tv, &msg);
                entries += last == LDAP_RES_SEARCH_ENTRY;
                ldap_msgfree(msg);
            }
        });
        while (entries.load() < 50 && last != -1 && last != LDAP_RES_SEARCH_RESULT)
            std::this_thread::yield();
        EXPECT_EQ(ldap_abandon(ld, search), 0) << "round " << round;
        collector.join();
        EXPECT_EQ(last.load(), -1) << "round " << round << ": the id is refused once abandoned";
        EXPECT_LT(entries.load(), 10000) << "round " << round;
    }
    // The next operation reads past whatever slapd sent before it stopped.
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_s(ld, Slapd::kPeople, LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, &res), 0);
    EXPECT_EQ(ldap_count_entries(ld, res), 1);
    ldap_msgfree(res);
    EXPECT_EQ(TableOf(ld)->rows[search].first_result, nullptr) << "no late entry was kept for the abandoned search";
    EXPECT_EQ(ldap_unbind(ld), 0);
}

} // namespace
