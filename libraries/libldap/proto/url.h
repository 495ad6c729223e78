// url.h - LDAP URLs: recognising them and splitting them into their parts.
#ifndef ZLDAP_URL_H
#define ZLDAP_URL_H

#include "zor8ldap_api.h"

// ldap_url_parse without defaults: port -1 (ldap) or -2 (ldaps) and scope -1
// when the URL gives none, no filter unless it gives one.
int ldap_url_parse_internal(const char *url, LDAPURLDesc **ludpp);

#endif
