// ldap_operation.h - what the operations share beyond the request
// skeleton: the client-control rule with its copy of the default server
// controls, and waiting for a request's result code.
#ifndef ZLDAP_LDAP_OPERATION_H
#define ZLDAP_LDAP_OPERATION_H

#include "core/ldap_session.h"
#include "proto/ldap_controls.h"

#include <sys/time.h>

namespace zldap {

// Applies the client-control rule for one operation; when no server
// controls were given, server() is a copy of the handle's defaults, which
// goes with this object.
class OperationControls {
public:
    OperationControls(LDAP *ld, LDAPControl **server, LDAPControl **client)
        : server_(server), rc_(ldap_check_client_controls(ld, &server_, client, &copied_))
    {
    }
    ~OperationControls()
    {
        if (copied_)
            ldap_controls_free(server_);
    }
    OperationControls(const OperationControls &) = delete;
    OperationControls &operator=(const OperationControls &) = delete;

    int code() const { return rc_; }
    LDAPControl **server() const { return server_; }

private:
    LDAPControl **server_;
    int copied_ = 0;
    int rc_;
};

// Waits without limit for the whole result of request `id` and returns its
// result code, the response's matched DN and text becoming the thread's
// error; the chain is released.
int wait_for_result_code(LDAP *ld, int id);

// Waits for the whole result of a search up to `timeout` and hands the
// chain to the caller. A time-out gives 85 and orphans the request's row,
// so that its results are released when they arrive.
int wait_for_search_result(LDAP *ld, int id, struct timeval *timeout, LDAPMessage **res);

} // namespace zldap

#endif
