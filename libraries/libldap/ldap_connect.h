// ldap_connect.h - choosing a thread's connection of a handle.
#ifndef ZLDAP_LDAP_CONNECT_H
#define ZLDAP_LDAP_CONNECT_H

#include "ldap_session.h"

// The calling thread's bound connection if it has one, else ld_defconn;
// NULL when the lock fails.
LDAPConn *get_default_connection(LDAP *ld);
// Binds the calling thread to lc, or removes its binding for NULL. 0, 90 or 129.
int set_thread_connection(LDAP *ld, LDAPConn *lc);

#endif
