// ldap_connect.h - connecting a handle to its servers: connection records,
// host lists, the per-thread choice of connection and the handle's chain of
// connections.
#ifndef ZLDAP_LDAP_CONNECT_H
#define ZLDAP_LDAP_CONNECT_H

#include "core/ldap_session.h"
#include "net/ldap_connect_socket.h"

// A connection record for the host list and port (host byte order) with a
// message table of table_rows rows; NULL when memory or a lock fails.
LDAPConn *ldap_lc_init(const char *hosts, int port, int table_rows);
// Releases the record and every record after it in the lconn_next list.
void ldap_lc_free(LDAPConn *lc);

// Tries lc's host entries in order until one connects; the socket then runs
// non-blocking. 0, or the code of the last failed attempt.
int open_ldap_connection(LDAP *ld, LDAPConn *lc);
// open_ldap_connection on the calling thread's default connection.
int open_default_connection(LDAP *ld);

// The calling thread's bound connection if it has one, else ld_defconn;
// NULL when the lock fails.
LDAPConn *get_default_connection(LDAP *ld);
// Binds the calling thread to lc, or removes its binding for NULL. 0, 90 or 129.
int set_thread_connection(LDAP *ld, LDAPConn *lc);

// Whether two host/port pairs (ports in host byte order) name the same
// server: equal texts, or equal first resolved addresses. 1 or 0.
int same_server(const char *host1, int port1, const char *host2, int port2);

// The handle's connection to host and port (host byte order; -1 and -2 mean
// the default port, 636 when the default connection is secure, else 389),
// searched from ld_defconn when include_default is 1, else from the one
// after it. When none matches and open_if_missing is 1, a new connection is
// opened and appended to the chain. NULL when none is found or the open
// fails; *rc (may be NULL) receives 0 or the code.
LDAPConn *find_connection(LDAP *ld, const char *host, int port, int open_if_missing, int *rc,
                          int include_default);

// Takes lc out of the handle's chain and frees it. A connection with
// requests still outstanding is kept (at the end of the chain) for the
// handle's teardown; the default connection and records not in the chain
// are left alone.
void release_connection(LDAP *ld, LDAPConn *lc);

#endif
