// secure_socket.h - opening, driving and closing one secure socket.
#ifndef ZOR_SECURE_SOCKET_H
#define ZOR_SECURE_SOCKET_H

#include "handles.h"

namespace zor {

int open_secure_socket(Environment &env, SecureSocket *&out);
int handshake(SecureSocket &soc);
int secure_read(SecureSocket &soc, char *buffer, int length, int *count);
int secure_write(SecureSocket &soc, const char *buffer, int length, int *count);
void close_secure_socket(SecureSocket *soc);
int peer_certificate_info(SecureSocket &soc, zor_cert_element **elements, int *count);

} // namespace zor

#endif
