// update.cpp - add, modify, delete, modify DN and compare. Every operation
// has the same shape: an encoding function on the request skeleton, a
// validating form that settles the controls, a guarded form, a classic
// asynchronous form returning the message id, and synchronous forms that
// wait for the result and release it.
#include "ops/update.h"

#include "base/function_ref.h"
#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "engine/ldap_request.h"
#include "engine/ldap_result.h"
#include "ops/ldap_operation.h"
#include "results/results.h"

#include <cstring>

#define LDAP_MODULE "libraries/libldap/update"

namespace {

constexpr int kModifyRequest = 0x66;
constexpr int kAddRequest = 0x68;
constexpr int kDeleteRequest = 0x4A;
constexpr int kModDNRequest = 0x6C;
constexpr int kCompareRequest = 0x6E;
constexpr ber_tag_t kNewSuperior = 0x80;

ber_tag_t tag(int t) { return static_cast<ber_tag_t>(t); }

int encoded(int printf_rc) { return printf_rc == 0 ? LDAP_SUCCESS : LDAP_ENCODING_ERROR; }

// One attribute's type and values: "{s[v]}" for strings, "{s[V]}" for bervals.
int put_attribute(BerElement *ber, const LDAPMod *mod)
{
    if (mod->mod_op & LDAP_MOD_BVALUES)
        return fber_printf(ber, "{s[V]}", mod->mod_type, mod->mod_bvalues);
    return fber_printf(ber, "{s[v]}", mod->mod_type, mod->mod_values);
}

// The validating forms' shared part: the out id, the controls, the send.
int validated_send(LDAP *ld, int *msgidp, LDAPControl **serverctrls, LDAPControl **clientctrls,
                   zldap::FunctionRef<int(LDAPControl **)> send)
{
    *msgidp = -1;
    zldap::OperationControls controls(ld, serverctrls, clientctrls);
    if (controls.code() != LDAP_SUCCESS)
        return controls.code();
    return send(controls.server());
}

int guarded(LDAP *ld, zldap::FunctionRef<int()> run)
{
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return op.code();
    return run();
}

// The classic asynchronous forms: the id, or -1. The id is read through a
// pointer: as a second argument its value could be taken before the call
// in the first argument has stored it.
int id_or_failure(int rc, const int *msgid) { return rc == LDAP_SUCCESS ? *msgid : -1; }

struct SyncTraces {
    const char *send_failed;   // with the code
    const char *result_failed; // with the thread's error
};

// The synchronous forms: send inside the guard, wait without limit, and
// return the response's result code with the chain released.
int synchronous(LDAP *ld, const SyncTraces &traces, zldap::FunctionRef<int(int *)> send)
{
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return op.code();
    int msgid = -1;
    int rc = send(&msgid);
    if (rc != LDAP_SUCCESS) {
        LDAP_TRACE(TRC_ERROR, traces.send_failed, rc);
        return rc;
    }
    LDAPMessage *res = nullptr;
    if (ldap_result_int(ld, msgid, LDAP_MSG_ALL, nullptr, &res) == -1) {
        int error = ldap_get_errno_direct(ld);
        LDAP_TRACE(TRC_ERROR, traces.result_failed, error);
        if (error != LDAP_SUCCESS)
            return error;
    }
    return ldap_result2error_direct(ld, res, 1);
}

// A string value as the berval compare sends: its bytes without the NUL.
struct berval string_value(const char *value)
{
    struct berval bv;
    bv.bv_len = std::strlen(value);
    bv.bv_val = const_cast<char *>(value);
    return bv;
}

} // namespace

// ---- modify ----------------------------------------------------------------

