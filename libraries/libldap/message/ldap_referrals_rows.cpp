// ldap_referrals_rows.cpp - the rows' side of referral chasing. These
// pieces work on the message table alone, so the table's own merge of a
// child's results can use them; the chasing itself is in engine/.
#include "message/ldap_referrals_rows.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_error.h"

#include <cstring>

#define LDAP_MODULE "libraries/libldap/ldap_referrals"

namespace {

bool valid_row(const ldap_msg_table *table, int id)
{
    return table && id >= 0 && static_cast<uint32_t>(id) < ldap_msg_table_row_count(table);
}

} // namespace

int response_tag(int request_tag)
{
    switch (request_tag) {
    case 0x4A:
        return LDAP_RES_DELETE;
    case 0x63:
        return LDAP_RES_SEARCH_RESULT;
    case 0x66:
        return LDAP_RES_MODIFY;
    case 0x68:
        return LDAP_RES_ADD;
    case 0x6C:
        return LDAP_RES_MODRDN;
    case 0x6E:
        return LDAP_RES_COMPARE;
    default:
        return request_tag;
    }
}

BerElement *build_result_ber(int code, const char *matched, const char *text, int id, int type)
{
    BerElement *ber = fber_alloc();
    if (!ber)
        return nullptr;
    int read_id = 0;
    if (fber_printf(ber, "{it{ess}}", id, static_cast<ber_tag_t>(type), code, matched ? matched : "",
                    text ? text : "") != 0) {
        fber_free(ber);
        return nullptr;
    }
    // Positioned like a message read from the wire: past the envelope's
    // header and the message id, at the protocol operation.
    fber_reset(ber, 1);
    if (fber_scanf(ber, "{i", &read_id) == LBER_DEFAULT) {
        fber_free(ber);
        return nullptr;
    }
    return ber;
}

int find_top_row(ldap_msg_table **table, int *id)
{
    for (;;) {
        ldap_msg_table *current = *table;
        if (!valid_row(current, *id))
            return LDAP_PARAM_ERROR;
        if (LDAP_MUTEX_LOCK(&current->lock) != 0)
            return LDAP_LOCK_ERROR;
        const ldap_msg_link *parent = current->rows[*id].parent;
        if (!parent)
            return LDAP_SUCCESS;
        *table = parent->table;
        *id = parent->row_id;
        LDAP_MUTEX_UNLOCK(&current->lock);
    }
}

int get_return_error_msg(LDAPMessage *r, int code, const char *text, LDAPMessage **out)
{
    LDAP_TRACE(TRC_API, "get_return_error_msg: msg(%p), err(%d), err_msg(%p), rc_msg(%p)\n",
               static_cast<void *>(r), code, static_cast<const void *>(text), static_cast<void *>(out));
    *out = nullptr;
    if (code == LDAP_NO_MEMORY)
        return LDAP_NO_MEMORY;
    int type = response_tag(r->msg_type);
    LDAPMessage *msg = ldap_alloc_msg(r->msg_conn);
    BerElement *ber = msg ? build_result_ber(code, "", text, r->msg_id, type) : nullptr;
    if (!ber) {
        free_msg(msg, 0);
        return LDAP_NO_MEMORY;
    }
    msg->msg_id = r->msg_id;
    msg->msg_type = type;
    msg->msg_ber = ber;
    *out = msg;
    return code;
}

int take_referral_outcome(ldap_msg_row *row, LDAPMessage *from, LDAPMessage **out)
{
    *out = nullptr;
    if (row->referral_text) {
        int rc = get_return_error_msg(from, LDAP_SUCCESS, row->referral_text, out);
        if (rc != LDAP_SUCCESS)
            return rc;
        free_msg(row->saved_result, 0);
        row->saved_result = nullptr;
        zldap::mem_free(row->referral_text);
        row->referral_text = nullptr;
    } else if (row->saved_result) {
        *out = row->saved_result;
        row->saved_result = nullptr;
    }
    return LDAP_SUCCESS;
}

