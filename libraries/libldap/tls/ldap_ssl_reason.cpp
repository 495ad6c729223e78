// ldap_ssl_reason.cpp - ldap_ssl_reason2string: English texts for the
// secure-transport reason codes that the initialisation functions store.
// The texts sit in a dense table made at compile time, so a lookup is one
// bounds check and one load.
#include "zor8ldap_api.h"

#include <array>

namespace {

struct ReasonText {
    int code;
    const char *text;
};

constexpr ReasonText kReasonTexts[] = {
    {-1, "The LDAP client is not SSL/TLS enabled."},
    {0, "Success"},
    {1, "Invalid handle"},
    {2, "API not available"},
    {3, "Internal error"},
    {4, "Insufficient storage"},
    {5, "Invalid state"},
    {6, "Key label not found"},
    {7, "Certificate not available"},
    {8, "Error validating certificate"},
    {9, "Error encrypting/decrypting"},
    {10, "ASN encoding error"},
    {11, "LDAP error"},
    {12, "Unknown error"},
    {101, "Open cipher error"},
    {102, "Keyfile I/O error"},
    {103, "Keyfile invalid format"},
    {104, "Keyfile duplicate key"},
    {105, "Keyfile duplicate label"},
    {106, "Bad format or invalid password"},
    {107, "Keyfile certificate expired"},
    {108, "Error loading LDAP library"},
    {109, "Pending close error"},
    {201, "No password nor stash file"},
    {202, "Keyring file open error"},
    {203, "RSA temporary key pair"},
    {204, "LDAP no such object"},
    {205, "LDAP invalid credentials"},
    {206, "Bad index"},
    {301, "Close failed"},
    {401, "Bad date"},
    {402, "No ciphers"},
    {403, "No certificate"},
    {404, "Bad certificate"},
    {405, "Unsupported certificate type"},
    {406, "I/O error"},
    {407, "Bad keyfile label"},
    {408, "Bad keyfile password"},
    {409, "Bad key length for export"},
    {410, "Bad message"},
    {411, "Bad MAC"},
    {412, "Unsupported"},
    {413, "Bad certificate signature"},
    {414, "Bad certificate"},
    {415, "Bad peer"},
    {416, "Permission denied"},
    {417, "Self-signed error"},
    {418, "No read function"},
    {419, "No write function"},
    {420, "Socket closed"},
    {421, "Bad V2 cipher"},
    {422, "Bad V3 cipher"},
    {423, "Bad security type"},
    {424, "Bad security type combination"},
    {425, "Handle creation failed"},
    {426, "Initialization failed"},
    {427, "LDAP not available"},
    {428, "No private key"},
    {429, "PKCS11 library not loaded"},
    {430, "PKCS11 token label mismatch"},
    {431, "PKCS11 token not present"},
    {432, "PKCS11 token bad password"},
    {433, "Invalid V2 header"},
    {501, "Invalid buffer size"},
    {502, "Would block"},
    {601, "Not SSL V3"},
    {602, "Miscellaneous invalid ID"},
    {701, "Invalid attribute"},
    {702, "Invalid length"},
    {703, "Invalid enumeration"},
    {704, "Invalid session ID (SID) cache"},
    {705, "Invalid numeric value"},
    {706, "Invalid setting"},
};

constexpr const char kUnknown[] = "Unknown SSL error";
constexpr int kFirstCode = -1;
constexpr int kLastCode = 706;

// Index code + 1 holds the text of code.
constexpr auto kDenseTexts = [] {
    std::array<const char *, kLastCode - kFirstCode + 1> dense{};
    dense.fill(kUnknown);
    for (const ReasonText &entry : kReasonTexts)
        dense[entry.code - kFirstCode] = entry.text;
    return dense;
}();

} // namespace

const char *ldap_ssl_reason2string(int reason)
{
    unsigned index = static_cast<unsigned>(reason) - static_cast<unsigned>(kFirstCode);
    return index < kDenseTexts.size() ? kDenseTexts[index] : kUnknown;
}
