// vendor_controls.cpp - request controls handed back directly, NULL on
// failure with the reason in the trace: group authorisation (from bytes or
// from a list of group DNs), chaining audit and transaction membership.
#include "zor8ldap_api.h"

#include "base/memory.h"
#include "base/trace.h"
#include "ber/lber.h"
#include "proto/control_codec.h"
#include "proto/ldap_controls.h"

#include <cstdarg>
#include <cstring>

namespace {

// A zeroed control: 0, or 90.
int alloc_control(LDAPControl **ctrlp)
{
    *ctrlp = static_cast<LDAPControl *>(zldap::mem_calloc(1, sizeof(LDAPControl)));
    return *ctrlp ? LDAP_SUCCESS : LDAP_NO_MEMORY;
}

// What ber holds, flattened; NULL when the encoding or the copy fails.
struct berval *encode(BerElement *ber, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = vfber_printf(ber, fmt, ap, -1);
    va_end(ap);
    struct berval *value = nullptr;
    if (rc != 0 || fber_flatten(ber, &value) != 0)
        return nullptr;
    return value;
}

} // namespace

LDAPControl *ldap_create_group_control(struct berval *value)
{
    if (!value || (value->bv_len > 0 && !value->bv_val))
        return nullptr;
    LDAPControl *ctrl;
    int rc = alloc_control(&ctrl);
    if (rc != LDAP_SUCCESS) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_group_control: failed in ldap_alloc_control. rc=%i.\n", rc);
        return nullptr;
    }
    ctrl->ldctl_iscritical = 1;
    ctrl->ldctl_oid = zldap::mem_strdup(LDAP_CONTROL_GROUP);
    if (!ctrl->ldctl_oid) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_group_control: failed to copy the oid.\n");
        ldap_control_free(ctrl);
        return nullptr;
    }
    if (value->bv_len > 0) {
        ctrl->ldctl_value.bv_val = static_cast<char *>(zldap::mem_malloc(value->bv_len + 1));
        if (!ctrl->ldctl_value.bv_val) {
            LDAP_TRACE(TRC_ERROR, "ldap_create_group_control: failed to allocate space for the bv_val.\n");
            ldap_control_free(ctrl);
            return nullptr;
        }
        std::memcpy(ctrl->ldctl_value.bv_val, value->bv_val, value->bv_len);
        ctrl->ldctl_value.bv_val[value->bv_len] = '\0';
        ctrl->ldctl_value.bv_len = value->bv_len;
    }
    return ctrl;
}

LDAPControl *ldap_create_group_control_from_list(char **groups, int kind)
{
    if (kind != 0 && kind != 1)
        return nullptr;
    LDAPControl *ctrl;
    int rc = alloc_control(&ctrl);
    if (rc != LDAP_SUCCESS) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_group_control_from_list: failed in ldap_alloc_control. rc=%i.\n", rc);
        return nullptr;
    }
    ctrl->ldctl_iscritical = 1;
    zldap::BerOwner ber(fber_alloc());
    if (!ber) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_group_control_from_list: failed in fber_alloc.\n");
        ldap_control_free(ctrl);
        return nullptr;
    }
    ctrl->ldctl_oid = zldap::mem_strdup(LDAP_CONTROL_GROUP);
    struct berval *value = ctrl->ldctl_oid ? encode(ber.get(), "{e{v}}", kind, groups) : nullptr;
    if (!value) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_group_contol_from_list: failed to allocate memory\n");
        ldap_control_free(ctrl);
        return nullptr;
    }
    zldap::control_take_value(ctrl, value);
    return ctrl;
}

LDAPControl *ldap_create_chaining_audit_control(char **list, const char *text, int iscritical)
{
    if (!list || !text)
        return nullptr;
    LDAPControl *ctrl;
    int rc = alloc_control(&ctrl);
    if (rc != LDAP_SUCCESS) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_chaining_audit_control: ldap_alloc_control failed: rc=%i.\n", rc);
        return nullptr;
    }
    ctrl->ldctl_iscritical = iscritical != 0 ? 1 : 0;
    ctrl->ldctl_oid = zldap::mem_strdup(LDAP_CONTROL_CHAINING_AUDIT);
    if (!ctrl->ldctl_oid) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_chaining_audit_control: failed to copy the control oid.\n");
        ldap_control_free(ctrl);
        return nullptr;
    }
    zldap::BerOwner ber(fber_alloc());
    if (!ber) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_chaining_audit_control: failed in fber_alloc.\n");
        ldap_control_free(ctrl);
        return nullptr;
    }
    struct berval *value = encode(ber.get(), "{{v}s}", list, text);
    if (!value) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_chaining_audit_control: failed in fber_printf.\n");
        ldap_control_free(ctrl);
        return nullptr;
    }
    zldap::control_take_value(ctrl, value);
    return ctrl;
}

LDAPControl *ldap_create_transaction_control(const char *tran_id)
{
    if (!tran_id)
        return nullptr;
    LDAPControl *ctrl;
    int rc = alloc_control(&ctrl);
    if (rc != LDAP_SUCCESS) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_transaction_control: ldap_alloc_control failed: rc=%i.\n", rc);
        return nullptr;
    }
    ctrl->ldctl_iscritical = 1;
    ctrl->ldctl_oid = zldap::mem_strdup(LDAP_CONTROL_TRANSACTION);
    if (!ctrl->ldctl_oid) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_transaction_control: failed to copy the control oid.\n");
        ldap_control_free(ctrl);
        return nullptr;
    }
    ctrl->ldctl_value.bv_val = zldap::mem_strdup(tran_id);
    if (!ctrl->ldctl_value.bv_val) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_transaction_control: failed to strdup the id.\n");
        ldap_control_free(ctrl);
        return nullptr;
    }
    ctrl->ldctl_value.bv_len = std::strlen(tran_id);
    return ctrl;
}
