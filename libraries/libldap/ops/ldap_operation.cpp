// ldap_operation.cpp - waiting for the results of synchronous operations.
#include "ops/ldap_operation.h"

#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "engine/ldap_result.h"
#include "message/ldap_table.h"
#include "results/results.h"

namespace zldap {

int wait_for_result_code(LDAP *ld, int id)
{
    LDAPMessage *res = nullptr;
    if (ldap_result_int(ld, id, LDAP_MSG_ALL, nullptr, &res) == -1) {
        int error = ldap_get_errno_direct(ld);
        if (error != LDAP_SUCCESS)
            return error;
    }
    return ldap_result2error_direct(ld, res, 1);
}

int wait_for_search_result(LDAP *ld, int id, struct timeval *timeout, LDAPMessage **res)
{
    int type = ldap_result(ld, id, LDAP_MSG_ALL, timeout, res);
    if (type == 0 || type == -1) {
        int error = ldap_get_errno_direct(ld);
        if (type == 0) {
            LDAPConn *lc = get_default_connection(ld);
            if (lc)
                ldap_msg_table_set_flag(ld, lc->lconn_msgtable, id, LDAP_ROW_ORPHAN);
        }
        if (error != LDAP_SUCCESS)
            return error;
    }
    return ldap_result2error_direct(ld, *res, 0);
}

} // namespace zldap
