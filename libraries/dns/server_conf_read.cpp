// server_conf_read.cpp - reading the server configuration file: comments,
// the expiry line, one server a line with its numbers and quoted texts,
// and the lookup of a service name among the servers read.
#include "dns/server_conf.h"
#include "dns/server_list.h"

#include "base/memory.h"
#include "base/trace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <strings.h>

namespace zldap {
namespace {

constexpr size_t kLineSize = 1024;
constexpr char kBlanks[] = " \t\r\n"; // a line's own end counts as a blank
constexpr char kDigits[] = "0123456789";
constexpr int kDefaultPort = 389;
constexpr unsigned long kNumberMax = 65535;

char *skip_blanks(char *p) { return p + std::strspn(p, kBlanks); }
bool ends_item(char c) { return c == '\0' || std::strchr(kBlanks, c); }

// The digits at *p as a number no larger than max; false when they are
// not digits alone or too large.
bool read_number(char **p, unsigned long max, unsigned long *value)
{
    size_t n = std::strspn(*p, kDigits);
    if (n == 0 || !ends_item((*p)[n]))
        return false;
    *value = 0;
    for (size_t i = 0; i < n; i++) {
        *value = *value * 10 + static_cast<unsigned long>((*p)[i] - '0');
        if (*value > max)
            return false;
    }
    *p += n;
    return true;
}

// The quoted text at *p, its escapes resolved in place; NULL for a text
// that is not quoted or not closed.
char *read_text(char **p)
{
    char *from = *p;
    if (*from++ != '"')
        return nullptr;
    char *text = from;
    char *to = from;
    while (*from && *from != '"') {
        if (*from == '\\' && (from[1] == '"' || from[1] == '\\'))
            from++;
        *to++ = *from++;
    }
    if (*from != '"' || !ends_item(from[1]))
        return nullptr;
    *p = from + 1;
    *to = '\0';
    return text;
}

// The record for the items of a parsed line ("" stands for no text).
int make_entry(char *const words[3], const unsigned long numbers[5], char *const texts[3], server_info **entry)
{
    server_info *s = server_info_new(words[2], static_cast<int>(numbers[2]), static_cast<unsigned>(numbers[0]),
                                     static_cast<unsigned>(numbers[1]), words[0], words[1]);
    if (!s)
        return LDAP_NO_MEMORY;
    s->replica = static_cast<int>(numbers[3]);
    s->sec_flag = static_cast<int>(numbers[4]);
    char **fields[3] = {&s->suffix, &s->vendor, &s->info};
    for (int i = 0; i < 3; i++)
        if (texts[i] && *texts[i] && !(*fields[i] = mem_strdup(texts[i]))) {
            server_info_free(s);
            return LDAP_NO_MEMORY;
        }
    *entry = s;
    return LDAP_SUCCESS;
}

// The expiry line: a number alone.
bool read_expiry(char *line, unsigned long *expiry)
{
    char *p = skip_blanks(line);
    return read_number(&p, static_cast<unsigned long>(-1) / 10, expiry) && !*skip_blanks(p);
}

} // namespace

int server_conf_parse_line(const char *line, server_info **entry)
{
    *entry = nullptr;
    char *copy = mem_strdup(line);
    if (!copy)
        return LDAP_NO_MEMORY;
    char *p = skip_blanks(copy);
    char *words[3] = {};
    unsigned long numbers[5] = {0, 0, kDefaultPort, 0, 0};
    char *texts[3] = {};
    bool ok = true;
    for (int i = 0; i < 3 && ok; i++) {
        words[i] = p;
        p += std::strcspn(p, kBlanks);
        ok = p != words[i];
        if (*p)
            *p++ = '\0';
        p = skip_blanks(p);
    }
    for (int i = 0; i < 5 && ok && *p; i++, p = skip_blanks(p))
        ok = read_number(&p, kNumberMax, &numbers[i]);
    for (int i = 0; i < 3 && ok && *p; i++, p = skip_blanks(p))
        ok = (texts[i] = read_text(&p)) != nullptr;
    int rc = ok && !*p ? make_entry(words, numbers, texts, entry) : LDAP_DNS_CONFIG_ERROR;
    mem_free(copy);
    return rc;
}

int server_conf_read(const char *path, server_info **entries)
{
    *entries = nullptr;
    FILE *file = std::fopen(path, "re");
    if (!file) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: Error opening configuration file %s: rc = %d\n", path, errno);
        return LDAP_DNS_CONFIG_ERROR;
    }
    char line[kLineSize];
    bool expiry_read = false;
    int rc = LDAP_SUCCESS;
    while (rc == LDAP_SUCCESS && std::fgets(line, sizeof line, file)) {
        char *p = skip_blanks(line);
        if (*p == '\0' || *p == '#')
            continue;
        if (expiry_read) {
            server_info *entry = nullptr;
            rc = server_conf_parse_line(p, &entry);
            server_list_append(entries, &entry);
        } else {
            expiry_read = true;
            unsigned long expiry = 0;
            rc = read_expiry(p, &expiry) ? LDAP_SUCCESS : LDAP_DNS_CONFIG_ERROR;
            if (rc == LDAP_SUCCESS && expiry != 0 && expiry < static_cast<unsigned long>(time(nullptr))) {
                LDAP_TRACE(TRC_ERROR, "ldapdns: configuration file has expired\n");
                rc = LDAP_DNS_CONFIG_ERROR;
                break;
            }
        }
        if (rc == LDAP_DNS_CONFIG_ERROR)
            LDAP_TRACE(TRC_ERROR, "ldapdns: invalid line in configuration file: %s", line);
    }
    std::fclose(file);
    if (rc != LDAP_SUCCESS) {
        server_list_free(*entries);
        *entries = nullptr;
    }
    return rc;
}

int server_conf_lookup(DnsQueryState *q, const server_info *entries, const char *service, const char *domain)
{
    for (const server_info *e = entries; e; e = e->next) {
        if (strcasecmp(e->service, service) != 0 || strcasecmp(e->domain, domain) != 0 ||
            !dns_suffix_matches(q->dn_filter, e->suffix))
            continue;
        server_info *copy = server_info_copy(e);
        if (!copy) {
            server_list_free(q->current);
            q->current = nullptr;
            return LDAP_NO_MEMORY;
        }
        LDAP_TRACE(TRC_API, "ldapdns: CONF record found: %d %d %d %s\n", copy->priority, copy->weight, copy->port,
                   copy->host);
        server_list_insert(&q->current, copy);
    }
    if (!q->current) {
        LDAP_TRACE(TRC_API, "ldapdns: no LDAP servers found in configuration file\n");
        return LDAP_DNS_SERVERS_FOUND;
    }
    server_list_order_by_weight(&q->current, static_cast<unsigned>(time(nullptr)));
    server_list_append(&q->results, &q->current);
    return LDAP_SUCCESS;
}

} // namespace zldap
