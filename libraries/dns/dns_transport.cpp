// dns_transport.cpp - the connection to a name server: opening it over UDP
// or TCP, sending a query and receiving its answer. Over TCP every message
// is preceded by its length in two bytes; over UDP an answer is one
// datagram of at most 512 bytes.
#include "dns/dns_message.h"
#include "dns/ldapdns.h"
#include "dns/server_list.h"

#include "base/descriptor_wait.h"
#include "base/environment.h"
#include "base/memory.h"
#include "base/trace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

namespace zldap {
namespace {

constexpr size_t kUdpAnswerSize = 512;
constexpr size_t kNameServerMax = 255;

// The deadline for one answer or connect: -1 (none) when the time-out is 0.
int64_t deadline_for(const DnsQueryState *q)
{
    if (q->connection_timeout <= 0)
        return -1;
    struct timeval timeout = {q->connection_timeout, 0};
    return deadline_after(&timeout);
}

// The first IPv4 or IPv6 address of the name server, into q->server. 0 or 82.
int resolve_name_server(DnsQueryState *q, const char *name_server, DnsTransport transport)
{
    char host[kNameServerMax + 1];
    const char *mark = std::strchr(name_server, '#');
    size_t host_length = mark ? static_cast<size_t>(mark - name_server) : std::strlen(name_server);
    const char *port = mark ? mark + 1 : "53";
    if (host_length > kNameServerMax || !*port || std::strspn(port, "0123456789") != std::strlen(port)) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: can't open socket: rc = %d\n", EAI_NONAME);
        return LDAP_LOCAL_ERROR;
    }
    std::memcpy(host, name_server, host_length);
    host[host_length] = '\0';

    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = transport == DnsTransport::Udp ? SOCK_DGRAM : SOCK_STREAM;
    hints.ai_flags = AI_ADDRCONFIG | AI_NUMERICSERV;
    struct addrinfo *list = nullptr;
    int rc = EAI_SYSTEM;
    if (lock_syscall_mutex() == 0) {
        rc = getaddrinfo(host, port, &hints, &list);
        unlock_syscall_mutex();
    }
    if (rc != 0) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: can't open socket: rc = %d\n", rc);
        return LDAP_LOCAL_ERROR;
    }
    const struct addrinfo *ai = list;
    while (ai && ai->ai_family != AF_INET && ai->ai_family != AF_INET6)
        ai = ai->ai_next;
    if (ai && ai->ai_addrlen <= sizeof q->server) {
        std::memcpy(&q->server, ai->ai_addr, ai->ai_addrlen);
        q->server_length = ai->ai_addrlen;
    }
    freeaddrinfo(list);
    if (!ai) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: no PF_INET or PF_INET6 addr configured\n");
        return LDAP_LOCAL_ERROR;
    }
    return LDAP_SUCCESS;
}

// UDP: the socket takes any local port of the server's family.
int bind_udp(int sd, int family)
{
    struct sockaddr_storage local;
    std::memset(&local, 0, sizeof local);
    local.ss_family = static_cast<sa_family_t>(family);
    socklen_t length = family == AF_INET ? sizeof(struct sockaddr_in) : sizeof(struct sockaddr_in6);
    if (bind(sd, reinterpret_cast<struct sockaddr *>(&local), length) != 0) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: can't bind socket: rc = %d\n", errno);
        return LDAP_CONNECT_ERROR;
    }
    return LDAP_SUCCESS;
}

// TCP: a connect that may complete within the time-out; the socket blocks
// again afterwards.
int connect_tcp(DnsQueryState *q)
{
    int flags = fcntl(q->sd, F_GETFL);
    if (flags < 0 || fcntl(q->sd, F_SETFL, flags | O_NONBLOCK) < 0) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: can't connect to server: rc = %d\n", errno);
        return LDAP_CONNECT_ERROR;
    }
    int rc = connect(q->sd, reinterpret_cast<struct sockaddr *>(&q->server), q->server_length);
    if (rc != 0 && errno == EINPROGRESS && q->connection_timeout > 0) {
        int ready = wait_for_descriptor(q->sd, POLLOUT, deadline_for(q));
        if (ready == 0) {
            LDAP_TRACE(TRC_ERROR, "ldapdns: connection has time out\n");
            return LDAP_CONNECT_ERROR;
        }
        struct sockaddr_storage peer;
        socklen_t peer_length = sizeof peer;
        if (ready < 0 || getpeername(q->sd, reinterpret_cast<struct sockaddr *>(&peer), &peer_length) != 0) {
            LDAP_TRACE(TRC_ERROR, "ldapdns: can't get peer name: rc = %d\n", errno);
            return LDAP_CONNECT_ERROR;
        }
        rc = 0;
    }
    if (rc != 0 || fcntl(q->sd, F_SETFL, flags) < 0) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: can't connect to server: rc = %d\n", errno);
        return LDAP_CONNECT_ERROR;
    }
    return LDAP_SUCCESS;
}

