// ldap_controls.cpp - deep copies and releases of control lists. A list is
// a NULL-terminated array of control pointers; NULL and an array whose first
// entry is NULL are both empty.
#include "ldap_controls.h"

#include "memory.h"
#include "trace.h"

#include <cstring>

#define LDAP_MODULE "libraries/libldap/ldap_controls"

namespace {

// A new control holding copies of ctrl's OID and value bytes; NULL when
// memory runs out.
LDAPControl *copy_control(const LDAPControl *ctrl)
{
    auto *copy = static_cast<LDAPControl *>(zldap::mem_calloc(1, sizeof(LDAPControl)));
    if (!copy)
        return nullptr;
    copy->ldctl_iscritical = ctrl->ldctl_iscritical;
    copy->ldctl_value.bv_len = ctrl->ldctl_value.bv_len;
    copy->ldctl_oid = zldap::mem_strdup(ctrl->ldctl_oid);
    if (!copy->ldctl_oid) {
        zldap::mem_free(copy);
        return nullptr;
    }
    size_t len = ctrl->ldctl_value.bv_len;
    if (len > 0 && ctrl->ldctl_value.bv_val) {
        copy->ldctl_value.bv_val = static_cast<char *>(zldap::mem_malloc(len));
        if (!copy->ldctl_value.bv_val) {
            ldap_control_free(copy);
            return nullptr;
        }
        std::memcpy(copy->ldctl_value.bv_val, ctrl->ldctl_value.bv_val, len);
    }
    return copy;
}

} // namespace

int ldap_count_controls(LDAPControl **ctrls)
{
    int n = 0;
    while (ctrls && ctrls[n])
        n++;
    return n;
}

int ldap_copy_controls(LDAPControl ***to_here, LDAPControl **from)
{
    LDAP_TRACE(TRC_API, "ldap_copy_controls\n");
    if (!to_here) {
        LDAP_TRACE(TRC_ERROR, "ldap_copy_controls: Invalid input to_here(%x)\n", 0u);
        return LDAP_PARAM_ERROR;
    }
    *to_here = nullptr;
    int count = ldap_count_controls(from);
    if (count == 0)
        return LDAP_SUCCESS;

    for (int i = 0; i < count; i++) {
        if (!from[i]->ldctl_oid) {
            LDAP_TRACE(TRC_ERROR, "ldap_copy_controls: OID is missing in control\n");
            return LDAP_PARAM_ERROR;
        }
        if (static_cast<int32_t>(from[i]->ldctl_value.bv_len) < 0) {
            LDAP_TRACE(TRC_ERROR, "ldap_copy_controls: length of value can't be less than 0\n");
            return LDAP_PARAM_ERROR;
        }
    }
    auto **copy = static_cast<LDAPControl **>(zldap::mem_calloc(count + 1, sizeof(LDAPControl *)));
    if (!copy)
        return LDAP_NO_MEMORY;
    for (int i = 0; i < count; i++) {
        copy[i] = copy_control(from[i]);
        if (!copy[i]) {
            ldap_controls_free(copy);
            return LDAP_NO_MEMORY;
        }
    }
    *to_here = copy;
    return LDAP_SUCCESS;
}

void ldap_control_free(LDAPControl *ctrl)
{
    LDAP_TRACE(TRC_API, "ldap_control_free: (%p)\n", static_cast<void *>(ctrl));
    if (!ctrl)
        return;
    zldap::mem_free(ctrl->ldctl_oid);
    zldap::mem_free(ctrl->ldctl_value.bv_val);
    zldap::mem_free(ctrl);
}

void ldap_controls_free(LDAPControl **ctrls)
{
    if (!ctrls)
        return;
    for (LDAPControl **c = ctrls; *c; c++)
        ldap_control_free(*c);
    zldap::mem_free(ctrls);
}
