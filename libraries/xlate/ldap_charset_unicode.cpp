// ldap_charset_unicode.cpp - the library's own transforms between
// big-endian UCS-2 and UTF-8, used when LDAP_USE_UNICODE routes the
// local/UTF-8 translations through UCS-2. Both read outside input and
// check every byte against the end of the data.
#include "xlate/ldap_charset_internal.h"

#include "zor8ldap.h"

#include <cstdint>

namespace zldap::charset {
namespace {

// Bytes of the UTF-8 form of a value up to 0x7FFFFFFF.
size_t utf8_length(uint32_t value)
{
    static constexpr uint32_t kLongerFrom[] = {0x80, 0x800, 0x10000, 0x200000, 0x4000000};
    size_t n = 1;
    for (uint32_t limit : kLongerFrom)
        n += value >= limit ? 1 : 0;
    return n;
}

void put_utf8(uint32_t value, size_t n, unsigned char *out)
{
    if (n == 1) {
        out[0] = static_cast<unsigned char>(value);
        return;
    }
    for (size_t i = n - 1; i > 0; i--, value >>= 6)
        out[i] = static_cast<unsigned char>(0x80 | (value & 0x3F));
    out[0] = static_cast<unsigned char>(((0xFF00u >> n) & 0xFF) | value);
}

// Length of a sequence by its first byte; 0 for a byte no sequence starts with.
size_t sequence_length(unsigned char lead)
{
    if (lead < 0x80)
        return 1;
    if (lead >= 0xC2 && lead <= 0xDF)
        return 2;
    if (lead >= 0xE0 && lead <= 0xEF)
        return 3;
    if (lead >= 0xF0 && lead <= 0xF4)
        return 4;
    return 0;
}

// Decodes one sequence of n bytes, of which `available` are present.
// 0 with *value set, 161 when it is cut off, 162 when it is no UTF-8.
int decode_sequence(const unsigned char *in, size_t n, size_t available, uint32_t *value)
{
    static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    uint32_t v = n == 1 ? in[0] : in[0] & (0x7Fu >> n);
    for (size_t i = 1; i < n; i++) {
        if (i >= available)
            return LDAP_XLATE_INPUT_TRUNCATED;
        if ((in[i] & 0xC0) != 0x80)
            return LDAP_XLATE_BAD_CHARACTER;
        v = (v << 6) | (in[i] & 0x3F);
    }
    // Overlong forms, surrogates and values past Unicode's end are not UTF-8.
    if (v < kSmallest[n] || (v >= 0xD800 && v <= 0xDFFF) || v > 0x10FFFF)
        return LDAP_XLATE_BAD_CHARACTER;
    *value = v;
    return LDAP_SUCCESS;
}

} // namespace

int convert_UniCodetoUTF8(const char *in, size_t in_len, char *out, size_t *out_space)
{
    if (in_len % 2 != 0)
        return LDAP_XLATE_INPUT_TRUNCATED;
    auto *src = reinterpret_cast<const unsigned char *>(in);
    auto *dst = reinterpret_cast<unsigned char *>(out);
    for (size_t i = 0; i < in_len; i += 2) {
        uint32_t value = (static_cast<uint32_t>(src[i]) << 8) | src[i + 1];
        size_t n = utf8_length(value);
        if (n > *out_space)
            return LDAP_XLATE_OUTPUT_OVERFLOW;
        put_utf8(value, n, dst);
        dst += n;
        *out_space -= n;
    }
    return LDAP_SUCCESS;
}

int utf8_to_ucs2(const char *in, size_t in_len, char *out, size_t *out_space)
{
    auto *src = reinterpret_cast<const unsigned char *>(in);
    auto *dst = reinterpret_cast<unsigned char *>(out);
    size_t i = 0;
    while (i < in_len) {
        size_t n = sequence_length(src[i]);
        if (n == 0)
            return LDAP_XLATE_BAD_CHARACTER;
        uint32_t value = 0;
        int rc = decode_sequence(src + i, n, in_len - i, &value);
        if (rc != LDAP_SUCCESS)
            return rc;
        if (value > 0xFFFF)
            return LDAP_XLATE_NO_MAPPING;
        if (*out_space < 2)
            return LDAP_XLATE_OUTPUT_OVERFLOW;
        *dst++ = static_cast<unsigned char>(value >> 8);
        *dst++ = static_cast<unsigned char>(value);
        *out_space -= 2;
        i += n;
    }
    return LDAP_SUCCESS;
}

} // namespace zldap::charset
