// ldap_usearch.cpp - the search an LDAP URL describes. On the server of the
// calling thread's default connection it is an ordinary search. On another
// server the request runs there as the referral child of a row of the
// default connection's table, so that ldap_result on the default
// connection collects the other server's results just as it collects a
// referred search's.
#include "ops/ldap_usearch.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "engine/ldap_referrals.h"
#include "engine/ldap_request.h"
#include "proto/filter.h"
#include "proto/url.h"
#include "session/ldap_options.h"

#include <strings.h>

#define LDAP_MODULE "libraries/libldap/ldap_usearch"

namespace {

constexpr int kSearchRequest = 0x63;
constexpr int kSearchResult = 0x65;

// What one URL search builds. Whatever is still here when it goes was not
// handed to a row; the ids still held are released with their rows, which
// free what was handed to them.
struct UrlSearch {
    explicit UrlSearch(LDAP *handle) : ld(handle) {}
    ~UrlSearch();
    UrlSearch(const UrlSearch &) = delete;
    UrlSearch &operator=(const UrlSearch &) = delete;
    bool elsewhere() const { return target != home; }

    LDAP *ld;
    LDAPURLDesc *desc = nullptr;
    LDAPConn *home = nullptr;      // the calling thread's default connection
    LDAPConn *target = nullptr;    // the URL's server; home when it is the same
    BerElement *request = nullptr; // what is sent
    BerElement *copy = nullptr;    // the request kept in the parent row
    LDAPMessage *sent = nullptr;   // on target
    LDAPMessage *parent = nullptr; // on home, for another server
    LDAPMessage *placeholder = nullptr;
    ldap_msg_link *child_link = nullptr;
    ldap_msg_link *parent_link = nullptr;
    int sent_id = -1;   // in target's table
    int parent_id = -1; // in home's table, for another server
};

UrlSearch::~UrlSearch()
{
    if (sent_id > 0)
        ldap_msg_table_release_msgid(target->lconn_msgtable, sent_id);
    if (parent_id > 0)
        ldap_msg_table_release_msgid(home->lconn_msgtable, parent_id);
    for (LDAPMessage *msg : {sent, parent, placeholder})
        if (msg)
            free_msg(msg, 0);
    fber_free(request);
    fber_free(copy);
    zldap::mem_free(child_link);
    zldap::mem_free(parent_link);
    ldap_free_urldesc(desc);
}

// The default connection and the URL's server, opened when missing. 0, or
// -1 with the handle's error set.
int find_connections(UrlSearch &s)
{
    s.home = get_default_connection(s.ld);
    if (!s.home || !s.home->lconn_msgtable) {
        LDAP_TRACE(TRC_ERROR, "ldap_url_search_direct: NULL default server or table \n");
        return ldap_fail_returning(s.ld, LDAP_PARAM_ERROR, -1);
    }
    // A plain session's connections are plain: an ldaps URL would have its
    // server spoken to in clear, so it is refused as a failed secure set-up.
    if (s.ld->ld_ssl_flag != 1 && strcasecmp(s.desc->lud_scheme, "ldaps") == 0) {
        LDAP_TRACE(TRC_ERROR, "ldap_url_search_direct: ldaps URL on a session without SSL\n");
        return ldap_fail_returning(s.ld, LDAP_SECURE_CONNECT_FAILED, -1);
    }
    // A failed open has recorded its reason already.
    s.target = find_connection(s.ld, s.desc->lud_host, s.desc->lud_port, 1, nullptr, 1);
    if (!s.target || !s.target->lconn_msgtable) {
        LDAP_TRACE(TRC_ERROR, "ldap_url_search_direct: NULL server or table\n ");
        return -1;
    }
    return 0;
}

// Binds on the other server as a referral would. A bind that fails there
// for any reason but a dead server or exhausted memory leaves the search
// to go on unauthenticated. 0 or a result code.
int bind_elsewhere(UrlSearch &s)
{
    int rc = send_referral_bind_request(s.ld, s.target->lconn_msgtable);
    if (rc == LDAP_SERVER_DOWN || rc == LDAP_NO_MEMORY)
        return rc;
    if (rc != LDAP_SUCCESS)
        LDAP_TRACE(TRC_ERROR, "ldap_url_search_direct: Bind failed with error = %d. Ignoring.\n", rc);
    return LDAP_SUCCESS;
}

// The messages and ids: one of each on the default connection's server, a
// child and a parent for another server. 0 or a result code.
int take_messages(UrlSearch &s)
{
    if (s.elsewhere()) {
        int rc = bind_elsewhere(s);
        if (rc != LDAP_SUCCESS)
            return rc;
        if (!(s.copy = new_ldap_ber(s.ld)) || !(s.sent = ldap_alloc_msg(s.target)) ||
            !(s.parent = ldap_alloc_msg(s.home)))
            return LDAP_NO_MEMORY;
        if ((s.parent_id = ldap_msg_table_get_next_msgid(s.home->lconn_msgtable)) < 0 ||
            (s.sent_id = ldap_msg_table_get_next_msgid(s.target->lconn_msgtable)) < 0)
            return LDAP_LOCAL_ERROR;
        return LDAP_SUCCESS;
    }
    if (!(s.sent = ldap_alloc_msg(s.home)))
        return LDAP_NO_MEMORY;
    return (s.sent_id = ldap_msg_table_get_next_msgid(s.home->lconn_msgtable)) < 0 ? LDAP_LOCAL_ERROR
                                                                                   : LDAP_SUCCESS;
}

// The whole request, envelope included; no controls go with a URL search.
// 0, -1 when an option cannot be read (its reason is the error), or a code.
int encode_search(UrlSearch &s, int attrsonly)
{
    int deref = 0, timelimit = 0, sizelimit = 0;
    if (ldap_get_option(s.ld, LDAP_OPT_DEREF, &deref) != LDAP_SUCCESS ||
        ldap_get_option(s.ld, LDAP_OPT_TIMELIMIT, &timelimit) != LDAP_SUCCESS ||
        ldap_get_option(s.ld, LDAP_OPT_SIZELIMIT, &sizelimit) != LDAP_SUCCESS)
        return -1;
    const LDAPURLDesc &d = *s.desc;
    if (fber_printf(s.request, "{it{seeiib", s.sent_id, static_cast<ber_tag_t>(kSearchRequest),
                    d.lud_dn ? d.lud_dn : "", d.lud_scope, deref, sizelimit, timelimit, attrsonly) != 0)
        return LDAP_ENCODING_ERROR;
    if (put_filter(s.request, d.lud_filter, 0) != 0)
        return LDAP_FILTER_ERROR;
    if (fber_printf(s.request, "{v}}}", d.lud_attrs) != 0)
        return LDAP_ENCODING_ERROR;
    s.sent->msg_id = s.sent_id;
    s.sent->msg_type = kSearchRequest;
    s.sent->msg_ber = s.request;
    s.request = nullptr;
    return LDAP_SUCCESS;
}

ldap_msg_link *new_link(ldap_msg_table *table, int id, LDAPMessage *msg)
{
    auto *link = static_cast<ldap_msg_link *>(zldap::mem_calloc(1, sizeof(ldap_msg_link)));
    if (link)
        *link = {table, id, msg};
    return link;
}

// Files the parent row (home's table) and the child row (target's table)
// as a referral chain: the parent holds a copy of the request and, as its
// only result, a search-done placeholder that the child's final result
// replaces. The two tables are locked one after the other. 0, -1 when an
// option cannot be read, or a code.
int link_rows(UrlSearch &s)
{
    LDAP_TRACE(TRC_API, "ldap_url_search_direct: URL pointing to non-default server\n");
    ldap_msg_table *home = s.home->lconn_msgtable;
    ldap_msg_table *target = s.target->lconn_msgtable;
    if (!(s.placeholder = ldap_alloc_msg(s.home)) || !(s.child_link = new_link(target, s.sent_id, s.placeholder)) ||
        !(s.parent_link = new_link(home, s.parent_id, nullptr)))
        return LDAP_NO_MEMORY;
    if (fber_write(s.copy, s.sent->msg_ber->ber_buf, s.sent->msg_ber->ber_len) < 0)
        return LDAP_NO_MEMORY;
    s.placeholder->msg_id = s.parent_id;
    s.placeholder->msg_type = kSearchResult;
    s.parent->msg_id = s.parent_id;
    s.parent->msg_type = kSearchRequest;
    s.parent->msg_ber = s.copy;
    s.copy = nullptr;
    int referrals = 0, hop_limit = 0;
    if (ldap_get_option(s.ld, LDAP_OPT_REFERRALS, &referrals) != LDAP_SUCCESS ||
        ldap_get_option(s.ld, LDAP_OPT_HOP_LIMIT, &hop_limit) != LDAP_SUCCESS)
        return -1;
    uint32_t flags = LDAP_ROW_REFOPTS | (referrals == 1 ? LDAP_ROW_CHASE : 0);
    {
        LDAP_MUTEX_GUARD(guard, &home->lock);
        if (!guard.locked())
            return LDAP_LOCK_ERROR;
        ldap_msg_row &row = home->rows[s.parent_id];
        row.request = s.parent;
        row.first_result = row.last_result = s.placeholder;
        row.child = s.child_link;
        // Nothing comes for this row from its own server: it is complete
        // there, and its results come from the child alone. So its row is
        // given back once the caller releases them, or at once when the
        // search is abandoned as orphaned.
        row.flags = (row.flags & ~LDAP_ROW_CHASE) | flags | LDAP_ROW_DONE;
        row.hop_limit = hop_limit + 1;
        s.parent = s.placeholder = nullptr;
        s.child_link = nullptr;
    }
    LDAP_MUTEX_GUARD(guard, &target->lock);
    if (!guard.locked())
        return LDAP_LOCK_ERROR;
    ldap_msg_row &row = target->rows[s.sent_id];
    row.parent = s.parent_link;
    row.flags = (row.flags & ~LDAP_ROW_CHASE) | flags;
    row.hop_limit = hop_limit;
    s.parent_link = nullptr;
    return LDAP_SUCCESS;
}

// Steps after the connections are known; the id handed to the caller, or
// -1 with the handle's error set.
int build_and_send(UrlSearch &s, int attrsonly)
{
    int rc = (s.request = new_ldap_ber(s.ld)) ? take_messages(s) : LDAP_NO_MEMORY;
    if (rc == LDAP_SUCCESS)
        rc = encode_search(s, attrsonly);
    if (rc == LDAP_SUCCESS && s.elsewhere())
        rc = link_rows(s);
    if (rc == -1)
        return -1;
    if (rc != LDAP_SUCCESS)
        return ldap_fail_returning(s.ld, rc, -1);
    int stored = 0;
    LDAPMessage *sent = s.sent;
    rc = ldap_msg_table_send_message(s.target->lconn_msgtable, s.ld, sent, &stored, nullptr);
    if (stored)
        s.sent = nullptr; // its row has it, and releases it with the id on failure
    if (rc != LDAP_SUCCESS)
        return -1;
    int id = s.elsewhere() ? s.parent_id : s.sent_id;
    s.sent_id = s.parent_id = -1;
    return id;
}

} // namespace

