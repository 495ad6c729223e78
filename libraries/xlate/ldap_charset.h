// ldap_charset.h - translation of strings between the local code page and
// UTF-8 (and UCS-2): the process's locale and code page, and the
// translation entry points.
#ifndef ZLDAP_LDAP_CHARSET_H
#define ZLDAP_LDAP_CHARSET_H

#include "zor8ldap_api.h"

#include <stddef.h>

// Translate *buf (*len bytes) into a new buffer with room for three times
// the length, which replaces *buf; *len becomes the bytes produced, and a
// NUL follows them. The old buffer is freed when free_input is non-zero.
// On failure *buf and *len are unchanged and the input is never freed.
// 0, 89 for a missing argument, 90, or a translation result (160 to 163, 82).
int xlate_local_to_utf8(char **buf, ber_len_t *len, int free_input);
int xlate_utf8_to_local(char **buf, ber_len_t *len, int free_input);

#endif
