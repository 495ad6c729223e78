// bench_entry_walk.cpp - walking one search entry of ten attributes the way
// a caller does: its DN, each attribute name through the cursor, each
// attribute's values as bervals, and releasing everything handed out.
// The handle is never connected: the walk reads only the entry.
#include "base/memory.h"
#include "ber/lber.h"
#include "message/ldap_message.h"
#include "zor8ldap_api.h"

#include <benchmark/benchmark.h>

#include <string>

namespace {

constexpr int kAttributes = 10;

// A search entry as filed: the element positioned at the protocol
// operation, after the message id.
LDAPMessage *TenAttributeEntry()
{
    BerElement *built = fber_alloc();
    fber_printf(built, "{it{s{", 5, ber_tag_t{0x64}, "cn=Babs Jensen,ou=people,dc=example,dc=com");
    for (int i = 0; i < kAttributes; i++) {
        std::string type = "attribute" + std::to_string(i);
        std::string first = "first value of " + type, second = "second value of " + type;
        fber_printf(built, "{s[ss]}", type.c_str(), first.c_str(), second.c_str());
    }
    fber_printf(built, "}}}");
    BerElement *ber = fber_alloc_t(0);
    // The contents of the outer SEQUENCE: its tag and five length octets go.
    fber_write(ber, built->ber_buf + 6, built->ber_ptr - built->ber_buf - 6);
    fber_free(built);
    fber_reset(ber, 1);
    int id = 0;
    fber_get_int(ber, &id);
    LDAPMessage *entry = ldap_alloc_msg(nullptr);
    entry->msg_type = 0x64;
    entry->msg_ber = ber;
    return entry;
}

void BM_WalkEntry(benchmark::State &state)
{
    LDAP *ld = ldap_init("127.0.0.1", 389);
    LDAPMessage *entry = TenAttributeEntry();
    for (auto _ : state) {
        char *dn = ldap_get_dn(ld, entry);
        benchmark::DoNotOptimize(dn);
        ldap_memfree(dn);
        int values = 0;
        BerElement *cursor = nullptr;
        for (char *a = ldap_first_attribute(ld, entry, &cursor); a; a = ldap_next_attribute(ld, entry, cursor)) {
            struct berval **vals = ldap_get_values_len(ld, entry, a);
            values += ldap_count_values_len(vals);
            ldap_value_free_len(vals);
            ldap_memfree(a);
        }
        ldap_ber_free(cursor, 0);
        if (values != 2 * kAttributes)
            state.SkipWithError("wrong value count");
    }
    free_msg(entry, 0);
    ldap_unbind(ld);
}
BENCHMARK(BM_WalkEntry);

} // namespace