int ldap_url_search_direct(LDAP *ld, const char *url, int attrsonly)
{
    LDAP_TRACE(TRC_API, "ldap_url_search_direct: ld(%p), url(%s), attrsonly(%d)\n", static_cast<void *>(ld),
               trace_str(url, "<NULL>"), attrsonly);
    UrlSearch s(ld);
    // The parser's own code is not the caller's concern: the URL is a bad argument.
    if (!url || ldap_url_parse(url, &s.desc) != LDAP_SUCCESS)
        return ldap_fail_returning(ld, LDAP_PARAM_ERROR, -1);
    if (find_connections(s) != 0)
        return -1;
    return build_and_send(s, attrsonly);
}

int ldap_url_search(LDAP *ld, const char *url, int attrsonly)
{
    LDAP_TRACE(TRC_API, "ldap_url_search: ld(%p) url(%s) attrsonly(%d)\n", static_cast<void *>(ld),
               trace_str(url), attrsonly);
    int rc = -1;
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (op.admitted())
        rc = url ? ldap_url_search_direct(ld, url, attrsonly) : ldap_fail_returning(ld, LDAP_PARAM_ERROR, -1);
    LDAP_TRACE(TRC_API, "ldap_url_search: returning rc=%d\n", rc);
    return rc;
}

