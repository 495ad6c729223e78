// ldap_ssl_prepare.h - preparing and initialising the current toolkit
// environment. The caller holds ldap_ssl_mutex.
#ifndef ZLDAP_LDAP_SSL_PREPARE_H
#define ZLDAP_LDAP_SSL_PREPARE_H

#include "net/zorlib.h"
#include "zor8ldap_api.h"

// Sets the session time-out, protocol, FIPS, PKCS#11, key database,
// password or stash file, I/O callback and Suite B settings on the current
// environment. 0, 80, 90, 113 (the environment released), 115, 119 or 120.
// *reported tells whether *reason (which may be NULL) was written: with the
// toolkit's code of a failed call, or else the value it held on entry. A
// time-out above one day and a default key database name that can't be
// made return at once without writing it.
int prepare_zor_init_data(const char *kdb, const char *password, int timeout, int *reason,
                          const LDAPPkcs11Info *pkcs11, bool *reported);
// Initialises env, retrying once with FIPS processing off when the toolkit
// answers 207. 0 or the toolkit's code.
int initZorlibEnv(zor_handle env, const char *password, const LDAPPkcs11Info *pkcs11);

#endif
