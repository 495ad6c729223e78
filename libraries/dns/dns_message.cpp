// dns_message.cpp - writing queries and reading names, records and
// character-strings of DNS messages.
#include "dns/dns_message.h"

#include "zor8ldap_api.h"

#include <cstring>

namespace zldap {
namespace {

constexpr size_t kLabelMax = 63;
// More pointers than a name of 255 bytes can need: a loop.
constexpr int kPointerLimit = 128;

void put16(uint8_t *p, unsigned value)
{
    p[0] = static_cast<uint8_t>(value >> 8);
    p[1] = static_cast<uint8_t>(value);
}

} // namespace

uint16_t dns_get16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

int dns_build_query(uint16_t id, const char *name, int type, uint8_t *buf, size_t *length)
{
    if (type != kDnsTypeAny && type != kDnsTypeTxt)
        return LDAP_DNS_BAD_DATA;
    size_t name_length = std::strlen(name);
    if (name_length > kDnsNameMax)
        return LDAP_DNS_BAD_DATA;
    put16(buf, id);
    put16(buf + 2, 0x0100); // recursion desired
    put16(buf + 4, 1);
    put16(buf + 6, 0);
    put16(buf + 8, 0);
    put16(buf + 10, 0);
    size_t pos = kDnsHeaderSize;
    const char *label = name;
    // Each label as its length and bytes; a final "." adds nothing.
    while (*label) {
        const char *dot = std::strchr(label, '.');
        size_t n = dot ? static_cast<size_t>(dot - label) : std::strlen(label);
        if (n == 0 || n > kLabelMax)
            return LDAP_DNS_BAD_DATA;
        buf[pos++] = static_cast<uint8_t>(n);
        std::memcpy(buf + pos, label, n);
        pos += n;
        label += dot ? n + 1 : n;
    }
    buf[pos++] = 0;
    put16(buf + pos, static_cast<unsigned>(type));
    put16(buf + pos + 2, 1); // IN
    *length = pos + 4;
    return LDAP_SUCCESS;
}

int dns_read_name(const uint8_t *msg, size_t length, size_t *pos, char *out)
{
    size_t p = *pos;
    size_t written = 0;
    bool jumped = false;
    int pointers = 0;
    for (;;) {
        if (p >= length)
            return LDAP_DNS_BAD_DATA;
        size_t n = msg[p];
        if (n == 0) {
            p++;
            break;
        }
        if (n > kLabelMax) {
            if (length - p < 2 || ++pointers > kPointerLimit)
                return LDAP_DNS_BAD_DATA;
            size_t target = (n & 0x3f) * 256 + msg[p + 1];
            if (!jumped)
                *pos = p + 2;
            jumped = true;
            p = target;
            continue;
        }
        if (n > length - p - 1 || written + (written ? 1 : 0) + n > kDnsNameMax)
            return LDAP_DNS_BAD_DATA;
        if (out) {
            if (written)
                out[written] = '.';
            std::memcpy(out + written + (written ? 1 : 0), msg + p + 1, n);
        }
        written += (written ? 1 : 0) + n;
        p += n + 1;
    }
    if (!jumped)
        *pos = p;
    if (out)
        out[written] = '\0';
    return LDAP_SUCCESS;
}

int dns_read_record(const uint8_t *msg, size_t length, size_t *pos, DnsRecord *record)
{
    size_t p = *pos;
    int rc = dns_read_name(msg, length, &p, nullptr);
    // type, class, time to live, data length
    if (rc != LDAP_SUCCESS || length - p < 10)
        return LDAP_DNS_BAD_DATA;
    record->type = dns_get16(msg + p);
    record->data_length = dns_get16(msg + p + 8);
    record->data = p + 10;
    if (record->data_length > length - record->data)
        return LDAP_DNS_BAD_DATA;
    *pos = record->data + record->data_length;
    return LDAP_SUCCESS;
}

int dns_read_text(const uint8_t *msg, size_t end, size_t *pos, char *out)
{
    size_t p = *pos;
    if (p >= end || msg[p] > end - p - 1)
        return LDAP_DNS_BAD_DATA;
    size_t n = msg[p];
    std::memcpy(out, msg + p + 1, n);
    out[n] = '\0';
    *pos = p + 1 + n;
    return LDAP_SUCCESS;
}

} // namespace zldap
