// The message engine against a scripted server: the connection opened on
// first use, time-outs in ldap_result and what they keep for the next
// call, row 0, stray and orphaned responses, and what happens when the
// connection dies.
#include "engine_fixture.h"
#include "fresh_process.h"
#include "core/ldap_error.h"
#include "engine/ldap_receive.h"
#include "ops/search.h"
#include "results/results.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
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

// A handle on a server that answers the first request through `answer`
// (given its id) and then holds the connection open for a while.
struct FirstRequest {
    explicit FirstRequest(std::function<void(ScriptConnection &, int id)> answer)
        : server([answer](ScriptConnection &c) {
              if (auto r = c.Read()) {
                  answer(c, r->id);
                  c.Read(5s);
              }
          })
    {
    }
    ~FirstRequest() { ldap_unbind(ld); }
    ScriptServer server;
    LDAP *ld = HandleFor(server);
};

// ldap_result for the whole chain of id, waiting at most `wait`.
int All(LDAP *ld, int id, LDAPMessage **res, struct timeval wait = {10, 0})
{
    return ldap_result(ld, id, LDAP_MSG_ALL, &wait, res);
}

// Lets a script hold its answer until the test says so (at most 3 s).
void AwaitFlag(const std::atomic<bool> &flag)
{
    for (int i = 0; i < 3000 && !flag; i++)
        std::this_thread::sleep_for(1ms);
}

// The bytes of each request are checked in operations_wire_test; here,
// when the connection opens, and that answers out of order reach their rows.
TEST(Send, TheFirstRequestConnectsAndLaterOnesReuseTheConnection)
{
    ScriptServer server([&](ScriptConnection &c) {
        auto first = c.Read(), second = c.Read();
        if (first && second)
            c.Send(Concat(wire::Result(second->id, kDelResp, 0), wire::Result(first->id, kDelResp, 0)));
        c.Read(5s);
    });
    Handle h(server);
    EXPECT_FALSE(lconn_is_connected(h.ld->ld_defconn)) << "ldap_init does not connect";
    int id = 0, second = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=x", &id), 0);
    ASSERT_EQ(SendDelete(h.ld, "cn=y", &second), 0);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(All(h.ld, id, &res), kDelResp);
    EXPECT_EQ(res->msg_id, id);
    EXPECT_EQ(server.connections(), 1);
    ReleaseRow(h.ld, id);
    ReleaseRow(h.ld, second);
}

// A search under the handle's time limit of 0 whose request fills the send
// buffer waits until the server reads, instead of polling once and closing.
TEST(Send, AZeroTimeLimitWaitsForAFullSendBuffer)
{
    ScriptServer server([](ScriptConnection &c) {
        std::this_thread::sleep_for(300ms); // the client's buffer fills meanwhile
        if (auto r = c.Read()) {
            c.Send(wire::Result(r->id, kDone, 0));
            c.Read(5s);
        }
    });
    Handle h(server);
    std::string base(8 << 20, 'x'); // more than the socket buffers of both ends hold
    LDAPMessage *res = nullptr;
    struct timeval tv {30, 0};
    EXPECT_EQ(ldap_search_st(h.ld, base.c_str(), LDAP_SCOPE_BASE, "(cn=a)", nullptr, 0, &tv, &res), 0);
    ldap_msgfree(res);
    EXPECT_FALSE(lconn_is_closed(h.ld->ld_defconn));
}

TEST(Send, ARefusedConnectionFailsTheRequestAndKeepsNothing)
{
    RefusedPort refused;
    LDAP *ld = ldap_init(("127.0.0.1:" + std::to_string(refused.port())).c_str(), 0);
    int id = 0;
    EXPECT_EQ(SendDelete(ld, "cn=x", &id), LDAP_SERVER_DOWN);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_SERVER_DOWN);
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(ld)), 0);
    EXPECT_EQ(SendDelete(ld, "cn=x", &id), LDAP_SERVER_DOWN) << "closed for good";
    ldap_unbind(ld);
}

TEST(Result, ATimeOutInTheMiddleOfAnElementContinuesWithTheSameElement)
{
    std::atomic<bool> send_rest{false};
    FirstRequest s([&](ScriptConnection &c, int id) {
        Bytes answer = wire::Result(id, kDelResp, 0, "", "split answer");
        c.Send(Bytes(answer.begin(), answer.begin() + 7));
        AwaitFlag(send_rest);
        c.Send(Bytes(answer.begin() + 7, answer.end()));
    });
    int id = 0;
    ASSERT_EQ(SendDelete(s.ld, "cn=split", &id), 0);
    LDAPMessage *res = nullptr;
    EXPECT_EQ(All(s.ld, id, &res, {0, 200000}), 0);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(ldap_get_errno(s.ld), LDAP_TIMEOUT);
    EXPECT_NE(TableOf(s.ld)->partial, nullptr) << "the half-read element is kept";
    send_rest = true;
    ASSERT_EQ(All(s.ld, id, &res), kDelResp);
    EXPECT_EQ(res->msg_id, id);
    ReleaseRow(s.ld, id);
}

