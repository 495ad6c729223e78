// dns_system.cpp - the name servers and domains of a locate call: the
// request's own lists, else LOCALDOMAIN, the resolver file and the part of
// the host name after its first ".".
#include "dns/ldapdns.h"

#include "base/environment.h"
#include "base/memory.h"
#include "base/trace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace zldap {
namespace {

constexpr size_t kLineSize = 256;
constexpr size_t kHostNameSize = 256;
constexpr char kBlanks[] = " \t";

// A growing NULL-terminated list of owned texts.
struct TextList {
    char **items = nullptr;
    size_t count = 0;

    bool add(const char *text, size_t length)
    {
        auto **grown = static_cast<char **>(mem_realloc(items, (count + 2) * sizeof *items));
        if (!grown)
            return false;
        items = grown;
        items[count] = mem_strndup(text, length);
        if (!items[count])
            return false;
        items[++count] = nullptr;
        return true;
    }
    bool add(const char *text) { return add(text, std::strlen(text)); }
    void clear()
    {
        for (size_t i = 0; i < count; i++)
            mem_free(items[i]);
        mem_free(items);
        items = nullptr;
        count = 0;
    }
    char **release()
    {
        char **out = items;
        items = nullptr;
        count = 0;
        return out;
    }
};

bool has_items(char **list) { return list && list[0]; }

bool copy_list(TextList &to, char **from)
{
    for (; from && *from; from++)
        if (!to.add(*from))
            return false;
    return true;
}

// The text after a keyword and its blanks when line starts with the
// keyword followed by a blank; NULL otherwise.
const char *after_keyword(const char *line, const char *keyword)
{
    size_t n = std::strlen(keyword);
    if (std::strncmp(line, keyword, n) != 0 || !std::strchr(kBlanks, line[n]) || line[n] == '\0')
        return nullptr;
    return line + n + std::strspn(line + n, kBlanks);
}

// Reads the resolver file's name servers (when wanted) and its domain or
// search line (when domains are wanted). 0, 90, or 136 when it cannot be
// opened while name servers are wanted.
int read_resolver_file(const char *path, bool want_servers, bool want_domains, TextList &servers, TextList &domains)
{
    FILE *file = std::fopen(path, "re");
    if (!file) {
        if (!want_servers)
            return LDAP_SUCCESS;
        LDAP_TRACE(TRC_ERROR, "ldapdns: Can't open /etc/resolv.conf: rc = %d\n", errno);
        return LDAP_DNS_NO_DOMAIN;
    }
    char line[kLineSize];
    bool ok = true;
    while (ok && std::fgets(line, sizeof line, file)) {
        size_t length = std::strlen(line);
        // The rest of an overlong line is no line of its own.
        if (length > 0 && line[length - 1] != '\n')
            for (int c = std::fgetc(file); c != EOF && c != '\n'; c = std::fgetc(file)) {
            }
        while (length > 0 && std::strchr(" \t\r\n", line[length - 1]))
            line[--length] = '\0';
        const char *rest;
        if (want_servers && (rest = after_keyword(line, "nameserver")) && *rest) {
            ok = servers.add(rest);
        } else if (want_domains && (rest = after_keyword(line, "domain"))) {
            domains.clear();
            ok = !*rest || domains.add(rest);
        } else if (want_domains && (rest = after_keyword(line, "search"))) {
            domains.clear();
            for (size_t n; ok && *rest; rest += n, rest += std::strspn(rest, kBlanks)) {
                n = std::strcspn(rest, kBlanks);
                ok = domains.add(rest, n);
            }
        }
    }
    std::fclose(file);
    return ok ? LDAP_SUCCESS : LDAP_NO_MEMORY;
}

// The domain of the host name: what follows its first ".". 0, 90 or 136.
int host_domain(const char *host_name, TextList &domains)
{
    char buffer[kHostNameSize] = {};
    if (!host_name) {
        if (gethostname(buffer, sizeof buffer - 1) != 0)
            return LDAP_DNS_NO_DOMAIN;
        host_name = buffer;
    }
    const char *dot = std::strchr(host_name, '.');
    if (!dot || !dot[1])
        return LDAP_DNS_NO_DOMAIN;
    return domains.add(dot + 1) ? LDAP_SUCCESS : LDAP_NO_MEMORY;
}

// LOCALDOMAIN, taken whole as the only domain. 0 or 90.
int local_domain(TextList &domains)
{
    if (ldap_chkenv("LOCALDOMAIN") <= 1)
        return LDAP_SUCCESS; // unset or empty
    char *value = ldap_getenv("LOCALDOMAIN");
    bool ok = value && domains.add(value);
    mem_free(value);
    return ok ? LDAP_SUCCESS : LDAP_NO_MEMORY;
}

} // namespace

int dns_settle_search_lists(const server_request *request, const char *resolv_conf, const char *host_name,
                            DnsSearchLists *lists)
{
    lists->name_servers = lists->domains = nullptr;
    TextList servers, domains;
    int rc = copy_list(servers, request->name_servers) && copy_list(domains, request->dns_domains)
                 ? LDAP_SUCCESS
                 : LDAP_NO_MEMORY;
    if (rc == LDAP_SUCCESS && domains.count == 0)
        rc = local_domain(domains);
    bool want_servers = !has_items(request->name_servers) && request->search_source != 1;
    if (rc == LDAP_SUCCESS && (want_servers || domains.count == 0))
        rc = read_resolver_file(resolv_conf, want_servers, domains.count == 0, servers, domains);
    if (rc == LDAP_SUCCESS && want_servers && servers.count == 0)
        rc = LDAP_DNS_NO_DOMAIN;
    if (rc == LDAP_SUCCESS && domains.count == 0)
        rc = host_domain(host_name, domains);
    // Configuration-only searches still run the per-server loop once.
    if (rc == LDAP_SUCCESS && request->search_source == 1) {
        servers.clear();
        rc = servers.add("dummyServer") ? LDAP_SUCCESS : LDAP_NO_MEMORY;
    }
    if (rc != LDAP_SUCCESS) {
        servers.clear();
        domains.clear();
        return rc;
    }
    lists->name_servers = servers.release();
    lists->domains = domains.release();
    return LDAP_SUCCESS;
}

void dns_search_lists_free(DnsSearchLists *lists)
{
    for (char **lists_of[] = {lists->name_servers, lists->domains}; char **list : lists_of) {
        for (char **p = list; p && *p; p++)
            mem_free(*p);
        mem_free(list);
    }
    lists->name_servers = lists->domains = nullptr;
}

} // namespace zldap
