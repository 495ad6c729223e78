// reasons.cpp - zor_strerror: the text of every reason code the toolkit
// returns. Codes from 1000 carry the certificate verification error that
// failed a handshake, with OpenSSL's name for it.
#include "zor_toolkit.h"

#include <openssl/x509.h>

#include <mutex>
#include <string>

namespace {

struct ReasonText {
    int code;
    const char *text;
};

constexpr ReasonText kTexts[] = {
    {0, "Success"},
    {1, "Invalid handle"},
    {3, "Internal error"},
    {4, "Insufficient storage"},
    {5, "Invalid state"},
    {6, "Key label not found"},
    {103, "Keyfile invalid format"},
    {201, "No password nor stash file"},
    {202, "Keyring file open error"},
    {207, "FIPS mode: the key database holds keys that are not FIPS-approved"},
    {402, "No ciphers"},
    {403, "No certificate"},
    {404, "Bad certificate"},
    {406, "I/O error"},
    {408, "Bad keyfile password"},
    {410, "Bad message"},
    {411, "Bad MAC"},
    {415, "Bad peer"},
    {416, "Permission denied"},
    {418, "No read function"},
    {419, "No write function"},
    {420, "Socket closed"},
    {428, "No private key"},
    {502, "Would block"},
    {701, "Invalid attribute"},
    {702, "Invalid length"},
    {703, "Invalid enumeration"},
    {705, "Invalid numeric value"},
    {706, "Invalid setting"},
    {750, "No protocol version to negotiate: SSL 3.0, TLS 1.0 and TLS 1.1 are never used"},
    {751, "PKCS#11 tokens are not supported"},
    {752, "Handshake time limit exceeded"},
};

constexpr int kVerifyCount = ZOR_ERR_VERIFY_LAST - ZOR_ERR_VERIFY_BASE + 1;

const std::string *verification_texts()
{
    static std::string texts[kVerifyCount];
    static std::once_flag built;
    std::call_once(built, [] {
        for (int i = 0; i < kVerifyCount; i++)
            texts[i] = std::string("Certificate verification failed: ") + X509_verify_cert_error_string(i);
    });
    return texts;
}

} // namespace

extern "C" __attribute__((visibility("default"))) const char *zor_strerror(int reason)
{
    if (reason >= ZOR_ERR_VERIFY_BASE && reason <= ZOR_ERR_VERIFY_LAST) {
        try {
            return verification_texts()[reason - ZOR_ERR_VERIFY_BASE].c_str();
        } catch (...) {
            return "Certificate verification failed";
        }
    }
    for (const ReasonText &t : kTexts)
        if (t.code == reason)
            return t.text;
    return "Unknown reason code";
}
