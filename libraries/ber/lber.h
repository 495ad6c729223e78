// lber.h - the BER element record and the codec's functions: element
// memory, the format-driven encoder and decoder, and the trace dumps.
#ifndef ZLDAP_LBER_H
#define ZLDAP_LBER_H

#include "base/trace.h"
#include "zor8ldap_api.h"

#include <cstdarg>
#include <cstdint>

namespace zldap {
// Whether LDAP_LEGACY_UTF8_XLATE_MODE was set when the decoder first ran in
// this process; read once, apart from the encoder's own reading.
bool ber_decoder_legacy_mode();
}

inline constexpr uint8_t kFberMarker = 0x80;        // ber_options bit of the fast element kind
inline constexpr uint8_t kFberTrailer = 0x01;       // ber_options bit: its owner keeps a record right after it
inline constexpr uint32_t kFberMaxDepth = 100;      // constructed items open at once
inline constexpr int kFberDefaultSize = 6144;       // inline buffer of fber_alloc

// Offsets from ber_buf of the four length octets of each open SEQUENCE or
// SET. Offsets, not pointers, so that growth does not invalidate them.
struct ber_sos_stack {
    uint32_t sos_count;
    uint32_t sos_offset[kFberMaxDepth];
};

// One allocation holds the record, its sequence stack and its inline buffer.
struct berelement {
    char *ber_buf;         // start of the buffer: the inline one until the element grows
    char *ber_ptr;         // next byte to write, or to read
    char *ber_end;         // writing: end of capacity; reading: end of valid data
    ber_sos_stack *ber_sos;
    ber_tag_t ber_tag;     // tag of the next item (LBER_DEFAULT: none); a received element's outer tag
    ber_len_t ber_len;     // bytes encoded, or a received element's content length
    uint8_t ber_options;   // kFberMarker
    char *ber_rwptr;       // where a partly written flush resumes; NULL when nothing is pending
    uint32_t *ber_no_xlate; // owned; absent or 0: strings are translated
    int32_t *ber_version;  // owned; strings are converted only when present and above 2
    unsigned char ber_lenbuf[8]; // long-form length octets received while framing
    uint32_t ber_lenbuf_count;
};

// Element memory.
BerElement *fber_alloc();
BerElement *fber_alloc_t(int size);
void fber_free(BerElement *ber);
// An element for reading placed in memory its owner provides
// (fber_reader_size() bytes, aligned for a pointer): no sequence stack and
// no inline buffer, so nothing can be encoded into it. Its owner releases
// it with fber_release_reader, which frees what the element holds apart
// (the received bytes) but not the memory it was placed in.
size_t fber_reader_size();
BerElement *fber_place_reader(void *memory);
void fber_release_reader(BerElement *ber);
// Points ber_no_xlate and ber_version at room in the element's own
// allocation holding these values; fber_free frees only settings that
// were allocated apart.
void fber_set_string_settings(BerElement *ber, uint32_t no_xlate, int32_t version);
// Grows the buffer to the bytes used plus the larger of the bytes used and
// `needed`; 0, or -1 with the element unchanged.
int fber_realloc(BerElement *ber, ber_len_t needed);
long fber_write(BerElement *ber, const char *bytes, ber_len_t count);
void fber_reset(BerElement *ber, int was_writing);
BerElement *fber_init2(const struct berval *bv);
int fber_flatten(BerElement *ber, struct berval **bvp);
// ber_bvfree and ber_bvecfree are published (zor8ldap_api.h).

// The encoder. Varargs follow the format: `t` takes a ber_tag_t (an int
// literal must be cast), `b i e` an int, `o` bytes and an int length, `s` a
// string, `B` bytes and an int bit count, `v` a char ** array, `V` a
// struct berval ** array. 0 on success, -1 on failure.
int fber_printf(BerElement *ber, const char *fmt, ...);
int fber_printf_noxlate(BerElement *ber, const char *fmt, ...);
// mode 1: translate strings; 0: never; anything else: unless ber_no_xlate says not to.
int vfber_printf(BerElement *ber, const char *fmt, va_list ap, int mode);

// The encoder without a format, for the hot shapes. One FberWriter stands
// for one vfber_printf call (mode as there) and each of its puts for one
// item of the format, `tag` for a `t` in front of it (LBER_DEFAULT: none),
// so that bytes, string translation and traces are the format's. After a
// failure the later puts do nothing; finish() ends the call, returning
// what vfber_printf would and recording ber_len as it does.
class FberWriter {
public:
    explicit FberWriter(BerElement *ber, int mode = -1);
    FberWriter(const FberWriter &) = delete;
    FberWriter &operator=(const FberWriter &) = delete;

