// ldap_referrals.cpp - recognising a referral in a response and following
// it: the request goes to the first usable server, its row becomes the
// referral child of the initial request's row, and the child's first
// result is moved into the initial row. URLs that cannot be followed end
// up in the top row's referral text, for a substitute result.
#include "engine/ldap_referrals.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "engine/ldap_result.h"
#include "message/ldap_referrals_rows.h"
#include "proto/result_fields.h"
#include "session/ldap_options.h"

#include <cstring>
#include <utility>

#define LDAP_MODULE "libraries/libldap/ldap_referrals"

namespace {

constexpr char kV2Marker[] = "Referral:\n";

// Calls visit(line, length) for each non-empty line of text.
template <typename Visit> void for_each_line(const char *text, Visit visit)
{
    while (*text) {
        size_t len = std::strcspn(text, "\n");
        if (len > 0)
            visit(text, len);
        text += len;
        if (*text)
            text++;
    }
}

void free_urls(char **urls)
{
    for (char **u = urls; u && *u; u++)
        zldap::mem_free(*u);
    zldap::mem_free(urls);
}

// Takes a message out of its row's chain and frees it.
void drop_message(LDAPMessage *msg)
{
    ldap_msg_table_unlink_msg(msg);
    free_msg(msg, 0);
}

// A result without referral: a child's result goes up as it is; a top
// row hands out what its chased referrals left behind (the substitute
// for those not followed, or a failure set aside), at the end of its
// chain, when there is any. 0, or the code of the failure.
int hand_over_final_result(LDAP *ld, LDAPMessage *msg, LDAPMessage **out)
{
    ldap_msg_table *table = msg->msg_conn ? msg->msg_conn->lconn_msgtable : nullptr;
    if (!table || msg->msg_id < 0 || static_cast<uint32_t>(msg->msg_id) >= ldap_msg_table_row_count(table))
        return LDAP_SUCCESS;
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (!guard.locked())
        return ldap_fail(ld, LDAP_LOCK_ERROR);
    ldap_msg_row &row = table->rows[msg->msg_id];
    if (row.parent)
        return LDAP_SUCCESS;
    LDAPMessage *outcome = nullptr;
    int rc = take_referral_outcome(&row, row.request ? row.request : msg, &outcome);
    if (rc != LDAP_SUCCESS)
        return ldap_fail(ld, rc);
    if (outcome) {
        ldap_msg_row_insert(&row, outcome, nullptr);
        *out = outcome;
    }
    return LDAP_SUCCESS;
}

struct ChaseSettings {
    const struct timeval *timeout;
    int *error;
    int hops_left;
    bool drop_on_failure; // a failure that follows nothing drops the message
};

// The child row of a followed referral failed: it goes (unless the child
// loop has cleaned it up already), and so does the parent's link to it.
void detach_failed_child(LDAP *ld, ldap_msg_table *table, int id, ldap_msg_table *child_table, int child_id)
{
    auto child_linked = [&] {
        LDAP_MUTEX_GUARD(guard, &table->lock);
        return guard.locked() && table->rows[id].child != nullptr;
    };
    if (!child_linked())
        return;
    cleanup_table_and_references(ld, child_table, child_id);
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (guard.locked() && table->rows[id].child) {
        zldap::mem_free(table->rows[id].child);
        table->rows[id].child = nullptr;
    }
}

// Follows one referral (urls, consumed) of msg. *followed becomes true
// once the referred request is linked as msg's child: msg is then the
// child machinery's and nothing else may be tried with it.
LDAPMessage *chase(LDAP *ld, char **urls, LDAPMessage *msg, const ChaseSettings &how, bool *followed)
{
    LDAP_TRACE(TRC_API, "chase_v3_referrals:\n");
    *followed = false;
    int *slot = how.error;
    ldap_msg_table *table = msg->msg_conn->lconn_msgtable;
    int id = msg->msg_id;
    const char *first = urls ? urls[0] : nullptr;
    // A referral that cannot be followed is listed in the top row's
    // referral text with its first URL (unless memory ran out).
    auto fail = [&](int code, bool record, bool drop) -> LDAPMessage * {
        *slot = code;
        if (record) {
            int rc = record_referral_error(ld, table, id, first, code);
            if (rc != LDAP_SUCCESS)
                *slot = rc;
        }
        free_urls(urls);
        if (drop)
            drop_message(msg);
        return nullptr;
    };
    if (how.hops_left < 0)
        return fail(LDAP_REFERRAL_LIMIT_EXCEEDED, true, how.drop_on_failure);

    // A connection whose bind finds the server down is opened once more.
    LDAPConn *lc = nullptr;
    int child_id = -2;
    for (int attempt = 0; attempt < 2 && child_id == -2; attempt++) {
        int code = 0;
        LDAPURLDesc *desc = nullptr;
        lc = get_referral_connection(ld, urls, &desc, &code);
        if (!lc)
            return fail(code, code != LDAP_NO_MEMORY, how.drop_on_failure);
        *slot = LDAP_SUCCESS;
        child_id = reencode_and_send(ld, lc->lconn_msgtable, desc, msg, slot);
        ldap_free_urldesc(desc);
        if (child_id == -2)
            release_connection(ld, lc);
    }
    if (child_id < 0)
        return fail(child_id == -2 ? LDAP_SERVER_DOWN : *slot, true, how.drop_on_failure);
    ldap_msg_table *child_table = lc->lconn_msgtable;
    int rc = set_parent_child_pointers(msg, child_table, child_id);
    if (rc != LDAP_SUCCESS) {
        ldap_msg_table_release_msgid(child_table, child_id);
        return fail(rc, false, false);
    }
    *followed = true;

    LDAPMessage *r = nullptr;
    int type = ldap_return_one_msg(ld, child_id, how.timeout, &r, child_table, slot, 1, how.hops_left);
    if (type == 0) { // not yet: the parent's child link leads there again
        free_urls(urls);
        return nullptr;
    }
    if (!r) {
        detach_failed_child(ld, table, id, child_table, child_id);
        // A deeper referral that failed has recorded itself already.
        bool recorded = *slot != LDAP_SUCCESS;
        int code = recorded ? *slot : ldap_get_errno_direct(ld);
        return fail(code != LDAP_SUCCESS ? code : LDAP_OTHER, !recorded, true);
    }
    free_urls(urls);
    int r_type = r->msg_type;
    ldap_msg_table_unlink_msg(r);
    int released = ldap_msg_table_release_if_done(child_table, child_id);
    if (ldap_msg_table_merge_child_msg(&r, table, id, released))
        return r;
    // A child's search result done without anything for the parent ends
    // this referral; the parent goes on with its own results.
    if (r_type == LDAP_RES_SEARCH_RESULT) {
        *slot = -1;
        return nullptr;
    }
    ldap_return_one_msg(ld, id, how.timeout, &r, table, slot, 1, how.hops_left + 1);
    return r;
}

} // namespace

