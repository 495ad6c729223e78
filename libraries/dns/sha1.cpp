// sha1.cpp - SHA-1 over two concatenated byte ranges.
#include "dns/sha1.h"

#include <cstring>

namespace zldap {
namespace {

uint32_t rotl(uint32_t value, int bits) { return (value << bits) | (value >> (32 - bits)); }

void compress(uint32_t state[5], const uint8_t block[64])
{
    uint32_t w[80];
    for (int i = 0; i < 16; i++)
        w[i] = static_cast<uint32_t>(block[4 * i]) << 24 | static_cast<uint32_t>(block[4 * i + 1]) << 16 |
               static_cast<uint32_t>(block[4 * i + 2]) << 8 | block[4 * i + 3];
    for (int i = 16; i < 80; i++)
        w[i] = rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
    for (int i = 0; i < 80; i++) {
        uint32_t f, k;
        if (i < 20) {
            f = (b & c) | (~b & d);
            k = 0x5A827999;
        } else if (i < 40) {
            f = b ^ c ^ d;
            k = 0x6ED9EBA1;
        } else if (i < 60) {
            f = (b & c) | (b & d) | (c & d);
            k = 0x8F1BBCDC;
        } else {
            f = b ^ c ^ d;
            k = 0xCA62C1D6;
        }
        uint32_t t = rotl(a, 5) + f + e + k + w[i];
        e = d;
        d = c;
        c = rotl(b, 30);
        b = a;
        a = t;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
}

// Feeds bytes through a 64-byte block buffer.
struct Sha1 {
    uint32_t state[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    uint8_t block[64] = {};
    size_t filled = 0;
    uint64_t total = 0;

    void update(const uint8_t *data, size_t length)
    {
        total += length;
        while (length > 0) {
            size_t take = sizeof block - filled < length ? sizeof block - filled : length;
            std::memcpy(block + filled, data, take);
            filled += take;
            data += take;
            length -= take;
            if (filled == sizeof block) {
                compress(state, block);
                filled = 0;
            }
        }
    }

    void finish(uint8_t digest[kSha1DigestSize])
    {
        uint64_t bits = total * 8;
        static const uint8_t kPad = 0x80;
        static const uint8_t kZero[64] = {};
        update(&kPad, 1);
        update(kZero, (filled <= 56 ? 56 : 120) - filled);
        uint8_t length_bytes[8];
        for (int i = 0; i < 8; i++)
            length_bytes[i] = static_cast<uint8_t>(bits >> (56 - 8 * i));
        update(length_bytes, sizeof length_bytes);
        for (int i = 0; i < 5; i++)
            for (int j = 0; j < 4; j++)
                digest[4 * i + j] = static_cast<uint8_t>(state[i] >> (24 - 8 * j));
        std::memset(block, 0, sizeof block);
    }
};

} // namespace

void sha1_digest(const uint8_t *first, size_t first_length, const uint8_t *second, size_t second_length,
                 uint8_t digest[kSha1DigestSize])
{
    Sha1 sha;
    sha.update(first, first_length);
    sha.update(second, second_length);
    sha.finish(digest);
}

} // namespace zldap