int ldap_modify_ext_direct(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls, int *msgidp,
                           LDAPConn *lc)
{
    LDAP_TRACE(TRC_API, "ldap_modify_ext_direct\n");
    auto encode = [&](BerElement *ber) {
        if (fber_printf(ber, "t{s{", tag(kModifyRequest), dn) != 0)
            return LDAP_ENCODING_ERROR;
        for (LDAPMod **m = mods; *m; m++) {
            const LDAPMod *mod = *m;
            int op = mod->mod_op & ~LDAP_MOD_BVALUES;
            int rc = (mod->mod_op & LDAP_MOD_BVALUES)
                         ? fber_printf(ber, "{e{s[V]}}", op, mod->mod_type, mod->mod_bvalues)
                         : fber_printf(ber, "{e{s[v]}}", op, mod->mod_type, mod->mod_values);
            if (rc != 0)
                return LDAP_ENCODING_ERROR;
        }
        return encoded(fber_printf(ber, "}}"));
    };
    return zldap::send_request(ld, lc, {"ldap_modify_ext_direct: NULL server connection\n", kModifyRequest, serverctrls, encode}, msgidp);
}

int ldap_modify_ext_int(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                        LDAPControl **clientctrls, int *msgidp)
{
    LDAP_TRACE(TRC_API, "ldap_modify_ext_int: ld(%p) dn(%s) mods(%p) serverctrls(%p) clientctrls(%p) msgidp(%p\n",
               static_cast<void *>(ld), trace_str(dn), static_cast<void *>(mods), static_cast<void *>(serverctrls),
               static_cast<void *>(clientctrls), static_cast<void *>(msgidp));
    int rc;
    if (!dn || !mods || !msgidp) {
        rc = ldap_fail(ld, LDAP_PARAM_ERROR);
    } else {
        auto send = [&](LDAPControl **server) {
            return ldap_modify_ext_direct(ld, dn, mods, server, msgidp, nullptr);
        };
        rc = validated_send(ld, msgidp, serverctrls, clientctrls, send);
    }
    LDAP_TRACE(TRC_API, "ldap_modify_ext_int: returning rc=%d\n", rc);
    return rc;
}

int ldap_modify_ext(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                    LDAPControl **clientctrls, int *msgidp)
{
    LDAP_TRACE(TRC_API, "ldap_modify_ext: ld(%p) dn(%s) mods(%p) serverctrls(%p) clientctrls(%p) msgidp(%p\n",
               static_cast<void *>(ld), trace_str(dn), static_cast<void *>(mods), static_cast<void *>(serverctrls),
               static_cast<void *>(clientctrls), static_cast<void *>(msgidp));
    auto run = [&] { return ldap_modify_ext_int(ld, dn, mods, serverctrls, clientctrls, msgidp); };
    int rc = guarded(ld, run);
    LDAP_TRACE(TRC_API, "ldap_modify_ext: returning rc=%d\n", rc);
    return rc;
}

int ldap_modify(LDAP *ld, const char *dn, LDAPMod **mods)
{
    LDAP_TRACE(TRC_API, "ldap_modify\n");
    int msgid = -1;
    return id_or_failure(ldap_modify_ext(ld, dn, mods, nullptr, nullptr, &msgid), &msgid);
}

int ldap_modify_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                      LDAPControl **clientctrls)
{
    LDAP_TRACE(TRC_API, "ldap_modify_ext_s: entering\n");
    auto send = [&](int *msgid) { return ldap_modify_ext_int(ld, dn, mods, serverctrls, clientctrls, msgid); };
    return synchronous(ld,
                       {"ldap_modify_ext_s: ldap_modify_ext failed with rc=%d\n",
                        "ldap_modify_ext_s: ldap_result failed rc=%d\n"},
                       send);
}

int ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods)
{
    LDAP_TRACE(TRC_API, "ldap_modify_s\n");
    int rc = ldap_modify_ext_s(ld, dn, mods, nullptr, nullptr);
    LDAP_TRACE(TRC_API, "ldap_modify_s: return rc=%d\n", rc);
    return rc;
}

// ---- add -------------------------------------------------------------------

