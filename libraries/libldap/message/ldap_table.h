// ldap_table.h - a connection's table of outstanding requests: message id
// assignment, the rows that hold each request with its responses, row
// ownership by the collecting thread, and referral child links.
//
// Locks: the table lock guards every field of the table and its rows
// except the queue (queue lock) and the partial message (the connection's
// read lock). Order: read lock before queue lock; table lock before queue
// lock. The table lock is never held while a socket is read or written,
// and the locks of two tables are never held together.
#ifndef ZLDAP_LDAP_TABLE_H
#define ZLDAP_LDAP_TABLE_H

#include "message/ldap_message.h"

#include <pthread.h>

inline constexpr uint32_t LDAP_MAX_TBL_SIZE = 65536;
inline constexpr uint32_t LDAP_TBL_GROWTH = 256;

// Row flags.
inline constexpr uint32_t LDAP_ROW_INUSE = 0x01;
inline constexpr uint32_t LDAP_ROW_DONE = 0x02;
inline constexpr uint32_t LDAP_ROW_REFOPTS = 0x04;
inline constexpr uint32_t LDAP_ROW_CHASE = 0x08;
inline constexpr uint32_t LDAP_ROW_ABANDON = 0x10;
inline constexpr uint32_t LDAP_ROW_ORPHAN = 0x20;

struct ldap_msg_table;

// One end of a referral link between rows of (possibly) different tables.
struct ldap_msg_link {
    ldap_msg_table *table;
    int32_t row_id;
    LDAPMessage *msg; // child link: the response that caused the chase; parent link: NULL
};

// All zero while free.
struct ldap_msg_row {
    pthread_t owner;
    uint32_t has_owner;
    LDAPMessage *request;
    LDAPMessage *first_result;
    LDAPMessage *last_result;
    LDAPMessage *next_to_return;
    uint32_t flags;
    int32_t hop_limit;
    ldap_msg_link *parent;
    ldap_msg_link *child;
    char *referral_text;
    uint32_t referral_error;
    LDAPMessage *saved_result;
};

struct ldap_msg_table {
    ldap_msg_row *rows;
    LDAPConn *connection;
    pthread_mutex_t lock;
    uint32_t free_count; // rows without LDAP_ROW_INUSE, row 0 included
    uint32_t row_count;
    LDAPMessage *queue_first;
    LDAPMessage *queue_last;
    pthread_mutex_t queue_lock;
    uint32_t last_id;
    uint32_t last_any_row;
    LDAPMessage *partial; // being read; guarded by the connection's read lock
    int32_t partial_state;
    // Messages queued so far, counted by the reader (atomic access): a
    // thread that waited for the read lock can tell that someone else read
    // for it meanwhile and need not wait on the socket.
    uint32_t read_count;
    // Bumped each time a reader lets go of the read lock (atomic access):
    // a thread that finds the lock taken sleeps on this word rather than
    // on the lock, so that one release wakes every waiter at once, each to
    // file what was read for it or to become the next reader.
    uint32_t read_releases;
    uint32_t read_waiters; // threads asleep on read_releases (atomic access)
};

// The number of rows, for a check of an id without the table lock: it only
// grows, under the lock, so an id found below it stays valid. The rows
// themselves are read under the lock.
inline uint32_t ldap_msg_table_row_count(const ldap_msg_table *table)
{
    return __atomic_load_n(&table->row_count, __ATOMIC_ACQUIRE);
}

ldap_msg_table *ldap_msg_table_init(uint32_t rows);
void ldap_msg_table_free(ldap_msg_table *table);
int ldap_msg_table_get_next_msgid(ldap_msg_table *table);
void ldap_msg_table_release_msgid(ldap_msg_table *table, int id);
void ldap_msg_table_release_msgid_direct(ldap_msg_table *table, int id);
void ldap_release_request_row(LDAPMessage *request);
int verify_msgid_n_acquire_row(LDAP *ld, ldap_msg_table *table, int *id, int mode);
int verify_acquire_row(LDAP *ld, ldap_msg_row *row, int id, int mode);
int ldap_get_msg_any(LDAP *ld, ldap_msg_table *table, int *row_id, int mode);
// Sets bits in the row of id and in the rows of its referral children; a
// lock failure is recorded as ld's error. LDAP_ROW_ORPHAN releases at once
// each such row whose final response is already filed, with its chain: the
// caller holds none of its messages.
void ldap_msg_table_set_flag(LDAP *ld, ldap_msg_table *table, int id, uint32_t bits);
int ldap_msg_table_release_if_done(ldap_msg_table *table, int id);
void ldap_msg_table_unlink_msg(LDAPMessage *msg);
// Moves a response taken from a referral child row into the parent row
// (id in table), before the message that caused the chase; a search
// result done is set aside or replaced by the parent's final result.
// With child_released 1 the causing message and the child link go. 1 when
// *msg was filed in the parent row, else 0 with *msg NULL (consumed).
int ldap_msg_table_merge_child_msg(LDAPMessage **msg, ldap_msg_table *table, int id, int child_released);
// Chain edits for a caller holding the table lock: msg goes in before
// `before` (at the end for NULL), or out of the chain.
void ldap_msg_row_insert(ldap_msg_row *row, LDAPMessage *msg, LDAPMessage *before);
void ldap_msg_row_unlink(ldap_msg_row *row, LDAPMessage *msg);
void cleanup_table_and_references(LDAP *ld, ldap_msg_table *table, int id);
// Requests handed an id and not yet released; read under the table lock.
// -1 when the lock cannot be taken.
int ldap_msg_table_outstanding(ldap_msg_table *table);

#endif
