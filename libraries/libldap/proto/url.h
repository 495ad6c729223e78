// url.h - LDAP URLs: recognising them and splitting them into their parts.
#ifndef ZLDAP_URL_H
#define ZLDAP_URL_H

#include "zor8ldap.h"

// 0 and a record with defaults applied (port 389 or 636, base scope, the
// filter "(objectClass=*)"); else 96, 98, 99 or 21 and no record.
int ldap_url_parse(const char *url, LDAPURLDesc **ludpp);
// The same without defaults: port -1 (ldap) or -2 (ldaps) and scope -1
// when the URL gives none, no filter unless it gives one.
int ldap_url_parse_internal(const char *url, LDAPURLDesc **ludpp);
void ldap_free_urldesc(LDAPURLDesc *ludp);
// 1 when the string starts like an LDAP URL, else 0.
int ldap_is_ldap_url(const char *url);

#endif
