// dns_answer.cpp - reading an answer: the header checks, the server
// records of a service name's SRV, TXT or CNAME answers, and a host's own
// TXT strings. Loops over questions and answers run at most as often as
// the counts say and stop at the first read past the end, so a count that
// lies ends in 135.
#include "dns/dns_message.h"
#include "dns/ldapdns.h"
#include "dns/server_list.h"

#include "base/memory.h"
#include "base/trace.h"

#include <cstdio>
#include <cstring>
#include <strings.h>

namespace zldap {
namespace {

constexpr size_t kTextSize = 256;           // a character-string and its NUL
constexpr size_t kHostSize = kDnsNameMax + 1;

// The decimal number at the start of text (0 when there is none), capped
// so that it never overflows.
unsigned leading_number(const char *text)
{
    unsigned value = 0;
    for (; *text >= '0' && *text <= '9'; text++)
        value = value > 100000 ? value : value * 10 + static_cast<unsigned>(*text - '0');
    return value;
}

// The four items of a service name's TXT answer: priority, weight, port
// and target, blank-separated in the first string or one per string.
// False when there are fewer than four; 135 through *rc on bad data.
bool text_items(const uint8_t *msg, const DnsRecord &record, char items[4][kTextSize], int *rc)
{
    size_t end = record.data + record.data_length;
    size_t pos = record.data;
    char first[kTextSize];
    *rc = dns_read_text(msg, end, &pos, first);
    if (*rc != LDAP_SUCCESS)
        return false;
    int count = 0;
    if (std::strchr(first, ' ')) {
        for (char *save = nullptr, *word = strtok_r(first, " ", &save); word && count < 4;
             word = strtok_r(nullptr, " ", &save))
            std::snprintf(items[count++], kTextSize, "%s", word);
        return count == 4;
    }
    std::memcpy(items[count++], first, kTextSize);
    while (count < 4 && pos < end) {
        *rc = dns_read_text(msg, end, &pos, items[count++]);
        if (*rc != LDAP_SUCCESS)
            return false;
    }
    return count == 4;
}

// One answer record of the type asked for as a server, or none (0 with
// *server NULL) for a TXT answer with too few items. 0, 135 or 90.
int record_server(DnsQueryState *q, const DnsRecord &record, server_info **server)
{
    *server = nullptr;
    const uint8_t *msg = q->buffer;
    char host[kHostSize + kTextSize];
    unsigned priority = 0, weight = 0, port = 0;
    const char *found; // the trace line of the record's type
    int rc = LDAP_SUCCESS;
    size_t pos = record.data;
    if (record.type == kDnsTypeSrv) {
        found = "ldapdns: SRV record found: %d %d %d %s\n";
        if (record.data_length < 7)
            return LDAP_DNS_BAD_DATA;
        priority = dns_get16(msg + pos);
        weight = dns_get16(msg + pos + 2);
        port = dns_get16(msg + pos + 4);
        pos += 6;
        rc = dns_read_name(msg, q->length, &pos, host);
    } else if (record.type == kDnsTypeTxt) {
        found = "ldapdns: TXT record found: %d %d %d %s\n";
        char items[4][kTextSize];
        if (!text_items(msg, record, items, &rc))
            return rc;
        priority = leading_number(items[0]);
        weight = leading_number(items[1]);
        port = leading_number(items[2]);
        // A target ending in "." is complete; any other lies in the domain.
        size_t n = std::strlen(items[3]);
        if (n > 0 && items[3][n - 1] == '.')
            std::snprintf(host, sizeof host, "%.*s", static_cast<int>(n - 1), items[3]);
        else
            std::snprintf(host, sizeof host, "%s.%s", items[3], q->domain);
    } else {
        found = "ldapdns: CNAME record found: %d %d %d %s\n";
        rc = dns_read_name(msg, q->length, &pos, host);
    }
    if (rc != LDAP_SUCCESS)
        return rc;
    LDAP_TRACE(TRC_API, found, static_cast<int>(priority & 0xffff),
               static_cast<int>(weight & 0xffff), static_cast<int>(port & 0xffff), host);
    *server = server_info_new(host, static_cast<int>(port & 0xffff), priority, weight, q->service, q->domain);
    return *server ? LDAP_SUCCESS : LDAP_NO_MEMORY;
}

// Every answer of one type as servers in q->current. 0, 135 or 90.
int collect_type(DnsQueryState *q, int type)
{
    size_t pos = q->answer_offset;
    for (int i = 0; i < q->answer_count; i++) {
        DnsRecord record;
        int rc = dns_read_record(q->buffer, q->length, &pos, &record);
        if (rc == LDAP_SUCCESS && record.type == type) {
            server_info *server = nullptr;
            rc = record_server(q, record, &server);
            if (server)
                server_list_insert(&q->current, server);
        }
        if (rc != LDAP_SUCCESS)
            return rc;
    }
    return LDAP_SUCCESS;
}

bool replace_text(char **field, const char *value)
{
    char *copy = mem_strdup(value);
    if (!copy)
        return false;
    mem_free(*field);
    *field = copy;
    return true;
}

// "ldap[s]://host[:port][/suffix[?...]]" into the server. 0, 90, or 135
// for a malformed URL (which the caller reports and stops at).
int apply_service_url(server_info *server, const char *url)
{
    int sec_flag;
    if (strncasecmp(url, "ldap://", 7) == 0)
        sec_flag = 1;
    else if (strncasecmp(url, "ldaps://", 8) == 0)
        sec_flag = 2;
    else
        return LDAP_DNS_BAD_DATA;
    const char *host = url + (sec_flag == 1 ? 7 : 8);
    size_t host_length = std::strcspn(host, ":/?");
    const char *rest = host + host_length;
    int port = sec_flag == 1 ? 389 : 636;
    if (*rest == ':') {
        size_t digits = std::strspn(rest + 1, "0123456789");
        if (digits == 0 || (rest[1 + digits] && rest[1 + digits] != '/'))
            return LDAP_DNS_BAD_DATA;
        port = static_cast<int>(leading_number(rest + 1));
        rest += 1 + digits;
    }
    const char *suffix = nullptr;
    size_t suffix_length = 0;
    if (*rest == '/') {
        suffix = rest + 1;
        suffix_length = std::strcspn(suffix, "?");
        if (suffix_length == 0)
            return LDAP_DNS_BAD_DATA;
    }
    if (host_length == 0)
        return LDAP_DNS_BAD_DATA;
    char *new_host = mem_strndup(host, host_length);
    char *new_suffix = suffix ? mem_strndup(suffix, suffix_length) : nullptr;
    if (!new_host || (suffix && !new_suffix)) {
        mem_free(new_host);
        mem_free(new_suffix);
        return LDAP_NO_MEMORY;
    }
    mem_free(server->host);
    server->host = new_host;
    if (suffix) {
        mem_free(server->suffix);
        server->suffix = new_suffix;
    }
    server->sec_flag = sec_flag;
    if (server->port == 0)
        server->port = port;
    return LDAP_SUCCESS;
}

// One key:value string. 0, 90, or 135 for a malformed service URL.
int apply_pair(server_info *server, const char *text)
{
    const char *colon = std::strchr(text, ':');
    if (!colon)
        return LDAP_SUCCESS;
    const char *value = colon + 1 + std::strspn(colon + 1, " \t");
    size_t key_length = static_cast<size_t>(colon - text);
    auto key_is = [&](const char *key) { return std::strlen(key) == key_length && !std::strncmp(text, key, key_length); };
    if (key_is("service"))
        return apply_service_url(server, value);
    if (key_is("ldaptype")) {
        if (strcasecmp(value, "master") == 0)
            server->replica = 1;
        else if (strcasecmp(value, "replica") == 0)
            server->replica = 2;
    } else if (key_is("ldapvendor")) {
        return replace_text(&server->vendor, value) ? LDAP_SUCCESS : LDAP_NO_MEMORY;
    } else if (key_is("ldapinfo")) {
        return replace_text(&server->info, value) ? LDAP_SUCCESS : LDAP_NO_MEMORY;
    }
    return LDAP_SUCCESS;
}

} // namespace

int dns_read_answer_header(DnsQueryState *q)
{
    const uint8_t *msg = q->buffer;
    if (q->length < kDnsHeaderSize)
        return LDAP_DNS_BAD_DATA;
    uint16_t flags = dns_get16(msg + 2);
    q->rcode = flags & 0x0f;
    if (q->rcode != 0) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: DNS response code = %d\n", q->rcode);
        return -1;
    }
    if (flags & kDnsFlagTruncated) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: message has been truncated\n");
        if (q->connection_type == 0)
            return LDAP_DNS_TRUNCATED;
        q->truncated++;
    }
    int questions = dns_get16(msg + 4);
    q->answer_count = dns_get16(msg + 6);
    size_t pos = kDnsHeaderSize;
    for (int i = 0; i < questions; i++) {
        if (dns_read_name(msg, q->length, &pos, nullptr) != LDAP_SUCCESS || q->length - pos < 4)
            return LDAP_DNS_BAD_DATA;
        pos += 4;
    }
    q->answer_offset = pos;
    return LDAP_SUCCESS;
}

