// cert_info.cpp - the peer certificate as typed text elements (attribute
// 700): serial, version, algorithms, names in RFC 4514 form, validity in
// ISO 8601, alternative names one by one and all together, and the SHA-256
// fingerprint.
#include "cert_info.h"

#include <openssl/x509v3.h>

#include <arpa/inet.h>
#include <cstdio>
#include <ctime>

namespace zor {

namespace {

// OpenSSL's long name of an object, or "" for one it has no name for.
std::string object_name(int nid)
{
    const char *name = OBJ_nid2ln(nid);
    return name ? name : "";
}

std::string name_text(const X509_NAME *name)
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253) < 0)
        return {};
    char *data = nullptr;
    long length = BIO_get_mem_data(bio.get(), &data);
    return length > 0 ? std::string(data, static_cast<size_t>(length)) : std::string();
}

std::string common_name(const X509_NAME *name)
{
    int index = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
    if (index < 0)
        return {};
    const ASN1_STRING *value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index));
    unsigned char *utf8 = nullptr;
    int length = ASN1_STRING_to_UTF8(&utf8, value);
    std::string text = length > 0 ? std::string(reinterpret_cast<char *>(utf8), static_cast<size_t>(length)) : "";
    OPENSSL_free(utf8);
    return text;
}

std::string time_text(const ASN1_TIME *time)
{
    struct tm tm {};
    char text[32];
    if (!ASN1_TIME_to_tm(time, &tm) || !std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm))
        return {};
    return text;
}

std::string serial_text(const ASN1_INTEGER *serial)
{
    BIGNUM *bn = ASN1_INTEGER_to_BN(serial, nullptr);
    char *hex = bn ? BN_bn2hex(bn) : nullptr;
    std::string text = hex ? hex : "";
    OPENSSL_free(hex);
    BN_free(bn);
    return text;
}

std::string fingerprint_text(X509 *cert)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!X509_digest(cert, EVP_sha256(), digest, &length))
        return {};
    std::string text;
    char byte[4];
    for (unsigned int i = 0; i < length; i++) {
        std::snprintf(byte, sizeof byte, i ? ":%02X" : "%02X", digest[i]);
        text += byte;
    }
    return text;
}

std::string ip_text(const ASN1_OCTET_STRING *address)
{
    char text[INET6_ADDRSTRLEN];
    int length = ASN1_STRING_length(address);
    int family = length == 4 ? AF_INET : length == 16 ? AF_INET6 : AF_UNSPEC;
    if (family == AF_UNSPEC || !inet_ntop(family, ASN1_STRING_get0_data(address), text, sizeof text))
        return {};
    return text;
}

void add_alternative_names(X509 *cert, std::vector<CertText> &out)
{
    GENERAL_NAMES *names = static_cast<GENERAL_NAMES *>(X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr));
    std::string all;
    for (int i = 0; i < sk_GENERAL_NAME_num(names); i++) {
        const GENERAL_NAME *name = sk_GENERAL_NAME_value(names, i);
        int type = 0;
        std::string prefix, text;
        switch (name->type) {
        case GEN_DNS:
            type = ZOR_CERT_SAN_DNS, prefix = "DNS:";
            text.assign(reinterpret_cast<const char *>(ASN1_STRING_get0_data(name->d.dNSName)),
                        static_cast<size_t>(ASN1_STRING_length(name->d.dNSName)));
            break;
        case GEN_EMAIL:
            type = ZOR_CERT_SAN_EMAIL, prefix = "email:";
            text.assign(reinterpret_cast<const char *>(ASN1_STRING_get0_data(name->d.rfc822Name)),
                        static_cast<size_t>(ASN1_STRING_length(name->d.rfc822Name)));
            break;
        case GEN_URI:
            type = ZOR_CERT_SAN_URI, prefix = "URI:";
            text.assign(reinterpret_cast<const char *>(ASN1_STRING_get0_data(name->d.uniformResourceIdentifier)),
                        static_cast<size_t>(ASN1_STRING_length(name->d.uniformResourceIdentifier)));
            break;
        case GEN_IPADD:
            type = ZOR_CERT_SAN_IP, prefix = "IP:";
            text = ip_text(name->d.iPAddress);
            break;
        default:
            continue;
        }
        out.push_back({type, text});
        all += (all.empty() ? "" : ", ") + prefix + text;
    }
    GENERAL_NAMES_free(names);
    if (!all.empty())
        out.push_back({ZOR_CERT_SAN_ALL, all});
}

} // namespace

std::vector<CertText> describe_certificate(X509 *cert)
{
    std::vector<CertText> out;
    const X509_NAME *subject = X509_get_subject_name(cert);
    const X509_NAME *issuer = X509_get_issuer_name(cert);
    EVP_PKEY *key = X509_get0_pubkey(cert);
    out.push_back({ZOR_CERT_SERIAL_NUMBER, serial_text(X509_get0_serialNumber(cert))});
    out.push_back({ZOR_CERT_VERSION, std::to_string(X509_get_version(cert) + 1)});
    out.push_back({ZOR_CERT_SIGNATURE_ALGORITHM, object_name(X509_get_signature_nid(cert))});
    out.push_back({ZOR_CERT_ISSUER_DN, name_text(issuer)});
    out.push_back({ZOR_CERT_VALIDITY_NOT_BEFORE, time_text(X509_get0_notBefore(cert))});
    out.push_back({ZOR_CERT_VALIDITY_NOT_AFTER, time_text(X509_get0_notAfter(cert))});
    out.push_back({ZOR_CERT_SUBJECT_DN, name_text(subject)});
    out.push_back({ZOR_CERT_PUBLIC_KEY_ALGORITHM, key ? object_name(EVP_PKEY_get_base_id(key)) : ""});
    out.push_back({ZOR_CERT_SUBJECT_CN, common_name(subject)});
    out.push_back({ZOR_CERT_ISSUER_CN, common_name(issuer)});
    out.push_back({ZOR_CERT_SHA256_FINGERPRINT, fingerprint_text(cert)});
    add_alternative_names(cert, out);
    return out;
}

} // namespace zor
