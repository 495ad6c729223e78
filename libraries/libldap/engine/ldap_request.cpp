// ldap_request.cpp - the road of every request: its row, the write to the
// server with waits for a writable socket, and the shared skeleton that
// builds the envelope around an operation.
#include "engine/ldap_request.h"

#include "base/descriptor_wait.h"
#include "base/environment.h"
#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "proto/ldap_controls.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <poll.h>

#define LDAP_MODULE "libraries/libldap/ldap_request"

namespace {

std::atomic<int> g_write_timeout{-1};
std::atomic<bool> g_write_timeout_read{false};

// The connection is closed for good: later writes and reads fail at once.
int fail_server_down(LDAP *ld, LDAPConn *lc)
{
    lconn_mark_closed(lc);
    return ldap_fail(ld, LDAP_SERVER_DOWN);
}

// Opens lc on first use; the caller holds the write lock.
int open_on_first_use(LDAP *ld, LDAPConn *lc)
{
    if (lconn_is_connected(lc))
        return LDAP_SUCCESS;
    int rc = open_ldap_connection(ld, lc);
    if (rc == LDAP_SUCCESS && lconn_is_connected(lc))
        return LDAP_SUCCESS;
    LDAP_TRACE(TRC_ERROR, "ldap_write_msg: open_ldap_connection returned error!\n");
    lconn_mark_closed(lc);
    zldap::mem_free(lc->lconn_peer);
    lc->lconn_peer = nullptr;
    rc = rc == LDAP_CONNECT_ERROR ? LDAP_CONNECT_ERROR : LDAP_SERVER_DOWN;
    return ldap_fail(ld, rc);
}

// Writes the whole element, waiting whenever the socket is full. A socket
// with room takes a request at once: asking first whether it is writable
// costs a system call per request and changes only the order of the trace
// lines, so the first wait is left out while nothing is traced.
int flush_element(LDAP *ld, LDAPConn *lc, BerElement *ber, const struct timeval *timeout)
{
    bool wait = !zldap::tracing_off();
    for (;;) {
        if (wait && waitOnSocket(lc->lconn_sb.sd, timeout) <= 0)
            return fail_server_down(ld, lc);
        wait = true;
        int rc = fber_flush_nb(&lc->lconn_sb, ber);
        if (rc == 0)
            return LDAP_SUCCESS;
        if (rc != -LBER_WOULD_BLOCK)
            return fail_server_down(ld, lc);
    }
}

} // namespace

int ldap_write_timeout()
{
    if (!g_write_timeout_read.load(std::memory_order_acquire)) {
        char *value = ldap_getenv("LDAP_LIB_WRITE_TIMEOUT");
        int seconds = value ? std::atoi(value) : -1;
        zldap::mem_free(value);
        g_write_timeout.store(seconds >= 1 ? seconds : -1, std::memory_order_relaxed);
        g_write_timeout_read.store(true, std::memory_order_release);
    }
    return g_write_timeout.load(std::memory_order_relaxed);
}

int waitOnSocket(int sd, const struct timeval *timeout)
{
    LDAP_TRACE(TRC_CONN, "waitOnSocket entered for fd=%d\n", sd);
    struct timeval fixed {};
    int write_timeout = ldap_write_timeout();
    if (write_timeout == -1) {
        if (timeout)
            LDAP_TRACE(TRC_CONN, "waitOnSocket: using timeout sec=%d\n", static_cast<int>(timeout->tv_sec));
        else
            LDAP_TRACE(TRC_CONN, "waitOnSocket: using NULL timeout.\n");
    } else {
        LDAP_TRACE(TRC_CONN, "waitOnSocket: using timeout sec=%d\n", write_timeout);
        fixed.tv_sec = write_timeout;
        timeout = &fixed;
    }
    int rc = zldap::wait_for_descriptor(sd, POLLOUT, zldap::deadline_after(timeout));
    if (rc < 0)
        LDAP_TRACE(TRC_ERROR, "Error - waitOnSocket: select failed errno %d\n", errno);
    else if (rc == 0)
        LDAP_TRACE(TRC_CONN, "waitOnSocket: select timed out\n");
    else
        LDAP_TRACE(TRC_CONN, "waitOnSocket: select rc=%d\n", rc);
    LDAP_TRACE(TRC_CONN, "waitOnSocket returning %d\n", rc);
    return rc;
}

