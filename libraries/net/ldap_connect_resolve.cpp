// ldap_connect_resolve.cpp - name resolution, connects with a time-out and opening
// one host entry (TCP over IPv4 or IPv6, or a local stream socket).
#include "net/ldap_connect_socket.h"

#include "base/descriptor_wait.h"
#include "base/environment.h"
#include "base/trace.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#define LDAP_MODULE "libraries/libldap/ldap_connect"

namespace {

constexpr size_t kHostBufferSize = 512; // host names up to 511 bytes

// The outcome of a connect that completed in the background: 0, or -1
// with errno set to the reason (a refused connection, for instance).
int pending_connect_error(int sd)
{
    int err = 0;
    socklen_t len = sizeof err;
    if (getsockopt(sd, SOL_SOCKET, SO_ERROR, &err, &len) < 0)
        err = errno;
    if (err == 0)
        return 0;
    LDAP_TRACE(TRC_ERROR, "Error - tds_connect: connect failed errno %d\n", err);
    errno = err;
    return -1;
}

int open_local_socket(Sockbuf *sb, const char *path, const struct timeval *timeout)
{
    struct sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    size_t length = std::strlen(path);
    // A truncated path would name some other socket.
    if (length >= sizeof address.sun_path) {
        LDAP_TRACE(TRC_ERROR, "open_connection: socket path longer than %d bytes\n",
                   static_cast<int>(sizeof address.sun_path - 1));
        return LDAP_CONNECT_ERROR;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, length);

    int sd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sd < 0) {
        LDAP_TRACE(TRC_ERROR, "Connect_to_host:Return code from socket call s=%i, errno=%i\n", sd,
                   errno);
        return LDAP_CONNECT_ERROR;
    }
    if (tds_connect(sd, reinterpret_cast<struct sockaddr *>(&address), sizeof address, timeout) !=
        0) {
        LDAP_TRACE(TRC_ERROR, "open_connection: [2]connect failed %d\n", errno);
        close(sd);
        return LDAP_CONNECT_ERROR;
    }
    LDAP_TRACE(TRC_CONN, "open_connect: connect successful\n");
    sb->sd = sd;
    return LDAP_SUCCESS;
}

int open_tcp_socket(Sockbuf *sb, const char *host, int port, const struct timeval *timeout)
{
    struct addrinfo *raw = nullptr;
    int rc = qva_getaddrinfo(host, port, &raw);
    if (rc != LDAP_SUCCESS)
        return rc;
    zldap::AddrList list(raw);
    if (!list)
        return LDAP_SERVER_DOWN;

    bool last_failed_at_socket = false;
    for (const struct addrinfo *ai = list.get(); ai; ai = ai->ai_next) {
        int sd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
        if (sd < 0) {
            LDAP_TRACE(TRC_ERROR, "Connect_to_host:Return code from socket call s=%i, errno=%i\n",
                       sd, errno);
            last_failed_at_socket = true;
            continue;
        }
        last_failed_at_socket = false;
        int on = 1;
        if (setsockopt(sd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) < 0) {
            // A connection without keep-alive probes still works.
            LDAP_TRACE(TRC_ERROR, "connect_to_host: setsockopt failed. errno = %d\n", errno);
            errno = 0;
        }
        if (tds_connect(sd, ai->ai_addr, ai->ai_addrlen, timeout) == 0) {
            LDAP_TRACE(TRC_CONN, "open_connect: connect successful\n");
            sb->sd = sd;
            return LDAP_SUCCESS;
        }
        LDAP_TRACE(TRC_ERROR, "open_connection: [2]connect failed %d\n", errno);
        close(sd);
    }
    return last_failed_at_socket ? LDAP_CONNECT_ERROR : LDAP_SERVER_DOWN;
}

} // namespace

