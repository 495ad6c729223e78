// ldap_ssl_connect.h - entry points that put a secure layer on a connected
// socket and take it off again.
#ifndef ZLDAP_LDAP_SSL_CONNECT_H
#define ZLDAP_LDAP_SSL_CONNECT_H

#include "core/ldap_session.h"

// Runs the secure handshake on sb's socket, which is already non-blocking.
// 0, or a code; on failure sb carries no secure record.
int open_ssl_connection(LDAP *ld, Sockbuf *sb);
// Ends sb's secure session and frees its secure record; accepts NULL and a
// buffer without one.
void ssl_close_direct(Sockbuf *sb);

#endif
