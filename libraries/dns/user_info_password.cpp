// user_info_password.cpp - the protected password item: a random salt, the
// length and data XORed with a SHA-1 key stream drawn from the key and the
// salt, random padding, and a SHA-1 tag over the key and the clear blob.
// A wrong key or a damaged blob yields a decoy word instead of an error,
// so that a guess cannot be told apart from a hit.
#include "dns/sha1.h"
#include "dns/user_info.h"

#include "base/memory.h"

#include <cstdlib>
#include <cstring>

namespace zldap {
namespace {

constexpr size_t kSaltSize = 20;
constexpr size_t kLengthSize = 4;
constexpr size_t kOverhead = kSaltSize + kLengthSize + kSha1DigestSize; // 44

// The key as big-endian UCS-2: every byte preceded by a zero byte.
uint8_t *ucs2_key(const char *key, size_t *length)
{
    size_t n = std::strlen(key);
    auto *ucs = static_cast<uint8_t *>(mem_malloc(2 * n));
    if (!ucs)
        return nullptr;
    for (size_t i = 0; i < n; i++) {
        ucs[2 * i] = 0;
        ucs[2 * i + 1] = static_cast<uint8_t>(key[i]);
    }
    *length = 2 * n;
    return ucs;
}

// XORs count bytes with the key stream of the key and salt: each 20-byte
// block is SHA-1 of the key followed by the previous block (the salt
// before the first).
void xor_key_stream(const uint8_t *ucs, size_t ucs_length, const uint8_t *salt, uint8_t *target, size_t count)
{
    uint8_t chain[kSha1DigestSize];
    std::memcpy(chain, salt, sizeof chain);
    for (size_t done = 0; done < count; done += kSha1DigestSize) {
        sha1_digest(ucs, ucs_length, chain, sizeof chain, chain);
        size_t take = count - done < kSha1DigestSize ? count - done : kSha1DigestSize;
        for (size_t i = 0; i < take; i++)
            target[done + i] ^= chain[i];
    }
    secure_zero(chain, sizeof chain);
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
    size_t ucs_length = 0;
    uint8_t *ucs = ucs2_key(key, &ucs_length);
    if (!ucs)
        return LDAP_NO_MEMORY;
    rand_r(&seed);
    size_t total = static_cast<size_t>(rand_r(&seed) & 0x3ff);
    if (total < n + kOverhead)
        total += n + kOverhead;
    auto *out = static_cast<uint8_t *>(mem_malloc(total));
    if (!out) {
        secure_zero(ucs, ucs_length);
        mem_free(ucs);
        return LDAP_NO_MEMORY;
    }
    for (size_t i = 0; i < total; i++)
        out[i] = static_cast<uint8_t>(rand_r(&seed));
    uint32_t stored = static_cast<uint32_t>(n + kLengthSize);
    const uint8_t length_bytes[4] = {static_cast<uint8_t>(stored >> 24), static_cast<uint8_t>(stored >> 16),
                                     static_cast<uint8_t>(stored >> 8), static_cast<uint8_t>(stored)};
    std::memcpy(out + kSaltSize, length_bytes, sizeof length_bytes);
    if (n > 0)
        std::memcpy(out + kSaltSize + kLengthSize, data, n);
    sha1_digest(ucs, ucs_length, out, total - kSha1DigestSize, out + total - kSha1DigestSize);
    xor_key_stream(ucs, ucs_length, out, out + kSaltSize, stored);
    secure_zero(ucs, ucs_length);
    mem_free(ucs);
    *blob = out;
    *blob_length = total;
    return LDAP_SUCCESS;
}

int user_info_recover(const char *key, const uint8_t *blob, size_t m, char **data, int *data_length)
{
    *data = nullptr;
    *data_length = 0;
    uint64_t decoy_seed = fold(blob, m) ^ fold(reinterpret_cast<const uint8_t *>(key), std::strlen(key));
    char word[16];
    if (m < kOverhead)
        return hand_out(word, user_info_decoy_word(decoy_seed, word), data, data_length);

    size_t ucs_length = 0;
    uint8_t *ucs = ucs2_key(key, &ucs_length);
    uint8_t *copy = ucs ? static_cast<uint8_t *>(mem_malloc(m)) : nullptr;
    int rc = LDAP_NO_MEMORY;
    if (copy) {
        std::memcpy(copy, blob, m);
        uint8_t length_bytes[4];
        std::memcpy(length_bytes, blob + kSaltSize, sizeof length_bytes);
        xor_key_stream(ucs, ucs_length, blob, length_bytes, sizeof length_bytes);
        uint32_t stored = get32(length_bytes);
        uint8_t tag[kSha1DigestSize];
        bool genuine = stored >= kLengthSize && stored <= m - 40;
        if (genuine) {
            xor_key_stream(ucs, ucs_length, blob, copy + kSaltSize, stored);
            sha1_digest(ucs, ucs_length, copy, m - kSha1DigestSize, tag);
            genuine = std::memcmp(tag, blob + m - kSha1DigestSize, sizeof tag) == 0;
        }
        if (genuine)
            rc = hand_out(reinterpret_cast<char *>(copy + kSaltSize + kLengthSize), stored - kLengthSize, data,
                          data_length);
        else
            rc = hand_out(word, user_info_decoy_word(decoy_seed, word), data, data_length);
        secure_zero(copy, m);
    }
    if (ucs)
        secure_zero(ucs, ucs_length);
    mem_free(copy);
    mem_free(ucs);
    return rc;
}

} // namespace zldap
