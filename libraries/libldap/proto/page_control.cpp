// page_control.cpp - the paged-results control: its request value written
// by hand into one buffer of exactly the needed size, and its response
// value read by hand.
#include "zor8ldap_api.h"

#include "base/memory.h"
#include "proto/control_codec.h"
#include "proto/ldap_controls.h"

#include <cstdint>
#include <cstring>

namespace {

// Definite lengths: the short form below 128, otherwise the long form with
// two, three or four octets (never the one-octet long form 0x81).
size_t length_size(uint64_t n)
{
    if (n < 0x80)
        return 1;
    if (n < 0x10000)
        return 3;
    if (n <= 0xFFFFFF)
        return 4;
    return 5;
}

unsigned char *put_length(unsigned char *p, uint64_t n)
{
    size_t size = length_size(n);
    if (size == 1) {
        *p++ = static_cast<unsigned char>(n);
        return p;
    }
    *p++ = static_cast<unsigned char>(0x80 | (size - 1));
    for (size_t shift = (size - 2) * 8;; shift -= 8) {
        *p++ = static_cast<unsigned char>(n >> shift);
        if (shift == 0)
            return p;
    }
}

// The fewest two's-complement octets that hold v, except that -8388608
// takes four.
size_t integer_size(int32_t v)
{
    if (v >= -128 && v <= 127)
        return 1;
    if (v >= -32768 && v <= 32767)
        return 2;
    if (v >= -8388607 && v <= 8388607)
        return 3;
    return 4;
}

// One paged-results response value: the size estimate, and the cookie
// when the SEQUENCE holds more than the INTEGER.
int decode_page_value(const struct berval &value, unsigned long *size_estimate, struct berval **cookie)
{
    const unsigned char *cookie_bytes;
    size_t len;
    int rc = zldap::hand_read_number_and_string(value, false, size_estimate, &cookie_bytes, &len);
    if (rc != LDAP_SUCCESS || !cookie_bytes)
        return rc;
    auto *bv = static_cast<struct berval *>(zldap::mem_calloc(1, sizeof(struct berval)));
    char *bytes = static_cast<char *>(zldap::mem_malloc(len + 1));
    if (!bv || !bytes) {
        zldap::mem_free(bv);
        zldap::mem_free(bytes);
        return LDAP_NO_MEMORY;
    }
    std::memcpy(bytes, cookie_bytes, len);
    bytes[len] = '\0';
    bv->bv_len = len;
    bv->bv_val = bytes;
    *cookie = bv;
    return LDAP_SUCCESS;
}

} // namespace

int ldap_create_page_control(LDAP *ld, unsigned long pagesize, struct berval *cookie, char iscritical,
                             LDAPControl **ctrlp)
{
    if (ctrlp)
        *ctrlp = nullptr;
    const char *cookie_bytes = cookie && cookie->bv_val ? cookie->bv_val : "";
    uint64_t cookie_len = cookie && cookie->bv_val ? cookie->bv_len : 0;
    // The long form holds at most four length octets.
    if (!ld || !ctrlp || cookie_len > UINT32_MAX - 32)
        return LDAP_PARAM_ERROR;

    auto size = static_cast<int32_t>(pagesize);
    size_t int_len = integer_size(size);
    uint64_t contents = 2 + int_len + 1 + length_size(cookie_len) + cookie_len;
    uint64_t total = 1 + length_size(contents) + contents;
    auto *buf = static_cast<unsigned char *>(zldap::mem_malloc(total));
    if (!buf)
        return LDAP_NO_MEMORY;
    unsigned char *p = buf;
    *p++ = 0x30;
    p = put_length(p, contents);
    *p++ = 0x02;
    *p++ = static_cast<unsigned char>(int_len);
    for (size_t i = int_len; i-- > 0;)
        *p++ = static_cast<unsigned char>(static_cast<uint32_t>(size) >> (i * 8));
    *p++ = 0x04;
    p = put_length(p, cookie_len);
    std::memcpy(p, cookie_bytes, cookie_len);

    int rc = ldap_create_control(LDAP_CONTROL_PAGEDRESULTS, total, reinterpret_cast<char *>(buf),
                                 iscritical == 'T', ctrlp);
    zldap::mem_free(buf);
    return rc;
}

int ldap_parse_page_control(LDAP *ld, LDAPControl **ctrls, unsigned long *size_estimate, struct berval **cookie)
{
    if (cookie)
        *cookie = nullptr;
    if (!ld || !ctrls || !size_estimate || !cookie)
        return LDAP_PARAM_ERROR;
    int rc = LDAP_CONTROL_NOT_FOUND;
    // Every matching control is read, so the last one decides.
    for (LDAPControl **c = zldap::next_control(ctrls, LDAP_CONTROL_PAGEDRESULTS); c;
         c = zldap::next_control(c + 1, LDAP_CONTROL_PAGEDRESULTS)) {
        ber_bvfree(*cookie);
        *cookie = nullptr;
        rc = decode_page_value((*c)->ldctl_value, size_estimate, cookie);
        if (rc != LDAP_SUCCESS)
            break;
    }
    return rc;
}
