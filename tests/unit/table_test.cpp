// Message records and the per-connection message table: id assignment,
// growth, release, ownership, LDAP_RES_ANY and referral child rows.
#include "alloc_faults.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_init.h"
#include "message/ldap_queue.h"
#include "message/ldap_table.h"
#include "session/ldap_unbind.h"
#include "base/memory.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

struct TableDeleter {
    void operator()(ldap_msg_table *t) const { ldap_msg_table_free(t); }
};
using TablePtr = std::unique_ptr<ldap_msg_table, TableDeleter>;

TablePtr NewTable(uint32_t rows)
{
    TablePtr table(ldap_msg_table_init(rows));
    EXPECT_NE(table, nullptr);
    return table;
}

std::vector<int> TakeIds(ldap_msg_table *table, int count)
{
    std::vector<int> ids;
    for (int i = 0; i < count; i++)
        ids.push_back(ldap_msg_table_get_next_msgid(table));
    return ids;
}

// Gives row id a request, as sending it would.
void PutRequest(ldap_msg_table *table, int id)
{
    LDAPMessage *request = ldap_alloc_msg(nullptr);
    ASSERT_NE(request, nullptr);
    request->msg_id = id;
    request->msg_type = 0x63;
    table->rows[id].request = request;
}

// Files a response of the given type in a row, as the reader does.
LDAPMessage *FileResponse(ldap_msg_table *table, int id, int type)
{
    LDAPMessage *msg = ldap_alloc_msg(table->connection);
    msg->msg_id = id;
    msg->msg_type = type;
    EXPECT_EQ(put_msg_in_table(table, msg), 0);
    return msg;
}

TEST(Message, NewMessagesAreEmpty)
{
    LDAPConn *conn = reinterpret_cast<LDAPConn *>(0x1234);
    LDAPMessage *msg = ldap_alloc_msg(conn);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->msg_id, 0);
    EXPECT_EQ(msg->msg_type, 0x30);
    EXPECT_EQ(msg->msg_flags, 0u);
    EXPECT_EQ(msg->msg_ber, nullptr);
    EXPECT_EQ(msg->msg_conn, conn);
    EXPECT_EQ(msg->msg_next, nullptr);
    EXPECT_EQ(msg->msg_prev, nullptr);
    EXPECT_EQ(ldap_msgid(msg), 0);
    EXPECT_EQ(ldap_msgtype(msg), 0x30);
    free_msg(msg, 1);
    EXPECT_EQ(ldap_msgid(nullptr), -1);
    EXPECT_EQ(ldap_msgtype(nullptr), 0);
}

TEST(Message, FinalResponseTypes)
{
    LDAPMessage msg{};
    for (int type = 0; type < 0x100; type++) {
        msg.msg_type = type;
        bool expected = type == 0x61 || type == 0x65 || type == 0x67 || type == 0x69 || type == 0x6B ||
                        type == 0x6D || type == 0x6F || type == 0x78;
        EXPECT_EQ(is_last_msg(&msg), expected ? 1 : 0) << std::hex << type;
    }
    EXPECT_EQ(is_last_msg(nullptr), 0);
}

TEST(Message, FreeWithoutAllReleasesOnlyTheFirst)
{
    LDAPMessage *first = ldap_alloc_msg(nullptr);
    LDAPMessage *second = ldap_alloc_msg(nullptr);
    first->msg_next = second;
    second->msg_ber = fber_alloc();
    free_msg(first, 0);
    EXPECT_EQ(second->msg_type, 0x30) << "the follower is untouched";
    free_msg(second, 1); // and its element with it: the sanitizer build checks
}

