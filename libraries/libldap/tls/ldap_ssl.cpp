// ldap_ssl.cpp - validation and storage of the session's cipher and
// protocol settings.
#include "tls/ldap_ssl.h"

#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "net/zorlib.h"

#include <cstring>

#define LDAP_MODULE "libraries/libldap/ldap_ssl"

namespace {

// The list of cipher codes the toolkit accepts. This library has no
// supplier for it, so every user text is accepted as it stands.
const char *valid_cipher_text() { return nullptr; }

// Replaces *field with a copy of text, or clears it for NULL.
int replace_text(LDAP *ld, char **field, const char *text)
{
    char *copy = nullptr;
    if (text) {
        copy = zldap::mem_strdup(text);
        if (!copy)
            return ldap_fail(ld, LDAP_NO_MEMORY);
    }
    zldap::mem_free(*field);
    *field = copy;
    return LDAP_SUCCESS;
}

} // namespace

int checkCiphers(const char *text)
{
    const char *valid = valid_cipher_text();
    LDAP_TRACE(TRC_CONN, "In checkCiphers: validCipherString == <%s>, userString == <%s>.\n",
               trace_str(valid, "null"), trace_str(text, "null"));
    if (!valid || !text || !*text)
        return LDAP_SUCCESS;
    for (size_t i = 0; text[i]; i += 2) {
        if (text[i + 1] == '\0')
            return LDAP_SECURE_BAD_PARAM;
        char piece[3] = {text[i], text[i + 1], '\0'};
        if (!std::strstr(valid, piece))
            return LDAP_SECURE_BAD_PARAM;
    }
    return LDAP_SUCCESS;
}

int set_ssl_cipher(LDAP *ld, const char *text)
{
    const char *candidate = text ? text : ld->ld_ssl_cipher;
    if (!candidate) {
        // No current list and no supplier to take a default list from.
        return ldap_fail(ld, LDAP_NO_MEMORY);
    }
    if (checkCiphers(candidate) != LDAP_SUCCESS) {
        ldap_set_error_direct(ld, LDAP_SECURE_BAD_PARAM, nullptr, nullptr);
        ldap_set_ext_error_direct(ld, ZOR_ERR_BAD_V3_CIPHER);
        return LDAP_SECURE_BAD_PARAM;
    }
    return text ? replace_text(ld, &ld->ld_ssl_cipher, text) : LDAP_SUCCESS;
}

int set_ssl_cipher_EX(LDAP *ld, const char *text) { return replace_text(ld, &ld->ld_ssl_cipher_EX, text); }

int set_ssl_protocol(LDAP *ld, const char *text) { return replace_text(ld, &ld->ld_ssl_protocols, text); }
