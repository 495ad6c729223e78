// sockbuf_write.cpp - writing an encoded element to a connection without
// blocking, resuming where a partial write stopped.
#include "ber/ber_internal.h"
#include "net/sockbuf.h"

#include "base/trace.h"
#include "net/zorlib.h"

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr long kMaxPlainWrite = 65535;

} // namespace

long BerWrite_nb(Sockbuf *sb, const char *buf, long len)
{
    if (sb->secure) {
        int count = 0;
        int rc = ZOR_ERR_READ_FAILED;
        if (g_zorlib.secure_soc_write && pthread_mutex_lock(&sb->secure->io_mutex) == 0) {
            rc = g_zorlib.secure_soc_write(sb->secure->soc, buf, static_cast<int>(len), &count);
            pthread_mutex_unlock(&sb->secure->io_mutex);
        }
        if (rc == ZOR_OK)
            return count;
        LDAP_TRACE(TRC_ERROR, "BerWrite() zor_secure_soc_write() rc=%d %s\n", rc, zorErrorText(rc));
        return rc == ZOR_WOULD_BLOCK ? -LBER_WOULD_BLOCK : -1;
    }
    if (len < 1)
        return 0;
    size_t chunk = static_cast<size_t>(len > kMaxPlainWrite ? kMaxPlainWrite : len);
    ssize_t n;
    do {
        // A peer that has gone away must give an error, not a SIGPIPE that
        // kills the caller's process.
        n = send(sb->sd, buf, chunk, MSG_NOSIGNAL);
        if (n < 0 && errno == ENOTSOCK)
            n = write(sb->sd, buf, chunk);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        int err = errno;
        LDAP_TRACE(TRC_ERROR, "BerWrite_nb() errno=%d\n", err);
        return (err == EAGAIN || err == EWOULDBLOCK) ? -LBER_WOULD_BLOCK : -1;
    }
    return n;
}

int fber_flush_nb(Sockbuf *sb, BerElement *ber)
{
    if (!sb || !ber)
        return -1;
    if (!ber->ber_rwptr)
        ber->ber_rwptr = ber->ber_buf;
    long pending = ber->ber_ptr - ber->ber_rwptr;
    if (zldap::trace_enabled(TRC_BER)) {
        zldap::trace_print(TRC_BER, "fber_flush_nb: %ld bytes to sd=%d%s\n", pending, sb->sd,
                           ber->ber_rwptr != ber->ber_buf ? " (re-flush)" : "");
        size_t done = static_cast<size_t>(ber->ber_rwptr - ber->ber_buf);
        zldap::ber_dump_masked(ber->ber_buf, pending > 0 ? done + static_cast<size_t>(pending) : done, done);
    }
    while (pending > 0) {
        long n = BerWrite_nb(sb, ber->ber_rwptr, pending);
        if (n < 1)
            return static_cast<int>(n);
        ber->ber_rwptr += n;
        pending -= n;
    }
    return 0;
}
