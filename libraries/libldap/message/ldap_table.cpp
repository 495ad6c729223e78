// ldap_table.cpp - the per-connection message table: id assignment with
// growth, row release, row ownership for collecting threads, the choice of
// a row for LDAP_RES_ANY, and the operations on referral child rows.
#include "message/ldap_table.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "message/ldap_referrals_rows.h"

#include <cstring>

#define LDAP_MODULE "libraries/libldap/ldap_table"

namespace {

bool owned_by_caller(const ldap_msg_row &row)
{
    return row.has_owner && pthread_equal(row.owner, pthread_self());
}

// Frees everything a row owns and leaves it all zero. The child link's
// message belongs to this row's own chain and goes with it.
void clear_row(ldap_msg_row *row)
{
    free_msg(row->request, 0);
    free_msg(row->first_result, 1);
    free_msg(row->saved_result, 0);
    zldap::mem_free(row->parent);
    zldap::mem_free(row->child);
    zldap::mem_free(row->referral_text);
    std::memset(static_cast<void *>(row), 0, sizeof *row);
}

bool valid_row_id(const ldap_msg_table *table, int id)
{
    return table && id >= 0 && static_cast<uint32_t>(id) < ldap_msg_table_row_count(table);
}

// Grows the rows array by LDAP_TBL_GROWTH; false when the table is at its
// largest or memory runs out. Caller holds the table lock.
bool grow_table(ldap_msg_table *table)
{
    uint32_t new_count = table->row_count + LDAP_TBL_GROWTH;
    if (new_count > LDAP_MAX_TBL_SIZE) {
        LDAP_TRACE(TRC_ERROR,
                   "ldap_msg_table_get_next_msgid: cannot grow beyond LDAP_MAX_TBL_SIZE==%d rows!\n",
                   static_cast<int>(LDAP_MAX_TBL_SIZE));
        return false;
    }
    auto *rows = static_cast<ldap_msg_row *>(zldap::mem_calloc(new_count, sizeof(ldap_msg_row)));
    if (!rows) {
        LDAP_TRACE(TRC_ERROR,
                   "ldap_msg_table_get_next_msgid: NO_MEMORY to allocate table w/ %d rows x %d bytes!\n",
                   static_cast<int>(new_count), static_cast<int>(sizeof(ldap_msg_row)));
        return false;
    }
    std::memcpy(static_cast<void *>(rows), table->rows, table->row_count * sizeof(ldap_msg_row));
    zldap::mem_free(table->rows);
    table->rows = rows;
    __atomic_store_n(&table->row_count, new_count, __ATOMIC_RELEASE); // also read without the lock
    table->free_count += LDAP_TBL_GROWTH;
    LDAP_TRACE(TRC_API, "ldap_msg_table_get_next_msgid: table size increased to %d\n",
               static_cast<int>(new_count));
    return true;
}

// The first row in [from, to] without LDAP_ROW_INUSE, or 0.
uint32_t find_free_row(const ldap_msg_table *table, uint32_t from, uint32_t to)
{
    for (uint32_t id = from; id <= to && id < table->row_count; id++)
        if (!(table->rows[id].flags & LDAP_ROW_INUSE))
            return id;
    return 0;
}

bool unowned_request(const ldap_msg_row &row) { return !row.has_owner && row.request; }

} // namespace

ldap_msg_table *ldap_msg_table_init(uint32_t rows)
{
    auto *table = static_cast<ldap_msg_table *>(zldap::mem_calloc(1, sizeof(ldap_msg_table)));
    if (!table)
        return nullptr;
    table->rows = static_cast<ldap_msg_row *>(zldap::mem_calloc(rows, sizeof(ldap_msg_row)));
    if (!table->rows) {
        zldap::mem_free(table);
        return nullptr;
    }
    table->row_count = rows;
    table->free_count = rows;
    int rc = LDAP_MUTEX_INIT(&table->lock);
    if (rc != 0) {
        LDAP_TRACE(TRC_ERROR, "ldap_msg_table_init: pthread_mutex_init failed for table lock, errno %d\n", rc);
    } else {
        rc = LDAP_MUTEX_INIT(&table->queue_lock);
        if (rc == 0)
            return table;
        LDAP_TRACE(TRC_ERROR, "ldap_msg_table_init: pthread_mutex_init failed for queue lock, errno %d\n", rc);
        pthread_mutex_destroy(&table->lock);
    }
    zldap::mem_free(table->rows);
    zldap::mem_free(table);
    return nullptr;
}

