// server_locate.cpp - ldap_server_locate: the configuration file and DNS
// asked for each service name in a fixed order, at each name server in
// turn and for each domain of the search list, and the servers found
// handed to the caller.
#include "dns/server_locate.h"

#include "dns/ldapdns.h"
#include "dns/server_conf.h"
#include "dns/server_list.h"

#include "base/memory.h"
#include "base/trace.h"

#include <cstdio>
#include <cstring>

namespace zldap {
namespace {

LocateFiles g_files = {};

// The state of one call.
struct Locate {
    const server_request *request;
    DnsQueryState q;
    DnsSearchLists lists;
    server_info *conf;    // the configuration file's servers
    char *default_domain; // the user's default enetwork domain
};

// Codes that end the whole search at once.
bool ends_search(int rc) { return rc == LDAP_SUCCESS || rc == LDAP_LOCAL_ERROR || rc == LDAP_NO_MEMORY; }

// "{a, b}" in buf (cut to its size), or "NULL" for no list.
const char *list_text(char **list, char *buf, size_t size)
{
    if (!list)
        return "NULL";
    int used = std::snprintf(buf, size, "{");
    for (char **p = list; *p && used >= 0 && static_cast<size_t>(used) < size; p++)
        used += std::snprintf(buf + used, size - static_cast<size_t>(used), "%s%s", p == list ? "" : ", ", *p);
    if (used >= 0 && static_cast<size_t>(used) < size)
        std::snprintf(buf + used, size - static_cast<size_t>(used), "}");
    return buf;
}

void trace_request(const server_request *r)
{
    char servers[512], domains[512];
    trace_print(TRC_API, "ldap_server_locate({%d, %s, x, %s, %s, %s, %s, %s, %d, %d, %s, x}, x)\n", r->search_source,
                trace_str(r->conf_filename, "NULL"), trace_str(r->service_key, "NULL"), trace_str(r->protocol, "NULL"),
                trace_str(r->enetwork_domain, "NULL"), list_text(r->name_servers, servers, sizeof servers),
                list_text(r->dns_domains, domains, sizeof domains), r->connection_type, r->connection_timeout,
                trace_str(r->DN_filter, "NULL"));
}

// One DNS lookup; with connection type 0 a UDP lookup that fails to
// connect or comes back truncated is asked again over TCP.
int ask_dns(Locate &l, const char *service, const char *protocol, const char *domain, const char *name_server)
{
    const int type = l.request->connection_type;
    const DnsTransport first = type == 2 ? DnsTransport::Tcp : DnsTransport::Udp;
    int rc = dns_lookup_service(&l.q, service, protocol, domain, name_server, first);
    if (type == 0 && (rc == LDAP_CONNECT_ERROR || rc == LDAP_DNS_TRUNCATED)) {
        dns_close(&l.q);
        l.q.truncated = 0;
        rc = dns_lookup_service(&l.q, service, protocol, domain, name_server, DnsTransport::Tcp);
    }
    return rc;
}

// One service name at each name server in turn, until one of them yields
// servers that DNS found (or that the configuration file holds without
// DNS being asked); the servers of one name server are the results.
int locate_service(Locate &l, const char *service, const char *protocol)
{
    const int source = l.request->search_source;
    int rc = LDAP_SUCCESS;
    for (char **name_server = l.lists.name_servers; *name_server; name_server++) {
        server_list_free(l.q.results);
        l.q.results = nullptr;
        l.q.truncated = 0;
        bool found = false, dns_asked = false, dns_found = false;
        for (char **domain = l.lists.domains; *domain; domain++) {
            LDAP_TRACE(TRC_API, "ldapdns: Querying for %s.%s.%s\n", service, protocol, *domain);
            if (source != 2) {
                rc = server_conf_lookup(&l.q, l.conf, service, *domain);
                if (rc == LDAP_NO_MEMORY)
                    return rc;
                found = found || rc == LDAP_SUCCESS;
                if (rc == LDAP_SUCCESS || source == 1)
                    continue;
            }
            rc = ask_dns(l, service, protocol, *domain, *name_server);
            if (rc == LDAP_LOCAL_ERROR || rc == LDAP_NO_MEMORY)
                return rc;
            dns_asked = true;
            if (rc == LDAP_SUCCESS)
                found = dns_found = true;
            if (rc == LDAP_CONNECT_ERROR)
                break; // this name server is abandoned
        }
        dns_close(&l.q);
        if (found) {
            rc = LDAP_SUCCESS;
            if (!dns_asked || dns_found)
                return rc;
        }
    }
    return rc;
}

// The service names of one (service, protocol) pair: service.domain with
// the request's enetwork domain or else the user's default one, then (with
// the default one) the bare service; the bare service alone without either.
int locate_pair(Locate &l, const char *service, const char *protocol)
{
    const char *domain = l.request->enetwork_domain ? l.request->enetwork_domain : l.default_domain;
    if (domain && *domain) {
        size_t size = std::strlen(service) + std::strlen(domain) + 2;
        char *joined = static_cast<char *>(mem_malloc(size));
        if (!joined)
            return LDAP_NO_MEMORY;
        std::snprintf(joined, size, "%s.%s", service, domain);
        int rc = locate_service(l, joined, protocol);
        mem_free(joined);
        if (ends_search(rc) || !l.default_domain)
            return rc;
    }
    return locate_service(l, service, protocol);
}

// The user's default enetwork domain, when the user information file has
// one. 0 or 90.
int read_default_domain(Locate &l)
{
    int rc = ldap_get_user_info_domain(&l.default_domain, server_locate_files().user_info);
    if (rc == LDAP_SUCCESS && *l.default_domain)
        return rc;
    mem_free(l.default_domain);
    l.default_domain = nullptr;
    return rc == LDAP_NO_MEMORY ? rc : LDAP_SUCCESS;
}

// Everything before the hand-over: the configuration file, the search
// lists, the default enetwork domain and the (service, protocol) pairs.
int locate(Locate &l)
{
    const server_request *r = l.request;
    const LocateFiles files = server_locate_files();
    if (r->search_source != 2) {
        int rc = server_conf_read(r->conf_filename ? r->conf_filename : files.server_conf, &l.conf);
        if (rc == LDAP_NO_MEMORY)
            return rc;
        if (r->search_source == 1 && !l.conf) {
            LDAP_TRACE(TRC_API, "ldapdns: no LDAP servers found in configuration file\n");
            return rc;
        }
    }
    int rc = dns_settle_search_lists(r, files.resolv_conf, nullptr, &l.lists);
    if (rc != LDAP_SUCCESS) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: could not resolve system domain name(s) or name server list\n");
        return rc;
    }
    if (!r->enetwork_domain && (rc = read_default_domain(l)) != LDAP_SUCCESS)
        return rc;
    const char *key = r->service_key, *protocol = r->protocol;
    const char *const pairs[2][2] = {{key ? key : "ldap", protocol ? protocol : "tcp"},
                                     {key ? key : "_ldap", protocol ? protocol : "_tcp"}};
    for (int i = 0; i < (key && protocol ? 1 : 2) && (i == 0 || !ends_search(rc)); i++)
        rc = locate_pair(l, pairs[i][0], pairs[i][1]);
    return rc;
}

} // namespace

