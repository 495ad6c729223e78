// search.cpp - the search family. The forms differ in where the size
// limit, the server-side time limit and the wait come from, and callers
// rely on those differences.
#include "ops/search.h"

#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "engine/ldap_request.h"
#include "engine/ldap_result.h"
#include "ops/ldap_operation.h"
#include "proto/filter.h"
#include "session/ldap_options.h"

#define LDAP_MODULE "libraries/libldap/search"

namespace {

constexpr int kSearchRequest = 0x63;

bool bad_search_arguments(LDAP *ld, int scope, const char *filter)
{
    return !ld || scope < LDAP_SCOPE_BASE || scope > LDAP_SCOPE_SUBTREE || !filter;
}

// The server time limit a time-out stands for: its seconds, at least 1
// when only microseconds are given.
int time_limit_of(const struct timeval *timeout)
{
    if (timeout->tv_sec == 0 && timeout->tv_usec > 0)
        return 1;
    return static_cast<int>(timeout->tv_sec);
}

// ldap_search_ext; a caller that holds the guard on ld already passes
// entered, so that the handle is not counted in twice.
int search_ext(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
               LDAPControl **serverctrls, LDAPControl **clientctrls, struct timeval *timeout, int sizelimit,
               int *msgidp, bool entered)
{
    LDAP_TRACE(TRC_API, "ldap_search_ext\n");
    if (bad_search_arguments(ld, scope, filter) || !msgidp)
        return LDAP_PARAM_ERROR;
    *msgidp = -1;
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error, !entered);
    if (!op.admitted())
        return op.code();
    zldap::OperationControls controls(ld, serverctrls, clientctrls);
    if (controls.code() != LDAP_SUCCESS)
        return controls.code();
    return ldap_search_ext_direct(ld, base, scope, filter, attrs, attrsonly, controls.server(), sizelimit,
                                  timeout, msgidp, nullptr);
}

// ldap_search, with entered as for search_ext.
int search(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly, bool entered)
{
    if (bad_search_arguments(ld, scope, filter)) {
        LDAP_TRACE(TRC_ERROR,
                   "ldap_search: bad ld, base, scope or filter provided ld(%x) base(%s) scope(%d) filter(%s)\n",
                   static_cast<unsigned>(reinterpret_cast<uintptr_t>(ld)), trace_str(base), scope,
                   trace_str(filter));
        if (ld)
            ldap_set_error_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
        return -1;
    }
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error, !entered);
    if (!op.admitted())
        return -1;
    NumericOptions options = ldap_numeric_options(ld);
    // The handle's time limit is also the write's time-out; a limit of 0
    // leaves the write without one.
    struct timeval timeout {};
    timeout.tv_sec = options.timelimit;
    int msgid = -1;
    int rc = search_ext(ld, base, scope, filter, attrs, attrsonly, nullptr, nullptr, &timeout, options.sizelimit,
                        &msgid, true);
    // -1 leaves the reason in the thread's error, also when ldap_search_ext
    // recorded none.
    return rc == LDAP_SUCCESS ? msgid : ldap_fail_returning(ld, rc, -1);
}

} // namespace

int ldap_search_ext_direct(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                           int attrsonly, LDAPControl **serverctrls, int sizelimit, struct timeval *timeout,
                           int *msgidp, LDAPConn *lc)
{
    LDAP_TRACE(TRC_API, "ldap_search_ext_direct\n");
    NumericOptions options = ldap_numeric_options(ld);
    int deref = options.deref;
    int timelimit = timeout ? time_limit_of(timeout) : options.timelimit;
    auto encode = [&](BerElement *ber) {
        if (FberWriter(ber)
                .open(kSearchRequest)
                .string(base ? base : "")
                .enumerated(scope)
                .enumerated(deref)
                .integer(sizelimit)
                .integer(timelimit)
                .boolean(attrsonly)
                .finish() != 0)
            return LDAP_ENCODING_ERROR;
        LDAP_TRACE(TRC_API, "putting filter %s into ber\n", filter);
        if (put_filter(ber, filter, 0) != 0)
            return LDAP_FILTER_ERROR;
        return FberWriter(ber).open().strings(attrs).close().close().finish() == 0 ? LDAP_SUCCESS
                                                                                   : LDAP_ENCODING_ERROR;
    };
    zldap::RequestPlan plan{"ldap_search_ext_direct: NULL server connection\n", kSearchRequest, serverctrls, encode};
    return zldap::send_request(ld, lc, plan, msgidp, timeout);
}

int ldap_search_ext(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                    LDAPControl **serverctrls, LDAPControl **clientctrls, struct timeval *timeout,
                    int sizelimit, int *msgidp)
{
    return search_ext(ld, base, scope, filter, attrs, attrsonly, serverctrls, clientctrls, timeout, sizelimit,
                      msgidp, false);
}

int ldap_search(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly)
{
    return search(ld, base, scope, filter, attrs, attrsonly, false);
}

int ldap_search_ext_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                      int attrsonly, LDAPControl **serverctrls, LDAPControl **clientctrls,
                      struct timeval *timeout, int sizelimit, LDAPMessage **res)
{
    LDAP_TRACE(TRC_API, "ldap_search_ext_s\n");
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return op.code();
    if (!res)
        return LDAP_PARAM_ERROR;
    *res = nullptr;
    int msgid = -1;
    int rc = search_ext(ld, base, scope, filter, attrs, attrsonly, serverctrls, clientctrls, timeout, sizelimit,
                        &msgid, true);
    if (rc != LDAP_SUCCESS)
        return rc;
    // An all-zero time-out here means no limit, not a single poll.
    if (timeout && timeout->tv_sec == 0 && timeout->tv_usec == 0)
        timeout = nullptr;
    return zldap::wait_for_search_result(ld, msgid, timeout, res);
}

int ldap_search_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                  LDAPMessage **res)
{
    LDAP_TRACE(TRC_API, "ldap_search_s\n");
    int rc = ldap_search_ext_s(ld, base, scope, filter, attrs, attrsonly, nullptr, nullptr, nullptr, 0, res);
    LDAP_TRACE(TRC_API, "ldap_search_s: returning rc=%d\n", rc);
    return rc;
}

int ldap_search_st(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                   struct timeval *timeout, LDAPMessage **res)
{
    LDAP_TRACE(TRC_API, "ldap_search_st\n");
    // A failed ldap_search reports itself through the error: it must not be
    // an earlier operation's.
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (!op.admitted())
        return op.code();
    if (!res)
        return LDAP_PARAM_ERROR;
    *res = nullptr;
    int rc;
    int msgid = search(ld, base, scope, filter, attrs, attrsonly, true);
    if (msgid < 0) {
        // Every refusal records its reason; should one not, success must
        // still not be the answer.
        rc = ldap_get_errno_direct(ld);
        if (rc == LDAP_SUCCESS)
            rc = LDAP_PARAM_ERROR;
    } else {
        rc = zldap::wait_for_search_result(ld, msgid, timeout, res);
    }
    LDAP_TRACE(TRC_API, "ldap_search_st: returning rc=%d\n", rc);
    return rc;
}
