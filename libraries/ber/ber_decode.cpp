// ber_decode.cpp - the format-driven BER decoder: fber_scanf and the
// navigation functions the result walkers call directly. Every octet is
// checked against ber_end before it is read, and ber_ptr never leaves
// ber_buf..ber_end, so no input makes the decoder read outside the data.
#include "ber/ber_internal.h"

#include "base/trace.h"
#include "xlate/ldap_charset.h"

#include <cstring>
#include <limits>

namespace {

// Lengths travel in at most four octets on this wire. Five to eight
// length octets are accepted only when their value still fits in 32 bits:
// anything larger cannot describe data held in one element, and refusing
// it keeps every later length computation far from overflow.
constexpr ber_len_t kMaxLength = 0xFFFFFFFF;

ber_len_t bytes_left(const BerElement *ber)
{
    return ber->ber_ptr < ber->ber_end ? static_cast<ber_len_t>(ber->ber_end - ber->ber_ptr) : 0;
}

bool translates(const BerElement *ber, ber_len_t len)
{
    return len > 0 && !(ber->ber_no_xlate && *ber->ber_no_xlate != 0) && ber->ber_version &&
           *ber->ber_version > 2 && !zldap::ber_decoder_legacy_mode();
}

// Converts a decoded value to the local code page when the element asks
// for it. On failure *value still holds the caller's buffer.
int to_local(const BerElement *ber, char **value, ber_len_t *len)
{
    return translates(ber, *len) ? xlate_utf8_to_local(value, len, 1) : 0;
}

// The contents of the next element in a new NUL-terminated buffer. The
// length is checked before anything is allocated, so a hostile length
// costs nothing.
ber_tag_t read_octets(BerElement *ber, char **out, ber_len_t *out_len)
{
    *out = nullptr;
    ber_len_t len;
    ber_tag_t tag = fber_get_tag(ber, &len);
    if (tag == LBER_DEFAULT || len > bytes_left(ber))
        return LBER_DEFAULT;
    char *copy = static_cast<char *>(zldap::mem_malloc(len + 1));
    if (!copy)
        return LBER_DEFAULT;
    std::memcpy(copy, ber->ber_ptr, len);
    copy[len] = '\0';
    ber->ber_ptr += len;
    *out = copy;
    *out_len = len;
    return tag;
}

ber_tag_t read_string(BerElement *ber, char **out)
{
    ber_len_t len = 0;
    ber_tag_t tag = read_octets(ber, out, &len);
    if (tag != LBER_DEFAULT && to_local(ber, out, &len) != 0) {
        zldap::mem_free(*out);
        *out = nullptr;
        tag = LBER_DEFAULT;
    }
    return tag;
}

ber_tag_t read_berval(BerElement *ber, struct berval **out)
{
    *out = nullptr;
    auto *bv = static_cast<struct berval *>(zldap::mem_malloc(sizeof(struct berval)));
    if (!bv)
        return LBER_DEFAULT;
    *bv = berval{0, nullptr};
    ber_tag_t tag = read_octets(ber, &bv->bv_val, &bv->bv_len);
    if (tag != LBER_DEFAULT && to_local(ber, &bv->bv_val, &bv->bv_len) != 0)
        tag = LBER_DEFAULT;
    if (tag == LBER_DEFAULT)
        ber_bvfree(bv);
    else
        *out = bv;
    return tag;
}

// Raw octets: never translated. A failure leaves the berval empty.
ber_tag_t read_into_berval(BerElement *ber, struct berval *bv)
{
    bv->bv_len = 0;
    return read_octets(ber, &bv->bv_val, &bv->bv_len);
}

// *size is the caller's buffer size on entry and the string length on success.
ber_tag_t read_into_buffer(BerElement *ber, char *buf, ber_len_t *size)
{
    ber_len_t len;
    ber_tag_t tag = fber_get_tag(ber, &len);
    if (tag == LBER_DEFAULT || len > bytes_left(ber) || len >= *size)
        return LBER_DEFAULT;
    std::memcpy(buf, ber->ber_ptr, len);
    buf[len] = '\0';
    ber->ber_ptr += len;
    if (translates(ber, len)) {
        char *converted = buf;
        if (xlate_utf8_to_local(&converted, &len, 0) != 0)
            return LBER_DEFAULT;
        zldap::MemBuffer owner(converted);
        if (len >= *size)
            return LBER_DEFAULT;
        std::memcpy(buf, converted, len);
        buf[len] = '\0';
    }
    *size = len;
    return tag;
}

// A BER unused-bit count above 7 would describe bits that are not there;
// such strings are refused, as is a count without any octet to apply to.
ber_tag_t read_bitstring(BerElement *ber, char **bits, ber_len_t *bit_len)
{
    *bits = nullptr;
    ber_len_t len;
    ber_tag_t tag = fber_get_tag(ber, &len);
    if (tag == LBER_DEFAULT || len == 0 || len > bytes_left(ber))
        return LBER_DEFAULT;
    unsigned unused = static_cast<unsigned char>(ber->ber_ptr[0]);
    ber_len_t octets = len - 1;
    if (unused > 7 || (octets == 0 && unused != 0))
        return LBER_DEFAULT;
    char *copy = static_cast<char *>(zldap::mem_malloc(octets));
    if (!copy)
        return LBER_DEFAULT;
    std::memcpy(copy, ber->ber_ptr + 1, octets);
    ber->ber_ptr += len;
    *bits = copy;
    *bit_len = octets * 8 - unused;
    return tag;
}

ber_tag_t read_null(BerElement *ber)
{
    ber_len_t len;
    ber_tag_t tag = fber_get_tag(ber, &len);
    return tag != LBER_DEFAULT && len == 0 ? tag : LBER_DEFAULT;
}

template <typename T> void free_array(T **array, void (*free_member)(T *))
{
    if (!array)
        return;
    for (T **p = array; *p; p++)
        free_member(*p);
    zldap::mem_free(array);
}

void free_string(char *s) { zldap::mem_free(s); }

struct SetShape {
    size_t count; // members
    size_t bytes; // their contents together
};

// The members of a SET OF whose contents end at `last`, counted the way
// read_set_of walks them; a count of 0 when a member could not be read,
// since the whole item then fails.
SetShape measure_members(const BerElement *ber, const char *last)
{
    SetShape shape{0, 0};
    const char *p = ber->ber_ptr;
    const char *end = ber->ber_end;
    ber_len_t len;
    for (;;) {
        if (fber_read_header(&p, end, &len) == LBER_DEFAULT || len > static_cast<ber_len_t>(end - p))
            return {0, 0};
        p += len;
        shape.count++;
        shape.bytes += len;
        // Another member follows when its header can be read before `last`.
        const char *next = p;
        if (p >= last || fber_read_header(&next, end, &len) == LBER_DEFAULT)
            return shape;
    }
}

// A SET OF read member by member into a new NULL-terminated array, sized
// once from a first pass over the members. `current` for an empty or
// unreadable SET, which does not fail the call; LBER_DEFAULT when a member
// fails, with everything the item made freed. The tag comes back plain, in
// a register: an optional one would be assembled in memory and read back
// at once, which waits for its stores.
template <typename T>
ber_tag_t read_set_of(BerElement *ber, T ***out, ber_tag_t current, ber_tag_t (*read_member)(BerElement *, T **),
                      void (*free_member)(T *))
{
    *out = nullptr;
    ber_len_t len;
    char *last;
    if (fber_first_element(ber, &len, &last) == LBER_DEFAULT)
        return current;
    size_t count = measure_members(ber, last).count;
    if (count == 0)
        return LBER_DEFAULT;
    auto *array = static_cast<T **>(zldap::mem_malloc((count + 1) * sizeof(T *)));
    if (!array)
        return LBER_DEFAULT;
    ber_tag_t tag = LBER_DEFAULT;
    for (size_t i = 0; i < count; i++) {
        // Terminated at every step, so that a failure frees what was read.
        array[i + 1] = nullptr;
        if ((tag = read_member(ber, &array[i])) == LBER_DEFAULT) {
            free_array(array, free_member);
            return LBER_DEFAULT;
        }
    }
    *out = array;
    return tag;
}

// A SET OF octet strings as bervals in one block: the NULL-terminated
// array, the bervals, then each value's bytes with a NUL, in one
// allocation instead of two per value (ber_bvecfree knows the layout).
// A value translated to the local code page gets a buffer of its own.
// Results as read_set_of's.
ber_tag_t read_berval_block(BerElement *ber, struct berval ***out, ber_tag_t current)
{
    *out = nullptr;
    ber_len_t len;
    char *last;
    if (fber_first_element(ber, &len, &last) == LBER_DEFAULT)
        return current;
    SetShape shape = measure_members(ber, last);
    if (shape.count == 0)
        return LBER_DEFAULT;
    // The contents all lie within the element, so the sum cannot overflow.
    size_t head = (shape.count + 1) * sizeof(struct berval *) + shape.count * sizeof(struct berval);
    auto *array = static_cast<struct berval **>(zldap::mem_malloc(head + shape.bytes + shape.count));
    if (!array)
        return LBER_DEFAULT;
    auto *values = reinterpret_cast<struct berval *>(array + shape.count + 1);
    char *bytes = reinterpret_cast<char *>(values + shape.count);
    ber_tag_t tag = LBER_DEFAULT;
    for (size_t i = 0; i < shape.count; i++) {
        // Terminated at every step, so that a failure frees what was read.
        array[i + 1] = nullptr;
        // The same walk as measure_members': every member reads.
        tag = fber_get_tag(ber, &len);
        std::memcpy(bytes, ber->ber_ptr, len);
        bytes[len] = '\0';
        ber->ber_ptr += len;
        values[i] = berval{len, bytes};
        array[i] = &values[i];
        bytes += len + 1;
        if (translates(ber, len) && xlate_utf8_to_local(&values[i].bv_val, &values[i].bv_len, 0) != 0) {
            ber_bvecfree(array);
            return LBER_DEFAULT;
        }
    }
    *out = array;
    return tag;
}

void trace_scanf(BerElement *ber, const char *fmt)
{
    if (ber->ber_ptr == ber->ber_buf) {
        zldap::trace_print(TRC_BER, "fber_scanf fmt (%s) ber:\n", fmt);
        fber_dump(ber, 1);
    } else {
        zldap::trace_print(TRC_BER, "fber_scanf fmt (%s) offset=%ld length=%ld\n", fmt,
                           static_cast<long>(ber->ber_ptr - ber->ber_buf),
                           static_cast<long>(ber->ber_end - ber->ber_buf));
    }
}

template <typename T> T *next_pointer(va_list *ap) { return va_arg(*ap, T *); }

// Decodes the item of *f. `current` is the tag of the last item read,
// which the items that read nothing hand back unchanged.
ber_tag_t get_item(BerElement *ber, const char *f, va_list *ap, ber_tag_t current)
{
    switch (*f) {
    case 'a': {
        char **out = next_pointer<char *>(ap);
        return out ? fber_read_string(ber, out) : LBER_DEFAULT;
    }
    case 's': {
        char *buf = next_pointer<char>(ap);
        ber_len_t *size = next_pointer<ber_len_t>(ap);
        return buf && size ? fber_read_string_into(ber, buf, size) : LBER_DEFAULT;
    }
    case 'o': {
        struct berval *bv = next_pointer<struct berval>(ap);
        return bv ? read_into_berval(ber, bv) : LBER_DEFAULT;
    }
    case 'O': {
        struct berval **out = next_pointer<struct berval *>(ap);
        return out ? read_berval(ber, out) : LBER_DEFAULT;
    }
    case 'b':
    case 'e':
    case 'i':
        return fber_get_int(ber, next_pointer<int>(ap));
    case 'B': {
        char **bits = next_pointer<char *>(ap);
        ber_len_t *bit_len = next_pointer<ber_len_t>(ap);
        return bits && bit_len ? read_bitstring(ber, bits, bit_len) : LBER_DEFAULT;
    }
    case 'n':
        return read_null(ber);
    case 't':
    case 'T': {
        uint32_t *out = next_pointer<uint32_t>(ap);
        ber_len_t len;
        ber_tag_t tag = *f == 't' ? fber_peek_tag(ber, &len) : fber_get_tag(ber, &len);
        if (tag == LBER_DEFAULT || !out)
            return LBER_DEFAULT;
        *out = static_cast<uint32_t>(tag);
        return tag;
    }
    case 'l': {
        ber_len_t *out = next_pointer<ber_len_t>(ap);
        return out ? fber_peek_tag(ber, out) : LBER_DEFAULT;
    }
    case 'x':
        return fber_skip(ber);
    case 'v': {
        char ***out = next_pointer<char **>(ap);
        return out ? fber_read_string_set(ber, out, current) : LBER_DEFAULT;
    }
    case 'V': {
        struct berval ***out = next_pointer<struct berval **>(ap);
        return out ? fber_read_berval_set(ber, out, current) : LBER_DEFAULT;
    }
    case '{':
    case '[': {
        // A SET OF read by v or V reads its own header.
        if (f[1] == 'v' || f[1] == 'V')
            return current;
        ber_len_t len;
        return fber_get_tag(ber, &len);
    }
    case '}':
    case ']':
        return current;
    default:
        LDAP_TRACE(TRC_BER, "unknown fmt %c\n", *f);
        return LBER_DEFAULT;
    }
}

} // namespace

