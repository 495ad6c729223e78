// entries.cpp - reading a search entry: its DN, its attribute names through
// a cursor, its values as strings or as bervals, and releasing all of it.
// Every read works on a private copy of the entry's element record, so the
// entry itself never moves.
#include "results/results.h"

#include "base/memory.h"
#include "base/trace.h"
#include "ber/lber.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "message/entry_lookup.h"
#include "message/ldap_message.h"

#include <strings.h>

#define LDAP_MODULE "libraries/libldap/entries"

namespace {

// Attribute descriptions longer than this are refused.
constexpr ber_len_t kNameBuffer = 401;
constexpr ber_tag_t kControlsTag = 0xA0;

bool at_end_of_attributes(BerElement *ber)
{
    ber_len_t len = 0;
    return ber->ber_ptr >= ber->ber_end || fber_peek_tag(ber, &len) == kControlsTag;
}

// "{x{": into the entry's SEQUENCE, past the DN, into the attribute list.
bool enter_attributes(BerElement *ber)
{
    fber_begin_format(ber, "{x{");
    ber_len_t len;
    return fber_get_tag(ber, &len) != LBER_DEFAULT && fber_skip(ber) != LBER_DEFAULT &&
           fber_get_tag(ber, &len) != LBER_DEFAULT;
}

// The cursor handed to the caller as a BerElement: the element, marked
// with kFberTrailer, then what it has met of the entry's types (the caller
// frees it with ldap_ber_free). An element from anywhere else passed as a
// cursor lacks the mark and is only read.
struct AttributeCursor {
    BerElement ber;
    EntryTypesSeen seen;
};

// The next attribute name at the cursor ("{sx}"), in a new buffer; NULL
// with error 0 at the end of the attributes.
char *read_attribute_name(LDAP *ld, LDAPMessage *entry, BerElement *cursor)
{
    if (at_end_of_attributes(cursor))
        return nullptr;
    char *name = static_cast<char *>(zldap::mem_malloc(kNameBuffer));
    if (!name)
        return ldap_fail_returning(ld, LDAP_NO_MEMORY, nullptr);
    fber_begin_format(cursor, "{sx}");
    const char *before = cursor->ber_ptr;
    ber_len_t size = kNameBuffer;
    ber_len_t len;
    if (fber_get_tag(cursor, &len) == LBER_DEFAULT) {
        zldap::mem_free(name);
        return ldap_fail_returning(ld, LDAP_DECODING_ERROR, nullptr);
    }
    const char *type_at = cursor->ber_ptr;
    if (fber_read_string_into(cursor, name, &size) == LBER_DEFAULT || fber_skip(cursor) == LBER_DEFAULT) {
        zldap::mem_free(name);
        return ldap_fail_returning(ld, LDAP_DECODING_ERROR, nullptr);
    }
    if (cursor->ber_options & kFberTrailer)
        ldap_entry_types_note(entry, &reinterpret_cast<AttributeCursor *>(cursor)->seen, cursor, before, type_at);
    return name;
}

// Moves a copy of the entry's element to the values of `attr` by walking
// the attributes from the first; false (with error 84) when the entry has
// no such attribute or cannot be read. *name_tag: the tag of its type.
bool walk_to_attribute(LDAP *ld, BerElement *reader, const char *attr, ber_tag_t *name_tag)
{
    char type[kNameBuffer];
    ber_len_t size = sizeof type;
    ber_tag_t tag = fber_scanf(reader, "{x{{s", type, &size);
    while (tag != LBER_DEFAULT && strcasecmp(type, attr) != 0) {
        size = sizeof type;
        tag = fber_scanf(reader, "x}{s", type, &size);
    }
    if (tag == LBER_DEFAULT)
        return ldap_fail_returning(ld, LDAP_DECODING_ERROR, false);
    *name_tag = tag;
    return true;
}

// Moves the reader to the values of `attr`: by reading the entry's
// headers, or, while BER traffic is traced (the walk's own trace lines are
// the record), by walking with the format decoder.
bool find_attribute(LDAP *ld, const LDAPMessage *entry, BerElement *reader, const char *attr, ber_tag_t *name_tag)
{
    EntryLookup found = zldap::trace_enabled(TRC_BER) ? EntryLookup::walk
                                                      : ldap_entry_find_values(entry, attr, kNameBuffer, reader, name_tag);
    if (found == EntryLookup::walk)
        return walk_to_attribute(ld, reader, attr, name_tag);
    if (found == EntryLookup::absent)
        return ldap_fail_returning(ld, LDAP_DECODING_ERROR, false);
    return true;
}

ber_tag_t read_values(BerElement *ber, char ***out, ber_tag_t current)
{
    fber_begin_format(ber, "[v]");
    return fber_read_string_set(ber, out, current);
}

ber_tag_t read_values(BerElement *ber, struct berval ***out, ber_tag_t current)
{
    fber_begin_format(ber, "[V]");
    return fber_read_berval_set(ber, out, current);
}

// The values of `attr` ("[v]" or "[V]") as a new array.
template <class T> T **get_values(LDAP *ld, LDAPMessage *entry, const char *attr)
{
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (!op.admitted())
        return nullptr;
    if (!entry || !attr || !entry->msg_ber)
        return ldap_fail_returning(ld, LDAP_PARAM_ERROR, nullptr);
    BerElement reader = *entry->msg_ber;
    ber_tag_t name_tag = LBER_DEFAULT;
    if (!find_attribute(ld, entry, &reader, attr, &name_tag))
        return nullptr;
    T **values = nullptr;
    if (read_values(&reader, &values, name_tag) == LBER_DEFAULT)
        return ldap_fail_returning(ld, LDAP_DECODING_ERROR, nullptr);
    return values;
}

} // namespace

