// Eight threads share one handle against slapd, each running a bounded
// number of rounds of mixed operations on entries of its own, with every
// result checked. Also run under ThreadSanitizer.
#include "ops/ldap_bind.h"
#include "ops/search.h"
#include "ops/update.h"
#include "results/results.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"
#include "slapd_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using namespace zldap_test;

namespace {

constexpr int kThreads = 8;
constexpr int kRounds = 15;

// One attribute of one string value, for adds and modifies.
struct Value {
    Value(int op, const char *type, const std::string &value) : text(value), mod{op, const_cast<char *>(type), {values}}
    {
    }
    std::string text;
    char *values[2] = {text.data(), nullptr};
    LDAPMod mod;
};

// One round for thread t: add an entry, read it back, change it, compare,
// rename it and delete it; returns the first step that went wrong.
std::string Round(LDAP *ld, int t, int round)
{
    std::string name = "t" + std::to_string(t) + "r" + std::to_string(round);
    std::string dn = "cn=" + name + ",ou=scratch,dc=example,dc=com";
    std::string renamed = "cn=" + name + "x,ou=scratch,dc=example,dc=com";
    Value oc(LDAP_MOD_ADD, "objectClass", "person"), cn(LDAP_MOD_ADD, "cn", name), sn(LDAP_MOD_ADD, "sn", "Threads");
    LDAPMod *attrs[] = {&oc.mod, &cn.mod, &sn.mod, nullptr};
    if (int rc = ldap_add_s(ld, dn.c_str(), attrs); rc != 0)
        return "add " + std::to_string(rc);

    LDAPMessage *res = nullptr;
    std::string filter = "(cn=" + name + ")";
    int rc = ldap_search_s(ld, "ou=scratch,dc=example,dc=com", LDAP_SCOPE_ONELEVEL, filter.c_str(), nullptr, 0, &res);
    int found = rc == 0 ? ldap_count_entries(ld, res) : -1;
    char *got_dn = rc == 0 ? ldap_get_dn(ld, ldap_first_entry(ld, res)) : nullptr;
    bool same = got_dn && dn == got_dn;
    ldap_memfree(got_dn);
    ldap_msgfree(res);
    if (rc != 0 || found != 1 || !same)
        return "search " + std::to_string(rc) + " found " + std::to_string(found);

    std::string text = "round " + std::to_string(round);
    Value description(LDAP_MOD_REPLACE, "description", text);
    LDAPMod *mods[] = {&description.mod, nullptr};
    if (int rc2 = ldap_modify_s(ld, dn.c_str(), mods); rc2 != 0)
        return "modify " + std::to_string(rc2);
    if (int rc2 = ldap_compare_s(ld, dn.c_str(), "description", text.c_str()); rc2 != LDAP_COMPARE_TRUE)
        return "compare " + std::to_string(rc2);
    if (int rc2 = ldap_modrdn_s(ld, dn.c_str(), ("cn=" + name + "x").c_str(), 1); rc2 != 0)
        return "rename " + std::to_string(rc2);
    if (int rc2 = ldap_delete_s(ld, renamed.c_str()); rc2 != 0)
        return "delete " + std::to_string(rc2);
    if (int rc2 = ldap_delete_s(ld, renamed.c_str()); rc2 != LDAP_NO_SUCH_OBJECT)
        return "second delete " + std::to_string(rc2);
    return "";
}

TEST(OperationsThreads, EightThreadsShareOneHandle)
{
    ZLDAP_REQUIRE_SLAPD(SharedSlapd());
    LDAP *ld = ldap_init(SharedSlapd().host().c_str(), 0);
    ASSERT_NE(ld, nullptr);
    ASSERT_EQ(ldap_simple_bind_s(ld, Slapd::kRootDn, Slapd::kRootPassword), 0);
    std::atomic<int> done{0};
    std::vector<std::string> failures(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; round++) {
                std::string failure = Round(ld, t, round);
                if (!failure.empty()) {
                    failures[t] = "round " + std::to_string(round) + ": " + failure;
                    return;
                }
                done++;
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    for (int t = 0; t < kThreads; t++)
        EXPECT_EQ(failures[t], "") << "thread " << t;
    EXPECT_EQ(done.load(), kThreads * kRounds);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

} // namespace
