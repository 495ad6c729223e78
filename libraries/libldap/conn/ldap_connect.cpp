// ldap_connect.cpp - a connection's host list, the handle's chain of
// connections (finding, adding, releasing) and per-thread connection
// bindings.
#include "conn/ldap_connect.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "message/ldap_table.h"
#include "tls/ldap_ssl_connect.h"

#include <arpa/inet.h>
#include <cstring>
#include <string_view>

#define LDAP_MODULE "libraries/libldap/ldap_connect"

namespace {

constexpr int kLdapPort = 389;
constexpr int kLdapsPort = 636;
constexpr int kReferralTableRows = 8;
constexpr size_t kHostEntryMax = 511;

// What opening a connection needs from the handle. It is copied under
// ld_mutex once, so that the connects themselves run without the handle
// lock and find_connection can take it before the chain's lock.
struct ConnectSettings {
    struct timeval timeout;
    bool has_timeout;
    bool ssl;
};

int read_connect_settings(LDAP *ld, ConnectSettings &settings)
{
    LDAP_MUTEX_GUARD(guard, &ld->ld_mutex);
    if (!guard.locked())
        return LDAP_LOCK_ERROR;
    settings.has_timeout = ld->ld_connect_timeout != nullptr;
    if (settings.has_timeout)
        settings.timeout = *ld->ld_connect_timeout;
    settings.ssl = ld->ld_ssl_flag == 1;
    return LDAP_SUCCESS;
}

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// Port numbers in host entries: decimal digits only, 1 to 65535.
bool parse_port(std::string_view text, int &port)
{
    if (text.empty() || text.size() > 5)
        return false;
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + (c - '0');
    }
    if (value < 1 || value > 65535)
        return false;
    port = value;
    return true;
}

// Splits one host entry into the host to resolve (NUL-terminated in host)
// and its port in host byte order. 0, or 89 for an entry that can't be
// used as written.
int parse_host_entry(std::string_view entry, int default_port, char (&host)[kHostEntryMax + 1],
                     int &port)
{
    if (entry.size() > kHostEntryMax) {
        LDAP_TRACE(TRC_ERROR, "open_ldap_connection: host entry longer than %d bytes skipped\n",
                   static_cast<int>(kHostEntryMax));
        return LDAP_PARAM_ERROR;
    }
    std::string_view name = entry;
    port = default_port;
    size_t colons = 0;
    for (char c : entry)
        colons += c == ':';
    if (entry.front() == '/') {
        // A local socket path is taken whole: a colon in it is no port.
    } else if (colons >= 2) {
        // An entry with two colons is an IPv6 literal. In brackets a port
        // may follow ("[::1]:636"); it is ignored, the connection's port
        // holds for IPv6 literals.
        size_t close = name.find(']');
        if (close != std::string_view::npos)
            name = name.substr(0, close);
        if (!name.empty() && name.front() == '[')
            name.remove_prefix(1);
    } else if (colons == 1) {
        size_t colon = name.find(':');
        if (!parse_port(name.substr(colon + 1), port)) {
            LDAP_TRACE(TRC_ERROR, "open_ldap_connection: bad port in host entry (%.*s)\n",
                       static_cast<int>(entry.size()), entry.data());
            return LDAP_PARAM_ERROR;
        }
        name = name.substr(0, colon);
    }
    std::memcpy(host, name.data(), name.size());
    host[name.size()] = '\0';
    return LDAP_SUCCESS;
}

// Ends whatever lc has open: the secure layer first, then the socket.
void close_lc_socket(LDAPConn *lc)
{
    if (lc->lconn_sb.secure)
        ssl_close_direct(&lc->lconn_sb);
    close_connection_sd(&lc->lconn_sb);
    lconn_set_connected(lc, false);
}