TEST(TableIds, StartAtOneAndNeverHandOutZero)
{
    TablePtr table = NewTable(256);
    EXPECT_EQ(TakeIds(table.get(), 3), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(table->free_count, 253u);
    EXPECT_EQ(table->rows[2].hop_limit, -1);
    EXPECT_TRUE(table->rows[2].flags & LDAP_ROW_INUSE);
    EXPECT_FALSE(table->rows[0].flags & LDAP_ROW_INUSE);
}

TEST(TableIds, GrowWhenOnlyRowZeroIsFree)
{
    TablePtr table = NewTable(256);
    std::vector<int> ids = TakeIds(table.get(), 255);
    EXPECT_EQ(ids.back(), 255);
    EXPECT_EQ(table->free_count, 1u);
    EXPECT_EQ(ldap_msg_table_get_next_msgid(table.get()), 256);
    EXPECT_EQ(table->row_count, 512u);
    EXPECT_EQ(table->free_count, 256u);
    EXPECT_TRUE(table->rows[17].flags & LDAP_ROW_INUSE) << "rows survive the move";
}

TEST(TableIds, ReleasedIdsComeBackOnlyAfterTheWrap)
{
    TablePtr table = NewTable(16);
    TakeIds(table.get(), 10);
    ldap_msg_table_release_msgid(table.get(), 5);
    EXPECT_EQ(ldap_msg_table_get_next_msgid(table.get()), 11);
    TakeIds(table.get(), 4); // 12..15; free rows are now 0 and 5
    EXPECT_EQ(table->free_count, 2u);
    EXPECT_EQ(ldap_msg_table_get_next_msgid(table.get()), 5);
}

TEST(TableIds, TheWrapFindsRowOne)
{
    TablePtr table = NewTable(8);
    TakeIds(table.get(), 7);
    ldap_msg_table_release_msgid(table.get(), 1);
    table->last_id = 1;
    EXPECT_EQ(ldap_msg_table_get_next_msgid(table.get()), 1);
}

TEST(TableIds, GrowthStopsAtTheLargestTable)
{
    TablePtr table = NewTable(LDAP_MAX_TBL_SIZE - 256);
    for (uint32_t id = 1; id < table->row_count; id++)
        table->rows[id].flags = LDAP_ROW_INUSE;
    table->free_count = 1;
    table->last_id = table->row_count - 1;
    EXPECT_EQ(ldap_msg_table_get_next_msgid(table.get()), static_cast<int>(LDAP_MAX_TBL_SIZE - 256));
    EXPECT_EQ(table->row_count, LDAP_MAX_TBL_SIZE);
    for (uint32_t id = 1; id < table->row_count; id++)
        table->rows[id].flags = LDAP_ROW_INUSE;
    table->free_count = 1;

    zldap_test::TraceCapture trace(0xFFFF);
    EXPECT_EQ(ldap_msg_table_get_next_msgid(table.get()), -1);
    EXPECT_NE(trace.text().find("cannot grow beyond LDAP_MAX_TBL_SIZE==65536 rows!"), std::string::npos);
    EXPECT_EQ(table->row_count, LDAP_MAX_TBL_SIZE);
    EXPECT_EQ(ldap_msg_table_get_next_msgid(nullptr), -1);
}

TEST(TableIds, FailedGrowthLeavesTheTableAsItWas)
{
    TablePtr table = NewTable(8);
    TakeIds(table.get(), 7);
    ldap_msg_row *rows = table->rows;
    zldap::mem_tracking_start(1); // the growth's allocation fails
    EXPECT_EQ(ldap_msg_table_get_next_msgid(table.get()), -1);
    zldap::AllocCounters counted = zldap::mem_tracking_stop();
    EXPECT_EQ(counted.allocations, 1);
    EXPECT_EQ(counted.live, 0);
    EXPECT_EQ(table->rows, rows);
    EXPECT_EQ(table->row_count, 8u);
    EXPECT_EQ(table->free_count, 1u);
    EXPECT_EQ(ldap_msg_table_get_next_msgid(table.get()), 8) << "a later call grows";
}

TEST(TableRelease, ClearsTheRowAndEverythingItHolds)
{
    TablePtr table = NewTable(8);
    int id = ldap_msg_table_get_next_msgid(table.get());
    PutRequest(table.get(), id);
    FileResponse(table.get(), id, 0x64);
    FileResponse(table.get(), id, 0x65);
    table->rows[id].referral_text = zldap::mem_strdup("ldap://elsewhere/");
    uint32_t free_before = table->free_count;
    ldap_msg_table_release_msgid(table.get(), id);
    EXPECT_EQ(table->free_count, free_before + 1);
    const ldap_msg_row &row = table->rows[id];
    EXPECT_EQ(row.flags, 0u);
    EXPECT_EQ(row.request, nullptr);
    EXPECT_EQ(row.first_result, nullptr);

    // Ids out of range, -1 and rows that were never handed out change nothing.
    ldap_msg_table_release_msgid(table.get(), -1);
    ldap_msg_table_release_msgid(table.get(), 8);
    ldap_msg_table_release_msgid(table.get(), 0);
    ldap_msg_table_release_msgid(table.get(), id);
    EXPECT_EQ(table->free_count, free_before + 1);
}

class TableOwnership : public testing::Test {
protected:
    void SetUp() override
    {
        ld = ldap_init("localhost", 0);
        ASSERT_NE(ld, nullptr);
        table = ld->ld_defconn->lconn_msgtable;
        ASSERT_NE(table, nullptr);
        EXPECT_EQ(table->connection, ld->ld_defconn);
    }
    void TearDown() override { ldap_unbind(ld); }

    int Request()
    {
        int id = ldap_msg_table_get_next_msgid(table);
        PutRequest(table, id);
        return id;
    }
    int Acquire(int id, int mode) { return verify_msgid_n_acquire_row(ld, table, &id, mode); }
    int AcquireElsewhere(int id, int mode, int *error)
    {
        int rc = 0;
        std::thread([&] {
            rc = Acquire(id, mode);
            *error = ldap_get_errno(ld);
        }).join();
        return rc;
    }

    LDAP *ld = nullptr;
    ldap_msg_table *table = nullptr;
};

TEST_F(TableOwnership, TheFirstWaiterOwnsTheRow)
{
    int id = Request();
    EXPECT_EQ(Acquire(id, LDAP_MSG_ALL), 0);
    EXPECT_EQ(Acquire(id, LDAP_MSG_ONE), 0) << "the owner may come back";
    int error = 0;
    EXPECT_EQ(AcquireElsewhere(id, LDAP_MSG_ALL, &error), -1);
    EXPECT_EQ(error, LDAP_LOCAL_ERROR);
}

TEST_F(TableOwnership, RefusalsAndTheirCodes)
{
    int id = Request();
    EXPECT_EQ(Acquire(static_cast<int>(table->row_count), LDAP_MSG_ALL), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);

    int no_request = ldap_msg_table_get_next_msgid(table);
    EXPECT_EQ(Acquire(no_request, LDAP_MSG_ALL), -1);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_LOCAL_ERROR);

    EXPECT_EQ(Acquire(0, LDAP_MSG_ALL), -1);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_LOCAL_ERROR);
    EXPECT_EQ(Acquire(0, LDAP_MSG_ONE), 0);
    EXPECT_FALSE(table->rows[0].has_owner);

    table->rows[id].flags |= LDAP_ROW_ABANDON;
    EXPECT_EQ(Acquire(id, LDAP_MSG_ALL), LDAP_PARAM_ERROR);
}

