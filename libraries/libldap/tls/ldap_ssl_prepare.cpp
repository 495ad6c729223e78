// ldap_ssl_prepare.cpp - the settings a new toolkit environment gets before
// it is initialised: session time-out, protocol and FIPS switches, PKCS#11
// token, key database with its password or stash file, the I/O callbacks
// and Suite B. Every failing toolkit call is traced with its code and text.
#include "tls/ldap_ssl_prepare.h"

#include "base/memory.h"
#include "base/trace.h"
#include "base/version.h"
#include "tls/ldap_ssl_env.h"
#include "tls/ldap_ssl_io.h"
#include "tls/ldap_ssl_modes.h"

#include <cstdio>
#include <cstring>

#define LDAP_MODULE "libraries/libldap/ldap_ssl"

namespace {

constexpr int kMaxSessionTimeout = 86400;
constexpr int kDefaultSessionTimeout = 43200;
constexpr char kInstallDir[] = "/opt/orn/ldap/V" ZLDAP_VERSION_TEXT;
constexpr char kDefaultKdbName[] = "ldapkey.kdb";

// The record every environment hands to its secure sockets: all their
// socket I/O goes through these.
constexpr ZorIoCallbacks kZorIoCallbacks = {client_ssl_read, client_ssl_write, nullptr, client_setSocketOpts,
                                            nullptr, nullptr};

// The toolkit's code of the call that failed, kept for the caller's reason.
struct Failure {
    int toolkit = ZOR_OK;
};

// Traces a failed toolkit call (format takes its code and text), keeps its
// code and returns result.
int toolkit_failed(Failure &failure, int rc, const char *format, int result)
{
    failure.toolkit = rc;
    LDAP_TRACE(TRC_ERROR, format, rc, zorErrorText(rc));
    return result;
}

// Closes and releases the current environment after a setting it can't do
// without was refused.
int release_bad_environment(uint32_t mask, const char *text)
{
    LDAP_TRACE(mask, "%s", text);
    freeZorEnvRef(g_SSL_currentEnvRef);
    return LDAP_SECURE_INIT_FAILED;
}

// Returns the toolkit's code rc, tracing text as an error when it refused.
int trace_refusal(int rc, const char *text)
{
    if (rc != ZOR_OK)
        LDAP_TRACE(TRC_ERROR, "%s", text);
    return rc;
}

int setZorlibEnum(zor_handle env, int id, int value)
{
    LDAP_TRACE(TRC_API, "setZorlibEnum: Setting ENUM ID [%d] to [%d]\n", id, value);
    int rc = g_zorlib.attribute_set_enum(env, id, value);
    if (rc != ZOR_OK)
        LDAP_TRACE(TRC_ERROR, "Error - setiZorlibEnum(): setting ENUM ID [%d] to [%d] failed ", id, value);
    return rc;
}

int setPKCS11LibPath(zor_handle env, const char *path)
{
    LDAP_TRACE(TRC_API, "setPKCS11LibPath: Setting LibPath [%s] in Zorlib Env\n", path);
    int rc = g_zorlib.attribute_set_buffer(env, ZOR_PKCS11_DRIVER_PATH, path, 0);
    if (rc != ZOR_OK)
        LDAP_TRACE(TRC_ERROR,
                   "Error - setPKCS11LibPath() setting PKCS11 driver path to %s in Zorlib environment\n",
                   path);
    return rc;
}

int setPKCS11TokenPW(zor_handle env, const char *password)
{
    if (!password)
        return ZOR_OK;
    return trace_refusal(g_zorlib.attribute_set_buffer(env, ZOR_PKCS11_TOKEN_PWD, password, 0),
                         "Error - setPKCS11TokenPW: setting PKCS#11 Token Password failed\n");
}

int setPKCS11TokenLabel(zor_handle env, const char *label)
{
    if (!label)
        return ZOR_OK;
    LDAP_TRACE(TRC_API, "setPKCS11TokenLabel: Setting PKCS#11 Token Label [%s] in Zorlib Env\n", label);
    int rc = g_zorlib.attribute_set_buffer(env, ZOR_PKCS11_TOKEN_LABEL, label, 0);
    if (rc != ZOR_OK)
        LDAP_TRACE(TRC_ERROR,
                   "Error - setPKCS11TokenLabel setting PKCS11 Token Label to %s inZorlib environment\n",
                   label);
    return rc;
}

// One accelerator setting per bit of mode, digest (2), random (4), then
// symmetric (1).
int setPKCS11AccMode(zor_handle env, int mode)
{
    LDAP_TRACE(TRC_API, "setPKCS11AccMode Enabling accelerator mode=[%d]\n", mode);
    constexpr struct {
        int bit;
        int value;
    } kAccelerators[] = {
        {2, ZOR_ACCELERATOR_DIGEST_ON}, {4, ZOR_ACCELERATOR_RANDOM_ON}, {1, ZOR_ACCELERATOR_SYMMETRIC_ON}};
    for (const auto &accelerator : kAccelerators) {
        int rc =
            mode & accelerator.bit ? setZorlibEnum(env, ZOR_PKCS11_ACCELERATOR, accelerator.value) : ZOR_OK;
        if (rc != ZOR_OK)
            return rc;
    }
    return ZOR_OK;
}

// Sets one of the FIPS switches. A refusal is traced (format takes the
// toolkit's code and text) and releases the environment.
int set_fips_switch(zor_handle env, int id, int value, const char *format, Failure &failure)
{
    int rc = g_zorlib.attribute_set_enum(env, id, value);
    if (rc == ZOR_OK)
        return LDAP_SUCCESS;
    toolkit_failed(failure, rc, format, 0);
    return release_bad_environment(TRC_API, "prepare_zor_init_data: Delete bad Zorlib environment reference.\n");
}

// The session time-out, TLS version 1, and the FIPS settings. A refused
// protocol or FIPS setting releases the environment.
int set_protocols(zor_handle env, int timeout, Failure &failure)
{
    int rc = g_zorlib.attribute_set_numeric_value(env, ZOR_SESSION_TIMEOUT,
                                                  timeout ? timeout : kDefaultSessionTimeout);
    if (rc != ZOR_OK)
        return toolkit_failed(
            failure, rc, "Error - prepare_zor_init_data: zor_attribute_set_enum(...timeout...) rc=%d %s\n",
            LDAP_SECURE_BAD_PARAM);
    rc = g_zorlib.attribute_set_enum(env, ZOR_PROTOCOL_TLSV1, ZOR_TLSV1_ON);
    if (rc != ZOR_OK) {
        toolkit_failed(failure, rc, "Error - prepare_zor_init_data: zor_attribute_set_enum() rc=%d %s\n", 0);
        return release_bad_environment(
            TRC_ERROR, "Error - prepare_zor_init_data: Delete bad Zorlib environment reference.\n");
    }
    bool fips = g_SSL_FIPS_mode == 1;
    if (fips) {
        LDAP_TRACE(TRC_API,
                   "prepare_zor_init_data: setting base crypto library for FIPS to ZOR_BASE_CRYPTO_VOC\n");
        rc = set_fips_switch(env, ZOR_BASE_CRYPTO_LIBRARY, ZOR_BASE_CRYPTO_VOC,
                             "Error - prepare_zor_init_data: "
                             "zor_attribute_set_enum(...ZOR_BASE_CRYPTO_LIBRARY...) rc=%d %s\n",
                             failure);
        if (rc != LDAP_SUCCESS)
            return rc;
    }
    LDAP_TRACE(TRC_API, "prepare_zor_init_data: setting %s\n",
               fips ? "ZOR_FIPS_MODE_PROCESSING_ON" : "ZOR_FIPS_MODE_PROCESSING_OFF");
    return set_fips_switch(env, ZOR_FIPS_MODE_PROCESSING,
                           fips ? ZOR_FIPS_MODE_PROCESSING_ON : ZOR_FIPS_MODE_PROCESSING_OFF,
                           "Error - prepare_zor_init_data: "
                           "zor_attribute_set_enum(...ZOR_FIPS_MODE_PROCESSING...) rc=%d %s\n",
                           failure);
}

int set_pkcs11(zor_handle env, const LDAPPkcs11Info *pkcs11, Failure &failure)
{
    if (pkcs11->keyStorage != 1 && pkcs11->acceleratorMode == 0) {
        LDAP_TRACE(TRC_ERROR, "prepare_zor_init_data: Need to set PKCS#11 Keystorage or Acceleration mode\n");
        return LDAP_SECURE_BAD_PARAM;
    }
    int rc = setPKCS11LibPath(env, pkcs11->libPath);
    if (rc == ZOR_OK)
        rc = setPKCS11TokenPW(env, pkcs11->tokenPassword);
    if (rc == ZOR_OK)
        rc = setPKCS11TokenLabel(env, pkcs11->tokenLabel);
    if (rc == ZOR_OK)
        rc = setPKCS11AccMode(env, pkcs11->acceleratorMode);
    failure.toolkit = rc;
    return rc == ZOR_OK ? LDAP_SUCCESS : LDAP_SECURE_BAD_PARAM;
}

// "/opt/orn/ldap/V6.3.1/etc/ldapkey.kdb", or NULL.
char *default_kdb_name()
{
    size_t size = sizeof kInstallDir + sizeof "/etc/" + sizeof kDefaultKdbName;
    char *name = static_cast<char *>(zldap::mem_malloc(size));
    if (name && std::snprintf(name, size, "%s%cetc%c%s", kInstallDir, '/', '/', kDefaultKdbName) < 0) {
        zldap::mem_free(name);
        name = nullptr;
    }
    return name;
}

// The key database given, or the default one (kdb NULL). *at_once is set
// when the default name can't be made: the preparation ends there.
int set_key_database(zor_handle env, const char *kdb, Failure &failure, bool *at_once)
{
    if (kdb) {
        LDAP_TRACE(TRC_API, "prepare_zor_init_data: set key database filename to [%s]\n", kdb);
        int rc = g_zorlib.attribute_set_buffer(env, ZOR_KEYRING_FILE, kdb, 0);
        return rc == ZOR_OK
                   ? LDAP_SUCCESS
                   : toolkit_failed(
                         failure, rc,
                         "Error - prepare_zor_init_data: zor_attribute_set_buffer(...kdb...) rc=%d %s\n",
                         LDAP_SECURE_BAD_PARAM);
    }
    char *name = default_kdb_name();
    if (!name) {
        *at_once = true;
        return LDAP_SECURE_KEYRING_MISSING;
    }
    LDAP_TRACE(TRC_API, "prepare_zor_init_data: set key database filename to default=[%s]\n", name);
    int rc = g_zorlib.attribute_set_buffer(env, ZOR_KEYRING_FILE, name, 0);
    zldap::mem_free(name);
    return rc == ZOR_OK ? LDAP_SUCCESS
                        : toolkit_failed(
                              failure, rc,
                              "Error - prepare_zor_init_data: zor_attribute_get_buffer(...kdb...) rc=%d %s\n",
                              LDAP_SECURE_KEYRING_MISSING);
}

int set_password(zor_handle env, const char *password, Failure &failure)
{
    LDAP_TRACE(TRC_API, "prepare_zor_init_data: set key database password\n");
    char *copy = zldap::mem_strdup(password);
    if (!copy)
        return LDAP_NO_MEMORY;
    int rc = g_zorlib.attribute_set_buffer(env, ZOR_KEYRING_PW, copy, 0);
    zldap::mem_free(copy);
    return rc == ZOR_OK
               ? LDAP_SUCCESS
               : toolkit_failed(
                     failure, rc,
                     "Error - prepare_zor_init_data: zor_attribute_set_buffer(...kdb-pw...) rc=%d %s\n",
                     LDAP_SECURE_PASSWORD_MISSING);
}

// The key database name with everything after its last "." (anywhere in
// the path) replaced by "sth", or ".sth" appended when it has no ".".
char *stash_file_name(const char *kdb)
{
    const char *dot = std::strrchr(kdb, '.');
    size_t stem = dot ? static_cast<size_t>(dot - kdb) : std::strlen(kdb);
    char *name = static_cast<char *>(zldap::mem_malloc(stem + sizeof ".sth"));
    if (name) {
        std::memcpy(name, kdb, stem);
        std::memcpy(name + stem, ".sth", sizeof ".sth");
    }
    return name;
}

// Without a password the toolkit reads it from the key database's stash file.
int set_stash_file(zor_handle env, Failure &failure)
{
    const char *kdb = nullptr;
    int length = 0;
    int rc = g_zorlib.attribute_get_buffer(env, ZOR_KEYRING_FILE, &kdb, &length);
    if (rc != ZOR_OK)
        return toolkit_failed(failure, rc,
                              "prepare_zor_init_data: zor_attribute_get_buffer(...kdb...) rc=%d %s\n",
                              LDAP_SECURE_KEYRING_MISSING);
    if (!kdb) {
        LDAP_TRACE(TRC_ERROR, "prepare_zor_init_data: Creating stash file name\n");
        return LDAP_NO_MEMORY;
    }
    char *stash = stash_file_name(kdb);
    if (!stash) {
        LDAP_TRACE(TRC_ERROR, "prepare_zor_init_data: create stash file name failed:[%s]\n", kdb);
        return LDAP_NO_MEMORY;
    }
    LDAP_TRACE(TRC_API, "prepare_zor_init_data: set stash file name=[%s]\n", stash);
    rc = g_zorlib.attribute_set_buffer(env, ZOR_KEYRING_STASH_FILE, stash, 0);
    zldap::mem_free(stash);
    return rc == ZOR_OK
               ? LDAP_SUCCESS
               : toolkit_failed(
                     failure, rc,
                     "Error - prepare_zor_init_data: zor_attribute_set_buffer(...stashfile...) rc=%d %s\n",
                     LDAP_SECURE_KEYRING_MISSING);
}

int set_callbacks(zor_handle env, Failure &failure)
{
    ZorIoCallbacks callbacks = kZorIoCallbacks;
    int rc = g_zorlib.attribute_set_callback(env, ZOR_IO_CALLBACK, &callbacks);
    if (rc == ZOR_OK)
        return LDAP_SUCCESS;
    failure.toolkit = rc;
    LDAP_TRACE(TRC_ERROR, "Error - prepare_zor_init_data: setting I/O callback\n");
    return LDAP_OTHER;
}

// Steps after the time-out check, in order; the first failure ends them.
int prepare_steps(zor_handle env, const char *kdb, const char *password, int timeout,
                  const LDAPPkcs11Info *pkcs11, Failure &failure, bool *at_once)
{
    int rc = set_protocols(env, timeout, failure);
    if (rc == LDAP_SUCCESS && pkcs11)
        rc = set_pkcs11(env, pkcs11, failure);
    if (rc == LDAP_SUCCESS)
        rc = set_key_database(env, kdb, failure, at_once);
    if (rc == LDAP_SUCCESS)
        rc = password && *password ? set_password(env, password, failure) : set_stash_file(env, failure);
    if (rc == LDAP_SUCCESS)
        rc = set_callbacks(env, failure);
    if (rc == LDAP_SUCCESS) {
        // Neither result ends the preparation.
        setSuiteBMode(env);
        if (g_SSL_SuiteB_mode == 0)
            setExtnSigalg(env);
    }
    return rc;
}

} // namespace

