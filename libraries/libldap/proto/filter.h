// filter.h - the search filter encoder: filter strings in the usual
// parenthesised prefix notation become the BER form of the Filter type.
#ifndef ZLDAP_FILTER_H
#define ZLDAP_FILTER_H

#include "ber/lber.h"

// Each returns 0, or -1 (what was written so far stays in the element).
int put_filter(BerElement *ber, const char *filter, int nested);
int put_filter_list(BerElement *ber, const char *text);
int put_simple_filter(BerElement *ber, const char *item);
// The same on a copy of the item that it may take apart.
int put_simple_filter_in_place(BerElement *ber, char *item);
int put_substring_filter(BerElement *ber, const char *attr, char *value);
int put_extensible_filter(BerElement *ber, const char *left, const char *value);
// Turns backslash escapes (\2a) into their bytes in place; *len receives
// the byte count, which may include zero bytes. 0, or -1 for a bad escape.
int compress_hex(char *s, ber_len_t *len);

#endif
