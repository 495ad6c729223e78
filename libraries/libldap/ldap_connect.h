// ldap_connect.h - connecting a handle to its servers: name resolution,
// socket flags, connects with a time-out, host lists, the per-thread choice
// of connection and the handle's chain of connections.
#ifndef ZLDAP_LDAP_CONNECT_H
#define ZLDAP_LDAP_CONNECT_H

#include "ldap_session.h"

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

// Tries lc's host entries in order until one connects; the socket then runs
// non-blocking. 0, or the code of the last failed attempt.
int open_ldap_connection(LDAP *ld, LDAPConn *lc);
// open_ldap_connection on the calling thread's default connection.
int open_default_connection(LDAP *ld);

// The calling thread's bound connection if it has one, else ld_defconn;
// NULL when the lock fails.
LDAPConn *get_default_connection(LDAP *ld);
// Binds the calling thread to lc, or removes its binding for NULL. 0, 90 or 129.
int set_thread_connection(LDAP *ld, LDAPConn *lc);

// Whether two host/port pairs (ports in host byte order) name the same
// server: equal texts, or equal first resolved addresses. 1 or 0.
int same_server(const char *host1, int port1, const char *host2, int port2);

// The handle's connection to host and port (host byte order; -1 and -2 mean
// the default port, 636 when the default connection is secure, else 389),
// searched from ld_defconn when include_default is 1, else from the one
// after it. When none matches and open_if_missing is 1, a new connection is
// opened and appended to the chain. NULL when none is found or the open
// fails; *rc (may be NULL) receives 0 or the code.
LDAPConn *find_connection(LDAP *ld, const char *host, int port, int open_if_missing, int *rc,
                          int include_default);

// Takes lc out of the handle's chain and frees it. A connection with
// requests still outstanding is kept (at the end of the chain) for the
// handle's teardown; the default connection and records not in the chain
// are left alone.
void release_connection(LDAP *ld, LDAPConn *lc);

// Shuts the socket down in both directions and closes it; the Sockbuf form
// also marks the buffer unconnected.
void close_connection_sd(int sd);
void close_connection_sd(Sockbuf *sb);

#endif
