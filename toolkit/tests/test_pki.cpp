// test_pki.cpp - the tests' certificates, made with the OpenSSL API.
#include "test_pki.h"

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace zortest {

namespace {

zor::PkeyPtr rsa_key(unsigned bits) { return zor::PkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{bits})); }

zor::PkeyPtr ec_key(const char *curve) { return zor::PkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve)); }

void add_extension(X509 *cert, X509 *issuer, int nid, const char *value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION *ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    if (!ext || !X509_add_ext(cert, ext, -1))
        throw std::runtime_error("extension");
    X509_EXTENSION_free(ext);
}

// A certificate for key, valid from `from` to `to` days from now, issued
// by issuer (self-signed when it is null).
KeyPair issue(zor::PkeyPtr key, const char *cn, const KeyPair *issuer, bool ca, long from, long to,
              const char *alt_names = nullptr)
{
    static long serial = 1;
    zor::X509Ptr cert(X509_new());
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial++);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), from * 86400);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), to * 86400);
    X509_set_pubkey(cert.get(), key.get());
    X509_NAME *name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("Zor Test"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(cn), -1, -1, 0);
    X509 *signer = issuer ? issuer->cert.get() : cert.get();
    X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));
    add_extension(cert.get(), signer, NID_basic_constraints, ca ? "critical,CA:TRUE" : "critical,CA:FALSE");
    add_extension(cert.get(), signer, NID_key_usage,
                  ca ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature,keyEncipherment");
    add_extension(cert.get(), signer, NID_subject_key_identifier, "hash");
    if (alt_names)
        add_extension(cert.get(), signer, NID_subject_alt_name, alt_names);
    if (!X509_sign(cert.get(), issuer ? issuer->key.get() : key.get(), EVP_sha256()))
        throw std::runtime_error("sign");
    return {std::move(key), std::move(cert)};
}

std::string bio_text(BIO *bio)
{
    char *data = nullptr;
    long length = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<size_t>(length));
}

} // namespace

const Pki &pki()
{
    static const Pki made = [] {
        Pki p;
        // EC keys where the tests allow: RSA key generation is slow.
        p.root = issue(ec_key("P-256"), "Zor Test Root", nullptr, true, -1, 3650);
        p.other_root = issue(ec_key("P-256"), "Zor Other Root", nullptr, true, -1, 3650);
        p.ec_root = issue(ec_key("P-256"), "Zor EC Root", nullptr, true, -1, 3650);
        p.server = issue(rsa_key(2048), "server.test", &p.root, false, -1, 365, "DNS:server.test,DNS:ldap.test,IP:127.0.0.1");
        p.expired_server = issue(ec_key("P-256"), "expired.test", &p.root, false, -30, -1);
        p.stranger_server = issue(ec_key("P-256"), "stranger.test", &p.other_root, false, -1, 365);
        p.ec_server = issue(ec_key("P-256"), "ec.test", &p.ec_root, false, -1, 365);
        p.client = issue(ec_key("P-256"), "client", &p.root, false, -1, 365);
        p.weak_client = issue(rsa_key(1024), "weak client", &p.root, false, -1, 365);
        return p;
    }();
    return made;
}

std::string pem(X509 *cert)
{
    zor::BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), cert);
    return bio_text(bio.get());
}

std::string der(X509 *cert)
{
    unsigned char *bytes = nullptr;
    int length = i2d_X509(cert, &bytes);
    std::string out(reinterpret_cast<char *>(bytes), static_cast<size_t>(length));
    OPENSSL_free(bytes);
    return out;
}

std::string key_pem(EVP_PKEY *key)
{
    zor::BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
    return bio_text(bio.get());
}

std::string pkcs12(const KeyPair &pair, const std::string &password)
{
    zor::Pkcs12Ptr p12(PKCS12_create(password.c_str(), "imported", pair.key.get(), pair.cert.get(), nullptr, 0, 0, 0, 0, 0));
    unsigned char *bytes = nullptr;
    int length = i2d_PKCS12(p12.get(), &bytes);
    std::string out(reinterpret_cast<char *>(bytes), static_cast<size_t>(length));
    OPENSSL_free(bytes);
    return out;
}

std::string subject_cn(X509 *cert)
{
    char cn[256] = "";
    X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, cn, sizeof cn);
    return cn;
}

TempDir::TempDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "zortest-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp");
    dir_ = pattern;
}

TempDir::~TempDir() { std::filesystem::remove_all(dir_); }

std::string TempDir::write(const std::string &name, const std::string &data, unsigned mode) const
{
    std::string file = path(name);
    int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size()) || fchmod(fd, mode) != 0)
        throw std::runtime_error("write " + file);
    close(fd);
    return file;
}

} // namespace zortest
