// fuzz_xlate.cpp - arbitrary bytes as a server's UTF-8 and as local text:
// the first byte picks the local code page, the rest is translated both
// ways and through the library's own UCS-2 transforms. Every translation
// either fails with a translation code or stays within its output space.
#include "base/memory.h"
#include "xlate/ldap_charset.h"
#include "xlate/ldap_charset_internal.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace {

const char *const kCodepages[] = {"ISO88591", "ISO885915", "1252", "EUCJP", "SJIS", "GB18030", "UTF-8", "BIG5"};

void Check(bool ok)
{
    if (!ok)
        __builtin_trap();
}

bool IsTranslationCode(int rc)
{
    return rc == 0 || rc == LDAP_LOCAL_ERROR || (rc >= LDAP_XLATE_OUTPUT_OVERFLOW && rc <= LDAP_XLATE_NO_MAPPING);
}

void TranslateCopy(int (*xlate)(char **, ber_len_t *, int), const std::string &in)
{
    auto *buf = static_cast<char *>(zldap::mem_malloc(in.size() + 1));
    if (!buf)
        return;
    std::memcpy(buf, in.data(), in.size());
    buf[in.size()] = '\0';
    ber_len_t len = in.size();
    int rc = xlate(&buf, &len, 1);
    Check(IsTranslationCode(rc) && len <= 3 * in.size() && (rc != 0 || buf[len] == '\0'));
    zldap::mem_free(buf);
}

// The own transforms, into an output space with a guard byte behind it.
void Transform(int (*transform)(const char *, size_t, char *, size_t *), const std::string &in)
{
    std::string out(2 * in.size() + 1, '#');
    size_t space = 2 * in.size();
    int rc = transform(in.data(), in.size(), out.data(), &space);
    Check(IsTranslationCode(rc) && out.back() == '#');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    static int current = -1;
    int pick = data[0] % (sizeof kCodepages / sizeof kCodepages[0]);
    if (pick != current && ldap_set_iconv_local_codepage(kCodepages[pick]) == 0)
        current = pick;
    std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    TranslateCopy(xlate_utf8_to_local, text);
    TranslateCopy(xlate_local_to_utf8, text);
    Transform(zldap::charset::utf8_to_ucs2, text);
    Transform(zldap::charset::convert_UniCodetoUTF8, text);
    return 0;
}
