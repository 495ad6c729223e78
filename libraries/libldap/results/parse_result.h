// parse_result.h - reading the parts of a response handed out by
// ldap_result: the LDAPResult of the response that ends a chain, a bind
// response's server SASL credentials, and an extended response's name,
// value and controls. Every out-pointer may be NULL when that part is not
// wanted; freeit 1 releases the message whatever the outcome.
#ifndef ZLDAP_PARSE_RESULT_H
#define ZLDAP_PARSE_RESULT_H

#include "core/ldap_session.h"
#include "zor8ldap_api.h"

// Unguarded forms for callers already inside an operation.
int ldap_parse_result_direct(LDAP *ld, LDAPMessage *res, int *errcodep, char **matcheddnp, char **errmsgp,
                             char ***referralsp, LDAPControl ***serverctrlsp, int freeit);
int ldap_parse_sasl_bind_result_direct(LDAP *ld, LDAPMessage *res, struct berval **servercredp, int freeit);
int ldap_parse_extended_result_direct(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap,
                                      LDAPControl ***serverctrlsp, int freeit);

#endif
