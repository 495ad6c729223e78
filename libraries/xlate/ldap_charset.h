// ldap_charset.h - translation of strings between the local code page and
// UTF-8 (and UCS-2): the process's locale and code page, and the
// translation entry points.
#ifndef ZLDAP_LDAP_CHARSET_H
#define ZLDAP_LDAP_CHARSET_H

#include "zor8ldap.h"

#include <stddef.h>

// Translate *buf (*len bytes) into a new buffer with room for three times
// the length, which replaces *buf; *len becomes the bytes produced, and a
// NUL follows them. The old buffer is freed when free_input is non-zero.
// On failure *buf and *len are unchanged and the input is never freed.
// 0, 89 for a missing argument, 90, or a translation result (160 to 163, 82).
int xlate_local_to_utf8(char **buf, ber_len_t *len, int free_input);
int xlate_utf8_to_local(char **buf, ber_len_t *len, int free_input);

extern "C" {
// Sets the process locale for all categories (NULL or "" for the
// environment's) and settles the local code page again. 0, 82 when the
// locale is refused, 129, or the result of ldap_set_iconv_local_codepage.
int ldap_set_locale(const char *locale);
// Sets the local code page (NULL: LDAP_CODEPAGE, else the locale's code
// set). A code page already set is replaced only by a named one; an empty
// name then gives 89 and keeps it. 0, 89 or 90.
int ldap_set_iconv_local_codepage(const char *codepage);
// Sets the code page that stands for one of the library's charset names
// ("ISO-8859-1", "ORN437", "Shift-JIS", ...). 89 for a missing or unknown name.
int ldap_set_iconv_local_charset(const char *charset);
// A new copy of the name, "ISO8859-1" for NULL or ""; NULL when memory runs out.
char *ldap_get_iconv_compliant_codepage(const char *codepage);
// A new copy of "/usr/lib/nls/loc"; NULL when memory runs out.
char *ldap_get_default_locale_path(void);

// Translate *inlen bytes from inbuf into outbuf, which has *outlen bytes of
// room; *outlen is reduced by the bytes written (also when the translation
// fails part way). 0, 89 for a missing argument, 82, 90 or 160 to 163.
int ldap_xlate_local_to_utf8(char *inbuf, unsigned int *inlen, char *outbuf, size_t *outlen);
int ldap_xlate_utf8_to_local(char *inbuf, unsigned int *inlen, char *outbuf, size_t *outlen);
// UCS-2 here is big-endian, two bytes a character.
int ldap_xlate_local_to_unicode(char *inbuf, unsigned int *inlen, char *outbuf, size_t *outlen);
int ldap_xlate_unicode_to_local(char *inbuf, unsigned int *inlen, char *outbuf, size_t *outlen);
// *result receives a new NUL-terminated UTF-8 copy of text (NULL on
// failure). 0, 1 for a missing text, 89 for a missing result pointer, 90,
// or a translation result.
int ldap_xlate_local_to_utf8_wrp(const char *text, char **result);
}

#endif
