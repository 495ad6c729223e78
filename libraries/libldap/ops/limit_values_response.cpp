// limit_values_response.cpp - the response control of a request that
// limited the number of values returned: the entry's DN and, for each
// attribute that was cut short, its name and the two numbers the server
// reports.
#include "zor8ldap_api.h"

#include "base/memory.h"
#include "ber/lber.h"
#include "core/ldap_init_guard.h"
#include "proto/control_codec.h"

namespace {

int decode_limit_values(BerElement *ber, LDAPLimitNumValuesResponse *out)
{
    if (fber_scanf(ber, "{a", &out->lnvr_dn) == LBER_DEFAULT)
        return LDAP_DECODING_ERROR;
    // Each attribute is a SEQUENCE; anything else ends the list.
    while (fber_peek_tag(ber, nullptr) == 0x30) {
        auto *attr = static_cast<LDAPLimitNumValuesAttr *>(zldap::mem_calloc(1, sizeof(LDAPLimitNumValuesAttr)));
        if (!attr)
            return LDAP_NO_MEMORY;
        attr->lnva_next = out->lnvr_attrs;
        out->lnvr_attrs = attr;
        if (fber_scanf(ber, "{aii}", &attr->lnva_attr, &attr->lnva_first, &attr->lnva_second) ==
            LBER_DEFAULT)
            return LDAP_DECODING_ERROR;
    }
    return LDAP_SUCCESS;
}

} // namespace

int ldap_parse_limit_num_values_response(LDAP *ld, LDAPControl **ctrls, LDAPLimitNumValuesResponse **response)
{
    if (response)
        *response = nullptr;
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return op.code();
    if (!ctrls || !response)
        return LDAP_PARAM_ERROR;
    zldap::BerOwner ber;
    int rc = zldap::open_control_value(ctrls, LDAP_CONTROL_LIMIT_NUM_VALUES, &ber);
    if (rc != LDAP_SUCCESS)
        return rc;
    auto *out = static_cast<LDAPLimitNumValuesResponse *>(zldap::mem_calloc(1, sizeof(LDAPLimitNumValuesResponse)));
    if (!out)
        return LDAP_NO_MEMORY;
    rc = decode_limit_values(ber.get(), out);
    if (rc != LDAP_SUCCESS) {
        ldap_free_limit_num_values_response(out);
        return rc;
    }
    *response = out;
    return LDAP_SUCCESS;
}

void ldap_free_limit_num_values_response(LDAPLimitNumValuesResponse *response)
{
    if (!response)
        return;
    for (LDAPLimitNumValuesAttr *a = response->lnvr_attrs; a;) {
        LDAPLimitNumValuesAttr *next = a->lnva_next;
        zldap::mem_free(a->lnva_attr);
        zldap::mem_free(a);
        a = next;
    }
    zldap::mem_free(response->lnvr_dn);
    zldap::mem_free(response);
}
