// ldap_ssl_init.cpp - the client and environment initialisations: load the
// toolkit, open a new current environment, prepare and initialise it. The
// client form succeeds once per process; the environment form may be
// repeated, each time replacing the current environment. Both run under
// ldap_ssl_mutex from start to end.
#include "base/ldap_lock.h"
#include "base/trace.h"
#include "tls/ldap_ssl_env.h"
#include "tls/ldap_ssl_load.h"
#include "tls/ldap_ssl_prepare.h"
#include "zor8ldap_api.h"

#define LDAP_MODULE "libraries/libldap/ldap_ssl"

namespace {

// The trace texts in which the two forms differ.
struct InitTexts {
    const char *loading;
    const char *opening;
    const char *open_failed; // code and text
    const char *delete_bad;
    uint32_t delete_bad_mask;
    const char *initialising;
    const char *init_failed; // code and text
};

constexpr InitTexts kClientTexts = {
    "ldap_ssl_client_init_setup: Loading Zorlib functions\n",
    "ldap_ssl_client_init_setup: Opening Zorlib environment\n",
    "ldap_ssl_client_init_setup: zor_environment_open() rc=%d %s\n",
    "Error - ldap_ssl_client_init_setup: Delete bad Zorlib environment reference.\n",
    TRC_ERROR,
    "ldap_ssl_client_init_setup: Initialize Zorlib environment...\n",
    "Error - ldap_ssl_client_init_setup: zor_environment_init() returns rc=%d %s\n",
};

constexpr InitTexts kEnvironmentTexts = {
    "ldap_ssl_environment_init_setup: Loading Zorlib functions... \n",
    "ldap_ssl_environment_init_setup: Opening Zorlib environment... \n",
    "Error - ldap_ssl_environment_init_setup: zor_environment_open() rc=%d %s\n",
    "ldap_ssl_environment_init_setup: Delete bad Zorlib environment reference.\n",
    TRC_API,
    "ldap_ssl_environment_init_setup: Initialize Zorlib environment...\n",
    "Error - ldap_ssl_environment_init_setup(): zor_environment_init() returns rc=%d %s\n",
};

void set_reason(int *reason, int value)
{
    if (reason)
        *reason = value;
}

// Loading, opening, preparing and initialising a new current environment.
// The caller holds ldap_ssl_mutex.
int init_environment(const InitTexts &texts, const char *kdb, const char *password, int timeout, int *reason,
                     const LDAPPkcs11Info *pkcs11)
{
    LDAP_TRACE(TRC_API, "%s", texts.loading);
    int rc = loadXeltShared();
    if (rc != LDAP_SUCCESS) {
        set_reason(reason, rc);
        return rc;
    }
    LDAP_TRACE(TRC_API, "%s", texts.opening);
    rc = createZorEnvRef();
    if (rc != LDAP_SUCCESS) {
        set_reason(reason, 0);
        return rc;
    }
    ZorEnvRef *env = g_SSL_currentEnvRef;
    int toolkit = g_zorlib.environment_open(&env->envHandle);
    if (toolkit != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, texts.open_failed, toolkit, zorErrorText(toolkit));
        LDAP_TRACE(texts.delete_bad_mask, "%s", texts.delete_bad);
        freeZorEnvRef(env);
        set_reason(reason, toolkit);
        return LDAP_SECURE_INIT_FAILED;
    }
    bool reported = false;
    rc = prepare_zor_init_data(kdb, password, timeout, reason, pkcs11, &reported);
    if (rc != LDAP_SUCCESS) {
        if (!reported)
            set_reason(reason, 0);
        return rc;
    }
    LDAP_TRACE(TRC_API, "%s", texts.initialising);
    toolkit = initZorlibEnv(env->envHandle, password, pkcs11);
    if (toolkit != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, texts.init_failed, toolkit, zorErrorText(toolkit));
        set_reason(reason, toolkit);
        return LDAP_SECURE_INIT_FAILED;
    }
    g_SSL_initCount++;
    set_reason(reason, 0);
    return LDAP_SUCCESS;
}

// The texts and codes of the PKCS#11 entry checks in the two forms.
struct Pkcs11Texts {
    const char *accelerator; // the mode
    int accelerator_rc;
    const char *library_path;
    const char *token_label;
    const char *token_password;
};

constexpr Pkcs11Texts kClientPkcs11 = {
    "ldap_ssl_pkcs11_client_init: Accelerator mode (0-7) not set to appropriate value: %d\n",
    LDAP_SECURE_BAD_PARAM,
    "ldap_ssl_pkcs11_client_init: PKCS#11 Library path is NULL\n",
    "ldap_ssl_pkcs11_client_init: PKCS#11 Token Label is NULL\n",
    "ldap_ssl_pkcs11_client_init: PKCS#11 Token Password toaccess crypto device is NULL\n",
};

