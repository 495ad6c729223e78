// The message engine against a scripted server: sending, the connection
// opened on first use, reading and filing, ldap_result in its modes and
// time-outs, and what happens when the connection dies.
#include "ber_test_support.h"
#include "engine_fixture.h"
#include "fresh_process.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_init.h"
#include "message/ldap_queue.h"
#include "engine/ldap_receive.h"
#include "session/ldap_unbind.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace zldap_test;
using namespace std::chrono_literals;

namespace {

constexpr int kDone = 0x65;
constexpr int kEntry = 0x64;
constexpr int kDelResp = 0x6B;

struct Handle {
    explicit Handle(const ScriptServer &server) : ld(HandleFor(server)) {}
    ~Handle() { ldap_unbind(ld); }
    LDAP *ld;
};

// Answers every request with a delete response carrying its id as the text.
void EchoResults(ScriptConnection &c)
{
    while (auto r = c.Read())
        c.Send(wire::Result(r->id, kDelResp, 0, "", "answer " + std::to_string(r->id)));
}

TEST(Send, TheFirstRequestOpensTheConnectionAndIsWrittenExactly)
{
    std::atomic<int> seen_id{-1};
    Bytes seen;
    ScriptServer server([&](ScriptConnection &c) {
        if (auto r = c.Read()) {
            seen = r->message;
            seen_id = r->id;
            c.Send(wire::Result(r->id, kDelResp, 0));
        }
        EchoResults(c);
    });
    Handle h(server);
    EXPECT_FALSE(lconn_is_connected(h.ld->ld_defconn)) << "ldap_init does not connect";
    int id = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=x", &id), 0);
    EXPECT_EQ(id, 1);
    EXPECT_TRUE(lconn_is_connected(h.ld->ld_defconn));
    int second = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=y", &second), 0);
    EXPECT_EQ(second, 2);
    LDAPMessage *res = nullptr;
    struct timeval tv {10, 0};
    ASSERT_EQ(ldap_result(h.ld, id, LDAP_MSG_ALL, &tv, &res), kDelResp);
    EXPECT_EQ(ToHex(seen), "30 84 00 00 00 09 02 01 01 4A 04 63 6E 3D 78");
    EXPECT_EQ(server.connections(), 1) << "later requests reuse the connection";
    ReleaseRow(h.ld, id);
    ASSERT_EQ(ldap_result(h.ld, second, LDAP_MSG_ALL, &tv, &res), kDelResp);
    EXPECT_EQ(res->msg_id, second);
    ReleaseRow(h.ld, second);
}

TEST(Send, ARefusedConnectionFailsTheRequestAndKeepsNothing)
{
    int port = 0;
    {
        ScriptServer gone([](ScriptConnection &) {});
        port = gone.port();
    }
    LDAP *ld = ldap_init(("127.0.0.1:" + std::to_string(port)).c_str(), 0);
    int id = 0;
    EXPECT_EQ(SendDelete(ld, "cn=x", &id), LDAP_SERVER_DOWN);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_SERVER_DOWN);
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(ld)), 0);
    EXPECT_EQ(SendDelete(ld, "cn=x", &id), LDAP_SERVER_DOWN) << "closed for good";
    ldap_unbind(ld);
}

