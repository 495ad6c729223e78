// extended_values.cpp - values of further vendor extended requests:
// resuming a role, fetching a file, an online backup, locating an entry,
// the two steps of a password-policy bind; and a transaction id as text.
// Each value is a new berval, or NULL with the reason in the trace.
#include "zor8ldap_api.h"

#include "base/function_ref.h"
#include "base/memory.h"
#include "base/trace.h"
#include "ber/lber.h"
#include "proto/control_codec.h"

#include <cstring>

namespace {

// An element written by `print` and flattened; every failure is traced
// under the builder's name (alloc_failed: its own wording of the first).
struct berval *build_value(const char *name, const char *alloc_failed, zldap::FunctionRef<int(BerElement *)> print)
{
    zldap::BerOwner ber(fber_alloc());
    if (!ber) {
        LDAP_TRACE(TRC_ERROR, "%s: %s\n", name, alloc_failed);
        return nullptr;
    }
    if (print(ber.get()) != 0) {
        LDAP_TRACE(TRC_ERROR, "%s: fber_printf failed\n", name);
        return nullptr;
    }
    struct berval *value = nullptr;
    if (fber_flatten(ber.get(), &value) != 0) {
        LDAP_TRACE(TRC_ERROR, "%s: fber_flatten failed\n", name);
        return nullptr;
    }
    return value;
}

const char *or_empty(const char *text) { return text ? text : ""; }

} // namespace

struct berval *ldap_create_resume_role_request(int kind, const char *first, const char *second)
{
    first = or_empty(first);
    second = or_empty(second);
    LDAP_TRACE(TRC_API, "ldap_create_resume_role_request: fber_printf(ber, \"{iss}\",%d,%s,%s)\n", kind, first,
               second);
    auto print = [&](BerElement *ber) { return fber_printf(ber, "{ess}", kind, first, second); };
    return build_value("ldap_create_resume_role_request", "fber_alloc() failed", print);
}

struct berval *ldap_create_get_file_request(int kind, const char *name)
{
    name = or_empty(name);
    LDAP_TRACE(TRC_API, "ldap_create_get_file_request: fber_printf(ber, \"{es}\",%d%s)\n", kind, name);
    auto print = [&](BerElement *ber) { return fber_printf(ber, "{es}", kind, name); };
    return build_value("ldap_create_get_file_request", "fber_alloc() failed", print);
}

struct berval *ldap_create_online_backup_request(const char *path)
{
    if (!path) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_online_backup_request: no directory path given\n");
        return nullptr;
    }
    LDAP_TRACE(TRC_API, "ldap_create_online_backup_request: fber_printf(ber, \"{s}\",%s)\n", path);
    auto print = [&](BerElement *ber) { return fber_printf(ber, "{s}", path); };
    return build_value("ldap_create_online_backup_request", "fber_alloc() failed", print);
}

struct berval *ldap_create_locate_entry_request(const char *entry)
{
    entry = or_empty(entry);
    auto print = [&](BerElement *ber) { return fber_printf(ber, "{s}", entry); };
    return build_value("ldap_create_locate_entry_request", "fber_alloc failed", print);
}

struct berval *ldap_create_password_policy_bind_init_request(const char *bind_dn)
{
    if (!bind_dn) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_password_policy_bind_init_request: bind_dn cannot be null\n");
        return nullptr;
    }
    LDAP_TRACE(TRC_API, "ldap_create_password_policy_bind_init_request: fber_printf(ber, \"{s}\",%s)\n", bind_dn);
    auto print = [&](BerElement *ber) { return fber_printf(ber, "{s}", bind_dn); };
    return build_value("ldap_create_password_policy_bind_init_request", "fber_alloc() failed", print);
}

struct berval *ldap_create_password_policy_bind_finalize_request(const char *bind_dn, int value)
{
    if (!bind_dn) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_password_policy_bind_finalize_request: bind_dn cannot be null\n");
        return nullptr;
    }
    LDAP_TRACE(TRC_API, "ldap_create_password_policy_bind_finalize_request: fber_printf(ber, \"{si}\",%s, %i)\n",
               bind_dn, value);
    auto print = [&](BerElement *ber) { return fber_printf(ber, "{se}", bind_dn, value); };
    return build_value("ldap_create_password_policy_bind_finalize_request", "fber_alloc() failed", print);
}

char *ldap_get_tran_id(const struct berval *tran_id_bv)
{
    if (!tran_id_bv || (!tran_id_bv->bv_val && tran_id_bv->bv_len > 0)) {
        LDAP_TRACE(TRC_ERROR, "ldap_get_tran_id: invalid tran_id_bv passed in");
        return nullptr;
    }
    auto *text = static_cast<char *>(zldap::mem_malloc(tran_id_bv->bv_len + 1));
    if (!text)
        return nullptr;
    if (tran_id_bv->bv_len > 0)
        std::memcpy(text, tran_id_bv->bv_val, tran_id_bv->bv_len);
    text[tran_id_bv->bv_len] = '\0';
    return text;
}
