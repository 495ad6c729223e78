// ldap_free.cpp - ldap_ld_free: releases everything a handle owns. Also
// undoes a partly built handle, so it releases only the locks that exist.
#include "session/ldap_free.h"

#include "base/memory.h"
#include "base/trace.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "core/plugin_block.h"
#include "proto/ldap_controls.h"
#include "tls/ldap_ssl_env.h"

#define LDAP_MODULE "libraries/libldap/ldap_free"

namespace {

void trace_destroy_failure(int rc, int line)
{
    LDAP_TRACE(TRC_ERROR, "ldap_ld_free: Error in pthread_mutex_destroy File %s, Line %d, errno %d\n",
               LDAP_MODULE, line, rc);
}

void destroy_mutex(LDAP *ld, pthread_mutex_t *mutex, uint32_t bit, int line)
{
    if (!(ld->ld_locks_made & bit))
        return;
    int rc = pthread_mutex_destroy(mutex);
    if (rc != 0)
        trace_destroy_failure(rc, line);
}

// A plug-in that bound on the calling thread's default connection sees its
// parameter block once more, in its close function, before the connection
// releases it.
void close_plugin(LDAP *ld)
{
    LDAPConn *lc = get_default_connection(ld);
    LDAPPluginBlock *pb = lc ? lc->lconn_plugin_block : nullptr;
    if (LDAPPluginFunc close = pb ? ldap_plugin_block_func(pb, LDAP_PLUGIN_CLOSE_FN) : nullptr)
        close(pb);
}

void free_thread_conns(LDAP *ld)
{
    ldap_thread_conn *tc = ld->ld_thread_conns;
    while (tc) {
        ldap_thread_conn *next = tc->next;
        zldap::mem_free(tc);
        tc = next;
    }
    ld->ld_thread_conns = nullptr;
}

} // namespace

void ldap_ld_free(LDAP *ld)
{
    if (!ld)
        return;
    close_plugin(ld);
    ldap_lc_free(ld->ld_servers);
    ld->ld_servers = nullptr;
    ld->ld_defconn = nullptr;
    free_thread_conns(ld);

    zldap::mem_free(ld->ld_bind_dn);
    if (ld->ld_bind_cred) {
        zldap::mem_free(ld->ld_bind_cred->bv_val);
        zldap::mem_free(ld->ld_bind_cred);
    }
    ldap_controls_free(ld->ld_sctrls);
    ldap_controls_free(ld->ld_cctrls);
    if (ld->ld_ssl_env)
        deleteZorEnvRef(ld->ld_ssl_env);

    zldap::mem_free(ld->ld_ssl_cipher);
    zldap::mem_free(ld->ld_ssl_cipher_EX);
    zldap::mem_free(ld->ssl_cert_label);
    zldap::mem_free(ld->ld_ssl_protocols);
    zldap::mem_free(ld->ld_defhost);
    zldap::mem_free(ld->ld_connect_timeout);

    destroy_mutex(ld, &ld->ld_mutex, LD_LOCK_MUTEX, __LINE__);
    destroy_mutex(ld, &ld->ld_servers_mutex, LD_LOCK_SERVERS, __LINE__);
    destroy_mutex(ld, &ld->ld_error_mutex, LD_LOCK_ERROR, __LINE__);
    if (ld->ld_locks_made & LD_LOCK_COND) {
        int rc = pthread_cond_destroy(&ld->ld_op_cond);
        if (rc != 0)
            trace_destroy_failure(rc, __LINE__);
    }
    destroy_mutex(ld, &ld->ld_thread_conn_mutex, LD_LOCK_THREAD_CONN, __LINE__);

    ldap_free_error_records(ld);
    // Clearing the marker makes a stale pointer fail the guard for as long
    // as the memory is not reused.
    ld->ld_marker[0] = '\0';
    zldap::mem_free(ld);
}
