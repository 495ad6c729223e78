// dn_parse.cpp - a DN text into its record: RDNs separated by commas or
// semicolons, pairs inside an RDN joined by plus signs, each pair found by
// the type and value machines and its value unescaped; then the normalised
// string and its upper-cased twin.
#include "proto/dn.h"
#include "proto/dn_scan.h"

#include "base/memory.h"
#include "base/trace.h"

#include <cstring>
#include <strings.h>

namespace zldap {
namespace {

// The long name of the Kerberos principal type is stored in its short form.
constexpr std::string_view kKerberosLongName = "orn-kerberosname";
constexpr const char *kKerberosShortName = "orn-kn";

char *copy_type(std::string_view type)
{
    if (type.size() == kKerberosLongName.size() &&
        strncasecmp(type.data(), kKerberosLongName.data(), type.size()) == 0)
        return mem_strdup(kKerberosShortName);
    return mem_strndup(type.data(), type.size());
}

// Appends the pair to the RDN, taking over both strings; false when the
// node can't be made (the strings stay the caller's).
bool add_pair(DnRdn *rdn, char *type, char *value)
{
    auto *node = static_cast<DnPairNode *>(mem_calloc(1, sizeof(DnPairNode)));
    if (!node)
        return false;
    LDAP_TRACE(TRC_DN, "Adding RDN element with type=%s, value=%s.\n", type, value);
    node->pair = {type, value};
    DnPairNode **tail = &rdn->first;
    if (!*tail)
        LDAP_TRACE(TRC_DN, "New RDN element initializes RDN list.\n");
    while (*tail)
        tail = &(*tail)->next;
    *tail = node;
    rdn->count++;
    return true;
}

// Parses one pair at text into the RDN; returns where its value stopped.
const char *parse_pair(const char *text, DnRdn *rdn, int *error)
{
    std::string_view type_text;
    const char *equals = scan_dn_type(text, &type_text, error);
    if (*error) {
        LDAP_TRACE(TRC_API, "BAD RDN type, code=%d.\n", *error);
        return equals;
    }
    std::string_view value_text;
    const char *stop = scan_dn_value(equals + 1, &value_text, error);
    char *value = *error ? nullptr : unescape_dn_value(value_text, error);
    if (*error) {
        if (*error != kDnNoMemory)
            LDAP_TRACE(TRC_API, "BAD RDN value, code=%d.\n", *error);
        return stop;
    }
    char *type = copy_type(type_text);
    if (!type || !add_pair(rdn, type, value)) {
        mem_free(type);
        mem_free(value);
        *error = kDnNoMemory;
    }
    return stop;
}

// Parses the pairs of one RDN; returns the separator or end where it stopped.
const char *parse_rdn(const char *text, DnRdn *rdn, int *error)
{
    const char *stop = parse_pair(text, rdn, error);
    while (*error == 0 && *stop == '+')
        stop = parse_pair(stop + 1, rdn, error);
    return stop;
}

// Builds the normalised string and its upper-cased copy; false when memory runs out.
bool normalize(ParsedDn *dn)
{
    dn->normalized = build_dn_string(dn, DnPairForm::TypeAndValue);
    dn->normalized_upper = dn->normalized ? mem_strdup(dn->normalized) : nullptr;
    if (!dn->normalized_upper)
        return false;
    // ASCII only: bytes of UTF-8 sequences stay as they are in any locale.
    for (char *c = dn->normalized_upper; *c; c++)
        if (*c >= 'a' && *c <= 'z')
            *c = static_cast<char>(*c - 'a' + 'A');
    return true;
}

} // namespace

void release_dn_rdn(DnRdn *rdn)
{
    for (DnPairNode *node = rdn ? rdn->first : nullptr; node;) {
        DnPairNode *next = node->next;
        mem_free(node->pair.type);
        mem_free(node->pair.value);
        mem_free(node);
        node = next;
    }
    mem_free(rdn);
}

void release_parsed_dn(ParsedDn *dn)
{
    if (!dn)
        return;
    for (DnRdn *rdn = dn->first; rdn;) {
        DnRdn *next = rdn->next;
        release_dn_rdn(rdn);
        rdn = next;
    }
    mem_free(dn->normalized);
    mem_free(dn->normalized_upper);
    mem_free(dn);
}

ParsedDn *parse_dn(const char *dn, int *error)
{
    *error = 0;
    auto *parsed = static_cast<ParsedDn *>(mem_calloc(1, sizeof(ParsedDn)));
    if (!parsed) {
        *error = kDnNoMemory;
        return nullptr;
    }
    if (!dn || !*dn)
        LDAP_TRACE(TRC_API, "NULL DN value.\n");
    DnRdn **tail = &parsed->first;
    for (const char *p = dn ? dn : ""; *p;) {
        auto *rdn = static_cast<DnRdn *>(mem_calloc(1, sizeof(DnRdn)));
        if (!rdn) {
            *error = kDnNoMemory;
            break;
        }
        p = parse_rdn(p, rdn, error);
        if (*p == ',' || *p == ';') {
            LDAP_TRACE(TRC_DN, "End of DN component, found %c.\n", *p);
            p++;
        }
        if (*error) {
            release_dn_rdn(rdn);
            LDAP_TRACE(TRC_ANY, "Bad DN %s.\n", dn);
            break;
        }
        LDAP_TRACE(TRC_DN, "Parsed DN element %d.\n", static_cast<int>(parsed->count + 1));
        if (!parsed->first)
            LDAP_TRACE(TRC_DN, "New DN element initializes DN list.\n");
        *tail = rdn;
        tail = &rdn->next;
        parsed->count++;
    }
    if (!normalize(parsed))
        *error = kDnNoMemory;
    return parsed;
}

} // namespace zldap
