// tool_options.h - the options every tool shares (server, bind, time-outs,
// output width, controls, dry runs) with the meaning OpenLDAP's tools give
// them, and the checked reading of the numbers on their command lines.
#ifndef ZLDAP_TOOLS_TOOL_OPTIONS_H
#define ZLDAP_TOOLS_TOOL_OPTIONS_H

#include "ldif.h"
#include "tool_controls.h"
#include "zor8ldap.h"

#include <functional>
#include <string>
#include <vector>

namespace tool {

// The getopt letters of the shared options.
constexpr const char *kSessionLetters = "xH:h:p:D:w:Wy:Y:U:X:R:o:e:MncvZf:";

struct SessionOptions {
    const char *program = "";       // the tool's name, for its messages
    std::string url;                // -H, an ldap:// or ldaps:// URL
    std::string host = "localhost"; // -h, when no URL is given
    int port = LDAP_PORT;           // -p
    std::string binddn;             // -D; no bind without it
    std::string password;           // -w or -y, for a SASL bind its credentials
    bool prompt = false;            // -W: ask for the password on the terminal
    std::string mechanism;          // -Y: a SASL bind with this mechanism instead of -D
    std::string authcid;            // -U: the SASL authentication id
    std::string authzid;            // -X: the SASL authorisation id
    std::string realm;              // -R: the SASL realm
    int timeout = 0;                // -o timeout=N: seconds an operation may wait, 0 for no limit
    int net_timeout = 0;            // -o nettimeout=N: seconds for the connect, 0 for the timeout value
    size_t wrap = ldif::kDefaultWidth; // -o ldif-wrap=N|no
    std::vector<ControlRequest> controls; // -e and -M (-MM critical): sent with every operation
    bool dry_run = false;           // -n: show what would be done, send nothing
    bool verbose = false;           // -v
    bool continuous = false;        // -c: go on after a failed operation
    std::string file;               // -f: the input file (LDIF, filters, ...)
    int start_tls = 0;              // -Z: 1 tries StartTLS, 2 (-ZZ) requires it
    std::string keydb;              // -o tls_keydb=FILE; empty: the library's default
    std::string keydb_password;     // first line of -o tls_keydb_pw=FILE; empty: the stash file
    std::string label;              // -o tls_label=LABEL: the client key offered (ldaps)

    // Whether the session is secure from its first byte.
    bool ldaps() const;
    // Seconds a connect may take, 0 for no limit.
    int connect_seconds() const { return net_timeout > 0 ? net_timeout : timeout; }
    // Seconds a synchronous call may take in all (it may have to connect
    // first), 0 for no limit.
    int call_seconds() const { return timeout > 0 ? connect_seconds() + timeout : 0; }
};

// Reads a whole decimal number from min to max. False with *error saying
// what the option takes otherwise.
bool parse_number(const std::string &option, const char *text, long min, long max, long *value, std::string *error);

// Reads a limit as ldapsearch takes them: a number, or "none", "max" or
// "unlimited" for no limit (0).
bool parse_limit(const std::string &option, const char *text, int *value, std::string *error);

// Takes one of the shared options. LDAP_SUCCESS, or the tool's exit code
// with *error set; an empty *error means the letter is none of them.
int take_session_option(int letter, const char *arg, SessionOptions *options, std::string *error);

// Takes one of a tool's own options: false with *error set (or left
// empty for a plain usage message) refuses it.
using TakeOption = std::function<bool(int letter, const char *arg, std::string *error)>;

// Reads the command line with getopt: the shared options, and those of
// own_letters through take. --help prints usage and the shared options
// on stdout. -1 when the tool goes on (optind at the first operand), else
// its exit code: 0 after --help, or that of a refused option after a
// message on stderr.
int read_command_line(int argc, char **argv, const char *usage, const std::string &own_letters,
                      const TakeOption &take, SessionOptions *options);
// The same for a tool that has only the shared options.
int read_command_line(int argc, char **argv, const char *usage, SessionOptions *options);

// The operands of a tool: those after the options or, when there are
// none, the non-empty lines of the -f file or of standard input. False
// with *error set when the file cannot be read.
bool read_operands(int argc, char **argv, const SessionOptions &options, std::vector<std::string> *operands,
                   std::string *error);

// Prints usage and the shared options on stderr; returns LDAP_PARAM_ERROR.
int usage_error(const char *usage);

// Prints "program: error" on stderr and returns code.
int complain(const char *program, const std::string &error, int code);

} // namespace tool

#endif
