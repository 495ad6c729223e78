// ldap_connect_socket.h - the socket side of connecting: name resolution
// under the system-call mutex, socket flags, connects with a time-out,
// opening one host entry, and closing.
#ifndef ZLDAP_LDAP_CONNECT_SOCKET_H
#define ZLDAP_LDAP_CONNECT_SOCKET_H

#include "net/sockbuf.h"

#include <memory>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace zldap {

// Owns a getaddrinfo list; the list is the resolver's, so freeaddrinfo
// releases it rather than the allocation seam.
struct AddrInfoDeleter {
    void operator()(struct addrinfo *list) const
    {
        if (list)
            freeaddrinfo(list);
    }
};
using AddrList = std::unique_ptr<struct addrinfo, AddrInfoDeleter>;

} // namespace zldap

// Name resolution under the system-call mutex. port is in network byte
// order; host may be NULL. 0 with *res set (release with freeaddrinfo),
// 129 when the mutex cannot be taken, 81 when resolution fails (errno is
// then EHOSTUNREACH).
int qva_getaddrinfo(const char *host, int port, struct addrinfo **res);

// The descriptor's file status flags, or 0 when they cannot be read.
int get_socket_flags_sd(int sd);
// 0, or the errno of the failing fcntl.
int set_socket_nb_sd(int sd);
int set_socket_blocking_sd(int sd);

// Connects sd to the address. Without a time-out the connect blocks; with
// one it waits at most that long. The socket is left blocking. 0 or -1.
int tds_connect(int sd, const struct sockaddr *address, socklen_t address_len,
                const struct timeval *timeout);

// Opens one host entry (a name, an address or a path beginning with a
// slash) on port (network byte order). 0 with sb->sd set; otherwise 81, 91
// or a code of qva_getaddrinfo, with sb->sd = -1.
int open_connection(Sockbuf *sb, const char *host, int port, const struct timeval *timeout);

// Shuts the socket down in both directions and closes it; the Sockbuf form
// also marks the buffer unconnected.
void close_connection_sd(int sd);
void close_connection_sd(Sockbuf *sb);

#endif
