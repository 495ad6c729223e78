// tool_options.h - the options both tools share (server, bind, time-outs)
// and the checked reading of the numbers on their command lines.
#ifndef ZLDAP_TOOLS_TOOL_OPTIONS_H
#define ZLDAP_TOOLS_TOOL_OPTIONS_H

#include "zor8ldap.h"

#include <string>

namespace tool {

// The getopt letters of the shared options.
constexpr const char *kSessionLetters = "H:h:p:D:w:t:o:Y:U:X:R:";

struct SessionOptions {
    std::string url;                // -H, an ldap:// URL
    std::string host = "localhost"; // -h, when no URL is given
    int port = LDAP_PORT;           // -p
    std::string binddn;             // -D; no bind without it
    std::string password;           // -w, for a SASL bind its credentials
    std::string mechanism;          // -Y: a SASL bind with this mechanism instead of -D
    std::string authcid;            // -U: the SASL authentication id
    std::string authzid;            // -X: the SASL authorisation id
    std::string realm;              // -R: the SASL realm
    int timeout = 0;                // -t: seconds an operation may wait, 0 for no limit
    int net_timeout = 0;            // -o nettimeout=N: seconds for the connect, 0 for the -t value

    // Seconds a connect may take, 0 for no limit.
    int connect_seconds() const { return net_timeout > 0 ? net_timeout : timeout; }
    // Seconds a synchronous call may take in all (it may have to connect
    // first), 0 for no limit.
    int call_seconds() const { return timeout > 0 ? connect_seconds() + timeout : 0; }
};

// Reads a whole decimal number from min to max. False with *error saying
// what the option takes otherwise.
bool parse_number(const std::string &option, const char *text, long min, long max, long *value, std::string *error);

// Takes one of the shared options. LDAP_SUCCESS, or the tool's exit code
// with *error set; an empty *error means the letter is none of them.
int take_session_option(int letter, const char *arg, SessionOptions *options, std::string *error);

// Prints "program: error" on stderr and returns code.
int complain(const char *program, const std::string &error, int code);

} // namespace tool

#endif
