// ldap_ssl_env.h - the toolkit environment that new secure sessions attach
// to, and the reference counts that keep a replaced one alive while
// sessions still use it. Everything here is guarded by ldap_ssl_mutex.
#ifndef ZLDAP_LDAP_SSL_ENV_H
#define ZLDAP_LDAP_SSL_ENV_H

#include "net/zorlib.h"

#include <cstdint>

struct ZorEnvRef {
    uint32_t refCount; // sessions attached (each keeps it in ld_ssl_env)
    zor_handle envHandle;
};

// The environment new sessions attach to, or NULL.
extern ZorEnvRef *g_SSL_currentEnvRef;
// Successful initialisations so far; never decremented.
extern uint32_t g_SSL_initCount;

// Makes a new zero-filled record current, first releasing a current one
// that no session uses. 0 or 90. The caller holds ldap_ssl_mutex.
int createZorEnvRef();
// Closes the record's environment and frees it; clears
// g_SSL_currentEnvRef when it is the current one. The caller holds
// ldap_ssl_mutex.
void freeZorEnvRef(ZorEnvRef *ref);
// Counts one more session on the current environment and returns it (NULL
// when there is none), for the session's ld_ssl_env. Takes ldap_ssl_mutex.
ZorEnvRef *attachZorEnvRef();
// Drops a session's reference; a record no session uses any more is
// released unless it is still the current one. Takes ldap_ssl_mutex.
void deleteZorEnvRef(ZorEnvRef *ref);

#endif
