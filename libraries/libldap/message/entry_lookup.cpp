// entry_lookup.cpp - an attribute's values in a search entry, found by a
// walk over the element's headers that meets what the format-driven walk
// meets, in the same order and with the same checks: the first type equal
// to the name, or a failure where that walk fails. Each lookup walks from
// the entry's start; an entry's types are short, and reading two headers
// per attribute costs less than keeping an index of them. A cursor walking
// the entry marks each type it hands out that is the first of its name,
// and a lookup of that name then starts there: the usual loop asks for
// the values of the name it was just given.
#include "message/entry_lookup.h"

#include <cctype>
#include <cstdint>
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

// The type the entry's hint names, when it is `attr`: being the first of
// its name, it is where the walk would stop.
bool read_hinted_type(const LDAPMessage *entry, const char *attr, size_t attr_len, size_t name_size,
                      BerElement *reader, ber_tag_t *name_tag)
{
    uint32_t at = __atomic_load_n(&entry->msg_attr_hint, __ATOMIC_RELAXED);
    if (at <= static_cast<ber_len_t>(reader->ber_ptr - reader->ber_buf) ||
        at >= static_cast<ber_len_t>(reader->ber_end - reader->ber_buf))
        return false;
    char *entry_start = reader->ber_ptr;
    reader->ber_ptr = reader->ber_buf + at;
    ber_len_t len;
    ber_tag_t tag = fber_get_tag(reader, &len);
    if (tag == LBER_DEFAULT || len > bytes_left(*reader) || len >= name_size ||
        !same_name(reader->ber_ptr, len, attr, attr_len)) {
        reader->ber_ptr = entry_start;
        return false;
    }
    reader->ber_ptr += len;
    *name_tag = tag;
    return true;
}

// The bit of a type in EntryTypesSeen: types equal as the walk compares
// them (strcasecmp up to a NUL) have the same length up to a NUL and the
// same first letter.
unsigned type_bit(const char *type, ber_len_t len)
{
    const void *nul = std::memchr(type, '\0', len);
    size_t n = nul ? static_cast<size_t>(static_cast<const char *>(nul) - type) : len;
    auto first = n ? static_cast<unsigned>(std::tolower(static_cast<unsigned char>(type[0]))) : 0u;
    return (static_cast<unsigned>(n) * 37u + first) & 127u;
}

} // namespace

void ldap_entry_types_begin(EntryTypesSeen *seen, const BerElement *cursor)
{
    seen->bits[0] = seen->bits[1] = 0;
    // A translated type is compared as translated, which the hint's reader
    // does not do: such an entry gets no hints.
    seen->resume = fber_translates_strings(cursor) ? nullptr : cursor->ber_ptr;
}

void ldap_entry_types_note(LDAPMessage *entry, EntryTypesSeen *seen, const BerElement *cursor,
                           const char *cursor_before, const char *type_at)
{
    // The type's own octets, as the cursor read them untranslated: not the
    // copy it has just written, which a read right after its stores would
    // wait for.
    const char *type = type_at;
    ber_len_t len;
    // A cursor moved by anything but this walk may have passed types unseen,
    // and a type that cannot be read again cannot be counted: either way
    // this cursor marks nothing more.
    if (!seen->resume || cursor_before != seen->resume ||
        fber_read_header(&type, cursor->ber_end, &len) == LBER_DEFAULT ||
        len > static_cast<ber_len_t>(cursor->ber_end - type)) {
        seen->resume = nullptr;
        return;
    }
    seen->resume = cursor->ber_ptr;
    unsigned bit = type_bit(type, len);
    uint64_t mask = uint64_t{1} << (bit & 63u);
    uint64_t &word = seen->bits[bit >> 6];
    bool first_of_name = (word & mask) == 0;
    word |= mask;
    // The offset must be in the entry's own buffer.
    if (!first_of_name || !entry->msg_ber || entry->msg_ber->ber_buf != cursor->ber_buf)
        return;
    ptrdiff_t at = type_at - cursor->ber_buf;
    if (at > 0 && at < INT32_MAX)
        __atomic_store_n(&entry->msg_attr_hint, static_cast<uint32_t>(at), __ATOMIC_RELAXED);
}

EntryLookup ldap_entry_find_values(const LDAPMessage *entry, const char *attr, size_t name_size, BerElement *reader,
                                   ber_tag_t *name_tag)
{
    // Translated types are compared as translated: each is read as the
    // walk reads it, into a buffer of name_size octets.
    bool translated = fber_translates_strings(reader);
    char type[kTranslatedType];
    if (translated && name_size > sizeof type)
        return EntryLookup::walk;
    size_t attr_len = std::strlen(attr);
    if (!translated && read_hinted_type(entry, attr, attr_len, name_size, reader, name_tag))
        return EntryLookup::found;
    // "{x{": the entry, its DN, the attribute list.
    ber_len_t len;
    if (fber_get_tag(reader, &len) == LBER_DEFAULT || fber_skip(reader) == LBER_DEFAULT ||
        fber_get_tag(reader, &len) == LBER_DEFAULT)
        return EntryLookup::absent;
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
