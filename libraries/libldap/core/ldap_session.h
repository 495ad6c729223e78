// ldap_session.h - the session handle LDAP, its connection records LDAPConn
// and the socket buffer they embed.
//
// Locks and what they guard:
//   ld_mutex            ld_op_count, ld_unbind_started, every option field,
//                       the saved bind data. Held only for short reads and
//                       updates; nothing else is taken while it is held
//                       except the leaf locks below, so a thread holding a
//                       connection lock may take it briefly (opening a
//                       connection reads the connect time-out that way).
//   ld_servers_mutex    the ld_servers chain. Held while a missing referral
//                       connection is opened, so it may enclose ld_mutex
//                       and the system-call mutex, never a connection lock.
//   lconn_write_mutex   opening of and writing to one connection.
//   lconn_read_mutex    reading from one connection and its partly read message.
//   table lock          the rows and counters of one message table.
//   queue lock          the queue of read but unfiled messages.
// Order: the read lock before the queue lock, the table lock before the
// queue lock; no table lock is held while a socket is read or written or a
// request encoded, and two tables' locks are never held together.
// Leaf locks, never held while another is taken: ld_thread_conn_mutex
// (ld_thread_conns), ld_error_mutex (ld_errors), lconn_ctrls_mutex
// (lconn_ctrls), and the operation guard's process-wide list of presence
// slots (ldap_init_presence.cpp).
#ifndef ZLDAP_LDAP_SESSION_H
#define ZLDAP_LDAP_SESSION_H

#include "net/sockbuf.h"
#include "zor8ldap.h"

#include <cstdint>
#include <pthread.h>
#include <sys/time.h>

inline constexpr char kLdapMarker[8] = {'L', 'D', 'A', 'P', ' ', 'H', 'D', 'L'};

// ld_options bits.
inline constexpr uint64_t LDAP_BITOPT_REFERRALS = 0x2;
inline constexpr uint64_t LDAP_BITOPT_RESTART = 0x4;

struct ldap_msg_table;
struct ldap_plugin_block;
struct ZorEnvRef;


typedef struct ldap_conn {
    char *lconn_hosts; // blank-separated host entries to try
    char *lconn_peer;  // host name of the connected server, filled on demand
    uint16_t lconn_port;
    Sockbuf lconn_sb;
    uint32_t lconn_connected;
    struct ldap_msg_table *lconn_msgtable;
    pthread_mutex_t lconn_ctrls_mutex;
    pthread_mutex_t lconn_read_mutex;
    pthread_mutex_t lconn_write_mutex;
    pthread_t lconn_reader;
    uint32_t lconn_has_reader; // lconn_reader is meaningful only while set
    struct ldap_conn *lconn_next;
    LDAPControl **lconn_ctrls; // controls last received on this connection
    LDAP *lconn_ld;
    struct ldap_plugin_block *lconn_plugin_block;
    int32_t lconn_state; // 1 once reading or writing found the connection closed
    uint32_t lconn_locks_made; // LC_LOCK_* bits of the mutexes that exist
} LDAPConn;

// lconn_locks_made bits.
inline constexpr uint32_t LC_LOCK_READ = 0x1;
inline constexpr uint32_t LC_LOCK_WRITE = 0x2;
inline constexpr uint32_t LC_LOCK_CTRLS = 0x4;

// One thread's last error on a handle.
struct ldap_error_record {
    pthread_t thread;
    int32_t ld_errno;
    int32_t ld_ext_error;
    char *ld_matched;
    char *ld_error;
    ldap_error_record *next;
};

// While a thread has an entry, conn is its default connection.
struct ldap_thread_conn {
    pthread_t thread;
    LDAPConn *conn;
    ldap_thread_conn *next;
    ldap_thread_conn *prev;
};

struct ldap {
    char ld_marker[8]; // "LDAP HDL" while the handle is valid
    char *ld_bind_dn;
    int32_t ld_bind_method;
    struct berval *ld_bind_cred;
    int32_t ld_version;
    int32_t ld_timelimit;
    int32_t ld_sizelimit;
    int32_t ld_deref;
    uint64_t ld_options;
    uint64_t ld_op_count;
    int32_t ld_hoplimit;
    LDAPControl **ld_sctrls;
    LDAPControl **ld_cctrls;
    LDAPConn *ld_defconn;
    LDAPConn *ld_servers;
    pthread_mutex_t ld_mutex;
    pthread_mutex_t ld_servers_mutex;
    pthread_mutex_t ld_error_mutex;
    pthread_cond_t ld_op_cond;
    uint32_t ld_no_xlate;
    LDAP_REBIND_PROC ld_rebind_proc;
    uint32_t ld_unbind_started;
    char *ssl_cert_label;
    uint32_t ld_ssl_flag;
    ZorEnvRef *ld_ssl_env;
    char *ld_ssl_cipher;
    char *ld_ssl_cipher_EX;
    char *ld_ssl_protocols;
    uint32_t ld_spare_flag;
    int32_t ld_ssl_timeout;
    ldap_error_record *ld_errors;
    pthread_mutex_t ld_thread_conn_mutex;
    ldap_thread_conn *ld_thread_conns;
    uint32_t ld_gss_option;
    uint32_t ld_gss_result;
    char *ld_defhost;
    uint32_t ld_defport;
    struct timeval *ld_connect_timeout;
    // Which of the locks above exist, so that teardown of a partly built
    // handle destroys only those.
    uint32_t ld_locks_made;
};

// ld_locks_made bits.
inline constexpr uint32_t LD_LOCK_MUTEX = 0x01;
inline constexpr uint32_t LD_LOCK_SERVERS = 0x02;
inline constexpr uint32_t LD_LOCK_ERROR = 0x04;
inline constexpr uint32_t LD_LOCK_COND = 0x08;
inline constexpr uint32_t LD_LOCK_THREAD_CONN = 0x10;

// lconn_state and lconn_connected are read without the connection's locks
// by the other side (readers look at what writers set and the reverse).
inline bool lconn_is_closed(const LDAPConn *lc) { return __atomic_load_n(&lc->lconn_state, __ATOMIC_ACQUIRE) == 1; }
inline void lconn_mark_closed(LDAPConn *lc) { __atomic_store_n(&lc->lconn_state, 1, __ATOMIC_RELEASE); }
inline bool lconn_is_connected(const LDAPConn *lc) { return __atomic_load_n(&lc->lconn_connected, __ATOMIC_ACQUIRE) == 1; }
inline void lconn_set_connected(LDAPConn *lc, bool connected)
{
    __atomic_store_n(&lc->lconn_connected, connected ? 1u : 0u, __ATOMIC_RELEASE);
}

// True when ld is non-NULL and carries the marker.
bool ldap_handle_is_valid(const LDAP *ld);

#endif