int ldap_add_ext_direct(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls, int *msgidp,
                        LDAPConn *lc)
{
    LDAP_TRACE(TRC_API, "ldap_add_ext_direct\n");
    // mod_op means nothing to an add beyond the flag that says how the
    // values are given.
    auto encode = [&](BerElement *ber) {
        if (fber_printf(ber, "t{s{", tag(kAddRequest), dn) != 0)
            return LDAP_ENCODING_ERROR;
        for (LDAPMod **a = attrs; *a; a++)
            if (put_attribute(ber, *a) != 0)
                return LDAP_ENCODING_ERROR;
        return encoded(fber_printf(ber, "}}"));
    };
    return zldap::send_request(ld, lc, {"ldap_add_ext_direct, NULL server connection\n", kAddRequest, serverctrls, encode}, msgidp);
}

int ldap_add_ext_int(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls,
                     LDAPControl **clientctrls, int *msgidp)
{
    LDAP_TRACE(TRC_API, "ldap_add_ext_int\n");
    if (!dn || !attrs || !msgidp)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    auto send = [&](LDAPControl **server) { return ldap_add_ext_direct(ld, dn, attrs, server, msgidp, nullptr); };
    return validated_send(ld, msgidp, serverctrls, clientctrls, send);
}

int ldap_add_ext(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls,
                 LDAPControl **clientctrls, int *msgidp)
{
    LDAP_TRACE(TRC_API, "ldap_add_ext\n");
    auto run = [&] { return ldap_add_ext_int(ld, dn, attrs, serverctrls, clientctrls, msgidp); };
    return guarded(ld, run);
}

int ldap_add(LDAP *ld, const char *dn, LDAPMod **attrs)
{
    LDAP_TRACE(TRC_API, "ldap_add\n");
    int msgid = -1;
    return id_or_failure(ldap_add_ext(ld, dn, attrs, nullptr, nullptr, &msgid), &msgid);
}

int ldap_add_ext_s(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls,
                   LDAPControl **clientctrls)
{
    LDAP_TRACE(TRC_API, "ldap_add_ext_s: dn=<%s>, attrs=%p, serverctrls %p, clientctrls %p\n", trace_str(dn),
               static_cast<void *>(attrs), static_cast<void *>(serverctrls), static_cast<void *>(clientctrls));
    auto send = [&](int *msgid) { return ldap_add_ext_int(ld, dn, attrs, serverctrls, clientctrls, msgid); };
    int rc = synchronous(ld,
                         {"ldap_add_ext_s: ldap_add_ext failed with rc=%d\n",
                          "ldap_add_ext_s: ldap_result failed with rc=%d\n"},
                         send);
    LDAP_TRACE(TRC_API, "ldap_add_ext_s: returning rc = %d\n", rc);
    return rc;
}

int ldap_add_s(LDAP *ld, const char *dn, LDAPMod **attrs)
{
    LDAP_TRACE(TRC_API, "ldap_add_s\n");
    int rc = ldap_add_ext_s(ld, dn, attrs, nullptr, nullptr);
    LDAP_TRACE(TRC_API, "ldap_add_s: returning rc=%d\n", rc);
    return rc;
}

// ---- delete ----------------------------------------------------------------

int ldap_delete_ext_direct(LDAP *ld, const char *dn, LDAPControl **serverctrls, int *msgidp, LDAPConn *lc)
{
    LDAP_TRACE(TRC_API, "ldap_delete_ext_direct\n");
    auto encode = [&](BerElement *ber) { return encoded(fber_printf(ber, "ts", tag(kDeleteRequest), dn)); };
    return zldap::send_request(ld, lc, {"ldap_delete_ext_direct: NULL server connection\n", kDeleteRequest, serverctrls, encode}, msgidp);
}

int ldap_delete_ext_int(LDAP *ld, const char *dn, LDAPControl **serverctrls, LDAPControl **clientctrls,
                        int *msgidp)
{
    LDAP_TRACE(TRC_API, "ldap_delete_ext_int\n");
    int rc;
    if (!dn || !msgidp) {
        rc = ldap_fail(ld, LDAP_PARAM_ERROR);
    } else {
        auto send = [&](LDAPControl **server) { return ldap_delete_ext_direct(ld, dn, server, msgidp, nullptr); };
        rc = validated_send(ld, msgidp, serverctrls, clientctrls, send);
    }
    LDAP_TRACE(TRC_API, "ldap_delete_ext_int: returning rc=%d\n", rc);
    return rc;
}

