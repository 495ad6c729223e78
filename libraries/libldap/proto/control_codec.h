// control_codec.h - pieces the control builders and parsers share: turning
// an encoded element into a control, finding response controls by OID and
// reading the headers of a control value by hand.
#ifndef ZLDAP_CONTROL_CODEC_H
#define ZLDAP_CONTROL_CODEC_H

#include "ber/lber.h"

#include <cstddef>
#include <memory>

namespace zldap {

struct BerFree {
    void operator()(BerElement *ber) const { fber_free(ber); }
};
// An element released when it goes out of scope.
using BerOwner = std::unique_ptr<BerElement, BerFree>;

// Moves *value (a flattened value: bytes and a NUL) into ctrl and releases
// the berval record; an empty value leaves the control without one.
void control_take_value(LDAPControl *ctrl, struct berval *value);

// A new control of oid whose value is what ber has encoded. 0; 83 when the
// value cannot be flattened; 90 when the control cannot be made. The
// caller still releases ber.
int control_from_ber(BerElement *ber, const char *oid, int iscritical, LDAPControl **ctrlp);

// The next slot, from `from` on, of a control whose OID is exactly oid;
// NULL when there is none.
LDAPControl **next_control(LDAPControl **from, const char *oid);

// Bytes of a control value read by hand: position and end.
struct HandReader {
    const unsigned char *pos;
    const unsigned char *end;

    bool at_end() const { return pos >= end; }
};

inline HandReader hand_reader(const struct berval &value)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(value.bv_val);
    return {bytes, bytes + value.bv_len};
}

// Reads a tag octet and a length (below 0x80 the octet itself, otherwise
// its low seven bits count the big-endian octets that follow) and leaves
// pos on the contents, which must lie before end. False otherwise.
bool hand_read_header(HandReader &r, unsigned *tag, size_t *len);
// The next len octets (at most four) as a big-endian unsigned number.
bool hand_read_unsigned(HandReader &r, size_t len, unsigned long *value);

} // namespace zldap

#endif
