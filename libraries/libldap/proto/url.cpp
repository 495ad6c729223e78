// url.cpp - LDAP URL parsing: ldap[s]://host[:port][/dn[?attrs[?scope[?filter]]]],
// optionally enclosed as <URL:...>. Referral chasing parses without
// defaults so that it can pick a port to match the connection's security.
#include "proto/url.h"

#include "base/memory.h"
#include "base/trace.h"

#include <cctype>
#include <cstring>
#include <string_view>
#include <strings.h>

#define LDAP_MODULE "libraries/libldap/url"

namespace {

constexpr int kNoPort = -1;
constexpr int kNoSecurePort = -2;
constexpr long kMaxPort = 65535;

struct Prefix {
    std::string_view rest;   // what follows "://"
    std::string_view scheme; // "ldap" or "ldaps" as written
    bool enclosed = false;
    bool secure = false;
};

// Recognises "<", "URL:" and the scheme; false for anything else.
bool skip_url_prefix(const char *url, Prefix *out)
{
    if (!url)
        return false;
    std::string_view s(url);
    if (!s.empty() && s.front() == '<') {
        out->enclosed = true;
        s.remove_prefix(1);
    }
    if (s.size() > 3 && strncasecmp(s.data(), "URL:", 4) == 0)
        s.remove_prefix(4);
    if (s.size() >= 7 && strncasecmp(s.data(), "ldap://", 7) == 0) {
        out->scheme = s.substr(0, 4);
        out->rest = s.substr(7);
    } else if (s.size() >= 8 && strncasecmp(s.data(), "ldaps://", 8) == 0) {
        out->scheme = s.substr(0, 5);
        out->rest = s.substr(8);
        out->secure = true;
    } else {
        return false;
    }
    return true;
}

int hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return (c >= 'a' && c <= 'f') ? c - 'a' + 10 : -1;
}

// Percent-decoding in place (NULL is left alone). false for a "%" that two
// hexadecimal digits do not follow, and for an escaped zero byte: decoded,
// either would end the value early, and the caller would act on a shorter
// DN, filter or host than the URL names.
bool url_decode(char *s)
{
    if (!s)
        return true;
    char *out = s;
    for (char *in = s; *in; in++) {
        if (*in != '%') {
            *out++ = *in;
            continue;
        }
        int high = hex_value(in[1]);
        int low = high < 0 ? -1 : hex_value(in[2]);
        if (low < 0 || (high == 0 && low == 0))
            return false;
        *out++ = static_cast<char>((high << 4) | low);
        in += 2;
    }
    *out = '\0';
    return true;
}

// A port of digits only (empty reads as 0); false for anything else,
// and for a number no TCP port has, which would reach the socket cut to
// its low 16 bits.
bool parse_port(std::string_view text, int *port)
{
    long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + (c - '0');
        if (value > kMaxPort)
            return false;
    }
    *port = static_cast<int>(value);
    return true;
}

// A new copy of a non-empty piece, or NULL for an empty one. false only
// when memory runs out.
bool copy_piece(std::string_view piece, char **out)
{
    *out = nullptr;
    if (piece.empty())
        return true;
    *out = zldap::mem_strndup(piece.data(), piece.size());
    return *out != nullptr;
}

// Percent-decodes the parts a URL escapes; an IPv6 literal host is taken as
// written. false at the first bad escape.
bool decode_parts(LDAPURLDesc *desc)
{
    for (char **a = desc->lud_attrs; a && *a; a++)
        if (!url_decode(*a))
            return false;
    bool literal = desc->lud_host && std::strchr(desc->lud_host, ':');
    return url_decode(desc->lud_dn) && url_decode(desc->lud_filter) && (literal || url_decode(desc->lud_host));
}

// Cuts `s` at the first `c`: returns what is before it and leaves the rest
// (after it) in s; `found` tells whether c was there.
std::string_view cut(std::string_view &s, char c, bool *found = nullptr)
{
    size_t at = s.find(c);
    if (found)
        *found = at != std::string_view::npos;
    std::string_view before = s.substr(0, at);
    s = at == std::string_view::npos ? std::string_view() : s.substr(at + 1);
    return before;
}