int qva_getaddrinfo(const char *host, int port, struct addrinfo **res)
{
    unsigned host_port = ntohs(static_cast<uint16_t>(port));
    LDAP_TRACE(TRC_CONN, "qva_getaddrinfo: host(%s), port(%d), res(%p)\n", trace_str(host, "NULL"),
               static_cast<int>(host_port), static_cast<void *>(res));
    if (!res)
        return LDAP_PARAM_ERROR;
    *res = nullptr;

    char name[kHostBufferSize] = {};
    if (host) {
        size_t length = strnlen(host, sizeof name);
        // Resolving a cut-off name could reach the wrong server.
        if (length >= sizeof name) {
            LDAP_TRACE(TRC_ERROR, "getaddrinfo failed. \n");
            errno = EHOSTUNREACH;
            return LDAP_SERVER_DOWN;
        }
        std::memcpy(name, host, length);
    }

    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    // A percent sign is an IPv6 scope (fe80::1%eth0): only addresses this
    // machine can use are wanted then.
    if (std::strchr(name, '%'))
        hints.ai_flags = AI_PASSIVE | AI_ADDRCONFIG;

    char service[8];
    std::snprintf(service, sizeof service, "%u", host_port);

    if (lock_syscall_mutex() != 0) {
        LDAP_TRACE(TRC_ERROR, "qva_getaddrinfo: Failed to lock.\n");
        return LDAP_LOCK_ERROR;
    }
    int rc = getaddrinfo(host ? name : nullptr, service, &hints, res);
    unlock_syscall_mutex();
    if (rc != 0) {
        LDAP_TRACE(TRC_ERROR, "getaddrinfo failed. \n");
        *res = nullptr;
        if (rc == EAI_MEMORY)
            return LDAP_NO_MEMORY;
        errno = EHOSTUNREACH;
        return LDAP_SERVER_DOWN;
    }
    LDAP_TRACE(TRC_CONN, "qva_getaddrinfo: rc=%d\n", rc);
    return LDAP_SUCCESS;
}

int tds_connect(int sd, const struct sockaddr *address, socklen_t address_len,
                const struct timeval *timeout)
{
    LDAP_TRACE(TRC_CONN, "tds_connect: socket(%d), address(%p), address_len(%d), connect_to(%p)\n",
               sd, static_cast<const void *>(address), static_cast<int>(address_len),
               static_cast<const void *>(timeout));
    if (!timeout) {
        int rc = connect(sd, address, address_len);
        // An interrupted blocking connect goes on in the background; wait
        // for its outcome instead of reporting the signal as a failure.
        if (rc < 0 && errno == EINTR)
            rc = zldap::wait_for_descriptor(sd, POLLOUT, -1) < 0 ? -1 : pending_connect_error(sd);
        return rc < 0 ? -1 : 0;
    }

    int64_t deadline = zldap::deadline_after(timeout);
    if (set_socket_nb_sd(sd) != 0) {
        LDAP_TRACE(TRC_ERROR, "tds_connect: failed to set socket to non blocking\n");
        return -1;
    }
    int rc = connect(sd, address, address_len);
    if (rc < 0 && (errno == EINPROGRESS || errno == EINTR)) {
        LDAP_TRACE(TRC_CONN, "tds_connect - connect rc = %d\n", rc);
        int ready = zldap::wait_for_descriptor(sd, POLLOUT, deadline);
        if (ready < 0) {
            LDAP_TRACE(TRC_ERROR, "Error - tds_connect: select failed errno %d\n", errno);
            rc = -1;
        } else if (ready == 0) {
            LDAP_TRACE(TRC_ERROR, "tds_connect: select timed out\n");
            errno = ETIMEDOUT;
            rc = -1;
        } else {
            LDAP_TRACE(TRC_CONN, "tds_connect: select rc=%d\n", ready);
            // Writable also means "finished with an error": the pending error
            // is read rather than writability taken as success, so that a
            // refused connection fails here and the next address is tried.
            rc = pending_connect_error(sd);
        }
    } else {
        LDAP_TRACE(TRC_CONN, "Connect returned rc=%d\n", rc);
    }
    int saved_errno = errno;
    set_socket_blocking_sd(sd);
    errno = saved_errno;
    return rc < 0 ? -1 : 0;
}

int open_connection(Sockbuf *sb, const char *host, int port, const struct timeval *timeout)
{
    LDAP_TRACE(TRC_CONN, "open_connection: entered sb(%p) host(%s) port(%d)\n",
               static_cast<void *>(sb), trace_str(host, "NULL"),
               static_cast<int>(ntohs(static_cast<uint16_t>(port))));
    if (!sb)
        return LDAP_PARAM_ERROR;
    sb->sd = -1;
    int rc;
    if (!host)
        rc = LDAP_SERVER_DOWN;
    else if (host[0] == '/')
        rc = open_local_socket(sb, host, timeout);
    else
        rc = open_tcp_socket(sb, host, port, timeout);
    LDAP_TRACE(TRC_CONN, "open_connection: returning rc=%d\n", rc);
    return rc;
}
