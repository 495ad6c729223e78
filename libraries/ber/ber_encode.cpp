// ber_encode.cpp - the BER encoder: fber_printf and its sisters, and
// FberWriter, which writes the same items without a format. Every item reserves its room first, so the writers below never
// check capacity; constructed items get a four-octet length that is
// patched when they close, so nothing is ever moved.
#include "ber/ber_internal.h"

#include "base/trace.h"
#include "xlate/ldap_charset.h"

#include <cstring>

namespace {

constexpr ber_tag_t kTagBoolean = 0x01;
constexpr ber_tag_t kTagInteger = 0x02;
constexpr ber_tag_t kTagBitString = 0x03;
constexpr ber_tag_t kTagOctetString = 0x04;
constexpr ber_tag_t kTagNull = 0x05;
constexpr ber_tag_t kTagEnumerated = 0x0A;
constexpr ber_tag_t kTagSequence = 0x30;
constexpr ber_tag_t kTagSet = 0x31;

constexpr ber_len_t kMaxShortLength = 127;
constexpr ber_len_t kMaxLongLength = 0xFFFFFFFF; // four length octets

void put_octet(BerElement *ber, unsigned value) { *ber->ber_ptr++ = static_cast<char>(value & 0xFF); }

void put_uint32(char *at, uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        *at++ = static_cast<char>((value >> shift) & 0xFF);
}

void put_length(BerElement *ber, ber_len_t len)
{
    if (len <= kMaxShortLength) {
        put_octet(ber, static_cast<unsigned>(len));
        return;
    }
    put_octet(ber, 0x84);
    put_uint32(ber->ber_ptr, static_cast<uint32_t>(len));
    ber->ber_ptr += 4;
}

// Only single-octet tags exist on this wire: the low eight bits are written.
ber_tag_t item_tag(const BerElement *ber, ber_tag_t fallback)
{
    return ber->ber_tag != LBER_DEFAULT ? ber->ber_tag : fallback;
}

int put_int(BerElement *ber, ber_tag_t tag, int value)
{
    bool small = value >= 0 && value <= 127;
    if (zldap::ber_reserve(ber, small ? 3 : 6) != 0)
        return -1;
    put_octet(ber, static_cast<unsigned>(tag));
    if (small) {
        put_octet(ber, 1);
        put_octet(ber, static_cast<unsigned>(value));
    } else {
        put_octet(ber, 4);
        put_uint32(ber->ber_ptr, static_cast<uint32_t>(value));
        ber->ber_ptr += 4;
    }
    return 0;
}

int put_bool(BerElement *ber, ber_tag_t tag, int value)
{
    if (zldap::ber_reserve(ber, 3) != 0)
        return -1;
    put_octet(ber, static_cast<unsigned>(tag));
    put_octet(ber, 1);
    put_octet(ber, value ? 0xFF : 0x00);
    return 0;
}

int put_null(BerElement *ber, ber_tag_t tag)
{
    if (zldap::ber_reserve(ber, 2) != 0)
        return -1;
    put_octet(ber, static_cast<unsigned>(tag));
    put_octet(ber, 0);
    return 0;
}

ber_len_t string_reservation(ber_len_t len) { return len <= kMaxShortLength ? len + 3 : len + 10; }

// `translate` says whether the call allows translation at all; whether the
// bytes actually change depends on the element's protocol version.
int put_string(BerElement *ber, ber_tag_t tag, const char *bytes, ber_len_t len, bool translate)
{
    if ((!bytes && len) || len > kMaxLongLength)
        return -1;
    if (zldap::ber_reserve(ber, string_reservation(len)) != 0)
        return -1;
    zldap::MemBuffer converted;
    if (translate && len > 0 && ber->ber_version && *ber->ber_version > 2) {
        char *out = const_cast<char *>(bytes); // not freed: the flag below is 0
        if (xlate_local_to_utf8(&out, &len, 0) != 0)
            return -1;
        converted.reset(out);
        bytes = out;
        if (len > kMaxLongLength || zldap::ber_reserve(ber, string_reservation(len)) != 0)
            return -1;
    }
    put_octet(ber, static_cast<unsigned>(tag));
    put_length(ber, len);
    if (len)
        std::memcpy(ber->ber_ptr, bytes, len);
    ber->ber_ptr += len;
    return 0;
}

int put_bitstring(BerElement *ber, ber_tag_t tag, const char *bits, int bit_count)
{
    if (bit_count < 0)
        return -1;
    ber_len_t octets = (static_cast<ber_len_t>(bit_count) + 7) / 8;
    if (!bits && octets)
        return -1;
    // The unused-bits octet counts in the contents, so it decides the length form.
    ber_len_t contents = octets + 1;
    if (zldap::ber_reserve(ber, contents <= kMaxShortLength ? octets + 3 : octets + 7) != 0)
        return -1;
    put_octet(ber, static_cast<unsigned>(tag));
    put_length(ber, contents);
    put_octet(ber, static_cast<unsigned>(octets * 8 - static_cast<ber_len_t>(bit_count)));
    if (octets)
        std::memcpy(ber->ber_ptr, bits, octets);
    ber->ber_ptr += octets;
    return 0;
}

int put_strings(BerElement *ber, ber_tag_t tag, char **values, bool translate)
{
    for (char **v = values; v && *v; v++)
        if (put_string(ber, tag, *v, std::strlen(*v), translate) != 0)
            return -1;
    return 0;
}

int put_bervals(BerElement *ber, ber_tag_t tag, struct berval **values, bool translate)
{
    for (struct berval **v = values; v && *v; v++)
        if (put_string(ber, tag, (*v)->bv_val, (*v)->bv_len, translate) != 0)
            return -1;
    return 0;
}

int start_constructed(BerElement *ber, ber_tag_t tag)
{
    ber_sos_stack *sos = ber->ber_sos;
    if (!sos || sos->sos_count >= kFberMaxDepth || zldap::ber_reserve(ber, 6) != 0)
        return -1;
    // The stack holds 32-bit offsets of the placeholder.
    ber_len_t offset = static_cast<ber_len_t>(ber->ber_ptr - ber->ber_buf) + 2;
    if (offset > kMaxLongLength)
        return -1;
    put_octet(ber, static_cast<unsigned>(tag));
    put_octet(ber, 0x84);
    sos->sos_offset[sos->sos_count++] = static_cast<uint32_t>(offset);
    ber->ber_ptr += 4;
    return 0;
}

int end_constructed(BerElement *ber)
{
    ber_sos_stack *sos = ber->ber_sos;
    if (!sos || sos->sos_count == 0)
        return -1;
    char *placeholder = ber->ber_buf + sos->sos_offset[sos->sos_count - 1];
    ber_len_t len = static_cast<ber_len_t>(ber->ber_ptr - (placeholder + 4));
    if (len > kMaxLongLength)
        return -1;
    put_uint32(placeholder, static_cast<uint32_t>(len));
    sos->sos_count--;
    return 0;
}

// Encodes one item; the caller has already dealt with `t`. The argument
// list goes by pointer so that what this takes stays taken.
int put_item(BerElement *ber, char fmt, va_list *ap, bool translate)
{
    switch (fmt) {
    case 'b':
        return put_bool(ber, item_tag(ber, kTagBoolean), va_arg(*ap, int));
    case 'i':
        return put_int(ber, item_tag(ber, kTagInteger), va_arg(*ap, int));
    case 'e':
        return put_int(ber, item_tag(ber, kTagEnumerated), va_arg(*ap, int));
    case 'n':
        return put_null(ber, item_tag(ber, kTagNull));
    case 'o': {
        const char *bytes = va_arg(*ap, const char *);
        int len = va_arg(*ap, int);
        if (len < 0)
            return -1;
        return put_string(ber, item_tag(ber, kTagOctetString), bytes, static_cast<ber_len_t>(len),
                          translate);
    }
    case 's': {
        const char *text = va_arg(*ap, const char *);
        if (!text)
            return -1;
        return put_string(ber, item_tag(ber, kTagOctetString), text, std::strlen(text), translate);
    }
    case 'B': {
        const char *bits = va_arg(*ap, const char *);
        int bit_count = va_arg(*ap, int);
        return put_bitstring(ber, item_tag(ber, kTagBitString), bits, bit_count);
    }
    case 'v':
        return put_strings(ber, item_tag(ber, kTagOctetString), va_arg(*ap, char **), translate);
    case 'V':
        return put_bervals(ber, item_tag(ber, kTagOctetString), va_arg(*ap, struct berval **),
                           translate);
    case '{':
        return start_constructed(ber, item_tag(ber, kTagSequence));
    case '[':
        return start_constructed(ber, item_tag(ber, kTagSet));
    case '}':
    case ']':
        return end_constructed(ber);
    default:
        LDAP_TRACE(TRC_BER, "unknown fmt %c\n", fmt);
        return -1;
    }
}

// What every encoder call does first: settle the legacy mode and refuse
// a missing element (-1) or leave one of another kind alone (0, traced).
// 1 when the call may encode; *translate then says whether strings are
// translated.
int start_call(BerElement *ber, int mode, bool *translate)
{
    bool legacy = zldap::ber_encoder_legacy_mode();
    if (!ber)
        return -1;
    if (!(ber->ber_options & kFberMarker)) {
        LDAP_TRACE(TRC_BER, "BerElement %p is not an FBER!!!\n", static_cast<void *>(ber));
        return 0;
    }
    bool allowed = mode == 1 || (mode != 0 && !(ber->ber_no_xlate && *ber->ber_no_xlate != 0));
    *translate = allowed && !legacy;
    return 1;
}

void record_length(BerElement *ber) { ber->ber_len = static_cast<ber_len_t>(ber->ber_ptr - ber->ber_buf); }

} // namespace

