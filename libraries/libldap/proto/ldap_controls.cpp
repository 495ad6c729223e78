// ldap_controls.cpp - control lists: deep copies, releases, counting,
// creating and adding controls, removing one, merging two lists. A list is
// a NULL-terminated array of control pointers; NULL and an array whose first
// entry is NULL are both empty.
#include "proto/ldap_controls.h"

#include "base/memory.h"
#include "base/trace.h"

#include <cstdint>
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

void ldap_free_empty_control_list(LDAPControl ***ctrls)
{
    if (!ctrls || !*ctrls) {
        LDAP_TRACE(TRC_API, "ldap_free_empty_control_list: called with NULL free, skipping ctrl(%p)\n",
                   static_cast<void *>(ctrls));
        return;
    }
    zldap::mem_free(*ctrls);
    *ctrls = nullptr;
}

int ldap_merge_control_lists(LDAPControl ***dest_ctrls, LDAPControl **input_ctrls)
{
    int input_count = ldap_count_controls(input_ctrls);
    if (!dest_ctrls || input_count == 0)
        return LDAP_SUCCESS;
    LDAP_TRACE(TRC_API,
               "ldap_merge_control_lists: dest_ctrls(%p), *dest_ctrls(%p), input_ctrls(%p), *input_ctrls(%p)\n",
               static_cast<void *>(dest_ctrls), static_cast<void *>(*dest_ctrls),
               static_cast<void *>(input_ctrls), static_cast<void *>(input_ctrls[0]));
    int dest_count = ldap_count_controls(*dest_ctrls);
    auto **merged = static_cast<LDAPControl **>(
        zldap::mem_calloc(static_cast<size_t>(input_count) + dest_count + 1, sizeof(LDAPControl *)));
    if (!merged) {
        LDAP_TRACE(TRC_ERROR, "ldap_merge_control_lists: no memory for the merged list\n");
        return LDAP_NO_MEMORY;
    }
    std::memcpy(merged, input_ctrls, input_count * sizeof(LDAPControl *));
    if (dest_count)
        std::memcpy(merged + input_count, *dest_ctrls, dest_count * sizeof(LDAPControl *));
    // The controls now belong to the merged array; only the arrays go.
    zldap::mem_free(input_ctrls);
    zldap::mem_free(*dest_ctrls);
    *dest_ctrls = merged;
    return LDAP_SUCCESS;
}

int ldap_create_control(const char *oid, ber_len_t len, const char *value, int iscritical,
                        LDAPControl **ctrlp)
{
    if (ctrlp)
        *ctrlp = nullptr;
    // Values longer than a signed 32-bit length could be neither copied by
    // ldap_copy_controls nor written into a request.
    if (!oid || !ctrlp || (len > 0 && !value) || len > static_cast<ber_len_t>(INT32_MAX)) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_control: Bad parameters oid(%p) len(%lu) value(%p) ctrlp(%p)\n",
                   static_cast<const void *>(oid), static_cast<unsigned long>(len),
                   static_cast<const void *>(value), static_cast<void *>(ctrlp));
        return LDAP_PARAM_ERROR;
    }
    auto *ctrl = static_cast<LDAPControl *>(zldap::mem_calloc(1, sizeof(LDAPControl)));
    if (!ctrl)
        return LDAP_NO_MEMORY;
    ctrl->ldctl_oid = zldap::mem_strdup(oid);
    if (!ctrl->ldctl_oid) {
        zldap::mem_free(ctrl);
        return LDAP_NO_MEMORY;
    }
    ctrl->ldctl_iscritical = iscritical;
    if (len > 0) {
        ctrl->ldctl_value.bv_val = static_cast<char *>(zldap::mem_malloc(len + 1));
        if (!ctrl->ldctl_value.bv_val) {
            ldap_control_free(ctrl);
            return LDAP_NO_MEMORY;
        }
        std::memcpy(ctrl->ldctl_value.bv_val, value, len);
        ctrl->ldctl_value.bv_val[len] = '\0';
        ctrl->ldctl_value.bv_len = len;
    }
    *ctrlp = ctrl;
    return LDAP_SUCCESS;
}

int ldap_add_control(const char *oid, ber_len_t len, const char *value, int iscritical,
                     LDAPControl ***ctrls)
{
    if (!ctrls || (len > 0 && !value)) {
        LDAP_TRACE(TRC_ERROR, "ldap_add_control: Bad parameters ctrls(%p) len(%lu) value(%p)\n",
                   static_cast<void *>(ctrls), static_cast<unsigned long>(len),
                   static_cast<const void *>(value));
        return LDAP_PARAM_ERROR;
    }
    LDAPControl *ctrl = nullptr;
    int rc = ldap_create_control(oid, len, value, iscritical, &ctrl);
    if (rc != LDAP_SUCCESS)
        return rc;
    int count = ldap_count_controls(*ctrls);
    auto **grown = static_cast<LDAPControl **>(
        zldap::mem_calloc(static_cast<size_t>(count) + 2, sizeof(LDAPControl *)));
    if (!grown) {
        ldap_control_free(ctrl);
        return LDAP_NO_MEMORY;
    }
    if (count)
        std::memcpy(grown, *ctrls, count * sizeof(LDAPControl *));
    grown[count] = ctrl;
    zldap::mem_free(*ctrls);
    *ctrls = grown;
    return LDAP_SUCCESS;
}

int ldap_remove_control(LDAPControl *ctrl, LDAPControl ***ctrls, int freeit)
{
    int count = ctrls ? ldap_count_controls(*ctrls) : 0;
    int kept = 0;
    for (int i = 0; i < count; i++)
        if ((*ctrls)[i] != ctrl)
            kept++;
    // A control that is not in the list is not the caller's to have freed
    // here: refusing keeps both the list and the control intact.
    if (!ctrl || kept == count) {
        LDAP_TRACE(TRC_ERROR, "ldap_remove_control: control(%p) not found in ctrls(%p)\n",
                   static_cast<void *>(ctrl), static_cast<void *>(ctrls));
        return LDAP_PARAM_ERROR;
    }
    auto **rest = static_cast<LDAPControl **>(
        zldap::mem_calloc(static_cast<size_t>(kept) + 1, sizeof(LDAPControl *)));
    if (!rest)
        return LDAP_NO_MEMORY;
    // Every occurrence goes: a pointer left behind would dangle once the
    // control is freed.
    for (int i = 0, j = 0; i < count; i++)
        if ((*ctrls)[i] != ctrl)
            rest[j++] = (*ctrls)[i];
    zldap::mem_free(*ctrls);
    *ctrls = rest;
    if (freeit)
        ldap_control_free(ctrl);
    return LDAP_SUCCESS;
}
