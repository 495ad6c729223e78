// ldap_ssl_io.cpp - the secure-socket toolkit's I/O callbacks. The toolkit
// never touches a socket: it asks these to move bytes on the non-blocking
// descriptor, and they wait for it within the connection's record's limits.
// Nothing here allocates; the waits are polls (descriptors above 1023
// work).
#include "tls/ldap_ssl_io.h"

#include "base/descriptor_wait.h"
#include "base/trace.h"
#include "tls/ldap_ssl_userdata.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#define LDAP_MODULE "libraries/libldap/ldap_ssl"

namespace {

// The record when the user data is one, else NULL (none, or the text form).
zor_user_data *record_of(void *user_data)
{
    int32_t key = 0;
    if (user_data)
        std::memcpy(&key, user_data, sizeof key);
    return key == kZorUserDataKey ? static_cast<zor_user_data *>(user_data) : nullptr;
}

// The state a text-form user data holds (0 when it holds no number).
int text_state(const void *user_data)
{
    int state = 0;
    if (std::sscanf(static_cast<const char *>(user_data), "%d", &state) != 1)
        return 0;
    return state;
}

// What tells the read loop from the write loop where they share their
// bookkeeping: the name, the record's counters and the traces.
struct Direction {
    const char *name;                // "ssl_read" or "ssl_write"
    int32_t zor_user_data::*loop;    // the record's loop index
    int32_t zor_user_data::*blocks;  // the record's would-block count
    const char *budget_spent;        // handshake time spent: the wait's seconds, microseconds
    const char *unlimited;           // about to wait without a limit
    const char *timed_out;           // read/write wait over: loop, types, selects, bytes left, length
};

constexpr Direction kReading = {
    "ssl_read",
    &zor_user_data::read_loop,
    &zor_user_data::read_blocks,
    "ssl_read: non EWOULDBLOCK SSL time out after: %ld.%06ld sec\n",
    "ssl_read: entering UNLIMITED wait for SSL ...\n",
    "ssl_read: TIMEOUT. returning EWOULDBLOCK. non handshake mode. loop: %d Type: %d:%d selects %d:%d bytes: %d of "
    "%d remaining\n",
};

constexpr Direction kWriting = {
    "ssl_write",
    &zor_user_data::write_loop,
    &zor_user_data::write_blocks,
    "ssl_write: SSL timed out after: %ld.%06ld sec\n",
    "ssl_write: entering UNLIMITED wait for SSL...\n",
    "ssl_write: TIMEOUT returning EWOULDBLOCK. non handshake mode. loop: %d Type: %d:%d selects %d:%d bytes: %d of "
    "%d remaining\n",
};

// How one call of ssl_read or ssl_write waits, and what it has waited:
// loops, selects since the last progress and would-blocks in all.
struct Plan {
    const Direction *dir = nullptr;
    zor_user_data *rec = nullptr;
    bool handshake = false;
    bool limited = true;
    zor_time wait{};
    uint64_t trace = 0;
    int conn = 0, env = 0;
    struct timeval start {};
    zor_time remaining{};
    int loop = 0, selects = 0, blocks = 0;

