// password_input.h - the bind password from a file (-y) or typed at the
// terminal without echo (-W), as ldapsearch takes them.
#ifndef ZLDAP_TOOLS_PASSWORD_INPUT_H
#define ZLDAP_TOOLS_PASSWORD_INPUT_H

#include <string>

namespace tool {

// The whole file is the password, a final newline included, as with
// ldapsearch -y. Warns on stderr when others may read or write the file.
// False with *error set when it cannot be read.
bool read_password_file(const char *program, const std::string &path, std::string *password, std::string *error);

// Asks "Enter LDAP Password: " on the terminal (/dev/tty, not standard
// input, which may carry LDIF) with echo off and reads one line. False
// with *error set when there is no terminal.
bool prompt_password(std::string *password, std::string *error);

} // namespace tool

#endif