int vfber_printf(BerElement *ber, const char *fmt, va_list ap, int mode)
{
    bool translate = false;
    int started = start_call(fmt ? ber : nullptr, mode, &translate);
    if (started != 1 || !*fmt)
        return started == 1 ? 0 : started;

    // A local copy: a va_list parameter may be an array in disguise, whose
    // address is not a va_list pointer.
    va_list args;
    va_copy(args, ap);
    int rc = 0;
    for (const char *f = fmt; *f && rc == 0; f++) {
        if (*f == 't') {
            ber->ber_tag = va_arg(args, ber_tag_t);
            continue;
        }
        rc = put_item(ber, *f, &args, translate);
        ber->ber_tag = LBER_DEFAULT;
    }
    va_end(args);
    if (rc == 0)
        record_length(ber);
    return rc;
}

int fber_printf(BerElement *ber, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = vfber_printf(ber, fmt, ap, -1);
    va_end(ap);
    return rc;
}

int fber_printf_noxlate(BerElement *ber, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = vfber_printf(ber, fmt, ap, 0);
    va_end(ap);
    return rc;
}

FberWriter::FberWriter(BerElement *ber, int mode) : ber_(ber)
{
    int started = start_call(ber, mode, &translate_);
    if (started != 1) {
        ber_ = nullptr;
        rc_ = started;
    }
}

