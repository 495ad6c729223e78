// parse_sasl_bind_result.cpp - ldap_parse_sasl_bind_result: a bind
// response's result code and the server's SASL credentials, read from a
// copy of the message's element. The result code is what the caller acts
// on: 14 hands out the credentials of the next step of the exchange.
#include "results/parse_result.h"

#include "base/trace.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "message/ldap_message.h"
#include "proto/result_fields.h"
#include "results/results.h"

namespace {

// The result code into *code and, with a creds pointer, the credentials
// that follow the LDAPResult (after a referral, if any). Credentials that
// are missing or malformed are no error: the caller has none. 0 (with *code
// set), 84 when the LDAPResult is malformed (*code set if it was read) or 90.
int decode(LDAPMessage *res, int *code, struct berval **creds)
{
    if (!res->msg_ber)
        return LDAP_DECODING_ERROR;
    BerElement copy = *res->msg_ber;
    zldap::ResultReader reader(&copy);
    int rc = reader.head(code, nullptr, nullptr);
    if (rc != LDAP_SUCCESS || !creds)
        return rc;
    rc = reader.referrals(nullptr);
    if (rc == LDAP_SUCCESS)
        rc = reader.optional_octets(zldap::kTagSaslCredentials, creds);
    if (rc == LDAP_NO_MEMORY)
        return rc;
    if (!*creds)
        LDAP_TRACE(TRC_API,
                   "ldap_parse_sasl_bind_result_direct: No credentials were returned from the server for the "
                   "sasl_bind\n");
    return LDAP_SUCCESS;
}

} // namespace

int ldap_parse_sasl_bind_result_direct(LDAP *ld, LDAPMessage *res, struct berval **servercredp, int freeit)
{
    LDAP_TRACE(TRC_ANY, "ldap_parse_sasl_bind_result_direct \n");
    ldap_set_error_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    if (servercredp)
        *servercredp = nullptr;
    if (!res || res->msg_type != LDAP_RES_BIND) {
        ldap_set_error_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
        return LDAP_PARAM_ERROR;
    }
    int code = 0;
    int rc = decode(res, &code, servercredp);
    if (freeit)
        ldap_msgfree_direct(res);

    if (rc != LDAP_NO_MEMORY && code != LDAP_SUCCESS) {
        LDAP_TRACE(TRC_ERROR,
                   "ldap_parse_sasl_bind_result_direct: msgrc in ldap_sasl_bind returned non-zero value of 0x%x \n",
                   static_cast<unsigned>(code));
        rc = code;
    }
    if (rc != LDAP_SUCCESS)
        ldap_set_error_direct(ld, rc, nullptr, nullptr);
    LDAP_TRACE(TRC_API, "ldap_parse_sasl_bind_result_direct: rc=%d\n", rc);
    return rc;
}

int ldap_parse_sasl_bind_result(LDAP *ld, LDAPMessage *res, struct berval **servercredp, int freeit)
{
    LDAP_TRACE(TRC_API, "ldap_parse_sasl_bind_result: ld(%p) res(%p)servercredp(%p) freeit(%d)\n",
               static_cast<void *>(ld), static_cast<void *>(res), static_cast<void *>(servercredp), freeit);
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (!op.admitted())
        return LDAP_PARAM_ERROR;
    return ldap_parse_sasl_bind_result_direct(ld, res, servercredp, freeit);
}
