// ldap_ssl_query.h - read-only questions to the secure-socket toolkit about
// a connection's peer and the environment, for the session options.
#ifndef ZLDAP_LDAP_SSL_QUERY_H
#define ZLDAP_LDAP_SSL_QUERY_H

#include "net/zorlib.h"

// Peer certificate element types the options ask for.
inline constexpr int ZOR_CERT_SAN_DNS = 610;
inline constexpr int ZOR_CERT_SAN_ALL = 673;

// A copy (release with mem_free) of the text of the peer certificate's
// first element of that type, or NULL.
char *getSSLCertAltName(zor_handle soc, int type);
// The environment's key database, cipher of the latest handshake and
// client key label: toolkit-owned texts, or NULL.
const char *getSSLKeydatabase(zor_handle env);
const char *getSSLCipher(zor_handle env);
const char *getSSLClientLabel(zor_handle env);

#endif
