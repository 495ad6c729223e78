// ldap_entry_index.cpp - the attribute index of a search entry. It records
// what the format-driven walk over the entry meets, in the same order and
// with the same checks, so a lookup through it finds what the walk would:
// the first type equal to the name, or a failure where the walk fails.
// Two threads may walk one entry: the index is published once with a
// compare-and-swap, and a thread that loses the race frees its own.
#include "message/ldap_entry_index.h"

#include "base/memory.h"

#include <cctype>
#include <cstring>
#include <strings.h>

namespace {

constexpr size_t kStackAttrs = 32;

ber_len_t bytes_left(const BerElement &r)
{
    return r.ber_ptr < r.ber_end ? static_cast<ber_len_t>(r.ber_end - r.ber_ptr) : 0;
}

// Attributes in a buffer that starts on the stack and moves to the heap
// when an entry has more.
class AttrList {
public:
    AttrList() = default;
    AttrList(const AttrList &) = delete;
    AttrList &operator=(const AttrList &) = delete;
    ~AttrList()
    {
        if (data_ != stack_)
            zldap::mem_free(data_);
    }
    bool push(const ldap_entry_attr &a)
    {
        if (count_ == capacity_) {
            size_t grown = capacity_ * 2;
            auto *bigger = static_cast<ldap_entry_attr *>(zldap::mem_malloc(grown * sizeof(ldap_entry_attr)));
            if (!bigger)
                return false;
            std::memcpy(bigger, data_, count_ * sizeof(ldap_entry_attr));
            if (data_ != stack_)
                zldap::mem_free(data_);
            data_ = bigger;
            capacity_ = grown;
        }
        data_[count_++] = a;
        return true;
    }
    size_t count() const { return count_; }
    const ldap_entry_attr *data() const { return data_; }

private:
    ldap_entry_attr stack_[kStackAttrs];
    ldap_entry_attr *data_ = stack_;
    size_t count_ = 0;
    size_t capacity_ = kStackAttrs;
};

// The walk "{x{" then, per attribute, "{s" and "x": every type that a
// buffer of name_size octets takes, up to the first item that fails.
ldap_entry_index *make_index(const BerElement &element, size_t name_size)
{
    BerElement r = element;
    const char *base = r.ber_ptr;
    AttrList attrs;
    ber_len_t len;
    bool open = fber_get_tag(&r, &len) != LBER_DEFAULT && fber_skip(&r) != LBER_DEFAULT &&
                fber_get_tag(&r, &len) != LBER_DEFAULT;
    while (open && fber_get_tag(&r, &len) != LBER_DEFAULT) {
        auto header = static_cast<uint32_t>(r.ber_ptr - base);
        ber_tag_t tag = fber_get_tag(&r, &len);
        if (tag == LBER_DEFAULT || len > bytes_left(r) || len >= name_size)
            break;
        r.ber_ptr += len;
        if (!attrs.push({header, static_cast<uint32_t>(len), static_cast<uint32_t>(r.ber_ptr - base),
                         static_cast<uint32_t>(tag)}))
            return nullptr;
        open = fber_skip(&r) != LBER_DEFAULT;
    }
    size_t bytes = sizeof(ldap_entry_index) + attrs.count() * sizeof(ldap_entry_attr);
    auto *index = static_cast<ldap_entry_index *>(zldap::mem_malloc(bytes));
    if (!index)
        return nullptr;
    index->start = element.ber_ptr;
    index->end = element.ber_end;
    index->count = static_cast<uint32_t>(attrs.count());
    if (attrs.count())
        std::memcpy(index->attrs, attrs.data(), attrs.count() * sizeof(ldap_entry_attr));
    return index;
}

const ldap_entry_index *index_of(LDAPMessage *entry, size_t name_size)
{
    ldap_entry_index *index = __atomic_load_n(&entry->msg_index, __ATOMIC_ACQUIRE);
    if (!index) {
        ldap_entry_index *made = make_index(*entry->msg_ber, name_size);
        if (!made)
            return nullptr;
        if (__atomic_compare_exchange_n(&entry->msg_index, &index, made, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
            index = made;
        else
            zldap::mem_free(made);
    }
    if (index->start != entry->msg_ber->ber_ptr || index->end != entry->msg_ber->ber_end)
        return nullptr;
    return index;
}

// The walk copies a type into a NUL-terminated buffer and compares it with
// strcasecmp, so a type with a NUL inside compares as its part before the NUL.
bool same_name(const char *type, uint32_t type_len, const char *attr, size_t attr_len)
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

} // namespace

EntryLookup ldap_entry_find_values(LDAPMessage *entry, const char *attr, size_t name_size, BerElement *reader,
                                   ber_tag_t *name_tag)
{
    const ldap_entry_index *index = index_of(entry, name_size);
    if (!index)
        return EntryLookup::no_index;
    const char *base = index->start;
    if (fber_translates_strings(reader)) {
        // Types are compared as translated: each is read again as the walk reads it.
        char type[1024];
        if (name_size > sizeof type)
            return EntryLookup::no_index;
        for (uint32_t i = 0; i < index->count; i++) {
            reader->ber_ptr = const_cast<char *>(base) + index->attrs[i].name_header;
            ber_len_t size = name_size;
            ber_tag_t tag = fber_read_string_into(reader, type, &size);
            if (tag == LBER_DEFAULT)
                return EntryLookup::absent;
            if (strcasecmp(type, attr) == 0) {
                *name_tag = tag;
                return EntryLookup::found;
            }
        }
        return EntryLookup::absent;
    }
    size_t attr_len = std::strlen(attr);
    for (uint32_t i = 0; i < index->count; i++) {
        const ldap_entry_attr &a = index->attrs[i];
        if (same_name(base + a.values - a.name_len, a.name_len, attr, attr_len)) {
            reader->ber_ptr = const_cast<char *>(base) + a.values;
            *name_tag = a.name_tag;
            return EntryLookup::found;
        }
    }
    return EntryLookup::absent;
}
