// sha1.h - SHA-1 (FIPS 180), for the protected password of the user
// information file: a digest over a few pieces, no streaming state kept
// across calls.
#ifndef ZLDAP_SHA1_H
#define ZLDAP_SHA1_H

#include <cstddef>
#include <cstdint>

namespace zldap {

inline constexpr size_t kSha1DigestSize = 20;

// The digest of the concatenation of two byte ranges (either may be empty).
void sha1_digest(const uint8_t *first, size_t first_length, const uint8_t *second, size_t second_length,
                 uint8_t digest[kSha1DigestSize]);

} // namespace zldap

#endif