void keep_saved_result(LDAPMessage *msg)
{
    BerElement reader = *msg->msg_ber;
    int code = 0;
    if (fber_scanf(&reader, "{i", &code) == LBER_DEFAULT || code == LDAP_SUCCESS) {
        free_msg(msg, 0);
        return;
    }
    ldap_msg_table_unlink_msg(msg);
    ldap_msg_table *table = msg->msg_conn ? msg->msg_conn->lconn_msgtable : nullptr;
    int id = msg->msg_id;
    if (find_top_row(&table, &id) != LDAP_SUCCESS) {
        free_msg(msg, 0);
        return;
    }
    // The first failure of the chain is the one the caller gets to see.
    ldap_msg_row &row = table->rows[id];
    if (!row.saved_result) {
        row.saved_result = msg;
        msg = nullptr;
    }
    LDAP_MUTEX_UNLOCK(&table->lock);
    free_msg(msg, 0);
}

int append_referral(char **text, const char *url)
{
    LDAP_TRACE(TRC_API, "append_referral: append_this(%s)\n", trace_str(url));
    const char *head = *text ? *text : "Referral:\n";
    const char *item = url ? url : " ";
    size_t head_len = std::strlen(head);
    size_t item_len = std::strlen(item);
    auto *grown = static_cast<char *>(zldap::mem_malloc(head_len + item_len + 2));
    if (!grown)
        return LDAP_NO_MEMORY;
    std::memcpy(grown, head, head_len);
    std::memcpy(grown + head_len, item, item_len);
    grown[head_len + item_len] = '\n';
    grown[head_len + item_len + 1] = '\0';
    zldap::mem_free(*text);
    *text = grown;
    return LDAP_SUCCESS;
}

int record_referral_error(LDAP *ld, ldap_msg_table *table, int id, const char *url, int code)
{
    int rc = find_top_row(&table, &id);
    if (rc != LDAP_SUCCESS)
        return ldap_fail(ld, rc);
    ldap_msg_row &row = table->rows[id];
    bool first = !row.referral_text;
    rc = append_referral(&row.referral_text, url);
    if (rc == LDAP_SUCCESS && first)
        row.referral_error = static_cast<uint32_t>(code);
    LDAP_MUTEX_UNLOCK(&table->lock);
    return rc == LDAP_SUCCESS ? rc : ldap_fail(ld, rc);
}

int set_parent_child_pointers(LDAPMessage *msg, ldap_msg_table *child_table, int child_id)
{
    LDAP_TRACE(TRC_API, "set_parent_child_pointers\n");
    ldap_msg_table *table = msg->msg_conn ? msg->msg_conn->lconn_msgtable : nullptr;
    int id = msg->msg_id;
    if (!valid_row(table, id) || !valid_row(child_table, child_id))
        return LDAP_PARAM_ERROR;
    auto *child = static_cast<ldap_msg_link *>(zldap::mem_calloc(1, sizeof(ldap_msg_link)));
    auto *parent = static_cast<ldap_msg_link *>(zldap::mem_calloc(1, sizeof(ldap_msg_link)));
    if (!child || !parent) {
        zldap::mem_free(child);
        zldap::mem_free(parent);
        return LDAP_NO_MEMORY;
    }
    *child = {child_table, child_id, msg};
    *parent = {table, id, nullptr};
    int hops = 0;
    {
        LDAP_MUTEX_GUARD(guard, &table->lock);
        if (!guard.locked()) {
            zldap::mem_free(child);
            zldap::mem_free(parent);
            return LDAP_LOCK_ERROR;
        }
        table->rows[id].child = child;
        hops = table->rows[id].hop_limit;
    }
    {
        LDAP_MUTEX_GUARD(guard, &child_table->lock);
        if (guard.locked()) {
            ldap_msg_row &row = child_table->rows[child_id];
            row.parent = parent;
            row.hop_limit = hops - 1;
            row.flags |= LDAP_ROW_REFOPTS | LDAP_ROW_CHASE;
            // The chasing thread collects the child's results, and only
            // the collector may clean a failed child up.
            row.owner = pthread_self();
            row.has_owner = 1;
            return LDAP_SUCCESS;
        }
    }
    // The child link is taken back; should even that fail, it stays where
    // it is (the row frees it) rather than being freed under the row.
    LDAP_MUTEX_GUARD(guard, &table->lock);
    if (guard.locked() && table->rows[id].child == child) {
        table->rows[id].child = nullptr;
        zldap::mem_free(child);
    }
    zldap::mem_free(parent);
    return LDAP_LOCK_ERROR;
}
