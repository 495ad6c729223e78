// ldap_options.cpp - ldap_set_option and ldap_get_option over a handle or
// the global-defaults record, and the API, feature and version records.
#include "session/ldap_options.h"

#include "base/function_ref.h"
#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "proto/ldap_controls.h"
#include "tls/ldap_ssl.h"
#include "tls/ldap_ssl_env.h"
#include "tls/ldap_ssl_query.h"

#include <climits>
#include <cstdint>
#include <cstring>

#define LDAP_MODULE "libraries/libldap/ldap_options"

namespace {

constexpr int kApiVersion = 2004;
constexpr int kVendorVersion = 510;
constexpr const char *kVendorName = "Orniva Systems Corp.";
constexpr const char *kVlvFeature = "VIRTUAL_LIST_VIEW";
constexpr int kVlvFeatureVersion = 1000;

// Options whose value a version-3 caller passes through a pointer to an int.
bool takes_int_pointer(const LDAP *ld, int option)
{
    if (option == LDAP_OPT_PROTOCOL_VERSION)
        return true;
    if (ld->ld_version != LDAP_VERSION3)
        return false;
    switch (option) {
    case LDAP_OPT_SIZELIMIT:
    case LDAP_OPT_TIMELIMIT:
    case LDAP_OPT_DEREF:
    case LDAP_OPT_RESTART:
    case LDAP_OPT_HOP_LIMIT:
    case LDAP_OPT_TRACE_LEVEL:
    case LDAP_OPT_SECURE_TIMEOUT:
    case LDAP_OPT_HOP_LIMIT_ALT:
    case LDAP_OPT_GSS_OPTION:
        return true;
    default:
        return false;
    }
}

bool in_range(intptr_t v, intptr_t low, intptr_t high) { return v >= low && v <= high; }

// The options that ldap_numeric_options and ldap_has_server_controls read
// without ld_mutex are written whole, as one store each (their writers
// hold ld_mutex).
template <typename T> void store_word(T *word, T value) { __atomic_store_n(word, value, __ATOMIC_RELAXED); }
template <typename T> T load_word(const T *word) { return __atomic_load_n(word, __ATOMIC_RELAXED); }

void set_bit(uint64_t *word, uint64_t bit, bool on)
{
    store_word(word, on ? *word | bit : *word & ~bit);
}

bool any_critical(LDAPControl **ctrls)
{
    for (int i = 0; ctrls && ctrls[i]; i++)
        if (ctrls[i]->ldctl_iscritical)
            return true;
    return false;
}

// Replaces *field with a deep copy of ctrls; on failure the field is NULL.
// The new list is stored in one write: ldap_has_server_controls tests the
// field for NULL without ld_mutex.
int replace_controls(LDAPControl ***field, LDAPControl **ctrls)
{
    LDAPControl **copy = nullptr;
    int rc = ldap_copy_controls(&copy, ctrls);
    LDAPControl **old = *field;
    store_word(field, copy);
    ldap_controls_free(old);
    return rc;
}

int store_timeval(LDAP *ld, const struct timeval *tv)
{
    zldap::mem_free(ld->ld_connect_timeout);
    ld->ld_connect_timeout = nullptr;
    if (!tv)
        return LDAP_SUCCESS;
    auto *copy = static_cast<struct timeval *>(zldap::mem_malloc(sizeof(struct timeval)));
    if (!copy) {
        LDAP_TRACE(TRC_ERROR, "ldap_set_option_direct: Memory error!!!\n");
        return LDAP_NO_MEMORY;
    }
    *copy = *tv;
    ld->ld_connect_timeout = copy;
    return LDAP_SUCCESS;
}

// Hands out a copy of text; refused (89) when there is none or the copy fails.
int copy_out_text(const char *text, void *out)
{
    if (!text)
        return LDAP_PARAM_ERROR;
    char *copy = zldap::mem_strdup(text);
    if (!copy)
        return LDAP_PARAM_ERROR;
    *static_cast<char **>(out) = copy;
    return LDAP_SUCCESS;
}

int get_api_info(LDAPAPIInfo *info)
{
    if (info->ldapai_info_version != LDAP_API_INFO_VERSION) {
        info->ldapai_info_version = LDAP_API_INFO_VERSION;
        return LDAP_PARAM_ERROR;
    }
    info->ldapai_api_version = kApiVersion;
    info->ldapai_protocol_version = LDAP_VERSION3;
    info->ldapai_vendor_version = kVendorVersion;
    info->ldapai_extensions = nullptr;
    info->ldapai_vendor_name = nullptr;
    auto **extensions = static_cast<char **>(zldap::mem_calloc(2, sizeof(char *)));
    char *vendor = zldap::mem_strdup(kVendorName);
    if (extensions)
        extensions[0] = zldap::mem_strdup(kVlvFeature);
    if (!extensions || !extensions[0] || !vendor) {
        if (extensions)
            zldap::mem_free(extensions[0]);
        zldap::mem_free(extensions);
        zldap::mem_free(vendor);
        return LDAP_NO_MEMORY;
    }
    info->ldapai_extensions = extensions;
    info->ldapai_vendor_name = vendor;
    return LDAP_SUCCESS;
}

int get_feature_info(LDAPAPIFeatureInfo *info)
{
    if (info->ldapaif_info_version != LDAP_FEATURE_INFO_VERSION) {
        info->ldapaif_info_version = LDAP_FEATURE_INFO_VERSION;
        return LDAP_PARAM_ERROR;
    }
    bool vlv = info->ldapaif_name && std::strcmp(info->ldapaif_name, kVlvFeature) == 0;
    info->ldapaif_version = vlv ? kVlvFeatureVersion : 0;
    return LDAP_SUCCESS;
}

// Options 10, 11 and 69: answered only for a connection with a secure
// record; otherwise the caller's integer stays as it was.
void get_secure_state(LDAP *ld, int option, int *out)
{
    LDAPConn *lc = get_default_connection(ld);
    if (!lc || !lc->lconn_sb.secure)
        return;
    bool secure = ld->ld_ssl_flag == 1;
    if (option == LDAP_OPT_SECURE_IN_USE)
        *out = secure;
    else if (option == LDAP_OPT_CLEAR_IN_USE)
        *out = !secure;
    else
        *out = 1;
}

// Options 56 and 57: the server certificate's alternative names, on the
// calling thread's default connection; refused without a secure socket.
int get_peer_alt_name(LDAP *ld, int option, char **out)
{
    LDAPConn *lc = get_default_connection(ld);
    if (!lc || !lc->lconn_sb.secure)
        return LDAP_PARAM_ERROR;
    *out = getSSLCertAltName(lc->lconn_sb.secure->soc,
                             option == LDAP_OPT_PEER_ALT_NAME_1 ? ZOR_CERT_SAN_ALL : ZOR_CERT_SAN_DNS);
    return LDAP_SUCCESS;
}

// Options 64 to 66: a copy of the environment's cipher, key database or
// client label; refused without an environment.
int get_environment_text(LDAP *ld, int option, void *out)
{
    if (!ld->ld_ssl_env)
        return LDAP_PARAM_ERROR;
    zor_handle env = ld->ld_ssl_env->envHandle;
    return copy_out_text(option == LDAP_OPT_SECURE_CIPHER_IN_USE    ? getSSLCipher(env)
                         : option == LDAP_OPT_SECURE_KEY_DATABASE ? getSSLKeydatabase(env)
                                                                  : getSSLClientLabel(env),
                         out);
}

LDAP g_defaults;

pthread_once_t g_defaults_once = PTHREAD_ONCE_INIT;
bool g_defaults_ready = false;

void make_global_defaults()
{
    ldap_lock_defaults_mutex();
    std::memcpy(g_defaults.ld_marker, kLdapMarker, sizeof kLdapMarker);
    g_defaults.ld_version = LDAP_VERSION3;
    g_defaults.ld_options = LDAP_BITOPT_REFERRALS;
    g_defaults.ld_hoplimit = 10;
    int rc = LDAP_MUTEX_INIT(&g_defaults.ld_mutex);
    if (rc != 0)
        LDAP_TRACE(TRC_ERROR, "ld_set_global_default: pthread_mutex_init failed, errno %d\n", rc);
    else if (LDAP_MUTEX_INIT(&g_defaults.ld_error_mutex) == 0)
        g_defaults_ready = true;
    ldap_unlock_defaults_mutex();
}

} // namespace

