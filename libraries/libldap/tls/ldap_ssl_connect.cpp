// ldap_ssl_connect.cpp - putting the secure layer on a connected socket:
// the toolkit's secure socket gets the descriptor, the client key label,
// the session's cipher lists and protocol switches and the I/O callbacks'
// record; then the handshake runs and the record goes to read/write mode.
#include "tls/ldap_ssl_connect.h"

#include "base/trace.h"
#include "core/ldap_error.h"
#include "tls/ldap_ssl_env.h"
#include "tls/ldap_ssl_handshake_reason.h"
#include "tls/ldap_ssl_modes.h"
#include "tls/ldap_ssl_settings.h"
#include "tls/ldap_ssl_userdata.h"

#define LDAP_MODULE "libraries/libldap/ldap_ssl"

namespace {

constexpr CipherListTraces kCipherTraces = {
    "open_ssl_connection(): zor_attribute_set_buffer(...ZOR_V3_CIPHER_SPECS - ciphers %s...) rc=%d \n",
    "Error - open_ssl_connection(): zor_attribute_set_buffer(...ZOR_V3_CIPHER_SPECS - ciphers...) rc=%d %s\n",
    "open_ssl_connection(): zor_attribute_set_buffer(...ZOR_TLSV10_CIPHER_SPECS - ciphers %s...) rc=%d \n",
    "Error - open_ssl_connection(): zor_attribute_set_buffer(...ZOR_TLSV10_CIPHER_SPECS - ciphers...) rc=%d %s\n",
    "open_ssl_connection(): zor_attribute_set_buffer(...ZOR_TLSV11_CIPHER_SPECS - ciphers %s...) rc=%d \n",
    "open_ssl_connection(): zor_attribute_set_buffer(...ZOR_TLSV11_CIPHER_SPECS - ciphers <null>...) rc=%d \n",
    "Error - open_ssl_connection(): zor_attribute_set_buffer(...ZOR_TLSV11_CIPHER_SPECS - ciphers...) rc=%d %s\n",
    "open_ssl_connection(): ld->ld_ssl_cipher_EX == <%s>.\n",
    "open_ssl_connection(): zor_attribute_set_buffer(...ZOR_TLSV12_CIPHER_SPECS_EX - ciphers %s...) rc=%d \n",
    "Error - open_ssl_connection(): zor_attribute_set_buffer(...ZOR_TLSV12_CIPHER_SPECS_EX - ciphers...) rc=%d %s\n",
};

// Step 8: the protocol switches. 0 or 115.
int set_protocols(LDAP *ld, zor_handle soc, int version)
{
    int rc = g_zorlib.attribute_set_enum(soc, ZOR_PROTOCOL_SSLV2, ZOR_SSLV2_OFF);
    if (rc != ZOR_OK) // SSL V2 is never negotiated: its switch failing changes nothing
        LDAP_TRACE(TRC_ERROR, "Error - open_ssl_connection(): zor_attribute_set_enum( SSLV2 OFF ) rc=%d %s\n", rc,
                   zorErrorText(rc));
    const char *protocols = ld->ld_ssl_protocols;
    if (protocols && version != kLegacyToolkit)
        return set_named_protocols(soc, protocols, "open_ssl_connection(): ");
    LDAP_TRACE(TRC_API, "open_ssl_connection(): protocol to [SSLV3, TLSV10]\n");
    rc = set_protocol_switch(soc, ZOR_PROTOCOL_SSLV3, ZOR_SSLV3_ON, "open_ssl_connection(): protocol to [SSLV3] \n",
                    "Error - open_ssl_connection(): zor_attribute_set_enum( SSLV3 ON ) rc=%d %s\n");
    if (rc != LDAP_SUCCESS)
        return rc;
    const char *tls10_failed = "Error - open_ssl_connection(): zor_attribute_set_enum( TLS10 ON ) rc=%d %s\n";
    if (version == kLegacyToolkit)
        return set_protocol_switch(soc, ZOR_PROTOCOL_TLSV1, ZOR_TLSV1_ON, "open_ssl_connection(): protocol to [TLS10] \n",
                          tls10_failed);
    rc = set_protocol_switch(soc, ZOR_PROTOCOL_TLSV10, 1, "open_ssl_connection(): protocol to [TLS10] \n", tls10_failed);
    if (rc == LDAP_SUCCESS)
        rc = set_protocol_switch(soc, ZOR_PROTOCOL_TLSV11, 0, "open_ssl_connection(): protocol to [TLS11] OFF\n",
                        "Error - open_ssl_connection(): zor_attribute_set_enum( TLS11 OFF ) rc=%d %s\n");
    if (rc == LDAP_SUCCESS)
        rc = set_protocol_switch(soc, ZOR_PROTOCOL_TLSV12, 0, "open_ssl_connection(): protocol to [TLS12] OFF\n",
                        "Error - open_ssl_connection(): zor_attribute_set_enum( TLS12 OFF ) rc=%d %s\n");
    return rc;
}

// Steps 3 to 9: everything the secure socket needs before the handshake.
// 0, 115 or the toolkit's code for a refused label.
int configure_socket(LDAP *ld, Sockbuf *sb, int version)
{
    zor_handle soc = sb->secure->soc;
    LDAP_TRACE(TRC_API, "open_ssl_connection(): set sd=%d\n", sb->sd);
    int rc = g_zorlib.attribute_set_numeric_value(soc, ZOR_FD, sb->sd);
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, "Error - open_ssl_connection(): zor_attribute_set_numeric() rc=%d %s\n", rc,
                   zorErrorText(rc));
        return LDAP_SECURE_BAD_PARAM;
    }
    if (ld->ssl_cert_label) {
        LDAP_TRACE(TRC_API, "open_ssl_connection(): set certificate label to [%s]\n", ld->ssl_cert_label);
        rc = g_zorlib.attribute_set_buffer(soc, ZOR_KEYRING_LABEL, ld->ssl_cert_label, 0);
        if (rc != ZOR_OK) {
            LDAP_TRACE(TRC_ERROR, "Error - open_ssl_connection(): zor_attribute_set_buffer(...certlabel...) rc=%d.\n", rc);
            return rc;
        }
    }
    int suiteb = g_SSL_SuiteB_mode.load();
    if ((suiteb & ~0x40) == 128) {
        // The environment carries the Suite B settings.
        LDAP_TRACE(TRC_API, "open_ssl_connection(): suite b %d mode is enabled\n", suiteb);
        LDAP_TRACE(TRC_API, "open_ssl_connection(): protocol to [TLS12]\n");
        return LDAP_SUCCESS;
    }
    LDAP_TRACE(TRC_API, "open_ssl_connection(): ld->ld_ssl_cipher == <%s>.\n", trace_str(ld->ld_ssl_cipher, "null"));
    rc = set_cipher_lists(ld, soc, version, g_SSL_FIPS_mode.load() != 1, kCipherTraces);
    if (rc != LDAP_SUCCESS || (rc = set_protocols(ld, soc, version)) != LDAP_SUCCESS)
        return rc;
    rc = setZorUserData(sb, nullptr, 1, kZorConnectionSsl, kZorEnvClient);
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, "ERROR - open_ssl_connection: setZorUserData failed: %d \n", rc);
        LDAP_TRACE(TRC_ERROR,
                   "Error - open_ssl_connection(): zor_secure_soc_init was not called. zor_secure_soc_init() rc=%d %s\n",
                   LDAP_SECURE_BAD_PARAM, zorErrorText(LDAP_SECURE_BAD_PARAM));
        return LDAP_SECURE_BAD_PARAM;
    }
    return LDAP_SUCCESS;
}