    bool on(uint64_t flags) const { return (trace & flags) != 0; }
    int64_t deadline() const
    {
        if (!limited)
            return -1;
        struct timeval tv {};
        tv.tv_sec = static_cast<time_t>(wait.sec);
        tv.tv_usec = static_cast<suseconds_t>(wait.usec);
        return zldap::deadline_after(&tv);
    }
    // The record's loop index follows the loop's.
    void next_attempt()
    {
        if (rec)
            rec->*dir->loop = loop;
    }
};

// Chooses the mode and the wait from the user data.
Plan make_plan(void *user_data, const Direction &dir, int length)
{
    Plan p;
    p.dir = &dir;
    p.rec = record_of(user_data);
    if (!p.rec) {
        p.wait = zor_default_wait();
        if (user_data) {
            int state = text_state(user_data);
            p.handshake = state == kZorStateHandshake;
            LDAP_TRACE(TRC_CONN,
                       p.handshake ? "%s: SSL state %d set for handshake num_bytes=%d\n"
                                   : "%s: SSL state %d set for read/write num_bytes=%d\n",
                       dir.name, state, length);
        }
    } else {
        zor_user_data *r = p.rec;
        p.handshake = r->state == kZorStateHandshake;
        p.trace = r->trace;
        p.conn = r->prot_conn;
        p.env = r->prot_env;
        p.limited = r->ioTimeout.sec > 0 || r->ioTimeout.usec > 0;
        p.wait = r->ioTimeout;
        if (!p.handshake && zor_data_timeout() != 0)
            p.wait.sec = zor_data_timeout();
        if (p.on(kZorTraceRecord)) {
            LDAP_TRACE(TRC_CONN,
                       "%s: user_data state: %d  handshakeMode? %d type: %d:%d timeout: %ld:%ld rem: %ld:%ld secs "
                       "num_bytes=%d\n",
                       dir.name, r->state, p.handshake, p.conn, p.env, static_cast<long>(p.wait.sec),
                       static_cast<long>(p.wait.usec), static_cast<long>(r->rem.sec), static_cast<long>(r->rem.usec),
                       length);
            LDAP_TRACE(TRC_CONN, "%s: userdata initial time remaining: %ld:%ld\n", dir.name,
                       static_cast<long>(r->rem.sec), static_cast<long>(r->rem.usec));
        }
    }
    if (p.limited) {
        gettimeofday(&p.start, nullptr);
        p.remaining = p.wait;
        if (p.rec && p.rec->rem.sec == 0 && p.rec->rem.usec == 0)
            p.rec->rem = p.wait;
    }
    return p;
}

// Handshake mode with a limit: takes the time since the last look off the
// remaining time. True when none is left.
bool budget_spent(Plan &p)
{
    struct timeval now {};
    gettimeofday(&now, nullptr);
    if (timercmp(&now, &p.start, <)) {
        LDAP_TRACE(TRC_ERROR,
                   "Error - gettimeofday() system call returned an incorrect value. The current time (%ld.%06ld) is "
                   "less than the start time (%ld.%06ld)\n",
                   static_cast<long>(now.tv_sec), static_cast<long>(now.tv_usec), static_cast<long>(p.start.tv_sec),
                   static_cast<long>(p.start.tv_usec));
        return false;
    }
    int64_t elapsed = (now.tv_sec - p.start.tv_sec) * 1000000LL + (now.tv_usec - p.start.tv_usec);
    int64_t left = p.remaining.sec * 1000000LL + p.remaining.usec - elapsed;
    p.start = now;
    // Floor division keeps the microseconds within 0 to 999999.
    p.remaining.sec = left >= 0 ? left / 1000000 : -((-left + 999999) / 1000000);
    p.remaining.usec = left - p.remaining.sec * 1000000;
    return left < 0;
}

// Returns result with errno set to error.
int with_errno(int result, int error)
{
    errno = error;
    return result;
}

// A read or write that moved nothing. A would-block is counted, here and
// in the record, and in handshake mode with a limit the time since the
// last look comes off the remaining time; while some is left the record
// keeps it for the next call and the loop may wait (true). Otherwise false
// with *rc: -1 with the error for any other failure, -3 with EIO when the
// time is spent.
bool may_wait(Plan &p, int error, int *rc)
{
    if (error != EWOULDBLOCK) {
        LDAP_TRACE(TRC_ERROR, "Error - %s: in SSL errno=%d EWOULDBLOCK=%d EAGAIN=%d\n", p.dir->name, error,
                   EWOULDBLOCK, EAGAIN);
        *rc = with_errno(-1, error);
        return false;
    }
    p.selects++;
    p.blocks++;
    if (p.rec)
        p.rec->*p.dir->blocks = p.blocks;
    if (p.handshake && p.limited && budget_spent(p)) {
        LDAP_TRACE(TRC_CONN, p.dir->budget_spent, static_cast<long>(p.wait.sec), static_cast<long>(p.wait.usec));
        *rc = with_errno(-3, EIO);
        return false;
    }
    if (p.rec && p.limited)
        p.rec->rem = p.remaining;
    if (!p.limited)
        LDAP_TRACE(TRC_CONN, "%s", p.dir->unlimited);
    return true;
}

const char *env_name(int env) { return env == kZorEnvClient ? "CLIENT" : env == kZorEnvServer ? "SERVER" : "unknown"; }

// Read/write mode's wait ran out: a would-block for the toolkit, which
// calls again later.
int pass_up_would_block(const Plan &p, int count, int length)
{
    if (p.on(kZorTraceLeaving))
        LDAP_TRACE(TRC_CONN, p.dir->timed_out, p.loop, p.conn, p.env, p.selects, p.blocks, length - count, length);
    return with_errno(-1, EWOULDBLOCK);
}

} // namespace

