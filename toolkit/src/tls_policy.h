// tls_policy.h - turning a socket's switches, code lists and its
// environment's FIPS and Suite B settings into OpenSSL's protocol versions,
// suites, groups and signature algorithms for one connection.
#ifndef ZOR_TLS_POLICY_H
#define ZOR_TLS_POLICY_H

#include "handles.h"

namespace zor {

// Configures ssl before its handshake; 0, 750 when no protocol version is
// left, 402 when no suite is left.
int apply_tls_policy(SSL *ssl, const ConnectionSettings &settings, const Environment &env);

// Whether a key may be used with FIPS mode on: RSA of 2048 bits or more,
// or EC on P-256, P-384 or P-521.
bool is_fips_key(EVP_PKEY *key);

} // namespace zor

#endif
