// ldap_receive.h - reading responses: one message from the socket into the
// queue, and the loop that hands out a row's next result within a time-out.
#ifndef ZLDAP_LDAP_RECEIVE_H
#define ZLDAP_LDAP_RECEIVE_H

#include "message/ldap_table.h"

#include <sys/time.h>

// Reads one message, with any whose bytes came in with it, and queues
// them: 1 read, 0 time-out, -1 failure, 81 the connection is closed or
// was never opened.
int ldap_get_msg(LDAP *ld, LDAPConn *lc, const struct timeval *timeout);
// 1 a whole element was read, -1 failure, -2 time-out.
int wait_for_message(LDAPConn *lc, BerElement *ber, int *state, const struct timeval *timeout);
// Hands out the row's next result: its type, 0 on time-out, -1 on failure.
int ldap_msg_table_get_message(LDAP *ld, ldap_msg_table *table, int id, const struct timeval *timeout,
                               LDAPMessage **out);
int ldap_get_result(LDAP *ld, int id, const struct timeval *timeout, LDAPMessage **out, ldap_msg_table *table);

#endif
