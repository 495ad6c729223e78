// ldap_controls_ops.cpp - controls as operations see them: the
// client-control rule, the bind response controls kept on the default
// connection, the proxy DN prefix and the controls of a search entry.
#include "proto/ldap_controls.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "ber/lber.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "core/ldap_session.h"
#include "message/ldap_message.h"
#include "session/ldap_options.h"

#include <cstdint>
#include <cstring>
#include <strings.h>

#define LDAP_MODULE "libraries/libldap/ldap_controls"

namespace {

bool any_critical(LDAPControl **ctrls)
{
    for (LDAPControl **c = ctrls; c && *c; c++)
        if ((*c)->ldctl_iscritical)
            return true;
    return false;
}

} // namespace

int ldap_check_client_controls(LDAP *ld, LDAPControl ***serverctrls, LDAPControl **clientctrls,
                               int *copied)
{
    if (copied)
        *copied = 0;
    if (!ldap_handle_is_valid(ld) || !serverctrls || !copied)
        return LDAP_PARAM_ERROR;
    // This library acts on no client control, so a critical one can't be
    // honoured and the operation must not go ahead.
    if (any_critical(clientctrls)) {
        LDAP_TRACE(TRC_ERROR, "Critical client controls not supported\n");
        return ldap_fail(ld, LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    }
    if (*serverctrls || !ldap_has_server_controls(ld))
        return LDAP_SUCCESS;
    LDAPControl **defaults = nullptr;
    int rc = ldap_get_option_held(ld, LDAP_OPT_SERVER_CONTROLS, &defaults);
    if (rc != LDAP_SUCCESS)
        return rc;
    *serverctrls = defaults;
    *copied = 1;
    return LDAP_SUCCESS;
}

int ldap_store_bind_controls(LDAP *ld, LDAPControl **ctrls)
{
    if (!ldap_handle_is_valid(ld) || !ld->ld_defconn)
        return LDAP_PARAM_ERROR;
    LDAPConn *lc = ld->ld_defconn;
    // Copy before taking the lock: it guards a pointer swap, not an allocation.
    LDAPControl **copy = nullptr;
    int rc = ldap_copy_controls(&copy, ctrls);
    LDAP_MUTEX_GUARD(guard, &lc->lconn_ctrls_mutex);
    if (!guard.locked()) {
        ldap_controls_free(copy);
        return LDAP_LOCK_ERROR;
    }
    // A failed copy still replaces the old list: controls of an earlier bind
    // must not pass for this one's.
    LDAPControl **old = lc->lconn_ctrls;
    lc->lconn_ctrls = rc == LDAP_SUCCESS ? copy : nullptr;
    guard.unlock();
    ldap_controls_free(old);
    if (rc != LDAP_SUCCESS)
        LDAP_TRACE(TRC_ERROR, "ldap_store_bind_controls: could not copy the bind controls, rc=%d\n", rc);
    return rc;
}

int ldap_get_bind_controls(LDAP *ld, LDAPControl ***ctrls)
{
    LDAP_TRACE(TRC_API, "ldap_get_bind_controls\n");
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted()) {
        LDAP_TRACE(TRC_ERROR, "ldap_get_bind_controls: returning rc=%d\n", LDAP_PARAM_ERROR);
        return LDAP_PARAM_ERROR;
    }
    if (!ctrls) {
        ldap_set_error_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
        LDAP_TRACE(TRC_ERROR, "ldap_get_bind_controls: returning rc=%d\n", LDAP_PARAM_ERROR);
        return LDAP_PARAM_ERROR;
    }
    *ctrls = nullptr;
    int rc = LDAP_SUCCESS;
    if (LDAPConn *lc = ld->ld_defconn) {
        LDAP_MUTEX_GUARD(guard, &lc->lconn_ctrls_mutex);
        rc = guard.locked() ? ldap_copy_controls(ctrls, lc->lconn_ctrls) : LDAP_LOCK_ERROR;
    }
    if (rc != LDAP_SUCCESS)
        ldap_set_error_direct(ld, rc, nullptr, nullptr);
    LDAP_TRACE(rc == LDAP_SUCCESS ? TRC_API : TRC_ERROR, "ldap_get_bind_controls: returning rc=%d\n", rc);
    return rc;
}

int ldap_proxy_dn_prefix(char **proxy_dn, const char *dn)
{
    LDAP_TRACE(TRC_API, "ldap_proxy_dn_prefix\n");
    if (!proxy_dn || !dn) {
        LDAP_TRACE(TRC_ERROR, "ldap_proxy_dn_prefix: Bad Parameters passed proxyDN(%x) parm(%x)\n",
                   static_cast<unsigned>(reinterpret_cast<uintptr_t>(proxy_dn)),
                   static_cast<unsigned>(reinterpret_cast<uintptr_t>(dn)));
        return LDAP_PARAM_ERROR;
    }
    *proxy_dn = nullptr;
    static constexpr char kPrefix[] = "dn:";
    constexpr size_t prefix_len = sizeof kPrefix - 1;
    char *out;
    if (strncasecmp(dn, kPrefix, prefix_len) == 0) {
        out = zldap::mem_strdup(dn);
    } else {
        size_t len = std::strlen(dn);
        out = static_cast<char *>(zldap::mem_malloc(prefix_len + len + 1));
        if (out) {
            std::memcpy(out, kPrefix, prefix_len);
            std::memcpy(out + prefix_len, dn, len + 1);
        }
    }
    if (!out)
        return LDAP_NO_MEMORY;
    *proxy_dn = out;
    return LDAP_SUCCESS;
}

int ldap_get_entry_controls_direct(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrls)
{
    LDAP_TRACE(TRC_API, "ldap_get_entry_controls:\n ");
    int rc;
    if (serverctrls)
        *serverctrls = nullptr;
    if (!entry || !serverctrls || entry->msg_type != LDAP_RES_SEARCH_ENTRY || !entry->msg_ber) {
        rc = LDAP_PARAM_ERROR;
    } else {
        // A private cursor over the entry's buffer: reading must not move
        // the message's own position.
        BerElement cursor = *entry->msg_ber;
        ber_len_t len = 0;
        // The entry must be whole for whatever follows it to be its controls.
        if (fber_get_tag(&cursor, &len) == LBER_DEFAULT ||
            len > static_cast<ber_len_t>(cursor.ber_end - cursor.ber_ptr)) {
            rc = LDAP_DECODING_ERROR;
        } else {
            cursor.ber_ptr += len;
            LDAPControl **ctrls = nullptr;
            rc = get_ctrls_from_ber(&cursor, &ctrls);
            if (rc == LDAP_SUCCESS)
                *serverctrls = ctrls;
            else
                ldap_controls_free(ctrls);
        }
    }
    LDAP_TRACE(rc == LDAP_SUCCESS ? TRC_API : TRC_ERROR, "ldap_get_entry_controls: return( %d )\n", rc);
    if (ldap_handle_is_valid(ld))
        ldap_set_error_direct(ld, rc, nullptr, nullptr);
    return rc;
}

int ldap_get_entry_controls(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrls)
{
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return -1;
    return ldap_get_entry_controls_direct(ld, entry, serverctrls);
}

int ldap_get_entry_controls_np(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrls)
{
    LDAP_TRACE(TRC_API, "ldap_get_entry_controls_np: ld(%p) entry(%p) serverctrlsp(%p)\n",
               static_cast<void *>(ld), static_cast<void *>(entry), static_cast<void *>(serverctrls));
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return LDAP_PARAM_ERROR;
    return ldap_get_entry_controls_direct(ld, entry, serverctrls);
}
