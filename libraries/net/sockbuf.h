// sockbuf.h - a connection's socket buffer and the non-blocking reading and
// writing of whole BER elements through it.
#ifndef ZLDAP_SOCKBUF_H
#define ZLDAP_SOCKBUF_H

#include "ber/lber.h"

struct zor_secure_record;

// Bytes a read may take from the connection ahead of the element being
// framed: one read brings in many small responses at once.
inline constexpr uint32_t kSockbufReadAhead = 16 * 1024;

// A socket descriptor and its secure-socket state; no secure record means
// plain I/O. The bytes read ahead are sb_ahead[sb_ahead_start ..
// sb_ahead_end); they belong to the descriptor they were read from, so
// closing it (close_connection_sd) drops them, and a connection that
// becomes secure starts with none. Guarded like the reading itself.
struct Sockbuf {
    int sd;                     // -1 when not connected
    zor_secure_record *secure;  // owned by the secure transport
    uint32_t sb_ahead_start;
    uint32_t sb_ahead_end;
    char sb_ahead[kSockbufReadAhead];
};

// Whether bytes read ahead are waiting to be framed.
inline bool fber_has_read_ahead(const Sockbuf *sb) { return sb->sb_ahead_start < sb->sb_ahead_end; }
// Drops the bytes read ahead.
inline void fber_drop_read_ahead(Sockbuf *sb) { sb->sb_ahead_start = sb->sb_ahead_end = 0; }

// Result of the readers when the socket has no data for now.
inline constexpr int LBER_WOULD_BLOCK = 11;

// Bytes read; 0 with *would_block = 11 when nothing is available; 0 without
// it at end of stream; -1 on failure.
long fber_socket_read_nb(Sockbuf *sb, char *buf, long len, int *would_block);
// 0 when all len bytes arrived, 11 when the socket ran dry (*left = bytes
// still missing), -1 on failure, end of stream or a length below 1. The
// bytes come from those read ahead first; what is still missing is read
// with one large read into the read-ahead room, or straight into buf when
// it needs at least that room.
int FBerReadDirect_nb(Sockbuf *sb, char *buf, long len, long *left);
// Frames one element across calls; *state is kept with the element between
// calls. The element's tag when complete, 11 for more data, -1 on failure.
ber_tag_t fber_get_next_nb(Sockbuf *sb, BerElement *ber, int *state);
// >0 readable (bytes read ahead count), 0 time-out, -1 failure; a NULL
// time-out waits for ever.
int fber_select(Sockbuf *sb, const struct timeval *timeout);
// Bytes written, 0 for a length below 1, -11 when the socket is full, -1 on failure.
long BerWrite_nb(Sockbuf *sb, const char *buf, long len);
// 0 when everything up to ber_ptr is written; else BerWrite_nb's stopping
// result. ber_rwptr remembers the progress for the next call.
int fber_flush_nb(Sockbuf *sb, BerElement *ber);

#endif
