// user_info_digest.cpp - SHA-1 for the protected password, from the
// system's libcrypto loaded at run time: the library itself needs nothing
// beyond the C library, and the digest comes from a maintained
// implementation rather than one of our own.
#include "dns/user_info.h"

#include "base/ldap_load.h"
#include "base/trace.h"

#include <pthread.h>

namespace zldap {
namespace {

// The two entry points, their types spelled out so that no libcrypto
// header is needed to build the library.
using EvpSha1 = const void *(*)();
using EvpDigest = int (*)(const void *data, size_t count, unsigned char *digest, unsigned int *size,
                          const void *type, void *engine);

const char *g_library = "libcrypto.so.3";
pthread_once_t g_once = PTHREAD_ONCE_INIT;
EvpDigest g_digest = nullptr;
const void *g_sha1 = nullptr;

// Resolves the entry points once per process; the library stays loaded
// for good once they are found.
void load_libcrypto()
{
    ldap_dl *library = ldap_dlopen(g_library, RTLD_NOW | RTLD_LOCAL);
    if (!library)
        return;
    auto sha1 = reinterpret_cast<EvpSha1>(ldap_dlsym(library, "EVP_sha1"));
    auto digest = reinterpret_cast<EvpDigest>(ldap_dlsym(library, "EVP_Digest"));
    const void *type = sha1 && digest ? sha1() : nullptr;
    if (!type) {
        ldap_dlclose(library);
        return;
    }
    g_sha1 = type;
    g_digest = digest;
    ldap_dlrelease(library);
}

} // namespace

int user_info_sha1_ready()
{
    pthread_once(&g_once, load_libcrypto);
    if (g_digest)
        return LDAP_SUCCESS;
    LDAP_TRACE(TRC_ERROR, "Error - ldap_user_info: no SHA-1 without %s: rc=%d\n", g_library, LDAP_NOT_SUPPORTED);
    return LDAP_NOT_SUPPORTED;
}

int user_info_sha1(const uint8_t *data, size_t length, uint8_t digest[kSha1DigestSize])
{
    int rc = user_info_sha1_ready();
    if (rc != LDAP_SUCCESS)
        return rc;
    unsigned int size = 0;
    if (g_digest(data, length, digest, &size, g_sha1, nullptr) != 1 || size != kSha1DigestSize) {
        LDAP_TRACE(TRC_ERROR, "Error - ldap_user_info: the SHA-1 digest failed\n");
        return LDAP_LOCAL_ERROR;
    }
    return LDAP_SUCCESS;
}

void user_info_use_crypto_library(const char *file) { g_library = file; }

} // namespace zldap