LDAP *ldap_global_defaults()
{
    pthread_once(&g_defaults_once, make_global_defaults);
    return g_defaults_ready ? &g_defaults : nullptr;
}

int ldap_set_option_direct(LDAP *ld, int option, const void *value)
{
    intptr_t n = reinterpret_cast<intptr_t>(value);
    int rc = LDAP_SUCCESS;
    switch (option) {
    case LDAP_OPT_SIZELIMIT:
    case LDAP_OPT_TIMELIMIT:
    case LDAP_OPT_HOP_LIMIT:
    case LDAP_OPT_HOP_LIMIT_ALT:
        if (!in_range(n, 0, INT32_MAX))
            rc = LDAP_PARAM_ERROR;
        else if (option == LDAP_OPT_SIZELIMIT)
            store_word(&ld->ld_sizelimit, static_cast<int32_t>(n));
        else if (option == LDAP_OPT_TIMELIMIT)
            store_word(&ld->ld_timelimit, static_cast<int32_t>(n));
        else
            store_word(&ld->ld_hoplimit, static_cast<int32_t>(n));
        break;
    case LDAP_OPT_REFERRALS:
    case LDAP_OPT_RESTART:
        if (!in_range(n, 0, 1))
            rc = LDAP_PARAM_ERROR;
        else
            set_bit(&ld->ld_options,
                    option == LDAP_OPT_REFERRALS ? LDAP_BITOPT_REFERRALS : LDAP_BITOPT_RESTART, n == 1);
        break;
    case LDAP_OPT_DEREF:
        if (!in_range(n, LDAP_DEREF_NEVER, LDAP_DEREF_ALWAYS))
            rc = LDAP_PARAM_ERROR;
        else
            store_word(&ld->ld_deref, static_cast<int32_t>(n));
        break;
    case LDAP_OPT_TRACE_LEVEL:
        if (!in_range(n, 0, 0xFFFF))
            rc = LDAP_PARAM_ERROR;
        else
            zldap::set_trace_level(static_cast<uint32_t>(n));
        break;
    case LDAP_OPT_CIPHER_SPECS:
        rc = set_ssl_cipher(ld, static_cast<const char *>(value));
        break;
    case LDAP_OPT_SECURE_TIMEOUT:
        if (!in_range(n, 0, 86400))
            rc = LDAP_PARAM_ERROR;
        else
            ld->ld_ssl_timeout = static_cast<int32_t>(n);
        break;
    case LDAP_OPT_REBIND_PROC:
        ld->ld_rebind_proc = reinterpret_cast<LDAP_REBIND_PROC>(n);
        break;
    case LDAP_OPT_PROTOCOL_VERSION:
        if (!in_range(n, LDAP_VERSION2, LDAP_VERSION3))
            rc = LDAP_PARAM_ERROR;
        else
            ld->ld_version = static_cast<int32_t>(n);
        break;
    case LDAP_OPT_SERVER_CONTROLS:
        rc = replace_controls(&ld->ld_sctrls, static_cast<LDAPControl **>(const_cast<void *>(value)));
        break;
    case LDAP_OPT_CLIENT_CONTROLS: {
        auto **ctrls = static_cast<LDAPControl **>(const_cast<void *>(value));
        rc = any_critical(ctrls) ? LDAP_UNAVAILABLE_CRITICAL_EXTENSION
                                 : replace_controls(&ld->ld_cctrls, ctrls);
        break;
    }
    case LDAP_OPT_SPARE_FLAG:
    case LDAP_OPT_NO_TRANSLATION:
        if (!in_range(n, 0, 1))
            rc = LDAP_PARAM_ERROR;
        else if (option == LDAP_OPT_SPARE_FLAG)
            ld->ld_spare_flag = static_cast<uint32_t>(n);
        else
            ld->ld_no_xlate = static_cast<uint32_t>(n);
        break;
    case LDAP_OPT_GSS_OPTION:
        if (!in_range(n, 2, 3))
            rc = LDAP_PARAM_ERROR;
        else
            ld->ld_gss_option = static_cast<uint32_t>(n);
        break;
    case LDAP_OPT_CONNECT_TIMEOUT:
        rc = store_timeval(ld, static_cast<const struct timeval *>(value));
        break;
    case LDAP_OPT_SECURE_PROTOCOLS:
        rc = set_ssl_protocol(ld, static_cast<const char *>(value));
        break;
    case LDAP_OPT_CIPHER_SPECS_TLS12:
        rc = set_ssl_cipher_EX(ld, static_cast<const char *>(value));
        break;
    default: // read-only and unknown options
        rc = LDAP_PARAM_ERROR;
        break;
    }
    ldap_set_error_direct(ld, rc, nullptr, nullptr);
    return rc;
}

