// secure_session.cpp - the tools' TLS: the toolkit is initialised once with
// the key database before any session; an ldaps:// session is made secure
// from the start, a plain one upgraded by StartTLS. A failed handshake is
// reported with the toolkit's reason, which the result codes (81, 116) do
// not carry.
#include "secure_session.h"

#include "session.h"
#include "zor8ldap_api.h"

#include <cstdio>
#include <cstdlib>

namespace tool {

namespace {

const char *or_null(const std::string &text) { return text.empty() ? nullptr : text.c_str(); }

} // namespace

int prepare_tls(const char *program, SessionOptions &options)
{
    if (!options.label.empty() && !options.ldaps())
        return complain(program, "-o tls_label is for ldaps:// servers: StartTLS offers no client key",
                        LDAP_PARAM_ERROR);
    if (!options.ldaps() && options.start_tls == 0)
        return LDAP_SUCCESS;
    if (options.ldaps() && options.start_tls > 0)
        return complain(program, "-Z is for ldap:// servers; an ldaps:// session is secure from the start",
                        LDAP_PARAM_ERROR);
    // The library is linked into the tool, so the folder it would take the
    // toolkit from is the tool's; the tool's run-time search path names the
    // folder the toolkit is in (CMakeLists.txt). A user's own setting stays.
    setenv("ZORLIB_LOCAL_INSTALL_MODE", "1", 0);
    int reason = 0;
    int rc = ldap_ssl_client_init(or_null(options.keydb), or_null(options.keydb_password), 0, &reason);
    if (rc == LDAP_SUCCESS || rc == LDAP_SECURE_INIT_DONE)
        return LDAP_SUCCESS;
    std::fprintf(stderr, "%s: key database %s: %s (%d): %s\n", program,
                 options.keydb.empty() ? "(default)" : options.keydb.c_str(), zor_ldap_err2string(rc), rc,
                 ldap_ssl_reason2string(reason));
    if (options.ldaps() || options.start_tls == 2)
        return rc;
    std::fprintf(stderr, "%s: warning: going on without TLS\n", program);
    options.start_tls = 0;
    return LDAP_SUCCESS;
}

LDAP *new_session(const SessionOptions &options)
{
    if (options.ldaps())
        return ldap_ssl_session_init(options.url.empty() ? options.host.c_str() : options.url.c_str(),
                                     options.url.empty() ? options.port : 0, or_null(options.label));
    return options.url.empty() ? zor_ldap_init(options.host.c_str(), options.port)
                               : zor_ldap_init(options.url.c_str(), 0);
}

int start_tls(const char *program, LDAP *ld, const SessionOptions &options)
{
    if (options.start_tls == 0)
        return LDAP_SUCCESS;
    int rc = LDAP_SUCCESS;
    {
        Deadline deadline(program, "StartTLS", options.call_seconds());
        rc = ldap_start_tls_s_np(ld, nullptr);
    }
    if (rc == LDAP_SUCCESS)
        return rc;
    std::fprintf(stderr, "ldap_start_tls: %s (%d)\n", zor_ldap_err2string(rc), rc);
    explain_handshake(options);
    if (options.start_tls == 2)
        return rc;
    std::fprintf(stderr, "%s: warning: StartTLS failed, going on without TLS\n", program);
    return LDAP_SUCCESS;
}

void explain_handshake(const SessionOptions &options)
{
    const char *text = nullptr;
    if ((options.ldaps() || options.start_tls > 0) && ldap_ssl_get_handshake_reason(&text) != 0)
        std::fprintf(stderr, "\tadditional info: TLS handshake failed: %s\n", text);
}

} // namespace tool
