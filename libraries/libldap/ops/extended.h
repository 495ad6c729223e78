// extended.h - the generic extended operation: a request name with an
// optional value, answered by an extended response. The published forms
// (and the transactions and backup operations built on them) are declared
// in zor8ldap_api.h.
#ifndef ZLDAP_EXTENDED_H
#define ZLDAP_EXTENDED_H

#include "core/ldap_session.h"
#include "zor8ldap_api.h"

// Encodes and sends on lc (NULL: the calling thread's default connection).
// Client controls have been settled by the caller. 0 with *msgidp set, or
// a result code.
int ldap_extended_operation_direct(LDAP *ld, const char *requestoid, const struct berval *requestdata,
                                   LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp,
                                   LDAPConn *lc);

// ldap_extended_operation_s for callers that want only the result code:
// the response name and value are read and released.
int ldap_extended_operation_code(LDAP *ld, const char *requestoid, const struct berval *requestdata,
                                 LDAPControl **serverctrls, LDAPControl **clientctrls);

#endif