TEST(Result, AnAllTimeOutKeepsWhatItGatheredForTheNextCall)
{
    std::atomic<bool> finish{false};
    FirstRequest s([&](ScriptConnection &c, int id) {
        c.Send(wire::Entry(id, "cn=first", {{"cn", {"first"}}}));
        AwaitFlag(finish);
        c.Send(Concat(wire::Entry(id, "cn=second", {}), wire::Result(id, kDone, 0)));
    });
    int id = 0;
    ASSERT_EQ(SendDelete(s.ld, "cn=slow", &id), 0);
    LDAPMessage *res = nullptr;
    EXPECT_EQ(All(s.ld, id, &res, {0, 300000}), 0);
    EXPECT_EQ(res, nullptr);
    struct timeval tv {10, 0};
    ASSERT_EQ(ldap_result(s.ld, id, LDAP_MSG_ONE, &tv, &res), kEntry);
    EXPECT_EQ(res, TableOf(s.ld)->rows[id].first_result) << "the first entry is handed out again";
    finish = true;
    ASSERT_EQ(All(s.ld, id, &res), kDone);
    std::vector<int> types;
    for (LDAPMessage *m = res; m; m = m->msg_next)
        types.push_back(m->msg_type);
    EXPECT_EQ(types, (std::vector<int>{kEntry, kEntry, kDone}));
    ReleaseRow(s.ld, id);
}

// A complete result already filed is handed out whole even when that
// takes longer than the time-out, not reported as a time-out.
TEST(Result, AnAllHandsOutACompleteResultWhateverItsTimeOut)
{
    ScriptServer server([](ScriptConnection &c) {
        auto first = c.Read(), second = c.Read();
        if (!first || !second)
            return;
        for (int i = 0; i < 200; i++)
            c.Send(wire::Entry(first->id, "cn=e", {}));
        c.Send(Concat(wire::Result(first->id, kDone, 0), wire::Result(second->id, kDelResp, 0)));
        c.Read(5s);
    });
    Handle h(server);
    int id = 0, second = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=many", &id), 0);
    ASSERT_EQ(SendDelete(h.ld, "cn=after", &second), 0);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(All(h.ld, second, &res), kDelResp) << "everything for the first is filed on the way";
    ASSERT_EQ(All(h.ld, id, &res, {0, 0}), kDone);
    EXPECT_EQ(ldap_count_messages(h.ld, res), 201);
    ReleaseRow(h.ld, id);
    ReleaseRow(h.ld, second);
}

// A notification (id 0) goes to row 0, which never completes; responses
// beyond the table, for a row without a request or without an id are
// thrown away.
TEST(Result, ResponsesWithoutARequestGoToRowZeroOrNowhere)
{
    FirstRequest s([](ScriptConnection &c, int id) {
        c.Send(Join({wire::Result(0, 0x78, 52, "", "shutting down"), wire::Result(9999, kDelResp, 0),
                     wire::Result(200, kDelResp, 0), Encode([](BerElement *ber) { return fber_printf(ber, "{s}", "no id"); }),
                     wire::Result(id, kDelResp, 0)}));
    });
    int id = 0;
    ASSERT_EQ(SendDelete(s.ld, "cn=x", &id), 0);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(All(s.ld, id, &res), kDelResp);
    EXPECT_TRUE(res->msg_id == id && res->msg_next == nullptr);
    EXPECT_EQ(TableOf(s.ld)->rows[200].first_result, nullptr);
    struct timeval tv {10, 0};
    ASSERT_EQ(ldap_result(s.ld, 0, LDAP_MSG_ONE, &tv, &res), 0x78);
    EXPECT_EQ(res->msg_id, 0);
    EXPECT_FALSE(TableOf(s.ld)->rows[0].flags & LDAP_ROW_DONE) << "row 0 never completes";
    EXPECT_EQ(All(s.ld, 0, &res), -1) << "id 0 is refused for a whole chain";
    ReleaseRow(s.ld, id);
}

