// parse_result.cpp - ldap_parse_result: the LDAPResult of the response that
// ends a chain (result code, matched DN, diagnostic message, referrals of a
// code 10) and the controls after it, read from a copy of the message's
// element so that the chain can be parsed again.
#include "results/parse_result.h"

#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_init_guard.h"
#include "message/ldap_message.h"
#include "proto/ldap_controls.h"
#include "proto/result_fields.h"
#include "results/results.h"

namespace {

// The first message from res on that is neither a search entry nor a
// search reference. A message handed out alone is a chain of one: what
// follows it in its row is not the caller's.
LDAPMessage *final_response(LDAPMessage *res)
{
    for (LDAPMessage *msg = res; msg; msg = (msg->msg_flags & LDAP_MSGFLAG_ALONE) ? nullptr : msg->msg_next)
        if (msg->msg_type != LDAP_RES_SEARCH_ENTRY && msg->msg_type != LDAP_RES_SEARCH_REFERENCE)
            return msg;
    return nullptr;
}

// What one parse decoded, released unless handed out.
struct ResultParts {
    int code = 0;
    char *matched = nullptr;
    char *text = nullptr;
    char **referrals = nullptr;
    LDAPControl **controls = nullptr;

    ResultParts() = default;
    ResultParts(const ResultParts &) = delete;
    ResultParts &operator=(const ResultParts &) = delete;
    ~ResultParts()
    {
        zldap::mem_free(matched);
        zldap::mem_free(text);
        ldap_value_free(referrals);
        ldap_controls_free(controls);
    }

    template <typename T> static void hand_out(T **out, T *&part)
    {
        if (out) {
            *out = part;
            part = nullptr;
        }
    }
};

// Decodes the parts whose out-pointers are given; the others are only
// checked. 0, 84 or 90.
int decode(LDAPMessage *msg, ResultParts &parts, char **matcheddnp, char **errmsgp, char ***referralsp,
           LDAPControl ***serverctrlsp)
{
    if (!msg->msg_ber)
        return LDAP_DECODING_ERROR;
    BerElement copy = *msg->msg_ber;
    zldap::ResultReader reader(&copy);
    int rc = reader.head(&parts.code, matcheddnp ? &parts.matched : nullptr, errmsgp ? &parts.text : nullptr);
    if (rc != LDAP_SUCCESS)
        return rc;
    LDAP_TRACE(TRC_API, "ldap_parse_result: msgid=%d, resulttype=%d, resultcode=%d\n", msg->msg_id,
               msg->msg_type, parts.code);
    // A result code of 10 carries a referral list.
    if (parts.code == LDAP_REFERRAL)
        rc = reader.referrals(referralsp ? &parts.referrals : nullptr);
    if (rc == LDAP_SUCCESS && serverctrlsp)
        rc = reader.controls(&parts.controls);
    return rc;
}

} // namespace

int ldap_parse_result_direct(LDAP *, LDAPMessage *res, int *errcodep, char **matcheddnp, char **errmsgp,
                             char ***referralsp, LDAPControl ***serverctrlsp, int freeit)
{
    if (matcheddnp)
        *matcheddnp = nullptr;
    if (errmsgp)
        *errmsgp = nullptr;
    if (referralsp)
        *referralsp = nullptr;
    if (serverctrlsp)
        *serverctrlsp = nullptr;

    ResultParts parts;
    int rc;
    LDAPMessage *msg = final_response(res);
    if (!msg) {
        LDAP_TRACE(TRC_ERROR, "ldap_parse_result: NULLMSG passed\n");
        rc = LDAP_OPERATIONS_ERROR;
    } else {
        rc = decode(msg, parts, matcheddnp, errmsgp, referralsp, serverctrlsp);
    }
    if (freeit)
        ldap_msgfree_direct(res);
    if (rc == LDAP_SUCCESS) {
        if (errcodep)
            *errcodep = parts.code;
        ResultParts::hand_out(matcheddnp, parts.matched);
        ResultParts::hand_out(errmsgp, parts.text);
        ResultParts::hand_out(referralsp, parts.referrals);
        ResultParts::hand_out(serverctrlsp, parts.controls);
    }
    return rc;
}

int ldap_parse_result(LDAP *ld, LDAPMessage *res, int *errcodep, char **matcheddnp, char **errmsgp,
                      char ***referralsp, LDAPControl ***serverctrlsp, int freeit)
{
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return LDAP_PARAM_ERROR;
    return ldap_parse_result_direct(ld, res, errcodep, matcheddnp, errmsgp, referralsp, serverctrlsp, freeit);
}
