// ldap_bind.cpp - binds. A simple bind sends a name and a password; a SASL
// bind is first offered to a plug-in, sends the request itself when none
// takes it, and records what it did in the handle so that referrals can
// bind the same way to another server.
#include "ops/ldap_bind.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "engine/ldap_request.h"
#include "engine/ldap_result.h"
#include "ops/ldap_operation.h"
#include "proto/ldap_controls.h"
#include "results/parse_result.h"
#include "results/results.h"
#include "session/ldap_options.h"

#include <cstring>
#include <strings.h>

#define LDAP_MODULE "libraries/libldap/ldap_bind"

namespace {

constexpr int kBindRequest = 0x60;
constexpr ber_tag_t kSimpleAuth = 0x80;
constexpr ber_tag_t kSaslAuth = 0xA3;
constexpr int kSaslMethod = 2;

ber_tag_t tag(int t) { return static_cast<ber_tag_t>(t); }

int protocol_version(LDAP *ld, int *version) { return ldap_get_option(ld, LDAP_OPT_PROTOCOL_VERSION, version); }

// A copy of the credentials: their bytes, a NUL, their length.
struct berval *copy_credentials(const struct berval *cred)
{
    auto *copy = static_cast<struct berval *>(zldap::mem_calloc(1, sizeof(struct berval)));
    if (!copy)
        return nullptr;
    copy->bv_len = cred->bv_len;
    copy->bv_val = static_cast<char *>(zldap::mem_malloc(cred->bv_len + 1));
    if (!copy->bv_val) {
        zldap::mem_free(copy);
        return nullptr;
    }
    if (cred->bv_len)
        std::memcpy(copy->bv_val, cred->bv_val, cred->bv_len);
    copy->bv_val[cred->bv_len] = '\0';
    return copy;
}

// Records a SASL bind in the handle: method, mechanism, credentials and the
// bind's controls as the handle's defaults. 0, 90 or 129.
int record_sasl_bind(LDAP *ld, const char *mechanism, const struct berval *cred, LDAPControl **serverctrls,
                     LDAPControl **clientctrls)
{
    char *mech = zldap::mem_strdup(mechanism);
    struct berval *cred_copy = cred ? copy_credentials(cred) : nullptr;
    if (!mech || (cred && !cred_copy)) {
        zldap::mem_free(mech);
        ber_bvfree(cred_copy);
        return ldap_fail(ld, LDAP_NO_MEMORY);
    }
    LDAP_MUTEX_GUARD(guard, &ld->ld_mutex);
    if (!guard.locked()) {
        zldap::mem_free(mech);
        ber_bvfree(cred_copy);
        return ldap_fail(ld, LDAP_LOCK_ERROR);
    }
    ld->ld_bind_method = kSaslMethod;
    zldap::mem_free(ld->ld_bind_dn);
    ld->ld_bind_dn = mech;
    ber_bvfree(ld->ld_bind_cred);
    ld->ld_bind_cred = cred_copy;
    int rc = ldap_set_option_direct(ld, LDAP_OPT_SERVER_CONTROLS, serverctrls);
    if (rc == LDAP_SUCCESS)
        rc = ldap_set_option_direct(ld, LDAP_OPT_CLIENT_CONTROLS, clientctrls);
    return rc;
}

// Ends a synchronous SASL bind: keeps the response's controls on the
// default connection, hands out the server's credentials and returns the
// result code, with the response's matched DN and text as the thread's
// error. The response is released.
int finish_sasl_bind(LDAP *ld, LDAPMessage *res, struct berval **servercredp)
{
    char *matched = nullptr;
    char *text = nullptr;
    LDAPControl **ctrls = nullptr;
    int rc = ldap_parse_result_direct(ld, res, nullptr, &matched, &text, nullptr, &ctrls, 0);
    if (rc != LDAP_SUCCESS)
        LDAP_TRACE(TRC_ERROR, "ldap_sasl_bind_s_int: couldn't parse result for controls. rc = %d\n", rc);
    ldap_store_bind_controls(ld, ctrls);
    ldap_controls_free(ctrls);
    bool bind_response = res->msg_type == LDAP_RES_BIND;
    rc = ldap_parse_sasl_bind_result_direct(ld, res, servercredp, 1);
    // The parser keeps a message of another type: one a server sent in
    // answer to the bind is released here.
    if (!bind_response)
        ldap_msgfree_direct(res);
    ldap_set_error_direct(ld, rc, matched, text);
    zldap::mem_free(matched);
    zldap::mem_free(text);
    return rc;
}

// Waits for the response to a bind sent with msgid and ends it as above.
int await_bind_response(LDAP *ld, int msgid, struct berval **servercredp)
{
    LDAPMessage *res = nullptr;
    if (ldap_result_int(ld, msgid, LDAP_MSG_ALL, nullptr, &res) == -1 || !res)
        return ldap_get_errno_direct(ld);
    return finish_sasl_bind(ld, res, servercredp);
}

} // namespace

