// cyrus_result.cpp - what a failure of Cyrus SASL means to the caller of a
// bind: a result code of the library, and Cyrus's own words in the trace.
#include "sasl_cyrus.h"

namespace sasl_cyrus {

namespace {

int code_for(int result)
{
    switch (result) {
    case SASL_NOMEM: return LDAP_NO_MEMORY;
    // Cyrus has no such mechanism, or none it may use here.
    case SASL_NOMECH:
    case SASL_TOOWEAK:
    case SASL_ENCRYPT: return LDAP_AUTH_UNKNOWN;
    case SASL_BADPARAM: return LDAP_PARAM_ERROR;
    // The server's challenge could not be read.
    case SASL_BADPROT: return LDAP_DECODING_ERROR;
    // Everything else, the server failing to prove itself included.
    default: return LDAP_LOCAL_ERROR;
    }
}

} // namespace

int cyrus_failure(LDAPPluginBlock *pb, sasl_conn_t *conn, const char *call, const char *mechanism, int result)
{
    int code = code_for(result);
    const char *detail = conn ? sasl_errdetail(conn) : sasl_errstring(result, nullptr, nullptr);
    pb->pb_trace(kTraceError, "sasl_cyrus_bind: Error - %s for %s failed with SASL result %d: %s; returning rc=%d\n",
                 call, mechanism, result, detail ? detail : "(null)", code);
    return code;
}

} // namespace sasl_cyrus
