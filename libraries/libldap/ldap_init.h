// ldap_init.h - creating session handles and connection records, and the
// operation guard that every handle-taking public function enters.
#ifndef ZLDAP_LDAP_INIT_H
#define ZLDAP_LDAP_INIT_H

#include "ldap_session.h"

LDAP *ldap_init(const char *host, int port);
// ldap_init, then the protocol version from LDAP_VERSION (exactly "3" gives
// 3, anything else 2) and the default connection opened. NULL on failure.
LDAP *ldap_open(const char *host, int port);

LDAPConn *ldap_lc_init(const char *hosts, int port, int table_rows);
// Releases the record and every record after it in the lconn_next list.
void ldap_lc_free(LDAPConn *lc);

// 0 when the caller may go on; otherwise a code, and the caller returns at
// once without ending the operation.
int ldap_start_operation(LDAP *ld);
void ldap_end_operation(LDAP *ld);

namespace zldap {

// Brackets one public operation on a handle.
class OperationGuard {
public:
    explicit OperationGuard(LDAP *ld) : ld_(ld), rc_(ldap_start_operation(ld)) {}
    ~OperationGuard()
    {
        if (rc_ == 0)
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
