// sockbuf_read.cpp - reading from a connection without blocking: the low
// readers, the framing of one LDAPMessage across as many calls as its bytes
// need, and the wait for readability.
#include "ber/ber_internal.h"
#include "base/descriptor_wait.h"
#include "net/sockbuf.h"

#include "base/trace.h"
#include "net/zorlib.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr ber_len_t kMaxElementLength = 0x7FFFFFFE;
constexpr int kMaxLengthOctets = 8;
constexpr size_t kFirstContentBlock = 16 * 1024;

// Step 2 of framing: the tag and the first length octet. A tag octet that
// arrives alone is kept in ber_tag for the next call.
ber_tag_t read_header(Sockbuf *sb, BerElement *ber, int *state)
{
    unsigned char header[2];
    bool have_tag = ber->ber_tag != LBER_DEFAULT;
    long want = have_tag ? 1 : 2;
    long left = 0;
    int rc = FBerReadDirect_nb(sb, reinterpret_cast<char *>(header), want, &left);
    if (rc != 0) {
        LDAP_TRACE(TRC_BER, "fber_get_next_nb->BFerReadDirect_nb:1 rc=%d\n", rc);
        if (rc == LBER_WOULD_BLOCK && !have_tag && left == 1)
            ber->ber_tag = header[0];
        return rc == LBER_WOULD_BLOCK ? LBER_WOULD_BLOCK : LBER_DEFAULT;
    }
    ber_tag_t tag = have_tag ? ber->ber_tag : header[0];
    unsigned char first_length = have_tag ? header[0] : header[1];
    if ((tag & 0x1F) == 0x1F) // multi-octet tags are not LDAP
        return LBER_DEFAULT;
    ber->ber_rwptr = nullptr;
    ber->ber_tag = tag;
    ber->ber_buf = ber->ber_ptr = ber->ber_end = nullptr;
    ber->ber_len = first_length;
    *state = 2;
    return 0;
}

// Step 3: the long-form length octets, collected in ber_lenbuf across calls.
ber_tag_t read_long_length(Sockbuf *sb, BerElement *ber)
{
    if (!(ber->ber_len & 0x80))
        return 0;
    int count = static_cast<int>(ber->ber_len & 0x7F);
    if (count == 0 || count > kMaxLengthOctets) // indefinite form, or too long
        return LBER_DEFAULT;
    long left = 0;
    long missing = count - static_cast<long>(ber->ber_lenbuf_count);
    int rc = FBerReadDirect_nb(sb, reinterpret_cast<char *>(ber->ber_lenbuf) + ber->ber_lenbuf_count,
                               missing, &left);
    if (rc == LBER_WOULD_BLOCK) {
        ber->ber_lenbuf_count += static_cast<uint32_t>(missing - left);
        return LBER_WOULD_BLOCK;
    }
    if (rc != 0) {
        LDAP_TRACE(TRC_BER, "fber_get_next_nb->FBerReadDirect_nb:2 rc=%d, %d bytes to read\n", rc,
                   static_cast<int>(missing));
        return LBER_DEFAULT;
    }
    // Lengths of five to eight octets are read in full and then refused by
    // the element size limit, like any other length that is too large.
    ber_len_t len = 0;
    for (int i = 0; i < count; i++)
        len = (len << 8) | ber->ber_lenbuf[i];
    ber->ber_len = len;
    std::memset(ber->ber_lenbuf, 0, sizeof ber->ber_lenbuf);
    ber->ber_lenbuf_count = 0;
    return 0;
}

// Steps 4 and 5 keep the contents in a buffer that grows as they arrive,
// doubling up to the declared length: a length alone costs one small
// block, whatever a peer declares before it stops sending. While the
// contents are incomplete ber_buf is the block, ber_ptr the fill position
// and ber_end the end of the room so far; one byte more holds the NUL.
bool size_contents(BerElement *ber, size_t room)
{
    size_t filled = static_cast<size_t>(ber->ber_ptr - ber->ber_buf);
    char *buf = static_cast<char *>(zldap::mem_realloc(ber->ber_buf, room + 1));
    if (!buf) {
        LDAP_TRACE(TRC_ERROR, "fber_get_next_nb: calloc failed, ber->ber_len=%d\n", static_cast<int>(ber->ber_len));
        return false;
    }
    ber->ber_buf = buf;
    ber->ber_ptr = buf + filled;
    ber->ber_end = buf + room;
    return true;
}

