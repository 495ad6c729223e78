// ldap_queue.h - the queue of messages read but not yet filed, and filing
// a message in the row of its id.
#ifndef ZLDAP_LDAP_QUEUE_H
#define ZLDAP_LDAP_QUEUE_H

#include "message/ldap_table.h"

// Appends msg to the table's queue (under the queue lock).
void put_msg_in_queue(ldap_msg_table *table, LDAPMessage *msg);
// Files every queued message; one that cannot be filed is freed. The caller
// holds the table lock.
void flush_queue(ldap_msg_table *table);
// Files msg in its row. 0; 89 for a bad argument; 80 when it was not filed
// (the caller still owns it). The caller holds the table lock.
int put_msg_in_table(ldap_msg_table *table, LDAPMessage *msg);

#endif