TEST(Result, AllHandsOutTheWholeChainOne_HandsOutMessagesAlone)
{
    ScriptServer server([](ScriptConnection &c) {
        while (auto r = c.Read()) {
            c.Send(wire::Entry(r->id, "cn=a", {{"cn", {"a"}}}));
            c.Send(wire::Entry(r->id, "cn=b", {{"cn", {"b"}}}));
            c.Send(wire::Result(r->id, kDone, 0));
        }
    });
    Handle h(server);
    struct timeval tv {10, 0};
    int id = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=all", &id), 0);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_result(h.ld, id, LDAP_MSG_ALL, &tv, &res), kDone);
    std::vector<int> types;
    for (LDAPMessage *m = res; m; m = m->msg_next) {
        types.push_back(m->msg_type);
        EXPECT_EQ(m->msg_flags & LDAP_MSGFLAG_ALONE, 0u);
    }
    EXPECT_EQ(types, (std::vector<int>{kEntry, kEntry, kDone}));
    ReleaseRow(h.ld, id);

    ASSERT_EQ(SendDelete(h.ld, "cn=one", &id), 0);
    types.clear();
    for (int i = 0; i < 3; i++) {
        ASSERT_GT(ldap_result(h.ld, id, LDAP_MSG_ONE, &tv, &res), 0);
        EXPECT_NE(res->msg_flags & LDAP_MSGFLAG_ALONE, 0u);
        types.push_back(res->msg_type);
    }
    EXPECT_EQ(types, (std::vector<int>{kEntry, kEntry, kDone}));
    EXPECT_EQ(ldap_result(h.ld, id, LDAP_MSG_ONE, &tv, &res), -1) << "everything was handed out";
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_LOCAL_ERROR);
    ReleaseRow(h.ld, id);
}

TEST(Result, ATimeOutInTheMiddleOfAnElementContinuesWithTheSameElement)
{
    std::atomic<bool> send_rest{false};
    ScriptServer server([&](ScriptConnection &c) {
        auto r = c.Read();
        if (!r)
            return;
        Bytes answer = wire::Result(r->id, kDelResp, 0, "", "split answer");
        c.Send(Bytes(answer.begin(), answer.begin() + 7));
        for (int i = 0; i < 3000 && !send_rest; i++)
            std::this_thread::sleep_for(1ms);
        c.Send(Bytes(answer.begin() + 7, answer.end()));
        c.Read(5s);
    });
    Handle h(server);
    int id = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=split", &id), 0);
    LDAPMessage *res = nullptr;
    struct timeval short_wait {0, 200000};
    EXPECT_EQ(ldap_result(h.ld, id, LDAP_MSG_ALL, &short_wait, &res), 0);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_TIMEOUT);
    EXPECT_NE(TableOf(h.ld)->partial, nullptr) << "the half-read element is kept";
    send_rest = true;
    struct timeval long_wait {10, 0};
    ASSERT_EQ(ldap_result(h.ld, id, LDAP_MSG_ALL, &long_wait, &res), kDelResp);
    EXPECT_EQ(res->msg_id, id);
    ReleaseRow(h.ld, id);
}

TEST(Result, AZeroTimeOutPollsOnce)
{
    ScriptServer server([](ScriptConnection &c) {
        c.Read();
        c.Read(5s); // holds the connection open without answering
    });
    Handle h(server);
    int id = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=poll", &id), 0);
    LDAPMessage *res = nullptr;
    struct timeval zero {0, 0};
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(ldap_result(h.ld, id, LDAP_MSG_ALL, &zero, &res), 0);
    // Generous bound: a poll that waited would take the server's 5 s.
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
    ReleaseRow(h.ld, id);
}

TEST(Result, AnAllTimeOutKeepsWhatItGatheredForTheNextCall)
{
    std::atomic<bool> finish{false};
    ScriptServer server([&](ScriptConnection &c) {
        auto r = c.Read();
        if (!r)
            return;
        c.Send(wire::Entry(r->id, "cn=first", {{"cn", {"first"}}}));
        for (int i = 0; i < 3000 && !finish; i++)
            std::this_thread::sleep_for(1ms);
        c.Send(wire::Entry(r->id, "cn=second", {{"cn", {"second"}}}));
        c.Send(wire::Result(r->id, kDone, 0));
        c.Read(5s);
    });
    Handle h(server);
    int id = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=slow", &id), 0);
    LDAPMessage *res = nullptr;
    struct timeval short_wait {0, 300000};
    EXPECT_EQ(ldap_result(h.ld, id, LDAP_MSG_ALL, &short_wait, &res), 0);
    EXPECT_EQ(res, nullptr);
    finish = true;
    struct timeval long_wait {10, 0};
    ASSERT_EQ(ldap_result(h.ld, id, LDAP_MSG_ALL, &long_wait, &res), kDone);
    int entries = 0;
    for (LDAPMessage *m = res; m; m = m->msg_next)
        entries += m->msg_type == kEntry;
    EXPECT_EQ(entries, 2);
    EXPECT_EQ(res->msg_type, kEntry);
    ReleaseRow(h.ld, id);
}

