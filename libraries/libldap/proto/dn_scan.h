// dn_scan.h - the character-level pieces of the DN parser: the machine that
// finds an attribute type, the machine that finds the end of a value, and
// the unescaping of a value once it is found.
#ifndef ZLDAP_DN_SCAN_H
#define ZLDAP_DN_SCAN_H

#include <string_view>

namespace zldap {

// Blank: space, tab or line feed.
inline bool dn_is_blank(char c) { return c == ' ' || c == '\t' || c == '\n'; }
inline bool dn_is_separator(char c) { return c == ',' || c == '+' || c == ';'; }
inline bool dn_is_special(char c) { return dn_is_separator(c) || c == '<' || c == '=' || c == '>'; }

// Scans an attribute type from text; returns the position of its equals
// sign with *type set to the type as written, or, with *error set, the
// position where it failed.
const char *scan_dn_type(const char *text, std::string_view *type, int *error);

// Scans a value from text (the character after the equals sign); returns
// where it stopped (a separator or the end of the text, or where it failed
// with *error set) with *value set to the value as written, trailing
// unescaped blanks removed.
const char *scan_dn_value(const char *text, std::string_view *value, int *error);

// The value with quotes, escapes and number-sign BER resolved, as a new
// string; NULL with *error 1 (malformed) or 90.
char *unescape_dn_value(std::string_view value, int *error);

} // namespace zldap

#endif
