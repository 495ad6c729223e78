// ldap_charset.cpp - string translation between the local code page and
// UTF-8. No code-set converter is wired in yet, so both directions hand
// back an unchanged copy; callers already own and free the result as they
// will once the bytes really change.
#include "xlate/ldap_charset.h"

#include "base/memory.h"

#include <cstring>

namespace {

int copy_into_new_buffer(char **buf, ber_len_t *len, int free_input)
{
    if (!buf || !*buf || !len)
        return LDAP_PARAM_ERROR;
    if (*len == static_cast<ber_len_t>(-1))
        return LDAP_NO_MEMORY;
    char *out = static_cast<char *>(zldap::mem_malloc(*len + 1));
    if (!out)
        return LDAP_NO_MEMORY;
    std::memcpy(out, *buf, *len);
    out[*len] = '\0';
    if (free_input)
        zldap::mem_free(*buf);
    *buf = out;
    return LDAP_SUCCESS;
}

} // namespace

int xlate_local_to_utf8(char **buf, ber_len_t *len, int free_input)
{
    return copy_into_new_buffer(buf, len, free_input);
}

int xlate_utf8_to_local(char **buf, ber_len_t *len, int free_input)
{
    return copy_into_new_buffer(buf, len, free_input);
}