int ldap_simple_bind_direct(LDAP *ld, const char *dn, const char *passwd, LDAPControl **serverctrls,
                            int *msgidp, LDAPConn *lc)
{
    LDAP_TRACE(TRC_API,
               "ldap_simple_bind_direct: entering with ld(%x) dn(%s) pw(***) serverctrls(%x) msgidp(%p) connection(%x)\n",
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(ld)), trace_str(dn, "<NULL>"),
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(serverctrls)), static_cast<void *>(msgidp),
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(lc)));
    *msgidp = -1;
    int version = 0;
    int rc = protocol_version(ld, &version);
    if (rc != LDAP_SUCCESS)
        return rc;
    auto encode = [&](BerElement *ber) {
        return fber_printf(ber, "t{ists}", tag(kBindRequest), version, dn ? dn : "", kSimpleAuth,
                           passwd ? passwd : "") == 0
                   ? LDAP_SUCCESS
                   : LDAP_ENCODING_ERROR;
    };
    rc = zldap::send_request(ld, lc, {"ldap_simple_bind_direct: found NULL server\n", kBindRequest, serverctrls, encode},
                             msgidp);
    if (rc != LDAP_SUCCESS)
        LDAP_TRACE(TRC_ERROR, "ldap_simple_bind_direct: returning rc=%d, error=%s\n", rc,
                   ldap_err2string(ldap_get_errno_direct(ld)));
    return rc;
}

int ldap_simple_bind(LDAP *ld, const char *dn, const char *passwd)
{
    LDAP_TRACE(TRC_API, "ldap_simple_bind: entering with ld(%x) dn(%s) pw(***)\n",
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(ld)), trace_str(dn, "<NULL>"));
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return -1;
    int msgid = -1;
    if (ldap_simple_bind_direct(ld, dn, passwd, nullptr, &msgid, nullptr) != LDAP_SUCCESS) {
        LDAP_TRACE(TRC_API, "ldap_simple_bind: returning rc=-1\n");
        return -1;
    }
    LDAP_TRACE(TRC_API, "ldap_simple_bind: returning msgid=%d\n", msgid);
    return msgid;
}

int ldap_simple_bind_s(LDAP *ld, const char *dn, const char *passwd)
{
    LDAP_TRACE(TRC_API, "ldap_simple_bind_s: \n");
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return LDAP_PARAM_ERROR;
    int msgid = -1;
    int rc = ldap_simple_bind_direct(ld, dn, passwd, nullptr, &msgid, nullptr);
    if (rc == LDAP_SUCCESS)
        rc = zldap::wait_for_result_code(ld, msgid);
    LDAP_TRACE(TRC_API, "ldap_simple_bind_s: returning rc(%d)\n", rc);
    return rc;
}

