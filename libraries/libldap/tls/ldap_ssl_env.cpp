// ldap_ssl_env.cpp - the current toolkit environment and the reference
// counts of the sessions that use it. A replaced environment lives on
// until its last session lets it go; one that no session holds is closed
// when the next one is created.
#include "tls/ldap_ssl_env.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "zor8ldap.h"

#define LDAP_MODULE "libraries/libldap/ldap_ssl"

ZorEnvRef *g_SSL_currentEnvRef;
uint32_t g_SSL_initCount;

void freeZorEnvRef(ZorEnvRef *ref)
{
    LDAP_TRACE(TRC_API, "freeZorEnvRef: zor_environment_close(%p) and free %p\n", ref->envHandle,
               static_cast<void *>(ref));
    int rc = g_zorlib.environment_close(&ref->envHandle);
    if (rc != 0)
        LDAP_TRACE(TRC_ERROR, "Error - freeZorEnvRef: zor_environment_close() rc=%d %s\n", rc,
                   zorErrorText(rc));
    if (ref == g_SSL_currentEnvRef)
        g_SSL_currentEnvRef = nullptr;
    zldap::mem_free(ref);
}

int createZorEnvRef()
{
    if (g_SSL_currentEnvRef && g_SSL_currentEnvRef->refCount == 0) {
        LDAP_TRACE(TRC_API, "createZorEnvRef: Delete unused Zorlib environment reference.\n");
        freeZorEnvRef(g_SSL_currentEnvRef);
    }
    LDAP_TRACE(TRC_API, "createZorEnvRef: Create new Zorlib environment reference...\n");
    auto *ref = static_cast<ZorEnvRef *>(zldap::mem_calloc(1, sizeof(ZorEnvRef)));
    if (!ref) {
        LDAP_TRACE(
            TRC_ERROR,
            "Error - createZorEnvRef: File %s:%d - Allocation failed for Zorlib environment reference\n",
            LDAP_MODULE, __LINE__);
        return LDAP_NO_MEMORY;
    }
    g_SSL_currentEnvRef = ref;
    return LDAP_SUCCESS;
}

ZorEnvRef *attachZorEnvRef()
{
    ldap_lock_ssl_mutex();
    ZorEnvRef *ref = g_SSL_currentEnvRef;
    if (ref)
        ref->refCount++;
    ldap_unlock_ssl_mutex();
    return ref;
}

void deleteZorEnvRef(ZorEnvRef *ref)
{
    ldap_lock_ssl_mutex();
    ref->refCount--;
    LDAP_TRACE(TRC_API, "deleteZorEnvRef: Reset Zorlib environment reference count for %p to %d.\n",
               static_cast<void *>(ref), static_cast<int>(ref->refCount));
    if (ref->refCount == 0 && ref != g_SSL_currentEnvRef)
        freeZorEnvRef(ref);
    ldap_unlock_ssl_mutex();
}
