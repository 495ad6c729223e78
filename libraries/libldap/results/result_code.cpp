// result_code.cpp - ldap_result2error: the result code, matched DN and text
// of a result chain's final response, recorded as the thread's error.
#include "results/results.h"

#include "base/trace.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "message/ldap_message.h"
#include "proto/result_fields.h"

namespace {

// The last message of a chain as the chain walk sees it: a message handed
// out alone is a chain of one.
LDAPMessage *last_of_chain(LDAPMessage *msg)
{
    while (!(msg->msg_flags & LDAP_MSGFLAG_ALONE) && msg->msg_next)
        msg = msg->msg_next;
    return msg;
}

// Reads the code, matched DN and text from a copy of the element record,
// so that the message's own read position stays where the caller may
// still want it, and hands them to the thread's error record. A text that is
// present but cannot be copied for want of memory is dropped rather than
// turning the server's code into another.
int read_result_code(LDAP *ld, const BerElement *ber)
{
    BerElement reader = *ber;
    int code = 0;
    char *matched = nullptr;
    char *text = nullptr;
    int rc = zldap::ResultReader(&reader).head(&code, &matched, &text, ldap_empty_text());
    if (rc != LDAP_DECODING_ERROR)
        rc = code;
    ldap_set_error_taking(ld, rc, matched, text);
    return rc;
}

} // namespace

int ldap_result2error_direct(LDAP *ld, LDAPMessage *res, int freeit)
{
    if (!res) {
        int code = ldap_get_errno_direct(ld);
        LDAP_TRACE(TRC_API, "ldap_result2error:  errno=%d\n", code);
        return code == 0 ? LDAP_PARAM_ERROR : code;
    }
    int rc;
    LDAPMessage *last = last_of_chain(res);
    if (last->msg_type == LDAP_RES_SEARCH_ENTRY || last->msg_type == LDAP_RES_SEARCH_REFERENCE || !last->msg_ber) {
        rc = LDAP_PARAM_ERROR;
        ldap_set_error_direct(ld, rc, nullptr, nullptr);
    } else {
        rc = read_result_code(ld, last->msg_ber);
    }
    if (freeit)
        ldap_msgfree_direct(res);
    return rc;
}

int ldap_result2error(LDAP *ld, LDAPMessage *res, int freeit)
{
    LDAP_TRACE(TRC_API, "ldap_result2error: ld(%p) res(%p) freeit(%d)\n", static_cast<void *>(ld),
               static_cast<void *>(res), freeit);
    if (!res) {
        int code = ldap_get_errno(ld);
        LDAP_TRACE(TRC_API, "ldap_result2error:  errno=%d\n", code);
        return code == 0 ? LDAP_PARAM_ERROR : code;
    }
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return LDAP_PARAM_ERROR;
    return ldap_result2error_direct(ld, res, freeit);
}