ber_tag_t fber_read_long_header(const char **ptr, const char *end_of_data, ber_len_t *len)
{
    if (end_of_data - *ptr < 2)
        return LBER_DEFAULT;
    auto *p = reinterpret_cast<const unsigned char *>(*ptr);
    auto *end = reinterpret_cast<const unsigned char *>(end_of_data);
    ber_tag_t tag = *p++;
    if ((tag & 0x1F) == 0x1F) // multi-octet tags do not occur in LDAP
        return LBER_DEFAULT;
    ber_len_t value = *p++;
    if (value & 0x80) {
        unsigned count = value & 0x7F;
        if (count > 8 || count > static_cast<size_t>(end - p))
            return LBER_DEFAULT;
        value = 0;
        while (count-- > 0)
            value = (value << 8) | *p++;
        if (value > kMaxLength)
            return LBER_DEFAULT;
    }
    *ptr = reinterpret_cast<const char *>(p);
    *len = value;
    return tag;
}

int fber_skip_element(BerElement *ber) { return fber_skip(ber) == LBER_DEFAULT ? -1 : 0; }

ber_tag_t fber_first_element(BerElement *ber, ber_len_t *len, char **last)
{
    if (!len || !last || fber_get_tag(ber, len) == LBER_DEFAULT || *len == 0)
        return LBER_DEFAULT;
    // The end of a SET that claims more than the data is the end of the data.
    *last = ber->ber_ptr + (*len < bytes_left(ber) ? *len : bytes_left(ber));
    return fber_peek_tag(ber, nullptr);
}

