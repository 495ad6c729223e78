// ber_internal.h - helpers shared by the codec's own files: room
// reservation, the legacy translation switches and an owner for
// temporary buffers.
#ifndef ZLDAP_BER_INTERNAL_H
#define ZLDAP_BER_INTERNAL_H

#include "base/memory.h"
#include "ber/lber.h"

#include <memory>

namespace zldap {

// Makes room for `needed` bytes at ber_ptr. The buffer grows when the
// item would reach ber_end, so a full buffer always grows before writing.
inline int ber_reserve(BerElement *ber, ber_len_t needed)
{
    if (needed < static_cast<ber_len_t>(ber->ber_end - ber->ber_ptr))
        return 0;
    return fber_realloc(ber, needed);
}

// Whether LDAP_LEGACY_UTF8_XLATE_MODE was set when the encoder first ran
// in this process (the decoder's switch is in lber.h).
bool ber_encoder_legacy_mode();

// Hex-dumps a copy of the bytes with any userpassword value and a simple
// bind's password blanked out, from dump_from on: the passwords are found
// in the whole request even when only its unwritten rest is shown.
void ber_dump_masked(const char *from, size_t len, size_t dump_from);

struct MemFree {
    void operator()(void *p) const { mem_free(p); }
};
using MemBuffer = std::unique_ptr<char, MemFree>;

} // namespace zldap

#endif
