// ldap_tls_handshake.cpp - StartTLS's secure set-up. It follows the ldaps
// set-up with its own defaults: the SSL V3 list is always set, and without
// a protocol text SSL V3 is switched off. Once the server has accepted
// StartTLS nothing more may go in clear, so the secure record stays on the
// connection whatever happens after it is made.
#include "tls/ldap_tls_handshake.h"

#include "base/trace.h"
#include "core/ldap_error.h"
#include "tls/ldap_ssl_env.h"
#include "tls/ldap_ssl_handshake_reason.h"
#include "tls/ldap_ssl_settings.h"
#include "tls/ldap_ssl_userdata.h"

#define LDAP_MODULE "libraries/libldap/ldap_tls"

namespace {

// The reason a refused certificate label leaves as the thread's reason.
constexpr int kBadKeyfileLabel = 407;

constexpr CipherListTraces kCipherTraces = {
    "In ldap_start_tls_s_np(): zor_attribute_set_buffer(...ZOR_V3_CIPHER_SPECS - ciphers %s...) rc=%d \n",
    "In ldap_start_tls_s_np(): zor_attribute_set_buffer(...ciphers...) rc=%d %s\n",
    "In ldap_start_tls_s_np(): zor_attribute_set_buffer(...ZOR_TLSV10_CIPHER_SPECS - ciphers %s...) rc=%d \n",
    "In ldap_start_tls_s_np(): zor_attribute_set_buffer(...ZOR_TLSV10_CIPHER_SPECS - ciphers...) rc=%d %s\n",
    "In ldap_start_tls_s_np(): zor_attribute_set_buffer(...ZOR_TLSV11_CIPHER_SPECS - ciphers %s...) rc=%d \n",
    "In ldap_start_tls_s_np(): zor_attribute_set_buffer(...ZOR_TLSV11_CIPHER_SPECS - ciphers <null>...) rc=%d \n",
    "In ldap_start_tls_s_np(): zor_attribute_set_buffer(...ZOR_TLSV11_CIPHER_SPECS - ciphers...) rc=%d %s\n",
    nullptr,
    "In ldap_start_tls_s_np(): zor_attribute_set_buffer(...ZOR_TLSV12_CIPHER_SPECS - ciphers %s...) rc=%d \n",
    "In ldap_start_tls_s_np(): zor_attribute_set_buffer(...ZOR_TLSV12_CIPHER_SPECS - ciphers...) rc=%d %s\n",
};

// A default switch whose failure is only traced.
void switch_or_trace(zor_handle soc, int id, int value, const char *failed)
{
    int rc = g_zorlib.attribute_set_enum(soc, id, value);
    if (rc != ZOR_OK)
        LDAP_TRACE(TRC_ERROR, failed, rc, zorErrorText(rc));
}

// Without a protocol text: SSL V2 and V3 off, TLS V1 on, whatever the
// toolkit generation; the legacy toolkit with a text gets no switch. 0 or
// 115.
int set_protocols(LDAP *ld, zor_handle soc, int version)
{
    if (ld->ld_ssl_protocols)
        return version == kLegacyToolkit ? LDAP_SUCCESS
                                         : set_named_protocols(soc, ld->ld_ssl_protocols, "In ldap_start_tls_s_np(): ");
    switch_or_trace(soc, ZOR_PROTOCOL_SSLV2, ZOR_SSLV2_OFF,
                    "In ldap_start_tls_s_np(): zor_attribute_set_enum( SSLV2 OFF ) rc = %d %s\n");
    switch_or_trace(soc, ZOR_PROTOCOL_SSLV3, ZOR_SSLV3_OFF,
                    "In ldap_start_tls_s_np(): zor_attribute_set_enum( SSLV3 OFF ) rc = %d %s\n");
    switch_or_trace(soc, ZOR_PROTOCOL_TLSV1, ZOR_TLSV1_ON,
                    "In ldap_start_tls_s_np(): zor_attribute_set_enum( TLSV1 ON ) rc = %d %s\n");
    return LDAP_SUCCESS;
}

// Everything the secure socket needs before the handshake. 0, 115, or the
// toolkit's code for a refused label.
int configure_socket(LDAP *ld, Sockbuf *sb, int version)
{
    zor_handle soc = sb->secure->soc;
    int rc = g_zorlib.attribute_set_numeric_value(soc, ZOR_FD, sb->sd);
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, "In ldap_start_tls_s_np(): zor_attribute_set_numeric() rc=%d %s\n", rc, zorErrorText(rc));
        return LDAP_SECURE_BAD_PARAM;
    }
    if (ld->ssl_cert_label) {
        LDAP_TRACE(TRC_API, "In ldap_start_tls_s_np(): ld->ssl_cert_label == <%s>.\n", ld->ssl_cert_label);
        rc = g_zorlib.attribute_set_buffer(soc, ZOR_KEYRING_LABEL, ld->ssl_cert_label, 0);
        if (rc != ZOR_OK) {
            LDAP_TRACE(TRC_ERROR, "In ldap_start_tls_s_np(): zor_attribute_set_buffer(...certlabel...) rc=%d.\n", rc);
            ldap_set_ext_error_direct(ld, kBadKeyfileLabel);
            return rc;
        }
    }
    if ((rc = set_cipher_lists(ld, soc, version, true, kCipherTraces)) != LDAP_SUCCESS ||
        (rc = set_protocols(ld, soc, version)) != LDAP_SUCCESS)
        return rc;
    rc = setZorUserData(sb, nullptr, 1, kZorConnectionStartTls, kZorEnvClient);
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_CONN, "ERROR - ldap_start_tls_s_np: setZorUserData failed. rc: %d \n", rc);
        return LDAP_SECURE_BAD_PARAM;
    }
    return LDAP_SUCCESS;
}

// The handshake, then read/write mode. 0, 115 or 116.
int handshake(LDAP *ld, Sockbuf *sb)
{
    int rc = g_zorlib.secure_soc_init(sb->secure->soc);
    note_handshake_reason(rc);
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, "In ldap_start_tls_s_np(): zor_secure_soc_init() rc=%d %s\n", rc, zorErrorText(rc));
        ldap_set_ext_error_direct(ld, rc);
        return LDAP_SECURE_CONNECT_FAILED;
    }
    rc = setZorUserDatahandshakeMode(sb, nullptr, 0);
    if (rc != 0) {
        LDAP_TRACE(TRC_ERROR, "Error -  ldap_start_tls_s_np: setZorUserDatahandshakeMode OFF failed. rc: %d \n", rc);
        return LDAP_SECURE_BAD_PARAM;
    }
    return LDAP_SUCCESS;
}

} // namespace

int doHandshake(LDAP *ld, Sockbuf *sb)
{
    int version = zor_toolkit_version();
    LDAP_TRACE(TRC_API, "In ldap_tls:doHandshake(): from ldap_start_tls_s_np() \n");
    if (sb->secure)
        return LDAP_SECURE_INIT_DONE;
    // A session keeps the environment it was first attached to, as a
    // secure session does; attaching again would count it twice.
    if (!ld->ld_ssl_env && !(ld->ld_ssl_env = attachZorEnvRef()))
        return LDAP_SECURE_INIT_MISSING;
    int rc = open_secure_socket(ld, sb, "In ldap_start_tls_s_np(): ");
    if (rc == LDAP_SUCCESS)
        rc = configure_socket(ld, sb, version);
    return rc == LDAP_SUCCESS ? handshake(ld, sb) : rc;
}
