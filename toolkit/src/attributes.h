// attributes.h - setting and reading the attributes of environments and
// secure sockets, by identifier. Each returns 0 or a reason code; an
// identifier that does not belong to the handle's kind is 701.
#ifndef ZOR_ATTRIBUTES_H
#define ZOR_ATTRIBUTES_H

#include "handles.h"

#include <string_view>

namespace zor {

int set_environment_buffer(Environment &env, int id, std::string_view value);
int get_environment_buffer(Environment &env, int id, const char **value, int *length);
int set_environment_enum(Environment &env, int id, int value);
int get_environment_enum(const Environment &env, int id, int *value);
int set_environment_numeric(Environment &env, int id, int value);
int get_environment_numeric(const Environment &env, int id, int *value);

int set_socket_buffer(SecureSocket &soc, int id, std::string_view value);
int get_socket_buffer(SecureSocket &soc, int id, const char **value, int *length);
int set_socket_enum(SecureSocket &soc, int id, int value);
int get_socket_enum(const SecureSocket &soc, int id, int *value);
int set_socket_numeric(SecureSocket &soc, int id, int value);
int get_socket_numeric(const SecureSocket &soc, int id, int *value);

// Hexadecimal code lists as the attributes take them: only hex digits; an
// incomplete last code is ignored where the list is used.
bool is_code_list(std::string_view text);

} // namespace zor

#endif
