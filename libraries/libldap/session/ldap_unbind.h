// ldap_unbind.h - ending a session: ldap_unbind, ldap_unbind_s and
// ldap_unbind_ext, whose declarations (C linkage) are in zor8ldap_api.h.
#ifndef ZLDAP_LDAP_UNBIND_H
#define ZLDAP_LDAP_UNBIND_H

#include "core/ldap_session.h"
#include "zor8ldap_api.h"

#endif
