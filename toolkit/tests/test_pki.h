// test_pki.h - throw-away keys and certificates made when the tests run:
// two unrelated CAs and one for Suite B, servers issued by them (one expired),
// client keys, and the files the tests hand to the toolkit and the key
// tool, in a temporary directory removed afterwards.
#ifndef ZOR_TEST_PKI_H
#define ZOR_TEST_PKI_H

#include "openssl_ptr.h"

#include <string>
#include <vector>

namespace zortest {

struct KeyPair {
    zor::PkeyPtr key;
    zor::X509Ptr cert;
};

struct Pki {
    KeyPair root, other_root, ec_root;
    KeyPair server, expired_server, stranger_server, ec_server;
    KeyPair client, weak_client;
};

// Made once per test program.
const Pki &pki();

std::string pem(X509 *cert);
std::string der(X509 *cert);
std::string key_pem(EVP_PKEY *key);
std::string pkcs12(const KeyPair &pair, const std::string &password);
std::string subject_cn(X509 *cert);

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    std::string write(const std::string &name, const std::string &data, unsigned mode = 0600) const;

private:
    std::string dir_;
};

} // namespace zortest

#endif
