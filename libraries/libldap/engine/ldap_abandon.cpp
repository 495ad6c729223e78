// ldap_abandon.cpp - ldap_abandon and ldap_abandon_ext. The row is marked
// first, under the table lock, so that responses filed while the abandon
// request is on its way are already refused; the lock is not held while
// the request is built and sent.
#include "engine/ldap_abandon.h"

#include "base/ldap_lock.h"
#include "base/trace.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "engine/ldap_request.h"
#include "proto/ldap_controls.h"

#define LDAP_MODULE "libraries/libldap/ldap_abandon"

namespace {

constexpr int kAbandonRequest = 0x50;
// mark_row's answer when the server must be told.
constexpr int kTellServer = -1;

// Frees what nobody has collected: the request, and the chain from the
// first message not yet handed out. Messages handed out stay the caller's.
void discard_pending(ldap_msg_row &row)
{
    free_msg(row.request, 0);
    row.request = nullptr;
    LDAPMessage *pending = row.next_to_return;
    if (!pending)
        return;
    row.last_result = pending->msg_prev;
    if (pending->msg_prev)
        pending->msg_prev->msg_next = nullptr;
    else
        row.first_result = nullptr;
    pending->msg_prev = nullptr;
    free_msg(pending, 1);
    row.next_to_return = nullptr;
}

// The checks and the mark, under the table lock. A finished request needs
// no abandon request: what is left of it is freed here.
int mark_row(LDAP *ld, ldap_msg_table *table, int msgid)
{
    if (static_cast<uint32_t>(msgid) >= table->row_count) {
        LDAP_TRACE(TRC_ERROR, "abandon_table_row: bad msgid. ld(%p) table(%p), msgid(%d)\n",
                   static_cast<void *>(ld), static_cast<void *>(table), msgid);
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    ldap_msg_row &row = table->rows[msgid];
    if (!(row.flags & LDAP_ROW_INUSE)) {
        LDAP_TRACE(TRC_ERROR, "abandon_table_row: No outstanding request for given msgid=%d\n", msgid);
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    if (row.flags & LDAP_ROW_ABANDON) {
        LDAP_TRACE(TRC_ERROR, "abandon_table_row: msgid=%d is already abandoned\n", msgid);
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    row.flags |= LDAP_ROW_ABANDON;
    if (!(row.flags & LDAP_ROW_DONE))
        return kTellServer;
    if (!row.next_to_return) {
        LDAP_TRACE(TRC_ERROR, "abandon_table_row: All msgs are already returned for this msgid=%d\n", msgid);
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    discard_pending(row);
    return LDAP_SUCCESS;
}

// The AbandonRequest is the id to abandon as an INTEGER with tag 0x50. No
// response comes, so its own row goes as soon as it has been sent.
int send_abandon_request(LDAP *ld, ldap_msg_table *table, int msgid, LDAPControl **serverctrls)
{
    auto encode = [msgid](BerElement *ber) {
        return fber_printf(ber, "ti", static_cast<ber_tag_t>(kAbandonRequest), msgid) == 0 ? LDAP_SUCCESS
                                                                                        : LDAP_ENCODING_ERROR;
    };
    int abandon_id = -1;
    int rc = zldap::send_request(
        ld, table->connection, {"abandon_table_row: NULL server connection\n", kAbandonRequest, serverctrls, encode},
        &abandon_id);
    if (rc == LDAP_SUCCESS)
        ldap_msg_table_release_msgid(table, abandon_id);
    return rc;
}

} // namespace

int abandon_table_row(LDAP *ld, ldap_msg_table *table, int msgid, LDAPControl **serverctrls)
{
    int rc;
    {
        LDAP_MUTEX_GUARD(guard, &table->lock);
        if (!guard.locked())
            return ldap_fail(ld, LDAP_LOCK_ERROR);
        rc = mark_row(ld, table, msgid);
    }
    if (rc != kTellServer)
        return rc;
    rc = send_abandon_request(ld, table, msgid, serverctrls);
    if (rc != LDAP_SUCCESS)
        return rc;
    ldap_msg_link child{};
    {
        LDAP_MUTEX_GUARD(guard, &table->lock);
        if (!guard.locked())
            return ldap_fail(ld, LDAP_LOCK_ERROR);
        ldap_msg_row &row = table->rows[msgid]; // the rows may have moved meanwhile
        discard_pending(row);
        if (row.child)
            child = *row.child;
    }
    // The referral server works on the request too; whether it can still
    // be told does not change this outcome.
    if (child.table) {
        abandon_table_row(ld, child.table, child.row_id, serverctrls);
        ldap_set_error_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    }
    return LDAP_SUCCESS;
}

int ldap_abandon_ext_direct(LDAP *ld, int msgid, LDAPControl **serverctrls)
{
    LDAP_TRACE(TRC_API, "ldap_abandon_ext_direct\n");
    ldap_set_error_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    LDAPConn *lc = get_default_connection(ld);
    if (!lc || !lc->lconn_msgtable)
        return ldap_fail(ld, LDAP_ENCODING_ERROR);
    return abandon_table_row(ld, lc->lconn_msgtable, msgid, serverctrls);
}

int ldap_abandon(LDAP *ld, int msgid)
{
    LDAP_TRACE(TRC_API, "ldap_abandon: ld(%p) msgid=%d\n", static_cast<void *>(ld), msgid);
    int rc;
    {
        zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
        if (!op.admitted())
            return -1;
        if (msgid < 1) {
            LDAP_TRACE(TRC_ERROR, "ldap_abandon: bad msgid\n");
            rc = ldap_fail_returning(ld, LDAP_PARAM_ERROR, -1);
        } else {
            rc = ldap_abandon_ext_direct(ld, msgid, nullptr) == LDAP_SUCCESS ? 0 : -1;
        }
    }
    LDAP_TRACE(TRC_API, "ldap_abandon: rc=%d\n", rc);
    return rc;
}

int ldap_abandon_ext(LDAP *ld, int msgid, LDAPControl **serverctrls, LDAPControl **clientctrls)
{
    LDAP_TRACE(TRC_API, "ldap_abandon_ext ld(%p) msgid(%d) serverctrls(%p) clientctrls(%p)\n",
               static_cast<void *>(ld), msgid, static_cast<void *>(serverctrls), static_cast<void *>(clientctrls));
    int rc;
    int copied = 0;
    {
        zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
        if (!op.admitted())
            return LDAP_PARAM_ERROR;
        if (msgid <= 0) {
            LDAP_TRACE(TRC_ERROR, "Bad msgid (%d)\n", msgid);
            rc = ldap_fail(ld, LDAP_PARAM_ERROR);
        } else if ((rc = ldap_check_client_controls(ld, &serverctrls, clientctrls, &copied)) == LDAP_SUCCESS) {
            rc = ldap_abandon_ext_direct(ld, msgid, serverctrls);
        }
    }
    if (copied)
        ldap_controls_free(serverctrls);
    LDAP_TRACE(TRC_API, "ldap_abandon_ext: returning rc=%d\n", rc);
    return rc;
}
