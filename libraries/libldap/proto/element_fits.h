// element_fits.h - whether the BER element at a reader's position lies
// wholly before a given end, checked before anything is read or allocated.
#ifndef ZLDAP_ELEMENT_FITS_H
#define ZLDAP_ELEMENT_FITS_H

#include "ber/lber.h"

namespace zldap {

// The decoder itself would clip a length that runs past the data; a
// protocol reader takes such a length as a malformed (or truncated)
// response. The position is left where it was; on success *contents is
// where the element's contents begin.
inline bool element_fits(BerElement *ber, const char *end, ber_tag_t *tag, ber_len_t *len,
                         const char **contents = nullptr)
{
    char *saved = ber->ber_ptr;
    *tag = fber_get_tag(ber, len);
    bool fits = *tag != LBER_DEFAULT && ber->ber_ptr <= end && *len <= static_cast<ber_len_t>(end - ber->ber_ptr);
    if (contents)
        *contents = ber->ber_ptr;
    ber->ber_ptr = saved;
    return fits;
}

} // namespace zldap

#endif