// Step 4: the first block of the content buffer.
bool allocate_contents(BerElement *ber, int *state)
{
    if (ber->ber_len == 0 || ber->ber_len > kMaxElementLength)
        return false;
    if (!size_contents(ber, std::min<size_t>(ber->ber_len, kFirstContentBlock)))
        return false;
    *state = static_cast<int>(ber->ber_len);
    return true;
}

// Step 5: the contents, read straight into their buffer; *state counts
// the bytes still to come. 0 when all are in, else 11 or LBER_DEFAULT.
ber_tag_t read_contents(Sockbuf *sb, BerElement *ber, int *state)
{
    while (*state > 0) {
        size_t room = static_cast<size_t>(ber->ber_end - ber->ber_buf);
        if (ber->ber_ptr == ber->ber_end && !size_contents(ber, std::min<size_t>(ber->ber_len, 2 * room)))
            return LBER_DEFAULT;
        long want = std::min<long>(*state, ber->ber_end - ber->ber_ptr);
        long left = 0;
        int rc = FBerReadDirect_nb(sb, ber->ber_ptr, want, &left);
        if (rc != 0 && rc != LBER_WOULD_BLOCK) {
            LDAP_TRACE(TRC_BER, "fber_get_next_nb->FBerReadDirect_nb:3 rc=%d\n", rc);
            return LBER_DEFAULT;
        }
        long got = rc == 0 ? want : want - left;
        ber->ber_ptr += got;
        *state -= static_cast<int>(got);
        if (rc == LBER_WOULD_BLOCK) {
            LDAP_TRACE(TRC_BER, "fber_get_next_nb->FBerReadDirect_nb rc=%d: %d bytes left to read\n", rc, *state);
            return LBER_WOULD_BLOCK;
        }
    }
    ber->ber_ptr = ber->ber_buf;
    *ber->ber_end = '\0';
    return 0;
}

// Copies up to len bytes read ahead into buf; the number copied.
long take_read_ahead(Sockbuf *sb, char *buf, long len)
{
    long n = std::min<long>(len, sb->sb_ahead_end - sb->sb_ahead_start);
    if (n <= 0)
        return 0;
    std::memcpy(buf, sb->sb_ahead + sb->sb_ahead_start, static_cast<size_t>(n));
    sb->sb_ahead_start += static_cast<uint32_t>(n);
    if (sb->sb_ahead_start == sb->sb_ahead_end)
        fber_drop_read_ahead(sb);
    return n;
}

// The toolkit's read, tried only when bytes wait: decrypted ones inside
// the toolkit, or new ones on the socket. Otherwise it is would-block at
// once, and the caller waits in fber_select without holding the secure
// socket, which writers of other threads need meanwhile; the callbacks'
// data time-out then bounds only a record that has begun to arrive.
int secure_read(Sockbuf *sb, char *buf, long len, int *count)
{
    zor_secure_record *sec = sb->secure;
    if (!g_zorlib.secure_soc_read || pthread_mutex_lock(&sec->io_mutex) != 0)
        return ZOR_ERR_READ_FAILED;
    int held = 0;
    if (g_zorlib.secure_soc_read(sec->soc, nullptr, 1, &held) != ZOR_OK)
        held = 0;
    struct pollfd p = {sb->sd, POLLIN, 0};
    int rc = held <= 0 && poll(&p, 1, 0) == 0 ? ZOR_WOULD_BLOCK
                                               : g_zorlib.secure_soc_read(sec->soc, buf, static_cast<int>(len), count);
    pthread_mutex_unlock(&sec->io_mutex);
    return rc;
}

} // namespace

