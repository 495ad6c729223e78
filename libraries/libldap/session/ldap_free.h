// ldap_free.h - releasing a handle whose operations have all ended.
#ifndef ZLDAP_LDAP_FREE_H
#define ZLDAP_LDAP_FREE_H

#include "core/ldap_session.h"

void ldap_ld_free(LDAP *ld);

#endif
