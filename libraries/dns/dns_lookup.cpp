// dns_lookup.cpp - looking up one service name: the service query, its
// server records, each server's own host information, the suffix filter,
// and the weighted order within each priority.
#include "dns/dns_message.h"
#include "dns/ldapdns.h"
#include "dns/server_list.h"

#include "base/memory.h"
#include "base/trace.h"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace zldap {
namespace {

constexpr int kDefaultPort = 389;

int set_query_name(DnsQueryState *q, const char *service, const char *protocol, const char *domain)
{
    q->service = service;
    q->protocol = protocol;
    q->domain = domain;
    size_t size = std::strlen(service) + std::strlen(protocol) + std::strlen(domain) + 3;
    char *name = static_cast<char *>(mem_malloc(size));
    if (!name)
        return LDAP_NO_MEMORY;
    std::snprintf(name, size, "%s.%s.%s", service, protocol, domain);
    mem_free(q->query_name);
    q->query_name = name;
    return LDAP_SUCCESS;
}

// Asks for each server's own TXT record and applies it; then the default
// port and the suffix filter. 0, or the failure that ends the lookup.
int complete_servers(DnsQueryState *q)
{
    server_info *next = nullptr;
    for (server_info *server = q->current; server; server = next) {
        next = server->next;
        LDAP_TRACE(TRC_API, "ldapdns: requesting host information for %s\n", server->host);
        int rc = dns_query(q, server->host, kDnsTypeTxt);
        if (rc == LDAP_SUCCESS)
            rc = dns_apply_host_text(q, server);
        if (rc != LDAP_SUCCESS && rc != -1)
            return rc;
        if (server->port == 0)
            server->port = kDefaultPort;
        if (!dns_suffix_matches(q->dn_filter, server->suffix)) {
            LDAP_TRACE(TRC_API, "ldapdns: non-matching suffix, removing %s from list\n", server->host);
            server_list_unlink(&q->current, server);
            server_info_free(server);
        }
    }
    return LDAP_SUCCESS;
}

} // namespace

int dns_lookup_service(DnsQueryState *q, const char *service, const char *protocol, const char *domain,
                       const char *name_server, DnsTransport transport)
{
    int rc = set_query_name(q, service, protocol, domain);
    if (rc == LDAP_SUCCESS && q->sd < 0)
        rc = dns_connect(q, name_server, transport);
    if (rc == LDAP_SUCCESS)
        rc = dns_query(q, q->query_name, kDnsTypeAny);
    if (rc == LDAP_SUCCESS)
        rc = dns_collect_servers(q);
    if (rc == LDAP_SUCCESS)
        rc = complete_servers(q);
    if (rc != LDAP_SUCCESS) {
        server_list_free(q->current);
        q->current = nullptr;
        return rc;
    }
    server_list_order_by_weight(&q->current, static_cast<unsigned>(time(nullptr)));
    server_list_append(&q->results, &q->current);
    return LDAP_SUCCESS;
}

} // namespace zldap