TEST(Result, NotificationsWithIdZeroGoToRowZero)
{
    ScriptServer server([](ScriptConnection &c) {
        auto r = c.Read();
        if (!r)
            return;
        c.Send(wire::Result(0, 0x78, 52, "", "shutting down"));
        c.Send(wire::Result(r->id, kDelResp, 0));
        c.Read(5s);
    });
    Handle h(server);
    int id = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=x", &id), 0);
    LDAPMessage *res = nullptr;
    struct timeval tv {10, 0};
    ASSERT_EQ(ldap_result(h.ld, id, LDAP_MSG_ALL, &tv, &res), kDelResp);
    ASSERT_EQ(ldap_result(h.ld, 0, LDAP_MSG_ONE, &tv, &res), 0x78);
    EXPECT_EQ(res->msg_id, 0);
    EXPECT_FALSE(TableOf(h.ld)->rows[0].flags & LDAP_ROW_DONE) << "row 0 never completes";
    EXPECT_EQ(ldap_result(h.ld, 0, LDAP_MSG_ALL, &tv, &res), -1) << "id 0 is refused for a whole chain";
    ReleaseRow(h.ld, id);
}

TEST(Result, ResponsesThatBelongNowhereAreThrownAway)
{
    ScriptServer server([](ScriptConnection &c) {
        auto r = c.Read();
        if (!r)
            return;
        c.Send(wire::Result(9999, kDelResp, 0));  // beyond the table
        c.Send(wire::Result(200, kDelResp, 0));   // a row without a request
        c.Send(wire::Seq({wire::Octets("no id")})); // no message id at all
        c.Send(wire::Result(r->id, kDelResp, 0));
        c.Read(5s);
    });
    Handle h(server);
    TraceCapture trace(0xFFFF);
    int id = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=x", &id), 0);
    LDAPMessage *res = nullptr;
    struct timeval tv {10, 0};
    ASSERT_EQ(ldap_result(h.ld, id, LDAP_MSG_ALL, &tv, &res), kDelResp);
    EXPECT_EQ(res->msg_id, id);
    std::string text = trace.text();
    EXPECT_NE(text.find("put_msg_in_table: BAD Msg (9999), throw it."), std::string::npos);
    EXPECT_NE(text.find("put_msg_in_table: No corresponding request msg found."), std::string::npos);
    ReleaseRow(h.ld, id);
}

TEST(Result, AnOrphanedRowIsReleasedWhenItsResultArrives)
{
    ScriptServer server([](ScriptConnection &c) {
        auto first = c.Read();
        auto second = c.Read();
        if (!first || !second)
            return;
        c.Send(wire::Entry(first->id, "cn=late", {{"cn", {"late"}}}));
        c.Send(wire::Result(first->id, kDone, 0));
        c.Send(wire::Result(second->id, kDelResp, 0));
        c.Read(5s);
    });
    Handle h(server);
    int orphan = 0, other = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=orphan", &orphan), 0);
    ASSERT_EQ(SendDelete(h.ld, "cn=other", &other), 0);
    ldap_msg_table_set_flag(h.ld, TableOf(h.ld), orphan, LDAP_ROW_ORPHAN);
    LDAPMessage *res = nullptr;
    struct timeval tv {10, 0};
    ASSERT_EQ(ldap_result(h.ld, other, LDAP_MSG_ALL, &tv, &res), kDelResp);
    EXPECT_EQ(TableOf(h.ld)->rows[orphan].flags, 0u) << "released with everything filed for it";
    EXPECT_EQ(TableOf(h.ld)->rows[orphan].request, nullptr);
    ReleaseRow(h.ld, other);
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(h.ld)), 0);
}

