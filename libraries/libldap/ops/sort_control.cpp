// sort_control.cpp - the server-side sort request control and the parser
// of its response. Both run inside the operation guard and leave their
// result as the calling thread's error on the handle.
#include "zor8ldap_api.h"

#include "base/memory.h"
#include "base/trace.h"
#include "ber/lber.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "proto/control_codec.h"

namespace {

int encode_sort_keys(BerElement *ber, LDAPsortkey **keys)
{
    if (fber_printf(ber, "{") != 0)
        return -1;
    for (LDAPsortkey **k = keys; *k; k++) {
        if (fber_printf(ber, "{s", (*k)->sk_attrtype) != 0)
            return -1;
        if ((*k)->sk_matchruleoid && fber_printf(ber, "ts", ber_tag_t{0x80}, (*k)->sk_matchruleoid) != 0)
            return -1;
        if ((*k)->sk_reverseorder == 1 && fber_printf(ber, "tb", ber_tag_t{0x81}, 1) != 0)
            return -1;
        if (fber_printf(ber, "}") != 0)
            return -1;
    }
    return fber_printf(ber, "}");
}

bool keys_have_types(LDAPsortkey **keys)
{
    for (LDAPsortkey **k = keys; *k; k++)
        if (!(*k)->sk_attrtype)
            return false;
    return true;
}

int build_sort_control(LDAPsortkey **keys, char iscritical, LDAPControl **ctrlp)
{
    if (!keys || !ctrlp || !keys_have_types(keys))
        return LDAP_PARAM_ERROR;
    zldap::BerOwner ber(fber_alloc());
    if (!ber)
        return LDAP_NO_MEMORY;
    if (encode_sort_keys(ber.get(), keys) != 0)
        return LDAP_ENCODING_ERROR;
    int rc = zldap::control_from_ber(ber.get(), LDAP_CONTROL_SORTREQUEST, iscritical == 'T', ctrlp);
    if (rc == LDAP_ENCODING_ERROR)
        LDAP_TRACE(TRC_ERROR, "Error: ber_flatten failed for sortkey (NULL)\n");
    return rc;
}

// One sort response value: SEQUENCE { result, attribute type if any }.
int decode_sort_value(const struct berval &value, unsigned long *result, char **attribute)
{
    const unsigned char *type;
    size_t len;
    int rc = zldap::hand_read_number_and_string(value, true, result, &type, &len);
    if (rc != LDAP_SUCCESS || !type || !attribute)
        return rc;
    *attribute = zldap::mem_strndup(reinterpret_cast<const char *>(type), len);
    return *attribute ? LDAP_SUCCESS : LDAP_NO_MEMORY;
}

int parse_sort_control(LDAPControl **ctrls, unsigned long *result, char **attribute)
{
    if (!ctrls || !result)
        return LDAP_PARAM_ERROR;
    int rc = LDAP_CONTROL_NOT_FOUND;
    // Every matching control is read, so the last one decides.
    for (LDAPControl **c = zldap::next_control(ctrls, LDAP_CONTROL_SORTRESPONSE); c;
         c = zldap::next_control(c + 1, LDAP_CONTROL_SORTRESPONSE)) {
        if (attribute) {
            zldap::mem_free(*attribute);
            *attribute = nullptr;
        }
        rc = decode_sort_value((*c)->ldctl_value, result, attribute);
        if (rc != LDAP_SUCCESS)
            break;
    }
    return rc;
}

} // namespace

int ldap_create_sort_control(LDAP *ld, LDAPsortkey **keys, char iscritical, LDAPControl **ctrlp)
{
    if (ctrlp)
        *ctrlp = nullptr;
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return op.code();
    int rc = build_sort_control(keys, iscritical, ctrlp);
    ldap_set_error_direct(ld, rc, nullptr, nullptr);
    return rc;
}

int ldap_parse_sort_control(LDAP *ld, LDAPControl **ctrls, unsigned long *result, char **attribute)
{
    if (attribute)
        *attribute = nullptr;
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return op.code();
    int rc = parse_sort_control(ctrls, result, attribute);
    ldap_set_error_direct(ld, rc, nullptr, nullptr);
    return rc;
}
