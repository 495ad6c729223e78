// extended.cpp - ldap_extended_operation and ldap_extended_operation_s. The
// request is the name with tag 0x80 and, when given, the value with tag
// 0x81; the synchronous form waits for the extended response and hands out
// its name and value.
#include "ops/extended.h"

#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "engine/ldap_request.h"
#include "engine/ldap_result.h"
#include "ops/ldap_operation.h"
#include "results/parse_result.h"
#include "results/results.h"

#include <cstdint>

namespace {

constexpr int kExtendedRequest = 0x77;
constexpr ber_tag_t kRequestName = 0x80;
constexpr ber_tag_t kRequestValue = 0x81;

unsigned trace_ptr(const void *p) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)); }

// The checks, the client-control rule and the send; `counted` is false for
// the synchronous form, which is inside the guard already.
int send_extended(LDAP *ld, const char *requestoid, const struct berval *requestdata, LDAPControl **serverctrls,
                  LDAPControl **clientctrls, int *msgidp, bool counted)
{
    LDAP_TRACE(TRC_API, "ldap_extended_operation\n");
    if (!ld || !requestoid || !msgidp) {
        LDAP_TRACE(TRC_ERROR, "ldap_extended_operation: Bad parameters passed ld(%x) reqoid(%x) msgidp(%x)\n",
                   trace_ptr(ld), trace_ptr(requestoid), trace_ptr(msgidp));
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error, counted);
    if (!op.admitted())
        return op.code();
    *msgidp = -1;
    zldap::OperationControls controls(ld, serverctrls, clientctrls);
    if (controls.code() != LDAP_SUCCESS)
        return controls.code();
    return ldap_extended_operation_direct(ld, requestoid, requestdata, controls.server(), clientctrls, msgidp,
                                          nullptr);
}

} // namespace

int ldap_extended_operation_direct(LDAP *ld, const char *requestoid, const struct berval *requestdata,
                                   LDAPControl **serverctrls, LDAPControl ** /*clientctrls*/, int *msgidp,
                                   LDAPConn *lc)
{
    LDAP_TRACE(TRC_API, "ldap_extended_operation_direct\n");
    auto encode = [&](BerElement *ber) {
        int rc = fber_printf(ber, "t{ts", static_cast<ber_tag_t>(kExtendedRequest), kRequestName, requestoid);
        if (rc == 0 && requestdata)
            rc = fber_printf(ber, "to}", kRequestValue, requestdata->bv_val ? requestdata->bv_val : "",
                             static_cast<int>(requestdata->bv_len));
        else if (rc == 0)
            rc = fber_printf(ber, "}");
        return rc == 0 ? LDAP_SUCCESS : LDAP_ENCODING_ERROR;
    };
    return zldap::send_request(
        ld, lc, {"ldap_extended_operation_direct: NULL server connection\n", kExtendedRequest, serverctrls, encode},
        msgidp);
}

int ldap_extended_operation(LDAP *ld, const char *requestoid, const struct berval *requestdata,
                            LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp)
{
    return send_extended(ld, requestoid, requestdata, serverctrls, clientctrls, msgidp, true);
}

int ldap_extended_operation_s(LDAP *ld, const char *requestoid, const struct berval *requestdata,
                              LDAPControl **serverctrls, LDAPControl **clientctrls, char **retoidp,
                              struct berval **retdatap)
{
    LDAP_TRACE(TRC_API, "ldap_extended_operations_s\n");
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return op.code();
    int msgid = -1;
    send_extended(ld, requestoid, requestdata, serverctrls, clientctrls, &msgid, false);
    if (msgid == -1)
        return ldap_get_errno_direct(ld);
    LDAPMessage *res = nullptr;
    int rc = LDAP_SUCCESS;
    if (ldap_result_int(ld, msgid, LDAP_MSG_ALL, nullptr, &res) == -1)
        rc = ldap_get_errno_direct(ld);
    if (rc == LDAP_SUCCESS)
        rc = ldap_result2error_direct(ld, res, 0);
    if (res && res->msg_type == LDAP_RES_EXTENDED)
        return ldap_parse_extended_result_direct(ld, res, retoidp, retdatap, nullptr, 1);
    ldap_msgfree_direct(res); // an answer of another kind
    return rc;
}

int ldap_extended_operation_code(LDAP *ld, const char *requestoid, const struct berval *requestdata,
                                 LDAPControl **serverctrls, LDAPControl **clientctrls)
{
    char *name = nullptr;
    struct berval *value = nullptr;
    int rc = ldap_extended_operation_s(ld, requestoid, requestdata, serverctrls, clientctrls, &name, &value);
    zldap::mem_free(name);
    ber_bvfree(value);
    return rc;
}
