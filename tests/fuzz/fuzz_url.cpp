// fuzz_url.cpp - arbitrary text as an LDAP URL, through both parsers. A
// parsed URL never hides a bad escape: decoded, it would have cut a part
// short without the caller knowing.
#include "proto/url.h"

#include <cctype>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace {

// Whether a "%" lacks its two hexadecimal digits or escapes the zero byte.
bool has_bad_escape(std::string_view text)
{
    for (size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%', at + 1)) {
        if (at + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[at + 1])) ||
            !std::isxdigit(static_cast<unsigned char>(text[at + 2])) || text.substr(at + 1, 2) == "00")
            return true;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string url(reinterpret_cast<const char *>(data), size);
    LDAPURLDesc *desc = nullptr;
    if (ldap_url_parse(url.c_str(), &desc) == 0 && (!desc || !desc->lud_filter))
        __builtin_trap(); // a parsed URL always has a filter after defaults
    ldap_free_urldesc(desc);
    desc = nullptr;
    if (ldap_url_parse_internal(url.c_str(), &desc) == 0) {
        // The parser sees the text up to its first NUL; an IPv6 literal
        // host, which ends at the first "]", is taken as written.
        std::string_view seen(url.c_str());
        size_t literal_end = seen.find(']');
        if (desc->lud_host && std::strchr(desc->lud_host, ':') && literal_end != std::string_view::npos)
            seen.remove_prefix(literal_end);
        if (has_bad_escape(seen))
            __builtin_trap();
    }
    ldap_free_urldesc(desc);
    ldap_is_ldap_url(url.c_str());
    return 0;
}
