// result_fields.h - handle-free readers of the parts of a response: the
// result code, matched DN and diagnostic message of its LDAPResult, the
// referral URLs, the optional fields a bind or an extended response adds,
// and the Controls that follow the protocol operation.
//
//   LDAPResult ::= SEQUENCE { resultCode ENUMERATED, matchedDN LDAPDN,
//                             diagnosticMessage LDAPString,
//                             referral [3] Referral OPTIONAL }     tag 0xA3
//   a bind response adds     serverSaslCreds [7] OCTET STRING     tag 0x87
//   an extended one adds     responseName [10] LDAPOID            tag 0x8A
//                            responseValue [11] OCTET STRING      tag 0x8B
#ifndef ZLDAP_RESULT_FIELDS_H
#define ZLDAP_RESULT_FIELDS_H

#include "ber/lber.h"

namespace zldap {

inline constexpr ber_tag_t kTagReferral = 0xA3;
inline constexpr ber_tag_t kTagSaslCredentials = 0x87;
inline constexpr ber_tag_t kTagResponseName = 0x8A;
inline constexpr ber_tag_t kTagResponseValue = 0x8B;

// Reads one response's protocol operation field by field, in wire order,
// from the element it is given, moving that element's position. A reader
// that must leave a message unread gives it a copy of the message's
// element record.
//
// Each read returns 0, LDAP_DECODING_ERROR (84) for bytes that are not the
// field (every field must lie wholly inside the operation), or
// LDAP_NO_MEMORY (90) when a well-formed field could not be copied. A read
// that fails hands nothing out. A NULL out-pointer checks the field and
// skips it without copying anything.
class ResultReader {
public:
    explicit ResultReader(BerElement *ber) : ber_(ber) {}

    // "{iaa": enters the operation and reads the result code, the matched
    // DN and the diagnostic message. *code is set as soon as it is read, so
    // a caller still has the code when a later field fails. With `empty`,
    // an empty matched DN or message comes back as that pointer instead of
    // a new empty string.
    int head(int *code, char **matched, char **text, char *empty = nullptr);
    // The referral URLs ("{v}") when a referral field comes next, as a new
    // NULL-terminated array (NULL for an empty one); without the field
    // *urls is left alone. Call after head().
    int referrals(char ***urls);
    // An optional field with this tag when it comes next, as a new string
    // or a new berval; without the field the out-pointer is left alone.
    int optional_string(ber_tag_t tag, char **value);
    int optional_octets(ber_tag_t tag, struct berval **value);
    // The Controls after the operation (get_ctrls_from_ber), whatever part
    // of the operation is still unread: a new list, or NULL when there are
    // none. Call after a successful head().
    int controls(LDAPControl ***ctrls);
    // Moves the position to the end of the element: a later reader of the
    // same element finds nothing.
    void consume();

private:
    bool next_is(ber_tag_t tag);

    BerElement *ber_;
    const char *op_end_ = nullptr; // end of the operation's contents, once entered
};

} // namespace zldap

#endif