TEST_F(TableOwnership, ACompleteRowWithNothingLeftIsRefused)
{
    int id = Request();
    FileResponse(table, id, 0x65);
    EXPECT_EQ(Acquire(id, LDAP_MSG_ALL), 0) << "the result is still to be handed out";
    table->rows[id].next_to_return = nullptr;
    EXPECT_EQ(Acquire(id, LDAP_MSG_ALL), -1);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_LOCAL_ERROR);
}

TEST_F(TableOwnership, AnyMessageChoices)
{
    int id = LDAP_RES_ANY;
    EXPECT_EQ(verify_msgid_n_acquire_row(ld, table, &id, LDAP_MSG_ALL), LDAP_PARAM_ERROR)
        << "nothing to wait for";
    id = LDAP_RES_ANY;
    EXPECT_EQ(verify_msgid_n_acquire_row(ld, table, &id, LDAP_MSG_ONE), 0);
    EXPECT_EQ(id, 0) << "waits for unsolicited notifications";

    // Three live threads ask in turn; a thread that has ended may pass its
    // identity on to the next one, so all stay alive until the last has asked.
    int a = Request(), b = Request(), c = Request();
    std::vector<int> chosen;
    std::mutex m;
    std::condition_variable cv;
    int turn = 0;
    std::vector<std::thread> askers;
    for (int i = 0; i < 3; i++) {
        askers.emplace_back([&, i] {
            std::unique_lock<std::mutex> lock(m);
            cv.wait(lock, [&] { return turn == i; });
            int any = LDAP_RES_ANY;
            EXPECT_EQ(verify_msgid_n_acquire_row(ld, table, &any, LDAP_MSG_ALL), 0);
            chosen.push_back(any);
            turn++;
            cv.notify_all();
            cv.wait(lock, [&] { return turn == 3; });
        });
    }
    for (std::thread &t : askers)
        t.join();
    EXPECT_EQ(chosen, (std::vector<int>{a, b, c})) << "each unowned row once, in turn";

    int mine = Request();
    id = LDAP_RES_ANY;
    ASSERT_EQ(verify_msgid_n_acquire_row(ld, table, &id, LDAP_MSG_ALL), 0);
    EXPECT_EQ(id, mine);
    id = LDAP_RES_ANY;
    ASSERT_EQ(verify_msgid_n_acquire_row(ld, table, &id, LDAP_MSG_ALL), 0);
    EXPECT_EQ(id, mine) << "an unfinished row of this thread comes back";
}