int ldap_url_search_st(LDAP *ld, const char *url, int attrsonly, struct timeval *timeout, LDAPMessage **res)
{
    LDAP_TRACE(TRC_API, "ldap_url_search_st: ld(%p), url(%s), attrsonly(%d) timeout(%p), res(%p)\n",
               static_cast<void *>(ld), trace_str(url), attrsonly, static_cast<void *>(timeout),
               static_cast<void *>(res));
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (!op.admitted())
        return LDAP_PARAM_ERROR;
    if (!url || !res)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    *res = nullptr;
    int rc = LDAP_SUCCESS;
    int id = ldap_url_search_direct(ld, url, attrsonly);
    if (id == -1) {
        rc = ldap_get_errno_direct(ld);
    } else {
        int type = ldap_result(ld, id, LDAP_MSG_ALL, timeout, res);
        if (type == 0) {
            // Nobody collects the rest: the row goes when its answer comes.
            rc = ldap_fail(ld, LDAP_TIMEOUT);
            LDAPConn *lc = get_default_connection(ld);
            if (lc)
                ldap_msg_table_set_flag(ld, lc->lconn_msgtable, id, LDAP_ROW_ORPHAN);
        } else if (type == -1) {
            rc = ldap_get_errno_direct(ld);
        }
    }
    LDAP_TRACE(TRC_API, "ldap_url_search_st: returning rc=%d\n", rc);
    return rc;
}

int ldap_url_search_s(LDAP *ld, const char *url, int attrsonly, LDAPMessage **res)
{
    LDAP_TRACE(TRC_API, "ldap_url_search_s\n");
    return ldap_url_search_st(ld, url, attrsonly, nullptr, res);
}
