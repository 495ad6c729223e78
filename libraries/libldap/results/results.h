// results.h - walking result chains and releasing them: messages,
// entries, references, DNs, attribute names through a cursor, values,
// and the release functions for everything the walk hands out. The
// published functions are declared (C linkage) in zor8ldap_api.h; the
// unguarded forms for callers inside an operation are here.
#ifndef ZLDAP_RESULTS_H
#define ZLDAP_RESULTS_H

#include "core/ldap_session.h"
#include "zor8ldap_api.h"

// Releases a chain handed out by ldap_result (or one message handed out
// alone) and the request's row once it is done with. The type of what was
// released, or 0.
int ldap_msgfree_direct(LDAPMessage *msg);

// ldap_result2error without the guard.
int ldap_result2error_direct(LDAP *ld, LDAPMessage *res, int freeit);

#endif
