// entry_lookup.h - finding an attribute's values in a search entry by
// reading the element's headers directly, with the checks of the
// format-driven walk but without interpreting its format strings.
#ifndef ZLDAP_ENTRY_LOOKUP_H
#define ZLDAP_ENTRY_LOOKUP_H

#include "message/ldap_message.h"

enum class EntryLookup { found, absent, walk };

// Moves `reader` (a copy of the entry's element) to the values of the
// first attribute whose type equals `attr` without regard to case, as a
// walk with "{x{{s" and then "x}{s" reading types into a buffer of
// `name_size` octets would, and sets *name_tag to the type's tag.
// `absent` when that walk would fail first; `walk` when the caller must
// walk itself (a translated type longer than this lookup's buffer).
EntryLookup ldap_entry_find_values(const char *attr, size_t name_size, BerElement *reader, ber_tag_t *name_tag);

#endif
