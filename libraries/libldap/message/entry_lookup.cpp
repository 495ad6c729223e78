// entry_lookup.cpp - an attribute's values in a search entry, found by a
// walk over the element's headers that meets what the format-driven walk
// meets, in the same order and with the same checks: the first type equal
// to the name, or a failure where that walk fails. Each lookup walks from
// the entry's start; an entry's types are short, and reading two headers
// per attribute costs less than keeping an index of them.
#include "message/entry_lookup.h"

#include <cctype>
#include <cstring>
#include <strings.h>

namespace {

ber_len_t bytes_left(const BerElement &r)
{
    return r.ber_ptr < r.ber_end ? static_cast<ber_len_t>(r.ber_end - r.ber_ptr) : 0;
}

// The walk copies a type into a NUL-terminated buffer and compares it with
// strcasecmp, so a type with a NUL inside compares as its part before the NUL.
bool same_name(const char *type, ber_len_t type_len, const char *attr, size_t attr_len)
{
    if (type_len != attr_len && !(type_len > attr_len && type[attr_len] == '\0'))
        return false;
    // A caller usually asks with the name the entry itself gave it; the
    // first letter rules out most others before the locale's full compare.
    if (std::memcmp(type, attr, attr_len) == 0)
        return true;
    return attr_len > 0 && std::tolower(static_cast<unsigned char>(type[0])) ==
                               std::tolower(static_cast<unsigned char>(attr[0])) &&
           strncasecmp(type, attr, attr_len) == 0;
}

constexpr size_t kTranslatedType = 1024;

} // namespace

EntryLookup ldap_entry_find_values(const char *attr, size_t name_size, BerElement *reader, ber_tag_t *name_tag)
{
    // Translated types are compared as translated: each is read as the
    // walk reads it, into a buffer of name_size octets.
    bool translated = fber_translates_strings(reader);
    char type[kTranslatedType];
    if (translated && name_size > sizeof type)
        return EntryLookup::walk;
    // "{x{": the entry, its DN, the attribute list.
    ber_len_t len;
    if (fber_get_tag(reader, &len) == LBER_DEFAULT || fber_skip(reader) == LBER_DEFAULT ||
        fber_get_tag(reader, &len) == LBER_DEFAULT)
        return EntryLookup::absent;
    size_t attr_len = std::strlen(attr);
    bool open = true;
    // Per attribute "{s", then "x" past its values.
    while (open && fber_get_tag(reader, &len) != LBER_DEFAULT) {
        ber_tag_t tag;
        bool same;
        if (translated) {
            ber_len_t size = name_size;
            tag = fber_read_string_into(reader, type, &size);
            if (tag == LBER_DEFAULT)
                return EntryLookup::absent;
            same = strcasecmp(type, attr) == 0;
        } else {
            tag = fber_get_tag(reader, &len);
            if (tag == LBER_DEFAULT || len > bytes_left(*reader) || len >= name_size)
                return EntryLookup::absent;
            same = same_name(reader->ber_ptr, len, attr, attr_len);
            reader->ber_ptr += len;
        }
        if (same) {
            *name_tag = tag;
            return EntryLookup::found;
        }
        open = fber_skip(reader) != LBER_DEFAULT;
    }
    return EntryLookup::absent;
}
