// dn_unescape.cpp - turns a DN value as written into the value it stands
// for: quotes removed, backslash escapes resolved, and a number-sign value
// read as the hexadecimal BER encoding of an OCTET STRING.
#include "proto/dn.h"
#include "proto/dn_scan.h"

#include "base/memory.h"

namespace zldap {
namespace {

// BER length octets beyond the first that a value may announce.
constexpr int kMaxLengthOctets = 8;

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The byte of the two hexadecimal digits at v[pos], or -1.
int hex_byte(std::string_view v, size_t pos)
{
    if (pos + 2 > v.size() || hex_digit(v[pos]) < 0 || hex_digit(v[pos + 1]) < 0)
        return -1;
    return hex_digit(v[pos]) << 4 | hex_digit(v[pos + 1]);
}

// Resolves the escape whose backslash is at v[i] into out[*n] and returns
// the index of its last character, or 0 when it is malformed. An escaped
// space is kept only at the start of the result or at the end of the value:
// elsewhere a plain space would have done.
size_t resolve_escape(std::string_view v, size_t i, char *out, size_t *n)
{
    int byte = hex_byte(v, i + 1);
    if (byte >= 0) {
        out[(*n)++] = static_cast<char>(byte);
        return i + 2;
    }
    if (i + 1 == v.size())
        return 0;
    char c = v[i + 1];
    bool allowed = c == '\\' || c == '"' || c == '#' || dn_is_special(c) ||
                   (c == ' ' && (*n == 0 || i + 1 == v.size() - 1));
    if (!allowed)
        return 0;
    out[(*n)++] = c;
    return i + 1;
}

bool unescape_plain(std::string_view v, char *out)
{
    size_t n = 0;
    for (size_t i = 0; i < v.size(); i++) {
        if (v[i] != '\\')
            out[n++] = v[i];
        else if ((i = resolve_escape(v, i, out, &n)) == 0)
            return false;
    }
    return true;
}

// v starts with the opening quote and must end with the closing one.
bool unescape_quoted(std::string_view v, char *out)
{
    size_t n = 0;
    for (size_t i = 1; i < v.size(); i++) {
        if (v[i] == '"')
            return i == v.size() - 1;
        if (v[i] != '\\')
            out[n++] = v[i];
        else if ((i = resolve_escape(v, i, out, &n)) == 0)
            return false;
    }
    return false;
}

// "#04", the length octet, further length octets when its high bit says so
// (skipped: the bytes that follow are taken as they are), then the bytes.
bool unescape_ber(std::string_view v, char *out)
{
    if (v.substr(0, 3) != "#04")
        return false;
    int length = hex_byte(v, 3);
    if (length < 0)
        return false;
    size_t pos = 5;
    if (length & 0x80) {
        int more = length & 0x7F;
        if (more > kMaxLengthOctets)
            return false;
        for (int k = 0; k < more; k++, pos += 2)
            if (hex_byte(v, pos) < 0)
                return false;
    }
    if ((v.size() - pos) % 2 != 0)
        return false;
    for (size_t n = 0; pos < v.size(); pos += 2) {
        int byte = hex_byte(v, pos);
        if (byte < 0)
            return false;
        out[n++] = static_cast<char>(byte);
    }
    return true;
}

} // namespace

char *unescape_dn_value(std::string_view value, int *error)
{
    // Room for the value and a margin, zero-filled: every form only shrinks.
    char *out = static_cast<char *>(mem_calloc(value.size() + 5, 1));
    if (!out) {
        *error = kDnNoMemory;
        return nullptr;
    }
    bool ok;
    if (!value.empty() && value[0] == '#')
        ok = unescape_ber(value, out);
    else if (!value.empty() && value[0] == '"')
        ok = unescape_quoted(value, out);
    else
        ok = unescape_plain(value, out);
    if (!ok) {
        mem_free(out);
        *error = kDnMalformed;
        return nullptr;
    }
    return out;
}

} // namespace zldap
