// plugin_threads_test.cpp - many threads meet a SASL plug-in at once: its
// first use loads and initialises it with one init call at a time (they
// run under the plug-in lock), and binds sharing a handle each leave a
// block that the plug-in's close function sees exactly once.
#include "engine_fixture.h"
#include "plugin_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

using namespace zldap_test;

namespace {

constexpr int kThreads = 8;

ScriptServer::Script AnswersBinds()
{
    return [](ScriptConnection &c) {
        while (auto r = c.Read())
            if (r->tag == 0x60)
                c.Send(wire::Result(r->id, 0x61, 0));
    };
}

TEST(PluginThreads, FirstUseInitialisesOneThreadAtATime)
{
    // The init function takes 20 ms: calls that were not serialised would
    // overlap.
    ConfFile conf("plugin sasl SLOW " + TestPluginSlPath() + " test_plugin_init_slow send\n");
    ResetTestPlugin();
    ScriptServer server(AnswersBinds());
    std::latch start(kThreads);
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&] {
            LDAP *ld = HandleFor(server);
            start.arrive_and_wait();
            if (ldap_sasl_bind_s(ld, nullptr, "SLOW", nullptr, nullptr, nullptr, nullptr) != 0)
                failed++;
            ldap_unbind(ld);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(failed.load(), 0);
    TestPluginRecord r = ReadTestPlugin();
    EXPECT_GE(r.inits, 1);
    EXPECT_EQ(r.most_inits_at_once, 1);
    EXPECT_EQ(r.binds, kThreads);
}

TEST(PluginThreads, BindsSharingAHandleEachCloseTheirBlockOnce)
{
    TestPluginDescription d("CLOSER", "test_plugin_init", "send close");
    LDAPPluginInfo info = d.info();
    ASSERT_EQ(ldap_register_plugin(&info), 0);
    ResetTestPlugin();
    ScriptServer server(AnswersBinds());
    LDAP *ld = HandleFor(server);
    std::latch start(kThreads);
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (int i = 0; i < 5; i++)
                if (ldap_sasl_bind_s(ld, nullptr, "CLOSER", nullptr, nullptr, nullptr, nullptr) != 0)
                    failed++;
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(failed.load(), 0);
    ldap_unbind(ld);
    TestPluginRecord r = ReadTestPlugin();
    EXPECT_EQ(r.binds, kThreads * 5);
    EXPECT_EQ(r.closes, r.binds);
    EXPECT_TRUE(r.close_saw_a_bind_block);
}

} // namespace
