// openssl_ptr.h - owning pointers for the OpenSSL objects the key database
// and the toolkit hold, so that every early return releases them.
#ifndef ZOR_OPENSSL_PTR_H
#define ZOR_OPENSSL_PTR_H

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>

namespace zor {

template <auto Free> struct OpensslDeleter {
    template <typename T> void operator()(T *p) const { Free(p); }
};

using X509Ptr = std::unique_ptr<X509, OpensslDeleter<X509_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, OpensslDeleter<EVP_PKEY_free>>;
using BioPtr = std::unique_ptr<BIO, OpensslDeleter<BIO_free_all>>;
using Pkcs12Ptr = std::unique_ptr<PKCS12, OpensslDeleter<PKCS12_free>>;
using SslCtxPtr = std::unique_ptr<SSL_CTX, OpensslDeleter<SSL_CTX_free>>;
using SslPtr = std::unique_ptr<SSL, OpensslDeleter<SSL_free>>;

// A new reference to an object already owned elsewhere.
inline X509Ptr share(X509 *cert)
{
    X509_up_ref(cert);
    return X509Ptr(cert);
}

inline PkeyPtr share(EVP_PKEY *key)
{
    EVP_PKEY_up_ref(key);
    return PkeyPtr(key);
}

} // namespace zor

#endif
