// ldap_init.cpp - ldap_init and ldap_open: a new handle with its default
// connection record, from a host list, an LDAP URL or the local host name.
#include "session/ldap_init.h"

#include "base/environment.h"
#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "base/version.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "dns/server_locate.h"
#include "proto/url.h"
#include "session/ldap_free.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"
#include "tls/ldap_ssl_env.h"

#include <cctype>
#include <cstring>
#include <unistd.h>

#define LDAP_MODULE "libraries/libldap/ldap_init"

namespace {

constexpr int kDefaultPort = 389;
constexpr int kMaxPort = 65535; // the connection keeps 16 bits of it
constexpr int kDefaultTableRows = 256;
constexpr size_t kHostCopyLimit = 256;
constexpr const char *kDefaultHome = "/opt/orn/ldap/V" ZLDAP_VERSION_TEXT;

// The text and code-set library finds its tables through ULXDIR.
void ensure_ulxdir()
{
    if (ldap_chkenv("ULXDIR") != 0)
        return;
    char *home = ldap_getenv("QVA_LDAP_HOME");
    ldap_change_env_var(0, "ULXDIR", ':', home ? home : kDefaultHome);
    zldap::mem_free(home);
}

// The host list an LDAP URL names, and its port when it gives one (1 or
// more; the URL parser refuses ports above 65535). A URL without a host
// asks server location for the servers under its DN, SSL ones for an
// "ldaps://" URL. NULL on failure, with the reason traced.
char *host_from_url(const char *url, bool ssl, int *port)
{
    LDAPURLDesc *desc = nullptr;
    if (ldap_url_parse(url, &desc) != LDAP_SUCCESS)
        return nullptr;
    char *host = nullptr;
    if (desc->lud_host && *desc->lud_host) {
        LDAP_TRACE(TRC_API, "ldap_init: Found host (%s) in URL\n", desc->lud_host);
        host = zldap::mem_strdup(desc->lud_host);
        if (desc->lud_port >= 1)
            *port = desc->lud_port;
    } else {
        if (desc->lud_dn)
            LDAP_TRACE(TRC_API, "ldap_init: Found DN (%s) in URL\n", desc->lud_dn);
        host = zldap::server_locate_hosts(desc->lud_dn, ssl);
    }
    ldap_free_urldesc(desc);
    if (!host)
        LDAP_TRACE(TRC_ERROR, "ldap_init: failed to get hostname\n");
    return host;
}

// The host string the handle will use: the caller's host list unchanged,
// the host of an LDAP URL, or the local host name for NULL. NULL on
// failure, with the reason traced. *secure tells an "ldaps://" URL.
char *resolve_host_string(const char *host, int *port, bool *secure)
{
    if (host) {
        LDAP_TRACE(TRC_API, "ldap_init: parsing the passing hostname\n");
        char lower[kHostCopyLimit + 1];
        size_t n = strnlen(host, kHostCopyLimit);
        for (size_t i = 0; i < n; i++)
            lower[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(host[i])));
        lower[n] = '\0';
        bool ssl = std::strstr(lower, "ldaps://") != nullptr;
        *secure = ssl;
        if (ssl || std::strstr(lower, "ldap://"))
            return host_from_url(host, ssl, port);
        char *copy = zldap::mem_strdup(host);
        if (!copy)
            LDAP_TRACE(TRC_ERROR, "ldap_init: failed to get hostname\n");
        return copy;
    }
    char *name = static_cast<char *>(zldap::mem_malloc(kHostCopyLimit + 1));
    if (!name) {
        LDAP_TRACE(TRC_ERROR, "ldap_init: allocate for hostname failed\n");
        return nullptr;
    }
    if (gethostname(name, kHostCopyLimit + 1) != 0) {
        LDAP_TRACE(TRC_ERROR, "ldap_init: can't get hostname\n");
        LDAP_TRACE(TRC_ERROR, "ldap_init: failed to get hostname\n");
        zldap::mem_free(name);
        return nullptr;
    }
    name[kHostCopyLimit] = '\0';
    return name;
}

// Initialises one of the handle's mutexes and records that it exists.
bool make_handle_mutex(LDAP *ld, pthread_mutex_t *mutex, uint32_t bit, int line)
{
    int rc = zldap::mutex_init(mutex, LDAP_MODULE, line);
    if (rc != 0) {
        LDAP_TRACE(TRC_ERROR, "ldap_init: failed to initialize mutex rc=%d - File %s line %d\n", rc,
                   LDAP_MODULE, line);
        return false;
    }
    ld->ld_locks_made |= bit;
    return true;
}