ber_tag_t FberWriter::start_item(ber_tag_t tag, ber_tag_t universal)
{
    if (rc_ != 0 || !ber_)
        return LBER_DEFAULT;
    if (tag != LBER_DEFAULT)
        ber_->ber_tag = tag;
    return item_tag(ber_, universal);
}

FberWriter &FberWriter::end_item(int rc)
{
    ber_->ber_tag = LBER_DEFAULT;
    rc_ = rc;
    return *this;
}

FberWriter &FberWriter::open(ber_tag_t tag)
{
    ber_tag_t t = start_item(tag, kTagSequence);
    return t == LBER_DEFAULT ? *this : end_item(start_constructed(ber_, t));
}

FberWriter &FberWriter::close()
{
    return start_item(LBER_DEFAULT, kTagSequence) == LBER_DEFAULT ? *this : end_item(end_constructed(ber_));
}

FberWriter &FberWriter::integer(int value, ber_tag_t tag)
{
    ber_tag_t t = start_item(tag, kTagInteger);
    return t == LBER_DEFAULT ? *this : end_item(put_int(ber_, t, value));
}

FberWriter &FberWriter::enumerated(int value, ber_tag_t tag)
{
    ber_tag_t t = start_item(tag, kTagEnumerated);
    return t == LBER_DEFAULT ? *this : end_item(put_int(ber_, t, value));
}

FberWriter &FberWriter::boolean(int value, ber_tag_t tag)
{
    ber_tag_t t = start_item(tag, kTagBoolean);
    return t == LBER_DEFAULT ? *this : end_item(put_bool(ber_, t, value));
}

FberWriter &FberWriter::string(const char *text, ber_tag_t tag)
{
    ber_tag_t t = start_item(tag, kTagOctetString);
    if (t == LBER_DEFAULT)
        return *this;
    return end_item(text ? put_string(ber_, t, text, std::strlen(text), translate_) : -1);
}

FberWriter &FberWriter::octets(const char *bytes, int len, ber_tag_t tag)
{
    ber_tag_t t = start_item(tag, kTagOctetString);
    if (t == LBER_DEFAULT)
        return *this;
    return end_item(len >= 0 ? put_string(ber_, t, bytes, static_cast<ber_len_t>(len), translate_) : -1);
}

FberWriter &FberWriter::strings(char **values, ber_tag_t tag)
{
    ber_tag_t t = start_item(tag, kTagOctetString);
    return t == LBER_DEFAULT ? *this : end_item(put_strings(ber_, t, values, translate_));
}

int FberWriter::finish()
{
    if (rc_ == 0 && ber_)
        record_length(ber_);
    return rc_;
}
