// ldap_ssl_settings.cpp - the settings a fresh secure socket gets from the
// session, shared by the ldaps set-up and StartTLS.
#include "tls/ldap_ssl_settings.h"

#include "base/environment.h"
#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "tls/ldap_ssl_env.h"

#include <cstdlib>
#include <cstring>

#define LDAP_MODULE "libraries/libldap/ldap_ssl"

namespace {

// The TLS 1.1 list is built in a buffer of 21 characters: ten codes at most.
constexpr size_t kTls11ListMax = 20;

// Sets a buffer attribute of the socket and traces the outcome: `done`
// takes the value (unless show_value is false) and the code, `failed` the
// code and its text. 0 or 115.
int set_list(zor_handle soc, int id, const char *value, const char *done, const char *failed, bool show_value = true)
{
    int rc = g_zorlib.attribute_set_buffer(soc, id, value, 0);
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, failed, rc, zorErrorText(rc));
        return LDAP_SECURE_BAD_PARAM;
    }
    if (show_value)
        LDAP_TRACE(TRC_API, done, value, rc);
    else
        LDAP_TRACE(TRC_API, done, rc);
    return LDAP_SUCCESS;
}

// The TLS 1.1 list: the pairs of the cipher text whose second character is
// neither 3 nor 6 (a last single character is kept and ends the walk),
// cut at ten codes.
void tls11_list(const char *ciphers, char (&list)[kTls11ListMax + 1])
{
    std::memset(list, 0, sizeof list);
    size_t used = 0;
    for (size_t i = 0; ciphers[i] && used + 2 <= kTls11ListMax; i += 2) {
        if (!ciphers[i + 1]) {
            list[used] = ciphers[i];
            break;
        }
        if (ciphers[i + 1] == '3' || ciphers[i + 1] == '6')
            continue;
        list[used++] = ciphers[i];
        list[used++] = ciphers[i + 1];
    }
}

struct NamedProtocol {
    const char *name;
    int id, on, off;
    const char *failed;
};

constexpr NamedProtocol kNamedProtocols[] = {
    {"SSLV3", ZOR_PROTOCOL_SSLV3, ZOR_SSLV3_ON, ZOR_SSLV3_OFF,
     "Error - open_ssl_connection(): zor_attribute_set_enum( SSLV3 ON/OFF ) rc=%d %s\n"},
    {"TLS10", ZOR_PROTOCOL_TLSV10, 1, 0, "Error - open_ssl_connection(): zor_attribute_set_enum( TLS10 ON/OFF ) rc=%d %s\n"},
    {"TLS11", ZOR_PROTOCOL_TLSV11, 1, 0, "Error - open_ssl_connection(): zor_attribute_set_enum( TLS11 ON/OFF ) rc=%d %s\n"},
    {"TLS12", ZOR_PROTOCOL_TLSV12, 1, 0, "Error - open_ssl_connection(): zor_attribute_set_enum( TLS12 ON/OFF ) rc=%d %s\n"},
};

} // namespace

int zor_toolkit_version()
{
    char *text = ldap_getenv("ZORLIB_CLIENT_VERSION");
    int version = text ? std::atoi(text) : 8;
    zldap::mem_free(text);
    return version;
}

zor_secure_record *new_secure_record()
{
    auto *rec = static_cast<zor_secure_record *>(zldap::mem_calloc(1, sizeof(zor_secure_record)));
    if (rec && LDAP_MUTEX_INIT(&rec->io_mutex) != 0) {
        zldap::mem_free(rec);
        rec = nullptr;
    }
    return rec;
}

void free_secure_record(zor_secure_record *rec)
{
    pthread_mutex_destroy(&rec->io_mutex);
    zldap::mem_free(rec);
}

int open_secure_socket(LDAP *ld, Sockbuf *sb, const char *trace_prefix)
{
    zor_secure_record *rec = new_secure_record();
    if (!rec)
        return LDAP_NO_MEMORY;
    int rc = g_zorlib.secure_soc_open(ld->ld_ssl_env->envHandle, &rec->soc);
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, "%szor_secure_soc_open() rc=%d %s\n", trace_prefix, rc, zorErrorText(rc));
        free_secure_record(rec);
        return LDAP_SECURE_INIT_FAILED;
    }
    sb->secure = rec;
    fber_drop_read_ahead(sb);
    return LDAP_SUCCESS;
}

int set_cipher_lists(LDAP *ld, zor_handle soc, int version, bool v3_list, const CipherListTraces &t)
{
    const char *ciphers = ld->ld_ssl_cipher;
    int rc = LDAP_SUCCESS;
    if (ciphers && v3_list)
        rc = set_list(soc, ZOR_V3_CIPHER_SPECS, ciphers, t.v3_done, t.v3_failed);
    if (ciphers && rc == LDAP_SUCCESS)
        rc = set_list(soc, ZOR_TLSV10_CIPHER_SPECS, ciphers, t.tls10_done, t.tls10_failed);
    if (ciphers && rc == LDAP_SUCCESS && version != kLegacyToolkit) {
        char list[kTls11ListMax + 1];
        tls11_list(ciphers, list);
        rc = set_list(soc, ZOR_TLSV11_CIPHER_SPECS, list, list[0] ? t.tls11_done : t.tls11_empty, t.tls11_failed,
                      list[0] != '\0');
    }
    if (rc == LDAP_SUCCESS && ld->ld_ssl_cipher_EX && version != kLegacyToolkit) {
        if (t.tls12_announce)
            LDAP_TRACE(TRC_API, t.tls12_announce, ld->ld_ssl_cipher_EX);
        rc = set_list(soc, ZOR_TLSV12_CIPHER_SPECS_EX, ld->ld_ssl_cipher_EX, t.tls12_done, t.tls12_failed);
    }
    return rc;
}

int set_protocol_switch(zor_handle soc, int id, int value, const char *done, const char *failed)
{
    int rc = g_zorlib.attribute_set_enum(soc, id, value);
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, failed, rc, zorErrorText(rc));
        return LDAP_SECURE_BAD_PARAM;
    }
    LDAP_TRACE(TRC_API, "%s", done);
    return LDAP_SUCCESS;
}

int set_named_protocols(zor_handle soc, const char *protocols, const char *prefix)
{
    LDAP_TRACE(TRC_API, "%sprotocol to [%s]\n", prefix, protocols);
    for (const NamedProtocol &p : kNamedProtocols) {
        bool on = std::strstr(protocols, p.name) != nullptr;
        int rc = g_zorlib.attribute_set_enum(soc, p.id, on ? p.on : p.off);
        if (rc != ZOR_OK) {
            LDAP_TRACE(TRC_ERROR, p.failed, rc, zorErrorText(rc));
            return LDAP_SECURE_BAD_PARAM;
        }
        LDAP_TRACE(TRC_API, "%sprotocol to [%s]%s\n", prefix, p.name, on ? "" : " OFF");
    }
    return LDAP_SUCCESS;
}
