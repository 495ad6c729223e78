// ldap_charset_xlate.cpp - the translation core: which converter each kind
// of translation uses (plain, or through UCS-2 when LDAP_USE_UNICODE asks
// for it), the lock around it, its trace lines and dumps, and the public
// ldap_xlate_* functions over it.
#include "xlate/ldap_charset.h"
#include "xlate/ldap_charset_internal.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"

#include <cstdint>
#include <cstring>

namespace zldap::charset {
namespace {

// Read at the first translation of the process, under ldap_xlate_mutex.
bool g_unicode_read;
bool g_unicode_mode;

int read_unicode_mode()
{
    if (g_unicode_read)
        return LDAP_SUCCESS;
    char *value = nullptr;
    if (getenv_copy("LDAP_USE_UNICODE", &value) != LDAP_SUCCESS)
        return LDAP_NO_MEMORY;
    g_unicode_mode = value && (value[0] == 'Y' || value[0] == 'y');
    g_unicode_read = true;
    mem_free(value);
    return LDAP_SUCCESS;
}

// Room for the UCS-2 form on the way: three times the caller's output space.
char *new_ucs2_buffer(size_t out_space, size_t *size)
{
    if (out_space > (SIZE_MAX - 1) / 3)
        return nullptr;
    *size = 3 * out_space;
    return static_cast<char *>(mem_malloc(*size + 1));
}

// Local code page to UTF-8 through UCS-2: the converter, then the
// library's own encoder.
int ldap_xlate_codepage(Converter *converter, const char *in, size_t in_len, char *out, size_t *out_space)
{
    size_t size = 0;
    char *ucs2 = new_ucs2_buffer(*out_space, &size);
    if (!ucs2)
        return LDAP_NO_MEMORY;
    size_t left = size;
    int rc = convert(converter, in, in_len, ucs2, &left);
    if (rc == LDAP_SUCCESS)
        rc = convert_UniCodetoUTF8(ucs2, size - left, out, out_space);
    mem_free(ucs2);
    return rc;
}

// UTF-8 to the local code page through UCS-2: the library's own decoder,
// then the converter.
int utf8_transform_then_translate(Converter *converter, const char *in, size_t in_len, char *out,
                                  size_t *out_space)
{
    size_t size = 0;
    char *ucs2 = new_ucs2_buffer(*out_space, &size);
    if (!ucs2)
        return LDAP_NO_MEMORY;
    size_t left = size;
    int rc = utf8_to_ucs2(in, in_len, ucs2, &left);
    if (rc == LDAP_SUCCESS)
        rc = convert(converter, ucs2, size - left, out, out_space);
    mem_free(ucs2);
    return rc;
}

using Runner = int (*)(Converter *, const char *, size_t, char *, size_t *);

// The converter a kind of translation uses and how it runs.
struct Route {
    Direction slot;
    const char *other;
    int direction; // 1: from the local code page, 0: to it
    Runner run;
};

Route route(Kind kind, bool unicode)
{
    switch (kind) {
    case Kind::LocalToUtf8:
        return unicode ? Route{kLocalToUcs2, "UCS-2", 1, ldap_xlate_codepage} : Route{kLocalToUtf8, "UTF-8", 1, convert};
    case Kind::Utf8ToLocal:
        return unicode ? Route{kUcs2ToLocal, "UCS-2", 0, utf8_transform_then_translate}
                       : Route{kUtf8ToLocal, "UTF-8", 0, convert};
    case Kind::LocalToUcs2:
        return {kLocalToUcs2, "UCS-2", 1, convert};
    case Kind::Ucs2ToLocal:
        break;
    }
    return {kUcs2ToLocal, "UCS-2", 0, convert};
}

int translate_locked(Kind kind, const TraceTexts &texts, const char *in, size_t in_len, char *out,
                     size_t *out_space)
{
    int rc = read_unicode_mode();
    if (rc != LDAP_SUCCESS)
        return rc;
    Route r = route(kind, g_unicode_mode);
    Slot &s = slot(r.slot);
    rc = ldap_init_iconv(&s.converter, r.other, r.direction, &s.reopen);
    if (rc != LDAP_SUCCESS)
        return rc;
    bool tracing = trace_enabled(TRC_XLATE);
    if (tracing) {
        const char *locale = trace_str(locale_name());
        const char *codepage = trace_str(local_codepage());
        trace_print(TRC_XLATE, texts.settings, texts.locale_first ? locale : codepage,
                    texts.locale_first ? codepage : locale);
        trace_dump(in, static_cast<long>(in_len), texts.before);
    }
    size_t space_before = *out_space;
    rc = r.run(s.converter, in, in_len, out, out_space);
    if (tracing)
        trace_dump(out, static_cast<long>(space_before - *out_space), texts.after);
    return rc;
}

} // namespace

int translate(Kind kind, const TraceTexts &texts, const char *in, size_t in_len, char *out, size_t *out_space)
{
    ldap_lock_xlate_mutex();
    int rc = translate_locked(kind, texts, in, in_len, out, out_space);
    ldap_unlock_xlate_mutex();
    return rc;
}

} // namespace zldap::charset