    FberWriter &open(ber_tag_t tag = LBER_DEFAULT); // {
    FberWriter &close();                            // }
    FberWriter &integer(int value, ber_tag_t tag = LBER_DEFAULT);
    FberWriter &enumerated(int value, ber_tag_t tag = LBER_DEFAULT);
    FberWriter &boolean(int value, ber_tag_t tag = LBER_DEFAULT);
    FberWriter &string(const char *text, ber_tag_t tag = LBER_DEFAULT);
    FberWriter &octets(const char *bytes, int len, ber_tag_t tag = LBER_DEFAULT);
    FberWriter &strings(char **values, ber_tag_t tag = LBER_DEFAULT); // v
    int finish();

private:
    // The tag the item is written with, or LBER_DEFAULT when nothing is to
    // be written (a failure before, or an element of another kind).
    ber_tag_t start_item(ber_tag_t tag, ber_tag_t universal);
    FberWriter &end_item(int rc);

    BerElement *ber_; // NULL for an element of another kind: nothing is written
    int rc_ = 0;
    bool translate_ = false;
};

// The decoder. Each returns the tag read, or LBER_DEFAULT on failure.
// fber_read_header reads the header at *ptr (before end) and moves *ptr
// past it: the usual one-octet tag with a short length in line, every
// other header in fber_read_long_header. A walk that must leave an
// element where it is reads with it on a copy of the position alone:
// copying the element's whole record right after its position was stored
// would wait for that store.
ber_tag_t fber_read_long_header(const char **ptr, const char *end, ber_len_t *len);
inline ber_tag_t fber_read_header(const char **ptr, const char *end, ber_len_t *len)
{
    if (end - *ptr >= 2) {
        auto *p = reinterpret_cast<const unsigned char *>(*ptr);
        if ((p[0] & 0x1F) != 0x1F && p[1] < 0x80) {
            *ptr += 2;
            *len = p[1];
            return p[0];
        }
    }
    return fber_read_long_header(ptr, end, len);
}
inline ber_tag_t fber_get_tag(BerElement *ber, ber_len_t *len)
{
    if (!ber || !len)
        return LBER_DEFAULT;
    const char *p = ber->ber_ptr;
    ber_tag_t tag = fber_read_header(&p, ber->ber_end, len);
    if (tag != LBER_DEFAULT)
        ber->ber_ptr = const_cast<char *>(p);
    return tag;
}
inline ber_tag_t fber_peek_tag(BerElement *ber, ber_len_t *len)
{
    if (!ber)
        return LBER_DEFAULT;
    char *saved = ber->ber_ptr;
    ber_len_t value;
    ber_tag_t tag = fber_get_tag(ber, &value);
    ber->ber_ptr = saved;
    if (tag != LBER_DEFAULT && len)
        *len = value;
    return tag;
}
int fber_skip_element(BerElement *ber);
ber_tag_t fber_first_element(BerElement *ber, ber_len_t *len, char **last);
ber_tag_t fber_get_int(BerElement *ber, int *value);
ber_tag_t fber_scanf(BerElement *ber, const char *fmt, ...);

// Direct decoders for the hot shapes, each exactly one fber_scanf item:
// `x` (skip an element), `a` (a new string), `s` (a string into a buffer,
// *size in: its size, out: the length), `v` and `V` (a SET OF as a new
// array of strings or bervals; `current` is handed back for an empty or
// unreadable SET, as fber_scanf hands back the tag of the item before).
// A length that runs past the data leaves the element exhausted rather
// than pointing outside it.
inline ber_tag_t fber_skip(BerElement *ber)
{
    ber_len_t len;
    ber_tag_t tag = fber_get_tag(ber, &len);
    if (tag != LBER_DEFAULT) {
        auto left = static_cast<ber_len_t>(ber->ber_end - ber->ber_ptr);
        ber->ber_ptr += len < left ? len : left;
    }
    return tag;
}
ber_tag_t fber_read_string(BerElement *ber, char **out);
ber_tag_t fber_read_string_into(BerElement *ber, char *buf, ber_len_t *size);
ber_tag_t fber_read_string_set(BerElement *ber, char ***out, ber_tag_t current);
ber_tag_t fber_read_berval_set(BerElement *ber, struct berval ***out, ber_tag_t current);
// Whether strings read from the element (other than empty ones) are
// converted to the local code page.
bool fber_translates_strings(const BerElement *ber);
// What fber_scanf does before its items: settle the decoder's translation
// mode and, when BER traffic is traced, write its line for `fmt` at the
// element's position. Callers of the direct decoders call it with the
// format they stand for, so that the trace reads the same.
void fber_trace_format(BerElement *ber, const char *fmt);
inline void fber_begin_format(BerElement *ber, const char *fmt)
{
    zldap::ber_decoder_legacy_mode();
    if (zldap::trace_enabled(TRC_BER))
        fber_trace_format(ber, fmt);
}

// Trace dumps of an element: mode 1 the unread part, any other the written part.
void fber_dump(BerElement *ber, int mode);
void fber_dump_with_fd(BerElement *ber, int mode, int sd);

#endif
