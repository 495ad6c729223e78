// dns_message.h - the DNS wire format: queries written into a buffer,
// names (with compression pointers) and resource records read from a
// received message. Bytes in, bytes out: every read is checked against
// the message length, and a read past it is 135 (LDAP_DNS_BAD_DATA).
#ifndef ZLDAP_DNS_MESSAGE_H
#define ZLDAP_DNS_MESSAGE_H

#include <cstddef>
#include <cstdint>

namespace zldap {

inline constexpr int kDnsTypeCname = 5;
inline constexpr int kDnsTypeTxt = 16;
inline constexpr int kDnsTypeSrv = 33;
inline constexpr int kDnsTypeAny = 255;

inline constexpr size_t kDnsHeaderSize = 12;
inline constexpr size_t kDnsNameMax = 255;     // longest name, dots included
inline constexpr uint16_t kDnsFlagTruncated = 0x0200;

// A query for name: the name's length plus 18 bytes at most.
inline size_t dns_query_size(size_t name_length) { return name_length + 18; }
// Writes a recursive query of type 255 or 16 for name into buf (room for
// dns_query_size bytes); *length is what was written. 0, or 135 for another
// type or a name that cannot be written (an empty or overlong label).
int dns_build_query(uint16_t id, const char *name, int type, uint8_t *buf, size_t *length);

uint16_t dns_get16(const uint8_t *p);

// Reads the name at *pos into out (kDnsNameMax + 1 bytes; NULL to skip
// it), labels joined with "."; *pos moves past the name, or past the first
// compression pointer. 0 or 135 (past the end, a pointer loop, too long).
int dns_read_name(const uint8_t *msg, size_t length, size_t *pos, char *out);

// One resource record: its type and where its data lies.
struct DnsRecord {
    int type;
    size_t data;        // offset of the record data
    size_t data_length;
};
// Reads the record at *pos and moves past it. 0 or 135.
int dns_read_record(const uint8_t *msg, size_t length, size_t *pos, DnsRecord *record);

// Reads the character-string at *pos (ending before end) into out (256
// bytes, NUL-terminated) and moves past it. 0 or 135.
int dns_read_text(const uint8_t *msg, size_t end, size_t *pos, char *out);

} // namespace zldap

#endif