using namespace zldap::charset;

namespace {

const TraceTexts kLocalToUtf8Texts = {"ldap_xlate_local_to_utf8() locale: %s\tcodeset: %s\n", true,
                                      "ldap_xlate_local_to_utf8 input data ( before ):",
                                      "ldap_xlate_local_to_utf8 input data ( after ):"};
const TraceTexts kUtf8ToLocalTexts = {"ldap_xlate_utf8_to_local() locale: %s\tcodeset: %s\n", true,
                                      "ldap_xlate_utf8_to_local input data ( before ):",
                                      "ldap_xlate_utf8_to_local input data ( after ):"};
const TraceTexts kLocalToUnicodeTexts = {"ldap_xlate_local_to_unicode() locale: %s\tcodeset: %s\n", true,
                                         "ldap_xlate_local_to_unicode input data ( before ):",
                                         "ldap_xlate_local_to_unicode input data ( after ):"};
const TraceTexts kUnicodeToLocalTexts = {"ldap_xlate_unicode_to_local() locale: %s\tcodeset: %s\n", true,
                                         "ldap_xlate_unicode_to_local input data ( before ):",
                                         "ldap_xlate_unicode_to_local input data ( after ):"};

int translate_buffers(Kind kind, const TraceTexts &texts, char *inbuf, unsigned int *inlen, char *outbuf,
                      size_t *outlen)
{
    if (!inbuf || !inlen || !outbuf || !outlen)
        return LDAP_PARAM_ERROR;
    return translate(kind, texts, inbuf, *inlen, outbuf, outlen);
}

const char *failure_name(int rc)
{
    switch (rc) {
    case LDAP_XLATE_OUTPUT_OVERFLOW:
        return "E2BIG";
    case LDAP_XLATE_INPUT_TRUNCATED:
        return "EINVAL";
    case LDAP_XLATE_BAD_CHARACTER:
    case LDAP_XLATE_NO_MAPPING:
        return "EILSEQ";
    default:
        return "";
    }
}

} // namespace

int ldap_xlate_local_to_utf8(char *inbuf, unsigned int *inlen, char *outbuf, size_t *outlen)
{
    return translate_buffers(Kind::LocalToUtf8, kLocalToUtf8Texts, inbuf, inlen, outbuf, outlen);
}

int ldap_xlate_utf8_to_local(char *inbuf, unsigned int *inlen, char *outbuf, size_t *outlen)
{
    return translate_buffers(Kind::Utf8ToLocal, kUtf8ToLocalTexts, inbuf, inlen, outbuf, outlen);
}

int ldap_xlate_local_to_unicode(char *inbuf, unsigned int *inlen, char *outbuf, size_t *outlen)
{
    return translate_buffers(Kind::LocalToUcs2, kLocalToUnicodeTexts, inbuf, inlen, outbuf, outlen);
}

int ldap_xlate_unicode_to_local(char *inbuf, unsigned int *inlen, char *outbuf, size_t *outlen)
{
    return translate_buffers(Kind::Ucs2ToLocal, kUnicodeToLocalTexts, inbuf, inlen, outbuf, outlen);
}

int ldap_xlate_local_to_utf8_wrp(const char *text, char **result)
{
    if (!text) {
        LDAP_TRACE(TRC_XLATE, "ldap_xlate_local_to_utf8_wrp: inbufp passed in as NULL!\n");
        return LDAP_OPERATIONS_ERROR;
    }
    if (!result)
        return LDAP_PARAM_ERROR;
    *result = nullptr;
    size_t inlen = std::strlen(text);
    size_t room = 3 * inlen;
    char *out = inlen <= (SIZE_MAX - 1) / 3 ? static_cast<char *>(zldap::mem_malloc(room + 1)) : nullptr;
    if (!out) {
        LDAP_TRACE(TRC_XLATE, "ldap_xlate_local_to_utf8_wrp: Memory allocation failure!\n");
        return LDAP_NO_MEMORY;
    }
    size_t space = room;
    int rc = translate(Kind::LocalToUtf8, kLocalToUtf8Texts, text, inlen, out, &space);
    int outlen = static_cast<int>(room - space);
    if (rc != LDAP_SUCCESS) {
        LDAP_TRACE(TRC_XLATE, "ldap_xlate_local_to_utf8_wrp: ERROR rc: %d(%s) inlen: %d outlen: %d \n", rc,
                   failure_name(rc), static_cast<int>(inlen), outlen);
        zldap::mem_free(out);
        return rc;
    }
    LDAP_TRACE(TRC_XLATE, "ldap_xlate_local_to_utf8_wrp: inlen: %d outlen: %d \n", static_cast<int>(inlen), outlen);
    out[room - space] = '\0';
    *result = out;
    return LDAP_SUCCESS;
}
