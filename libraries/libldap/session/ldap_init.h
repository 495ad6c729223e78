// ldap_init.h - creating session handles.
#ifndef ZLDAP_LDAP_INIT_H
#define ZLDAP_LDAP_INIT_H

#include "core/ldap_session.h"

LDAP *ldap_init(const char *host, int port);
// ldap_init, then the protocol version from LDAP_VERSION (exactly "3" gives
// 3, anything else 2) and the default connection opened. NULL on failure.
LDAP *ldap_open(const char *host, int port);

#endif