int ldap_get_option_direct(LDAP *ld, int option, void *out)
{
    int *out_int = static_cast<int *>(out);
    int rc = LDAP_SUCCESS;
    switch (option) {
    case LDAP_OPT_SIZELIMIT:
        *out_int = ld->ld_sizelimit;
        break;
    case LDAP_OPT_TIMELIMIT:
        *out_int = ld->ld_timelimit;
        break;
    case LDAP_OPT_REFERRALS:
        *out_int = (ld->ld_options & LDAP_BITOPT_REFERRALS) ? 1 : 0;
        break;
    case LDAP_OPT_DEREF:
        *out_int = ld->ld_deref;
        break;
    case LDAP_OPT_RESTART:
        *out_int = (ld->ld_options & LDAP_BITOPT_RESTART) ? 1 : 0;
        break;
    case LDAP_OPT_HOP_LIMIT:
    case LDAP_OPT_HOP_LIMIT_ALT:
        *out_int = ld->ld_hoplimit;
        break;
    case LDAP_OPT_TRACE_LEVEL:
        *out_int = static_cast<int>(zldap::trace_level());
        break;
    case LDAP_OPT_CIPHER_SPECS:
        rc = copy_out_text(ld->ld_ssl_cipher, out);
        break;
    case LDAP_OPT_SECURE_TIMEOUT:
        *out_int = ld->ld_ssl_timeout;
        break;
    case LDAP_OPT_REBIND_PROC:
        *static_cast<LDAP_REBIND_PROC *>(out) = ld->ld_rebind_proc;
        break;
    case LDAP_OPT_SECURE_IN_USE:
    case LDAP_OPT_CLEAR_IN_USE:
    case LDAP_OPT_SECURE_SESSION:
        get_secure_state(ld, option, out_int);
        break;
    case LDAP_OPT_PROTOCOL_VERSION:
        *out_int = ld->ld_version;
        break;
    case LDAP_OPT_SERVER_CONTROLS:
        rc = ldap_copy_controls(static_cast<LDAPControl ***>(out), ld->ld_sctrls);
        break;
    case LDAP_OPT_CLIENT_CONTROLS:
        rc = ldap_copy_controls(static_cast<LDAPControl ***>(out), ld->ld_cctrls);
        break;
    case LDAP_OPT_API_INFO:
        rc = get_api_info(static_cast<LDAPAPIInfo *>(out));
        break;
    case LDAP_OPT_API_FEATURE_INFO:
        rc = get_feature_info(static_cast<LDAPAPIFeatureInfo *>(out));
        break;
    case LDAP_OPT_HOST_NAME: {
        LDAPConn *lc = get_default_connection(ld);
        const char *hosts = lc ? lc->lconn_hosts : ld->ld_defhost;
        if (hosts)
            rc = copy_out_text(hosts, out);
        else
            *static_cast<char **>(out) = nullptr;
        break;
    }
    case LDAP_OPT_ERROR_NUMBER:
        *out_int = ldap_get_errno_direct(ld);
        break;
    case LDAP_OPT_ERROR_STRING: {
        char *text = nullptr;
        ldap_get_error_direct(ld, nullptr, &text);
        *static_cast<char **>(out) = text;
        break;
    }
    case LDAP_OPT_SECURE_REASON:
        *out_int = ldap_get_ext_error_direct(ld);
        break;
    case LDAP_OPT_SPARE_FLAG:
        *out_int = static_cast<int>(ld->ld_spare_flag);
        break;
    case LDAP_OPT_GSS_OPTION:
        *out_int = static_cast<int>(ld->ld_gss_option);
        break;
    case LDAP_OPT_GSS_RESULT:
        *out_int = static_cast<int>(ld->ld_gss_result);
        break;
    case LDAP_OPT_CONNECT_TIMEOUT: {
        struct timeval *copy = nullptr;
        if (ld->ld_connect_timeout) {
            copy = static_cast<struct timeval *>(zldap::mem_malloc(sizeof(struct timeval)));
            if (!copy) {
                LDAP_TRACE(TRC_ERROR, "ldap_get_option_direct: Memory error!!!\n");
                rc = LDAP_NO_MEMORY;
                break;
            }
            *copy = *ld->ld_connect_timeout;
        }
        *static_cast<struct timeval **>(out) = copy;
        break;
    }
    case LDAP_OPT_CIPHER_SPECS_TLS12:
        rc = copy_out_text(ld->ld_ssl_cipher_EX, out);
        break;
    case LDAP_OPT_NO_TRANSLATION:
        *out_int = static_cast<int>(ld->ld_no_xlate);
        break;
    case LDAP_OPT_PEER_ALT_NAME_1:
    case LDAP_OPT_PEER_ALT_NAME_2:
        rc = get_peer_alt_name(ld, option, static_cast<char **>(out));
        break;
    case LDAP_OPT_SECURE_CIPHER_IN_USE:
    case LDAP_OPT_SECURE_KEY_DATABASE:
    case LDAP_OPT_SECURE_CLIENT_LABEL:
        rc = get_environment_text(ld, option, out);
        break;
    default: // write-only and unknown options
        rc = LDAP_PARAM_ERROR;
        break;
    }
    if (rc != LDAP_SUCCESS)
        ldap_set_error_direct(ld, rc, nullptr, nullptr);
    return rc;
}