int prepare_zor_init_data(const char *kdb, const char *password, int timeout, int *reason,
                          const LDAPPkcs11Info *pkcs11, bool *reported)
{
    LDAP_TRACE(TRC_API, "prepare_zor_init_data\n");
    int remembered = reason ? *reason : 0;
    *reported = false;
    if (timeout > kMaxSessionTimeout)
        return LDAP_SECURE_BAD_PARAM;
    Failure failure;
    bool at_once = false;
    int rc = prepare_steps(g_SSL_currentEnvRef->envHandle, kdb, password, timeout, pkcs11, failure, &at_once);
    if (at_once)
        return rc;
    LDAP_TRACE(TRC_API, "prepare_zor_init_data: rc=%d\n", rc);
    if (reason)
        *reason = failure.toolkit != ZOR_OK ? failure.toolkit : remembered;
    *reported = true;
    return rc;
}

int initZorlibEnv(zor_handle env, const char *password, const LDAPPkcs11Info *pkcs11)
{
    LDAP_TRACE(TRC_API, "initZorlibEnv: initialize the server Zorlib environment\n");
    int rc = g_zorlib.environment_init(env);
    if (rc != ZOR_ERR_FIPS_RETRY)
        return trace_refusal(rc, "Error - initZorlibEnv(): pZorEnvInit()\n");
    // The key database is not usable in FIPS mode: once more without it.
    rc = trace_refusal(g_zorlib.attribute_set_enum(env, ZOR_FIPS_MODE_PROCESSING, ZOR_FIPS_MODE_PROCESSING_OFF),
                       "Error - initZorlibEnv(): pZorAttributeSetEnum(ZOR_FIPS_MODE_PROCESSING_OFF)\n");
    if (rc == ZOR_OK)
        rc = trace_refusal(
            g_zorlib.attribute_set_enum(env, ZOR_SSL_FIPS_MODE_PROCESSING, ZOR_SSL_FIPS_MODE_PROCESSING_ON),
            "Error - initZorlibEnv(): pZorAttributeSetEnum(ZOR_SSL_FIPS_MODE_PROCESSING_ON)\n");
    if (rc == ZOR_OK && pkcs11 && pkcs11->tokenPassword)
        rc = trace_refusal(g_zorlib.attribute_set_buffer(env, ZOR_PKCS11_TOKEN_PWD, pkcs11->tokenPassword, 0),
                           "Error - initZorlibEnv(): pZorAttributeSetBuffer(ZOR_PKCS11_TOKEN_PWD)\n");
    else if (rc == ZOR_OK && !pkcs11)
        rc = trace_refusal(g_zorlib.attribute_set_buffer(env, ZOR_KEYRING_PW, password, 0),
                           "Error - initZorlibEnv(): pZorAttributeSetBuffer(ZOR_KEYRING_PW)\n");
    if (rc == ZOR_OK)
        rc = trace_refusal(g_zorlib.environment_init(env), "Error - initZorlibEnv(): pZorEnvInit()\n");
    return rc;
}
