// session.h - what both tools do before their work: make the session, set
// the connect time-out, bind; and the bound on calls that have none.
#ifndef ZLDAP_TOOLS_SESSION_H
#define ZLDAP_TOOLS_SESSION_H

#include "tool_options.h"

namespace tool {

// Ends the process with LDAP_TIMEOUT (85) and a message on stderr when the
// call made while it is alive takes longer than seconds (0: no bound).
//
// The tools call the exported family (and the SASL bind, see
// CMakeLists.txt), whose binds and updates wait for their answer without
// limit and hand out neither a message id nor a descriptor to wait on.
// The bound therefore comes from outside the library: an alarm. A tool is
// one thread and has nothing left to do once a call has timed out, so the
// handler reports and calls _exit (both async-signal-safe) and never
// returns into the library.
class Deadline {
public:
    Deadline(const char *program, const std::string &what, int seconds);
    ~Deadline();
    Deadline(const Deadline &) = delete;
    Deadline &operator=(const Deadline &) = delete;

private:
    bool armed_;
};

// Makes the session the options name, with their connect time-out, and
// binds when they give a DN (simple) or a mechanism (SASL). NULL after a message on stderr, with *rc the
// tool's exit code.
LDAP *open_session(const char *program, const SessionOptions &options, int *rc);

// Prints "program: what: text (code)" on stderr and returns the code.
int report(const char *program, const std::string &what, int code);

} // namespace tool

#endif