namespace {

// Runs an option call on the handle, or on the global defaults for NULL,
// inside the guard and under ld_mutex.
int with_option_lock(LDAP *ld, zldap::FunctionRef<int(LDAP *)> call)
{
    if (!ld) {
        ld = ldap_global_defaults();
        if (!ld)
            return -1;
    }
    // A real handle is held inside the guard so that an unbind cannot
    // release it under the call.
    zldap::OperationGuard hold(ld, zldap::OnEntry::keep_error, ld != &g_defaults);
    if (!hold.admitted())
        return hold.code();
    LDAP_MUTEX_GUARD(guard, &ld->ld_mutex);
    if (!guard.locked())
        return ldap_fail(ld, LDAP_LOCK_ERROR);
    return call(ld);
}

} // namespace

int ldap_set_option(LDAP *ld, int option, const void *invalue)
{
    auto set = [&](LDAP *target) {
        const void *value = invalue;
        if (takes_int_pointer(target, option)) {
            if (!invalue)
                return ldap_fail(target, LDAP_PARAM_ERROR);
            value = reinterpret_cast<const void *>(static_cast<intptr_t>(*static_cast<const int *>(invalue)));
        }
        return ldap_set_option_direct(target, option, value);
    };
    return with_option_lock(ld, set);
}

