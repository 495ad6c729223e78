// outside_keys.cpp - reading certificates and keys made elsewhere: the
// input is untrusted, so every length and every decoded object is checked
// before it is kept.
#include "outside_keys.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <climits>

namespace zor {

namespace {

BioPtr memory_bio(const std::string &bytes)
{
    if (bytes.size() > INT_MAX)
        return nullptr;
    return BioPtr(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

bool looks_like_pem(const std::string &bytes) { return bytes.find("-----BEGIN ") != std::string::npos; }

// The password for an encrypted PEM key; a key that needs one and gets an
// empty text fails to decrypt like any wrong password.
int pem_password(char *buffer, int size, int, void *user)
{
    const std::string *password = static_cast<const std::string *>(user);
    if (password->size() > static_cast<size_t>(size))
        return -1;
    password->copy(buffer, password->size());
    return static_cast<int>(password->size());
}

KdbStatus finish(KdbStatus status)
{
    ERR_clear_error();
    return status;
}

} // namespace

KdbStatus parse_certificate(const std::string &bytes, X509Ptr &cert)
{
    BioPtr bio = memory_bio(bytes);
    if (!bio)
        return finish(KdbStatus::bad_format);
    if (looks_like_pem(bytes))
        cert.reset(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    else
        cert.reset(d2i_X509_bio(bio.get(), nullptr));
    return finish(cert ? KdbStatus::ok : KdbStatus::bad_format);
}

KdbStatus parse_pkcs12_key(const std::string &bytes, const std::string &password, PkeyPtr &key, X509Ptr &cert)
{
    const unsigned char *p = reinterpret_cast<const unsigned char *>(bytes.data());
    if (bytes.size() > LONG_MAX)
        return finish(KdbStatus::bad_format);
    Pkcs12Ptr p12(d2i_PKCS12(nullptr, &p, static_cast<long>(bytes.size())));
    if (!p12)
        return finish(KdbStatus::bad_format);
    if (PKCS12_mac_present(p12.get()) &&
        !PKCS12_verify_mac(p12.get(), password.c_str(), static_cast<int>(password.size())))
        return finish(KdbStatus::bad_password);
    EVP_PKEY *raw_key = nullptr;
    X509 *raw_cert = nullptr;
    STACK_OF(X509) *extra = nullptr;
    int parsed = PKCS12_parse(p12.get(), password.c_str(), &raw_key, &raw_cert, &extra);
    sk_X509_pop_free(extra, X509_free);
    key.reset(raw_key);
    cert.reset(raw_cert);
    if (!parsed || !key || !cert)
        return finish(KdbStatus::bad_format);
    // The file's own name and key id for the pair give way to the label
    // and the id the database gives it.
    X509_alias_set1(cert.get(), nullptr, 0);
    X509_keyid_set1(cert.get(), nullptr, 0);
    return finish(X509_check_private_key(cert.get(), key.get()) ? KdbStatus::ok : KdbStatus::key_mismatch);
}

KdbStatus parse_pem_key(const std::string &bytes, const std::string &password, PkeyPtr &key)
{
    BioPtr bio = memory_bio(bytes);
    if (!bio)
        return finish(KdbStatus::bad_format);
    std::string pass = password;
    key.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, pem_password, &pass));
    if (key)
        return finish(KdbStatus::ok);
    // An encrypted key that did not decrypt is a password problem.
    bool encrypted = bytes.find("ENCRYPTED") != std::string::npos;
    return finish(encrypted ? KdbStatus::bad_password : KdbStatus::bad_format);
}

} // namespace zor
