// control_codec.h - pieces the control builders and parsers share: turning
// an encoded element into a control, finding response controls by OID and
// opening their values, and reading a control value by hand.
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

// The value of the first control in ctrls whose OID is oid, opened for
// reading into *ber. 0; 93 when there is no such control, 84 when it has no
// value, 90 when the element cannot be made.
int open_control_value(LDAPControl **ctrls, const char *oid, BerOwner *ber);

// A response value SEQUENCE { INTEGER (or ENUMERATED where
// enumerated_too), OCTET STRING OPTIONAL } read by hand: *number is stored
// as soon as it is read; *string points into value at the octet string's
// contents, *string_len octets, and stays NULL when there is none.
// 0; 84 when the value is missing or malformed.
int hand_read_number_and_string(const struct berval &value, bool enumerated_too, unsigned long *number,
                                const unsigned char **string, size_t *string_len);

} // namespace zldap

#endif
