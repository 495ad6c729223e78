// ldap_ssl_query.cpp - the peer certificate's alternative names and the
// environment's key database, cipher and label, as the toolkit reports them.
#include "tls/ldap_ssl_query.h"

#include "base/memory.h"
#include "base/trace.h"

#define LDAP_MODULE "libraries/libldap/ldap_ssl"

namespace {

// A text attribute of the environment; `done` and `failed` trace the
// outcome.
const char *environment_text(zor_handle env, int id, const char *done, const char *failed)
{
    const char *text = nullptr;
    int length = 0;
    int rc = g_zorlib.attribute_get_buffer ? g_zorlib.attribute_get_buffer(env, id, &text, &length) : 1;
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, failed, rc, zorErrorText(rc));
        return nullptr;
    }
    LDAP_TRACE(TRC_API, done, trace_str(text));
    return text;
}

} // namespace

char *getSSLCertAltName(zor_handle soc, int type)
{
    zor_cert_element *elements = nullptr;
    int count = 0;
    int rc = g_zorlib.attribute_get_cert_info ? g_zorlib.attribute_get_cert_info(soc, ZOR_PEER_CERT_INFO, &elements, &count)
                                              : 1;
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, "Error - getSSLCertAltName: zor_attribute_get_cert_info(...label...) rc=%d %s\n", rc,
                   zorErrorText(rc));
        return nullptr;
    }
    LDAP_TRACE(TRC_API, "getSSLCertAltName: server alt data=[ %p ]\n", static_cast<void *>(elements));
    for (int i = 0; elements && i < count; i++) {
        if (elements[i].type != type || !elements[i].text)
            continue;
        char *copy = zldap::mem_strdup(elements[i].text);
        if (!copy)
            LDAP_TRACE(TRC_ERROR, "Error - getSSLCertAltName: Unable to allocate memory\n");
        return copy;
    }
    return nullptr;
}

const char *getSSLKeydatabase(zor_handle env)
{
    return environment_text(env, ZOR_KEYRING_FILE, "getSSLKeydatabase: current kdb=[ %s ]\n",
                            "Error - getSSLKeydatabase: zor_attribute_get_buffer(...kdb...) rc=%d %s\n");
}

const char *getSSLCipher(zor_handle env)
{
    return environment_text(env, ZOR_CONNECTION_CIPHER, "getSSLCipher: current connect cipher=[ %s ]\n",
                            "Error - getSSLCipher: zor_attribute_get_buffer(...cipher...) rc=%d %s\n");
}

const char *getSSLClientLabel(zor_handle env)
{
    return environment_text(env, ZOR_KEYRING_LABEL, "getSSLClientLabel: current client label=[ %s ]\n",
                            "Error - getSSLClientLabelr: zor_attribute_get_buffer(...label...) rc=%d %s\n");
}
