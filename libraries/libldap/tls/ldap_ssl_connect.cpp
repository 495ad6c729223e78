// ldap_ssl_connect.cpp - secure connection set-up on a connected socket.
// The secure-socket toolkit is not wired in yet: no session gets its SSL
// flag set, so these are reached only by a handle whose flag was forced.
#include "tls/ldap_ssl_connect.h"

#include "base/trace.h"

#define LDAP_MODULE "libraries/libldap/ldap_ssl"

// Until the toolkit is wired in: refuses every handshake (116).
int open_ssl_connection(LDAP *ld, Sockbuf *sb)
{
    LDAP_TRACE(TRC_ERROR,
               "Error - open_ssl_connection(): no secure-socket toolkit, ld(%p) sb(%p) sd(%d)\n",
               static_cast<void *>(ld), static_cast<void *>(sb), sb ? sb->sd : -1);
    return LDAP_SECURE_CONNECT_FAILED;
}

// Until the toolkit is wired in: nothing creates a secure record, so there
// is nothing to end.
void ssl_close_direct(Sockbuf *sb)
{
    if (!sb || !sb->secure)
        return;
    LDAP_TRACE(TRC_CONN, "ssl_close_direct: sb(%p) secure(%p) left to its owner\n",
               static_cast<void *>(sb), static_cast<void *>(sb->secure));
}