void ldap_msg_table_free(ldap_msg_table *table)
{
    if (!table)
        return;
    // Row 0 is never in use but may hold unsolicited notifications.
    for (uint32_t id = 0; id < table->row_count; id++)
        clear_row(&table->rows[id]);
    free_msg(table->queue_first, 1);
    free_msg(table->partial, 0);
    zldap::mem_free(table->rows);
    int rc = pthread_mutex_destroy(&table->lock);
    if (rc != 0)
        LDAP_TRACE(TRC_ERROR, "ldap_msg_table_free: pthread_mutex_destroy failed for table lock, errno %d\n", rc);
    rc = pthread_mutex_destroy(&table->queue_lock);
    if (rc != 0)
        LDAP_TRACE(TRC_ERROR, "ldap_msg_table_free: pthread_mutex_destroy failed for queue lock, errno %d\n", rc);
    zldap::mem_free(table);
}

int ldap_msg_table_get_next_msgid(ldap_msg_table *table)
{
    LDAP_TRACE(TRC_API, "ldap_msg_table_get_next_msgid entered %p\n", static_cast<void *>(table));
    if (!table) {
        LDAP_TRACE(TRC_ERROR, "ldap_msg_table_get_next_msgid: NULL table passed - Error.\n");
        return -1;
    }
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (!guard.locked()) {
        LDAP_TRACE(TRC_ERROR, "ldap_msg_table_get_next_msgid: failed to lock table, rc=%d\n", LDAP_LOCK_ERROR);
        return -1;
    }
    LDAP_TRACE(TRC_API, "ldap_msg_table_get_next_msgid: free msgs = %d\n", static_cast<int>(table->free_count));
    if (table->free_count < 2 && !grow_table(table))
        return -1;
    uint32_t id = find_free_row(table, table->last_id + 1, table->row_count - 1);
    if (id == 0)
        id = find_free_row(table, 1, table->last_id);
    if (id == 0) // cannot happen while the free count is right
        return -1;
    ldap_msg_row &row = table->rows[id];
    row.flags |= LDAP_ROW_INUSE;
    row.hop_limit = -1;
    table->free_count--;
    table->last_id = id;
    guard.unlock();
    LDAP_TRACE(TRC_API, "ldap_msg_table_get_next_msgid returning %d\n", static_cast<int>(id));
    return static_cast<int>(id);
}

void ldap_msg_table_release_msgid_direct(ldap_msg_table *table, int id)
{
    LDAP_TRACE(TRC_API, "ldap_msg_table_release_msgid_direct: entered with msgid=%d, table=%p\n", id,
               static_cast<void *>(table));
    if (!valid_row_id(table, id))
        return;
    ldap_msg_row *row = &table->rows[id];
    // Only rows that were handed out count towards the free rows.
    bool was_in_use = row->flags & LDAP_ROW_INUSE;
    clear_row(row);
    if (was_in_use)
        table->free_count++;
}

void ldap_msg_table_release_msgid(ldap_msg_table *table, int id)
{
    LDAP_TRACE(TRC_API, "ldap_msg_table_release_msgid entered (table=%p), msgid=%d\n",
               static_cast<void *>(table), id);
    if (!table)
        return;
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (guard.locked())
        ldap_msg_table_release_msgid_direct(table, id);
}

void ldap_release_request_row(LDAPMessage *request)
{
    if (request && request->msg_conn)
        ldap_msg_table_release_msgid(request->msg_conn->lconn_msgtable, request->msg_id);
}

int verify_acquire_row(LDAP *ld, ldap_msg_row *row, int id, int mode)
{
    if (id == 0) {
        if (mode == LDAP_MSG_ALL) {
            LDAP_TRACE(TRC_ERROR, "verify_acquire_row: LDAP_MSG_ALL asked for msgid=0 - Error\n");
            return ldap_fail_returning(ld, LDAP_PARAM_ERROR, -1);
        }
        return 0;
    }
    if (!row->request) {
        LDAP_TRACE(TRC_ERROR, "verify_acquire_row: no request msg present and msgid is non-zero - Error\n");
        return ldap_fail_returning(ld, LDAP_PARAM_ERROR, -1);
    }
    if (row->has_owner && !owned_by_caller(*row))
        return ldap_fail_returning(ld, LDAP_LOCAL_ERROR, -1);
    row->owner = pthread_self();
    row->has_owner = 1;
    if ((row->flags & LDAP_ROW_DONE) && !row->next_to_return && !row->child)
        return ldap_fail_returning(ld, LDAP_LOCAL_ERROR, -1);
    return 0;
}

