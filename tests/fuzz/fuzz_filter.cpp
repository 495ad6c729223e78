// fuzz_filter.cpp - arbitrary text as a search filter: the encoder either
// refuses it or writes an element that the decoder can walk to its end.
#include "ber_test_support.h"
#include "proto/filter.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string filter(reinterpret_cast<const char *>(data), size);
    zldap_test::BerPtr ber(fber_alloc());
    if (!ber)
        return 0;
    if (put_filter(ber.get(), filter.c_str(), 0) == 0) {
        // Every item written is one whole element.
        zldap_test::Bytes written = zldap_test::Written(ber.get());
        zldap_test::BerPtr reader = zldap_test::ExactReader(written);
        while (reader->ber_ptr < reader->ber_end)
            if (fber_skip_element(reader.get()) != 0)
                __builtin_trap();
    }
    return 0;
}