TEST_F(TableOwnership, AnyRotatesPastTheLastChoice)
{
    int a = Request(), b = Request(), c = Request();
    table->last_any_row = static_cast<uint32_t>(a);
    int id = LDAP_RES_ANY;
    ASSERT_EQ(verify_msgid_n_acquire_row(ld, table, &id, LDAP_MSG_ALL), 0);
    EXPECT_EQ(id, b);
    table->rows[c].has_owner = 1; // owned by nobody alive; not a candidate
    table->rows[c].owner = pthread_t{};
    table->last_any_row = static_cast<uint32_t>(b);
    std::thread([&] {
        int any = LDAP_RES_ANY;
        ASSERT_EQ(verify_msgid_n_acquire_row(ld, table, &any, LDAP_MSG_ALL), 0);
        EXPECT_EQ(any, a) << "nothing unowned after the last choice: the first candidate";
    }).join();
}

// Two tables linked as parent row and referral child row.
class ReferralRows : public TableOwnership {
protected:
    void SetUp() override
    {
        TableOwnership::SetUp();
        child_conn = ldap_lc_init("referral.example", 389, 8);
        ASSERT_NE(child_conn, nullptr);
        ld->ld_defconn->lconn_next = child_conn; // released with the handle
        child_table = child_conn->lconn_msgtable;
        parent_id = Request();
        trigger = FileResponse(table, parent_id, 0x73);
        child_id = ldap_msg_table_get_next_msgid(child_table);
        PutRequest(child_table, child_id);
        auto *down = static_cast<ldap_msg_link *>(zldap::mem_calloc(1, sizeof(ldap_msg_link)));
        auto *up = static_cast<ldap_msg_link *>(zldap::mem_calloc(1, sizeof(ldap_msg_link)));
        *down = {child_table, child_id, trigger};
        *up = {table, parent_id, nullptr};
        table->rows[parent_id].child = down;
        child_table->rows[child_id].parent = up;
    }
    LDAPConn *child_conn = nullptr;
    ldap_msg_table *child_table = nullptr;
    int parent_id = 0;
    int child_id = 0;
    LDAPMessage *trigger = nullptr;
};

TEST_F(ReferralRows, FlagsFollowTheChildChain)
{
    ldap_msg_table_set_flag(ld, table, parent_id, LDAP_ROW_ORPHAN);
    EXPECT_TRUE(table->rows[parent_id].flags & LDAP_ROW_ORPHAN);
    EXPECT_TRUE(child_table->rows[child_id].flags & LDAP_ROW_ORPHAN);
}