int ssl_read(int fd, char *buffer, int length, void *user_data, int *count)
{
    *count = 0;
    Plan p = make_plan(user_data, kReading, length);
    int rc = -1;
    for (;;) {
        p.next_attempt();
        ssize_t n = read(fd, buffer + *count, static_cast<size_t>(length - *count));
        int error = errno;
        if (n == 0 || (!p.handshake && zor_data_timeout() == 0)) {
            if (n > 0)
                *count += static_cast<int>(n);
            if (p.on(kZorTraceImmediate))
                LDAP_TRACE(TRC_CONN,
                           "ssl_read: <----- Leaving immediately. looped %d:%d  rc=%d:%d(%d:%d) handshake mode? %d "
                           "type: %d:%d\n",
                           p.loop, p.selects, static_cast<int>(n), error, *count, length, p.handshake, p.conn, p.env);
            return with_errno(static_cast<int>(n), error);
        }
        if (n > 0) {
            *count += static_cast<int>(n);
            if (*count == length) {
                if (p.on(kZorTraceLeaving))
                    LDAP_TRACE(TRC_CONN, "ssl_read: <----- Leaving. looped %d:%d bytes: %d of %d\n", p.loop,
                               p.selects, *count, length);
                return length;
            }
            p.selects = 0;
            p.loop++;
            if (p.on(kZorTraceLooping))
                LDAP_TRACE(TRC_CONN, "ssl_read: (%d)looping selects %d:%d rc: %d mode: %d bytes2go: %d of %d\n",
                           p.loop, p.selects, p.blocks, static_cast<int>(n), p.handshake, length - *count, length);
            continue;
        }
        if (!may_wait(p, error, &rc))
            break;
        if (p.limited && p.on(kZorTraceLooping))
            LDAP_TRACE(TRC_CONN, "ssl_read: %s: (%d) looping waiting on EWOULDBLOCK. mode: %d  selects %d:%d bytes: %d:%d \n",
                       p.env == kZorEnvServer ? "server" : "client", p.loop, p.handshake, p.selects, p.blocks, *count,
                       length);
        int ready = zldap::wait_for_descriptor(fd, POLLIN, p.deadline());
        if (p.limited && p.on(kZorTraceSelect))
            LDAP_TRACE(TRC_CONN, "ssl_read: select %d:%d rc: %d mode: %d secs: %ld:%ld of %ld:%ld\n", p.selects,
                       p.blocks, ready, p.handshake, static_cast<long>(p.remaining.sec),
                       static_cast<long>(p.remaining.usec), static_cast<long>(p.wait.sec),
                       static_cast<long>(p.wait.usec));
        if (ready < 0) {
            LDAP_TRACE(TRC_ERROR, "ssl_read: Error select failed with INVALID_SOCKET: errno = %d \n", errno);
            rc = with_errno(-1, EWOULDBLOCK);
            break;
        }
        if (ready == 0) {
            if (p.handshake) {
                LDAP_TRACE(TRC_ERROR,
                           "Error - ssl_read: select %d:%d timed out after:  %ld:%ld sec, connType: %d env: %s\n",
                           p.selects, p.blocks, static_cast<long>(p.wait.sec), static_cast<long>(p.wait.usec), p.conn,
                           env_name(p.env));
                rc = with_errno(-2, EIO);
                break;
            }
            if (p.on(kZorTraceTimeout))
                LDAP_TRACE(TRC_CONN,
                           "ssl_read:  type:%d  non handshake mode selects %d:%d bytes: %d:%d timed out after: "
                           "%ld.%06ld sec. retry read\n",
                           p.conn, p.selects, p.blocks, *count, length, static_cast<long>(p.wait.sec),
                           static_cast<long>(p.wait.usec));
            rc = pass_up_would_block(p, *count, length);
            break;
        }
        if (p.on(kZorTraceLooping))
            LDAP_TRACE(TRC_CONN, "ssl_read: looping %d EWOULDBLOCK cleared secs: %ld:%ld %ld:%ld. select rc:%d(%d:%d)\n",
                       p.loop, static_cast<long>(p.remaining.sec), static_cast<long>(p.remaining.usec),
                       static_cast<long>(p.wait.sec), static_cast<long>(p.wait.usec), ready, p.selects, p.blocks);
        p.loop++;
    }
    int error = errno;
    if (p.on(kZorTraceLeaving))
        LDAP_TRACE(TRC_CONN,
                   "ssl_read: <---- Leaving ERROR loop: %d rc=%d:%d handshake mode: %d type: %d:%d bytes: %d:%d "
                   "selects: %d:%d \n",
                   p.loop, rc, error, p.handshake, p.conn, p.env, *count, length, p.selects, p.blocks);
    return with_errno(rc, error);
}

