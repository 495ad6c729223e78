// session.h - what every tool does before its work: make the session, set
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
// binds (simple, anonymously without -D, or SASL with -Y), asking for the
// password first with -W, and builds the -e and -M controls into
// *controls. NULL after a message on stderr, with *rc the tool's exit
// code; a dry run (-n) opens nothing: NULL with *rc 0.
LDAP *open_session(SessionOptions &options, ControlList *controls, int *rc);

// Prints "program: what: text (code)" on stderr and returns the code.
int report(const char *program, const std::string &what, int code);

// Prints a failed operation as ldapmodify does, with the matched DN and
// the server's text of the calling thread's last result on stderr:
// "ldap_add: No such object (32)", then "\tmatched DN: ..." and
// "\tadditional info: ..." when the server sent them. Returns code (-1
// stands for the thread's last error); prints nothing for 0.
int report_result(LDAP *ld, const char *operation, int code);

} // namespace tool

#endif
