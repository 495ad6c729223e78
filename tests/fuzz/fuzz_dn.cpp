// fuzz_dn.cpp - arbitrary text as a DN through the parser and every form
// built from it. The text sits in a buffer of exactly its size plus the
// NUL, so any read past the end is caught.
#include "proto/dn.h"
#include "results/results.h"

#include <cstdint>
#include <cstring>
#include <memory>

namespace {

size_t count_strings(char **array)
{
    size_t n = 0;
    while (array && array[n])
        n++;
    return n;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::unique_ptr<char[]> text(new char[size + 1]);
    std::memcpy(text.get(), data, size);
    text[size] = '\0';

    int error = 0;
    zldap::ParsedDn *dn = zldap::parse_dn(text.get(), &error);
    if (!dn || (error == 0 && !dn->normalized))
        __builtin_trap(); // memory does not run out here
    bool whole = error == 0 && dn->count > 0;
    size_t rdns = static_cast<size_t>(dn->count);
    zldap::release_parsed_dn(dn);

    bool dns_style = text[0] && !std::strpbrk(text.get(), "=,");
    char **exploded = ldap_explode_dn(text.get(), 0);
    if (whole && !dns_style && count_strings(exploded) != rdns)
        __builtin_trap(); // one string per RDN
    ldap_value_free(exploded);
    ldap_value_free(ldap_explode_dn(text.get(), 1));
    ldap_value_free(ldap_explode_rdn(text.get(), 0));
    ldap_value_free(ldap_explode_rdn(text.get(), 1));
    char *ufn = ldap_dn2ufn(text.get());
    if (whole && !ufn)
        __builtin_trap();
    ldap_memfree(ufn);
    return 0;
}
