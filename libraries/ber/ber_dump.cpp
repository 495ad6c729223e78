// ber_dump.cpp - trace dumps of element contents. Dumps go through a copy
// in which a userpassword value is blanked out, so that the trace log
// never shows a password and the element itself is never touched.
#include "ber_internal.h"

#include "trace.h"

#include <cctype>
#include <cstring>

namespace {

// The copy is searched as a C string, so a password behind a zero byte is
// not found; the sixteen bytes kept cover the attribute name and the
// headers that follow it.
void mask_password(char *copy, size_t len)
{
    const char *found = std::strstr(copy, "userpassword");
    if (!found)
        return;
    size_t start = static_cast<size_t>(found - copy);
    if (len - start <= 16)
        return;
    for (size_t i = start + 16; i < len && std::isalnum(static_cast<unsigned char>(copy[i])); i++)
        copy[i] = 'x';
}

void dump_contents(const BerElement *ber, int mode)
{
    const char *from = mode == 1 ? ber->ber_ptr : ber->ber_buf;
    const char *to = mode == 1 ? ber->ber_end : ber->ber_ptr;
    size_t len = to > from ? static_cast<size_t>(to - from) : 0;
    zldap::trace_print(TRC_BER, "          current len=%ld, contents:\n", static_cast<long>(len));
    zldap::MemBuffer copy(static_cast<char *>(zldap::mem_malloc(len + 1)));
    if (!copy)
        return;
    if (len)
        std::memcpy(copy.get(), from, len);
    copy.get()[len] = '\0';
    mask_password(copy.get(), len);
    zldap::trace_dump(copy.get(), static_cast<long>(len), nullptr);
}

} // namespace

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
