// ldap_ssl_session.cpp - the entry points that make a session secure, and
// the locked setter of its cipher list. A secure session's connections,
// referral ones included, all go through the secure set-up.
#include "session/ldap_ssl_session.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"
#include "tls/ldap_ssl.h"
#include "tls/ldap_ssl_connect.h"
#include "tls/ldap_ssl_env.h"
#include "zor8ldap_api.h"

#define LDAP_MODULE "libraries/libldap/ldap_ssl"

namespace {

bool toolkit_initialised()
{
    ldap_init_all_mutex_once();
    ldap_lock_ssl_mutex();
    bool done = g_SSL_initCount != 0;
    ldap_unlock_ssl_mutex();
    return done;
}

// Marks ld secure on the current environment (unless it holds one already)
// with a copy of label. 0, 90 or 129.
int make_secure(LDAP *ld, const char *label)
{
    char *copy = nullptr;
    if (label && !(copy = zldap::mem_strdup(label)))
        return LDAP_NO_MEMORY;
    LDAP_MUTEX_GUARD(guard, &ld->ld_mutex);
    if (!guard.locked()) {
        zldap::mem_free(copy);
        return LDAP_LOCK_ERROR;
    }
    if (!ld->ld_ssl_env)
        ld->ld_ssl_env = attachZorEnvRef();
    if (label) {
        zldap::mem_free(ld->ssl_cert_label);
        ld->ssl_cert_label = copy;
    }
    ld->ld_ssl_flag = 1;
    return LDAP_SUCCESS;
}

} // namespace

LDAP *ldap_ssl_session_init(const char *host, int port, const char *label)
{
    if (!toolkit_initialised())
        return nullptr;
    LDAP *ld = ldap_init(host, port);
    if (ld && make_secure(ld, label) != LDAP_SUCCESS) {
        ldap_unbind(ld);
        ld = nullptr;
    }
    return ld;
}

int ldap_ssl_start_direct(LDAP *ld, const char *keyring, const char *keyring_pw, const char *label)
{
    if (!ld)
        return -1;
    int rc = ldap_ssl_client_init(keyring, keyring_pw, ld->ld_ssl_timeout, nullptr);
    LDAP_TRACE(TRC_API, "In ldap_ssl_start_direct(): ldap_ssl_client_init() rc=%d\n", rc);
    if (rc != LDAP_SUCCESS && rc != LDAP_SECURE_INIT_DONE)
        return rc;
    if ((rc = make_secure(ld, label)) != LDAP_SUCCESS)
        return ldap_fail(ld, rc);
    LDAPConn *lc = get_default_connection(ld);
    if (!lc)
        return ldap_fail(ld, LDAP_LOCK_ERROR);
    // A connection that is not open yet is opened through the secure
    // set-up: with no socket there is nothing to put the secure layer on,
    // and nothing may go out in clear first.
    LDAP_MUTEX_GUARD(writing, &lc->lconn_write_mutex);
    if (!writing.locked())
        return ldap_fail(ld, LDAP_LOCK_ERROR);
    if (!lconn_is_connected(lc))
        return open_ldap_connection(ld, lc);
    if (lc->lconn_sb.secure)
        return LDAP_SUCCESS;
    rc = open_ssl_connection(ld, &lc->lconn_sb);
    // A connection that could not be secured is not used in clear either.
    if (rc != LDAP_SUCCESS)
        lconn_mark_closed(lc);
    return rc;
}

int ldap_ssl_start(LDAP *ld, const char *keyring, const char *keyring_pw, const char *label)
{
    LDAP_TRACE(TRC_API, "In ldap_ssl_start(): this is a deprecated function.\n");
    zldap::OperationGuard guard(ld, zldap::OnEntry::keep_error);
    if (!guard.admitted())
        return LDAP_PARAM_ERROR;
    return ldap_ssl_start_direct(ld, keyring, keyring_pw, label);
}

int ldap_set_ssl_cipher(LDAP *ld, const char *ciphers)
{
    zldap::OperationGuard guard(ld, zldap::OnEntry::keep_error);
    if (!guard.admitted())
        return LDAP_PARAM_ERROR;
    LDAP_MUTEX_GUARD(locked, &ld->ld_mutex);
    if (!locked.locked())
        return ldap_fail(ld, LDAP_LOCK_ERROR);
    return set_ssl_cipher(ld, ciphers);
}