// Steps 10 and 11: the handshake and what it settled. 0, 116, or the
// toolkit's code when the protocol in use can't be read back.
int handshake(LDAP *ld, zor_handle soc)
{
    int rc = g_zorlib.secure_soc_init(soc);
    note_handshake_reason(rc);
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, "Error - open_ssl_connection(): zor_secure_soc_init() rc=%d %s\n", rc, zorErrorText(rc));
        ldap_set_error_direct(ld, LDAP_SECURE_CONNECT_FAILED, nullptr, nullptr);
        ldap_set_ext_error_direct(ld, LDAP_SECURE_CONNECT_FAILED);
        return LDAP_SECURE_CONNECT_FAILED;
    }
    const char *text = nullptr;
    int length = 0;
    if (g_zorlib.attribute_get_buffer(soc, ZOR_CONNECTION_CIPHER, &text, &length) == ZOR_OK)
        LDAP_TRACE(TRC_API, "In open_ssl_connection(): cipher used %c%c\n", text && length > 0 ? text[0] : ' ',
                   text && length > 1 ? text[1] : ' ');
    if (g_zorlib.attribute_get_buffer(soc, ZOR_CONNECTION_CIPHER_NAME, &text, &length) == ZOR_OK)
        LDAP_TRACE(TRC_API, "In open_ssl_connection(): cipher used %s\n", trace_str(text, " "));
    text = nullptr;
    rc = g_zorlib.attribute_get_buffer(soc, ZOR_CONNECTION_PROTOCOL, &text, &length);
    LDAP_TRACE(TRC_API, "In open_ssl_connection(): protocol used %s\n", trace_str(text, " "));
    return rc;
}

} // namespace

int open_ssl_connection(LDAP *ld, Sockbuf *sb)
{
    if (!g_zorlib.secure_soc_open) {
        LDAP_TRACE(TRC_ERROR,
                   "Error - open_ssl_connection(): Could not open ssl connection because Zorlib was not loaded\n");
        return LDAP_SECURE_LIB_MISSING;
    }
    // A session made secure by an ldaps URL before any environment existed
    // has none to open a secure socket in. It must not go on in clear.
    if (!ld->ld_ssl_env) {
        LDAP_TRACE(TRC_ERROR, "Error - open_ssl_connection(): no Zorlib environment for this session\n");
        return LDAP_SECURE_INIT_MISSING;
    }
    int version = zor_toolkit_version();
    int rc = open_secure_socket(ld, sb, "Error - open_ssl_connection(): ");
    if (rc != LDAP_SUCCESS)
        return rc;
    rc = configure_socket(ld, sb, version);
    if (rc == LDAP_SUCCESS)
        rc = handshake(ld, sb->secure->soc);
    if (rc != LDAP_SUCCESS) {
        LDAP_TRACE(TRC_ERROR,
                   "In open_ssl_connection(): rc: %d (%s) closing ssl session and freeing socket buffer resources.\n",
                   rc, zorErrorText(rc));
        ssl_close_direct(sb);
        return rc;
    }
    rc = setZorUserDatahandshakeMode(sb, nullptr, 0);
    if (rc != 0) {
        LDAP_TRACE(TRC_ERROR, "Error -  open_ssl_connection setZorUserDatahandshakeMode OFF failed. rc: %d\n", rc);
        ssl_close_direct(sb);
    }
    return rc;
}

void ssl_close_direct(Sockbuf *sb)
{
    if (!sb || !sb->secure)
        return;
    int rc = g_zorlib.secure_soc_close(&sb->secure->soc);
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, "In ssl_close_direct(): zor_secure_soc_close() rc=%d %s\n", rc, zorErrorText(rc));
        return;
    }
    free_secure_record(sb->secure);
    sb->secure = nullptr;
}
