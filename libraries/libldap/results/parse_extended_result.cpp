// parse_extended_result.cpp - ldap_parse_extended_result and its form with
// controls: an extended response's result code, and, when that is 0, its
// response name and value and the controls after it. The message's own
// element is read and left consumed, so a message is parsed once.
#include "results/parse_result.h"

#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "message/ldap_message.h"
#include "proto/ldap_controls.h"
#include "proto/result_fields.h"
#include "results/results.h"

namespace {

// What one parse decoded, released unless handed out.
struct ExtendedParts {
    char *name = nullptr;
    struct berval *value = nullptr;
    LDAPControl **controls = nullptr;

    ExtendedParts() = default;
    ExtendedParts(const ExtendedParts &) = delete;
    ExtendedParts &operator=(const ExtendedParts &) = delete;
    ~ExtendedParts()
    {
        zldap::mem_free(name);
        ber_bvfree(value);
        ldap_controls_free(controls);
    }
};

// The parts a successful response may carry. A response name or value that
// cannot be decoded is no error (the caller has none); the controls are
// read only after everything before them was. 0, 84 or 90.
int decode_optional_parts(zldap::ResultReader &reader, ExtendedParts &parts, char **resultoidp,
                          struct berval **resultdatap, LDAPControl ***serverctrlsp)
{
    int rc = reader.optional_string(zldap::kTagResponseName, resultoidp ? &parts.name : nullptr);
    if (rc == LDAP_DECODING_ERROR) {
        LDAP_TRACE(TRC_API, "ldap_parse_extended_result_direct: No optional oid returned\n");
        return LDAP_SUCCESS;
    }
    if (rc == LDAP_SUCCESS)
        rc = reader.optional_octets(zldap::kTagResponseValue, resultdatap ? &parts.value : nullptr);
    if (rc == LDAP_DECODING_ERROR) {
        LDAP_TRACE(TRC_API, "ldap_parse_extended_result_direct: No optional data returned\n");
        return LDAP_SUCCESS;
    }
    if (rc == LDAP_SUCCESS && serverctrlsp)
        rc = reader.controls(&parts.controls);
    return rc;
}

// The outcome: the response's result code, -1 (what the decoder reports)
// when its LDAPResult cannot be read, or the failure of a later part.
int decode(LDAPMessage *res, ExtendedParts &parts, char **resultoidp, struct berval **resultdatap,
           LDAPControl ***serverctrlsp)
{
    zldap::ResultReader reader(res->msg_ber);
    int code = 0;
    int rc = reader.head(&code, nullptr, nullptr);
    if (rc == LDAP_DECODING_ERROR)
        rc = -1;
    else if (rc == LDAP_SUCCESS)
        rc = code != LDAP_SUCCESS ? code : decode_optional_parts(reader, parts, resultoidp, resultdatap, serverctrlsp);
    reader.consume();
    return rc;
}

int parse_extended(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap,
                   LDAPControl ***serverctrlsp, int freeit)
{
    LDAP_TRACE(TRC_API, "ldap_parse_extended_result: ld(%p), res(%p), resultoidp(%p), resultdata(%p), freeit(%d)\n",
               static_cast<void *>(ld), static_cast<void *>(res), static_cast<void *>(resultoidp),
               static_cast<void *>(resultdatap), freeit);
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (!op.admitted())
        return LDAP_PARAM_ERROR;
    return ldap_parse_extended_result_direct(ld, res, resultoidp, resultdatap, serverctrlsp, freeit);
}

} // namespace

int ldap_parse_extended_result_direct(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap,
                                      LDAPControl ***serverctrlsp, int freeit)
{
    if (serverctrlsp)
        *serverctrlsp = nullptr;
    ldap_set_error_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    if (!res || res->msg_type != LDAP_RES_EXTENDED)
        return LDAP_PARAM_ERROR;

    ExtendedParts parts;
    int rc = decode(res, parts, resultoidp, resultdatap, serverctrlsp);
    if (freeit)
        ldap_msgfree_direct(res);
    if (rc == LDAP_SUCCESS) {
        // Parts the response did not carry leave their out-pointers alone.
        if (parts.name) {
            *resultoidp = parts.name;
            parts.name = nullptr;
        }
        if (parts.value) {
            *resultdatap = parts.value;
            parts.value = nullptr;
        }
        if (serverctrlsp) {
            *serverctrlsp = parts.controls;
            parts.controls = nullptr;
        }
    }
    ldap_set_error_direct(ld, rc, nullptr, nullptr);
    return rc;
}

int ldap_parse_extended_result(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap,
                               int freeit)
{
    return parse_extended(ld, res, resultoidp, resultdatap, nullptr, freeit);
}

int ldap_parse_extended_result_ext(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap,
                                   LDAPControl ***serverctrlsp, int freeit)
{
    return parse_extended(ld, res, resultoidp, resultdatap, serverctrlsp, freeit);
}