int ssl_write(int fd, const char *buffer, int length, void *user_data, int *count)
{
    *count = 0;
    Plan p = make_plan(user_data, kWriting, length);
    int rc = -1;
    for (;;) {
        p.next_attempt();
        ssize_t n = write(fd, buffer + *count, static_cast<size_t>(length - *count));
        int error = errno;
        if (!p.handshake && zor_data_timeout() == 0) {
            if (p.on(kZorTraceLeaving))
                LDAP_TRACE(TRC_CONN,
                           "ssl_write: <--- Leaving ERROR loop: %d rc=%d bytes: %d handshake mode? %d type: %d:%d "
                           "selects: %d:%d\n",
                           p.loop, static_cast<int>(n), *count, p.handshake, p.conn, p.env, p.selects, p.blocks);
            return with_errno(static_cast<int>(n), error);
        }
        if (n == 0) {
            LDAP_TRACE(TRC_CONN,
                       "ssl_write:   Leaving.  WARNING rc=0 selects: %d:%d  errno:=%d bytes:%d loop: %d handshake "
                       "mode: %d type: %d:%d \n",
                       p.selects, p.blocks, error, *count, p.loop, p.handshake, p.conn, p.env);
            return with_errno(0, error);
        }
        if (n > 0) {
            *count += static_cast<int>(n);
            if (*count == length)
                return length;
            p.selects = 0;
            p.loop++;
            continue;
        }
        if (!may_wait(p, error, &rc))
            break;
        int ready = zldap::wait_for_descriptor(fd, POLLOUT, p.deadline());
        if (ready < 0) {
            LDAP_TRACE(TRC_ERROR, "Error - ssl_write: select failed: %d handshake mode? %d \n", errno, p.handshake);
            rc = with_errno(-1, EWOULDBLOCK);
            break;
        }
        if (ready == 0) {
            if (p.handshake) {
                LDAP_TRACE(TRC_ERROR, "ssl_write: %d: select timed out after: %ld.%06ld sec\n", fd,
                           static_cast<long>(p.wait.sec), static_cast<long>(p.wait.usec));
                rc = with_errno(-2, EIO);
                break;
            }
            if (p.on(kZorTraceTimeout))
                LDAP_TRACE(TRC_CONN,
                           "ssl_write: type:%d  non handshake mode selects %d:%d timed out after: %ld.%06ld sec. "
                           "retry write \n",
                           p.conn, p.selects, p.blocks, static_cast<long>(p.wait.sec), static_cast<long>(p.wait.usec));
            rc = pass_up_would_block(p, *count, length);
            break;
        }
        if (p.on(kZorTraceSelect))
            LDAP_TRACE(TRC_CONN, "ssl_write: select rc:%d (%d:%d) \n", ready, p.selects, p.blocks);
        else if (p.on(kZorTraceLooping))
            LDAP_TRACE(TRC_CONN, "ssl_write: looping %d EWOULDBLOCK cleared. secs: %ld:%ld %ld:%ld select rc:%d(%d:%d)\n",
                       p.loop, static_cast<long>(p.remaining.sec), static_cast<long>(p.remaining.usec),
                       static_cast<long>(p.wait.sec), static_cast<long>(p.wait.usec), ready, p.selects, p.blocks);
        p.loop++;
    }
    int error = errno;
    if (p.on(kZorTraceLeaving))
        LDAP_TRACE(TRC_CONN,
                   "ssl_write: <--- Leaving ERROR loop: %d rc=%d bytes: %d handshake mode? %d type: %d:%d selects: "
                   "%d:%d\n",
                   p.loop, rc, *count, p.handshake, p.conn, p.env, p.selects, p.blocks);
    return with_errno(rc, error);
}