LocateFiles server_locate_files()
{
    return {g_files.resolv_conf ? g_files.resolv_conf : "/etc/resolv.conf",
            g_files.server_conf ? g_files.server_conf : "/etc/ldap_server_info.conf", g_files.user_info};
}

void server_locate_use_files(const LocateFiles &files) { g_files = files; }

} // namespace zldap

int ldap_server_locate(server_request *request, server_info **server_info_listpp)
{
    zldap::trace_setup();
    LDAP_TRACE(TRC_API, "ldap_server_locate\n");
    if (!server_info_listpp) {
        LDAP_TRACE(TRC_ERROR, "ldap_server_locate: server_info_listpp is NULL\n");
        return LDAP_PARAM_ERROR;
    }
    if (!request)
        LDAP_TRACE(TRC_API, "ldap_server_locate: server_request is NULL\n");
    else if (zldap::trace_enabled(TRC_API))
        zldap::trace_request(request);
    *server_info_listpp = nullptr;
    zldap::Locate l = {request ? request : &zldap::kDefaultServerRequest, {}, {}, nullptr, nullptr};
    zldap::dns_state_reset(&l.q, l.request);
    int rc = zldap::locate(l);
    // A DNS response code that ended the last lookup still hands over what
    // the earlier ones found.
    if (rc == LDAP_SUCCESS || rc == -1) {
        *server_info_listpp = l.q.results;
        l.q.results = nullptr;
        rc = !*server_info_listpp ? LDAP_DNS_SERVERS_FOUND : l.q.truncated ? LDAP_DNS_TRUNCATED : LDAP_SUCCESS;
    }
    zldap::dns_state_release(&l.q);
    zldap::dns_search_lists_free(&l.lists);
    zldap::server_list_free(l.conf);
    zldap::mem_free(l.default_domain);
    LDAP_TRACE(TRC_API, "ldap_server_locate: *server_info_listpp = %p\n", static_cast<void *>(*server_info_listpp));
    return rc;
}

int ldap_server_free_list(server_info *list)
{
    zldap::trace_setup();
    LDAP_TRACE(TRC_API, "ldap_server_free_list(%p)\n", static_cast<void *>(list));
    zldap::server_list_free(list);
    return LDAP_SUCCESS;
}
