// control_codec.cpp - pieces the control builders and parsers share.
#include "proto/control_codec.h"

#include "base/memory.h"
#include "proto/ldap_controls.h"

#include <cstring>

namespace zldap {

namespace {

// Bytes of a control value read by hand: position and end.
struct HandReader {
    const unsigned char *pos;
    const unsigned char *end;

    bool at_end() const { return pos >= end; }
};

HandReader hand_reader(const struct berval &value)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(value.bv_val);
    return {bytes, bytes + value.bv_len};
}

// Reads a tag octet and a length (below 0x80 the octet itself, otherwise
// its low seven bits count the big-endian octets that follow) and leaves
// pos on the contents, which must lie before end. False otherwise.
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

// The next len octets (at most four) as a big-endian unsigned number.
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

} // namespace

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

int open_control_value(LDAPControl **ctrls, const char *oid, BerOwner *ber)
{
    LDAPControl **found = next_control(ctrls, oid);
    if (!found)
        return LDAP_CONTROL_NOT_FOUND;
    const struct berval &value = (*found)->ldctl_value;
    if (!value.bv_val)
        return LDAP_DECODING_ERROR;
    ber->reset(fber_init2(&value));
    return *ber ? LDAP_SUCCESS : LDAP_NO_MEMORY;
}

int hand_read_number_and_string(const struct berval &value, bool enumerated_too, unsigned long *number,
                                const unsigned char **string, size_t *string_len)
{
    *string = nullptr;
    if (!value.bv_val)
        return LDAP_DECODING_ERROR;
    HandReader r = hand_reader(value);
    unsigned tag;
    size_t len;
    if (!hand_read_header(r, &tag, &len) || tag != 0x30)
        return LDAP_DECODING_ERROR;
    HandReader seq{r.pos, r.pos + len};
    if (!hand_read_header(seq, &tag, &len) || (tag != 0x02 && !(enumerated_too && tag == 0x0A)) ||
        !hand_read_unsigned(seq, len, number))
        return LDAP_DECODING_ERROR;
    if (seq.at_end())
        return LDAP_SUCCESS;
    if (!hand_read_header(seq, &tag, &len) || tag != 0x04)
        return LDAP_DECODING_ERROR;
    *string = seq.pos;
    *string_len = len;
    return LDAP_SUCCESS;
}

} // namespace zldap