constexpr Pkcs11Texts kEnvironmentPkcs11 = {
    "ldap_ssl_pkcs11_client_init: Accelerator mode (0-7) not set to appropriate value %d \n",
    LDAP_PARAM_ERROR,
    "ldap_ssl_pkcs11_environment_init: PKCS#11 Library path is NULL\n",
    "ldap_ssl_pkcs11_environment_init: Token Label is NULL\n",
    "ldap_ssl_pkcs11_environment_init: Token Password to access crypto device is NULL\n",
};

// 0 when the settings can be used with this key database; the token's
// label and password are needed only when the keys are on the token and
// there is no key database.
int check_pkcs11(const Pkcs11Texts &texts, const LDAPPkcs11Info *pkcs11, const char *kdb)
{
    const char *refusal = nullptr;
    bool on_token_only = pkcs11->keyStorage == 1 && !kdb;
    if (pkcs11->acceleratorMode < 0 || pkcs11->acceleratorMode > 7) {
        LDAP_TRACE(TRC_ERROR, texts.accelerator, pkcs11->acceleratorMode);
        return texts.accelerator_rc;
    }
    if (pkcs11->keyStorage != 0 && pkcs11->keyStorage != 1)
        refusal = "ldap_ssl_pkcs11_client_init: PKCS#11 Keystorage must be [0/1]\n";
    else if (!pkcs11->libPath)
        refusal = texts.library_path;
    else if (on_token_only && !pkcs11->tokenLabel)
        refusal = texts.token_label;
    else if (on_token_only && !pkcs11->tokenPassword)
        refusal = texts.token_password;
    if (!refusal)
        return LDAP_SUCCESS;
    LDAP_TRACE(TRC_ERROR, "%s", refusal);
    return LDAP_SECURE_BAD_PARAM;
}

} // namespace

int ldap_ssl_client_init_setup(const char *kdb, const char *password, int timeout, int *reason,
                               const LDAPPkcs11Info *pkcs11)
{
    zldap::trace_setup();
    LDAP_TRACE(TRC_API, "ldap_ssl_client_init_setup\n");
    ldap_init_all_mutex_once();
    ldap_lock_ssl_mutex();
    int rc;
    if (g_SSL_initCount != 0) {
        LDAP_TRACE(TRC_API, "ldap_ssl_client_init_setup: Multiple calls have been made.  Attempt %d.\n",
                   static_cast<int>(g_SSL_initCount));
        set_reason(reason, 0);
        rc = LDAP_SECURE_INIT_DONE;
    } else {
        rc = init_environment(kClientTexts, kdb, password, timeout, reason, pkcs11);
    }
    ldap_unlock_ssl_mutex();
    return rc;
}

int ldap_ssl_environment_init_setup(const char *kdb, const char *password, int timeout, int *reason,
                                    const LDAPPkcs11Info *pkcs11)
{
    zldap::trace_setup();
    LDAP_TRACE(TRC_API, "ldap_ssl_environment_init_setup\n");
    set_reason(reason, 0);
    ldap_init_all_mutex_once();
    ldap_lock_ssl_mutex();
    int rc = init_environment(kEnvironmentTexts, kdb, password, timeout, reason, pkcs11);
    ldap_unlock_ssl_mutex();
    return rc;
}

int ldap_ssl_client_init(const char *kdb, const char *password, int timeout, int *reason)
{
    return ldap_ssl_client_init_setup(kdb, password, timeout, reason, nullptr);
}

int ldap_ssl_environment_init(const char *kdb, const char *password, int timeout, int *reason)
{
    return ldap_ssl_environment_init_setup(kdb, password, timeout, reason, nullptr);
}

int ldap_ssl_pkcs11_client_init(const char *kdb, const char *password, int timeout, int *reason,
                                const LDAPPkcs11Info *pkcs11, void *)
{
    int rc = pkcs11 ? check_pkcs11(kClientPkcs11, pkcs11, kdb) : LDAP_SUCCESS;
    return rc != LDAP_SUCCESS ? rc : ldap_ssl_client_init_setup(kdb, password, timeout, reason, pkcs11);
}

int ldap_ssl_pkcs11_environment_init(const char *kdb, const char *password, int timeout, int *reason,
                                     const LDAPPkcs11Info *pkcs11, void *)
{
    int rc = pkcs11 ? check_pkcs11(kEnvironmentPkcs11, pkcs11, kdb) : LDAP_SUCCESS;
    return rc != LDAP_SUCCESS ? rc : ldap_ssl_environment_init_setup(kdb, password, timeout, reason, pkcs11);
}
