// tls_policy.cpp - protocol versions, suites, groups and signature
// algorithms of one connection.
//
// Versions: the TLS V1 switch stands for the TLS 1.x versions OpenSSL offers
// at its default security level, 1.2 and 1.3; the TLS 1.2 switch can take
// 1.2 out of that. SSL 3.0, TLS 1.0 and TLS 1.1 are never negotiated, so
// their switches change nothing.
//
// Suites: the TLS 1.2 list (four-hex-digit IANA codes) when it is set,
// otherwise the first set one of the TLS 1.1, TLS 1.0 and SSL V3 lists
// (two-hex-digit codes, whose suites TLS 1.2 still offers). TLS 1.3 codes
// (13xx) in the TLS 1.2 list choose the TLS 1.3 suites; otherwise TLS 1.3
// keeps OpenSSL's. Codes OpenSSL does not know are skipped.
//
// FIPS keeps AES suites with ECDHE, DHE or RSA key exchange and RSA or ECDSA
// authentication, the NIST curves and finite-field groups, and RSA and
// ECDSA signatures with SHA-2. Suite B (TLS 1.2 only, RFC 6460) keeps
// ECDHE-ECDSA with AES-GCM: 128 bits on P-256 (OpenSSL's SUITEB128ONLY),
// 192 bits on P-384 (SUITEB192).
#include "tls_policy.h"

#include <openssl/core_names.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

namespace zor {

namespace {

constexpr const char *kFipsGroups = "P-256:P-384:P-521:ffdhe2048:ffdhe3072:ffdhe4096";

struct SignatureScheme {
    uint16_t code;
    const char *name;
    bool fips;
};

constexpr SignatureScheme kSchemes[] = {
    {0x0201, "rsa_pkcs1_sha1", false},
    {0x0203, "ecdsa_sha1", false},
    {0x0401, "rsa_pkcs1_sha256", true},
    {0x0403, "ecdsa_secp256r1_sha256", true},
    {0x0501, "rsa_pkcs1_sha384", true},
    {0x0503, "ecdsa_secp384r1_sha384", true},
    {0x0601, "rsa_pkcs1_sha512", true},
    {0x0603, "ecdsa_secp521r1_sha512", true},
    {0x0804, "rsa_pss_rsae_sha256", true},
    {0x0805, "rsa_pss_rsae_sha384", true},
    {0x0806, "rsa_pss_rsae_sha512", true},
    {0x0807, "ed25519", false},
    {0x0808, "ed448", false},
    {0x0809, "rsa_pss_pss_sha256", true},
    {0x080a, "rsa_pss_pss_sha384", true},
    {0x080b, "rsa_pss_pss_sha512", true},
};

std::vector<uint16_t> codes_of(std::string_view list, size_t width)
{
    std::vector<uint16_t> codes;
    for (size_t i = 0; i + width <= list.size(); i += width)
        codes.push_back(static_cast<uint16_t>(std::stoul(std::string(list.substr(i, width)), nullptr, 16)));
    return codes;
}

bool is_tls13_suite(const SSL_CIPHER *c) { return (SSL_CIPHER_get_protocol_id(c) >> 8) == 0x13; }

bool is_fips_suite(const SSL_CIPHER *c)
{
    static const int ciphers[] = {NID_aes_128_gcm, NID_aes_256_gcm, NID_aes_128_cbc,
                                  NID_aes_256_cbc, NID_aes_128_ccm, NID_aes_256_ccm};
    static const int exchanges[] = {NID_kx_ecdhe, NID_kx_dhe, NID_kx_rsa, NID_kx_any};
    static const int authentications[] = {NID_auth_rsa, NID_auth_ecdsa, NID_auth_any};
    auto in = [](const auto &set, int nid) { return std::find(std::begin(set), std::end(set), nid) != std::end(set); };
    return in(ciphers, SSL_CIPHER_get_cipher_nid(c)) && in(exchanges, SSL_CIPHER_get_kx_nid(c)) &&
           in(authentications, SSL_CIPHER_get_auth_nid(c));
}

struct Suites {
    std::string tls12, tls13;