int ldap_bind(LDAP *ld, const char *dn, const char *passwd, int method)
{
    if (method != LDAP_AUTH_SIMPLE) {
        LDAP_TRACE(TRC_API, "ldap_bind\n");
        if (ldap_handle_is_valid(ld))
            ldap_set_error_direct(ld, LDAP_AUTH_UNKNOWN, nullptr, nullptr);
        return -1;
    }
    return ldap_simple_bind(ld, dn, passwd);
}

int ldap_bind_s(LDAP *ld, const char *dn, const char *passwd, int method)
{
    if (method != LDAP_AUTH_SIMPLE) {
        LDAP_TRACE(TRC_API, "ldap_bind_s\n");
        if (ldap_handle_is_valid(ld))
            ldap_set_error_direct(ld, LDAP_AUTH_UNKNOWN, nullptr, nullptr);
        LDAP_TRACE(TRC_API, "ldap_bind_s: returning rc=%d\n", LDAP_AUTH_UNKNOWN);
        return LDAP_AUTH_UNKNOWN;
    }
    return ldap_simple_bind_s(ld, dn, passwd);
}

int ldap_sasl_bind_encode_and_send(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                                   LDAPControl **serverctrls, int *msgidp, LDAPConn *lc)
{
    int version = 0;
    int rc = protocol_version(ld, &version);
    if (rc != LDAP_SUCCESS)
        return rc;
    // Every encoding failure of a SASL bind, credentials included, is 83.
    auto encode = [&](BerElement *ber) {
        bool ok = fber_printf(ber, "t{ist{s", tag(kBindRequest), version, dn ? dn : "", kSaslAuth, mechanism) == 0 &&
                  (!cred || fber_printf(ber, "o", cred->bv_val, static_cast<int>(cred->bv_len)) == 0) &&
                  fber_printf(ber, "}}") == 0;
        return ok ? LDAP_SUCCESS : LDAP_ENCODING_ERROR;
    };
    return zldap::send_request(
        ld, lc, {"ldap_sasl_bind_encode_and_send: NULL server connection\n", kBindRequest, serverctrls, encode},
        msgidp);
}

int ldap_sasl_bind_s_direct(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                            LDAPControl **serverctrls, struct berval **servercredp)
{
    int msgid = -1;
    int rc = ldap_sasl_bind_encode_and_send(ld, dn, mechanism, cred, serverctrls, &msgid, nullptr);
    if (rc != LDAP_SUCCESS)
        return ldap_fail(ld, rc);
    return await_bind_response(ld, msgid, servercredp);
}

namespace {

// An EXTERNAL bind sends no credentials. A server that wants the
// authorisation identity answers 14 with an empty challenge; the empty
// identity answers it, asking to act as the identity the connection itself
// proves (the peer's user on a local socket, the client certificate).
int external_bind_s(LDAP *ld, LDAPControl **serverctrls, struct berval **servercredp)
{
    int rc = ldap_sasl_bind_s_direct(ld, nullptr, "EXTERNAL", nullptr, serverctrls, servercredp);
    if (rc != LDAP_SASL_BIND_IN_PROGRESS)
        return rc;
    if (servercredp) {
        ber_bvfree(*servercredp);
        *servercredp = nullptr;
    }
    const berval empty{0, const_cast<char *>("")};
    return ldap_sasl_bind_s_direct(ld, nullptr, "EXTERNAL", &empty, serverctrls, servercredp);
}

} // namespace

