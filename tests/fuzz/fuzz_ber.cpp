// fuzz_ber.cpp - decodes arbitrary bytes the way the library reads
// responses: frame one LDAPMessage, read its id and operation, then walk
// the contents with each reader format the library uses, with and without
// string translation. Values read from an entry are encoded again and must
// decode to the same bytes.
#include "ber_test_support.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

using zldap_test::BerPtr;
using zldap_test::ExactReader;
using zldap_test::ScanByItems;
using zldap_test::ScanOutputs;

namespace {

// Formats for the contents that follow the message id.
const char *const kOperationFormats[] = {
    "{eaa}",            // LDAPResult
    "{eaa{v}}",         // LDAPResult with referrals
    "{eaao}",           // bind response with server credentials
    "{eaaa}{{abo}}",    // extended response and controls
    "{a{{a[v]}}}",      // search entry, first attribute as strings
    "{a{{a[V]}}}",      // search entry, first attribute as values
    "{x{{s",            // first attribute type into a buffer
    "{v}",              // search reference
    "{aeeiib{aa}{v}}",  // search request
    "{a{{e{a[v]}}}}",   // modify request
    "{OlBxntTO}",       // the remaining readers
};

// Formats for the whole contents, message id included.
const char *const kMessageFormats[] = {"it", "it{", "iT", "i{iaa}", "ix{v}", "ixx"};

void Check(bool condition)
{
    if (!condition)
        __builtin_trap();
}

void SetVersion3(BerElement *ber)
{
    ber->ber_version = static_cast<int32_t *>(zldap::mem_malloc(sizeof(int32_t)));
    if (ber->ber_version)
        *ber->ber_version = 3;
}

// Walks a search entry attribute by attribute like the result walkers
// do, encodes each attribute again and decodes it back.
void WalkEntry(BerElement *ber)
{
    char *dn = nullptr;
    ber_len_t len = 0;
    char *last = nullptr;
    if (fber_scanf(ber, "{a", &dn) == LBER_DEFAULT) {
        zldap::mem_free(dn);
        return;
    }
    zldap::mem_free(dn);
    if (fber_first_element(ber, &len, &last) == LBER_DEFAULT)
        return;
    while (ber->ber_ptr < last && fber_peek_tag(ber, nullptr) != LBER_DEFAULT) {
        struct berval *type = nullptr;
        struct berval **values = nullptr;
        ber_tag_t rc = fber_scanf(ber, "{O[V]}", &type, &values);
        if (rc != LBER_DEFAULT && type) {
            BerPtr out(fber_alloc());
            Check(out != nullptr);
            Check(fber_printf(out.get(), "{o[V]}", type->bv_val, static_cast<int>(type->bv_len), values) == 0);
            fber_reset(out.get(), 1);
            struct berval *type2 = nullptr;
            struct berval **values2 = nullptr;
            Check(fber_scanf(out.get(), "{O[V]}", &type2, &values2) != LBER_DEFAULT);
            Check(type2->bv_len == type->bv_len && std::memcmp(type2->bv_val, type->bv_val, type->bv_len) == 0);
            size_t i = 0;
            for (; values && values[i]; i++) {
                Check(values2 && values2[i] && values2[i]->bv_len == values[i]->bv_len);
                Check(std::memcmp(values2[i]->bv_val, values[i]->bv_val, values[i]->bv_len) == 0);
            }
            Check(!values2 || !values2[i]);
            ber_bvfree(type2);
            ber_bvecfree(values2);
        }
        ber_bvfree(type);
        ber_bvecfree(values);
        if (rc == LBER_DEFAULT)
            break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Frame: what the framing reader leaves is the outer SEQUENCE's contents.
    BerPtr outer = ExactReader(data, size);
    ber_len_t len = 0;
    if (!outer || fber_get_tag(outer.get(), &len) == LBER_DEFAULT)
        return 0;
    size_t header = static_cast<size_t>(outer->ber_ptr - outer->ber_buf);
    size_t contents = std::min<size_t>(len, size - header);
    const uint8_t *body = data + header;

    for (int version3 = 0; version3 <= 1; version3++) {
        for (const char *fmt : kMessageFormats) {
            BerPtr ber = ExactReader(body, contents);
            if (version3)
                SetVersion3(ber.get());
            ScanOutputs out;
            ScanByItems(ber.get(), fmt, out);
            Check(ber->ber_ptr >= ber->ber_buf && ber->ber_ptr <= ber->ber_end);
        }
        for (const char *fmt : kOperationFormats) {
            BerPtr ber = ExactReader(body, contents);
            if (version3)
                SetVersion3(ber.get());
            int id = 0;
            if (fber_get_int(ber.get(), &id) == LBER_DEFAULT)
                break;
            ScanOutputs out;
            ScanByItems(ber.get(), fmt, out);
            Check(ber->ber_ptr >= ber->ber_buf && ber->ber_ptr <= ber->ber_end);
        }
    }

    // A search entry walk, on the contents and on a copy made by fber_init2.
    BerPtr ber = ExactReader(body, contents);
    int id = 0;
    if (fber_get_int(ber.get(), &id) != LBER_DEFAULT)
        WalkEntry(ber.get());
    struct berval whole = {size, const_cast<char *>(reinterpret_cast<const char *>(data))};
    BerPtr copy(fber_init2(&whole));
    if (copy && fber_scanf(copy.get(), "{i", &id) != LBER_DEFAULT)
        WalkEntry(copy.get());
    return 0;
}