ReferralForm read_referral(LDAP *ld, const LDAPMessage *msg, char ***urls, char **text)
{
    *urls = nullptr;
    *text = nullptr;
    // A copy of the element record: msg's own read position stays.
    BerElement reader = *msg->msg_ber;
    if (msg->msg_type == LDAP_RES_SEARCH_REFERENCE) {
        LDAP_TRACE(TRC_API, "look_for_referrals: Search reference detected\n");
        return fber_scanf(&reader, "{v}", urls) != LBER_DEFAULT ? ReferralForm::v3 : ReferralForm::unreadable;
    }
    zldap::ResultReader result(&reader);
    int code = 0;
    int version = 0;
    // The text is copied only for a version 2 referral, the one reader of it;
    // the protocol version matters only for a failure that is no referral.
    if (result.head(&code, nullptr, nullptr) != LDAP_SUCCESS)
        return ReferralForm::unreadable;
    if (code == LDAP_REFERRAL) {
        LDAP_TRACE(TRC_API, "look_for_referrals: V3 Referral detected\n");
        return result.referrals(urls) == LDAP_SUCCESS ? ReferralForm::v3 : ReferralForm::unreadable;
    }
    if (code != LDAP_SUCCESS && ldap_get_option_held(ld, LDAP_OPT_PROTOCOL_VERSION, &version) != LDAP_SUCCESS)
        return ReferralForm::unreadable;
    if (code != LDAP_SUCCESS && version == LDAP_VERSION2) {
        LDAP_TRACE(TRC_API, "look_for_referrals: V2 Referral detected\n");
        reader = *msg->msg_ber;
        return zldap::ResultReader(&reader).head(&code, nullptr, text) == LDAP_SUCCESS ? ReferralForm::v2
                                                                                        : ReferralForm::unreadable;
    }
    LDAP_TRACE(TRC_API, "look_for_referrals: No Referral detected. Checking for error\n");
    return ReferralForm::none;
}