int ldap_get_option(LDAP *ld, int option, void *outvalue)
{
    if (!outvalue)
        return LDAP_PARAM_ERROR;
    auto get = [&](LDAP *target) { return ldap_get_option_direct(target, option, outvalue); };
    return with_option_lock(ld, get);
}

NumericOptions ldap_numeric_options(const LDAP *ld)
{
    return {load_word(&ld->ld_sizelimit), load_word(&ld->ld_timelimit), load_word(&ld->ld_deref),
            load_word(&ld->ld_hoplimit), (load_word(&ld->ld_options) & LDAP_BITOPT_REFERRALS) != 0};
}

bool ldap_has_server_controls(const LDAP *ld) { return load_word(&ld->ld_sctrls) != nullptr; }

int ldap_get_option_held(LDAP *ld, int option, void *outvalue)
{
    LDAP_MUTEX_GUARD(guard, &ld->ld_mutex);
    if (!guard.locked())
        return ldap_fail(ld, LDAP_LOCK_ERROR);
    return outvalue ? ldap_get_option_direct(ld, option, outvalue) : LDAP_PARAM_ERROR;
}

int ldap_get_version(ldap_version_record *record)
{
    if (record) {
        std::memset(record, 0, sizeof *record);
        record->sdk_version = LDAP_LIBRARY_VERSION;
        record->protocol_version = 300;
        record->ssl_version = 300;
        record->security_level = 128;
        std::strncpy(record->build_id, "zor8ldap " ZLDAP_VERSION_TEXT " (C++20, Linux x86_64)",
                     sizeof record->build_id - 1);
        // No date, so that two builds of the same sources are the same bytes.
        record->build_date = "";
    }
    return LDAP_LIBRARY_VERSION;
}
