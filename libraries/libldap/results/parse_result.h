// parse_result.h - reading the parts of a response handed out by
// ldap_result: the LDAPResult of the response that ends a chain, a bind
// response's server SASL credentials, and an extended response's name,
// value and controls. Every out-pointer may be NULL when that part is not
// wanted; freeit 1 releases the message whatever the outcome.
#ifndef ZLDAP_PARSE_RESULT_H
#define ZLDAP_PARSE_RESULT_H

#include "core/ldap_session.h"

extern "C" {

// The result code, matched DN, diagnostic message, referral URLs (code 10
// only) and controls of the first message of the chain that is neither an
// entry nor a reference. The message is read from a copy of its element,
// so it can be parsed again. 0 with every part handed out; 1 when the chain
// has no such message; 84 when it is malformed; 90; 89 when the operation
// cannot start. On failure the out-pointers are NULL and *errcodep is left
// alone.
int ldap_parse_result(LDAP *ld, LDAPMessage *res, int *errcodep, char **matcheddnp, char **errmsgp,
                      char ***referralsp, LDAPControl ***serverctrlsp, int freeit);

// The server SASL credentials of a bind response (tag 0x87; NULL when the
// server sent none). The response's result code (14 while the exchange goes
// on), 84 for a malformed response with code 0, 90, or 89 for a message
// that is not a bind response (not released then).
int ldap_parse_sasl_bind_result(LDAP *ld, LDAPMessage *res, struct berval **servercredp, int freeit);

// The response name and value of an extended response, handed out only
// when its result code is 0 (absent parts leave their out-pointers as they
// were). Reads the message's own element, so a second parse of the same
// message fails. The result code; -1 when the LDAPResult cannot be
// decoded; 84 or 90 from the controls; 89 for a message that is not an
// extended response (not released then, the thread's error left 0).
int ldap_parse_extended_result(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap,
                               int freeit);
// The same, handing out the response controls as well.
int ldap_parse_extended_result_ext(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap,
                                   LDAPControl ***serverctrlsp, int freeit);
}

// Unguarded forms for callers already inside an operation.
int ldap_parse_result_direct(LDAP *ld, LDAPMessage *res, int *errcodep, char **matcheddnp, char **errmsgp,
                             char ***referralsp, LDAPControl ***serverctrlsp, int freeit);
int ldap_parse_sasl_bind_result_direct(LDAP *ld, LDAPMessage *res, struct berval **servercredp, int freeit);
int ldap_parse_extended_result_direct(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap,
                                      LDAPControl ***serverctrlsp, int freeit);

#endif
