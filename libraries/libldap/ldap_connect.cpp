// ldap_connect.cpp - per-thread connection bindings of a handle.
#include "ldap_connect.h"

#include "ldap_error.h"
#include "ldap_lock.h"
#include "memory.h"
#include "trace.h"

#define LDAP_MODULE "libraries/libldap/ldap_connect"

namespace {

// Caller holds ld_thread_conn_mutex.
ldap_thread_conn *find_thread_binding(LDAP *ld)
{
    pthread_t self = pthread_self();
    for (ldap_thread_conn *tc = ld->ld_thread_conns; tc; tc = tc->next)
        if (pthread_equal(tc->thread, self))
            return tc;
    return nullptr;
}

} // namespace

LDAPConn *get_default_connection(LDAP *ld)
{
    // An unlocked peek: bindings exist only while a thread chases a
    // referral, and that thread is the one that reads its own binding.
    if (!__atomic_load_n(&ld->ld_thread_conns, __ATOMIC_ACQUIRE))
        return ld->ld_defconn;
    int line = __LINE__ + 1;
    if (LDAP_MUTEX_LOCK(&ld->ld_thread_conn_mutex) != 0) {
        LDAP_TRACE(TRC_ERROR,
                   "get_default_connection: FATAL ERRRO  - Unable to get lock at File %s, Line %d\n",
                   LDAP_MODULE, line);
        return nullptr;
    }
    ldap_thread_conn *tc = find_thread_binding(ld);
    LDAPConn *lc = tc ? tc->conn : ld->ld_defconn;
    LDAP_MUTEX_UNLOCK(&ld->ld_thread_conn_mutex);
    return lc;
}

int set_thread_connection(LDAP *ld, LDAPConn *lc)
{
    if (LDAP_MUTEX_LOCK(&ld->ld_thread_conn_mutex) != 0) {
        ldap_set_error_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
        return LDAP_LOCK_ERROR;
    }
    int rc = LDAP_SUCCESS;
    ldap_thread_conn *tc = find_thread_binding(ld);
    if (tc && !lc) {
        if (tc->prev)
            tc->prev->next = tc->next;
        else
            __atomic_store_n(&ld->ld_thread_conns, tc->next, __ATOMIC_RELEASE);
        if (tc->next)
            tc->next->prev = tc->prev;
        zldap::mem_free(tc);
    } else if (tc) {
        tc->conn = lc;
    } else if (lc) {
        tc = static_cast<ldap_thread_conn *>(zldap::mem_calloc(1, sizeof *tc));
        if (!tc) {
            rc = LDAP_NO_MEMORY;
        } else {
            tc->thread = pthread_self();
            tc->conn = lc;
            tc->next = ld->ld_thread_conns;
            if (tc->next)
                tc->next->prev = tc;
            __atomic_store_n(&ld->ld_thread_conns, tc, __ATOMIC_RELEASE);
        }
    }
    LDAP_MUTEX_UNLOCK(&ld->ld_thread_conn_mutex);
    return rc;
}