// A search that times out is orphaned; its row goes when its result
// arrives, with everything filed for it, while another request is read.
TEST(Result, ATimedOutSearchIsOrphanedAndReleasedWhenItsResultArrives)
{
    std::atomic<bool> answer{false};
    ScriptServer server([&](ScriptConnection &c) {
        auto late = c.Read();
        auto next = c.Read();
        if (!late || !next)
            return;
        AwaitFlag(answer);
        c.Send(Concat(wire::Entry(late->id, "cn=late", {{"cn", {"late"}}}), wire::Result(late->id, kDone, 0)));
        c.Send(wire::Result(next->id, kDelResp, 0));
        c.Read(5s);
    });
    Handle h(server);
    LDAPMessage *res = nullptr;
    struct timeval short_wait {0, 100000};
    EXPECT_EQ(ldap_search_st(h.ld, "o=x", LDAP_SCOPE_BASE, "(cn=a)", nullptr, 0, &short_wait, &res), LDAP_TIMEOUT);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(h.ld)), 1);
    int next = 0;
    ASSERT_EQ(SendDelete(h.ld, "cn=next", &next), 0);
    answer = true;
    ASSERT_EQ(All(h.ld, next, &res), kDelResp);
    EXPECT_EQ(TableOf(h.ld)->rows[1].flags, 0u) << "the orphan's row is released";
    ReleaseRow(h.ld, next);
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(h.ld)), 0);
}

TEST(Result, AClosedConnectionFailsEveryLaterCallAtOnce)
{
    FirstRequest s([](ScriptConnection &c, int) { c.Close(); });
    int id = 0;
    ASSERT_EQ(SendDelete(s.ld, "cn=x", &id), 0);
    LDAPMessage *res = nullptr;
    EXPECT_EQ(All(s.ld, id, &res), -1);
    EXPECT_EQ(ldap_get_errno(s.ld), LDAP_SERVER_DOWN);
    EXPECT_TRUE(lconn_is_closed(s.ld->ld_defconn));
    struct timeval tv {10, 0};
    EXPECT_EQ(ldap_get_msg(s.ld, s.ld->ld_defconn, &tv), LDAP_SERVER_DOWN);
    EXPECT_EQ(SendDelete(s.ld, "cn=y", &id), LDAP_SERVER_DOWN);
    EXPECT_EQ(s.server.connections(), 1) << "no new connection is tried";
}

TEST(Result, AWriteToAVanishedServerClosesTheConnection)
{
    std::atomic<bool> closed{false};
    FirstRequest s([&](ScriptConnection &c, int) {
        c.Close();
        closed = true;
    });
    int id = 0;
    ASSERT_EQ(SendDelete(s.ld, "cn=x", &id), 0);
    ReleaseRow(s.ld, id);
    AwaitFlag(closed);
    // The peer is gone: a large enough request fails on write (no SIGPIPE).
    std::string big(1 << 20, 'x');
    int rc = 0;
    for (int i = 0; i < 20 && rc == 0; i++) {
        rc = SendDelete(s.ld, big, &id);
        if (rc == 0)
            ReleaseRow(s.ld, id);
    }
    EXPECT_EQ(rc, LDAP_SERVER_DOWN);
    EXPECT_TRUE(lconn_is_closed(s.ld->ld_defconn));
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(s.ld)), 0) << "the failed request's row is released";
}

TEST(WriteTimeout, IsReadOnceFromTheEnvironmentAndReplacesTheCallersTimeOut)
{
    struct Case {
        const char *value;
        int seconds;
    };
    for (Case c : {Case{"1", 1}, Case{"0", -1}, Case{"-3", -1}, Case{"soon", -1}, Case{nullptr, -1}}) {
        ZLDAP_IN_FRESH_PROCESS({
            if (c.value)
                setenv("LDAP_LIB_WRITE_TIMEOUT", c.value, 1);
            else
                unsetenv("LDAP_LIB_WRITE_TIMEOUT");
            EXPECT_EQ(ldap_write_timeout(), c.seconds);
            setenv("LDAP_LIB_WRITE_TIMEOUT", "9", 1);
            EXPECT_EQ(ldap_write_timeout(), c.seconds) << "read once";
            if (c.seconds > 0) {
                // A socket that cannot take more: a wait without limit ends after the set second.
                int fds[2];
                ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
                char chunk[4096] = {};
                while (write(fds[0], chunk, sizeof chunk) > 0) {
                }
                EXPECT_EQ(waitOnSocket(fds[0], nullptr), 0);
                close(fds[0]);
                close(fds[1]);
            }
        });
    }
}

} // namespace
