// ldap_receive.cpp - there is no reader thread: a thread whose row has
// nothing to hand out reads the socket itself, one message at a time plus
// those whose bytes came in with it, and every message it reads goes to
// the queue and from there to its own row, whoever is waiting for it.
#include "engine/ldap_receive.h"

#include "base/ldap_lock.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "message/ldap_queue.h"
#include "message/ldap_referrals_rows.h"

#include <cerrno>
#include <climits>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#define LDAP_MODULE "libraries/libldap/ldap_receive"

namespace {

constexpr ber_tag_t kLdapMessageTag = 0x30;

uint32_t read_count(const ldap_msg_table *table) { return __atomic_load_n(&table->read_count, __ATOMIC_ACQUIRE); }

// The time left until `deadline` (CLOCK_MONOTONIC); false when none is.
bool time_left(const struct timespec &deadline, struct timespec *left)
{
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    left->tv_sec = deadline.tv_sec - now.tv_sec;
    left->tv_nsec = deadline.tv_nsec - now.tv_nsec;
    if (left->tv_nsec < 0) {
        left->tv_sec--;
        left->tv_nsec += 1000000000;
    }
    return left->tv_sec >= 0 && (left->tv_sec > 0 || left->tv_nsec > 0);
}

// Takes the read lock within the caller's time-out, or learns that a
// message was queued since `seen` (the read count as the caller last
// looked at it). A thread that finds the lock taken does not queue on it:
// it sleeps until the reader lets go (see unlock_reading), so that every
// waiter wakes at once instead of each one only after the one before it
// has had the lock. 0 with the lock held, 1 without it when something was
// queued, ETIMEDOUT, or the lock's error.
int lock_for_reading(LDAPConn *lc, const struct timeval *timeout, const uint32_t *seen)
{
    ldap_msg_table *table = lc->lconn_msgtable;
    struct timespec deadline {};
    if (timeout) {
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += timeout->tv_sec + timeout->tv_usec / 1000000;
        deadline.tv_nsec += (timeout->tv_usec % 1000000) * 1000;
        if (deadline.tv_nsec >= 1000000000) {
            deadline.tv_sec++;
            deadline.tv_nsec -= 1000000000;
        }
    }
    for (;;) {
        uint32_t releases = __atomic_load_n(&table->read_releases, __ATOMIC_SEQ_CST);
        if (seen && read_count(table) != *seen)
            return 1;
        int rc = pthread_mutex_trylock(&lc->lconn_read_mutex);
        if (rc != EBUSY) {
            if (rc != 0)
                LDAP_TRACE(TRC_ERROR, "Error in pthread_mutex_lock at File %s, Line %d, errno %d\n", LDAP_MODULE,
                           __LINE__, rc);
            return rc;
        }
        struct timespec left {};
        if (timeout && !time_left(deadline, &left))
            return ETIMEDOUT;
        // A release between the load above and this sleep changes the
        // word, and the kernel then returns at once.
        __atomic_add_fetch(&table->read_waiters, 1, __ATOMIC_SEQ_CST);
        syscall(SYS_futex, &table->read_releases, FUTEX_WAIT_PRIVATE, releases, timeout ? &left : nullptr,
                nullptr, 0);
        __atomic_sub_fetch(&table->read_waiters, 1, __ATOMIC_SEQ_CST);
    }
}

void unlock_reading(LDAPConn *lc)
{
    ldap_msg_table *table = lc->lconn_msgtable;
    zldap::mutex_unlock(&lc->lconn_read_mutex, LDAP_MODULE, __LINE__);
    __atomic_add_fetch(&table->read_releases, 1, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&table->read_waiters, __ATOMIC_SEQ_CST) != 0)
        syscall(SYS_futex, &table->read_releases, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

// One framing step on lc without waiting: 1 a whole element is in, 0 it
// needs bytes that have not arrived, -1 failure. Every LDAPMessage is a
// SEQUENCE: any other first octet means the peer does not speak LDAP (an
// HTTP error page, say), and filing its bytes as messages without an id
// would keep every waiter waiting, so that ends the connection as a failed
// read as soon as the octet is in.
int read_step(LDAPConn *lc, BerElement *ber, int *state)
{
    ber_tag_t tag = fber_get_next_nb(&lc->lconn_sb, ber, state);
    if (ber->ber_tag != LBER_DEFAULT && ber->ber_tag != kLdapMessageTag)
        return -1;
    if (tag == static_cast<ber_tag_t>(LBER_WOULD_BLOCK))
        return 0;
    return tag == LBER_DEFAULT ? -1 : 1;
}

// The message being read: the one left half read by an earlier time-out,
// or a new one; NULL when memory runs out.
LDAPMessage *partial_message(LDAP *ld, LDAPConn *lc)
{
    ldap_msg_table *table = lc->lconn_msgtable;
    if (table->partial)
        return table->partial;
    LDAPMessage *msg = ldap_alloc_response(ld, lc);
    if (!msg) {
        LDAP_TRACE(TRC_ERROR, "ldap_get_msg: Failed with memory error\n");
        return nullptr;
    }
    table->partial = msg;
    table->partial_state = 0;
    return msg;
}

// A whole message goes to the queue; its waiter files it from there.
void queue_message(ldap_msg_table *table, LDAPMessage *msg)
{
    int id = -1; // a message without a readable id is thrown away when filed
    if (fber_get_int(msg->msg_ber, &id) == LBER_DEFAULT)
        id = -1;
    msg->msg_id = id;
    msg->msg_type = static_cast<int32_t>(fber_peek_tag(msg->msg_ber, nullptr));
    table->partial = nullptr;
    put_msg_in_queue(table, msg);
    __atomic_add_fetch(&table->read_count, 1, __ATOMIC_RELEASE);
}

// Queues the messages whose bytes came in with the one just read, while
// the read lock is held anyway: each would otherwise cost its waiter a
// turn at the lock and a pass through the wait. Only bytes already read
// ahead are framed, so this never waits and never reads an idle socket.
// A message still incomplete stays the partial one; bytes that are not
// LDAP end the connection, as they would for the next reader.
void queue_read_ahead(LDAP *ld, LDAPConn *lc)
{
    ldap_msg_table *table = lc->lconn_msgtable;
    while (fber_has_read_ahead(&lc->lconn_sb)) {
        LDAPMessage *msg = partial_message(ld, lc);
        if (!msg) // the bytes stay for the next reader
            return;
        int step = read_step(lc, msg->msg_ber, &table->partial_state);
        if (step == 0)
            return;
        if (step < 0) {
            table->partial = nullptr;
            free_msg(msg, 0);
            lconn_mark_closed(lc);
            return;
        }
        queue_message(table, msg);
    }
}

// Reads one message unless one was queued since `seen` (read_count as the
// caller last looked at it): then the caller has something to file already.
int get_msg_since(LDAP *ld, LDAPConn *lc, const struct timeval *timeout, const uint32_t *seen)
{
    if (lconn_is_closed(lc)) {
        LDAP_TRACE(TRC_ERROR, "ldap_get_msg: Socket connection was closed earlier\n");
        return ldap_fail(ld, LDAP_SERVER_DOWN);
    }
    if (!lconn_is_connected(lc)) {
        LDAP_TRACE(TRC_ERROR, "ldap_get_msg: FATAL ERROR - Socket is not yet created\n");
        return ldap_fail(ld, LDAP_SERVER_DOWN);
    }
    int lock_rc = lock_for_reading(lc, timeout, seen);
    if (lock_rc == 1)
        return 1;
    if (lock_rc == ETIMEDOUT)
        return ldap_fail_returning(ld, LDAP_TIMEOUT, 0);
    if (lock_rc != 0)
        return ldap_fail_returning(ld, LDAP_LOCK_ERROR, -1);
    ldap_msg_table *table = lc->lconn_msgtable;
    if (seen && read_count(table) != *seen) {
        unlock_reading(lc);
        return 1;
    }
    int rc = -1;
    LDAPMessage *msg = partial_message(ld, lc);
    if (msg) {
        // A reader that found the connection closed while we waited has
        // left nothing to read.
        rc = lconn_is_closed(lc) ? -1 : wait_for_message(lc, msg->msg_ber, &table->partial_state, timeout);
        if (rc == 1) {
            queue_message(table, msg);
            queue_read_ahead(ld, lc);
        } else if (rc == -1) {
            table->partial = nullptr;
            free_msg(msg, 0);
        }
    }
    unlock_reading(lc);
    if (rc == -1) {
        if (msg) // a read failure ends the connection; a memory failure does not
            lconn_mark_closed(lc);
        return ldap_fail_returning(ld, msg ? LDAP_SERVER_DOWN : LDAP_NO_MEMORY, -1);
    }
    if (rc == -2)
        return ldap_fail_returning(ld, LDAP_TIMEOUT, 0);
    return 1;
}

// The row's next message to hand out, advancing along the chain.
LDAPMessage *next_result(ldap_msg_row &row)
{
    LDAPMessage *msg = row.next_to_return;
    if (msg)
        row.next_to_return = msg->msg_next;
    return msg;
}

// Whether more than `limit` has passed since `start`, compared as a pair of
// seconds and microseconds.
bool timed_out(const struct timeval &start, const struct timeval *limit)
{
    if (!limit)
        return false;
    struct timeval now {};
    gettimeofday(&now, nullptr);
    long seconds = now.tv_sec - start.tv_sec;
    long micros = now.tv_usec - start.tv_usec;
    // Borrowing, not the plain microsecond difference (which may be
    // negative), so that a wait never ends up to a second early.
    if (micros < 0) {
        seconds--;
        micros += 1000000;
    }
    return seconds > limit->tv_sec || (seconds == limit->tv_sec && micros > limit->tv_usec);
}

} // namespace

int ldap_get_msg(LDAP *ld, LDAPConn *lc, const struct timeval *timeout)
{
    return get_msg_since(ld, lc, timeout, nullptr);
}

int wait_for_message(LDAPConn *lc, BerElement *ber, int *state, const struct timeval *timeout)
{
    for (;;) {
        int step = read_step(lc, ber, state);
        if (step != 0)
            return step;
        if (timeout && timeout->tv_usec > 999999)
            LDAP_TRACE(TRC_ERROR, "wait_for_message: BAD TIMEOUT value received. tv_sec=%ld  tv_usec=%ld \n",
                       static_cast<long>(timeout->tv_sec), static_cast<long>(timeout->tv_usec));
        int rc = fber_select(&lc->lconn_sb, timeout);
        if (rc < 0) {
            LDAP_TRACE(TRC_ERROR, "wait_for_message: select 2 failed with socket error: rc=%d, errno=%d\n", rc,
                       errno);
            return -1;
        }
        if (rc == 0)
            return -2;
    }
}

int ldap_msg_table_get_message(LDAP *ld, ldap_msg_table *table, int id, const struct timeval *timeout,
                               LDAPMessage **out)
{
    LDAP_TRACE(TRC_API, "ldap_msg_table_get_message entered: %p %lu %p\n", static_cast<void *>(table),
               static_cast<unsigned long>(id), static_cast<void *>(out));
    if (!table || !out || id < 0)
        return ldap_fail_returning(ld, LDAP_PARAM_ERROR, -1);
    ldap_set_error_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (!guard.locked())
        return ldap_fail_returning(ld, LDAP_LOCK_ERROR, -1);
    if (static_cast<uint32_t>(id) >= table->row_count)
        return ldap_fail_returning(ld, LDAP_PARAM_ERROR, -1);
    ldap_msg_row *row = &table->rows[id];
    if ((row->flags & LDAP_ROW_DONE) && !row->next_to_return) {
        // What the chased referrals left behind is all that is left: the
        // substitute for those not followed, or a failure set aside.
        LDAPMessage *outcome = nullptr;
        if (row->parent || !row->request)
            return ldap_fail_returning(ld, LDAP_PARAM_ERROR, -1);
        if (take_referral_outcome(row, row->request, &outcome) != LDAP_SUCCESS)
            return ldap_fail_returning(ld, LDAP_NO_MEMORY, -1);
        if (!outcome)
            return ldap_fail_returning(ld, LDAP_PARAM_ERROR, -1);
        ldap_msg_row_insert(row, outcome, nullptr);
        *out = outcome;
        return outcome->msg_type;
    }

    // The row's next message, filing what was read meanwhile first when the
    // row has nothing; its type, or 0.
    auto take_next = [&] {
        LDAPMessage *msg = next_result(table->rows[id]);
        if (!msg) {
            flush_queue(table);
            msg = next_result(table->rows[id]);
        }
        if (msg)
            *out = msg;
        return msg ? msg->msg_type : 0;
    };
    struct timeval start {};
    if (timeout)
        gettimeofday(&start, nullptr);
    int rc = 0;
    for (;;) {
        uint32_t seen = read_count(table);
        if ((rc = take_next()) != 0)
            break;
        guard.unlock();
        int got = get_msg_since(ld, table->connection, timeout, &seen);
        if (got != 1 && got != 0) {
            LDAP_TRACE(TRC_ERROR, "ldap_msg_table_get_message: soc_err=%d\n", got);
            return ldap_fail_returning(ld, LDAP_SERVER_DOWN, -1);
        }
        // The rows may have moved while unlocked: take_next looks them up again.
        if (!guard.relock())
            return ldap_fail_returning(ld, LDAP_LOCK_ERROR, -1);
        if (timed_out(start, timeout)) {
            rc = take_next();
            break;
        }
    }
    guard.unlock();
    LDAP_TRACE(TRC_API, "ldap_msg_table_get_message: returning rc=%d\n", rc);
    return rc;
}

int ldap_get_result(LDAP *ld, int id, const struct timeval *timeout, LDAPMessage **out, ldap_msg_table *table)
{
    LDAP_TRACE(TRC_API, "ldap_get_result: entered with msgid(%d), all(%d)\n", id, LDAP_MSG_ONE);
    return ldap_msg_table_get_message(ld, table, id, timeout, out);
}
