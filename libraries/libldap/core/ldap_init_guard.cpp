// ldap_init_guard.cpp - the operation guard: every public function that
// takes a handle enters it, so that unbind can wait for the operations
// running on the handle.
#include "core/ldap_init_guard.h"

#include "base/ldap_lock.h"
#include "base/trace.h"
#include "core/ldap_error.h"

#include <cstring>

#define LDAP_MODULE "libraries/libldap/ldap_init"

bool ldap_handle_is_valid(const LDAP *ld)
{
    return ld && std::memcmp(ld->ld_marker, kLdapMarker, sizeof kLdapMarker) == 0;
}

int ldap_start_operation(LDAP *ld)
{
    if (!ldap_handle_is_valid(ld)) {
        LDAP_TRACE(TRC_ERROR, "Invalid ld in ldap_start_operation\n");
        return LDAP_PARAM_ERROR;
    }
    if (LDAP_MUTEX_LOCK(&ld->ld_mutex) != 0)
        return ldap_fail(ld, LDAP_LOCK_ERROR);
    int rc = LDAP_SUCCESS;
    if (ld->ld_unbind_started == 1) {
        LDAP_TRACE(TRC_API, "ldap_start_operation: unbind started\n");
        rc = LDAP_PARAM_ERROR;
    } else {
        ld->ld_op_count++;
    }
    LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
    return rc;
}

void ldap_end_operation(LDAP *ld)
{
    if (!ldap_handle_is_valid(ld)) {
        LDAP_TRACE(TRC_ERROR, "Invalid ld in ldap_start_operation\n");
        return;
    }
    if (LDAP_MUTEX_LOCK(&ld->ld_mutex) != 0) {
        ldap_set_error_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
        return;
    }
    if (ld->ld_op_count > 0)
        ld->ld_op_count--;
    pthread_cond_broadcast(&ld->ld_op_cond);
    LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
}
