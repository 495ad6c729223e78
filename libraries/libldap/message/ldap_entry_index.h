// ldap_entry_index.h - where each attribute of a search entry sits in its
// element, found once on first use and kept with the message, so that
// looking an attribute up does not walk the entry from its start again.
#ifndef ZLDAP_LDAP_ENTRY_INDEX_H
#define ZLDAP_LDAP_ENTRY_INDEX_H

#include "message/ldap_message.h"

// One attribute: offsets from the element's read position when indexed.
struct ldap_entry_attr {
    uint32_t name_header; // the type's tag and length octets
    uint32_t name_len;    // octets of the type as sent
    uint32_t values;      // the value SET that follows the type
    uint32_t name_tag;
};

struct ldap_entry_index {
    const char *start; // the element's ber_ptr and ber_end it was made from
    const char *end;
    uint32_t count;
    ldap_entry_attr attrs[];
};

enum class EntryLookup { found, absent, no_index };

// Moves `reader` (a copy of the entry's element) to the values of the
// first attribute whose type equals `attr` without regard to case, as a
// walk with "{x{{s" and then "x}{s" reading types into a buffer of
// `name_size` octets would, and sets *name_tag to the type's tag.
// `absent` when that walk would fail first; `no_index` when no index can
// be had (memory, or an element that moved since), and the caller walks.
EntryLookup ldap_entry_find_values(LDAPMessage *entry, const char *attr, size_t name_size, BerElement *reader,
                                   ber_tag_t *name_tag);

#endif