int split_attributes(std::string_view text, char ***out)
{
    size_t count = 1;
    for (char c : text)
        count += c == ',';
    auto **attrs = static_cast<char **>(zldap::mem_calloc(count + 1, sizeof(char *)));
    if (!attrs) {
        LDAP_TRACE(TRC_ERROR, "ldap_url_parse_internal: No memory for attrs array\n");
        return LDAP_URL_NO_MEMORY;
    }
    *out = attrs;
    for (size_t i = 0; i < count; i++) {
        std::string_view piece = cut(text, ',');
        attrs[i] = zldap::mem_strndup(piece.data(), piece.size());
        if (!attrs[i]) {
            LDAP_TRACE(TRC_ERROR, "ldap_url_parse_internal: No memory for lud_attrs[%d]\n", static_cast<int>(i));
            return LDAP_URL_NO_MEMORY;
        }
    }
    return LDAP_SUCCESS;
}

int parse_scope(std::string_view text, int *scope)
{
    struct {
        const char *name;
        int scope;
    } const names[] = {{"base", LDAP_SCOPE_BASE}, {"one", LDAP_SCOPE_ONELEVEL}, {"sub", LDAP_SCOPE_SUBTREE}};
    if (text.empty())
        return LDAP_SUCCESS;
    for (const auto &n : names) {
        if (text.size() == std::strlen(n.name) && strncasecmp(text.data(), n.name, text.size()) == 0) {
            *scope = n.scope;
            return LDAP_SUCCESS;
        }
    }
    LDAP_TRACE(TRC_ERROR, "ldap_url_parse_internal: bad scope=%.*s\n", static_cast<int>(text.size()), text.data());
    return LDAP_URL_BAD_SCOPE;
}

// Fills the record from the text after the scheme. 0 or a code.
int parse_parts(LDAPURLDesc *desc, const Prefix &prefix)
{
    std::string_view url = prefix.rest;
    if (prefix.enclosed && !url.empty() && url.back() == '>')
        url.remove_suffix(1);
    bool has_rest = false;
    std::string_view host = cut(url, '/', &has_rest);

    std::string_view port_text;
    bool has_port = false;
    size_t bracket = host.find(']');
    if (bracket != std::string_view::npos) {
        // Only a port may follow the "]": anything else would be dropped,
        // and the URL would name a host it does not spell.
        std::string_view after = host.substr(bracket + 1);
        has_port = !after.empty() && after.front() == ':';
        if (!after.empty() && !has_port)
            return LDAP_INVALID_SYNTAX;
        if (has_port)
            port_text = after.substr(1);
        host = host.substr(0, bracket);
        if (!host.empty() && host.front() == '[')
            host.remove_prefix(1);
    } else {
        size_t colon = host.find(':');
        has_port = colon != std::string_view::npos;
        if (has_port) {
            port_text = host.substr(colon + 1);
            host = host.substr(0, colon);
        }
    }
    desc->lud_port = prefix.secure ? kNoSecurePort : kNoPort;
    if (has_port && !parse_port(port_text, &desc->lud_port))
        return LDAP_INVALID_SYNTAX;
    desc->lud_scope = -1;

    std::string_view dn, attrs, scope, filter;
    if (has_rest) {
        dn = cut(url, '?');
        attrs = cut(url, '?');
        scope = cut(url, '?');
        filter = url; // everything after the third "?", further "?" included
    }
    int rc = parse_scope(scope, &desc->lud_scope);
    if (rc != LDAP_SUCCESS)
        return rc;
    if (!attrs.empty() && (rc = split_attributes(attrs, &desc->lud_attrs)) != LDAP_SUCCESS)
        return rc;
    if (!copy_piece(dn, &desc->lud_dn)) {
        LDAP_TRACE(TRC_ERROR, "ldap_url_parse_internal: strdup for lud_dn failed\n");
        return LDAP_URL_NO_MEMORY;
    }
    if (!copy_piece(filter, &desc->lud_filter)) {
        LDAP_TRACE(TRC_ERROR, "ldap_url_parse_internal: strdup for lud_filter failed\n");
        return LDAP_URL_NO_MEMORY;
    }
    if (!copy_piece(host, &desc->lud_host)) {
        LDAP_TRACE(TRC_ERROR, "ldap_url_parse_internal: strdup for lud_host failed\n");
        return LDAP_URL_NO_MEMORY;
    }
    if (!decode_parts(desc)) {
        LDAP_TRACE(TRC_ERROR, "ldap_url_parse_internal: bad escape\n");
        return LDAP_INVALID_SYNTAX;
    }
    desc->lud_scheme = zldap::mem_strndup(prefix.scheme.data(), prefix.scheme.size());
    return desc->lud_scheme ? LDAP_SUCCESS : LDAP_URL_NO_MEMORY;
}

} // namespace

