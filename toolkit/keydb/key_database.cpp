// key_database.cpp - the key database's entries and their PKCS#12 form.
#include "key_database.h"

#include <openssl/err.h>
#include <openssl/pkcs7.h>

#include <algorithm>
#include <map>

namespace zor {

namespace {

constexpr int kIterations = 10000;
constexpr size_t kMaxLabel = 128;

using BagStack = STACK_OF(PKCS12_SAFEBAG);
using SafeStack = STACK_OF(PKCS7);

struct BagStackFree {
    void operator()(BagStack *bags) const { sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free); }
};
struct SafeStackFree {
    void operator()(SafeStack *safes) const { sk_PKCS7_pop_free(safes, PKCS7_free); }
};
using BagsPtr = std::unique_ptr<BagStack, BagStackFree>;
using SafesPtr = std::unique_ptr<SafeStack, SafeStackFree>;

std::string friendly_name(PKCS12_SAFEBAG *bag)
{
    char *name = PKCS12_get_friendlyname(bag);
    std::string label = name ? name : "";
    OPENSSL_free(name);
    return label;
}

std::string local_key_id(const PKCS12_SAFEBAG *bag)
{
    const ASN1_TYPE *id = PKCS12_SAFEBAG_get0_attr(bag, NID_localKeyID);
    if (!id || id->type != V_ASN1_OCTET_STRING)
        return {};
    return std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(id->value.octet_string)),
                       static_cast<size_t>(ASN1_STRING_length(id->value.octet_string)));
}

// What the bags of one database hold before keys and certificates meet.
struct BagContents {
    struct Cert {
        std::string label, key_id;
        X509Ptr cert;
    };
    std::vector<Cert> certs;
    std::map<std::string, PkeyPtr> keys; // by localKeyID
};

KdbStatus collect_bag(PKCS12_SAFEBAG *bag, const std::string &password, BagContents &out)
{
    switch (PKCS12_SAFEBAG_get_nid(bag)) {
    case NID_certBag: {
        if (PKCS12_SAFEBAG_get_bag_nid(bag) != NID_x509Certificate)
            return KdbStatus::bad_format;
        X509Ptr cert(PKCS12_SAFEBAG_get1_cert(bag));
        if (!cert)
            return KdbStatus::bad_format;
        out.certs.push_back({friendly_name(bag), local_key_id(bag), std::move(cert)});
        return KdbStatus::ok;
    }
    case NID_pkcs8ShroudedKeyBag:
    case NID_keyBag: {
        std::string id = local_key_id(bag);
        if (id.empty() || out.keys.count(id))
            return KdbStatus::bad_format;
        PKCS8_PRIV_KEY_INFO *p8 = PKCS12_SAFEBAG_get_nid(bag) == NID_keyBag
                                      ? const_cast<PKCS8_PRIV_KEY_INFO *>(PKCS12_SAFEBAG_get0_p8inf(bag))
                                      : PKCS12_decrypt_skey(bag, password.c_str(), static_cast<int>(password.size()));
        PkeyPtr key(p8 ? EVP_PKCS82PKEY(p8) : nullptr);
        if (PKCS12_SAFEBAG_get_nid(bag) != NID_keyBag)
            PKCS8_PRIV_KEY_INFO_free(p8);
        if (!key)
            return KdbStatus::bad_format;
        out.keys.emplace(std::move(id), std::move(key));
        return KdbStatus::ok;
    }
    default:
        return KdbStatus::bad_format;
    }
}

KdbStatus collect_safes(PKCS12 *p12, const std::string &password, BagContents &out)
{
    SafesPtr safes(PKCS12_unpack_authsafes(p12));
    if (!safes)
        return KdbStatus::bad_format;
    for (int i = 0; i < sk_PKCS7_num(safes.get()); i++) {
        PKCS7 *safe = sk_PKCS7_value(safes.get(), i);
        BagsPtr bags;
        if (PKCS7_type_is_data(safe))
            bags.reset(PKCS12_unpack_p7data(safe));
        else if (PKCS7_type_is_encrypted(safe))
            bags.reset(PKCS12_unpack_p7encdata(safe, password.c_str(), static_cast<int>(password.size())));
        if (!bags)
            return KdbStatus::bad_format;
        for (int j = 0; j < sk_PKCS12_SAFEBAG_num(bags.get()); j++) {
            KdbStatus status = collect_bag(sk_PKCS12_SAFEBAG_value(bags.get(), j), password, out);
            if (status != KdbStatus::ok)
                return status;
        }
    }
    return KdbStatus::ok;
}

