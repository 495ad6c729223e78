// ldap_ssl_modes.cpp - the FIPS, Suite B and signature-algorithm switches.
// They take effect when the next environment is prepared.
#include "tls/ldap_ssl_modes.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "zor8ldap_api.h"

#include <cstdlib>
#include <cstring>

#define LDAP_MODULE "libraries/libldap/ldap_ssl"

std::atomic<int32_t> g_SSL_FIPS_mode{0};
std::atomic<int32_t> g_SSL_SuiteB_mode{0};

namespace {

// The signature algorithms to offer, or NULL. Replaced under ldap_ssl_mutex
// so that an environment being prepared never reads a released text.
char *g_SSL_extnSigalg;

// 128 and 192: the value with its bit 0x40 cleared is 128.
bool is_suiteb_level(long mode) { return (mode & ~0x40L) == 128; }

} // namespace

int ldap_ssl_set_fips_mode_np(int mode)
{
    g_SSL_FIPS_mode = mode != 0;
    LDAP_TRACE(TRC_API, "ldap_ssl_set_fips_mode_np: FIPS mode=%d\n", static_cast<int>(g_SSL_FIPS_mode));
    return LDAP_SUCCESS;
}

int ldap_ssl_set_suiteb_mode(const char *text)
{
    LDAP_TRACE(TRC_API, "ldap_ssl_set_suiteb_mode: checking suite b mode value\n");
    if (!text) {
        LDAP_TRACE(TRC_ERROR,
                   "Error - ldap_ssl_set_suiteb_mode: incorrect suite mode value: null parameter\n");
        return LDAP_PARAM_ERROR;
    }
    if (text[std::strspn(text, "0123456789")] != '\0') {
        LDAP_TRACE(TRC_ERROR, "Error - ldap_ssl_set_suiteb_mode: incorrect suite mode value: %s\n", text);
        return LDAP_PARAM_ERROR;
    }
    long mode = std::strtol(text, nullptr, 10);
    if (is_suiteb_level(mode)) {
        g_SSL_SuiteB_mode = static_cast<int32_t>(mode);
        LDAP_TRACE(TRC_API, "ldap_ssl_set_suiteb_mode: suite mode g_SSL_SuiteB_mode set to: %d\n",
                   static_cast<int>(mode));
    } else {
        g_SSL_SuiteB_mode = 0;
        LDAP_TRACE(TRC_API,
                   "ldap_ssl_set_suiteb_mode: incorrect suite mode %d. g_SSL_SuiteB_mode set to: %d\n",
                   static_cast<int>(mode), 0);
    }
    return LDAP_SUCCESS;
}

int ldap_ssl_set_extn_sigalg(const char *text)
{
    if (!text || !*text)
        return LDAP_PARAM_ERROR;
    char *copy = zldap::mem_strdup(text);
    if (!copy)
        return LDAP_NO_MEMORY;
    ldap_lock_ssl_mutex();
    char *old = g_SSL_extnSigalg;
    g_SSL_extnSigalg = copy;
    ldap_unlock_ssl_mutex();
    zldap::mem_free(old);
    return LDAP_SUCCESS;
}

int setSuiteBMode(zor_handle env)
{
    int32_t mode = g_SSL_SuiteB_mode;
    if (mode == 0)
        return ZOR_OK;
    if (!is_suiteb_level(mode)) {
        LDAP_TRACE(TRC_API, "setSuiteBMode: Incorrect value set for LDAP_OPT_SUITEB_MODE : %d\n", mode);
        return ZOR_OK;
    }
    LDAP_TRACE(TRC_API, "setSuiteBMode: g_SSL_SuiteB_mode=%d, setting suite b mode\n", mode);
    int rc;
    if (g_SSL_FIPS_mode != 1) {
        LDAP_TRACE(TRC_API,
                   "setSuiteBMode: setting base crypto library to ZOR_BASE_CRYPTO_VOC for suite b\n");
        rc = g_zorlib.attribute_set_enum(env, ZOR_BASE_CRYPTO_LIBRARY, ZOR_BASE_CRYPTO_VOC);
        if (rc != ZOR_OK) {
            LDAP_TRACE(
                TRC_ERROR,
                "Error - setSuiteBMode: zor_attribute_set_enum(...ZOR_BASE_CRYPTO_LIBRARY...) rc=%d %s\n", rc,
                zorErrorText(rc));
            return rc;
        }
    }
    LDAP_TRACE(TRC_API, "setSuiteBMode: ZOR_VOC_FIPS_MODE_PROCESSING is set with zorlib\n");
    rc = g_zorlib.attribute_set_enum(env, ZOR_VOC_FIPS_MODE_PROCESSING, ZOR_VOC_FIPS_MODE_PROCESSING_ON);
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, "Error - setSuiteBMode: Failed to set ZOR_VOC_FIPS_MODE_PROCESSING rc =%d %s\n",
                   rc, zorErrorText(rc));
        return rc;
    }
    LDAP_TRACE(TRC_API, "setSuiteBMode: setting suite b mode: %d\n", mode);
    int level = mode == 128 ? ZOR_SSL_SUITEB_128BIT_MODE_PROCESSING : ZOR_SSL_SUITEB_192BIT_MODE_PROCESSING;
    rc = g_zorlib.attribute_set_enum(env, level, 1);
    if (rc == ZOR_OK) {
        LDAP_TRACE(TRC_API, "setSuiteBMode: ZOR_SSL_SUITEB_%dBIT_MODE_PROCESSING set successfully\n", mode);
    } else {
        LDAP_TRACE(TRC_ERROR,
                   "Error - setSuiteBMode: Failed to set ZOR_SSL_SUITEB_%dBIT_MODE_PROCESSING, rc=%d %s\n",
                   mode, rc, zorErrorText(rc));
        g_SSL_SuiteB_mode = 0;
    }
    return rc;
}

void setExtnSigalg(zor_handle env)
{
    if (!g_SSL_extnSigalg) {
        LDAP_TRACE(TRC_API, "setExtnSigalg:pZorAttributeSetBuffer not setting ZOR_SSL_EXTN_SIGALG \n");
        return;
    }
    LDAP_TRACE(TRC_API, "setExtnSigalg:pZorAttributeSetBuffer setting ZOR_SSL_EXTN_SIGALG to %s \n",
               g_SSL_extnSigalg);
    if (g_zorlib.attribute_set_buffer(env, ZOR_SSL_EXTN_SIGALG, g_SSL_extnSigalg, 0) != ZOR_OK)
        LDAP_TRACE(TRC_ERROR, " Error - setExtnSigalg:pZorAttributeSetBuffer setting ZOR_SSL_EXTN_SIGALG \n");
}