namespace {

// What the two callbacks share around their loop.
struct CallbackTexts {
    const char *entering;
    const char *partial;      // bytes moved, length, result
    const char *select_timeout;
    const char *budget_spent;
    const char *leaving;      // the full form
    const char *leaving_short;
};

constexpr CallbackTexts kReadTexts = {
    "client_ssl_read: --> Entering %d  userData: %p bytes: %d handshakeMode? %d \n",
    "client_ssl_read: EWOULDBLOCK timeout after %d of %d bytes read. returning %d\n",
    "client_ssl_read:  EIO due to handshake mode EWOULDBLOCK timeout\n",
    "client_ssl_read: EIO due to handshake mode nonEWOULDBLOCK timeout\n",
    "client_ssl_read: <----- Leaving %d %s %d %s handshake? %d rc: %d:%d read: %d of %d\n",
    "client_ssl_read: <-- Leaving %d  WOULDBLOCK count: %d %s handshake? %d rc: %d:%d  %d of %d bytes sent\n",
};

constexpr CallbackTexts kWriteTexts = {
    "client_ssl_write: --> Entering %d  userData: %p bytes: %d handshakeMode? %d \n",
    "client_ssl_write: <-- Leaving. EWOULDBLOCK timeout after %d of %d bytes sent returning %d\n",
    "client_ssl_write:  EIO due to handshake mode EWOULDBLOCK timeout\n",
    "client_ssl_write  EIO due to handshake mode nonEWOULDBLOCK timeout\n",
    "client_ssl_write: <-- Leaving %d %s %d  %s handshake? %d rc: %d:%d  %d of %d bytes sent\n",
    "client_ssl_write: <-- Leaving %d  WOULDBLOCK count: %d %s handshake? %d rc: %d:%d  %d of %d bytes sent\n",
};

template <class Buffer, class Loop>
int run_callback(const CallbackTexts &texts, bool reading, int fd, Buffer buffer, int length, void *user_data,
                 Loop loop)
{
    zor_user_data *rec = record_of(user_data);
    int previous_blocks = 0, mode = -1;
    if (rec) {
        int32_t &blocks = reading ? rec->read_blocks : rec->write_blocks;
        previous_blocks = blocks;
        // The words at offsets 72, 76 and 88 count reads, 80, 84 and 92 writes.
        static constexpr int kReadWords[] = {0, 1, 4}, kWriteWords[] = {2, 3, 5};
        for (int word : reading ? kReadWords : kWriteWords)
            rec->counters[word] = 0;
        blocks = 0;
        (reading ? rec->read_loop : rec->write_loop) = 0;
        mode = rec->state == kZorStateHandshake;
    } else if (user_data) {
        mode = text_state(user_data) == kZorStateHandshake;
    }
    bool quiet = rec && (rec->trace & kZorTraceQuiet);
    if (!quiet)
        LDAP_TRACE(TRC_CONN, texts.entering, fd, user_data, length, mode);
    int count = 0;
    int result = loop(fd, buffer, length, user_data, &count);
    int error = errno;
    bool timed_out = false;
    if (result < 0 && error == EWOULDBLOCK && count > 0) {
        LDAP_TRACE(TRC_CONN, texts.partial, count, length, count);
        result = count;
    } else if (result < 0 && error == EIO && (result == -2 || result == -3)) {
        LDAP_TRACE(TRC_CONN, "%s", result == -2 ? texts.select_timeout : texts.budget_spent);
        result = -1;
        timed_out = true;
    }
    int blocks = rec ? (reading ? rec->read_blocks : rec->write_blocks) : 0;
    if (!quiet)
        LDAP_TRACE(TRC_CONN, texts.leaving, fd, blocks ? "EWOULDBLOCK count: " : "no blocks:", blocks,
                   timed_out ? "TIMEOUT" : "", mode, result, error, count, length);
    else if (previous_blocks != 0)
        LDAP_TRACE(TRC_CONN, texts.leaving_short, fd, blocks, timed_out ? "TIMEOUT" : "", mode, result, error, count,
                   length);
    return with_errno(result, error);
}

int setSocketOpts(int fd, int command, void *user_data)
{
    // A record is never written over: the command is kept in a text only.
    if (user_data && !record_of(user_data)) {
        char *text = static_cast<char *>(user_data);
        int current = text_state(text);
        LDAP_TRACE(TRC_CONN, "setSocketOpts  cmd: %d userData cmd: %d\n", command, current);
        if (current == command)
            return 0;
        char digits[16];
        int n = std::snprintf(digits, sizeof digits, "%d", command);
        if (n < 0 || n > 7)
            return -1;
        std::memcpy(text, digits, static_cast<size_t>(n) + 1);
    } else {
        LDAP_TRACE(TRC_CONN, "setSocketOpts  cmd: %d no user data\n", command);
    }
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0)
        flags = 0;
    if (command != kZorStateHandshake && command != kZorStateReadWrite) {
        LDAP_TRACE(TRC_CONN, "setSocketOpts  cmd: %d NOT setting socket non blocking\n", command);
        return -1;
    }
    LDAP_TRACE(TRC_CONN, "setSocketOpts  cmd: %d setting socket non blocking\n", command);
    return fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

} // namespace

int client_ssl_read(int fd, void *buffer, int length, void *user_data)
{
    return run_callback(kReadTexts, true, fd, static_cast<char *>(buffer), length, user_data, ssl_read);
}

int client_ssl_write(int fd, const void *buffer, int length, void *user_data)
{
    return run_callback(kWriteTexts, false, fd, static_cast<const char *>(buffer), length, user_data, ssl_write);
}

int client_setSocketOpts(int fd, int command, void *user_data)
{
    LDAP_TRACE(TRC_CONN, "client_setSocketOpts: cmd %d   userData: %p\n", command, user_data);
    return setSocketOpts(fd, command, user_data);
}