// The MAC over the whole file is checked before anything is decrypted, so
// that a wrong password is told apart from a damaged file.
KdbStatus open_pkcs12(const unsigned char *data, size_t size, const std::string &password, Pkcs12Ptr &out)
{
    const unsigned char *p = data;
    out.reset(d2i_PKCS12(nullptr, &p, static_cast<long>(size)));
    if (!out || !PKCS12_mac_present(out.get()))
        return KdbStatus::bad_format;
    if (!PKCS12_verify_mac(out.get(), password.c_str(), static_cast<int>(password.size())))
        return KdbStatus::bad_password;
    return KdbStatus::ok;
}

bool add_label(PKCS12_SAFEBAG *bag, const std::string &label)
{
    return bag && PKCS12_add_friendlyname_utf8(bag, label.c_str(), static_cast<int>(label.size()));
}

bool add_key_id(PKCS12_SAFEBAG *bag, X509 *cert)
{
    unsigned char id[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    return X509_digest(cert, EVP_sha256(), id, &length) && PKCS12_add_localkeyid(bag, id, static_cast<int>(length));
}

} // namespace

const char *kdb_status_text(KdbStatus status)
{
    switch (status) {
    case KdbStatus::ok:
        return "success";
    case KdbStatus::missing_file:
        return "the file does not exist";
    case KdbStatus::io_error:
        return "the file cannot be read or written";
    case KdbStatus::bad_format:
        return "the file is damaged or not in the expected format";
    case KdbStatus::bad_password:
        return "wrong password";
    case KdbStatus::duplicate_label:
        return "the label is already in use";
    case KdbStatus::duplicate_key:
        return "the key is already in the database under another label";
    case KdbStatus::no_such_label:
        return "no entry has that label";
    case KdbStatus::bad_label:
        return "a label is 1 to 128 characters without control characters";
    case KdbStatus::key_mismatch:
        return "the key does not belong to the certificate";
    case KdbStatus::loose_permissions:
        return "the stash file can be read by group or others";
    }
    return "unknown error";
}

const KdbEntry *KeyDatabase::find(std::string_view label) const
{
    auto it = std::find_if(entries_.begin(), entries_.end(), [&](const KdbEntry &e) { return e.label == label; });
    return it == entries_.end() ? nullptr : &*it;
}

KdbStatus KeyDatabase::check_new_label(std::string_view label) const
{
    if (label.empty() || label.size() > kMaxLabel ||
        std::any_of(label.begin(), label.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }))
        return KdbStatus::bad_label;
    return find(label) ? KdbStatus::duplicate_label : KdbStatus::ok;
}

KdbStatus KeyDatabase::add_trusted(std::string label, X509Ptr cert)
{
    KdbStatus status = check_new_label(label);
    if (status == KdbStatus::ok)
        entries_.push_back({std::move(label), std::move(cert), nullptr});
    return status;
}

KdbStatus KeyDatabase::add_key(std::string label, PkeyPtr key, X509Ptr cert)
{
    KdbStatus status = check_new_label(label);
    if (status != KdbStatus::ok)
        return status;
    if (!X509_check_private_key(cert.get(), key.get())) {
        ERR_clear_error();
        return KdbStatus::key_mismatch;
    }
    // A key's certificate identifies it in the file (its digest is the
    // localKeyID), so one key pair is kept once.
    for (const KdbEntry &e : entries_)
        if (e.key && X509_cmp(e.cert.get(), cert.get()) == 0)
            return KdbStatus::duplicate_key;
    entries_.push_back({std::move(label), std::move(cert), std::move(key)});
    return KdbStatus::ok;
}

KdbStatus KeyDatabase::remove(std::string_view label)
{
    auto it = std::find_if(entries_.begin(), entries_.end(), [&](const KdbEntry &e) { return e.label == label; });
    if (it == entries_.end())
        return KdbStatus::no_such_label;
    entries_.erase(it);
    return KdbStatus::ok;
}

