// passwd_value.h - the values of the password modify extended operation
// (RFC 3062): the request's SEQUENCE of optional user, old and new
// password, and the response's generated password.
#ifndef ZLDAP_TOOLS_PASSWD_VALUE_H
#define ZLDAP_TOOLS_PASSWD_VALUE_H

#include <optional>
#include <string>

namespace tool {

constexpr const char *kPasswdModifyOid = "1.3.6.1.4.1.4203.1.11.1";
constexpr const char *kWhoAmIOid = "1.3.6.1.4.1.4203.1.11.3";

// The request value; absent parts are left out.
std::string passwd_modify_request(const std::optional<std::string> &user, const std::optional<std::string> &old_password,
                                  const std::optional<std::string> &new_password);

// The generated password of a response value, which is a SEQUENCE of an
// optional [0] element. False for bytes that are no such SEQUENCE.
bool passwd_modify_generated(const std::string &value, std::optional<std::string> *generated);

} // namespace tool

#endif