// One host entry of lc: connect, secure it when the session asks for that,
// and switch the socket to non-blocking. 0 leaves lc connected.
int open_host_entry(LDAP *ld, LDAPConn *lc, std::string_view entry, const ConnectSettings &settings)
{
    char host[kHostEntryMax + 1];
    int port = 0;
    int rc = parse_host_entry(entry, lc->lconn_port, host, port);
    if (rc != LDAP_SUCCESS)
        return rc;
    rc = open_connection(&lc->lconn_sb, host, htons(static_cast<uint16_t>(port)),
                         settings.has_timeout ? &settings.timeout : nullptr);
    if (rc != LDAP_SUCCESS)
        return rc;
    if (settings.ssl) {
        LDAP_TRACE(TRC_CONN, "open_ldap_connection: SSL In use! setting nonBlocking mode\n");
        set_socket_nb_sd(lc->lconn_sb.sd);
        rc = open_ssl_connection(ld, &lc->lconn_sb);
        if (rc != LDAP_SUCCESS) {
            LDAP_TRACE(TRC_ERROR, "open_ldap_connection: open_ssl_connection failed with rc=%d\n",
                       rc);
            close_lc_socket(lc);
            return rc;
        }
    }
    // Every connection, plain or secure, runs non-blocking from here on.
    if (set_socket_nb_sd(lc->lconn_sb.sd) != 0) {
        close_lc_socket(lc);
        return LDAP_CONNECT_ERROR;
    }
    lconn_set_connected(lc, true);
    return LDAP_SUCCESS;
}

int open_with_settings(LDAP *ld, LDAPConn *lc, const ConnectSettings &settings)
{
    // Opening again replaces the old socket rather than losing it.
    if (lconn_is_connected(lc))
        close_lc_socket(lc);
    lconn_set_connected(lc, false);
    if (!lc->lconn_hosts)
        return LDAP_SUCCESS;

    int rc = LDAP_SUCCESS;
    std::string_view rest(lc->lconn_hosts);
    while (!rest.empty()) {
        size_t skip = 0;
        while (skip < rest.size() && is_blank(rest[skip]))
            skip++;
        rest.remove_prefix(skip);
        if (rest.empty())
            break;
        size_t end = 0;
        while (end < rest.size() && !is_blank(rest[end]))
            end++;
        rc = open_host_entry(ld, lc, rest.substr(0, end), settings);
        if (rc == LDAP_SUCCESS)
            break;
        rest.remove_prefix(end);
    }
    return rc;
}

// Resolves a host/port pair on first use and keeps the answer for the rest
// of a walk over the chain.
class ServerAddress {
public:
    ServerAddress(const char *host, int port) : host_(host), port_(port) {}

    // The first address, or NULL when the pair does not resolve.
    const struct addrinfo *first()
    {
        if (!tried_) {
            tried_ = true;
            struct addrinfo *raw = nullptr;
            if (qva_getaddrinfo(host_, htons(static_cast<uint16_t>(port_)), &raw) == LDAP_SUCCESS)
                list_.reset(raw);
            else
                LDAP_TRACE(TRC_ERROR, "qva_getaddrinfo failed for host/port\n");
        }
        return list_.get();
    }
    const char *host() const { return host_; }
    int port() const { return port_; }

private:
    const char *host_;
    int port_;
    bool tried_ = false;
    zldap::AddrList list_;
};

bool same_address(const struct addrinfo *a, const struct addrinfo *b)
{
    // Compare everything behind the family field: port and address (and,
    // for IPv6, flow and scope).
    constexpr size_t skip = sizeof(sa_family_t);
    return a->ai_addrlen == b->ai_addrlen && a->ai_addr->sa_family == b->ai_addr->sa_family &&
           a->ai_addrlen >= skip &&
           std::memcmp(reinterpret_cast<const char *>(a->ai_addr) + skip,
                       reinterpret_cast<const char *>(b->ai_addr) + skip, a->ai_addrlen - skip) ==
               0;
}

bool same_server_as(const char *host, int port, ServerAddress &target)
{
    if (!host || !target.host())
        return false;
    if (port == target.port() && std::strcmp(host, target.host()) == 0)
        return true;
    struct addrinfo *raw = nullptr;
    if (qva_getaddrinfo(host, htons(static_cast<uint16_t>(port)), &raw) != LDAP_SUCCESS) {
        LDAP_TRACE(TRC_ERROR, "qva_getaddrinfo failed for connection\n");
        return false;
    }
    zldap::AddrList mine(raw);
    const struct addrinfo *theirs = target.first();
    return mine && theirs && same_address(mine.get(), theirs);
}

