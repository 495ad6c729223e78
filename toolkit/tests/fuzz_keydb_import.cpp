// fuzz_keydb_import.cpp - the PKCS#12 input the key tool imports, and the
// key database itself, as the parsers meet them (password "fuzz").
#include "key_database.h"
#include "outside_keys.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string bytes(reinterpret_cast<const char *>(data), size);
    zor::PkeyPtr key;
    zor::X509Ptr cert;
    zor::parse_pkcs12_key(bytes, "fuzz", key, cert);
    zor::parse_certificate(bytes, cert);
    zor::KeyDatabase db;
    zor::parse_key_database(data, size, "fuzz", db);
    return 0;
}
