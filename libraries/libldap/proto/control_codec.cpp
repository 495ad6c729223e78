// control_codec.cpp - pieces the control builders and parsers share.
#include "proto/control_codec.h"

#include "base/memory.h"
#include "proto/ldap_controls.h"

#include <cstring>

namespace zldap {

void control_take_value(LDAPControl *ctrl, struct berval *value)
{
    if (value->bv_len > 0) {
        ctrl->ldctl_value = *value;
    } else {
        mem_free(value->bv_val);
    }
    mem_free(value);
}

int control_from_ber(BerElement *ber, const char *oid, int iscritical, LDAPControl **ctrlp)
{
    struct berval *value = nullptr;
    if (fber_flatten(ber, &value) != 0)
        return LDAP_ENCODING_ERROR;
    // A control without a value, which then receives the flattened bytes
    // as they are: no second copy.
    int rc = ldap_create_control(oid, 0, nullptr, iscritical, ctrlp);
    if (rc != LDAP_SUCCESS) {
        ber_bvfree(value);
        return rc;
    }
    control_take_value(*ctrlp, value);
    return LDAP_SUCCESS;
}

LDAPControl **next_control(LDAPControl **from, const char *oid)
{
    for (LDAPControl **c = from; c && *c; c++)
        if ((*c)->ldctl_oid && std::strcmp((*c)->ldctl_oid, oid) == 0)
            return c;
    return nullptr;
}

bool hand_read_header(HandReader &r, unsigned *tag, size_t *len)
{
    if (r.end - r.pos < 2)
        return false;
    *tag = *r.pos++;
    unsigned first = *r.pos++;
    size_t length = first;
    if (first & 0x80) {
        size_t count = first & 0x7F;
        if (count > sizeof(size_t) || count > static_cast<size_t>(r.end - r.pos))
            return false;
        length = 0;
        while (count--)
            length = (length << 8) | *r.pos++;
    }
    if (length > static_cast<size_t>(r.end - r.pos))
        return false;
    *len = length;
    return true;
}

bool hand_read_unsigned(HandReader &r, size_t len, unsigned long *value)
{
    if (len > 4 || len > static_cast<size_t>(r.end - r.pos))
        return false;
    unsigned long v = 0;
    while (len--)
        v = (v << 8) | *r.pos++;
    *value = v;
    return true;
}

} // namespace zldap
