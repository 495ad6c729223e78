// secure_session.h - TLS for the tools: the key database the toolkit
// verifies servers with, sessions secure from the first byte (ldaps://),
// StartTLS (-Z, -ZZ), and saying why a handshake failed.
#ifndef ZLDAP_TOOLS_SECURE_SESSION_H
#define ZLDAP_TOOLS_SECURE_SESSION_H

#include "tool_options.h"

namespace tool {

// Opens the key database of the options when the session will need it
// (ldaps:// or -Z), before the session is made. LDAP_SUCCESS, or the exit
// code after a message; with -Z alone a failure is a warning and clears
// options.start_tls.
int prepare_tls(const char *program, SessionOptions &options);

// A new session for the options: secure on every connection for an
// ldaps:// URL (offering the -o tls_label key), else plain. NULL when none
// can be made.
LDAP *new_session(const SessionOptions &options);

// StartTLS as -Z or -ZZ ask. LDAP_SUCCESS to go on (with -Z after a
// warning when it failed), else the exit code after a message.
int start_tls(const char *program, LDAP *ld, const SessionOptions &options);

// After a failure of a secure session: "\tadditional info: ..." on stderr
// with the toolkit's reason when a handshake failed.
void explain_handshake(const SessionOptions &options);

} // namespace tool

#endif
