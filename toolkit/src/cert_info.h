// cert_info.h - the elements of attribute 700 for one certificate.
#ifndef ZOR_CERT_INFO_H
#define ZOR_CERT_INFO_H

#include "openssl_ptr.h"
#include "zor_toolkit.h"

#include <string>
#include <vector>

namespace zor {

struct CertText {
    int type;
    std::string text;
};

std::vector<CertText> describe_certificate(X509 *cert);

} // namespace zor

#endif
