// key_database.h - the key database: trusted CA certificates and client
// keys with their certificates, each under a unique label, kept in one
// password-protected PKCS#12 file. A certificate bag that shares its
// localKeyID with a key bag belongs to that key; every other certificate
// is a trusted CA. Labels are the bags' friendlyName.
#ifndef ZOR_KEY_DATABASE_H
#define ZOR_KEY_DATABASE_H

#include "openssl_ptr.h"

#include <string>
#include <string_view>
#include <vector>

namespace zor {

enum class KdbStatus {
    ok,
    missing_file,
    io_error,
    bad_format,
    bad_password,
    duplicate_label,
    duplicate_key,
    no_such_label,
    bad_label,
    key_mismatch,
    loose_permissions,
};

// A short English text for a status, for the key tool's messages.
const char *kdb_status_text(KdbStatus status);

struct KdbEntry {
    std::string label;
    X509Ptr cert;
    PkeyPtr key; // empty for a trusted CA certificate
};

class KeyDatabase {
public:
    const std::vector<KdbEntry> &entries() const { return entries_; }
    const KdbEntry *find(std::string_view label) const;
    KdbStatus add_trusted(std::string label, X509Ptr cert);
    KdbStatus add_key(std::string label, PkeyPtr key, X509Ptr cert);
    KdbStatus remove(std::string_view label);

private:
    KdbStatus check_new_label(std::string_view label) const;
    std::vector<KdbEntry> entries_;
};

// Reads a key database from its PKCS#12 bytes; a MAC that does not verify
// with the password is bad_password.
KdbStatus parse_key_database(const unsigned char *data, size_t size, const std::string &password, KeyDatabase &out);
KdbStatus read_key_database(const std::string &path, const std::string &password, KeyDatabase &out);
// The PKCS#12 bytes of a database: AES-256 with PBKDF2 and an HMAC-SHA-256
// MAC. iterations is the key-derivation count (tests and seeds use few).
KdbStatus encode_key_database(const KeyDatabase &db, const std::string &password, int iterations, std::string &out);
// Replaces the file at path (mode 0600) without ever leaving it half written.
KdbStatus write_key_database(const std::string &path, const std::string &password, const KeyDatabase &db);

// Whole files, and the all-or-nothing replacement of one.
KdbStatus read_whole_file(const std::string &path, std::string &out);
KdbStatus replace_file(const std::string &path, const std::string &data, unsigned mode);

} // namespace zor

#endif
