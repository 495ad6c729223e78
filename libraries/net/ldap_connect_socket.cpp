// ldap_connect_socket.cpp - socket flag helpers and closing a connection's socket.
#include "net/ldap_connect_socket.h"

#include "base/trace.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#define LDAP_MODULE "libraries/libldap/ldap_connect"

int get_socket_flags_sd(int sd)
{
    int flags = fcntl(sd, F_GETFL, 0);
    if (flags < 0) {
        LDAP_TRACE(TRC_ERROR, "get_socket_flags_sd: failed to get socket state. rc: %d\n", errno);
        return 0;
    }
    return flags;
}

int set_socket_nb_sd(int sd)
{
    if (fcntl(sd, F_SETFL, get_socket_flags_sd(sd) | O_NONBLOCK) < 0) {
        int err = errno;
        LDAP_TRACE(TRC_ERROR, "set_socket_nb_sd: failed to set socket non-blocking, errno=%d\n", err);
        return err;
    }
    return 0;
}

int set_socket_blocking_sd(int sd)
{
    if (fcntl(sd, F_SETFL, get_socket_flags_sd(sd) & ~O_NONBLOCK) < 0) {
        int err = errno;
        LDAP_TRACE(TRC_ERROR, "set_socket_blocking_sd: failed to set socket non-blocking, errno=%d\n",
                   err);
        return err;
    }
    return 0;
}

void close_connection_sd(int sd)
{
    if (sd < 0)
        return;
    // The shutdown tells the server at once, even while another descriptor
    // (a forked child's) still refers to the socket.
    shutdown(sd, SHUT_RDWR);
    // Linux releases the descriptor even when close is interrupted, so it
    // is never retried: the number may already belong to someone else.
    close(sd);
}

void close_connection_sd(Sockbuf *sb)
{
    if (!sb)
        return;
    close_connection_sd(sb->sd);
    sb->sd = -1;
    fber_drop_read_ahead(sb);
}
