// fuzz_seeds.cpp - writes the seeds of fuzz_keydb_import into the directory
// it is given: a key database and an imported PKCS#12 file, both with the
// password "fuzz" and one key-derivation iteration so that each run is
// cheap, and a certificate.
#include "key_database.h"
#include "test_pki.h"

#include <cstdio>

namespace {

bool save(const std::string &path, const std::string &data)
{
    FILE *f = std::fopen(path.c_str(), "wb");
    bool good = f && std::fwrite(data.data(), 1, data.size(), f) == data.size();
    return f && std::fclose(f) == 0 && good;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2)
        return 1;
    const zortest::Pki &p = zortest::pki();
    std::string dir = argv[1];
    zor::KeyDatabase db;
    db.add_trusted("root", zor::share(p.ec_root.cert.get()));
    db.add_key("client", zor::share(p.ec_server.key.get()), zor::share(p.ec_server.cert.get()));
    std::string bytes;
    zor::PkeyPtr key = zor::share(p.ec_server.key.get());
    zor::Pkcs12Ptr p12(PKCS12_create("fuzz", "imported", key.get(), p.ec_server.cert.get(), nullptr, 0, 0, 1, 1, 0));
    unsigned char *der = nullptr;
    int length = p12 ? i2d_PKCS12(p12.get(), &der) : -1;
    std::string imported(reinterpret_cast<char *>(der), length > 0 ? static_cast<size_t>(length) : 0);
    OPENSSL_free(der);
    bool good = zor::encode_key_database(db, "fuzz", 1, bytes) == zor::KdbStatus::ok && length > 0 &&
                save(dir + "/database.p12", bytes) && save(dir + "/imported.p12", imported) &&
                save(dir + "/certificate.der", zortest::der(p.ec_root.cert.get()));
    return good ? 0 : 1;
}
