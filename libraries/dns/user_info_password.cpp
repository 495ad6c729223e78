// user_info_password.cpp - the protected password item: a random salt, the
// length and data XORed with a SHA-1 key stream drawn from the key and the
// salt, random padding, and a SHA-1 tag over the key and the clear blob.
// A wrong key or a damaged blob yields a decoy word instead of an error,
// so that a guess cannot be told apart from a hit.
#include "dns/user_info.h"

#include "base/memory.h"

#include <cstdlib>
#include <cstring>

namespace zldap {
namespace {

constexpr size_t kSaltSize = 20;
constexpr size_t kLengthSize = 4;
constexpr size_t kOverhead = kSaltSize + kLengthSize + kSha1DigestSize; // 44

// The key as big-endian UCS-2 (every byte preceded by a zero byte) with
// room for a 20-byte block after it: the text the key stream hashes.
struct Key {
    uint8_t *bytes;
    size_t length; // of the UCS-2 part
};

bool make_key(const char *key, Key *out)
{
    size_t n = std::strlen(key);
    out->length = 2 * n;
    out->bytes = static_cast<uint8_t *>(mem_malloc(out->length + kSha1DigestSize));
    for (size_t i = 0; out->bytes && i < n; i++) {
        out->bytes[2 * i] = 0;
        out->bytes[2 * i + 1] = static_cast<uint8_t>(key[i]);
    }
    return out->bytes != nullptr;
}

void free_key(Key *key)
{
    if (key->bytes)
        secure_zero(key->bytes, key->length + kSha1DigestSize);
    mem_free(key->bytes);
    key->bytes = nullptr;
}

// XORs count bytes with the key stream of the key and salt: each 20-byte
// block is SHA-1 of the key followed by the previous block (the salt
// before the first). 0 or the digest's failure.
int xor_key_stream(Key *key, const uint8_t *salt, uint8_t *target, size_t count)
{
    uint8_t *chain = key->bytes + key->length;
    std::memcpy(chain, salt, kSha1DigestSize);
    uint8_t block[kSha1DigestSize];
    int rc = LDAP_SUCCESS;
    for (size_t done = 0; rc == LDAP_SUCCESS && done < count; done += kSha1DigestSize) {
        rc = user_info_sha1(key->bytes, key->length + kSha1DigestSize, block);
        std::memcpy(chain, block, sizeof block);
        size_t take = count - done < kSha1DigestSize ? count - done : kSha1DigestSize;
        for (size_t i = 0; rc == LDAP_SUCCESS && i < take; i++)
            target[done + i] ^= block[i];
    }
    secure_zero(block, sizeof block);
    return rc;
}

// SHA-1 of the key followed by n bytes. 0, 90 or the digest's failure.
int tag_of(const Key *key, const uint8_t *bytes, size_t n, uint8_t tag[kSha1DigestSize])
{
    auto *joined = static_cast<uint8_t *>(mem_malloc(key->length + n));
    if (!joined)
        return LDAP_NO_MEMORY;
    std::memcpy(joined, key->bytes, key->length);
    std::memcpy(joined + key->length, bytes, n);
    int rc = user_info_sha1(joined, key->length + n, tag);
    secure_zero(joined, key->length + n);
    mem_free(joined);
    return rc;
}

uint32_t get32(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
           p[3];
}

// XOR of the bytes taken as little-endian 8-byte words, the last one
// padded with zero bytes.
uint64_t fold(const uint8_t *bytes, size_t length)
{
    uint64_t value = 0;
    for (size_t i = 0; i < length; i++)
        value ^= static_cast<uint64_t>(bytes[i]) << (8 * (i % 8));
    return value;
}

int hand_out(const char *bytes, size_t length, char **data, int *data_length)
{
    *data = static_cast<char *>(mem_malloc(length + 1));
    if (!*data)
        return LDAP_NO_MEMORY;
    std::memcpy(*data, bytes, length);
    (*data)[length] = '\0';
    *data_length = static_cast<int>(length);
    return LDAP_SUCCESS;
}

} // namespace

int user_info_protect(const char *key, const uint8_t *data, size_t n, unsigned seed, uint8_t **blob,
                      size_t *blob_length)
{
    *blob = nullptr;
    Key k;
    if (!make_key(key, &k))
        return LDAP_NO_MEMORY;
    rand_r(&seed);
    size_t total = static_cast<size_t>(rand_r(&seed) & 0x3ff);
    if (total < n + kOverhead)
        total += n + kOverhead;
    auto *out = static_cast<uint8_t *>(mem_malloc(total));
    int rc = out ? LDAP_SUCCESS : LDAP_NO_MEMORY;
    uint32_t stored = static_cast<uint32_t>(n + kLengthSize);
    if (out) {
        for (size_t i = 0; i < total; i++)
            out[i] = static_cast<uint8_t>(rand_r(&seed));
        const uint8_t length_bytes[4] = {static_cast<uint8_t>(stored >> 24), static_cast<uint8_t>(stored >> 16),
                                         static_cast<uint8_t>(stored >> 8), static_cast<uint8_t>(stored)};
        std::memcpy(out + kSaltSize, length_bytes, sizeof length_bytes);
        if (n > 0)
            std::memcpy(out + kSaltSize + kLengthSize, data, n);
        rc = tag_of(&k, out, total - kSha1DigestSize, out + total - kSha1DigestSize);
    }
    if (rc == LDAP_SUCCESS)
        rc = xor_key_stream(&k, out, out + kSaltSize, stored);
    free_key(&k);
    if (rc != LDAP_SUCCESS) {
        if (out)
            secure_zero(out, total);
        mem_free(out);
        return rc;
    }
    *blob = out;
    *blob_length = total;
    return LDAP_SUCCESS;
}

int user_info_recover(const char *key, const uint8_t *blob, size_t m, char **data, int *data_length)
{
    *data = nullptr;
    *data_length = 0;
    // Without SHA-1 no answer is given at all, not even a decoy.
    int rc = user_info_sha1_ready();
    if (rc != LDAP_SUCCESS)
        return rc;
    uint64_t decoy_seed = fold(blob, m) ^ fold(reinterpret_cast<const uint8_t *>(key), std::strlen(key));
    char word[16];
    if (m < kOverhead)
        return hand_out(word, user_info_decoy_word(decoy_seed, word), data, data_length);

    Key k;
    uint8_t *copy = make_key(key, &k) ? static_cast<uint8_t *>(mem_malloc(m)) : nullptr;
    rc = copy ? LDAP_SUCCESS : LDAP_NO_MEMORY;
    uint32_t stored = 0;
    bool genuine = false;
    if (copy) {
        std::memcpy(copy, blob, m);
        uint8_t length_bytes[4];
        std::memcpy(length_bytes, blob + kSaltSize, sizeof length_bytes);
        rc = xor_key_stream(&k, blob, length_bytes, sizeof length_bytes);
        stored = get32(length_bytes);
        genuine = rc == LDAP_SUCCESS && stored >= kLengthSize && stored <= m - 40;
    }
    if (genuine) {
        uint8_t tag[kSha1DigestSize];
        rc = xor_key_stream(&k, blob, copy + kSaltSize, stored);
        if (rc == LDAP_SUCCESS)
            rc = tag_of(&k, copy, m - kSha1DigestSize, tag);
        genuine = rc == LDAP_SUCCESS && std::memcmp(tag, blob + m - kSha1DigestSize, sizeof tag) == 0;
    }
    if (rc == LDAP_SUCCESS && genuine)
        rc = hand_out(reinterpret_cast<char *>(copy + kSaltSize + kLengthSize), stored - kLengthSize, data,
                      data_length);
    else if (rc == LDAP_SUCCESS)
        rc = hand_out(word, user_info_decoy_word(decoy_seed, word), data, data_length);
    if (copy)
        secure_zero(copy, m);
    mem_free(copy);
    free_key(&k);
    return rc;
}

} // namespace zldap