int ldap_get_msg_any(LDAP *ld, ldap_msg_table *table, int *row_id, int mode)
{
    LDAP_TRACE(TRC_API, "ldap_get_msg_any: entered\n");
    *row_id = 0;
    uint32_t candidate = 0;
    for (uint32_t id = 1; id < table->row_count; id++) {
        const ldap_msg_row &row = table->rows[id];
        if (owned_by_caller(row) && (!(row.flags & LDAP_ROW_DONE) || row.next_to_return)) {
            LDAP_TRACE(TRC_API, "ldap_get_msg_any: found a pre-occupied row for this thread, row-id = %d\n",
                       static_cast<int>(id));
            *row_id = static_cast<int>(id);
            return 0;
        }
        if (candidate == 0 && unowned_request(row))
            candidate = id;
    }
    if (candidate == 0) {
        if (mode == LDAP_MSG_ALL) {
            LDAP_TRACE(TRC_ERROR,
                       "Error - ldap_get_msg_any: No free row available in table for msgid=LDAP_RES_ANY\n");
            return ldap_fail_returning(ld, LDAP_PARAM_ERROR, -1);
        }
        LDAP_TRACE(TRC_API, "ldap_get_msg_any: returning msgid=0\n");
        return 0;
    }
    // Rotate among unowned rows so that no request is starved.
    uint32_t chosen = candidate;
    if (table->last_any_row != 0 && table->last_any_row != table->row_count - 1) {
        for (uint32_t id = table->last_any_row + 1; id < table->row_count; id++) {
            if (unowned_request(table->rows[id])) {
                chosen = id;
                break;
            }
        }
    }
    LDAP_TRACE(TRC_API, "ldap_get_msg_any: will take row-id = %d\n", static_cast<int>(chosen));
    table->last_any_row = chosen;
    table->rows[chosen].owner = pthread_self();
    table->rows[chosen].has_owner = 1;
    *row_id = static_cast<int>(chosen);
    return 0;
}

int verify_msgid_n_acquire_row(LDAP *ld, ldap_msg_table *table, int *id, int mode)
{
    LDAP_TRACE(TRC_API, "verify_msgid_n_acquire_row: ld(%p) table(%p) msgid(%d)\n", static_cast<void *>(ld),
               static_cast<void *>(table), *id);
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (!guard.locked())
        return ldap_fail(ld, LDAP_LOCK_ERROR);
    int rc = 0;
    if (*id == LDAP_RES_ANY) {
        int row = 0;
        if (ldap_get_msg_any(ld, table, &row, mode) != 0) {
            LDAP_TRACE(TRC_ERROR, "verify_msgid_n_acquire_row: No free row available for this thread\n");
            return ldap_fail(ld, LDAP_PARAM_ERROR);
        }
        *id = row;
    } else if (!valid_row_id(table, *id)) {
        LDAP_TRACE(TRC_ERROR, "verify_msgid_n_acquire_row: Bad msgid %d\n", *id);
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    } else if (verify_acquire_row(ld, &table->rows[*id], *id, mode) != 0) {
        LDAP_TRACE(TRC_ERROR, "verify_msgid_n_acquire_row: Unable to lock the row\n");
        return ldap_fail_returning(ld, LDAP_LOCAL_ERROR, -1);
    }
    if (table->rows[*id].flags & LDAP_ROW_ABANDON) {
        LDAP_TRACE(TRC_ERROR, "verify_msgid_n_acquire_row: Abandon initiated on this msgid\n");
        ldap_set_error_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
        rc = LDAP_PARAM_ERROR;
    }
    guard.unlock();
    LDAP_TRACE(TRC_API, "verify_msgid_n_acquire_row: returning msgid=%d\n", *id);
    return rc;
}

void ldap_msg_table_set_flag(LDAP *ld, ldap_msg_table *table, int id, uint32_t bits)
{
    // Follow the chain of referral children one table lock at a time.
    while (valid_row_id(table, id)) {
        LDAP_MUTEX_GUARD(guard, &table->lock);
        if (!guard.locked()) {
            ldap_set_error_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
            return;
        }
        ldap_msg_row &row = table->rows[id];
        if (!(row.flags & LDAP_ROW_INUSE)) // a released row keeps no flags
            return;
        row.flags |= bits;
        ldap_msg_table *child_table = row.child ? row.child->table : nullptr;
        int child_id = row.child ? row.child->row_id : -1;
        // Filing releases an orphan only when its final response comes
        // later; one whose final response is already filed (by another
        // thread after its waiter gave up) would keep its row until unbind.
        if ((bits & LDAP_ROW_ORPHAN) && (row.flags & LDAP_ROW_DONE))
            ldap_msg_table_release_msgid_direct(table, id);
        if (!child_table)
            return;
        guard.unlock();
        table = child_table;
        id = child_id;
    }
}