int send_all(DnsQueryState *q, const uint8_t *bytes, size_t length)
{
    ssize_t sent = q->transport == DnsTransport::Udp
                       ? sendto(q->sd, bytes, length, MSG_NOSIGNAL, reinterpret_cast<struct sockaddr *>(&q->server),
                                q->server_length)
                       : send(q->sd, bytes, length, MSG_NOSIGNAL);
    if (sent < 0 || static_cast<size_t>(sent) != length) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: unable to send query: rc = %d\n", static_cast<int>(sent));
        return LDAP_CONNECT_ERROR;
    }
    return LDAP_SUCCESS;
}

// Waits for something to read until the deadline. 0, 85 (timed out) or 91.
int await_readable(int sd, int64_t deadline)
{
    int ready = wait_for_descriptor(sd, POLLIN, deadline);
    if (ready == 0) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: connection has timed out\n");
        return LDAP_TIMEOUT;
    }
    if (ready < 0) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: error receiving response: rc = %d\n", errno);
        return LDAP_CONNECT_ERROR;
    }
    return LDAP_SUCCESS;
}

// Reads exactly length bytes from a stream. 0, 85 when the peer stays
// silent past the deadline, 91 when it closes or the read fails.
int read_stream(int sd, uint8_t *bytes, size_t length, int64_t deadline)
{
    size_t got = 0;
    while (got < length) {
        int rc = await_readable(sd, deadline);
        if (rc != LDAP_SUCCESS)
            return rc;
        ssize_t n = recv(sd, bytes + got, length - got, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            LDAP_TRACE(TRC_ERROR, "ldapdns: error receiving response: rc = %d\n", n < 0 ? errno : 0);
            return LDAP_CONNECT_ERROR;
        }
        got += static_cast<size_t>(n);
    }
    return LDAP_SUCCESS;
}

bool same_address(const struct sockaddr_storage &a, const struct sockaddr_storage &b)
{
    if (a.ss_family != b.ss_family)
        return false;
    if (a.ss_family == AF_INET) {
        const auto &x = reinterpret_cast<const struct sockaddr_in &>(a);
        const auto &y = reinterpret_cast<const struct sockaddr_in &>(b);
        return x.sin_port == y.sin_port && x.sin_addr.s_addr == y.sin_addr.s_addr;
    }
    const auto &x = reinterpret_cast<const struct sockaddr_in6 &>(a);
    const auto &y = reinterpret_cast<const struct sockaddr_in6 &>(b);
    return x.sin6_port == y.sin6_port && std::memcmp(&x.sin6_addr, &y.sin6_addr, sizeof x.sin6_addr) == 0;
}

// Receives one datagram from the name server into q->buffer. 0, 85, 90 or 91.
int receive_datagram(DnsQueryState *q, int64_t deadline)
{
    q->buffer = static_cast<uint8_t *>(mem_malloc(kUdpAnswerSize));
    if (!q->buffer)
        return LDAP_NO_MEMORY;
    for (;;) {
        int rc = await_readable(q->sd, deadline);
        if (rc != LDAP_SUCCESS)
            return rc;
        struct sockaddr_storage from;
        socklen_t from_length = sizeof from;
        ssize_t n =
            recvfrom(q->sd, q->buffer, kUdpAnswerSize, 0, reinterpret_cast<struct sockaddr *>(&from), &from_length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            LDAP_TRACE(TRC_ERROR, "ldapdns: error receiving response: rc = %d\n", errno);
            return LDAP_CONNECT_ERROR;
        }
        // A datagram from anyone but the name server is not its answer.
        if (same_address(from, q->server)) {
            q->length = static_cast<size_t>(n);
            return LDAP_SUCCESS;
        }
        LDAP_TRACE(TRC_ERROR, "ldapdns: Oops, wrong packet\n");
    }
}

