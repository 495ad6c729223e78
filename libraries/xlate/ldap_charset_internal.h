// ldap_charset_internal.h - what the pieces of the charset module share:
// the process-wide locale and code page, the converter slots, the
// converting engine over the platform's iconv and the translation core.
// Everything here is guarded by ldap_xlate_mutex; the functions that need
// it say so.
#ifndef ZLDAP_LDAP_CHARSET_INTERNAL_H
#define ZLDAP_LDAP_CHARSET_INTERNAL_H

#include <cstddef>
#include <iconv.h>

namespace zldap::charset {

// ---- locale and code page (ldap_charset_locale.cpp) ----

// The names of the last ldap_set_locale and of the local code page; NULL
// until set. Read under ldap_xlate_mutex.
const char *locale_name();
const char *local_codepage();

// ldap_set_locale, ldap_set_iconv_local_codepage and
// ldap_set_iconv_local_charset for callers that hold ldap_xlate_mutex.
int set_locale_direct(const char *locale);
int set_codepage_direct(const char *codepage);
int set_charset_direct(const char *charset);

// *value receives a new copy of the variable, or NULL when it is unset.
// 0, or 90 when it is set but could not be copied.
int getenv_copy(const char *name, char **value);

// ---- converters (ldap_charset_iconv.cpp) ----

// An open converter: its names as given (a target may carry "@path=yes")
// and the platform's conversion table.
struct Converter {
    char *target;
    char *source;
    iconv_t table;
};

// The four translation directions, each with its converter slot and its
// re-open flag (set when the code page changes, so that the converter is
// closed and opened again at its next use).
enum Direction { kLocalToUtf8, kUtf8ToLocal, kLocalToUcs2, kUcs2ToLocal, kDirectionCount };
struct Slot {
    Converter *converter;
    bool reopen;
};
Slot &slot(Direction direction);
void request_reopen_all();

// Opens the slot's converter between the local code page and `other`
// ("UTF-8" or "UCS-2") unless it is open and no re-open is asked for;
// direction 1 converts from the local code page, 0 to it. Settles locale
// and code page first when no locale is set. 0 or 82.
int ldap_init_iconv(Converter **slot, const char *other, int direction, bool *reopen);
// Opens a converter into an empty slot (an occupied one is left alone). 0 or 82.
int ldap_iconv_open(Converter **slot, const char *target, const char *source);

// Converts in chunks of at most 2000 input bytes; *out_space is reduced by
// the bytes written. 0, 160 to 163 or 82.
int convert(Converter *converter, const char *in, size_t in_len, char *out, size_t *out_space);

// ---- the library's own UCS-2 transforms (ldap_charset_unicode.cpp) ----

// Big-endian UCS-2 to UTF-8; an odd length is refused with 161. 0, 160 or 161.
int convert_UniCodetoUTF8(const char *in, size_t in_len, char *out, size_t *out_space);
// UTF-8 to big-endian UCS-2. 0, 160 (no room), 161 (a sequence cut off at
// the end), 162 (not UTF-8) or 163 (a character beyond UCS-2).
int utf8_to_ucs2(const char *in, size_t in_len, char *out, size_t *out_space);

// ---- the translation core (ldap_charset_xlate.cpp) ----

enum class Kind { LocalToUtf8, Utf8ToLocal, LocalToUcs2, Ucs2ToLocal };

// What a caller of translate() writes to the trace: its settings line
// (printf format taking two strings, the locale first or the code page
// first) and the titles of its before and after dumps.
struct TraceTexts {
    const char *settings;
    bool locale_first;
    const char *before;
    const char *after;
};

// Translates under ldap_xlate_mutex, opening the converter on first use;
// *out_space is reduced by the bytes written. 0, 82, 90 or 160 to 163.
int translate(Kind kind, const TraceTexts &texts, const char *in, size_t in_len, char *out, size_t *out_space);

} // namespace zldap::charset

#endif
