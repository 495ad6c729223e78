// request_values.cpp - values of extended requests: account status,
// effective password policy, group evaluation, transaction preparation,
// end and id request, and the empty value. Each is a new berval, or NULL
// with the reason in the trace.
#include "proto/request_values.h"

#include "base/memory.h"
#include "base/trace.h"
#include "ber/lber.h"
#include "proto/control_codec.h"

#include <cstring>

namespace {

// Each step that fails has its own trace line; `prefix` starts the
// caller's own lines ("name:" or "name: ").

// What ber has encoded as a new berval, or NULL.
struct berval *flatten(BerElement *ber, const char *prefix)
{
    struct berval *value = nullptr;
    if (fber_flatten(ber, &value) == 0)
        return value;
    LDAP_TRACE(TRC_ERROR, "%sfber_flatten failed\n", prefix);
    return nullptr;
}

// A new element that has begun "{s" of entry_dn, or NULL.
zldap::BerOwner begin_entry_dn(const char *prefix, const char *entry_dn)
{
    if (!entry_dn) {
        LDAP_TRACE(TRC_ERROR, "EntryDN must not be NULL.\n");
        return nullptr;
    }
    zldap::BerOwner ber(fber_alloc());
    if (!ber) {
        LDAP_TRACE(TRC_ERROR, "fber_alloc failed\n");
        return nullptr;
    }
    if (fber_printf(ber.get(), "{s", entry_dn) != 0) {
        LDAP_TRACE(TRC_ERROR, "%sfirst fber_printf failed\n", prefix);
        return nullptr;
    }
    return ber;
}

// "{s}" of an entry DN.
struct berval *entry_dn_request(const char *prefix, const char *entry_dn)
{
    zldap::BerOwner ber = begin_entry_dn(prefix, entry_dn);
    if (!ber)
        return nullptr;
    if (fber_printf(ber.get(), "}") != 0) {
        LDAP_TRACE(TRC_ERROR, "%ssecond fber_printf failed\n", prefix);
        return nullptr;
    }
    return flatten(ber.get(), prefix);
}

// A value of `lead` octets (0 or 1) followed by the id's text; bv_len
// counts both, and a NUL follows. Each allocation failure has its caller's
// own trace line.
struct berval *tran_id_value(const char *record_failed, const char *bytes_failed, const char *tran_id, int lead,
                             int lead_octet)
{
    auto *value = static_cast<struct berval *>(zldap::mem_calloc(1, sizeof(struct berval)));
    if (!value) {
        LDAP_TRACE(TRC_ERROR, "%s", record_failed);
        return nullptr;
    }
    size_t len = std::strlen(tran_id);
    value->bv_val = static_cast<char *>(zldap::mem_calloc(lead + len + 1, 1));
    if (!value->bv_val) {
        LDAP_TRACE(TRC_ERROR, "%s", bytes_failed);
        zldap::mem_free(value);
        return nullptr;
    }
    if (lead)
        value->bv_val[0] = static_cast<char>(lead_octet);
    std::memcpy(value->bv_val + lead, tran_id, len);
    value->bv_len = lead + len;
    return value;
}

} // namespace

struct berval *ldap_create_account_status_request(const char *entry_dn)
{
    return entry_dn_request("ldap_create_account_status_request:", entry_dn);
}

struct berval *ldap_create_effective_pwdpolicy_request(const char *entry_dn)
{
    return entry_dn_request("ldap_create_effective_pwdpolicy_request:", entry_dn);
}

struct berval *ldap_create_group_eval_request(const char *entry_dn, char **attrs)
{
    const char *prefix = "ldap_create_group_eval_request: ";
    zldap::BerOwner ber = begin_entry_dn(prefix, entry_dn);
    if (!ber)
        return nullptr;
    if (attrs && fber_printf(ber.get(), "{v}}", attrs) != 0) {
        LDAP_TRACE(TRC_ERROR, "%ssecond fber_printf failed\n", prefix);
        return nullptr;
    }
    if (!attrs && fber_printf(ber.get(), "}") != 0) {
        LDAP_TRACE(TRC_ERROR, "%sthird fber_printf failed\n", prefix);
        return nullptr;
    }
    return flatten(ber.get(), prefix);
}

struct berval *ldap_create_prepare_transaction_request(const char *tran_id)
{
    if (!tran_id) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_prepare_transaction_request: tran_id is null.\n");
        return nullptr;
    }
    return tran_id_value("ldap_create_prepare_transaction_request: calloc of berval failed.\n",
                         "ldap_create_prepare_transaction_request: calloc of berval->bv_val failed.\n", tran_id, 0, 0);
}

struct berval *ldap_create_end_transaction_request(const char *tran_id, int commit)
{
    if (!tran_id) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_end_transaction_request: tran_id is NULL\n");
        return nullptr;
    }
    return tran_id_value("ldap_create_end_transaction_request: calloc of berval failed.\n",
                         "ldap_create_end_transaction_request: calloc of berval->bv_val failed.\n", tran_id, 1,
                         commit != 0 ? 1 : 0);
}

struct berval *createTransIDReqVal(const char *tran_id)
{
    if (!tran_id) {
        LDAP_TRACE(TRC_ERROR, "createTransIDReqVal: tran_id is null.\n");
        return nullptr;
    }
    return tran_id_value("createTransIDReqVal: malloc of berval failed.\n",
                         "createTransIDReqVal: malloc of berval failed.\n", tran_id, 0, 0);
}

struct berval *ldap_create_empty_request_value(void)
{
    zldap::BerOwner ber(fber_alloc());
    if (!ber) {
        LDAP_TRACE(TRC_ERROR, "ber_alloc_t failed\n");
        return nullptr;
    }
    struct berval *value = nullptr;
    if (fber_flatten(ber.get(), &value) == 0)
        return value;
    LDAP_TRACE(TRC_ERROR, "ber_flatten failed\n");
    return nullptr;
}