int ldap_sasl_bind_int(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                       LDAPControl **serverctrls, LDAPControl **clientctrls, struct berval **servercredp,
                       int async, int *msgidp)
{
    LDAP_TRACE(TRC_API,
               "ldap_sasl_bind_int: ld(%p) dn(%s) mechanism(%s) cred(%p), serverctrls(%p) clientctls(%p) "
               "servercredp(%p), async(%d), msgidp(%p)\n",
               static_cast<void *>(ld), trace_str(dn), trace_str(mechanism), static_cast<const void *>(cred),
               static_cast<void *>(serverctrls), static_cast<void *>(clientctrls), static_cast<void *>(servercredp),
               async, static_cast<void *>(msgidp));
    if (async && !msgidp)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    if (async)
        *msgidp = -1;
    int no_translation = 0;
    int rc = ldap_get_option(ld, LDAP_OPT_NO_TRANSLATION, &no_translation);
    if (rc != LDAP_SUCCESS)
        return rc;
    int msgid = -1;
    if (!mechanism || !*mechanism) {
        // Without a mechanism the credentials are a simple bind's password.
        rc = ldap_simple_bind_direct(ld, dn, cred ? cred->bv_val : nullptr, serverctrls, &msgid, nullptr);
    } else {
        bool external = strcasecmp(mechanism, "EXTERNAL") == 0;
        if (external && ((dn && *dn) || cred))
            return ldap_fail(ld, LDAP_PARAM_ERROR);
        rc = record_sasl_bind(ld, external ? "EXTERNAL" : mechanism, external ? nullptr : cred, serverctrls,
                              clientctrls);
        if (rc != LDAP_SUCCESS)
            return rc;
        if (!async && !external) {
            rc = ldap_sasl_bind_call_plugin(ld, dn, mechanism, cred, serverctrls, clientctrls, servercredp, async,
                                            msgidp);
            if (rc != LDAP_UNAVAILABLE_CRITICAL_EXTENSION && rc != LDAP_PLUGIN_CONF_NOT_OPENED)
                return ldap_fail(ld, rc);
            LDAP_TRACE(TRC_API, "ldap_sasl_bind_int: ldap_sasl_bind_call_plugin() returns rc = %d\n", rc);
            LDAP_TRACE(TRC_API, "ldap_sasl_bind_int: Attempting to bind with ldap_sasl_bind_s_direct() instead\n");
        }
        LDAP_TRACE(TRC_API, "ldap_sasl_bind_int: Sending %s Bind request\n", mechanism);
        if (!async && external)
            return external_bind_s(ld, serverctrls, servercredp);
        if (!async)
            return ldap_sasl_bind_s_direct(ld, dn, mechanism, cred, serverctrls, servercredp);
        rc = ldap_sasl_bind_encode_and_send(ld, dn, mechanism, cred, serverctrls, &msgid, nullptr);
    }
    if (rc != LDAP_SUCCESS)
        return ldap_fail(ld, rc);
    if (async) {
        *msgidp = msgid;
        return LDAP_SUCCESS;
    }
    return await_bind_response(ld, msgid, servercredp);
}

int ldap_sasl_bind(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                   LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp)
{
    LDAP_TRACE(TRC_API, "ldap_sasl_bind \n");
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return LDAP_PARAM_ERROR;
    if (!msgidp) {
        LDAP_TRACE(TRC_ERROR, "ldap_sasl_bind: bad parameters ld(%x) msgidp(%x)\n",
                   static_cast<unsigned>(reinterpret_cast<uintptr_t>(ld)), 0u);
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    *msgidp = -1;
    zldap::OperationControls controls(ld, serverctrls, clientctrls);
    if (controls.code() != LDAP_SUCCESS)
        return controls.code();
    return ldap_sasl_bind_int(ld, dn, mechanism, cred, controls.server(), clientctrls, nullptr, 1, msgidp);
}

int ldap_sasl_bind_s(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                     LDAPControl **serverctrls, LDAPControl **clientctrls, struct berval **servercredp)
{
    LDAP_TRACE(TRC_API, "ldap_sasl_bind_s: entered\n");
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return LDAP_PARAM_ERROR;
    int rc = ldap_sasl_bind_int(ld, dn, mechanism, cred, serverctrls, clientctrls, servercredp, 0, nullptr);
    LDAP_TRACE(TRC_API, "ldap_sasl_bind_s: returning rc=%d\n", rc);
    return rc;
}