TEST(Result, AClosedConnectionFailsEveryLaterCallAtOnce)
{
    ScriptServer server([](ScriptConnection &c) {
        c.Read();
        c.Close();
    });
    Handle h(server);
    int id = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=x", &id), 0);
    LDAPMessage *res = nullptr;
    struct timeval tv {10, 0};
    EXPECT_EQ(ldap_result(h.ld, id, LDAP_MSG_ALL, &tv, &res), -1);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_SERVER_DOWN);
    EXPECT_TRUE(lconn_is_closed(h.ld->ld_defconn));
    TraceCapture trace(0xFFFF);
    EXPECT_EQ(ldap_get_msg(h.ld, h.ld->ld_defconn, &tv), LDAP_SERVER_DOWN);
    int again = 0;
    EXPECT_EQ(SendDelete(h.ld, "cn=y", &again), LDAP_SERVER_DOWN);
    std::string text = trace.text();
    EXPECT_NE(text.find("ldap_get_msg: Socket connection was closed earlier"), std::string::npos);
    EXPECT_NE(text.find("ldap_write_msg: Socket connection was closed earlier"), std::string::npos);
    ReleaseRow(h.ld, id);
}

TEST(Result, AWriteToAVanishedServerClosesTheConnection)
{
    std::atomic<bool> closed{false};
    ScriptServer server([&](ScriptConnection &c) {
        auto r = c.Read();
        if (r)
            c.Send(wire::Result(r->id, kDelResp, 0));
        c.Close();
        closed = true;
    });
    Handle h(server);
    int id = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=x", &id), 0);
    LDAPMessage *res = nullptr;
    struct timeval tv {10, 0};
    ASSERT_EQ(ldap_result(h.ld, id, LDAP_MSG_ALL, &tv, &res), kDelResp);
    ReleaseRow(h.ld, id);
    for (int i = 0; i < 5000 && !closed; i++)
        std::this_thread::sleep_for(1ms);
    // The peer is gone: a large enough request fails on write (no SIGPIPE).
    std::string big(1 << 20, 'x');
    int rc = 0;
    for (int i = 0; i < 20 && rc == 0; i++) {
        rc = SendDelete(h.ld, big, &id);
        if (rc == 0)
            ReleaseRow(h.ld, id);
    }
    EXPECT_EQ(rc, LDAP_SERVER_DOWN);
    EXPECT_TRUE(lconn_is_closed(h.ld->ld_defconn));
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(h.ld)), 0) << "the failed request's row is released";
}

TEST(Result, BadArgumentsAndRowOwnership)
{
    ScriptServer server(EchoResults);
    Handle h(server);
    LDAPMessage *res = nullptr;
    struct timeval tv {10, 0};
    EXPECT_EQ(ldap_result(h.ld, -2, LDAP_MSG_ALL, &tv, &res), -1);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_result(h.ld, 1, LDAP_MSG_ALL, &tv, nullptr), -1);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_result(nullptr, 1, LDAP_MSG_ALL, &tv, &res), -1);

    int id = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=mine", &id), 0);
    ASSERT_EQ(ldap_result(h.ld, id, LDAP_MSG_ONE, &tv, &res), kDelResp);
    int other_rc = 0, other_error = 0;
    std::thread([&] {
        LDAPMessage *theirs = nullptr;
        other_rc = ldap_result(h.ld, id, LDAP_MSG_ALL, &tv, &theirs);
        other_error = ldap_get_errno(h.ld);
    }).join();
    EXPECT_EQ(other_rc, -1);
    EXPECT_EQ(other_error, LDAP_LOCAL_ERROR);
    ReleaseRow(h.ld, id);
}

