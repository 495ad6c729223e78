// tool_options.cpp - the shared options of the tools: server, simple or
// SASL bind, password sources, time-outs, output width, controls and the
// run modes, every number checked for its range.
#include "tool_options.h"

#include "password_input.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <strings.h>
#include <unistd.h>
#include <utility>

namespace tool {

namespace {

constexpr long kMaxPort = 65535;
// Time-outs add up (connect plus operation) and go to alarm(); half the
// int range keeps the sum an int.
constexpr long kMaxSeconds = INT_MAX / 2;
// Narrower than a "dn: " and a character or two folds nothing usefully.
constexpr long kMinWrap = 3;

// The session's host argument becomes a URL when it names a scheme. The
// library has no ldapi:// or other schemes: anything with a scheme must be
// one ldap:// or ldaps:// URL (and -H takes nothing else).
int check_scheme(const char *option, const std::string &text, bool url, std::string *error)
{
    size_t scheme = text.find("://");
    bool known = scheme != std::string::npos &&
                 (strncasecmp(text.c_str(), "ldap://", 7) == 0 || strncasecmp(text.c_str(), "ldaps://", 8) == 0) &&
                 text.find("://", scheme + 3) == std::string::npos;
    if (known || (scheme == std::string::npos && !url))
        return LDAP_SUCCESS;
    *error = std::string(option) + " " + text + ": only ldap:// and ldaps:// URLs can be used (local ldapi:// "
             "connections are not available in these tools)";
    return LDAP_NOT_SUPPORTED;
}

// The first line of a key database password file, as zldapkey reads it.
int take_keydb_password(const char *program, const std::string &path, std::string *password, std::string *error)
{
    if (!read_password_file(program, path, password, error))
        return LDAP_PARAM_ERROR;
    password->resize(std::min(password->find('\n'), password->size()));
    return LDAP_SUCCESS;
}

int take_number(const std::string &option, const char *text, long min, long max, int *out, std::string *error)
{
    long value = 0;
    if (!parse_number(option, text, min, max, &value, error))
        return LDAP_PARAM_ERROR;
    *out = static_cast<int>(value);
    return LDAP_SUCCESS;
}

// -o name=value: nettimeout and timeout (seconds, or none or max for no
// limit) and ldif-wrap (columns, or no), the names ldap.conf and
// ldapsearch give them.
int take_extended(const char *arg, SessionOptions *options, std::string *error)
{
    const std::pair<const char *, std::string *> texts[] = {
        {"tls_keydb", &options->keydb}, {"tls_label", &options->label}};
    const char *equals = std::strchr(arg, '=');
    std::string name(arg, equals ? static_cast<size_t>(equals - arg) : std::strlen(arg));
    std::string value = equals ? equals + 1 : "";
    bool unlimited = value == "none" || value == "max";
    if (equals && (name == "nettimeout" || name == "timeout")) {
        int *seconds = name == "timeout" ? &options->timeout : &options->net_timeout;
        if (unlimited) {
            *seconds = 0;
            return LDAP_SUCCESS;
        }
        return take_number("-o " + name + "=", value.c_str(), 1, kMaxSeconds, seconds, error);
    }
    if (equals && (name == "ldif-wrap" || name == "ldif_wrap")) {
        long width = 0;
        if (value == "no") {
            options->wrap = ldif::kNoFolding;
            return LDAP_SUCCESS;
        }
        if (!parse_number("-o " + name + "=", value.c_str(), kMinWrap, INT_MAX, &width, error))
            return LDAP_PARAM_ERROR;
        options->wrap = static_cast<size_t>(width);
        return LDAP_SUCCESS;
    }
    for (const auto &[option, text] : texts) {
        if (equals && name == option && !value.empty()) {
            *text = value;
            return LDAP_SUCCESS;
        }
    }
    if (equals && name == "tls_keydb_pw")
        return take_keydb_password(options->program, value, &options->keydb_password, error);
    *error = std::string("-o ") + arg + ": the extended options are nettimeout=<seconds>, timeout=<seconds>, "
             "ldif-wrap=<columns>|no, tls_keydb=<file>, tls_keydb_pw=<file> and tls_label=<label>";
    return LDAP_PARAM_ERROR;
}

// -M asks for the control, a second -M makes it critical.
void take_manage_dsa_it(SessionOptions *options)
{
    for (ControlRequest &request : options->controls) {
        if (request.name == "manageDSAit") {
            request.critical = true;
            return;
        }
    }
    options->controls.push_back(ControlRequest{"manageDSAit", false, false, ""});
}

} // namespace

bool SessionOptions::ldaps() const
{
    const std::string &where = url.empty() ? host : url;
    return strncasecmp(where.c_str(), "ldaps://", 8) == 0;
}

constexpr char kCommonHelp[] =
    "Common options:\n"
    "  -H URI        ldap://host:port[/base] of the server, or ldaps:// for TLS from the start\n"
    "  -h host -p port  the server, when no -H is given (default localhost:389)\n"
    "  -x            simple authentication (the default; accepted for ldapsearch habits)\n"
    "  -D binddn     bind DN; without -D the operations run anonymously\n"
    "  -w passwd     bind password\n"
    "  -W            prompt for the bind password on the terminal, without echo\n"
    "  -y file       read the bind password from file (all of it, a final newline included)\n"
    "  -Y mech       SASL mechanism (with -U authcid, -X authzid, -R realm)\n"
    "  -e [!]ext[=param]  controls sent with every operation (! makes them critical):\n"
    "                manageDSAit, assert=<filter>, <oid>[=:<value>|::<base64 value>]\n"
    "  -M            Manage DSA IT control (-MM to make it critical)\n"
    "  -f file       read the operations from file\n"
    "  -c            continuous operation: go on after errors\n"
    "  -n            show what would be done, but send nothing\n"
    "  -v            verbose: say what is done on standard error\n"
    "  -Z            StartTLS before the bind; when it fails, warn and go on without TLS\n"
    "  -ZZ           StartTLS, which must succeed\n"
    "  -o opt=value  nettimeout=<seconds>|none (connect), timeout=<seconds>|none (each\n"
    "                operation, connect and bind included), ldif-wrap=<columns>|no (default 78)\n"
    "                for ldaps:// and -Z: tls_keydb=<file> the key database (made by zldapkey)\n"
    "                whose CA certificates verify the server, tls_keydb_pw=<file> its password\n"
    "                (the first line; without it the stash file beside the database, .sth),\n"
    "                tls_label=<label> the client key to offer (ldaps:// only)\n"
    "  --help        this text\n"
    "Exit status: the LDAP result code of the operation that decided the outcome (0 for\n"
    "success, the server's code such as 32 No such object, or the library's own codes\n"
    "from 80 up for failures on this side: 81 server down, 85 timed out, 87 bad filter,\n"
    "89 bad parameter, 92 not supported).\n";

bool parse_number(const std::string &option, const char *text, long min, long max, long *value, std::string *error)
{
    // strtol alone would skip leading blanks, take a sign and stop at the
    // first non-digit; a number here is all digits and in range.
    char *end = nullptr;
    errno = 0;
    long parsed = std::strtol(text, &end, 10);
    bool whole = std::isdigit(static_cast<unsigned char>(text[0])) && *end == '\0' && errno == 0;
    if (whole && parsed >= min && parsed <= max) {
        *value = parsed;
        return true;
    }
    *error = option + (option.back() == '=' ? "" : " ") + text + ": expected a whole number from " + std::to_string(min) + " to " +
             std::to_string(max);
    return false;
}

bool parse_limit(const std::string &option, const char *text, int *value, std::string *error)
{
    long number = 0;
    bool unlimited = std::strcmp(text, "none") == 0 || std::strcmp(text, "max") == 0 ||
                     std::strcmp(text, "unlimited") == 0;
    if (!unlimited && !parse_number(option, text, 0, INT_MAX, &number, error))
        return false;
    *value = static_cast<int>(number);
    return true;
}

bool read_operands(int argc, char **argv, const SessionOptions &options, std::vector<std::string> *operands,
                   std::string *error)
{
    if (optind < argc) {
        operands->assign(argv + optind, argv + argc);
        return true;
    }
    std::ifstream file;
    if (!options.file.empty())
        file.open(options.file);
    if (!options.file.empty() && !file) {
        *error = "cannot read " + options.file;
        return false;
    }
    std::istream &in = options.file.empty() ? std::cin : file;
    for (std::string line; std::getline(in, line);)
        if (!line.empty())
            operands->push_back(line);
    return true;
}

int usage_error(const char *usage)
{
    std::fprintf(stderr, "%s%s", usage, kCommonHelp);
    return LDAP_PARAM_ERROR;
}

int read_command_line(int argc, char **argv, const char *usage, const std::string &own_letters,
                      const TakeOption &take, SessionOptions *options)
{
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; i++) {
        if (std::strcmp(argv[i], "--help") == 0) {
            std::printf("%s%s", usage, kCommonHelp);
            return LDAP_SUCCESS;
        }
    }
    std::string letters = kSessionLetters + own_letters, error;
    for (int opt; (opt = getopt(argc, argv, letters.c_str())) != -1;) {
        int rc = LDAP_SUCCESS;
        if (own_letters.find(static_cast<char>(opt)) != std::string::npos)
            rc = take(opt, optarg, &error) ? LDAP_SUCCESS : LDAP_PARAM_ERROR;
        else
            rc = take_session_option(opt, optarg, options, &error);
        if (rc != LDAP_SUCCESS)
            return error.empty() ? usage_error(usage) : complain(options->program, error, rc);
    }
    return -1;
}

