// ldap_result.cpp - ldap_result and the two ways of handing out results:
// one message at a time, or a complete request's whole chain.
#include "engine/ldap_result.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "engine/ldap_receive.h"
#include "engine/ldap_referrals.h"
#include "session/ldap_options.h"

#define LDAP_MODULE "libraries/libldap/ldap_result"

namespace {

// Captures the row's referral settings on the first ldap_result for it, so
// that later option changes do not alter how its results are treated.
bool referral_settings(LDAP *ld, ldap_msg_table *table, int id, int *chase, int *hop_limit)
{
    NumericOptions options = ldap_numeric_options(ld);
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (!guard.locked())
        return ldap_fail_returning(ld, LDAP_LOCK_ERROR, false);
    ldap_msg_row &row = table->rows[id];
    if (!(row.flags & LDAP_ROW_REFOPTS)) {
        if (options.referrals) {
            row.flags |= LDAP_ROW_CHASE;
            row.hop_limit = options.hoplimit;
        } else {
            row.flags &= ~LDAP_ROW_CHASE;
        }
        row.flags |= LDAP_ROW_REFOPTS;
    }
    *chase = (row.flags & LDAP_ROW_CHASE) ? 1 : 0;
    *hop_limit = row.hop_limit;
    return true;
}

enum class ChildLink { absent, present, unreadable };

// A copy of the row's referral child link, read under the table lock.
ChildLink read_child_link(ldap_msg_table *table, int id, ldap_msg_link *child)
{
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (!guard.locked())
        return ChildLink::unreadable;
    if (id < 0 || static_cast<uint32_t>(id) >= table->row_count || !table->rows[id].child)
        return ChildLink::absent;
    *child = *table->rows[id].child;
    return ChildLink::present;
}

// While a row has a referral child, its results come from the child first
// and are moved into the row; a failed child is cleaned up and the row
// goes on with its own results.
int return_child_msg(LDAP *ld, int id, const struct timeval *timeout, LDAPMessage **out, ldap_msg_table *table,
                     int *error, int chase, int hop_limit, const ldap_msg_link &child)
{
    if (hop_limit <= 0) {
        LDAP_TRACE(TRC_API, "XX04720: hop limit exceeded, not fetching child msgs\n");
        return LDAP_REFERRAL_LIMIT_EXCEEDED;
    }
    LDAPMessage *msg = nullptr;
    int rc = ldap_return_one_msg(ld, child.row_id, timeout, &msg, child.table, error, chase, hop_limit - 1);
    if (rc == -1) {
        ldap_msg_link still{};
        if (read_child_link(table, id, &still) == ChildLink::present) {
            LDAP_TRACE(TRC_API, "XX04720: Child entry not NULL after error, calling cleanup_table_and_references "
                                "again.\n");
            cleanup_table_and_references(ld, child.table, child.row_id);
            LDAP_MUTEX_GUARD(guard, &table->lock);
            if (guard.locked() && table->rows[id].child) {
                LDAP_TRACE(TRC_API, "XX04720: Child poiner is still not NULL! Hard resetting to NULL to avoid "
                                    "possible infinite recursion.");
                zldap::mem_free(table->rows[id].child);
                table->rows[id].child = nullptr;
            }
        }
        return ldap_return_one_msg(ld, id, timeout, out, table, error, chase, hop_limit);
    }
    if (!msg) // a time-out, or a hop limit reached further down
        return rc;
    ldap_msg_table_unlink_msg(msg);
    int released = ldap_msg_table_release_if_done(child.table, child.row_id);
    if (ldap_msg_table_merge_child_msg(&msg, table, id, released)) {
        *out = msg;
        return rc;
    }
    return ldap_return_one_msg(ld, id, timeout, out, table, error, chase, hop_limit);
}

// Exact to the microsecond: differences of the fields alone, left with a
// negative microsecond part, would misjudge the remaining time by a second.
struct timeval elapsed_since(const struct timeval &start, const struct timeval &now)
{
    struct timeval d {now.tv_sec - start.tv_sec, now.tv_usec - start.tv_usec};
    if (d.tv_usec < 0) {
        d.tv_sec--;
        d.tv_usec += 1000000;
    }
    return d;
}

// Whether the row holds everything its request will get: the final
// response is filed and no referral is being chased for it. Not known
// when the lock cannot be taken: false.
bool complete_result_filed(ldap_msg_table *table, int id)
{
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (!guard.locked())
        return false;
    const ldap_msg_row &row = table->rows[id];
    return (row.flags & LDAP_ROW_DONE) && !row.child;
}

} // namespace

