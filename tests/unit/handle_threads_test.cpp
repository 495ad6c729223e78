// Threads sharing one handle: sixteen send their own requests and wait for
// their own ids while the server answers out of order, and every answer
// must reach the thread that owns it; each thread reads its own error; an
// unbind waits for the operations inside the handle's guard; searches that
// time out while others read leave no rows, a thread behind a silent
// reader keeps its own time-out, and one cut short by an unbind says why. Also run under ThreadSanitizer.
#include "engine_fixture.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "ops/search.h"
#include "results/results.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <random>

using namespace zldap_test;
using namespace std::chrono_literals;

namespace {

constexpr int kThreads = 16;
constexpr int kRounds = 25;
constexpr int kDelResp = 0x6B;

// Collects requests and answers each batch in shuffled order, with a
// search-entry-like message before most results so that chains have
// several messages.
void ShuffledAnswers(ScriptConnection &c)
{
    std::mt19937 random(12345);
    std::vector<Request> batch;
    for (;;) {
        auto r = c.Read(batch.empty() ? 30000ms : 5ms);
        if (r)
            batch.push_back(*r);
        else if (batch.empty())
            return; // the client has gone
        if (r && batch.size() < 8)
            continue;
        std::shuffle(batch.begin(), batch.end(), random);
        for (const Request &q : batch) {
            if (q.id % 3 != 0)
                c.Send(wire::Entry(q.id, "cn=" + std::to_string(q.id), {{"cn", {std::to_string(q.id)}}}));
            c.Send(wire::Result(q.id, kDelResp, 0, "", "answer " + std::to_string(q.id)));
        }
        batch.clear();
    }
}

TEST(HandleThreads, EveryAnswerReachesItsOwner)
{
    ScriptServer server(ShuffledAnswers);
    LDAP *ld = HandleFor(server);
    std::atomic<int> delivered{0}, misrouted{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; round++) {
                int id = 0;
                LDAPMessage *res = nullptr;
                struct timeval tv {60, 0};
                int type = SendDelete(ld, "cn=t" + std::to_string(t), &id) == 0
                               ? ldap_result(ld, id, LDAP_MSG_ALL, &tv, &res)
                               : -2;
                if (type != kDelResp) {
                    ADD_FAILURE() << "ldap_result gave " << type << " error " << ldap_get_errno(ld);
                    return;
                }
                for (LDAPMessage *m = res; m; m = m->msg_next)
                    if (m->msg_id != id)
                        misrouted++;
                ReleaseRow(ld, id);
                delivered++;
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(delivered.load(), kThreads * kRounds);
    EXPECT_EQ(misrouted.load(), 0);
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(ld)), 0);
    EXPECT_EQ(server.connections(), 1) << "one connection shared by all threads";
    EXPECT_EQ(ldap_unbind(ld), 0);
}

