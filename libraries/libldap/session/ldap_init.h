// ldap_init.h - creating session handles: ldap_init and ldap_open, whose
// declarations (C linkage) are in zor8ldap_api.h.
#ifndef ZLDAP_LDAP_INIT_H
#define ZLDAP_LDAP_INIT_H

#include "core/ldap_session.h"
#include "zor8ldap_api.h"

#endif
