// user_info.h - the per-user information file "ldap_user_info": its
// records in memory, reading and writing the file, the current user's
// identity, and the protection of the password item.
#ifndef ZLDAP_USER_INFO_H
#define ZLDAP_USER_INFO_H

#include "zor8ldap_api.h"

#include <cstddef>
#include <cstdint>

namespace zldap {

inline constexpr size_t kUserNameMax = 255;
inline constexpr uint32_t kUserInfoItemLimit = 65536; // item lengths stay below this

// One stored item; data NULL means absent (a present item of length 0
// still has data).
struct UserInfoItem {
    uint8_t *data;
    uint32_t length;
};

// One user's record, items indexed by kind - 1.
struct UserInfoRecord {
    char name[kUserNameMax + 1];
    UserInfoItem items[3];
    UserInfoRecord *next;
};

// Records from bytes in the file layout, in file order: 0, 21 (damaged:
// nothing is kept) or 90.
int user_info_parse(const uint8_t *bytes, size_t length, UserInfoRecord **records);
// The file's records; a missing file has none. 0, 21 or 90.
int user_info_read_file(const char *path, UserInfoRecord **records);
void user_info_free(UserInfoRecord *records);
// Whether the record still holds any item (records without one are not written).
bool user_info_has_items(const UserInfoRecord *record);

// The login name of the real user and, when default_path is given, the
// file in that user's home directory (release with mem_free). 0, 82 or 90.
int user_info_identity(char name[kUserNameMax + 1], char **default_path);

// Protects n bytes of data with key into a new blob; seed starts the
// random salt and padding. 0, 90, or a failure of user_info_sha1.
int user_info_protect(const char *key, const uint8_t *data, size_t n, unsigned seed, uint8_t **blob,
                      size_t *blob_length);
// The data of a blob protected with key, or a decoy word when the key or
// the blob is wrong; both come back with a zero byte added. 0, 90, or a
// failure of user_info_sha1.
int user_info_recover(const char *key, const uint8_t *blob, size_t length, char **data, int *data_length);
// The decoy word for a seed, into word (at least 16 bytes); its length.
size_t user_info_decoy_word(uint64_t seed, char *word);

inline constexpr size_t kSha1DigestSize = 20;
// Whether libcrypto's SHA-1 can be had: 0, or 92 (traced) when it can't be
// loaded.
int user_info_sha1_ready();
// The SHA-1 digest of the bytes: 0, 92 without libcrypto, 82 when it fails.
int user_info_sha1(const uint8_t *data, size_t length, uint8_t digest[kSha1DigestSize]);
// For tests: the file loaded for SHA-1 instead of "libcrypto.so.3"; only
// before the first digest of the process.
void user_info_use_crypto_library(const char *file);

// Clears memory that held key material or clear data, in a way the
// compiler keeps.
void secure_zero(void *memory, size_t length);

} // namespace zldap

// Writes the records (those with items) to path, created readable and
// writable by its owner only. 0 or 53.
int writeUserInfoFile(const char *path, zldap::UserInfoRecord *records);

#endif
