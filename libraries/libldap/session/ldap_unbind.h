// ldap_unbind.h - ending a session.
#ifndef ZLDAP_LDAP_UNBIND_H
#define ZLDAP_LDAP_UNBIND_H

#include "core/ldap_session.h"

int ldap_unbind(LDAP *ld);
int ldap_unbind_s(LDAP *ld);
int ldap_unbind_ext(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls);

#endif