// Integers are 32-bit on this side. Contents of five to eight octets are
// accepted only when their value fits (a redundant sign extension); any
// other value is refused rather than silently truncated.
ber_tag_t fber_get_int(BerElement *ber, int *value)
{
    ber_len_t len;
    ber_tag_t tag = fber_get_tag(ber, &len);
    if (tag == LBER_DEFAULT || !value || len > bytes_left(ber) || len > 8)
        return LBER_DEFAULT;
    auto *p = reinterpret_cast<const unsigned char *>(ber->ber_ptr);
    uint64_t bits = (len > 0 && (p[0] & 0x80)) ? ~uint64_t{0} : 0;
    for (ber_len_t i = 0; i < len; i++)
        bits = (bits << 8) | p[i];
    auto number = static_cast<int64_t>(bits);
    if (number < std::numeric_limits<int32_t>::min() || number > std::numeric_limits<int32_t>::max())
        return LBER_DEFAULT;
    ber->ber_ptr += len;
    *value = static_cast<int>(number);
    return tag;
}

void fber_trace_format(BerElement *ber, const char *fmt) { trace_scanf(ber, fmt); }

bool fber_translates_strings(const BerElement *ber) { return translates(ber, 1); }

ber_tag_t fber_read_string(BerElement *ber, char **out) { return read_string(ber, out); }

ber_tag_t fber_read_string_into(BerElement *ber, char *buf, ber_len_t *size)
{
    return read_into_buffer(ber, buf, size);
}

ber_tag_t fber_read_string_set(BerElement *ber, char ***out, ber_tag_t current)
{
    return read_set_of<char>(ber, out, current, read_string, free_string);
}

ber_tag_t fber_read_berval_set(BerElement *ber, struct berval ***out, ber_tag_t current)
{
    return read_berval_block(ber, out, current);
}

ber_tag_t fber_scanf(BerElement *ber, const char *fmt, ...)
{
    zldap::ber_decoder_legacy_mode();
    if (!ber || !fmt)
        return LBER_DEFAULT;
    if (zldap::trace_enabled(TRC_BER))
        trace_scanf(ber, fmt);
    if (!*fmt)
        return 0;

    va_list ap;
    va_start(ap, fmt);
    ber_tag_t rc = 0;
    for (const char *f = fmt; *f && rc != LBER_DEFAULT; f++)
        rc = get_item(ber, f, &ap, rc);
    va_end(ap);
    return rc;
}
