// ldap_tls_handshake.h - the secure layer StartTLS puts on a connection
// that is already open in clear, once the server has agreed to it.
#ifndef ZLDAP_LDAP_TLS_HANDSHAKE_H
#define ZLDAP_LDAP_TLS_HANDSHAKE_H

#include "core/ldap_session.h"

// Builds a secure socket on sb's open descriptor and runs the handshake,
// with the session's label, cipher lists and protocols. The caller holds
// ld_mutex and sb's write lock. 0, 90, 112 (sb is secure already), 113,
// 114 (no toolkit environment), 115, 116, or the toolkit's code for a
// refused label. From the secure socket's creation on, a failure leaves
// the secure record in sb: the connection never goes back to clear.
int doHandshake(LDAP *ld, Sockbuf *sb);

#endif
