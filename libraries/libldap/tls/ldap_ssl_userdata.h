// ldap_ssl_userdata.h - the per-connection record the secure-socket toolkit
// keeps as its user data and hands to the I/O callbacks: the mode
// (handshake or read/write), the waits allowed, and trace flags. Its
// 120-byte layout is fixed; the toolkit stores a copy.
#ifndef ZLDAP_LDAP_SSL_USERDATA_H
#define ZLDAP_LDAP_SSL_USERDATA_H

#include "core/ldap_session.h"

#include <cstdint>

inline constexpr int32_t kZorUserDataKey = -1; // the record form; otherwise a text
inline constexpr int32_t kZorStateHandshake = 900;
inline constexpr int32_t kZorStateReadWrite = 901;
inline constexpr int32_t kZorConnectionSsl = 1;    // set up by open_ssl_connection
inline constexpr int32_t kZorConnectionStartTls = 2;
inline constexpr int32_t kZorEnvServer = 1;
inline constexpr int32_t kZorEnvClient = 2;

// The record's trace flags.
inline constexpr uint64_t kZorTraceRecord = 0x1;
inline constexpr uint64_t kZorTraceSelect = 0x2;
inline constexpr uint64_t kZorTraceTimeout = 0x4;
inline constexpr uint64_t kZorTraceLooping = 0x8;
inline constexpr uint64_t kZorTraceLeaving = 0x10;
inline constexpr uint64_t kZorTraceImmediate = 0x50;
inline constexpr uint64_t kZorTraceQuiet = 0x100;

struct zor_time {
    int64_t sec;
    int64_t usec;
};

struct zor_user_data {
    int32_t key;          // kZorUserDataKey
    int32_t state;        // 900 handshake, 901 read/write
    zor_time ioTimeout;   // both parts at or below 0: no limit
    zor_time rem;         // what is left of the wait, kept up by the loops
    zor_time BlockTime;   // only traced
    uint64_t trace;       // kZorTrace* flags
    int32_t prot_conn;    // kZorConnection*
    int32_t prot_env;     // kZorEnv*
    int32_t counters[6];  // cleared on entry to the callbacks; nothing reads them
    int32_t read_blocks;  // would-block results of the current read
    int32_t write_blocks; // the same for writes
    int32_t read_loop;    // iterations of the current read loop
    int32_t write_loop;
    uint8_t zero[8];
};
static_assert(sizeof(zor_user_data) == 120, "the toolkit stores exactly 120 bytes");

// The data time-out in seconds (read/write mode's wait; 0: one attempt).
int32_t zor_data_timeout();
// The wait of a callback without a record.
zor_time zor_default_wait();

// Fills rec from its side's template (rec->prot_env chooses), building the
// template from rec and the environment on the side's first call. 0.
int initZorUserData(zor_user_data *rec);
// Stores rec (a fresh record for NULL) in sb's secure socket after setting
// its types, running initZorUserData when init is set or rec is NULL. The
// toolkit's code.
int setZorUserData(Sockbuf *sb, zor_user_data *rec, int init, int conn_type, int env_type);
// Points *rec at the toolkit's stored record. 120 when fetched; 0 when the
// toolkit failed (*error, which may be NULL, receives its code) or the
// stored data is not a record (*error 0).
int getZorUserData(Sockbuf *sb, zor_user_data **rec, int *error);
// Switches the stored record to handshake mode (mode 1) or read/write mode
// and restarts its remaining time. 0, or getZorUserData's error code;
// *rec (may be NULL) receives the stored record.
int setZorUserDatahandshakeMode(Sockbuf *sb, zor_user_data **rec, int mode);

#endif