int ldap_delete_ext(LDAP *ld, const char *dn, LDAPControl **serverctrls, LDAPControl **clientctrls,
                    int *msgidp)
{
    LDAP_TRACE(TRC_API, "ldap_delete_ext\n");
    auto run = [&] { return ldap_delete_ext_int(ld, dn, serverctrls, clientctrls, msgidp); };
    int rc = guarded(ld, run);
    LDAP_TRACE(TRC_API, "ldap_delete_ext: returning rc=%d\n", rc);
    return rc;
}

int ldap_delete(LDAP *ld, const char *dn)
{
    LDAP_TRACE(TRC_API, "ldap_delete: ld(%p) dn(%s)\n", static_cast<void *>(ld), trace_str(dn));
    int msgid = -1;
    return id_or_failure(ldap_delete_ext(ld, dn, nullptr, nullptr, &msgid), &msgid);
}

int ldap_delete_ext_s(LDAP *ld, const char *dn, LDAPControl **serverctrls, LDAPControl **clientctrls)
{
    LDAP_TRACE(TRC_API, "ldap_delete_ext_s\n");
    auto send = [&](int *msgid) { return ldap_delete_ext_int(ld, dn, serverctrls, clientctrls, msgid); };
    return synchronous(ld,
                       {"ldap_delete_ext_s: ldap_delete_ext failed with rc=%d\n",
                        "ldap_delete_ext_s: ldap_result failed rc=%d\n"},
                       send);
}

int ldap_delete_s(LDAP *ld, const char *dn)
{
    LDAP_TRACE(TRC_API, "ldap_delete_s\n");
    int rc = ldap_delete_ext_s(ld, dn, nullptr, nullptr);
    LDAP_TRACE(TRC_API, "ldap_delete_s: returning rc=%d\n", rc);
    return rc;
}

// ---- modify DN -------------------------------------------------------------

int ldap_rename_direct(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior,
                       int deleteoldrdn, LDAPControl **serverctrls, int *msgidp, LDAPConn *lc)
{
    LDAP_TRACE(TRC_API, "ldap_rename_direct\n");
    auto encode = [&](BerElement *ber) {
        if (fber_printf(ber, "t{ssb", tag(kModDNRequest), dn, newrdn, deleteoldrdn) != 0 ||
            (newsuperior && fber_printf(ber, "ts", kNewSuperior, newsuperior) != 0))
            return LDAP_ENCODING_ERROR;
        return encoded(fber_printf(ber, "}"));
    };
    return zldap::send_request(ld, lc, {"ldap_rename_direct: NULL server connection\n", kModDNRequest, serverctrls, encode}, msgidp);
}

int ldap_rename_int(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                    LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp)
{
    if (!dn || !newrdn || !msgidp)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    auto send = [&](LDAPControl **server) {
        return ldap_rename_direct(ld, dn, newrdn, newsuperior, deleteoldrdn, server, msgidp, nullptr);
    };
    return validated_send(ld, msgidp, serverctrls, clientctrls, send);
}

int ldap_rename(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp)
{
    LDAP_TRACE(TRC_API, "ldap_rename: dn(%s) newrdn(%s) deleteoldrdn(%d)\n", trace_str(dn), trace_str(newrdn),
               deleteoldrdn);
    if (msgidp)
        *msgidp = -1;
    auto run = [&] {
        return ldap_rename_int(ld, dn, newrdn, newsuperior, deleteoldrdn, serverctrls, clientctrls, msgidp);
    };
    return guarded(ld, run);
}

int ldap_modrdn2(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn)
{
    int msgid = -1;
    return id_or_failure(ldap_rename(ld, dn, newrdn, nullptr, deleteoldrdn, nullptr, nullptr, &msgid), &msgid);
}