int ldap_return_one_msg(LDAP *ld, int id, const struct timeval *timeout, LDAPMessage **out,
                        ldap_msg_table *table, int *error, int chase, int hop_limit)
{
    *out = nullptr;
    LDAP_TRACE(TRC_API, "ldap_return_one_msg: entered\n");
    LDAP_TRACE(TRC_API, "XX04720: msgid=%d, refhoplimit=%d\n", id, hop_limit);
    ldap_msg_link child{};
    switch (read_child_link(table, id, &child)) {
    case ChildLink::unreadable:
        ldap_set_error_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
        LDAP_TRACE(TRC_ERROR, "XX04720: returning rc=%d on lock failure.\n", LDAP_LOCK_ERROR);
        LDAP_TRACE(TRC_API, "ldap_return_one_msg: rc=%d\n", -1);
        return -1;
    case ChildLink::present: {
        int rc = return_child_msg(ld, id, timeout, out, table, error, chase, hop_limit, child);
        LDAP_TRACE(TRC_API, "ldap_return_one_msg: rc=%d\n", rc);
        return rc;
    }
    case ChildLink::absent:
        break;
    }
    int rc;
    for (;;) {
        LDAPMessage *msg = nullptr;
        rc = ldap_get_result(ld, id, timeout, &msg, table);
        if (rc == -1) {
            if (ldap_get_errno_direct(ld) == LDAP_PARAM_ERROR)
                cleanup_table_and_references(ld, table, id);
            break;
        }
        if (rc == 0)
            break;
        if (msg->msg_type == LDAP_RES_SEARCH_ENTRY || msg->msg_type == LDAP_RES_BIND || chase != 1) {
            *out = msg;
            break;
        }
        rc = look_for_referrals(ld, msg, out, timeout, error, hop_limit);
        if (rc != -1)
            break;
        LDAP_TRACE(TRC_API, "ldap_return_one_msg: error at referral chasing. Continue with next referral (if any)\n");
    }
    LDAP_TRACE(TRC_API, "ldap_return_one_msg: rc=%d\n", rc);
    return rc;
}

int ldap_return_all_msgs(LDAP *ld, int id, const struct timeval *timeout, LDAPMessage **out,
                         ldap_msg_table *table, int *error, int chase, int hop_limit)
{
    LDAP_TRACE(TRC_API, "ldap_return_all_msgs: entered\n");
    struct timeval start {};
    struct timeval remaining {};
    if (timeout) {
        gettimeofday(&start, nullptr);
        remaining = *timeout;
    }
    LDAPMessage *first_handed = nullptr;
    int rc;
    for (;;) {
        LDAPMessage *msg = nullptr;
        rc = ldap_return_one_msg(ld, id, timeout ? &remaining : nullptr, &msg, table, error, chase, hop_limit);
        if (rc == -1) {
            cleanup_table_and_references(ld, table, id);
            *out = nullptr;
            break;
        }
        if (rc != 0 && !first_handed)
            first_handed = msg;
        if (rc != 0 && is_last_msg(msg)) {
            LDAP_MUTEX_GUARD(guard, &table->lock);
            if (!guard.locked()) {
                ldap_set_error_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
                cleanup_table_and_references(ld, table, id);
                *out = nullptr;
                rc = -1;
                break;
            }
            LDAPMessage *head = table->rows[id].first_result;
            LDAPMessage *last = head;
            while (last && last->msg_next)
                last = last->msg_next;
            *out = head;
            rc = last ? last->msg_type : rc;
            break;
        }
        bool expired = rc == 0;
        if (!expired && timeout) {
            struct timeval now {};
            gettimeofday(&now, nullptr);
            if (now.tv_sec < start.tv_sec || (now.tv_sec == start.tv_sec && now.tv_usec < start.tv_usec)) {
                LDAP_TRACE(TRC_ERROR,
                           "Error - gettimeofday() system call returned an incorrect value. The current time "
                           "(%ld.%06ld) is less than the start time (%ld.%06ld)\n",
                           static_cast<long>(now.tv_sec), static_cast<long>(now.tv_usec),
                           static_cast<long>(start.tv_sec), static_cast<long>(start.tv_usec));
            } else {
                struct timeval spent = elapsed_since(start, now);
                remaining.tv_sec -= spent.tv_sec;
                remaining.tv_usec -= spent.tv_usec;
                if (remaining.tv_usec < 0) {
                    remaining.tv_sec--;
                    remaining.tv_usec += 1000000;
                }
                expired = remaining.tv_sec < 0;
            }
            start = now;
        }
        // Out of time with the complete result already in the row: nothing
        // is left to wait for, so the rest is handed out (without waiting)
        // rather than reporting a time-out and leaving the caller to give
        // up on a finished request.
        if (expired && rc != 0 && complete_result_filed(table, id)) {
            remaining = {0, 0};
            continue;
        }
        if (expired) {
            // What this call took out of the row is handed out again by the next one.
            if (first_handed) {
                LDAP_MUTEX_GUARD(guard, &table->lock);
                if (guard.locked())
                    table->rows[id].next_to_return = first_handed;
            }
            *out = nullptr;
            rc = 0;
            break;
        }
    }
    LDAP_TRACE(TRC_API, "ldap_return_all_msgs: rc=%d\n", rc);
    return rc;
}

