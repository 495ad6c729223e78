// ldap_ssl_session.h - making a session secure: a new handle on the current
// toolkit environment, or the secure layer put on an existing one.
#ifndef ZLDAP_LDAP_SSL_SESSION_H
#define ZLDAP_LDAP_SSL_SESSION_H

#include "core/ldap_session.h"

// Initialises the toolkit (a second initialisation is no failure), attaches
// ld to the current environment and secures its default connection: the
// open socket, or a new connection when none is open. An LDAP code; -1 for
// no handle.
int ldap_ssl_start_direct(LDAP *ld, const char *keyring, const char *keyring_pw, const char *label);

#endif
