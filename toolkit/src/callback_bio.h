// callback_bio.h - the BIO that carries a secure socket's TLS records
// through the library's read and write callbacks.
#ifndef ZOR_CALLBACK_BIO_H
#define ZOR_CALLBACK_BIO_H

#include "handles.h"

namespace zor {

// A new BIO for the socket (which must outlive it), or NULL.
BIO *new_callback_bio(SecureSocket &soc);

} // namespace zor

#endif