int ldap_write_msg(LDAP *ld, LDAPMessage *msg, const struct timeval *timeout)
{
    LDAP_TRACE(TRC_API, "ldap_write_msg entered: ld=%p, lm=%p\n", static_cast<void *>(ld), static_cast<void *>(msg));
    if (!msg || !msg->msg_conn)
        return LDAP_PARAM_ERROR;
    LDAPConn *lc = msg->msg_conn;
    if (lconn_is_closed(lc)) {
        LDAP_TRACE(TRC_ERROR, "ldap_write_msg: Socket connection was closed earlier\n");
        return ldap_fail(ld, LDAP_SERVER_DOWN);
    }
    LDAP_MUTEX_GUARD(guard, &lc->lconn_write_mutex);
    if (!guard.locked())
        return ldap_fail(ld, LDAP_LOCK_ERROR);
    // Another writer may have found the connection dead while we waited.
    if (lconn_is_closed(lc)) {
        LDAP_TRACE(TRC_ERROR, "ldap_write_msg: Socket connection was closed earlier\n");
        return ldap_fail(ld, LDAP_SERVER_DOWN);
    }
    // An all-zero time-out (a search under a time limit of 0) would poll the
    // socket once, so a send buffer that is full for a moment would fail the
    // request and close a healthy connection: it means no limit here, and
    // the process-wide write time-out still applies.
    if (timeout && timeout->tv_sec == 0 && timeout->tv_usec == 0)
        timeout = nullptr;
    int rc = open_on_first_use(ld, lc);
    if (rc == LDAP_SUCCESS) {
        LDAP_TRACE(TRC_API, "ldap_write_msg: connected to host\n");
        rc = flush_element(ld, lc, msg->msg_ber, timeout);
    }
    guard.unlock();
    LDAP_TRACE(TRC_API, "ldap_write_msg: returning %d\n", rc);
    return rc;
}

int ldap_msg_table_send_message(ldap_msg_table *table, LDAP *ld, LDAPMessage *msg, int *stored,
                                const struct timeval *timeout)
{
    *stored = 0;
    LDAP_TRACE(TRC_API, "ldap_msg_table_send_message entered: table=%p msg=%p msgid=%d\n",
               static_cast<void *>(table), static_cast<void *>(msg), msg ? msg->msg_id : -1);
    if (!table || !msg)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    ldap_set_error_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    {
        LDAP_MUTEX_GUARD(guard, &table->lock);
        if (!guard.locked())
            return LDAP_LOCK_ERROR;
        if (msg->msg_id <= 0 || static_cast<uint32_t>(msg->msg_id) >= table->row_count)
            return ldap_fail(ld, LDAP_PARAM_ERROR);
        table->rows[msg->msg_id].request = msg;
        *stored = 1;
    }
    int rc = ldap_write_msg(ld, msg, timeout);
    if (rc == LDAP_SUCCESS) {
        LDAP_TRACE(TRC_API, "ldap_msg_table_send_message: returning rc=%d\n", rc);
        return rc;
    }
    LDAP_TRACE(TRC_ERROR,
               "ldap_msg_table_send_message: failed to send request message, rc=%d, removing request msg "
               "from table\n",
               rc);
    return rc;
}

namespace zldap {

int send_request(LDAP *ld, LDAPConn *lc, const RequestPlan &plan, int *msgid, const struct timeval *timeout)
{
    if (!lc)
        lc = get_default_connection(ld);
    if (!lc || !lc->lconn_msgtable) {
        LDAP_TRACE(TRC_ERROR, "%s", plan.no_connection);
        return ldap_fail(ld, LDAP_ENCODING_ERROR);
    }
    LDAPMessage *msg = ldap_alloc_msg(lc);
    if (!msg)
        return ldap_fail(ld, LDAP_NO_MEMORY);
    int rc = LDAP_SUCCESS;
    int id = ldap_msg_table_get_next_msgid(lc->lconn_msgtable);
    msg->msg_id = id;
    if (id < 0) {
        rc = LDAP_LOCAL_ERROR;
    } else if (!(msg->msg_ber = new_ldap_ber(ld))) {
        rc = LDAP_NO_MEMORY;
    } else if (FberWriter(msg->msg_ber).open().integer(id).finish() != 0) {
        rc = LDAP_ENCODING_ERROR;
    } else if ((rc = plan.encode(msg->msg_ber)) == LDAP_SUCCESS &&
               (put_ctrls_into_ber(msg->msg_ber, plan.server_controls) != 0 ||
                FberWriter(msg->msg_ber).close().finish() != 0)) {
        rc = LDAP_ENCODING_ERROR;
    }
    if (rc != LDAP_SUCCESS) {
        ldap_msg_table_release_msgid(lc->lconn_msgtable, id);
        free_msg(msg, 0);
        return ldap_fail(ld, rc);
    }
    msg->msg_type = plan.tag;
    int stored = 0;
    rc = ldap_msg_table_send_message(lc->lconn_msgtable, ld, msg, &stored, timeout);
    if (rc == LDAP_SUCCESS) {
        *msgid = id;
        ldap_set_error_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
        return rc;
    }
    if (stored) {
        ldap_release_request_row(msg); // the row owns the message now
    } else {
        ldap_msg_table_release_msgid(lc->lconn_msgtable, id);
        free_msg(msg, 0);
    }
    return ldap_fail(ld, rc);
}

} // namespace zldap
