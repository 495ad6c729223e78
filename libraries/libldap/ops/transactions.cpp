// transactions.cpp - starting and ending a server transaction and asking
// for its id: thin extended operations whose values carry the transaction
// id (the end request puts the commit octet in front of it).
#include "zor8ldap_api.h"

#include "base/function_ref.h"
#include "base/memory.h"
#include "base/trace.h"
#include "ops/extended.h"
#include "proto/request_values.h"

namespace {

constexpr const char *kStartTransaction = "1.3.18.0.2.12.5";
constexpr const char *kEndTransaction = "1.3.18.0.2.12.6";
constexpr const char *kTranIdRequest = "1.3.18.0.2.12.64";

// Runs `send` with the request value, which is released afterwards; a
// value that could not be built sends nothing.
int with_value(struct berval *value, zldap::FunctionRef<int(const struct berval *)> send)
{
    if (!value) {
        LDAP_TRACE(TRC_ERROR, "createTransIDReqVal failed. No call to the server made.\n");
        return LDAP_OTHER;
    }
    int rc = send(value);
    ber_bvfree(value);
    return rc;
}

} // namespace

int ldap_start_transaction(LDAP *ld, LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp)
{
    return ldap_extended_operation(ld, kStartTransaction, nullptr, serverctrls, clientctrls, msgidp);
}

int ldap_start_transaction_s(LDAP *ld, LDAPControl **serverctrls, LDAPControl **clientctrls,
                             struct berval **tran_id)
{
    char *name = nullptr;
    int rc = ldap_extended_operation_s(ld, kStartTransaction, nullptr, serverctrls, clientctrls, &name, tran_id);
    zldap::mem_free(name);
    return rc;
}

int ldap_end_transaction(LDAP *ld, const char *tran_id, int commit, LDAPControl **serverctrls,
                         LDAPControl **clientctrls, int *msgidp)
{
    auto send = [&](const struct berval *value) {
        return ldap_extended_operation(ld, kEndTransaction, value, serverctrls, clientctrls, msgidp);
    };
    return with_value(ldap_create_end_transaction_request(tran_id, commit), send);
}

int ldap_end_transaction_s(LDAP *ld, const char *tran_id, int commit, LDAPControl **serverctrls,
                           LDAPControl **clientctrls)
{
    auto send = [&](const struct berval *value) {
        return ldap_extended_operation_code(ld, kEndTransaction, value, serverctrls, clientctrls);
    };
    return with_value(ldap_create_end_transaction_request(tran_id, commit), send);
}

int ldap_tran_id_request(LDAP *ld, const char *tran_id, LDAPControl **serverctrls, LDAPControl **clientctrls,
                         int *msgidp)
{
    auto send = [&](const struct berval *value) {
        return ldap_extended_operation(ld, kTranIdRequest, value, serverctrls, clientctrls, msgidp);
    };
    return with_value(createTransIDReqVal(tran_id), send);
}

int ldap_tran_id_request_s(LDAP *ld, const char *tran_id, LDAPControl **serverctrls, LDAPControl **clientctrls)
{
    auto send = [&](const struct berval *value) {
        return ldap_extended_operation_code(ld, kTranIdRequest, value, serverctrls, clientctrls);
    };
    return with_value(createTransIDReqVal(tran_id), send);
}
