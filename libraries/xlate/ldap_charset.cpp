// ldap_charset.cpp - the translations the codec and the filter encoder
// call: a buffer is translated into a new one of three times its length,
// which takes the old one's place.
#include "xlate/ldap_charset.h"
#include "xlate/ldap_charset_internal.h"

#include "base/memory.h"

#include <cstdint>

namespace {

using zldap::charset::Kind;
using zldap::charset::TraceTexts;

const TraceTexts kToUtf8Texts = {"ldap_xlate_local_to_utf8: codepage = %s, locale = %s\n", false,
                                 "xlate_local_to_utf8 input data (before):", "xlate_local_to_utf8 input data (after):"};
const TraceTexts kToLocalTexts = {"xlate_utf8_to_local() : codepage = %s, locale = %s\n", false,
                                  "xlate_utf8_to_local input data (before): ",
                                  "xlate_utf8_to_local input data (after): "};

int replace_with_translation(Kind kind, const TraceTexts &texts, char **buf, ber_len_t *len, int free_input)
{
    if (!buf || !*buf || !len)
        return LDAP_PARAM_ERROR;
    // Every code page here takes at most three bytes where the other side takes one.
    if (*len > (SIZE_MAX - 1) / 3)
        return LDAP_NO_MEMORY;
    size_t room = 3 * *len;
    char *out = static_cast<char *>(zldap::mem_malloc(room + 1));
    if (!out)
        return LDAP_NO_MEMORY;
    size_t space = room;
    int rc = zldap::charset::translate(kind, texts, *buf, *len, out, &space);
    if (rc != LDAP_SUCCESS) {
        zldap::mem_free(out);
        return rc;
    }
    out[room - space] = '\0';
    if (free_input)
        zldap::mem_free(*buf);
    *buf = out;
    *len = room - space;
    return LDAP_SUCCESS;
}

} // namespace

int xlate_local_to_utf8(char **buf, ber_len_t *len, int free_input)
{
    return replace_with_translation(Kind::LocalToUtf8, kToUtf8Texts, buf, len, free_input);
}

int xlate_utf8_to_local(char **buf, ber_len_t *len, int free_input)
{
    return replace_with_translation(Kind::Utf8ToLocal, kToLocalTexts, buf, len, free_input);
}