bool make_handle_locks(LDAP *ld)
{
    if (!make_handle_mutex(ld, &ld->ld_mutex, LD_LOCK_MUTEX, __LINE__) ||
        !make_handle_mutex(ld, &ld->ld_servers_mutex, LD_LOCK_SERVERS, __LINE__) ||
        !make_handle_mutex(ld, &ld->ld_error_mutex, LD_LOCK_ERROR, __LINE__))
        return false;
    int rc = pthread_cond_init(&ld->ld_op_cond, nullptr);
    if (rc != 0) {
        LDAP_TRACE(TRC_ERROR,
                   "ldap_init: failed to initialize conditional variable, rc=%d - File %s line %d\n",
                   rc, LDAP_MODULE, __LINE__);
        return false;
    }
    ld->ld_locks_made |= LD_LOCK_COND;
    ld->ld_unbind_started = 0;
    rc = pthread_mutex_init(&ld->ld_thread_conn_mutex, nullptr);
    if (rc != 0) {
        LDAP_TRACE(TRC_ERROR, "ldap_init: failed to initialize mutex rc=%d - File %s line %d\n", rc,
                   LDAP_MODULE, __LINE__);
        return false;
    }
    ld->ld_locks_made |= LD_LOCK_THREAD_CONN;
    return true;
}

bool set_initial_options(LDAP *ld)
{
    return ldap_set_option_direct(ld, LDAP_OPT_PROTOCOL_VERSION, reinterpret_cast<void *>(3)) == 0 &&
           ldap_set_option_direct(ld, LDAP_OPT_NO_TRANSLATION, LDAP_OPT_ON) == 0 &&
           ldap_set_option_direct(ld, LDAP_OPT_REFERRALS, LDAP_OPT_ON) == 0 &&
           ldap_set_option_direct(ld, LDAP_OPT_HOP_LIMIT, reinterpret_cast<void *>(10)) == 0;
}

} // namespace

LDAP *ldap_init(const char *host, int port)
{
    zldap::trace_setup();
    LDAP_TRACE(TRC_API, "ldap_init: defhost=%s, defport=%d\n", trace_str(host), port);
    if (port < 0 || port > kMaxPort) {
        LDAP_TRACE(TRC_ERROR, "ldap_init: bad port (%d)\n", port);
        return nullptr;
    }
    if (port == 0)
        port = kDefaultPort;
    ensure_ulxdir();

    bool secure = false;
    char *hosts = resolve_host_string(host, &port, &secure);
    if (!hosts)
        return nullptr;
    if (*hosts == '\0') {
        LDAP_TRACE(TRC_ERROR, "ldap_init: invalid hostname (blank) is used\n");
        zldap::mem_free(hosts);
        return nullptr;
    }

    LDAP *ld = static_cast<LDAP *>(zldap::mem_calloc(1, sizeof(LDAP)));
    if (!ld) {
        zldap::mem_free(hosts);
        return nullptr;
    }
    std::memcpy(ld->ld_marker, kLdapMarker, sizeof kLdapMarker);
    LDAP_TRACE(TRC_API, "ldap_init: defhost(%s) defport(%d)\n", hosts, port);

    bool ok = false;
    LDAPConn *lc = ldap_lc_init(hosts, port, kDefaultTableRows);
    if (lc) {
        lc->lconn_ld = ld;
        ld->ld_servers = lc;
        ld->ld_defconn = lc;
        ld->ld_defport = static_cast<uint32_t>(port);
        ok = make_handle_locks(ld) && set_initial_options(ld) &&
             (ld->ld_defhost = zldap::mem_strdup(hosts)) != nullptr;
    }
    if (ok && secure) {
        // An ldaps address is never spoken to in clear: the session is a
        // secure one from the start, on the current environment. Without
        // one its connections fail the secure set-up instead.
        ld->ld_ssl_flag = 1;
        ld->ld_ssl_env = attachZorEnvRef();
    }
    zldap::mem_free(hosts);
    if (!ok) {
        ldap_ld_free(ld);
        return nullptr;
    }
    return ld;
}

LDAP *ldap_open(const char *host, int port)
{
    zldap::trace_setup();
    LDAP_TRACE(TRC_API, "ldap_open: host=%s, port=%d\n", trace_str(host), port);
    LDAP *ld = ldap_init(host, port);
    if (!ld)
        return nullptr;
    // Only the exact text "3" asks for version 3; anything else, or nothing,
    // means version 2. A value that is set but can't be copied is a memory
    // failure, not a request for version 2.
    bool version_set = ldap_chkenv("LDAP_VERSION") > 0;
    char *version = ldap_getenv("LDAP_VERSION");
    if (version_set && !version) {
        LDAP_TRACE(TRC_ERROR, "Error - ldap_open: no memory to read LDAP_VERSION\n");
        ldap_unbind(ld);
        return nullptr;
    }
    ld->ld_version = version && std::strcmp(version, "3") == 0 ? 3 : 2;
    zldap::mem_free(version);
    if (open_default_connection(ld) != LDAP_SUCCESS) {
        LDAP_TRACE(TRC_ERROR, "ldap_open: open_default_connection failed");
        ldap_unbind(ld);
        return nullptr;
    }
    return ld;
}
