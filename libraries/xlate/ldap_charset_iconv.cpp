// ldap_charset_iconv.cpp - the converters: the four process-wide slots,
// opening a converter on first use (and again after a code page change),
// and converting through the platform's iconv. Code page names are those
// the library hands out; the few the platform spells differently are
// mapped here, as is the "@path=yes" suffix that keeps 0x5C a backslash.
#include "xlate/ldap_charset_internal.h"

#include "base/memory.h"
#include "base/trace.h"
#include "zor8ldap.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <strings.h>

namespace zldap::charset {
namespace {

Slot g_slots[kDirectionCount];

constexpr const char kPathSuffix[] = "@path=yes";
// Input is handed to the converter in pieces of at most this many bytes.
constexpr size_t kChunk = 2000;

// Shift-JIS puts the yen sign at 0x5C and the overline at 0x7E; in path
// mode the Windows variant, which keeps both ASCII, stands in for it.
const char *const kShiftJisNames[] = {"SJIS", "SHIFT_JIS", "SHIFT-JIS", "MS_KANJI", "CSSHIFTJIS"};

bool is_shift_jis(const char *name)
{
    return std::any_of(std::begin(kShiftJisNames), std::end(kShiftJisNames),
                       [name](const char *sjis) { return strcasecmp(name, sjis) == 0; });
}

// The platform's name for a code page name: "UCS-2" is big-endian here,
// and bare Windows and DOS numbers ("1252", "949") are the platform's
// "CP" tables. False when the name is too long to be a code page.
bool platform_name(const char *name, bool path_mode, char *out, size_t size)
{
    const char *mapped = name;
    const char *prefix = "";
    if (std::strcmp(name, "UCS-2") == 0)
        mapped = "UCS-2BE";
    else if (path_mode && is_shift_jis(name))
        mapped = "CP932";
    else if (*name && std::strspn(name, "0123456789") == std::strlen(name))
        prefix = "CP";
    int n = std::snprintf(out, size, "%s%s", prefix, mapped);
    return n > 0 && static_cast<size_t>(n) < size;
}

// Opens the platform's table for a (target, source) pair of code page
// names; a target ending in "@path=yes" asks for path mode.
iconv_t open_table(const char *target, const char *source)
{
    char bare[64], to[64], from[64];
    int n = std::snprintf(bare, sizeof bare, "%s", target);
    if (n < 0 || static_cast<size_t>(n) >= sizeof bare)
        return reinterpret_cast<iconv_t>(-1);
    size_t suffix = sizeof kPathSuffix - 1;
    bool path_mode = static_cast<size_t>(n) > suffix && std::strcmp(bare + n - suffix, kPathSuffix) == 0;
    if (path_mode)
        bare[n - suffix] = '\0';
    if (!platform_name(bare, path_mode, to, sizeof to) || !platform_name(source, path_mode, from, sizeof from))
        return reinterpret_cast<iconv_t>(-1);
    return iconv_open(to, from);
}

void close_converter(Converter *converter)
{
    if (!converter)
        return;
    if (converter->table != reinterpret_cast<iconv_t>(-1))
        iconv_close(converter->table);
    mem_free(converter->target);
    mem_free(converter->source);
    mem_free(converter);
}

// The platform reports unusable input and characters the target lacks
// alike; a character the source code page itself can convert is one the
// target has no place for.
bool source_character_is_valid(const Converter *converter, const char *at, size_t left)
{
    iconv_t check = open_table("UTF-8", converter->source);
    if (check == reinterpret_cast<iconv_t>(-1))
        return false;
    char scratch[64];
    char *in = const_cast<char *>(at);
    size_t in_left = std::min<size_t>(left, 16);
    size_t before = in_left;
    char *out = scratch;
    size_t out_left = sizeof scratch;
    iconv(check, &in, &in_left, &out, &out_left);
    iconv_close(check);
    return in_left < before;
}

int failure_code(int error, const Converter *converter, const char *at, size_t left)
{
    switch (error) {
    case E2BIG:
        return LDAP_XLATE_OUTPUT_OVERFLOW;
    case EINVAL:
        return LDAP_XLATE_INPUT_TRUNCATED;
    case EILSEQ:
        return source_character_is_valid(converter, at, left) ? LDAP_XLATE_NO_MAPPING : LDAP_XLATE_BAD_CHARACTER;
    default:
        return LDAP_LOCAL_ERROR;
    }
}

} // namespace

Slot &slot(Direction direction) { return g_slots[direction]; }

void request_reopen_all()
{
    for (Slot &s : g_slots)
        s.reopen = true;
}

int ldap_iconv_open(Converter **slot, const char *target, const char *source)
{
    if (*slot)
        return LDAP_SUCCESS;
    auto *converter = static_cast<Converter *>(mem_calloc(1, sizeof(Converter)));
    if (converter) {
        converter->table = reinterpret_cast<iconv_t>(-1);
        converter->target = target ? mem_strdup(target) : nullptr;
        converter->source = source ? mem_strdup(source) : nullptr;
        if (converter->target && converter->source)
            converter->table = open_table(target, source);
    }
    if (!converter || converter->table == reinterpret_cast<iconv_t>(-1)) {
        LDAP_TRACE(TRC_XLATE, "ldap_iconv_open(%s, %s) failed\n", trace_str(target), trace_str(source));
        close_converter(converter);
        return LDAP_LOCAL_ERROR;
    }
    LDAP_TRACE(TRC_XLATE, "ldap_iconv_open(%s, %s) successful:             handle = %p\n", target, source,
               static_cast<void *>(converter->table));
    *slot = converter;
    return LDAP_SUCCESS;
}

int ldap_init_iconv(Converter **slot, const char *other, int direction, bool *reopen)
{
    if (*slot && !*reopen)
        return LDAP_SUCCESS;
    // A code page that failed to settle (memory ran out) is settled again
    // rather than leaving every later translation without one.
    if (!locale_name() || !local_codepage()) {
        if ((!locale_name() && set_locale_direct("") != LDAP_SUCCESS) || set_codepage_direct(nullptr) != LDAP_SUCCESS)
            return LDAP_LOCAL_ERROR;
        LDAP_TRACE(TRC_XLATE, "ldap_init_iconv: codepage = %s, locale = %s\n", trace_str(local_codepage()),
                   trace_str(locale_name()));
    }
    if (*reopen) {
        close_converter(*slot);
        *slot = nullptr;
    }
    *reopen = false;
    const char *local = local_codepage();
    LDAP_TRACE(TRC_XLATE, "Local code page = %s\n", trace_str(local));
    const char *target = direction ? other : local;
    const char *source = direction ? local : other;

    char *backslash = nullptr;
    if (getenv_copy("LDAP_BACKSLASH", &backslash) != LDAP_SUCCESS)
        return LDAP_LOCAL_ERROR;
    bool path_mode = backslash && (std::strcmp(backslash, "YES") == 0 || std::strcmp(backslash, "yes") == 0);
    mem_free(backslash);
    char *suffixed = nullptr;
    if (path_mode && target) {
        size_t size = std::strlen(target) + sizeof kPathSuffix;
        suffixed = static_cast<char *>(mem_malloc(size));
        if (!suffixed)
            return LDAP_LOCAL_ERROR;
        std::snprintf(suffixed, size, "%s%s", target, kPathSuffix);
        target = suffixed;
    }
    int rc = ldap_iconv_open(slot, target, source);
    mem_free(suffixed);
    return rc;
}

int convert(Converter *converter, const char *in, size_t in_len, char *out, size_t *out_space)
{
    // A conversion cut short earlier may have left the table mid-sequence.
    iconv(converter->table, nullptr, nullptr, nullptr, nullptr);
    int other_failures = 0;
    while (in_len > 0) {
        char *chunk = const_cast<char *>(in);
        size_t chunk_len = std::min(in_len, kChunk);
        size_t chunk_left = chunk_len;
        size_t rc = iconv(converter->table, &chunk, &chunk_left, &out, out_space);
        int error = errno;
        size_t used = chunk_len - chunk_left;
        in += used;
        in_len -= used;
        if (rc != static_cast<size_t>(-1))
            continue;
        // Full output and a sequence cut by the chunk's end are retried
        // with the rest: a retry that gets nowhere ends the translation.
        int code = failure_code(error, converter, in, in_len);
        bool final = code == LDAP_XLATE_BAD_CHARACTER || code == LDAP_XLATE_NO_MAPPING ||
                     (code == LDAP_LOCAL_ERROR && ++other_failures == 2);
        if (final || used == 0)
            return code;
    }
    // Stateful code pages end in their initial shift state.
    if (iconv(converter->table, nullptr, nullptr, &out, out_space) == static_cast<size_t>(-1))
        return failure_code(errno, converter, in, 0);
    return LDAP_SUCCESS;
}

} // namespace zldap::charset