long fber_socket_read_nb(Sockbuf *sb, char *buf, long len, int *would_block)
{
    *would_block = 0;
    if (sb->secure) {
        int count = 0;
        int rc = secure_read(sb, buf, len, &count);
        if (rc == ZOR_OK)
            return count;
        if (rc == ZOR_WOULD_BLOCK) {
            *would_block = LBER_WOULD_BLOCK;
            return 0;
        }
        if (rc != ZOR_ERR_READ_FAILED)
            LDAP_TRACE(TRC_ERROR, "Error - fber_socket_read_nb: zor_secure_soc_read() rc=%d %s\n", rc,
                       zorErrorText(rc));
        return -1;
    }
    ssize_t n;
    do {
        n = read(sb->sd, buf, static_cast<size_t>(len));
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        int err = errno;
        LDAP_TRACE(TRC_BER, "fber_socket_read_nb: sd=%d errno=%d EWOULDBLOCK=%d EAGAIN=%d\n", sb->sd, err,
                   EWOULDBLOCK, EAGAIN);
        if (err == EAGAIN || err == EWOULDBLOCK) {
            *would_block = LBER_WOULD_BLOCK;
            return 0;
        }
        return -1;
    }
    return n;
}

int FBerReadDirect_nb(Sockbuf *sb, char *buf, long len, long *left)
{
    if (len < 1)
        return -1;
    long got = take_read_ahead(sb, buf, len);
    while (got < len) {
        int would_block = 0;
        long missing = len - got;
        bool direct = missing >= static_cast<long>(kSockbufReadAhead);
        long n = direct ? fber_socket_read_nb(sb, buf + got, missing, &would_block)
                        : fber_socket_read_nb(sb, sb->sb_ahead, kSockbufReadAhead, &would_block);
        if (would_block == LBER_WOULD_BLOCK) {
            *left = missing;
            return LBER_WOULD_BLOCK;
        }
        if (n <= 0) // failure, or the peer closed in mid-element
            return -1;
        if (direct) {
            got += n;
        } else {
            sb->sb_ahead_start = 0;
            sb->sb_ahead_end = static_cast<uint32_t>(n);
            got += take_read_ahead(sb, buf + got, missing);
        }
    }
    *left = 0;
    return 0;
}

ber_tag_t fber_get_next_nb(Sockbuf *sb, BerElement *ber, int *state)
{
    if (!sb || !ber || !state)
        return LBER_DEFAULT;
    LDAP_TRACE(TRC_BER, "fber_get_next_nb: length=%d\n", *state);
    ber_tag_t rc;
    if (*state == 0 && (rc = read_header(sb, ber, state)) != 0)
        return rc;
    if (*state == 2 && !ber->ber_ptr) {
        if ((rc = read_long_length(sb, ber)) != 0)
            return rc;
        if (!allocate_contents(ber, state))
            return LBER_DEFAULT;
    }
    if ((rc = read_contents(sb, ber, state)) != 0)
        return rc;
    if (zldap::trace_enabled(TRC_BER)) {
        zldap::trace_print(TRC_BER, "fber_get_next_nb: tag 0x%lx len=%ld contents:\n", ber->ber_tag,
                           static_cast<long>(ber->ber_len));
        fber_dump_with_fd(ber, 1, sb->sd);
    }
    return ber->ber_tag;
}

int fber_select(Sockbuf *sb, const struct timeval *timeout)
{
    if (!sb) {
        LDAP_TRACE(TRC_ERROR, "fber_select: Bad params sb(%p)\n", static_cast<void *>(sb));
        return -1;
    }
    if (fber_has_read_ahead(sb))
        return 1;
    if (sb->secure && g_zorlib.secure_soc_read && pthread_mutex_lock(&sb->secure->io_mutex) == 0) {
        // Bytes the toolkit has already decrypted never show on the socket.
        int held = -1;
        int rc = g_zorlib.secure_soc_read(sb->secure->soc, nullptr, 1, &held);
        pthread_mutex_unlock(&sb->secure->io_mutex);
        LDAP_TRACE(TRC_API, "fber_select: nLengthRead = %d, rc = %d, errno=%d\n", held, rc, errno);
        if (held > 0)
            return 1;
    }
    int rc = zldap::wait_for_descriptor(sb->sd, POLLIN, zldap::deadline_after(timeout));
    if (rc < 0)
        LDAP_TRACE(TRC_ERROR, "fber_select: returning %d\n", rc);
    return rc;
}
