// bench_ber.cpp - the codec on the two hot paths of a search: encoding the
// request and decoding the entries that come back.
#include "ber/lber.h"
#include "base/memory.h"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace {

char kCn[] = "cn", kMail[] = "mail", kSn[] = "sn", kClass[] = "objectClass";
char *kAttrs[] = {kCn, kMail, kSn, kClass, nullptr};

// The envelope, an (&(objectClass=person)(cn=Babs*)) filter and four attributes.
int EncodeSearchRequest(BerElement *ber, int id)
{
    return fber_printf(ber, "{it{seeiib", id, ber_tag_t{0x63}, "ou=people,dc=example,dc=com", 2, 0, 500, 30, 0) ||
           fber_printf(ber, "t{t{ss}t{st{t", ber_tag_t{0xA0}, ber_tag_t{0xA3}, "objectClass", "person",
                       ber_tag_t{0xA4}, "cn", ber_tag_t{0x30}, ber_tag_t{0x80}) ||
           fber_printf(ber, "o}}}", "Babs", 4) || fber_printf(ber, "{v}}}", kAttrs);
}

void BM_EncodeSearchRequest(benchmark::State &state)
{
    int id = 0;
    for (auto _ : state) {
        BerElement *ber = fber_alloc();
        if (!ber || EncodeSearchRequest(ber, ++id) != 0)
            state.SkipWithError("encoding failed");
        benchmark::DoNotOptimize(ber->ber_buf);
        fber_free(ber);
    }
}
BENCHMARK(BM_EncodeSearchRequest);

// A search entry of ten attributes with two values each, as received: the
// contents of the LDAPMessage, positioned at the message id.
std::vector<char> SearchEntryContents()
{
    BerElement *ber = fber_alloc();
    fber_printf(ber, "{it{s{", 5, ber_tag_t{0x64}, "cn=Babs Jensen,ou=people,dc=example,dc=com");
    for (int i = 0; i < 10; i++) {
        std::string type = "attribute" + std::to_string(i);
        std::string first = "first value of " + type, second = "second value of " + type;
        fber_printf(ber, "{s[ss]}", type.c_str(), first.c_str(), second.c_str());
    }
    fber_printf(ber, "}}}");
    std::vector<char> contents(ber->ber_buf + 6, ber->ber_ptr);
    fber_free(ber);
    return contents;
}

void BM_DecodeSearchEntry(benchmark::State &state)
{
    std::vector<char> contents = SearchEntryContents();
    BerElement *ber = fber_alloc_t(0);
    fber_write(ber, contents.data(), contents.size());
    fber_reset(ber, 1);
    for (auto _ : state) {
        ber->ber_ptr = ber->ber_buf;
        int id = 0;
        char *dn = nullptr;
        ber_len_t len = 0;
        char *last = nullptr;
        if (fber_get_int(ber, &id) == LBER_DEFAULT || fber_scanf(ber, "{a", &dn) == LBER_DEFAULT ||
            fber_first_element(ber, &len, &last) == LBER_DEFAULT)
            state.SkipWithError("decoding failed");
        zldap::mem_free(dn);
        int attributes = 0;
        while (ber->ber_ptr < last && fber_peek_tag(ber, nullptr) != LBER_DEFAULT) {
            char *type = nullptr;
            struct berval **values = nullptr;
            if (fber_scanf(ber, "{a[V]}", &type, &values) == LBER_DEFAULT)
                state.SkipWithError("decoding failed");
            zldap::mem_free(type);
            ber_bvecfree(values);
            attributes++;
        }
        if (attributes != 10)
            state.SkipWithError("wrong attribute count");
    }
    fber_free(ber);
}
BENCHMARK(BM_DecodeSearchEntry);

} // namespace
