// ldap_tls.cpp - StartTLS: a session's open plain connection asks the
// server to go secure and, when it agrees, gets the secure layer; and its
// end, which closes the secure layer and the session with it.
#include "zor8ldap_api.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "ops/extended.h"
#include "session/ldap_unbind.h"
#include "tls/ldap_ssl_connect.h"
#include "tls/ldap_tls_handshake.h"

#define LDAP_MODULE "libraries/libldap/ldap_tls"

namespace {

constexpr const char *kStartTls = "1.3.6.1.4.1.1466.20037";

// Runs change on the default connection under its write lock: no request
// may go out while the connection changes. 129 when there is no
// connection or the lock can't be taken.
int change_default_connection(LDAP *ld, int (*change)(LDAP *, LDAPConn *))
{
    LDAPConn *lc = get_default_connection(ld);
    if (!lc)
        return LDAP_LOCK_ERROR;
    LDAP_MUTEX_GUARD(writing, &lc->lconn_write_mutex);
    if (!writing.locked())
        return LDAP_LOCK_ERROR;
    return change(ld, lc);
}

// The handshake, under the session's lock as well (the secure settings
// stay as they are while they are used).
int secure_connection(LDAP *ld, LDAPConn *lc)
{
    int rc = LDAP_LOCK_ERROR;
    {
        LDAP_MUTEX_GUARD(session, &ld->ld_mutex);
        if (session.locked())
            rc = doHandshake(ld, &lc->lconn_sb);
    }
    // The server now waits for a handshake. A failure that left no secure
    // record (no environment, no memory, a lock) would let the next request
    // go out in clear: the connection is closed for good instead. With the
    // record in place the toolkit refuses to move any more bytes.
    if (rc != LDAP_SUCCESS && !lc->lconn_sb.secure)
        lconn_mark_closed(lc);
    return rc;
}

// Ends the connection's secure layer, if it has one. 0, or 80 when the
// toolkit could not close it (the record stays).
int close_secure_layer(LDAP *, LDAPConn *lc)
{
    ssl_close_direct(&lc->lconn_sb);
    return lc->lconn_sb.secure ? LDAP_OTHER : LDAP_SUCCESS;
}

} // namespace

int ldap_start_tls_s_np(LDAP *ld, void *)
{
    LDAP_TRACE(TRC_API, "ldap_start_tls_s_np: ld(%p)\n", static_cast<void *>(ld));
    zldap::OperationGuard guard(ld, zldap::OnEntry::keep_error);
    if (!guard.admitted())
        return LDAP_PARAM_ERROR;
    // The answer's name and value say nothing more.
    int rc = ldap_extended_operation_code(ld, kStartTls, nullptr, nullptr, nullptr);
    if (rc == LDAP_SUCCESS)
        rc = change_default_connection(ld, secure_connection);
    ldap_set_error_direct(ld, rc, nullptr, nullptr);
    LDAP_TRACE(TRC_API, "ldap_start_tls_s_np: returns %d\n", rc);
    return rc;
}

int ldap_end_tls_s_np(LDAP *ld)
{
    LDAP_TRACE(TRC_API, "ldap_end_tls_s_np: ld(%p)\n", static_cast<void *>(ld));
    int rc = LDAP_SUCCESS;
    {
        zldap::OperationGuard guard(ld, zldap::OnEntry::keep_error);
        if (!guard.admitted())
            return LDAP_PARAM_ERROR;
        rc = change_default_connection(ld, close_secure_layer);
    }
    return rc == LDAP_SUCCESS ? ldap_unbind(ld) : rc;
}
