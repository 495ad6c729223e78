// plugin_threads_test.cpp - many threads meet a SASL plug-in at once: its
// first use initialises it one init call at a time (they run under the
// plug-in lock), and binds sharing a handle each leave a block that the
// plug-in's close function sees once.
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

// kThreads threads, started together, bind `binds` times each, on handles
// of their own or on one they share; the number of binds that failed.
int InThreads(const ScriptServer &server, bool own_handles, int binds, const char *mechanism)
{
    LDAP *shared = HandleFor(server);
    std::latch start(kThreads);
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([&] {
            LDAP *ld = own_handles ? HandleFor(server) : shared;
            start.arrive_and_wait();
            for (int i = 0; i < binds; i++)
                failed += ldap_sasl_bind_s(ld, nullptr, mechanism, nullptr, nullptr, nullptr, nullptr) != 0;
            if (own_handles)
                ldap_unbind(ld);
        });
    for (std::thread &thread : threads)
        thread.join();
    ldap_unbind(shared);
    return failed;
}

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
    // The init function takes 20 ms: calls not serialised would overlap.
    ConfFile conf("plugin sasl SLOW " + kTestPluginSl + " test_plugin_init_slow send\n");
    TakeTestPluginRecord();
    ScriptServer server(AnswersBinds());
    EXPECT_EQ(InThreads(server, true, 1, "SLOW"), 0);
    TestPluginRecord r = TakeTestPluginRecord();
    EXPECT_GE(r.inits, 1);
    EXPECT_EQ(r.most_inits_at_once, 1);
    EXPECT_EQ(r.binds, kThreads);
}

TEST(PluginThreads, BindsSharingAHandleEachCloseTheirBlockOnce)
{
    ASSERT_EQ(RegisterTestPlugin("CLOSER", "test_plugin_init", "send close"), 0);
    TakeTestPluginRecord();
    ScriptServer server(AnswersBinds());
    EXPECT_EQ(InThreads(server, false, 5, "CLOSER"), 0);
    TestPluginRecord r = TakeTestPluginRecord();
    EXPECT_EQ(r.binds, kThreads * 5);
    EXPECT_EQ(r.closes, r.binds);
}

} // namespace
