// session.cpp - the session set-up the tools share (TLS, simple or SASL bind),
// the reports of failed operations, and the alarm that bounds the calls
// that wait without limit.
#include "session.h"

#include "password_input.h"
#include "secure_session.h"
#include "zor8ldap_api.h"

#include <algorithm>
#include <csignal>
#include <utility>
#include <cstdio>
#include <unistd.h>

namespace tool {

namespace {

// Made before the alarm is armed: the handler may only write it.
char g_timeout_message[1024];
size_t g_timeout_length = 0;

extern "C" void on_alarm(int)
{
    ssize_t written = write(STDERR_FILENO, g_timeout_message, g_timeout_length);
    (void)written;
    _exit(LDAP_TIMEOUT);
}

// The SASL identities go in the bind name, as the SASL plug-ins read it:
// lines of authcid=, authzid= and realm=. No identity and no password send
// neither name nor credentials, as EXTERNAL wants.
int sasl_bind(LDAP *ld, const SessionOptions &options)
{
    std::string name;
    for (const auto &[key, value] : {std::pair<const char *, const std::string &>{"authcid=", options.authcid},
                                     {"authzid=", options.authzid},
                                     {"realm=", options.realm}})
        if (!value.empty())
            name += (name.empty() ? "" : "\n") + (key + value);
    struct berval password {options.password.size(), const_cast<char *>(options.password.data())};
    return ldap_sasl_bind_s(ld, name.empty() ? nullptr : name.c_str(), options.mechanism.c_str(),
                            options.password.empty() ? nullptr : &password, nullptr, nullptr, nullptr);
}

} // namespace

Deadline::Deadline(const char *program, const std::string &what, int seconds) : armed_(seconds > 0)
{
    if (!armed_)
        return;
    int length = std::snprintf(g_timeout_message, sizeof g_timeout_message, "%s: %s: %s (%d)\n", program,
                               what.c_str(), zor_ldap_err2string(LDAP_TIMEOUT), LDAP_TIMEOUT);
    g_timeout_length = length < 0 ? 0 : std::min(static_cast<size_t>(length), sizeof g_timeout_message - 1);
    // What was printed so far must not be lost if the process ends here.
    std::fflush(stdout);
    struct sigaction action {};
    action.sa_handler = on_alarm;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, nullptr);
    alarm(static_cast<unsigned>(seconds));
}

Deadline::~Deadline()
{
    if (armed_)
        alarm(0);
}

int report(const char *program, const std::string &what, int code)
{
    std::fprintf(stderr, "%s: %s: %s (%d)\n", program, what.c_str(), zor_ldap_err2string(code), code);
    return code;
}

int report_result(LDAP *ld, const char *operation, int code)
{
    // Some calls report a failure before any result as -1.
    if (code == -1)
        code = ldap_get_errno(ld);
    if (code == LDAP_SUCCESS)
        return code;
    char *matched = nullptr, *text = nullptr;
    ldap_get_error(ld, &matched, &text);
    std::fprintf(stderr, "%s: %s (%d)\n", operation, zor_ldap_err2string(code), code);
    if (matched && *matched)
        std::fprintf(stderr, "\tmatched DN: %s\n", matched);
    if (text && *text)
        std::fprintf(stderr, "\tadditional info: %s\n", text);
    ldap_memfree(matched);
    ldap_memfree(text);
    return code;
}

LDAP *open_session(SessionOptions &options, ControlList *controls, int *rc)
{
    *rc = LDAP_SUCCESS;
    if (options.dry_run)
        return nullptr;
    const char *program = options.program;
    std::string error;
    if (!options.mechanism.empty() && !options.binddn.empty()) {
        *rc = complain(program, "-D is for simple binds; a SASL bind (-Y) takes -U, -X and -R", LDAP_PARAM_ERROR);
        return nullptr;
    }
    if (options.prompt && !prompt_password(&options.password, &error)) {
        *rc = complain(program, error, LDAP_PARAM_ERROR);
        return nullptr;
    }
    if (options.verbose)
        std::fprintf(stderr, "%s: connecting to %s\n", program,
                     options.url.empty() ? (options.host + ":" + std::to_string(options.port)).c_str()
                                         : options.url.c_str());
    if ((*rc = prepare_tls(program, options)) != LDAP_SUCCESS)
        return nullptr;
    LDAP *ld = new_session(options);
    if (!ld) {
        std::fprintf(stderr, "%s: cannot make a session for %s\n", program,
                     options.url.empty() ? options.host.c_str() : options.url.c_str());
        *rc = LDAP_PARAM_ERROR;
        return nullptr;
    }
    auto fail = [&](int code) {
        *rc = code;
        zor_ldap_unbind(ld);
        return nullptr;
    };
    // The connect is made by the first operation and is bounded by this
    // option alone: without it an unanswered connect waits for the
    // system's retries (minutes).
    struct timeval connect_timeout {options.connect_seconds(), 0};
    int code = LDAP_SUCCESS;
    if (options.connect_seconds() > 0)
        code = zor_ldap_set_option(ld, LDAP_OPT_CONNECT_TIMEOUT, &connect_timeout);
    if (code != LDAP_SUCCESS)
        return fail(report(program, "connect time-out", code));
    if ((code = start_tls(program, ld, options)) != LDAP_SUCCESS)
        return fail(code);
    if (!options.mechanism.empty()) {
        Deadline deadline(program, "bind", options.call_seconds());
        code = sasl_bind(ld, options);
    } else {
        // Without -D an anonymous bind, as ldapsearch makes: the session
        // is known to work (or not) before the first operation.
        Deadline deadline(program, "bind", options.call_seconds());
        code = zor_ldap_simple_bind_s(ld, options.binddn.c_str(), options.password.c_str());
    }
    if (code != LDAP_SUCCESS) {
        code = report_result(ld, "ldap_bind", code);
        explain_handshake(options);
        return fail(code);
    }
    if (code = controls->Build(ld, options.controls); code != LDAP_SUCCESS)
        return fail(report(program, "controls", code));
    *rc = LDAP_SUCCESS;
    return ld;
}

} // namespace tool
