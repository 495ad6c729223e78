// ldap_ssl_handshake_reason.h - the toolkit's reason for the calling
// thread's latest secure handshake, kept for ldap_ssl_get_handshake_reason.
#ifndef ZLDAP_LDAP_SSL_HANDSHAKE_REASON_H
#define ZLDAP_LDAP_SSL_HANDSHAKE_REASON_H

// Records the toolkit's answer to a handshake (0 for a good one).
void note_handshake_reason(int reason);

#endif
