// fuzz_url.cpp - arbitrary text as an LDAP URL, through both parsers.
#include "proto/url.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string url(reinterpret_cast<const char *>(data), size);
    LDAPURLDesc *desc = nullptr;
    if (ldap_url_parse(url.c_str(), &desc) == 0 && (!desc || !desc->lud_filter))
        __builtin_trap(); // a parsed URL always has a filter after defaults
    ldap_free_urldesc(desc);
    desc = nullptr;
    ldap_url_parse_internal(url.c_str(), &desc);
    ldap_free_urldesc(desc);
    ldap_is_ldap_url(url.c_str());
    return 0;
}
