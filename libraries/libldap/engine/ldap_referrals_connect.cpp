// ldap_referrals_connect.cpp - reaching the server a referral names: the
// connection to the first URL that can be used, the bind there (through
// the caller's rebind procedure and the handle's last SASL bind), and the
// initial request sent again, re-encoded, under a new message id.
#include "engine/ldap_referrals.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "engine/ldap_request.h"
#include "proto/url.h"
#include "session/ldap_options.h"

#include <cstring>
#include <strings.h>

#define LDAP_MODULE "libraries/libldap/ldap_referrals"

namespace {

constexpr int kSaslMethod = 2; // ld_bind_method after a SASL bind

// The handle's last SASL bind, copied under ld_mutex; empty when the last
// bind was not one.
struct SavedSaslBind {
    ~SavedSaslBind()
    {
        zldap::mem_free(mechanism);
        if (cred)
            zldap::mem_free(cred->bv_val);
        zldap::mem_free(cred);
    }
    char *mechanism = nullptr;
    struct berval *cred = nullptr;
};

int read_saved_bind(LDAP *ld, SavedSaslBind &saved)
{
    LDAP_MUTEX_GUARD(guard, &ld->ld_mutex);
    if (!guard.locked())
        return LDAP_LOCK_ERROR;
    if (ld->ld_bind_method != kSaslMethod)
        return LDAP_SUCCESS;
    if (ld->ld_bind_dn && !(saved.mechanism = zldap::mem_strdup(ld->ld_bind_dn)))
        return LDAP_NO_MEMORY;
    if (!ld->ld_bind_cred)
        return LDAP_SUCCESS;
    saved.cred = static_cast<struct berval *>(zldap::mem_calloc(1, sizeof(struct berval)));
    if (!saved.cred) {
        LDAP_TRACE(TRC_ERROR, "send_referral_bind_request: Failed to alloc cred\n");
        return LDAP_NO_MEMORY;
    }
    const struct berval &cred = *ld->ld_bind_cred;
    saved.cred->bv_val = static_cast<char *>(zldap::mem_malloc(cred.bv_len + 1));
    if (!saved.cred->bv_val) {
        LDAP_TRACE(TRC_ERROR, "send_referral_bind_request: Failed to alloc cred->bv_val\n");
        return LDAP_NO_MEMORY;
    }
    if (cred.bv_len)
        std::memcpy(saved.cred->bv_val, cred.bv_val, cred.bv_len);
    saved.cred->bv_val[cred.bv_len] = '\0';
    saved.cred->bv_len = cred.bv_len;
    return LDAP_SUCCESS;
}

// A SASL bind other than EXTERNAL sends the handle's default controls.
int sasl_rebind(LDAP *ld, const char *dn, const SavedSaslBind &saved)
{
    if (strcasecmp(saved.mechanism ? saved.mechanism : "", "EXTERNAL") == 0)
        return ldap_sasl_bind_s(ld, nullptr, saved.mechanism, nullptr, nullptr, nullptr, nullptr);
    LDAPControl **server = nullptr;
    LDAPControl **client = nullptr;
    int rc = ldap_get_option(ld, LDAP_OPT_SERVER_CONTROLS, &server);
    if (rc == LDAP_SUCCESS)
        rc = ldap_get_option(ld, LDAP_OPT_CLIENT_CONTROLS, &client);
    if (rc == LDAP_SUCCESS)
        rc = ldap_sasl_bind_s(ld, dn, saved.mechanism, saved.cred, server, client, nullptr);
    ldap_controls_free(server);
    ldap_controls_free(client);
    return rc;
}

// The bind itself, with the calling thread bound to the referral
// connection for its duration: the bind functions work on the calling
// thread's connection. They are the published ones (zor8ldap_api.h), the
// operations layer's, reached through their declarations alone: a
// referral rebinds exactly as the caller would.
int bind_on(LDAP *ld, LDAPConn *lc, const char *dn, const char *passwd, int method)
{
    LDAP_TRACE(TRC_API, "send_referral_bind_request: sending bind request\n");
    SavedSaslBind saved;
    int rc = read_saved_bind(ld, saved);
    if (rc != LDAP_SUCCESS)
        return rc;
    rc = set_thread_connection(ld, lc);
    if (rc != LDAP_SUCCESS)
        return rc;
    bool sasl = saved.mechanism != nullptr;
    rc = sasl ? sasl_rebind(ld, dn, saved) : ldap_bind_s(ld, dn, passwd, method);
    set_thread_connection(ld, nullptr);
    return rc;
}

bool is_blank(const char *s) { return !s || !*s; }

} // namespace