int ldap_result_int(LDAP *ld, int msgid, int all, const struct timeval *timeout, LDAPMessage **result)
{
    LDAP_TRACE(TRC_API, "ldap_result_int\n");
    ldap_set_error_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    if (msgid < -1 || !ld || !result || !ld->ld_servers) {
        LDAP_TRACE(TRC_ERROR,
                   "ldap_result: Invalid parameter - msgid(%d), ld(%p), result(%p), ld->ld_servers(%p)\n", msgid,
                   static_cast<void *>(ld), static_cast<void *>(result),
                   ld ? static_cast<void *>(ld->ld_servers) : nullptr);
        return -1;
    }
    *result = nullptr;
    LDAPConn *lc = get_default_connection(ld);
    ldap_msg_table *table = lc ? lc->lconn_msgtable : nullptr;
    if (!table)
        return -1;
    int id = msgid;
    if (verify_msgid_n_acquire_row(ld, table, &id, all) != 0)
        return -1;
    ldap_set_error_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    int chase = 0;
    int hop_limit = 0;
    if (!referral_settings(ld, table, id, &chase, &hop_limit))
        return -1;
    int error = 0;
    if (all == LDAP_MSG_ONE) {
        int rc = ldap_return_one_msg(ld, id, timeout, result, table, &error, chase, hop_limit);
        if (*result)
            (*result)->msg_flags |= LDAP_MSGFLAG_ALONE;
        return rc;
    }
    return ldap_return_all_msgs(ld, id, timeout, result, table, &error, chase, hop_limit);
}

int ldap_result(LDAP *ld, int msgid, int all, struct timeval *timeout, LDAPMessage **result)
{
    if (timeout)
        LDAP_TRACE(TRC_API,
                   "ldap_result entered ld(%p), msgid(%d), all (%d), timeout(tv_sec=%d, tv_usec=%d), result(%p)\n",
                   static_cast<void *>(ld), msgid, all, static_cast<int>(timeout->tv_sec),
                   static_cast<int>(timeout->tv_usec), static_cast<void *>(result));
    else
        LDAP_TRACE(TRC_API, "ldap_result entered ld(%p), msgid(%d), all(%d), timeout(NULL), result(%p)\n",
                   static_cast<void *>(ld), msgid, all, static_cast<void *>(result));
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return -1;
    int rc = ldap_result_int(ld, msgid, all, timeout, result);
    if (rc == 0)
        ldap_set_error_direct(ld, LDAP_TIMEOUT, nullptr, nullptr);
    LDAP_TRACE(TRC_API, "ldap_result returning resulttype=%d\n", rc);
    return rc;
}
