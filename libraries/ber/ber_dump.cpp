// ber_dump.cpp - trace dumps of element contents. Dumps go through a copy
// in which a userpassword value and a simple bind's password are blanked
// out, so that the trace log never shows a password and the element
// itself is never touched.
#include "ber/ber_internal.h"

#include "base/trace.h"

#include <cctype>
#include <cstring>

namespace {

// Reads one BER header (tag and short or long-form length) expected at
// *pos, leaving *pos on its contents and their length in *len; false when
// the bytes there are not one.
bool read_header(const unsigned char *bytes, size_t size, size_t *pos, unsigned char tag, size_t *len)
{
    size_t p = *pos;
    if (p + 2 > size || bytes[p] != tag)
        return false;
    size_t length = bytes[p + 1];
    p += 2;
    if (length & 0x80) {
        size_t count = length & 0x7F;
        if (count == 0 || count > 4 || p + count > size)
            return false;
        length = 0;
        for (size_t i = 0; i < count; i++)
            length = (length << 8) | bytes[p + i];
        p += count;
    }
    *pos = p;
    *len = length;
    return true;
}

bool skip_header(const unsigned char *bytes, size_t size, size_t *pos, unsigned char tag)
{
    size_t len = 0;
    return read_header(bytes, size, pos, tag, &len);
}

bool skip_item(const unsigned char *bytes, size_t size, size_t *pos, unsigned char tag)
{
    size_t len = 0;
    if (!read_header(bytes, size, pos, tag, &len) || len > size - *pos)
        return false;
    *pos += len;
    return true;
}

// Blanks out the password of a simple bind, every byte of it: the 0x80
// item of a BindRequest (0x60) behind the message id and the version and
// DN, with the LDAPMessage header in front (a request written) or without
// it (contents framed from a connection).
void mask_bind_password(char *copy, size_t size)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(copy);
    size_t pos = 0, len = 0;
    if (size > 0 && bytes[0] == 0x30 && !skip_header(bytes, size, &pos, 0x30))
        return;
    if (!skip_item(bytes, size, &pos, 0x02) || !skip_header(bytes, size, &pos, 0x60) ||
        !skip_item(bytes, size, &pos, 0x02) || !skip_item(bytes, size, &pos, 0x04) ||
        !read_header(bytes, size, &pos, 0x80, &len))
        return;
    for (size_t i = pos; i < size && i - pos < len; i++)
        copy[i] = 'x';
}

// Blanks out the first run of letters and digits of the value that follows
// a "userpassword" attribute name. The value normally starts behind the
// SET and OCTET STRING headers that follow the name; where they are not
// found, it is taken to start 16 bytes after the name's first letter.
void mask_password(char *copy, size_t len)
{
    static constexpr char kName[] = "userpassword";
    constexpr size_t kNameLen = sizeof kName - 1;
    const void *found = memmem(copy, len, kName, kNameLen);
    if (!found)
        return;
    const auto *bytes = reinterpret_cast<const unsigned char *>(copy);
    size_t start = static_cast<size_t>(static_cast<const char *>(found) - copy);
    size_t value = start + kNameLen;
    if (!skip_header(bytes, len, &value, 0x31) || !skip_header(bytes, len, &value, 0x04))
        value = start + 16;
    for (size_t i = value; i < len && std::isalnum(static_cast<unsigned char>(copy[i])); i++)
        copy[i] = 'x';
}

void dump_contents(const BerElement *ber, int mode)
{
    const char *from = mode == 1 ? ber->ber_ptr : ber->ber_buf;
    const char *to = mode == 1 ? ber->ber_end : ber->ber_ptr;
    size_t len = to > from ? static_cast<size_t>(to - from) : 0;
    zldap::trace_print(TRC_BER, "          current len=%ld, contents:\n", static_cast<long>(len));
    zldap::ber_dump_masked(from, len, 0);
}

} // namespace

void zldap::ber_dump_masked(const char *from, size_t len, size_t dump_from)
{
    zldap::MemBuffer copy(static_cast<char *>(zldap::mem_malloc(len + 1)));
    if (!copy)
        return;
    if (len)
        std::memcpy(copy.get(), from, len);
    copy.get()[len] = '\0';
    mask_password(copy.get(), len);
    mask_bind_password(copy.get(), len);
    zldap::trace_dump(copy.get() + dump_from, static_cast<long>(len - dump_from), nullptr);
}

void fber_dump(BerElement *ber, int mode)
{
    if (!ber || !zldap::trace_enabled(TRC_BER))
        return;
    zldap::trace_print(TRC_BER, "fber_dump: buf=%p ptr=%p end=%p\n", static_cast<void *>(ber->ber_buf),
                       static_cast<void *>(ber->ber_ptr), static_cast<void *>(ber->ber_end));
    dump_contents(ber, mode);
}

void fber_dump_with_fd(BerElement *ber, int mode, int sd)
{
    if (!ber || !zldap::trace_enabled(TRC_BER))
        return;
    zldap::trace_print(TRC_BER, "fber_dump_with_fd: buf=%p ptr=%p end=%p sd=%d\n",
                       static_cast<void *>(ber->ber_buf), static_cast<void *>(ber->ber_ptr),
                       static_cast<void *>(ber->ber_end), sd);
    dump_contents(ber, mode);
}