int dns_collect_servers(DnsQueryState *q)
{
    static const int kTypes[] = {kDnsTypeSrv, kDnsTypeTxt, kDnsTypeCname};
    for (int type : kTypes) {
        int rc = collect_type(q, type);
        if (rc != LDAP_SUCCESS) {
            server_list_free(q->current);
            q->current = nullptr;
            return rc;
        }
        if (q->current)
            return LDAP_SUCCESS;
    }
    LDAP_TRACE(TRC_API, "ldapdns: no LDAP servers found\n");
    return LDAP_DNS_SERVERS_FOUND;
}

int dns_apply_host_text(DnsQueryState *q, server_info *server)
{
    size_t pos = q->answer_offset;
    for (int i = 0; i < q->answer_count; i++) {
        DnsRecord record;
        int rc = dns_read_record(q->buffer, q->length, &pos, &record);
        if (rc != LDAP_SUCCESS)
            return rc;
        if (record.type != kDnsTypeTxt)
            continue;
        size_t end = record.data + record.data_length;
        for (size_t at = record.data; at < end;) {
            char text[kTextSize];
            rc = dns_read_text(q->buffer, end, &at, text);
            if (rc != LDAP_SUCCESS)
                return rc;
            rc = apply_pair(server, text);
            // A malformed URL ends this host's information, not the lookup.
            if (rc == LDAP_DNS_BAD_DATA) {
                LDAP_TRACE(TRC_ERROR, "ldapdns: Invalid URL line: %s\n", text);
                return LDAP_SUCCESS;
            }
            if (rc != LDAP_SUCCESS)
                return rc;
        }
    }
    return LDAP_SUCCESS;
}

} // namespace zldap
