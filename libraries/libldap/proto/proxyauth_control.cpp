// proxyauth_control.cpp - the proxied authorisation control. Its value is
// the DN's text with its NUL, or, for servers that expect the older
// encoding, the DN inside a SEQUENCE; USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING
// chooses, once per process.
#include "zor8ldap_api.h"

#include "base/environment.h"
#include "base/memory.h"
#include "base/trace.h"
#include "ber/lber.h"
#include "proto/control_codec.h"
#include "proto/ldap_controls.h"

#include <atomic>
#include <cstring>
#include <strings.h>

namespace {

constexpr const char *kFile = "libraries/libldap/ldap_controls";
constexpr int kUnknown = -1;

std::atomic<int> g_sequence_encoding{kUnknown};

// 1 or 0 once the variable has been read; kUnknown while its value could
// not be copied, so that a lack of memory is not remembered as "no".
int sequence_encoding()
{
    int value = g_sequence_encoding.load(std::memory_order_acquire);
    if (value != kUnknown)
        return value;
    // Only a value of three characters can be YES; others need no copy.
    if (ldap_chkenv("USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING") != 4) {
        value = 0;
    } else {
        char *text = ldap_getenv("USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING");
        if (!text)
            return kUnknown;
        value = strcasecmp(text, "YES") == 0 ? 1 : 0;
        zldap::mem_free(text);
    }
    // Concurrent first uses read the same environment and store the same answer.
    g_sequence_encoding.store(value, std::memory_order_release);
    return value;
}

int sequence_value_control(const char *proxydn, int iscritical, LDAPControl **ctrlp)
{
    zldap::BerOwner ber(fber_alloc());
    if (!ber) {
        LDAP_TRACE(TRC_ERROR, "Error: ber_alloc_t failed in file %s near line %d\n", kFile, __LINE__);
        return LDAP_NO_MEMORY;
    }
    if (fber_printf(ber.get(), "{s}", proxydn) != 0) {
        LDAP_TRACE(TRC_ERROR, "Error: ber_printf failed in file %s near line %d\n", kFile, __LINE__);
        return LDAP_ENCODING_ERROR;
    }
    return zldap::control_from_ber(ber.get(), LDAP_CONTROL_PROXYAUTH, iscritical, ctrlp);
}

} // namespace

int ldap_create_proxyauth_control(LDAP *ld, const char *proxydn, int iscritical, LDAPControl **ctrlp)
{
    LDAP_TRACE(TRC_API, "ldap_create_proxyauth_control ld(%p) proxyDN(%s), isCritical(%d), controlp(%p)\n",
               static_cast<void *>(ld), trace_str(proxydn), iscritical, static_cast<void *>(ctrlp));
    if (ctrlp)
        *ctrlp = nullptr;
    if (!proxydn || !ctrlp || iscritical == 0)
        return LDAP_PARAM_ERROR;
    int sequence = sequence_encoding();
    if (sequence == kUnknown)
        return LDAP_NO_MEMORY;
    if (sequence)
        return sequence_value_control(proxydn, 1, ctrlp);
    return ldap_create_control(LDAP_CONTROL_PROXYAUTH, std::strlen(proxydn) + 1, proxydn, 1, ctrlp);
}
