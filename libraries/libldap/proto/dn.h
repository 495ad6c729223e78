// dn.h - distinguished names in their string form: the parsed record (RDNs
// of type and value pairs, values unescaped), the strings built back from
// it, and the published explode and user-friendly-name functions.
#ifndef ZLDAP_DN_H
#define ZLDAP_DN_H

#include "zor8ldap_api.h"

#include <cstddef>
#include <cstdint>

namespace zldap {

// Parser error codes; 0 is none.
enum DnError : int {
    kDnEmptyValue = -1,
    kDnMalformed = 1,        // bad type, missing equals sign, bad value while unescaping
    kDnBadEscape = 2,        // bad character after a backslash
    kDnBadEscapeHex = 3,     // bad second hexadecimal digit
    kDnBadHexValue = 4,      // bad character in a number-sign value
    kDnUnescapedSpecial = 6, // special character that needed a backslash
    kDnBadOid = 7,           // non-digit in a numeric OID
    kDnUndefinedState = 8,
    kDnAfterQuote = 9, // character after a closing double quote
    kDnNoMemory = 90,
};

struct DnPair {
    char *type;
    char *value; // unescaped
};

struct DnPairNode {
    DnPair pair;
    DnPairNode *next;
};

// The pairs of one RDN, in written order.
struct DnRdn {
    DnPairNode *first;
    long count;
    DnRdn *next;
};

struct ParsedDn {
    DnRdn *first;
    int64_t count;
    char *normalized;       // type=value pairs, values escaped, joined by "+" and ","
    char *normalized_upper; // the same, upper-cased
};

// Returns the record also when *error is set (what parsed before the error
// is kept); NULL, with *error 90, only when the record itself can't be made.
ParsedDn *parse_dn(const char *dn, int *error);
void release_parsed_dn(ParsedDn *dn);
void release_dn_rdn(DnRdn *rdn);

// What a built string shows of each pair.
enum class DnPairForm { TypeAndValue, ValueOnly };

// Every pair of every RDN, values escaped, pairs joined by "+" and RDNs by
// ","; NULL when memory runs out.
char *build_dn_string(const ParsedDn *dn, DnPairForm form);

} // namespace zldap

#endif