int ldap_rename_s(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                  LDAPControl **serverctrls, LDAPControl **clientctrls)
{
    LDAP_TRACE(TRC_API, "ldap_rename_s\n");
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return op.code();
    int msgid = -1;
    // Failures before a result are -1; the thread's error says why.
    if (ldap_rename_int(ld, dn, newrdn, newsuperior, deleteoldrdn, serverctrls, clientctrls, &msgid) != 0)
        return -1;
    LDAPMessage *res = nullptr;
    if (ldap_result_int(ld, msgid, LDAP_MSG_ALL, nullptr, &res) == -1)
        return -1;
    return ldap_result2error_direct(ld, res, 1);
}

int ldap_modrdn_s(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn)
{
    LDAP_TRACE(TRC_API, "ldap_modrdn_s\n");
    int rc = ldap_rename_s(ld, dn, newrdn, nullptr, deleteoldrdn, nullptr, nullptr);
    LDAP_TRACE(TRC_API, "ldap_modrdn_s: returning rc=%d\n", rc);
    return rc;
}

// ---- compare ---------------------------------------------------------------

int ldap_compare_ext_direct(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                            LDAPControl **serverctrls, int *msgidp, LDAPConn *lc)
{
    LDAP_TRACE(TRC_API, "ldap_compare_ext_direct\n");
    *msgidp = -1;
    auto encode = [&](BerElement *ber) {
        return encoded(fber_printf(ber, "t{s{so}}", tag(kCompareRequest), dn, attr, value->bv_val,
                                   static_cast<int>(value->bv_len)));
    };
    return zldap::send_request(ld, lc, {"ldap_compare_ext_direct: NULL server connection\n", kCompareRequest, serverctrls, encode}, msgidp);
}

int ldap_compare_ext_int(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                         LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp)
{
    if (!dn || !attr || !value || !msgidp)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    auto send = [&](LDAPControl **server) {
        return ldap_compare_ext_direct(ld, dn, attr, value, server, msgidp, nullptr);
    };
    return validated_send(ld, msgidp, serverctrls, clientctrls, send);
}

int ldap_compare_ext(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                     LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp)
{
    auto run = [&] { return ldap_compare_ext_int(ld, dn, attr, value, serverctrls, clientctrls, msgidp); };
    return guarded(ld, run);
}

int ldap_compare(LDAP *ld, const char *dn, const char *attr, const char *value)
{
    LDAP_TRACE(TRC_API, "ldap_compare\n");
    if (!value) {
        if (ldap_handle_is_valid(ld))
            ldap_set_error_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
        return -1;
    }
    struct berval bv = string_value(value);
    int msgid = -1;
    return id_or_failure(ldap_compare_ext(ld, dn, attr, &bv, nullptr, nullptr, &msgid), &msgid);
}

int ldap_compare_ext_s(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                       LDAPControl **serverctrls, LDAPControl **clientctrls)
{
    LDAP_TRACE(TRC_API, "ldap_compare_ext_s\n");
    auto send = [&](int *msgid) {
        return ldap_compare_ext_int(ld, dn, attr, value, serverctrls, clientctrls, msgid);
    };
    return synchronous(ld,
                       {"ldap_compare_ext_s: ldap_compare_ext failed rc=%d\n",
                        "ldap_compare_ext_s: ldap_result failed rc=%d\n"},
                       send);
}

int ldap_compare_s(LDAP *ld, const char *dn, const char *attr, const char *value)
{
    LDAP_TRACE(TRC_API, "ldap_compare_s\n");
    if (!ld)
        return -1;
    if (!dn || !attr || !value)
        return LDAP_PARAM_ERROR;
    struct berval bv = string_value(value);
    int rc = ldap_compare_ext_s(ld, dn, attr, &bv, nullptr, nullptr);
    LDAP_TRACE(TRC_API, "ldap_compare_s: returning rc=%d\n", rc);
    return rc;
}