int read_command_line(int argc, char **argv, const char *usage, SessionOptions *options)
{
    auto none = [](int, const char *, std::string *) { return false; };
    return read_command_line(argc, argv, usage, "", none, options);
}

int complain(const char *program, const std::string &error, int code)
{
    std::fprintf(stderr, "%s: %s\n", program, error.c_str());
    return code;
}

int take_session_option(int letter, const char *arg, SessionOptions *options, std::string *error)
{
    error->clear();
    switch (letter) {
    case 'x': return LDAP_SUCCESS;
    case 'H': options->url = arg; return check_scheme("-H", options->url, true, error);
    case 'h': options->host = arg; return check_scheme("-h", options->host, false, error);
    case 'p': return take_number("-p", arg, 1, kMaxPort, &options->port, error);
    case 'D': options->binddn = arg; return LDAP_SUCCESS;
    case 'w': options->password = arg; return LDAP_SUCCESS;
    case 'W': options->prompt = true; return LDAP_SUCCESS;
    case 'y':
        return read_password_file(options->program, arg, &options->password, error) ? LDAP_SUCCESS : LDAP_PARAM_ERROR;
    case 'Y': options->mechanism = arg; return LDAP_SUCCESS;
    case 'U': options->authcid = arg; return LDAP_SUCCESS;
    case 'X': options->authzid = arg; return LDAP_SUCCESS;
    case 'R': options->realm = arg; return LDAP_SUCCESS;
    case 'o': return take_extended(arg, options, error);
    case 'e':
        return parse_control("-e", arg, false, &options->controls.emplace_back(), error) ? LDAP_SUCCESS
                                                                                         : LDAP_PARAM_ERROR;
    case 'M': take_manage_dsa_it(options); return LDAP_SUCCESS;
    case 'n': options->dry_run = true; return LDAP_SUCCESS;
    case 'c': options->continuous = true; return LDAP_SUCCESS;
    case 'v': options->verbose = true; return LDAP_SUCCESS;
    case 'f': options->file = arg; return LDAP_SUCCESS;
    case 'Z': options->start_tls = std::min(options->start_tls + 1, 2); return LDAP_SUCCESS;
    default: return LDAP_PARAM_ERROR; // getopt's '?', after its own message
    }
}

} // namespace tool