    void add(const SSL_CIPHER *c, bool fips)
    {
        if (fips && !is_fips_suite(c))
            return;
        std::string &list = is_tls13_suite(c) ? tls13 : tls12;
        if (!list.empty())
            list += ':';
        list += SSL_CIPHER_get_name(c);
    }
};

Suites pick_suites(SSL *ssl, const ConnectionSettings &s, bool fips)
{
    std::string_view list = s.tls12_ciphers;
    size_t width = 4;
    if (list.empty()) {
        width = 2;
        for (const std::string *older : {&s.tls11_ciphers, &s.tls10_ciphers, &s.v3_ciphers})
            if (list.empty())
                list = *older;
    }
    Suites suites;
    STACK_OF(SSL_CIPHER) *defaults = SSL_get_ciphers(ssl);
    bool own_tls13 = false;
    for (uint16_t code : codes_of(list, width)) {
        const unsigned char bytes[2] = {static_cast<unsigned char>(code >> 8), static_cast<unsigned char>(code)};
        if (const SSL_CIPHER *c = SSL_CIPHER_find(ssl, bytes)) {
            own_tls13 = own_tls13 || is_tls13_suite(c);
            suites.add(c, fips);
        }
    }
    for (int i = 0; i < sk_SSL_CIPHER_num(defaults); i++) {
        const SSL_CIPHER *c = sk_SSL_CIPHER_value(defaults, i);
        if (is_tls13_suite(c) ? !own_tls13 : list.empty())
            suites.add(c, fips);
    }
    return suites;
}

std::string pick_sigalgs(const Environment &env, bool fips)
{
    std::string names;
    auto add = [&names](const char *name) {
        if (!names.empty())
            names += ':';
        names += name;
    };
    for (uint16_t code : codes_of(env.sigalgs, 4)) {
        auto it = std::find_if(std::begin(kSchemes), std::end(kSchemes),
                               [code](const SignatureScheme &s) { return s.code == code; });
        if (it != std::end(kSchemes) && (it->fips || !fips))
            add(it->name);
    }
    if (names.empty() && fips)
        for (const SignatureScheme &s : kSchemes)
            if (s.fips)
                add(s.name);
    return names;
}

int apply_suiteb(SSL *ssl, const ConnectionSettings &settings, int level)
{
    if (!settings.tls1)
        return ZOR_ERR_NO_PROTOCOL;
    bool good = SSL_set_min_proto_version(ssl, TLS1_2_VERSION) && SSL_set_max_proto_version(ssl, TLS1_2_VERSION);
    if (level == 128)
        good = good && SSL_set_cipher_list(ssl, "SUITEB128ONLY") && SSL_set1_groups_list(ssl, "P-256") &&
               SSL_set1_sigalgs_list(ssl, "ecdsa_secp256r1_sha256");
    else
        good = good && SSL_set_cipher_list(ssl, "SUITEB192") && SSL_set1_groups_list(ssl, "P-384") &&
               SSL_set1_sigalgs_list(ssl, "ecdsa_secp384r1_sha384");
    return good ? ZOR_OK : ZOR_ERR_INTERNAL;
}

} // namespace

int apply_tls_policy(SSL *ssl, const ConnectionSettings &settings, const Environment &env)
{
    if (env.fips.suiteb)
        return apply_suiteb(ssl, settings, env.fips.suiteb);
    bool tls12 = settings.tls1 && settings.tls12;
    bool tls13 = settings.tls1;
    if (!tls12 && !tls13)
        return ZOR_ERR_NO_PROTOCOL;
    bool fips = env.fips.restricts_algorithms();
    Suites suites = pick_suites(ssl, settings, fips);
    tls12 = tls12 && !suites.tls12.empty();
    tls13 = tls13 && !suites.tls13.empty();
    if (!tls12 && !tls13)
        return ZOR_ERR_NO_CIPHERS;
    bool good = (!tls12 || SSL_set_cipher_list(ssl, suites.tls12.c_str())) &&
                (!tls13 || SSL_set_ciphersuites(ssl, suites.tls13.c_str())) &&
                SSL_set_min_proto_version(ssl, tls12 ? TLS1_2_VERSION : TLS1_3_VERSION) &&
                SSL_set_max_proto_version(ssl, tls13 ? TLS1_3_VERSION : TLS1_2_VERSION);
    if (good && fips)
        good = SSL_set1_groups_list(ssl, kFipsGroups);
    std::string sigalgs = pick_sigalgs(env, fips);
    if (good && !sigalgs.empty())
        good = SSL_set1_sigalgs_list(ssl, sigalgs.c_str());
    return good ? ZOR_OK : ZOR_ERR_INTERNAL;
}

bool is_fips_key(EVP_PKEY *key)
{
    if (EVP_PKEY_is_a(key, "RSA") || EVP_PKEY_is_a(key, "RSA-PSS"))
        return EVP_PKEY_get_bits(key) >= 2048;
    char group[64];
    size_t length = 0;
    if (!EVP_PKEY_is_a(key, "EC") || !EVP_PKEY_get_group_name(key, group, sizeof group, &length))
        return false;
    for (const char *allowed : {"prime256v1", "secp384r1", "secp521r1", "P-256", "P-384", "P-521"})
        if (std::strcmp(group, allowed) == 0)
            return true;
    return false;
}

} // namespace zor
