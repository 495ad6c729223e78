// ldap_unbind.cpp - ldap_unbind and its aliases: mark the handle closing,
// wait for every operation inside the guard to leave, then release it. No
// unbind request is sent; closing the socket ends the session.
#include "session/ldap_unbind.h"

#include "base/ldap_lock.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_free.h"

#define LDAP_MODULE "libraries/libldap/ldap_unbind"

int ldap_unbind(LDAP *ld)
{
    LDAP_TRACE(TRC_API, "ldap_unbind: ld(%p)\n", static_cast<void *>(ld));
    if (!ldap_handle_is_valid(ld))
        return LDAP_PARAM_ERROR;
    if (LDAP_MUTEX_LOCK(&ld->ld_mutex) != 0)
        return ldap_fail(ld, LDAP_LOCK_ERROR);
    if (ld->ld_unbind_started == 1) {
        // Another unbind owns the teardown.
        LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
        return LDAP_PARAM_ERROR;
    }
    // Sequentially consistent: the guard's presence slots are ordered against it.
    __atomic_store_n(&ld->ld_unbind_started, 1, __ATOMIC_SEQ_CST);
    int rc = ldap_wait_for_operations(ld); // releases ld_mutex
    if (rc != 0) {
        // The handle stays closing and allocated: every later call is refused.
        LDAP_TRACE(TRC_ERROR, "ldap_unbind: pthread_cond_wait failed. errno %d\n", rc);
        return LDAP_LOCK_ERROR;
    }
    ldap_ld_free(ld);
    return LDAP_SUCCESS;
}

int ldap_unbind_s(LDAP *ld)
{
    LDAP_TRACE(TRC_API, "ldap_unbind_s\n");
    return ldap_unbind(ld);
}

int ldap_unbind_ext(LDAP *ld, LDAPControl **, LDAPControl **)
{
    LDAP_TRACE(TRC_API, "ldap_unbind_ext\n");
    return ldap_unbind(ld);
}