TEST(Result, AnyMessageTakesOwnedThenUnownedRows)
{
    ScriptServer server(EchoResults);
    Handle h(server);
    int a = 0, b = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=a", &a), 0);
    ASSERT_EQ(SendDelete(h.ld, "cn=b", &b), 0);
    LDAPMessage *res = nullptr;
    struct timeval tv {10, 0};
    ASSERT_EQ(ldap_result(h.ld, LDAP_RES_ANY, LDAP_MSG_ALL, &tv, &res), kDelResp);
    int first = res->msg_id;
    EXPECT_TRUE(first == a || first == b);
    ReleaseRow(h.ld, first);
    ASSERT_EQ(ldap_result(h.ld, LDAP_RES_ANY, LDAP_MSG_ALL, &tv, &res), kDelResp);
    EXPECT_EQ(res->msg_id, first == a ? b : a);
    ReleaseRow(h.ld, res->msg_id);
    EXPECT_EQ(ldap_result(h.ld, LDAP_RES_ANY, LDAP_MSG_ALL, &tv, &res), -1) << "nothing outstanding";
}

TEST(WriteTimeout, IsReadOnceFromTheEnvironment)
{
    struct Case {
        const char *value;
        int seconds;
    };
    for (Case c : {Case{"5", 5}, Case{"0", -1}, Case{"-3", -1}, Case{"soon", -1}, Case{nullptr, -1}}) {
        ZLDAP_IN_FRESH_PROCESS({
            if (c.value)
                setenv("LDAP_LIB_WRITE_TIMEOUT", c.value, 1);
            else
                unsetenv("LDAP_LIB_WRITE_TIMEOUT");
            EXPECT_EQ(ldap_write_timeout(), c.seconds);
            setenv("LDAP_LIB_WRITE_TIMEOUT", "9", 1);
            EXPECT_EQ(ldap_write_timeout(), c.seconds) << "read once";
        });
    }
}

TEST(WriteTimeout, ReplacesTheCallersTimeOut)
{
    ZLDAP_IN_FRESH_PROCESS({
        setenv("LDAP_LIB_WRITE_TIMEOUT", "5", 1);
        TraceCapture trace(0x0008);
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        struct timeval tv {1, 0};
        EXPECT_EQ(waitOnSocket(fds[0], &tv), 1);
        EXPECT_EQ(waitOnSocket(fds[0], nullptr), 1);
        std::string text = trace.text();
        EXPECT_EQ(text.find("using NULL timeout"), std::string::npos);
        EXPECT_NE(text.find("waitOnSocket: using timeout sec=5"), std::string::npos);
        close(fds[0]);
        close(fds[1]);
    });
}

TEST(Filing, QueuedMessagesReachTheirRows)
{
    LDAP *ld = ldap_init("localhost", 0);
    ldap_msg_table *table = TableOf(ld);
    int id = ldap_msg_table_get_next_msgid(table);
    table->rows[id].request = ldap_alloc_msg(ld->ld_defconn);
    for (int type : {kEntry, kDone}) {
        LDAPMessage *m = ldap_alloc_msg(ld->ld_defconn);
        m->msg_id = id;
        m->msg_type = type;
        put_msg_in_queue(table, m);
    }
    LDAPMessage *stray = ldap_alloc_msg(ld->ld_defconn);
    stray->msg_id = -5;
    put_msg_in_queue(table, stray);
    flush_queue(table); // the stray message is freed (the sanitizer build checks)
    EXPECT_EQ(table->queue_first, nullptr);
    ASSERT_NE(table->rows[id].first_result, nullptr);
    EXPECT_EQ(table->rows[id].first_result->msg_type, kEntry);
    EXPECT_EQ(table->rows[id].last_result->msg_type, kDone);
    EXPECT_TRUE(table->rows[id].flags & LDAP_ROW_DONE);
    EXPECT_EQ(put_msg_in_table(nullptr, stray), LDAP_PARAM_ERROR);
    table->rows[id].flags |= LDAP_ROW_ABANDON;
    LDAPMessage *late = ldap_alloc_msg(ld->ld_defconn);
    late->msg_id = id;
    EXPECT_EQ(put_msg_in_table(table, late), LDAP_OTHER);
    free_msg(late, 0);
    ldap_unbind(ld);
}

} // namespace