int ldap_msg_table_release_if_done(ldap_msg_table *table, int id)
{
    if (!valid_row_id(table, id))
        return 0;
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (!guard.locked())
        return 0;
    ldap_msg_row &row = table->rows[id];
    if (!(row.flags & LDAP_ROW_DONE) || row.first_result || row.child)
        return 0;
    ldap_msg_table_release_msgid_direct(table, id);
    return 1;
}

void ldap_msg_table_unlink_msg(LDAPMessage *msg)
{
    if (!msg || !msg->msg_conn)
        return;
    ldap_msg_table *table = msg->msg_conn->lconn_msgtable;
    if (!valid_row_id(table, msg->msg_id))
        return;
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (guard.locked())
        ldap_msg_row_unlink(&table->rows[msg->msg_id], msg);
}

void ldap_msg_row_unlink(ldap_msg_row *row, LDAPMessage *msg)
{
    if (msg->msg_prev)
        msg->msg_prev->msg_next = msg->msg_next;
    if (msg->msg_next)
        msg->msg_next->msg_prev = msg->msg_prev;
    if (row->first_result == msg)
        row->first_result = msg->msg_next;
    if (row->last_result == msg)
        row->last_result = msg->msg_prev;
    if (row->next_to_return == msg)
        row->next_to_return = msg->msg_next;
    msg->msg_next = nullptr;
    msg->msg_prev = nullptr;
}

void ldap_msg_row_insert(ldap_msg_row *row, LDAPMessage *msg, LDAPMessage *before)
{
    msg->msg_next = before;
    msg->msg_prev = before ? before->msg_prev : row->last_result;
    if (msg->msg_prev)
        msg->msg_prev->msg_next = msg;
    else
        row->first_result = msg;
    if (before)
        before->msg_prev = msg;
    else
        row->last_result = msg;
}

int ldap_msg_table_merge_child_msg(LDAPMessage **msg, ldap_msg_table *table, int id, int child_released)
{
    LDAPMessage *m = *msg;
    *msg = nullptr;
    if (!m)
        return 0;
    if (!valid_row_id(table, id)) {
        free_msg(m, 0);
        return 0;
    }
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (!guard.locked()) {
        free_msg(m, 0);
        return 0;
    }
    LDAPMessage *trigger = table->rows[id].child ? table->rows[id].child->msg : nullptr;
    m->msg_id = id;
    m->msg_conn = table->connection;
    if (m->msg_type == LDAP_RES_SEARCH_RESULT) {
        // A child's search result done does not end the parent's search:
        // a failure is set aside for the top row, success goes.
        guard.unlock();
        keep_saved_result(m);
        m = nullptr;
        if (!guard.relock())
            return 0;
        ldap_msg_row &row = table->rows[id];
        // When the search result done itself carried the referral, the
        // parent's final result is due now.
        if (trigger && trigger->msg_type == LDAP_RES_SEARCH_RESULT) {
            int rc = row.parent ? LDAP_SUCCESS : take_referral_outcome(&row, trigger, &m);
            if (rc == LDAP_SUCCESS && !m)
                get_return_error_msg(trigger, LDAP_SUCCESS, nullptr, &m);
        }
    }
    ldap_msg_row &row = table->rows[id];
    int filed = 0;
    if (m) {
        ldap_msg_row_insert(&row, m, trigger);
        filed = 1;
    }
    if (child_released == 1) {
        if (trigger) {
            ldap_msg_row_unlink(&row, trigger);
            free_msg(trigger, 0);
        }
        zldap::mem_free(row.child);
        row.child = nullptr;
    }
    *msg = m;
    return filed;
}

void cleanup_table_and_references(LDAP *ld, ldap_msg_table *table, int id)
{
    if (!valid_row_id(table, id))
        return;
    ldap_msg_link parent{};
    {
        LDAP_MUTEX_GUARD(guard, &table->lock);
        if (!guard.locked())
            return;
        ldap_msg_row &row = table->rows[id];
        if (!owned_by_caller(row) || !row.parent)
            return;
        parent = *row.parent;
        ldap_msg_table_release_msgid_direct(table, id);
    }
    if (valid_row_id(parent.table, parent.row_id)) {
        LDAP_MUTEX_GUARD(guard, &parent.table->lock);
        if (guard.locked()) {
            ldap_msg_row &up = parent.table->rows[parent.row_id];
            zldap::mem_free(up.child);
            up.child = nullptr;
        }
    }
    ldap_set_error_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
}

int ldap_msg_table_outstanding(ldap_msg_table *table)
{
    if (!table)
        return 0;
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (!guard.locked())
        return -1;
    return static_cast<int>(table->row_count - table->free_count);
}
