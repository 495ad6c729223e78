// ldap_abandon.h - abandoning an outstanding request: the server is told to
// stop, the responses nobody collected are freed, and the row is marked so
// that late responses are thrown away and nobody waits on it any more. The
// published ldap_abandon and ldap_abandon_ext are declared in zor8ldap_api.h.
#ifndef ZLDAP_LDAP_ABANDON_H
#define ZLDAP_LDAP_ABANDON_H

#include "message/ldap_table.h"
#include "zor8ldap_api.h"

// Abandons msgid on the calling thread's default connection, without the
// operation guard and without the client-control rule. 0 or a result code.
int ldap_abandon_ext_direct(LDAP *ld, int msgid, LDAPControl **serverctrls);

// Abandons msgid in `table`, and the referral request chased for it in the
// child's table. A finished request is only forgotten (0 when something
// was left to collect, 89 when not); a running one is abandoned on the
// server too. 0 or a result code; the mark stays whatever the outcome.
int abandon_table_row(LDAP *ld, ldap_msg_table *table, int msgid, LDAPControl **serverctrls);

#endif