KdbStatus parse_key_database(const unsigned char *data, size_t size, const std::string &password, KeyDatabase &out)
{
    Pkcs12Ptr p12;
    KdbStatus status = open_pkcs12(data, size, password, p12);
    BagContents contents;
    if (status == KdbStatus::ok)
        status = collect_safes(p12.get(), password, contents);
    KeyDatabase db;
    for (auto &c : contents.certs) {
        if (status != KdbStatus::ok)
            break;
        if (c.key_id.empty()) {
            status = db.add_trusted(std::move(c.label), std::move(c.cert));
            continue;
        }
        auto key = contents.keys.find(c.key_id);
        if (key == contents.keys.end() || !key->second) {
            status = KdbStatus::bad_format;
            break;
        }
        status = db.add_key(std::move(c.label), std::move(key->second), std::move(c.cert));
    }
    // A key without its certificate, or a label the file repeats, is damage.
    bool orphan_key = std::any_of(contents.keys.begin(), contents.keys.end(), [](auto &k) { return k.second != nullptr; });
    if (status == KdbStatus::ok && orphan_key)
        status = KdbStatus::bad_format;
    if (status != KdbStatus::ok && status != KdbStatus::bad_password)
        status = KdbStatus::bad_format;
    ERR_clear_error();
    if (status == KdbStatus::ok)
        out = std::move(db);
    return status;
}

KdbStatus read_key_database(const std::string &path, const std::string &password, KeyDatabase &out)
{
    std::string bytes;
    KdbStatus status = read_whole_file(path, bytes);
    if (status != KdbStatus::ok)
        return status;
    return parse_key_database(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size(), password, out);
}

KdbStatus encode_key_database(const KeyDatabase &db, const std::string &password, int iterations, std::string &out)
{
    BagStack *cert_bags = sk_PKCS12_SAFEBAG_new_null();
    BagStack *key_bags = sk_PKCS12_SAFEBAG_new_null();
    BagsPtr cert_owner(cert_bags), key_owner(key_bags);
    SafeStack *safes = nullptr;
    bool good = cert_bags && key_bags;
    for (const KdbEntry &e : db.entries()) {
        if (!good)
            break;
        PKCS12_SAFEBAG *cert_bag = PKCS12_add_cert(&cert_bags, e.cert.get());
        good = add_label(cert_bag, e.label);
        if (good && e.key) {
            PKCS12_SAFEBAG *key_bag = PKCS12_add_key_ex(&key_bags, e.key.get(), 0, iterations, NID_aes_256_cbc,
                                                        password.c_str(), nullptr, nullptr);
            good = add_label(key_bag, e.label) && add_key_id(key_bag, e.cert.get()) && add_key_id(cert_bag, e.cert.get());
        }
    }
    good = good && PKCS12_add_safe_ex(&safes, cert_bags, NID_aes_256_cbc, iterations, password.c_str(), nullptr, nullptr);
    // Key bags are encrypted one by one already; their safe is plain data.
    good = good && (sk_PKCS12_SAFEBAG_num(key_bags) == 0 || PKCS12_add_safe_ex(&safes, key_bags, -1, 0, nullptr, nullptr, nullptr));
    SafesPtr safes_owner(safes);
    Pkcs12Ptr p12(good ? PKCS12_add_safes_ex(safes, 0, nullptr, nullptr) : nullptr);
    good = p12 && PKCS12_set_mac(p12.get(), password.c_str(), static_cast<int>(password.size()), nullptr, 0, iterations,
                                 EVP_sha256());
    unsigned char *der = nullptr;
    int length = good ? i2d_PKCS12(p12.get(), &der) : -1;
    if (length > 0)
        out.assign(reinterpret_cast<char *>(der), static_cast<size_t>(length));
    OPENSSL_free(der);
    ERR_clear_error();
    return length > 0 ? KdbStatus::ok : KdbStatus::io_error;
}

KdbStatus write_key_database(const std::string &path, const std::string &password, const KeyDatabase &db)
{
    std::string bytes;
    KdbStatus status = encode_key_database(db, password, kIterations, bytes);
    return status == KdbStatus::ok ? replace_file(path, bytes, 0600) : status;
}

} // namespace zor
