// server_hosts.cpp - the servers found as the host list a session connects
// to: "host:port" entries separated by blanks, SSL servers for an
// "ldaps://" URL and plain ones otherwise.
#include "dns/server_locate.h"

#include "base/memory.h"
#include "base/trace.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kEntryExtra = 7; // ":" and five digits, and a blank or the terminator

} // namespace

char *auto_server_locate(server_request *request, int ssl)
{
    zldap::trace_setup();
    server_info *list = nullptr;
    int rc = ldap_server_locate(request, &list);
    // Truncated answers still hand over the servers that arrived.
    if ((rc != LDAP_SUCCESS && rc != LDAP_DNS_TRUNCATED) || !list) {
        LDAP_TRACE(TRC_ERROR, "Error - auto_server_locate: ldap_server_locate rc=%d\n", rc);
        return nullptr;
    }
    size_t size = 1;
    for (const server_info *s = list; s; s = s->next)
        size += std::strlen(s->host) + kEntryExtra;
    char *hosts = static_cast<char *>(zldap::mem_malloc(size));
    size_t used = 0;
    for (const server_info *s = list; hosts && s; s = s->next) {
        if (s->sec_flag == (ssl ? 1 : 2))
            continue;
        int n = s->port ? std::snprintf(hosts + used, size - used, "%s%s%c%d", used ? " " : "", s->host, ':', s->port)
                        : std::snprintf(hosts + used, size - used, "%s%s", used ? " " : "", s->host);
        if (n > 0) // a port beyond 16 bits is cut rather than overrun the list
            used = std::min(size - 1, used + static_cast<size_t>(n));
    }
    if (hosts && used == 0) {
        zldap::mem_free(hosts);
        hosts = nullptr;
    }
    LDAP_TRACE(TRC_API, "auto_server_locate: hosts list=%s\n", trace_str(hosts));
    ldap_server_free_list(list);
    return hosts;
}

namespace zldap {

// Each call fills its own copy of the shared request with its DN, so that
// concurrent calls stay apart and no DN outlives the URL it came from.
char *server_locate_hosts(const char *dn, bool ssl)
{
    server_request request = kDefaultServerRequest;
    request.DN_filter = const_cast<char *>(dn);
    return auto_server_locate(&request, ssl ? 1 : 0);
}

} // namespace zldap