// Receives one length-prefixed message into q->buffer; a length that
// cannot be read counts as 0. 0, 85, 90 or 91.
int receive_stream_message(DnsQueryState *q, int64_t deadline)
{
    uint8_t prefix[2];
    int rc = read_stream(q->sd, prefix, sizeof prefix, deadline);
    if (rc == LDAP_TIMEOUT)
        return rc;
    size_t length = rc == LDAP_SUCCESS ? dns_get16(prefix) : 0;
    q->buffer = static_cast<uint8_t *>(mem_malloc(length));
    if (!q->buffer)
        return LDAP_NO_MEMORY;
    rc = read_stream(q->sd, q->buffer, length, deadline);
    q->length = rc == LDAP_SUCCESS ? length : 0;
    return rc;
}

// Receives one message into q->buffer. 0, 90 or 91.
int receive_message(DnsQueryState *q, int64_t deadline)
{
    mem_free(q->buffer);
    q->buffer = nullptr;
    q->length = 0;
    int rc = q->transport == DnsTransport::Udp ? receive_datagram(q, deadline) : receive_stream_message(q, deadline);
    return rc == LDAP_TIMEOUT ? LDAP_CONNECT_ERROR : rc;
}

} // namespace

void dns_state_reset(DnsQueryState *q, const server_request *request)
{
    std::memset(q, 0, sizeof *q);
    q->sd = -1;
    q->connection_type = request->connection_type;
    q->connection_timeout = request->connection_timeout;
    q->dn_filter = request->DN_filter;
}

void dns_close(DnsQueryState *q)
{
    if (q->sd >= 0)
        close(q->sd);
    q->sd = -1;
}

void dns_state_release(DnsQueryState *q)
{
    dns_close(q);
    mem_free(q->buffer);
    mem_free(q->query_name);
    server_list_free(q->current);
    server_list_free(q->results);
    q->buffer = nullptr;
    q->length = 0;
    q->query_name = nullptr;
    q->current = q->results = nullptr;
}

int dns_connect(DnsQueryState *q, const char *name_server, DnsTransport transport)
{
    const bool udp = transport == DnsTransport::Udp;
    LDAP_TRACE(TRC_API, "ldapdns: connecting to %s using %s\n", name_server, udp ? "UDP" : "TCP");
    dns_close(q);
    q->transport = transport;
    int rc = resolve_name_server(q, name_server, transport);
    if (rc != LDAP_SUCCESS)
        return rc;
    q->sd = socket(q->server.ss_family, (udp ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0);
    if (q->sd < 0) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: can't open socket: rc = %d\n", errno);
        return LDAP_LOCAL_ERROR;
    }
    rc = udp ? bind_udp(q->sd, q->server.ss_family) : connect_tcp(q);
    if (rc != LDAP_SUCCESS)
        dns_close(q);
    return rc;
}

int dns_query(DnsQueryState *q, const char *name, int type)
{
    size_t capacity = dns_query_size(std::strlen(name));
    auto *query = static_cast<uint8_t *>(mem_malloc(capacity));
    if (!query)
        return LDAP_NO_MEMORY;
    uint16_t id = q->next_id++;
    size_t length = 0;
    int rc = dns_build_query(id, name, type, query, &length);
    if (rc == LDAP_SUCCESS && q->transport == DnsTransport::Tcp) {
        const uint8_t prefix[2] = {static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
        rc = send_all(q, prefix, sizeof prefix);
    }
    if (rc == LDAP_SUCCESS)
        rc = send_all(q, query, length);
    mem_free(query);

    // One deadline for the whole answer: stale datagrams cannot stretch it.
    int64_t deadline = deadline_for(q);
    while (rc == LDAP_SUCCESS) {
        rc = receive_message(q, deadline);
        if (rc != LDAP_SUCCESS)
            break;
        if (q->length < 2)
            return LDAP_DNS_BAD_DATA;
        if (dns_get16(q->buffer) == id)
            return dns_read_answer_header(q);
        LDAP_TRACE(TRC_ERROR, "ldapdns: Oops, wrong packet\n");
    }
    return rc;
}

} // namespace zldap
