// outside_keys.h - keys and certificates brought into the key database from
// files made elsewhere: a certificate in PEM or DER, a PKCS#12 file with a
// key and its certificate, or a PEM key (possibly encrypted) beside a
// certificate.
#ifndef ZOR_OUTSIDE_KEYS_H
#define ZOR_OUTSIDE_KEYS_H

#include "key_database.h"

namespace zor {

KdbStatus parse_certificate(const std::string &bytes, X509Ptr &cert);
// The key and its own certificate; further CA certificates in the file are
// not taken (trusting a CA is a separate, explicit step).
KdbStatus parse_pkcs12_key(const std::string &bytes, const std::string &password, PkeyPtr &key, X509Ptr &cert);
KdbStatus parse_pem_key(const std::string &bytes, const std::string &password, PkeyPtr &key);

} // namespace zor

#endif