// Caller holds ld_thread_conn_mutex.
ldap_thread_conn *find_thread_binding(LDAP *ld)
{
    pthread_t self = pthread_self();
    for (ldap_thread_conn *tc = ld->ld_thread_conns; tc; tc = tc->next)
        if (pthread_equal(tc->thread, self))
            return tc;
    return nullptr;
}

} // namespace

int open_ldap_connection(LDAP *ld, LDAPConn *lc)
{
    LDAP_TRACE(TRC_CONN, "open_ldap_connection: ld(%p), lc(%p)\n", static_cast<void *>(ld),
               static_cast<void *>(lc));
    if (!ld || !lc)
        return LDAP_PARAM_ERROR;
    ConnectSettings settings;
    int rc = read_connect_settings(ld, settings);
    if (rc != LDAP_SUCCESS)
        return rc;
    return open_with_settings(ld, lc, settings);
}

int open_default_connection(LDAP *ld)
{
    if (!ldap_handle_is_valid(ld))
        return LDAP_PARAM_ERROR;
    LDAPConn *lc = get_default_connection(ld);
    if (!lc)
        return ld->ld_defconn ? LDAP_LOCK_ERROR : LDAP_PARAM_ERROR;
    return open_ldap_connection(ld, lc);
}

int same_server(const char *host1, int port1, const char *host2, int port2)
{
    ServerAddress target(host2, port2);
    return same_server_as(host1, port1, target) ? 1 : 0;
}

LDAPConn *find_connection(LDAP *ld, const char *host, int port, int open_if_missing, int *rc_out,
                          int include_default)
{
    int ignored = 0;
    int &rc = rc_out ? *rc_out : ignored;
    rc = LDAP_SUCCESS;
    LDAP_TRACE(TRC_CONN, "find_connection: ld(%p) host(%s) port(%d)\n", static_cast<void *>(ld),
               trace_str(host, "NULL"), port);
    if (!ldap_handle_is_valid(ld) || !ld->ld_defconn) {
        rc = LDAP_PARAM_ERROR;
        return nullptr;
    }
    if (!host)
        return ld->ld_defconn;
    if (port == -1 || port == -2) {
        port = ld->ld_defconn->lconn_sb.secure ? kLdapsPort : kLdapPort;
    } else if (port < 1 || port > 65535) {
        LDAP_TRACE(TRC_ERROR, "find_connection: bad port (%d)\n", port);
        rc = LDAP_PARAM_ERROR;
        return ldap_fail_returning(ld, rc, nullptr);
    }
    ConnectSettings settings{};
    if (open_if_missing == 1) {
        rc = read_connect_settings(ld, settings);
        if (rc != LDAP_SUCCESS)
            return ldap_fail_returning(ld, rc, nullptr);
    }

    LDAPConn *found = nullptr;
    {
        LDAP_MUTEX_GUARD(guard, &ld->ld_servers_mutex);
        if (!guard.locked()) {
            rc = LDAP_LOCK_ERROR;
        } else {
            ServerAddress target(host, port);
            LDAPConn *start = include_default == 1 ? ld->ld_defconn : ld->ld_defconn->lconn_next;
            for (LDAPConn *lc = start; lc && !found; lc = lc->lconn_next)
                if (lc->lconn_port == port && same_server_as(lc->lconn_hosts, lc->lconn_port, target))
                    found = lc;
            if (!found && open_if_missing == 1) {
                LDAPConn *lc = ldap_lc_init(host, port, kReferralTableRows);
                if (!lc) {
                    rc = LDAP_NO_MEMORY;
                } else {
                    lc->lconn_ld = ld;
                    rc = open_with_settings(ld, lc, settings);
                    if (rc != LDAP_SUCCESS) {
                        ldap_lc_free(lc);
                    } else {
                        LDAPConn **tail = &ld->ld_servers;
                        while (*tail)
                            tail = &(*tail)->lconn_next;
                        *tail = lc;
                        found = lc;
                    }
                }
            }
        }
    }
    // The error lock is taken only once the chain's lock is released.
    if (rc != LDAP_SUCCESS)
        ldap_set_error_direct(ld, rc, nullptr, nullptr);
    return found;
}

