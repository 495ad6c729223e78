// environment.h - an environment's initialisation and what its sockets
// share once it is initialised: the session cache and the latest suite.
#ifndef ZOR_ENVIRONMENT_H
#define ZOR_ENVIRONMENT_H

#include "handles.h"

namespace zor {

// 0, or the reason the key database, its password or the settings refuse.
int initialise_environment(Environment &env);

// A new reference to the session kept for peer, or NULL.
SSL_SESSION *cached_session(Environment &env, const std::string &peer);
void note_cipher(Environment &env, const std::string &code);

// The secure socket an SSL object belongs to (its application data).
SecureSocket *socket_of_ssl(SSL *ssl);

} // namespace zor

#endif
