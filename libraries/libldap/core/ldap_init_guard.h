// ldap_init_guard.h - the operation guard that every handle-taking public
// function enters: it refuses an invalid or closing handle and counts the
// operation in, so that unbind can wait until it has left.
#ifndef ZLDAP_LDAP_INIT_GUARD_H
#define ZLDAP_LDAP_INIT_GUARD_H

#include "core/ldap_error.h"
#include "core/ldap_session.h"

// 0 when the caller may go on; otherwise a code, and the caller returns at
// once without ending the operation.
int ldap_start_operation(LDAP *ld);
void ldap_end_operation(LDAP *ld);

// ld_op_count bit set by unbind: operations that leave from then on wake it.
inline constexpr uint64_t kOpsClosing = uint64_t{1} << 63;

// Unbind's wait, called with ld_mutex held and ld_unbind_started set:
// marks the count closing and waits until every operation has left.
// Returns with ld_mutex released: 0, or the error of a lock or a wait.
int ldap_wait_for_operations(LDAP *ld);

// Whether some operation is inside the guard on the handle now.
bool ldap_operations_inside(LDAP *ld);

namespace zldap {

// What an admitted operation does with the calling thread's last error.
enum class OnEntry {
    keep_error,  // the error is left as it is: readers of it, and operations that record their own outcome
    reset_error, // the error becomes success, so that only this operation's failure shows
};

// Brackets one public operation on a handle. A record that is never
// unbound (the global defaults) is admitted without being counted when
// counted is false.
class OperationGuard {
public:
    OperationGuard(LDAP *ld, OnEntry on_entry, bool counted = true)
        : ld_(counted ? ld : nullptr), rc_(counted ? ldap_start_operation(ld) : 0)
    {
        if (rc_ == 0 && on_entry == OnEntry::reset_error)
            ldap_set_error_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    }
    ~OperationGuard()
    {
        if (rc_ == 0 && ld_)
            ldap_end_operation(ld_);
    }
    OperationGuard(const OperationGuard &) = delete;
    OperationGuard &operator=(const OperationGuard &) = delete;

    bool admitted() const { return rc_ == 0; }
    int code() const { return rc_; }

private:
    LDAP *ld_;
    int rc_;
};

} // namespace zldap

#endif