TEST_F(ReferralRows, ReleaseIfDoneWantsACompleteEmptyRow)
{
    EXPECT_EQ(ldap_msg_table_release_if_done(child_table, child_id), 0);
    LDAPMessage *done = FileResponse(child_table, child_id, 0x65);
    EXPECT_EQ(ldap_msg_table_release_if_done(child_table, child_id), 0) << "its result is still there";
    ldap_msg_table_unlink_msg(done);
    EXPECT_EQ(child_table->rows[child_id].first_result, nullptr);
    free_msg(done, 0);
    EXPECT_EQ(ldap_msg_table_release_if_done(child_table, child_id), 1);
    EXPECT_EQ(child_table->rows[child_id].flags, 0u);
}

TEST_F(ReferralRows, UnlinkJoinsTheNeighbours)
{
    LDAPMessage *second = FileResponse(table, parent_id, 0x64);
    LDAPMessage *third = FileResponse(table, parent_id, 0x65);
    ldap_msg_table_unlink_msg(second);
    EXPECT_EQ(trigger->msg_next, third);
    EXPECT_EQ(third->msg_prev, trigger);
    EXPECT_EQ(second->msg_next, nullptr);
    EXPECT_EQ(second->msg_prev, nullptr);
    free_msg(second, 0);
    ldap_msg_table_unlink_msg(trigger);
    EXPECT_EQ(table->rows[parent_id].first_result, third);
    ldap_msg_table_unlink_msg(third);
    EXPECT_EQ(table->rows[parent_id].last_result, nullptr);
    // The trigger is gone from the chain; the child link must not point at it.
    table->rows[parent_id].child->msg = nullptr;
    free_msg(trigger, 0);
    free_msg(third, 0);
}

TEST_F(ReferralRows, CleanupReleasesAnOwnedChildAndItsLink)
{
    cleanup_table_and_references(ld, child_table, child_id);
    EXPECT_NE(child_table->rows[child_id].request, nullptr) << "not owned by this thread: kept";
    ASSERT_EQ(Acquire(parent_id, LDAP_MSG_ALL), 0);
    int id = child_id;
    ASSERT_EQ(verify_msgid_n_acquire_row(ld, child_table, &id, LDAP_MSG_ALL), 0);
    ldap_set_error_direct(ld, LDAP_REFERRAL, nullptr, nullptr);
    cleanup_table_and_references(ld, child_table, child_id);
    EXPECT_EQ(child_table->rows[child_id].flags, 0u);
    EXPECT_EQ(table->rows[parent_id].child, nullptr);
    EXPECT_EQ(ldap_get_errno(ld), 0);
    EXPECT_EQ(ldap_msg_table_outstanding(child_table), 0);
    EXPECT_EQ(ldap_msg_table_outstanding(table), 1);
}

TEST(TableLifetime, FreeingATableReleasesEverythingInIt)
{
    ldap_msg_table *table = ldap_msg_table_init(8);
    int id = ldap_msg_table_get_next_msgid(table);
    PutRequest(table, id);
    FileResponse(table, id, 0x64);
    FileResponse(table, 0, 0x78); // an unsolicited notification in row 0
    table->queue_first = table->queue_last = ldap_alloc_msg(nullptr);
    table->partial = ldap_alloc_msg(nullptr);
    table->partial->msg_ber = fber_alloc_t(0);
    ldap_msg_table_free(table); // the sanitizer build finds anything left behind
    ldap_msg_table_free(nullptr);
}

TEST(TableLifetime, CreationSurvivesEveryAllocationFailure)
{
    zldap_test::ExpectEachAllocationFailure({
        [] {
            ldap_msg_table *table = ldap_msg_table_init(256);
            if (!table)
                return LDAP_NO_MEMORY;
            ldap_msg_table_free(table);
            return 0;
        },
        LDAP_NO_MEMORY, nullptr});
}

} // namespace
