// ldap_init_guard.cpp - the operation guard: every public function that
// takes a handle enters it, so that unbind can wait for the operations
// running on the handle.
//
// A thread enters by announcing the handle in its presence slot
// (ldap_init_presence.h), which costs no locked instruction. When its slot
// already holds another handle, or cannot be had, it is counted in
// ld_op_count instead: an atomic word with the number of such operations
// in its low bits and kOpsClosing once an unbind has begun. Entering and
// leaving by the count while no unbind waits take no lock. Once
// kOpsClosing is set, leaving takes ld_mutex for the decrement and the
// wake-up, so that the unbinder, which waits under ld_mutex for the count
// to reach 0, can free the handle only after the last operation has let go
// of it. Unbind waits for the slots first, without ld_mutex, since an
// operation inside may need that lock to finish.
#include "core/ldap_init_guard.h"

#include "base/ldap_lock.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "core/ldap_init_presence.h"

#include <cstring>

#define LDAP_MODULE "libraries/libldap/ldap_init"

namespace {

uint64_t load_ops(const LDAP *ld) { return __atomic_load_n(&ld->ld_op_count, __ATOMIC_ACQUIRE); }

// Leaves the guard. Without kOpsClosing a compare-and-swap suffices; with
// it the decrement happens under ld_mutex followed by the wake-up.
void leave(LDAP *ld)
{
    uint64_t ops = load_ops(ld);
    while (!(ops & kOpsClosing)) {
        if ((ops & ~kOpsClosing) == 0)
            return;
        if (__atomic_compare_exchange_n(&ld->ld_op_count, &ops, ops - 1, true, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
            return;
    }
    if (LDAP_MUTEX_LOCK(&ld->ld_mutex) != 0) {
        ldap_set_error_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
        return;
    }
    if (load_ops(ld) & ~kOpsClosing)
        __atomic_sub_fetch(&ld->ld_op_count, 1, __ATOMIC_ACQ_REL);
    pthread_cond_broadcast(&ld->ld_op_cond);
    LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
}

} // namespace

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
    zldap::PresenceEntry entry = zldap::presence_enter(ld, &ld->ld_unbind_started);
    if (entry == zldap::PresenceEntry::entered)
        return LDAP_SUCCESS;
    if (entry == zldap::PresenceEntry::unavailable && __atomic_load_n(&ld->ld_unbind_started, __ATOMIC_ACQUIRE) != 1) {
        uint64_t before = __atomic_fetch_add(&ld->ld_op_count, 1, __ATOMIC_ACQ_REL);
        if (!(before & kOpsClosing))
            return LDAP_SUCCESS;
        // The unbind came first: the count goes back, waking it if it waits.
        leave(ld);
    }
    LDAP_TRACE(TRC_API, "ldap_start_operation: unbind started\n");
    return LDAP_PARAM_ERROR;
}

void ldap_end_operation(LDAP *ld)
{
    if (!ldap_handle_is_valid(ld)) {
        LDAP_TRACE(TRC_ERROR, "Invalid ld in ldap_start_operation\n");
        return;
    }
    if (!zldap::presence_leave(ld))
        leave(ld);
}

int ldap_wait_for_operations(LDAP *ld)
{
    __atomic_fetch_or(&ld->ld_op_count, kOpsClosing, __ATOMIC_ACQ_REL);
    LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
    int rc = zldap::presence_wait_until_absent(ld);
    if (rc != 0 || (rc = LDAP_MUTEX_LOCK(&ld->ld_mutex)) != 0)
        return rc;
    while (rc == 0 && (load_ops(ld) & ~kOpsClosing))
        rc = pthread_cond_wait(&ld->ld_op_cond, &ld->ld_mutex);
    LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
    return rc;
}

bool ldap_operations_inside(LDAP *ld)
{
    return (load_ops(ld) & ~kOpsClosing) != 0 || zldap::presence_inside(ld);
}