int ldap_is_ldap_url(const char *url)
{
    Prefix prefix;
    return skip_url_prefix(url, &prefix) ? 1 : 0;
}

void ldap_free_urldesc(LDAPURLDesc *ludp)
{
    if (!ludp)
        return;
    zldap::mem_free(ludp->lud_scheme);
    zldap::mem_free(ludp->lud_host);
    zldap::mem_free(ludp->lud_dn);
    for (char **a = ludp->lud_attrs; a && *a; a++)
        zldap::mem_free(*a);
    zldap::mem_free(ludp->lud_attrs);
    zldap::mem_free(ludp->lud_filter);
    zldap::mem_free(ludp->lud_string);
    zldap::mem_free(ludp);
}

int ldap_url_parse_internal(const char *url, LDAPURLDesc **ludpp)
{
    LDAP_TRACE(TRC_API, "ldap_url_parse_internal(%s)\n", trace_str(url));
    if (!ludpp)
        return LDAP_PARAM_ERROR;
    *ludpp = nullptr;
    auto *desc = static_cast<LDAPURLDesc *>(zldap::mem_calloc(1, sizeof(LDAPURLDesc)));
    if (!desc) {
        LDAP_TRACE(TRC_ERROR, "ldap_url_parse_internal: No memory for LDAPURLDesc\n");
        return LDAP_URL_NO_MEMORY;
    }
    Prefix prefix;
    if (!skip_url_prefix(url, &prefix)) {
        LDAP_TRACE(TRC_ERROR, "ldap_url_parse_internal: Not an LDAP URL\n");
        ldap_free_urldesc(desc);
        return LDAP_URL_NOT_LDAP;
    }
    int rc = parse_parts(desc, prefix);
    if (rc != LDAP_SUCCESS) {
        ldap_free_urldesc(desc);
        return rc;
    }
    LDAP_TRACE(TRC_API, "ldap_url_parse_internal: return(SUCCESS)\n");
    *ludpp = desc;
    return LDAP_SUCCESS;
}

int ldap_url_parse(const char *url, LDAPURLDesc **ludpp)
{
    LDAP_TRACE(TRC_API, "ldap_url_parse(%s)\n", trace_str(url));
    if (!ludpp)
        return LDAP_PARAM_ERROR;
    *ludpp = nullptr;
    LDAPURLDesc *desc = nullptr;
    int rc = ldap_url_parse_internal(url, &desc);
    if (rc != LDAP_SUCCESS)
        return rc;
    if (desc->lud_port == kNoPort)
        desc->lud_port = LDAP_PORT;
    else if (desc->lud_port == kNoSecurePort)
        desc->lud_port = LDAPS_PORT;
    if (desc->lud_scope == -1)
        desc->lud_scope = LDAP_SCOPE_BASE;
    if (!desc->lud_filter && !(desc->lud_filter = zldap::mem_strdup("(objectClass=*)"))) {
        LDAP_TRACE(TRC_ERROR, "ldap_url_parse: strdup for default filter failed\n");
        ldap_free_urldesc(desc);
        return LDAP_URL_NO_MEMORY;
    }
    *ludpp = desc;
    return LDAP_SUCCESS;
}