// Searches that give up after a random time-out while other threads keep
// reading: a search's result may be filed by another thread between its
// time-out and the marking of its row as orphaned. No row may be left.
TEST(HandleThreads, TimedOutSearchesLeaveNoRowsBehind)
{
    constexpr int kSearchers = 8, kSearches = 150;
    ScriptServer server([](ScriptConnection &c) {
        std::mt19937 random(54321);
        while (auto r = c.Read()) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 1500));
            c.Send(Concat(wire::Entry(r->id, "cn=a", {{"cn", {"a"}}}), wire::Result(r->id, 0x65, 0)));
        }
    });
    LDAP *ld = HandleFor(server);
    std::vector<std::thread> threads;
    for (int t = 0; t < kSearchers; t++) {
        threads.emplace_back([ld, t] {
            std::mt19937 random(t);
            for (int i = 0; i < kSearches; i++) {
                struct timeval tv {0, static_cast<suseconds_t>(random() % 61) * 1000};
                LDAPMessage *res = nullptr;
                int rc = ldap_search_st(ld, "o=x", LDAP_SCOPE_BASE, "(cn=a)", nullptr, 0, &tv, &res);
                EXPECT_TRUE(rc == LDAP_SUCCESS || rc == LDAP_TIMEOUT) << rc;
                ldap_msgfree(res);
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    // A last search without limit is answered after every earlier one, so
    // every orphan's result has been filed when it returns.
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_s(ld, "o=x", LDAP_SCOPE_BASE, "(cn=a)", nullptr, 0, &res), LDAP_SUCCESS);
    ldap_msgfree(res);
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(ld)), 0);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST(HandleThreads, UnbindWaitsForAThreadInsideLdapResult)
{
    std::atomic<bool> answer{false};
    ScriptServer server([&](ScriptConnection &c) {
        if (auto r = c.Read()) {
            for (int i = 0; i < 5000 && !answer; i++)
                std::this_thread::sleep_for(1ms);
            c.Send(wire::Result(r->id, kDelResp, 0));
            c.Read(5s);
        }
    });
    LDAP *ld = HandleFor(server);
    int id = 0;
    ASSERT_EQ(SendDelete(ld, "cn=wait", &id), 0);
    std::atomic<int> result{-100};
    std::thread waiter([&] {
        LDAPMessage *res = nullptr;
        struct timeval tv {30, 0};
        result = ldap_result(ld, id, LDAP_MSG_ALL, &tv, &res);
    });
    // Let the waiter get inside ldap_result, then unbind from here; the
    // unbind must wait until the answer has come and the waiter has left.
    while (!ldap_operations_inside(ld))
        std::this_thread::sleep_for(1ms);
    std::thread answerer([&] {
        std::this_thread::sleep_for(100ms);
        answer = true;
    });
    EXPECT_EQ(ldap_unbind(ld), 0);
    EXPECT_TRUE(answer.load()) << "unbind returned before the answer came";
    waiter.join();
    answerer.join();
    EXPECT_EQ(result.load(), kDelResp);
}

// A thread that finds another reading a silent connection waits for that
// reader's news only as long as its own time-out: 0.1 s here against the
// reader's 3 s, checked with a bound of 2 s so that a slow machine passes.
TEST(HandleThreads, AWaiterBehindASilentReaderKeepsItsOwnTimeOut)
{
    ScriptServer server([](ScriptConnection &c) { c.Read(10s); c.Read(10s); c.Read(10s); });
    LDAP *ld = HandleFor(server);
    int first = 0, second = 0;
    ASSERT_EQ(SendDelete(ld, "cn=a", &first), 0);
    ASSERT_EQ(SendDelete(ld, "cn=b", &second), 0);
    auto reader = std::async(std::launch::async, [&] {
        LDAPMessage *res = nullptr;
        struct timeval tv {3, 0};
        return ldap_result(ld, first, LDAP_MSG_ALL, &tv, &res);
    });
    std::this_thread::sleep_for(300ms);
    LDAPMessage *res = nullptr;
    struct timeval tv {0, 100000};
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ldap_result(ld, second, LDAP_MSG_ALL, &tv, &res), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_EQ(reader.get(), 0);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

// An unbind that starts while a search is under way refuses the search's
// inner steps, which record no error of their own: the search must still
// say 89. The rounds let the unbind start at different moments.
TEST(HandleThreads, ASearchCutShortByAnUnbindSaysSo)
{
    for (int round = 0; round < 300; round++) {
        LDAP *ld = ldap_init("localhost", 0);
        ASSERT_EQ(ldap_start_operation(ld), 0); // keeps the handle until the searcher is done
        int rc = LDAP_FILTER_ERROR; // a filter the encoder rejects: no connection is needed
        std::thread searcher([&] {
            struct timeval tv {10, 0};
            LDAPMessage *res = nullptr;
            while (rc == LDAP_FILTER_ERROR && ldap_set_error(ld, LDAP_SUCCESS, nullptr, nullptr) == 0)
                rc = ldap_search_st(ld, "o=x", 0, "(cn=x))", nullptr, 0, &tv, &res);
        });
        std::thread unbinder([ld] { ldap_unbind(ld); });
        searcher.join();
        EXPECT_TRUE(rc == LDAP_FILTER_ERROR || rc == LDAP_PARAM_ERROR) << rc;
        ldap_end_operation(ld);
        unbinder.join();
    }
}

TEST(HandleThreads, EachThreadReadsItsOwnError)
{
    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_EQ(ldap_set_error(ld, LDAP_NO_SUCH_OBJECT, "o=example", "no entry"), 0);
    std::thread([&] {
        EXPECT_EQ(ldap_get_errno(ld), 0);
        ldap_set_error(ld, LDAP_BUSY, nullptr, nullptr);
    }).join();
    EXPECT_EQ(ldap_get_errno(ld), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

// A thread is counted in either by the slot in which it announces its
// handle or, while that slot holds another handle, by the handle's count:
// unbind must wait for both kinds.
TEST(HandleThreads, UnbindWaitsForOperationsInsideTheGuard)
{
    for (bool inside_another : {false, true}) {
        SCOPED_TRACE(inside_another ? "inside another handle" : "alone");
        LDAP *ld = ldap_init("localhost", 0);
        LDAP *other = ldap_init("localhost", 0);
        std::promise<void> inside, leave;
        std::thread operation([&] {
            if (inside_another) {
                EXPECT_EQ(ldap_start_operation(other), 0);
            }
            EXPECT_EQ(ldap_start_operation(ld), 0);
            inside.set_value();
            leave.get_future().wait();
            ldap_end_operation(ld);
            if (inside_another)
                ldap_end_operation(other);
        });
        inside.get_future().wait();
        EXPECT_TRUE(ldap_operations_inside(ld));
        std::atomic<bool> unbound{false};
        std::thread unbinder([&] {
            EXPECT_EQ(ldap_unbind(ld), 0);
            unbound = true;
        });
        // Once the unbind has marked the handle closing, a new operation is
        // turned away while the one inside keeps the handle alive.
        int rc = 0;
        for (int i = 0; i < 2000 && rc == 0; i++) {
            rc = ldap_start_operation(ld);
            if (rc == 0) {
                ldap_end_operation(ld);
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        }
        EXPECT_EQ(rc, LDAP_PARAM_ERROR);
        EXPECT_FALSE(unbound.load()) << "unbind returned while an operation was inside";
        leave.set_value();
        operation.join();
        unbinder.join();
        EXPECT_TRUE(unbound.load());
        EXPECT_EQ(ldap_unbind(other), 0);
    }
}

} // namespace
