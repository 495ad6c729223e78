// result_fields.cpp - reading a response's LDAPResult fields, its optional
// fields and the Controls after it. Every field's header is checked against
// the end of the operation before anything is copied, so a read that still
// fails can only have run out of memory: the two are told apart.
#include "proto/result_fields.h"

#include "base/memory.h"
#include "base/trace.h"
#include "proto/element_fits.h"
#include "proto/ldap_controls.h"

namespace zldap {

namespace {

// The next field inside the operation, read with fmt ("a" or "O") into a
// new T, or skipped when value is NULL. An empty field is skipped and
// comes back as `empty` when one is given, unless BER traffic is traced
// (the decoder's trace lines are the record of what was read).
template <typename T>
int read_field(BerElement *ber, const char *end, const char *fmt, T **value, T *empty = nullptr)
{
    ber_tag_t tag;
    ber_len_t len;
    if (!element_fits(ber, end, &tag, &len))
        return LDAP_DECODING_ERROR;
    if (!value || (empty && len == 0 && !trace_enabled(TRC_BER))) {
        if (fber_skip_element(ber) != 0)
            return LDAP_DECODING_ERROR;
        if (value)
            *value = empty;
        return LDAP_SUCCESS;
    }
    T *copy = nullptr;
    if (fber_scanf(ber, fmt, &copy) == LBER_DEFAULT)
        return LDAP_NO_MEMORY;
    *value = copy;
    return LDAP_SUCCESS;
}

// Whether the members of the SET at the position tile its contents
// exactly, each one fitting inside it.
bool members_fit(const BerElement *ber, const char *contents, ber_len_t len)
{
    BerElement walk = *ber;
    walk.ber_ptr = const_cast<char *>(contents);
    const char *end = contents + len;
    ber_tag_t tag;
    ber_len_t member_len;
    while (walk.ber_ptr < end) {
        if (!element_fits(&walk, end, &tag, &member_len))
            return false;
        fber_skip_element(&walk);
    }
    return true;
}

} // namespace

int ResultReader::head(int *code, char **matched, char **text, char *empty)
{
    ber_tag_t tag;
    ber_len_t len;
    if (!ber_ || !element_fits(ber_, ber_->ber_end, &tag, &len))
        return LDAP_DECODING_ERROR;
    fber_get_tag(ber_, &len);
    op_end_ = ber_->ber_ptr + len;

    int value = 0;
    if (!element_fits(ber_, op_end_, &tag, &len) || fber_get_int(ber_, &value) == LBER_DEFAULT)
        return LDAP_DECODING_ERROR;
    *code = value;

    char *dn = nullptr;
    int rc = read_field(ber_, op_end_, "a", matched ? &dn : nullptr, empty);
    if (rc == LDAP_SUCCESS)
        rc = read_field(ber_, op_end_, "a", text, empty);
    if (rc == LDAP_SUCCESS && matched)
        *matched = dn;
    else if (dn != empty)
        mem_free(dn);
    return rc;
}

bool ResultReader::next_is(ber_tag_t tag)
{
    return op_end_ && op_end_ - ber_->ber_ptr >= 2 && fber_peek_tag(ber_, nullptr) == tag;
}

int ResultReader::referrals(char ***urls)
{
    if (!next_is(kTagReferral))
        return LDAP_SUCCESS;
    ber_tag_t tag;
    ber_len_t len;
    const char *contents = nullptr;
    if (!element_fits(ber_, op_end_, &tag, &len, &contents) || !members_fit(ber_, contents, len))
        return LDAP_DECODING_ERROR;
    if (!urls)
        return fber_skip_element(ber_) == 0 ? LDAP_SUCCESS : LDAP_DECODING_ERROR;
    char **list = nullptr;
    if (fber_scanf(ber_, "{v}", &list) == LBER_DEFAULT)
        return LDAP_NO_MEMORY;
    *urls = list;
    return LDAP_SUCCESS;
}

int ResultReader::optional_string(ber_tag_t tag, char **value)
{
    return next_is(tag) ? read_field(ber_, op_end_, "a", value) : LDAP_SUCCESS;
}

int ResultReader::optional_octets(ber_tag_t tag, struct berval **value)
{
    return next_is(tag) ? read_field(ber_, op_end_, "O", value) : LDAP_SUCCESS;
}

int ResultReader::controls(LDAPControl ***ctrls)
{
    if (!op_end_)
        return LDAP_DECODING_ERROR;
    ber_->ber_ptr = const_cast<char *>(op_end_);
    LDAPControl **list = nullptr;
    int rc = get_ctrls_from_ber(ber_, &list);
    if (rc == LDAP_SUCCESS && ctrls)
        *ctrls = list;
    else
        ldap_controls_free(list);
    return rc;
}

void ResultReader::consume()
{
    if (ber_)
        ber_->ber_ptr = ber_->ber_end;
}

} // namespace zldap
