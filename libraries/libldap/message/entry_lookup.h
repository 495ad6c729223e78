// entry_lookup.h - finding an attribute's values in a search entry by
// reading the element's headers directly, with the checks of the
// format-driven walk but without interpreting its format strings, and
// the hint with which an attribute cursor lets a lookup of the name it
// just handed out start at that attribute.
#ifndef ZLDAP_ENTRY_LOOKUP_H
#define ZLDAP_ENTRY_LOOKUP_H

#include "message/ldap_message.h"

#include <cstdint>

enum class EntryLookup { found, absent, walk };

// Moves `reader` (a copy of `entry`'s element) to the values of the first
// attribute whose type equals `attr` without regard to case, as a walk
// with "{x{{s" and then "x}{s" reading types into a buffer of `name_size`
// octets would, and sets *name_tag to the type's tag. `absent` when that
// walk would fail first; `walk` when the caller must walk itself (a
// translated type longer than this lookup's buffer).
EntryLookup ldap_entry_find_values(const LDAPMessage *entry, const char *attr, size_t name_size, BerElement *reader,
                                   ber_tag_t *name_tag);

// What an attribute cursor has met of its entry's types since the first:
// a bit per type, from its length and its first letter as the walk compares
// them, so that a type whose bit is not yet set is known to be the first
// of its name. A type met a second time (or a bit shared by chance) only
// leaves the hint as it was.
struct EntryTypesSeen {
    uint64_t bits[2];
    const char *resume; // where the cursor stood after its last type; null once it moved otherwise
};

// Called when the cursor is about to read its first type.
void ldap_entry_types_begin(EntryTypesSeen *seen, const BerElement *cursor);
// Called after the cursor read the type whose header starts at `type_at`:
// marks the type on the entry when it is the first of its name.
// `cursor_before` is where the cursor stood before the type's attribute.
void ldap_entry_types_note(LDAPMessage *entry, EntryTypesSeen *seen, const BerElement *cursor,
                           const char *cursor_before, const char *type_at);

#endif
