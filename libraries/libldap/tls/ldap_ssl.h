// ldap_ssl.h - the session's secure-transport settings: cipher lists and
// protocol names, as the option setters store them.
#ifndef ZLDAP_LDAP_SSL_H
#define ZLDAP_LDAP_SSL_H

#include "core/ldap_session.h"

// 0 when every two-character code of text is a valid cipher, else 115.
int checkCiphers(const char *text);
// Setters of options 7, 153 and 152; callers hold ld_mutex.
int set_ssl_cipher(LDAP *ld, const char *text);
int set_ssl_cipher_EX(LDAP *ld, const char *text);
int set_ssl_protocol(LDAP *ld, const char *text);

#endif