char *ldap_get_dn(LDAP *ld, LDAPMessage *entry)
{
    LDAP_TRACE(TRC_API, "ldap_get_dn\n");
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return nullptr;
    if (!entry || !entry->msg_ber)
        return ldap_fail_returning(ld, LDAP_PARAM_ERROR, nullptr);
    BerElement reader = *entry->msg_ber;
    char *dn = nullptr;
    fber_begin_format(&reader, "{a");
    ber_len_t len;
    if (fber_get_tag(&reader, &len) == LBER_DEFAULT || fber_read_string(&reader, &dn) == LBER_DEFAULT) {
        LDAP_TRACE(TRC_ERROR, "ldap_get_dn: fber_scanf failed\n");
        return ldap_fail_returning(ld, LDAP_DECODING_ERROR, nullptr);
    }
    return dn;
}

char *ldap_first_attribute(LDAP *ld, LDAPMessage *entry, BerElement **ber)
{
    LDAP_TRACE(TRC_API, "ldap_first_attribute: ld(%p) entry(%p) ber(%p)\n", static_cast<void *>(ld),
               static_cast<void *>(entry), static_cast<void *>(ber));
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (!op.admitted())
        return nullptr;
    if (!entry || !ber || !entry->msg_ber)
        return ldap_fail_returning(ld, LDAP_PARAM_ERROR, nullptr);
    // The cursor shares the entry's buffer and never owns it.
    auto *walk = static_cast<AttributeCursor *>(zldap::mem_malloc(sizeof(AttributeCursor)));
    BerElement *cursor = walk ? &walk->ber : nullptr;
    *ber = cursor;
    if (!cursor)
        return ldap_fail_returning(ld, LDAP_NO_MEMORY, nullptr);
    *cursor = *entry->msg_ber;
    cursor->ber_options |= kFberTrailer;
    char *name = nullptr;
    if (!enter_attributes(cursor)) {
        ldap_set_error_direct(ld, LDAP_DECODING_ERROR, nullptr, nullptr);
    } else {
        ldap_entry_types_begin(&walk->seen, cursor);
        name = read_attribute_name(ld, entry, cursor);
    }
    // An entry without attributes keeps its cursor: the caller releases it.
    if (!name && ldap_get_errno_direct(ld) != LDAP_SUCCESS) {
        zldap::mem_free(cursor);
        *ber = nullptr;
    }
    LDAP_TRACE(TRC_API, "ldap_first_attribute: returning (%s)\n", trace_str(name, "NULL"));
    return name;
}

char *ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *ber)
{
    LDAP_TRACE(TRC_API, "ldap_next_attribute: ld(%p) entry(%p) ber(%p)\n", static_cast<void *>(ld),
               static_cast<void *>(entry), static_cast<void *>(ber));
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (!op.admitted())
        return nullptr;
    if (!entry || !ber)
        return ldap_fail_returning(ld, LDAP_PARAM_ERROR, nullptr);
    return read_attribute_name(ld, entry, ber);
}

int ldap_count_attributes(LDAP *ld, LDAPMessage *entry)
{
    LDAP_TRACE(TRC_API, "ldap_count_attributes, ld(%p), entry(%p)\n", static_cast<void *>(ld),
               static_cast<void *>(entry));
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (!op.admitted())
        return -1;
    if (!entry || !entry->msg_ber)
        return ldap_fail_returning(ld, LDAP_PARAM_ERROR, 0);
    BerElement reader = *entry->msg_ber;
    if (fber_scanf(&reader, "{x{") == LBER_DEFAULT)
        return ldap_fail_returning(ld, LDAP_DECODING_ERROR, 0);
    int n = 0;
    while (!at_end_of_attributes(&reader) && fber_skip_element(&reader) == 0)
        n++;
    LDAP_TRACE(TRC_API, "ldap_count_attributes: returning (%d)\n", n);
    return n;
}

char **ldap_get_values(LDAP *ld, LDAPMessage *entry, const char *attr)
{
    LDAP_TRACE(TRC_API, "ldap_get_values\n");
    return get_values<char>(ld, entry, attr);
}

struct berval **ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *attr)
{
    LDAP_TRACE(TRC_API, "ldap_get_values_len\n");
    return get_values<struct berval>(ld, entry, attr);
}

int ldap_count_values(char **values)
{
    int n = 0;
    while (values && values[n])
        n++;
    return n;
}

int ldap_count_values_len(struct berval **values)
{
    int n = 0;
    while (values && values[n])
        n++;
    return n;
}

void ldap_value_free(char **values)
{
    for (char **v = values; v && *v; v++)
        zldap::mem_free(*v);
    zldap::mem_free(values);
}

void ldap_value_free_len(struct berval **values) { ber_bvecfree(values); }

void ldap_memfree(void *p) { zldap::mem_free(p); }

void ldap_ber_free(BerElement *ber, int) { zldap::mem_free(ber); }

void ldap_mods_free(LDAPMod **mods, int freemods)
{
    for (LDAPMod **m = mods; m && *m; m++) {
        LDAPMod *mod = *m;
        zldap::mem_free(mod->mod_type);
        if (mod->mod_op & LDAP_MOD_BVALUES)
            ldap_value_free_len(mod->mod_bvalues);
        else
            ldap_value_free(mod->mod_values);
        zldap::mem_free(mod);
    }
    if (freemods)
        zldap::mem_free(mods);
}
