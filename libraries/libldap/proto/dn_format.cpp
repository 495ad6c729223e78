// dn_format.cpp - strings built from a parsed DN: values escaped again, the
// user-friendly form and the exploded arrays of RDNs and of pairs.
// Every string is measured first and then written into one allocation.
#include "proto/dn.h"

#include "base/memory.h"
#include "base/trace.h"

#include <cstring>

namespace zldap {
namespace {

bool needs_backslash(const char *value, size_t i)
{
    char c = value[i];
    if (i == 0 && (c == ' ' || c == '#'))
        return true;
    if (c == ' ' && value[i + 1] == '\0')
        return true;
    return std::strchr("\\\";<=>+,", c) != nullptr;
}

// Each put_ function writes at out, or only counts when out is NULL, and
// returns the number of characters.
size_t put_text(char *out, const char *text)
{
    size_t n = std::strlen(text);
    if (out)
        std::memcpy(out, text, n);
    return n;
}

size_t put_char(char *out, char c)
{
    if (out)
        *out = c;
    return 1;
}

// Where the next characters go after n: nowhere while only counting.
char *after(char *out, size_t n) { return out ? out + n : nullptr; }

size_t put_value(char *out, const char *value, bool escape)
{
    if (!escape)
        return put_text(out, value);
    size_t n = 0;
    for (size_t i = 0; value[i]; i++) {
        if (needs_backslash(value, i))
            n += put_char(after(out, n), '\\');
        n += put_char(after(out, n), value[i]);
    }
    return n;
}

size_t put_pair(char *out, const DnPair &pair, DnPairForm form, bool escape)
{
    size_t n = 0;
    if (form == DnPairForm::TypeAndValue) {
        n = put_text(out, pair.type);
        n += put_char(after(out, n), '=');
    }
    return n + put_value(after(out, n), pair.value, escape);
}

// The nodes of a list from first on, each written by put(out, node), with
// the separator between them.
template <typename Node, typename Put> size_t put_joined(char *out, const Node *first, char separator, Put put)
{
    size_t n = 0;
    for (const Node *node = first; node; node = node->next) {
        if (node != first)
            n += put_char(after(out, n), separator);
        n += put(after(out, n), node);
    }
    return n;
}

size_t put_rdn(char *out, const DnRdn *rdn, DnPairForm form)
{
    auto put = [form](char *at, const DnPairNode *node) { return put_pair(at, node->pair, form, true); };
    return put_joined(out, rdn->first, '+', put);
}

size_t put_dn(char *out, const ParsedDn *dn, DnPairForm form)
{
    auto put = [form](char *at, const DnRdn *rdn) { return put_rdn(at, rdn, form); };
    return put_joined(out, dn->first, ',', put);
}

// Measures with put(nullptr), then writes into a new string; NULL when
// memory runs out.
template <typename Put> char *build(Put put)
{
    size_t n = put(nullptr);
    auto *out = static_cast<char *>(mem_malloc(n + 1));
    if (!out)
        return nullptr;
    put(out);
    out[n] = '\0';
    return out;
}

void release_strings(char **strings)
{
    for (char **s = strings; s && *s; s++)
        mem_free(*s);
    mem_free(strings);
}

// A text with neither an equals sign nor a comma is a DNS or mail name.
bool is_dns_style(const char *text) { return *text && !std::strpbrk(text, "=,"); }

// Parses text into a DN with at least one RDN, or NULL.
ParsedDn *parse_whole_dn(const char *text)
{
    int error = 0;
    ParsedDn *dn = parse_dn(text, &error);
    if (dn && (error != 0 || dn->count == 0)) {
        release_parsed_dn(dn);
        return nullptr;
    }
    return dn;
}

// A growing NULL-terminated array of pieces of a DNS or mail name.
constexpr size_t kFirstPieceRoom = 8; // pointers, the terminating NULL included
struct Pieces {
    char **array;
    size_t count;
    size_t room;
};

bool append_piece(Pieces *pieces, const char *text, size_t len)
{
    if (pieces->count + 1 == pieces->room) {
        auto **grown = static_cast<char **>(mem_realloc(pieces->array, 2 * pieces->room * sizeof(char *)));
        if (!grown)
            return false;
        pieces->array = grown;
        pieces->room *= 2;
    }
    if (!(pieces->array[pieces->count] = mem_strndup(text, len)))
        return false;
    pieces->array[++pieces->count] = nullptr;
    return true;
}

DnPairForm form_of(int notypes) { return notypes ? DnPairForm::ValueOnly : DnPairForm::TypeAndValue; }

} // namespace

char *build_dn_string(const ParsedDn *dn, DnPairForm form)
{
    return build([&](char *out) { return put_dn(out, dn, form); });
}

} // namespace zldap

using namespace zldap;

char *ldap_dn2ufn(const char *dn)
{
    LDAP_TRACE(TRC_API, "ldap_dn2ufn\n");
    if (!dn)
        return nullptr;
    if (is_dns_style(dn))
        return mem_strdup(dn);
    ParsedDn *parsed = parse_whole_dn(dn);
    char *ufn = parsed ? build_dn_string(parsed, DnPairForm::ValueOnly) : nullptr;
    release_parsed_dn(parsed);
    return ufn;
}

char **ldap_explode_dn(const char *dn, int notypes)
{
    if (!dn)
        return nullptr;
    if (is_dns_style(dn))
        return ldap_split_dns_name(dn);
    ParsedDn *parsed = parse_whole_dn(dn);
    if (!parsed)
        return nullptr;
    auto **rdns = static_cast<char **>(mem_calloc(parsed->count + 1, sizeof(char *)));
    // A string that can't be made ends the array there: the caller gets the
    // RDNs before it, and every string made is reachable for release.
    size_t i = 0;
    for (const DnRdn *rdn = parsed->first; rdns && rdn; rdn = rdn->next, i++) {
        rdns[i] = build([&](char *out) { return put_rdn(out, rdn, form_of(notypes)); });
        if (!rdns[i])
            break;
    }
    release_parsed_dn(parsed);
    return rdns;
}

char **ldap_explode_rdn(const char *dn, int notypes)
{
    ParsedDn *parsed = dn ? parse_whole_dn(dn) : nullptr;
    if (!parsed)
        return nullptr;
    const DnRdn *rdn = parsed->first;
    auto **pairs = static_cast<char **>(mem_calloc(rdn->count + 1, sizeof(char *)));
    size_t i = 0;
    for (const DnPairNode *node = rdn->first; pairs && node; node = node->next, i++) {
        pairs[i] = build([&](char *out) { return put_pair(out, node->pair, form_of(notypes), false); });
        if (!pairs[i]) {
            release_strings(pairs);
            pairs = nullptr;
        }
    }
    release_parsed_dn(parsed);
    return pairs;
}

char **ldap_split_dns_name(const char *name)
{
    if (!name)
        return nullptr;
    Pieces pieces{static_cast<char **>(mem_calloc(kFirstPieceRoom, sizeof(char *))), 0, kFirstPieceRoom};
    for (const char *p = name; pieces.array && *p;) {
        size_t len = std::strcspn(p, "@.");
        if (len > 0 && !append_piece(&pieces, p, len)) {
            release_strings(pieces.array);
            return nullptr;
        }
        p += len;
        if (*p)
            p++;
    }
    return pieces.array;
}