int look_for_referrals(LDAP *ld, LDAPMessage *msg, LDAPMessage **out, const struct timeval *timeout,
                       int *error, int hop_limit)
{
    *out = msg;
    int hops_left = hop_limit - 1;
    char **urls = nullptr;
    char *text = nullptr;
    switch (read_referral(ld, msg, &urls, &text)) {
    case ReferralForm::v3:
        *out = chase_v3_referrals(ld, urls, msg, timeout, error, hops_left);
        break;
    case ReferralForm::v2:
        *out = chase_v2_referrals(ld, msg, text, timeout, error, hops_left);
        zldap::mem_free(text);
        break;
    case ReferralForm::none:
        *error = hand_over_final_result(ld, msg, out);
        break;
    case ReferralForm::unreadable:
        break;
    }
    if (*out)
        return (*out)->msg_type;
    return *error == LDAP_SUCCESS ? 0 : -1;
}

LDAPMessage *chase_v3_referrals(LDAP *ld, char **urls, LDAPMessage *msg, const struct timeval *timeout,
                                int *error, int hops_left)
{
    bool followed = false;
    return chase(ld, urls, msg, {timeout, error, hops_left, true}, &followed);
}

int v2_referral_urls(const char *text, char ***urls)
{
    *urls = nullptr;
    if (!text || std::strlen(text) <= 9)
        return LDAP_SUCCESS;
    const char *marker = strcasestr(text, kV2Marker);
    if (!marker)
        return LDAP_SUCCESS;
    const char *lines = marker + sizeof kV2Marker - 1;
    size_t count = 0;
    for_each_line(lines, [&](const char *, size_t) { count++; });
    if (count == 0)
        return LDAP_SUCCESS;
    auto **found = static_cast<char **>(zldap::mem_calloc(count + 1, sizeof(char *)));
    if (!found)
        return LDAP_NO_MEMORY;
    size_t n = 0;
    bool complete = true;
    for_each_line(lines, [&](const char *line, size_t len) {
        if (complete)
            complete = (found[n++] = zldap::mem_strndup(line, len)) != nullptr;
    });
    if (!complete) {
        free_urls(found);
        return LDAP_NO_MEMORY;
    }
    *urls = found;
    return LDAP_SUCCESS;
}

LDAPMessage *chase_v2_referrals(LDAP *ld, LDAPMessage *msg, const char *text, const struct timeval *timeout,
                                int *error, int hops_left)
{
    LDAP_TRACE(TRC_API, "Chase_v2_referrals: errstr(%s)\n", trace_str(text, "<NULL>"));
    char **urls = nullptr;
    int rc = v2_referral_urls(text, &urls);
    if (rc != LDAP_SUCCESS) {
        *error = rc;
        return nullptr;
    }
    if (!urls)
        return msg;
    size_t count = 0;
    while (urls[count])
        count++;
    // One URL at a time: the next one is tried only while the previous
    // failed without following anything, and the last failure drops msg.
    LDAPMessage *r = nullptr;
    for (size_t i = 0; i < count; i++) {
        LDAP_TRACE(TRC_ERROR, "chase_v2_referrals: V2 referral has been detected ref=%s\n", urls[i]);
        auto **one = static_cast<char **>(zldap::mem_calloc(2, sizeof(char *)));
        if (!one) {
            *error = LDAP_NO_MEMORY;
            break;
        }
        std::swap(one[0], urls[i]);
        bool last = i + 1 == count;
        bool followed = false;
        r = chase(ld, one, msg, {timeout, error, hops_left, last}, &followed);
        if (r || followed || *error == LDAP_SUCCESS)
            break;
    }
    for (size_t i = 0; i < count; i++) // those not tried
        zldap::mem_free(urls[i]);
    zldap::mem_free(urls);
    return r;
}