void release_connection(LDAP *ld, LDAPConn *lc)
{
    LDAP_TRACE(TRC_CONN, "release_connection: ld(%p), lc(%p)\n", static_cast<void *>(ld),
               static_cast<void *>(lc));
    if (!ldap_handle_is_valid(ld) || !lc)
        return;
    // The default connection lives as long as the handle: too much points
    // at it (ld_defconn, every thread without a binding).
    if (lc == ld->ld_defconn)
        return;
    bool unlinked = false;
    {
        LDAP_MUTEX_GUARD(guard, &ld->ld_servers_mutex);
        if (!guard.locked()) {
            ldap_set_error_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
            return;
        }
        for (LDAPConn **link = &ld->ld_servers; *link; link = &(*link)->lconn_next) {
            if (*link == lc) {
                *link = lc->lconn_next;
                unlinked = true;
                break;
            }
        }
    }
    // A connection that is not in the chain was never this handle's, or
    // has been released already: freeing it again would corrupt memory.
    if (!unlinked)
        return;
    lc->lconn_next = nullptr;

    int outstanding = ldap_msg_table_outstanding(lc->lconn_msgtable);
    if (outstanding == 0) {
        ldap_lc_free(lc);
        return;
    }
    if (outstanding < 0)
        ldap_set_error_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    // Requests on it still wait for their answers, so it can't be freed
    // now. Back at the end of the chain, teardown frees it with the handle
    // instead of it being lost.
    LDAP_MUTEX_GUARD(guard, &ld->ld_servers_mutex);
    if (!guard.locked()) {
        ldap_set_error_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
        return;
    }
    LDAPConn **tail = &ld->ld_servers;
    while (*tail)
        tail = &(*tail)->lconn_next;
    *tail = lc;
}

LDAPConn *get_default_connection(LDAP *ld)
{
    // An unlocked peek: bindings exist only while a thread chases a
    // referral, and that thread is the one that reads its own binding.
    if (!__atomic_load_n(&ld->ld_thread_conns, __ATOMIC_ACQUIRE))
        return ld->ld_defconn;
    int line = __LINE__ + 1;
    if (LDAP_MUTEX_LOCK(&ld->ld_thread_conn_mutex) != 0) {
        LDAP_TRACE(TRC_ERROR,
                   "get_default_connection: FATAL ERRRO  - Unable to get lock at File %s, Line %d\n",
                   LDAP_MODULE, line);
        return nullptr;
    }
    ldap_thread_conn *tc = find_thread_binding(ld);
    LDAPConn *lc = tc ? tc->conn : ld->ld_defconn;
    LDAP_MUTEX_UNLOCK(&ld->ld_thread_conn_mutex);
    return lc;
}

int set_thread_connection(LDAP *ld, LDAPConn *lc)
{
    if (LDAP_MUTEX_LOCK(&ld->ld_thread_conn_mutex) != 0)
        return ldap_fail(ld, LDAP_LOCK_ERROR);
    int rc = LDAP_SUCCESS;
    ldap_thread_conn *tc = find_thread_binding(ld);
    if (tc && !lc) {
        if (tc->prev)
            tc->prev->next = tc->next;
        else
            __atomic_store_n(&ld->ld_thread_conns, tc->next, __ATOMIC_RELEASE);
        if (tc->next)
            tc->next->prev = tc->prev;
        zldap::mem_free(tc);
    } else if (tc) {
        tc->conn = lc;
    } else if (lc) {
        tc = static_cast<ldap_thread_conn *>(zldap::mem_calloc(1, sizeof *tc));
        if (!tc) {
            rc = LDAP_NO_MEMORY;
        } else {
            tc->thread = pthread_self();
            tc->conn = lc;
            tc->next = ld->ld_thread_conns;
            if (tc->next)
                tc->next->prev = tc;
            __atomic_store_n(&ld->ld_thread_conns, tc, __ATOMIC_RELEASE);
        }
    }
    LDAP_MUTEX_UNLOCK(&ld->ld_thread_conn_mutex);
    return rc;
}
