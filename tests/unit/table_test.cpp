// The per-connection message table: id assignment and growth, release,
// row ownership, LDAP_RES_ANY, and the operations on referral child rows.
// Filing, queueing and handing out responses is tested through the engine.
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "message/ldap_queue.h"
#include "message/ldap_table.h"
#include "base/memory.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

namespace {

using TablePtr = std::unique_ptr<ldap_msg_table, decltype(&ldap_msg_table_free)>;

TablePtr NewTable(uint32_t rows) { return TablePtr(ldap_msg_table_init(rows), ldap_msg_table_free); }

// The next `count` ids.
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
    table->rows[id].request = ldap_alloc_msg(nullptr);
    table->rows[id].request->msg_id = id;
}

// A response of the given type for row id, as the reader leaves it.
LDAPMessage *Response(ldap_msg_table *table, int id, int type)
{
    LDAPMessage *msg = ldap_alloc_msg(table->connection);
    msg->msg_id = id;
    msg->msg_type = type;
    return msg;
}

LDAPMessage *FileResponse(ldap_msg_table *table, int id, int type)
{
    LDAPMessage *msg = Response(table, id, type);
    EXPECT_EQ(put_msg_in_table(table, msg), 0);
    return msg;
}

TEST(TableIds, StartAtOneComeBackAfterTheWrapAndGrowWhenOnlyRowZeroIsFree)
{
    TablePtr table = NewTable(16);
    EXPECT_EQ(TakeIds(table.get(), 10), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    ldap_msg_table_release_msgid(table.get(), 5);
    EXPECT_EQ(TakeIds(table.get(), 6), (std::vector<int>{11, 12, 13, 14, 15, 5})) << "released ids after the wrap";
    EXPECT_EQ(table->free_count, 1u) << "row 0 is never handed out";
    EXPECT_EQ(ldap_msg_table_get_next_msgid(table.get()), 16);
    EXPECT_EQ(table->row_count, 16 + LDAP_TBL_GROWTH);
    EXPECT_TRUE(table->rows[7].request == nullptr && (table->rows[7].flags & LDAP_ROW_INUSE)) << "rows survive";
}

TEST(TableIds, GrowthStopsAtTheLargestTable)
{
    TablePtr table = NewTable(LDAP_MAX_TBL_SIZE - LDAP_TBL_GROWTH);
    auto fill = [&] {
        for (uint32_t id = 1; id < table->row_count; id++)
            table->rows[id].flags = LDAP_ROW_INUSE;
        table->free_count = 1;
    };
    fill();
    EXPECT_EQ(ldap_msg_table_get_next_msgid(table.get()), static_cast<int>(LDAP_MAX_TBL_SIZE - LDAP_TBL_GROWTH));
    EXPECT_EQ(table->row_count, LDAP_MAX_TBL_SIZE);
    fill();
    EXPECT_EQ(ldap_msg_table_get_next_msgid(table.get()), -1);
    EXPECT_EQ(table->row_count, LDAP_MAX_TBL_SIZE);
    EXPECT_EQ(ldap_msg_table_get_next_msgid(nullptr), -1);
}

TEST(TableRelease, ClearsTheRowAndIgnoresIdsNotHandedOut)
{
    TablePtr table = NewTable(8);
    int id = ldap_msg_table_get_next_msgid(table.get());
    PutRequest(table.get(), id);
    FileResponse(table.get(), id, 0x64);
    table->rows[id].referral_text = zldap::mem_strdup("ldap://elsewhere/"); // freed with the row
    for (int release : {id, -1, 8, 0, id})
        ldap_msg_table_release_msgid(table.get(), release);
    EXPECT_EQ(table->free_count, 8u);
    EXPECT_EQ(table->rows[id].flags, 0u);
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

class TableOwnership : public testing::Test {
protected:
    void SetUp() override { table = ld->ld_defconn->lconn_msgtable; }
    void TearDown() override { ldap_unbind(ld); }

    int Request()
    {
        int id = ldap_msg_table_get_next_msgid(table);
        PutRequest(table, id);
        return id;
    }
    int Acquire(int id, int mode) { return verify_msgid_n_acquire_row(ld, table, &id, mode); }
    // The row LDAP_RES_ANY gives this thread, or -1.
    int Any()
    {
        int id = LDAP_RES_ANY;
        return verify_msgid_n_acquire_row(ld, table, &id, LDAP_MSG_ALL) == 0 ? id : -1;
    }

    LDAP *ld = ldap_init("localhost", 0);
    ldap_msg_table *table = nullptr;
};

TEST_F(TableOwnership, RefusalsAndTheirCodes)
{
    int id = Request();
    EXPECT_EQ(Acquire(static_cast<int>(table->row_count), LDAP_MSG_ALL), LDAP_PARAM_ERROR);
    EXPECT_EQ(Acquire(ldap_msg_table_get_next_msgid(table), LDAP_MSG_ALL), -1) << "a row without a request";
    EXPECT_EQ(ldap_get_errno(ld), LDAP_LOCAL_ERROR);
    EXPECT_EQ(Acquire(0, LDAP_MSG_ONE), 0);
    EXPECT_FALSE(table->rows[0].has_owner) << "row 0 is nobody's";
    EXPECT_EQ(Acquire(id, LDAP_MSG_ALL), 0);
    std::thread([&] { EXPECT_EQ(Acquire(id, LDAP_MSG_ALL), -1) << "the first waiter owns the row"; }).join();
    FileResponse(table, id, 0x65);
    EXPECT_EQ(Acquire(id, LDAP_MSG_ALL), 0) << "the result is still to be handed out";
    table->rows[id].next_to_return = nullptr;
    EXPECT_EQ(Acquire(id, LDAP_MSG_ALL), -1) << "complete, with nothing left";
    int abandoned = Request();
    table->rows[abandoned].flags |= LDAP_ROW_ABANDON;
    EXPECT_EQ(Acquire(abandoned, LDAP_MSG_ALL), LDAP_PARAM_ERROR);
    LDAPMessage *late = Response(table, abandoned, 0x65);
    EXPECT_EQ(put_msg_in_table(table, late), LDAP_OTHER) << "nothing is filed for an abandoned request";
    free_msg(late, 0);
}

TEST_F(TableOwnership, AnyMessageRotatesAmongUnownedRowsAndComesBackToItsOwn)
{
    EXPECT_EQ(Any(), -1) << "nothing to wait for";
    int zero = LDAP_RES_ANY;
    EXPECT_EQ(verify_msgid_n_acquire_row(ld, table, &zero, LDAP_MSG_ONE), 0);
    EXPECT_EQ(zero, 0) << "a single message may be an unsolicited notification";
    int a = Request(), b = Request(), c = Request();
    EXPECT_EQ(Any(), a);
    EXPECT_EQ(Any(), a) << "an unfinished row of this thread comes back";
    table->rows[a].has_owner = 0;
    table->rows[b].has_owner = 1; // owned by nobody alive: not a candidate
    table->rows[b].owner = pthread_t{};
    std::thread([&] { EXPECT_EQ(Any(), c) << "the choice moves past the last one"; }).join();
    EXPECT_EQ(Any(), a) << "nothing unowned after the last choice: the first candidate";
}

// Two tables linked as parent row and referral child row.
class ReferralRows : public TableOwnership {
protected:
    void SetUp() override
    {
        TableOwnership::SetUp();
        LDAPConn *child_conn = ldap_lc_init("referral.example", 389, 8);
        ld->ld_defconn->lconn_next = child_conn; // released with the handle
        child = child_conn->lconn_msgtable;
        parent_id = Request();
        LDAPMessage *trigger = FileResponse(table, parent_id, 0x73);
        child_id = ldap_msg_table_get_next_msgid(child);
        PutRequest(child, child_id);
        auto *down = static_cast<ldap_msg_link *>(zldap::mem_calloc(1, sizeof(ldap_msg_link)));
        auto *up = static_cast<ldap_msg_link *>(zldap::mem_calloc(1, sizeof(ldap_msg_link)));
        *down = {child, child_id, trigger};
        *up = {table, parent_id, nullptr};
        table->rows[parent_id].child = down;
        child->rows[child_id].parent = up;
    }
    ldap_msg_table *child = nullptr;
    int parent_id = 0;
    int child_id = 0;
};

TEST_F(ReferralRows, FlagsFollowTheChildAndADoneChildGoesOnceItsMessagesAreUnlinked)
{
    ldap_msg_table_set_flag(ld, table, parent_id, LDAP_ROW_CHASE);
    EXPECT_TRUE(child->rows[child_id].flags & LDAP_ROW_CHASE);
    EXPECT_EQ(ldap_msg_table_release_if_done(child, child_id), 0) << "not complete";
    LDAPMessage *m[] = {FileResponse(child, child_id, 0x64), FileResponse(child, child_id, 0x64),
                        FileResponse(child, child_id, 0x65)};
    EXPECT_EQ(ldap_msg_table_release_if_done(child, child_id), 0) << "its results are still there";
    ldap_msg_table_unlink_msg(m[1]);
    EXPECT_TRUE(m[0]->msg_next == m[2] && m[2]->msg_prev == m[0]) << "the neighbours are joined";
    ldap_msg_table_unlink_msg(m[0]);
    EXPECT_EQ(child->rows[child_id].first_result, m[2]);
    ldap_msg_table_unlink_msg(m[2]);
    EXPECT_EQ(child->rows[child_id].last_result, nullptr);
    for (LDAPMessage *msg : m)
        free_msg(msg, 0);
    EXPECT_EQ(ldap_msg_table_release_if_done(child, child_id), 1);
    EXPECT_EQ(child->rows[child_id].flags, 0u);
}

// A waiter that gives up after its final response was filed (by another
// thread) orphans a complete row: it goes at once, and its child when the
// child's result comes.
TEST_F(ReferralRows, AnOrphanWhoseResultIsFiledGoesAtOnceItsChildLater)
{
    FileResponse(table, parent_id, 0x65);
    ldap_msg_table_set_flag(ld, table, parent_id, LDAP_ROW_ORPHAN);
    EXPECT_EQ(table->rows[parent_id].flags, 0u) << "released with its chain";
    EXPECT_TRUE(child->rows[child_id].flags & LDAP_ROW_ORPHAN);
    FileResponse(child, child_id, 0x65);
    EXPECT_EQ(ldap_msg_table_outstanding(child), 0);
    EXPECT_EQ(ldap_msg_table_outstanding(table), 0);
    ldap_msg_table_set_flag(ld, table, parent_id, LDAP_ROW_ORPHAN);
    EXPECT_EQ(table->rows[parent_id].flags, 0u) << "a released row takes no flags";
}

TEST_F(ReferralRows, CleanupReleasesAnOwnedChildAndItsLink)
{
    cleanup_table_and_references(ld, child, child_id);
    EXPECT_NE(child->rows[child_id].request, nullptr) << "not owned by this thread: kept";
    int id = child_id;
    ASSERT_EQ(verify_msgid_n_acquire_row(ld, child, &id, LDAP_MSG_ALL), 0);
    ldap_set_error_direct(ld, LDAP_REFERRAL, nullptr, nullptr);
    cleanup_table_and_references(ld, child, child_id);
    EXPECT_EQ(child->rows[child_id].flags, 0u);
    EXPECT_EQ(table->rows[parent_id].child, nullptr);
    EXPECT_EQ(ldap_get_errno(ld), 0);
    EXPECT_EQ(ldap_msg_table_outstanding(table), 1);
}

} // namespace
