// tool_options.cpp - the shared options of the tools: server, simple or
// SASL bind and time-outs, every number checked for its range.
#include "tool_options.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace tool {

namespace {

constexpr long kMaxPort = 65535;
// Time-outs add up (connect plus operation) and go to alarm(); half the
// int range keeps the sum an int.
constexpr long kMaxSeconds = INT_MAX / 2;

// The session's host argument becomes a URL when it names a scheme. The
// library takes only the host and port from an ldaps:// URL and would
// send everything, passwords included, in clear, and it has no ldapi://
// or other schemes: so anything with a scheme must be one ldap:// URL
// (and -H takes nothing else).
int check_scheme(const char *option, const std::string &text, bool url, std::string *error)
{
    size_t scheme = text.find("://");
    bool plain = scheme != std::string::npos && strncasecmp(text.c_str(), "ldap://", 7) == 0 &&
                 text.find("://", scheme + 3) == std::string::npos;
    if (plain || (scheme == std::string::npos && !url))
        return LDAP_SUCCESS;
    *error = std::string(option) + " " + text + ": only ldap:// URLs can be used (secure ldaps:// and local "
             "ldapi:// connections are not available in these tools)";
    return LDAP_NOT_SUPPORTED;
}

int take_number(const std::string &option, const char *text, long min, long max, int *out, std::string *error)
{
    long value = 0;
    if (!parse_number(option, text, min, max, &value, error))
        return LDAP_PARAM_ERROR;
    *out = static_cast<int>(value);
    return LDAP_SUCCESS;
}

// -o name=value, of which nettimeout is the one these tools know.
int take_extended(const char *arg, SessionOptions *options, std::string *error)
{
    const char *equals = std::strchr(arg, '=');
    std::string name(arg, equals ? static_cast<size_t>(equals - arg) : std::strlen(arg));
    if (name != "nettimeout" || !equals) {
        *error = std::string("-o ") + arg + ": the only extended option is nettimeout=<seconds>";
        return LDAP_PARAM_ERROR;
    }
    return take_number("-o nettimeout=", equals + 1, 1, kMaxSeconds, &options->net_timeout, error);
}

} // namespace

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

int complain(const char *program, const std::string &error, int code)
{
    std::fprintf(stderr, "%s: %s\n", program, error.c_str());
    return code;
}

int take_session_option(int letter, const char *arg, SessionOptions *options, std::string *error)
{
    error->clear();
    switch (letter) {
    case 'H': options->url = arg; return check_scheme("-H", options->url, true, error);
    case 'h': options->host = arg; return check_scheme("-h", options->host, false, error);
    case 'p': return take_number("-p", arg, 1, kMaxPort, &options->port, error);
    case 'D': options->binddn = arg; return LDAP_SUCCESS;
    case 'w': options->password = arg; return LDAP_SUCCESS;
    case 'Y': options->mechanism = arg; return LDAP_SUCCESS;
    case 'U': options->authcid = arg; return LDAP_SUCCESS;
    case 'X': options->authzid = arg; return LDAP_SUCCESS;
    case 'R': options->realm = arg; return LDAP_SUCCESS;
    case 't': return take_number("-t", arg, 1, kMaxSeconds, &options->timeout, error);
    case 'o': return take_extended(arg, options, error);
    default: return LDAP_PARAM_ERROR;
    }
}

} // namespace tool