LDAPConn *get_referral_connection(LDAP *ld, char **urls, LDAPURLDesc **desc, int *code)
{
    *desc = nullptr;
    bool ssl = false;
    {
        LDAP_MUTEX_GUARD(guard, &ld->ld_mutex);
        if (!guard.locked()) {
            *code = LDAP_LOCK_ERROR;
            return nullptr;
        }
        ssl = ld->ld_ssl_flag == 1;
    }
    for (char **url = urls; url && *url; url++) {
        LDAP_TRACE(TRC_API, "get_referral_connection: parsing %s\n", *url);
        LDAPURLDesc *parsed = nullptr;
        int rc = ldap_url_parse_internal(*url, &parsed);
        if (rc == LDAP_URL_NO_MEMORY) {
            LDAP_TRACE(TRC_ERROR, "get_referral_connection: memory error\n");
            *code = ldap_fail(ld, LDAP_NO_MEMORY);
            return nullptr;
        }
        if (rc != LDAP_SUCCESS) {
            LDAP_TRACE(TRC_ERROR, "chase_v3_referrals error parsing referral: %d - %s\n", rc, ldap_err2string(rc));
            continue;
        }
        // The referred connection has the handle's security, exactly. The
        // scheme is compared in any case: an "LDAPS" URL taken for a plain
        // one would have a plain session speak to its server in clear.
        bool secure_url = strcasecmp(parsed->lud_scheme, "ldaps") == 0;
        if (secure_url != ssl) {
            LDAP_TRACE(TRC_ERROR,
                       ssl ? "get_referral_connection: SSL client got a Non-SSL URL to refer. Skipping the URL.\n"
                           : "get_referral_connection: Non-SSL client got an SSL URL to refer. Skipping the URL.\n");
            ldap_free_urldesc(parsed);
            continue;
        }
        rc = LDAP_SUCCESS;
        LDAPConn *lc = find_connection(ld, parsed->lud_host, parsed->lud_port, 1, &rc, 0);
        if (lc) {
            *desc = parsed;
            *code = LDAP_SUCCESS;
            return lc;
        }
        ldap_free_urldesc(parsed);
        if (rc == LDAP_NO_MEMORY) {
            LDAP_TRACE(TRC_ERROR, "get_referral_connection: memory error 2\n");
            *code = LDAP_NO_MEMORY;
            return nullptr;
        }
        if (rc != LDAP_SUCCESS && rc != LDAP_SERVER_DOWN) {
            LDAP_TRACE(TRC_ERROR, "get_referral_connection: unknown err %d\n", rc);
            *code = LDAP_OTHER;
            return nullptr;
        }
        ldap_set_error_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    }
    LDAP_TRACE(TRC_ERROR, "get_referral_connection: No valid connection found\n");
    *code = ldap_fail(ld, LDAP_SERVER_DOWN);
    return nullptr;
}

int send_referral_bind_request(LDAP *ld, ldap_msg_table *table)
{
    LDAP_REBIND_PROC rebind = nullptr;
    int version = 0;
    int rc = ldap_get_option(ld, LDAP_OPT_REBIND_PROC, &rebind);
    if (rc == LDAP_SUCCESS)
        rc = ldap_get_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (rc != LDAP_SUCCESS)
        return rc;
    char *dn = nullptr;
    char *passwd = nullptr;
    int method = LDAP_AUTH_SIMPLE;
    char empty[] = "";
    if (rebind) {
        rc = rebind(ld, &dn, &passwd, &method, 0);
        if (rc != LDAP_SUCCESS)
            return ldap_fail(ld, rc);
    } else if (version != LDAP_VERSION2) {
        LDAP_TRACE(TRC_API, "send_referral_bind_request: no rebind proc specified. Anonymous bind is implicit "
                            "for LDAPV3\n");
        return LDAP_SUCCESS;
    } else {
        dn = passwd = empty;
    }
    if (version != LDAP_VERSION2 && method == LDAP_AUTH_SIMPLE && is_blank(dn) && is_blank(passwd))
        LDAP_TRACE(TRC_API, "send_referral_bind_request: bind supressed, rebindproc specified anonymous bind\n");
    else
        rc = bind_on(ld, table->connection, dn, passwd, method);
    // The procedure releases what it handed out.
    if (rebind)
        rebind(ld, &dn, &passwd, &method, 1);
    LDAP_TRACE(TRC_API, "send_referral_bind_request: Bind returned rc=%d\n", rc);
    return rc;
}

int reencode_and_send(LDAP *ld, ldap_msg_table *table, LDAPURLDesc *desc, LDAPMessage *msg, int *error)
{
    LDAP_TRACE(TRC_API, "reencode_and_send: entered\n");
    int rc = send_referral_bind_request(ld, table);
    if (rc == LDAP_SERVER_DOWN)
        return -2;
    if (rc != LDAP_SUCCESS) {
        *error = rc;
        return -1;
    }
    int id = ldap_msg_table_get_next_msgid(table);
    if (id < 0) {
        *error = LDAP_LOCAL_ERROR;
        return -1;
    }
    LDAPMessage *request = ldap_alloc_msg(table->connection);
    if (!request) {
        ldap_msg_table_release_msgid(table, id);
        *error = LDAP_NO_MEMORY;
        return -1;
    }
    // The initial request stays in its row, which the calling thread
    // collects; the copy of its element record reads its bytes there.
    BerElement initial{};
    bool found = false;
    ldap_msg_table *initial_table = msg->msg_conn->lconn_msgtable;
    {
        LDAP_MUTEX_GUARD(guard, &initial_table->lock);
        if (!guard.locked()) {
            rc = ldap_fail(ld, LDAP_LOCK_ERROR);
        } else if (LDAPMessage *sent = initial_table->rows[msg->msg_id].request; sent && sent->msg_ber) {
            initial = *sent->msg_ber;
            request->msg_type = sent->msg_type;
            found = true;
        }
    }
    if (found && !(request->msg_ber = re_encode_request(ld, &initial, id, desc)))
        rc = LDAP_NO_MEMORY;
    else if (!found && rc == LDAP_SUCCESS)
        rc = ldap_fail(ld, LDAP_PARAM_ERROR);
    int stored = 0;
    if (rc == LDAP_SUCCESS) {
        request->msg_id = id;
        rc = ldap_msg_table_send_message(table, ld, request, &stored, nullptr);
        if (rc == LDAP_SUCCESS)
            return id;
    }
    *error = rc;
    ldap_msg_table_release_msgid(table, id);
    if (!stored) // else the row owned the request and released it
        free_msg(request, 0);
    return -1;
}
