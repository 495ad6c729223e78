// ldap_chain.cpp - releasing result chains and walking their messages,
// entries and references. A message handed out alone (LDAP_MSG_ONE) is a
// chain of one for these walks and is released alone.
#include "results/results.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "message/ldap_table.h"
#include "proto/ldap_controls.h"

#define LDAP_MODULE "libraries/libldap/ldap_chain"

namespace {

bool alone(const LDAPMessage *msg) { return msg->msg_flags & LDAP_MSGFLAG_ALONE; }

// The first message of `type` from msg on.
LDAPMessage *find_type(LDAPMessage *msg, int type)
{
    while (msg && msg->msg_type != type)
        msg = msg->msg_next;
    return msg;
}

int count_type(LDAPMessage *msg, int type)
{
    int n = 0;
    for (; msg; msg = msg->msg_next)
        n += msg->msg_type == type;
    return n;
}

// Cuts msg (and, unless it was handed out alone, everything after it) out
// of its row's chain; returns the type the release reports. The caller
// holds the table lock.
int unlink_from_row(ldap_msg_row &row, LDAPMessage *msg)
{
    int type;
    if (alone(msg)) {
        if (msg->msg_prev)
            msg->msg_prev->msg_next = msg->msg_next;
        else
            row.first_result = msg->msg_next;
        if (msg->msg_next)
            msg->msg_next->msg_prev = msg->msg_prev;
        else
            row.last_result = msg->msg_prev;
        if (row.next_to_return == msg)
            row.next_to_return = msg->msg_next;
        msg->msg_next = msg->msg_prev = nullptr;
        type = msg->msg_type;
    } else {
        type = row.last_result ? row.last_result->msg_type : msg->msg_type;
        if (msg->msg_prev)
            msg->msg_prev->msg_next = nullptr;
        else
            row.first_result = nullptr;
        row.last_result = msg->msg_prev;
        // Whatever was still to be handed out goes with the cut.
        for (LDAPMessage *m = msg; m; m = m->msg_next)
            if (row.next_to_return == m)
                row.next_to_return = nullptr;
        msg->msg_prev = nullptr;
    }
    return type;
}

} // namespace

int ldap_msgfree_direct(LDAPMessage *msg)
{
    if (!msg || !msg->msg_conn)
        return 0;
    ldap_msg_table *table = msg->msg_conn->lconn_msgtable;
    if (!table)
        return 0;
    int type = 0;
    {
        LDAP_MUTEX_GUARD(guard, &table->lock);
        if (!guard.locked())
            return 0;
        if (msg->msg_id < 0 || static_cast<uint32_t>(msg->msg_id) >= table->row_count)
            return 0;
        ldap_msg_row &row = table->rows[msg->msg_id];
        type = unlink_from_row(row, msg);
        // A finished request whose messages are all released gives its row back.
        if ((row.flags & LDAP_ROW_DONE) && (!row.first_result || row.referral_error != 0))
            ldap_msg_table_release_msgid_direct(table, msg->msg_id);
    }
    free_msg(msg, 1);
    return type;
}

int ldap_msgfree(LDAPMessage *res)
{
    LDAP_TRACE(TRC_API, "ldap_msgfree entered, msg=%p\n", static_cast<void *>(res));
    if (!res)
        return 0;
    if (!res->msg_conn) {
        LDAP_TRACE(TRC_ERROR, "ldap_msgfree: server pointer NULL\n");
        return 0;
    }
    LDAP *ld = res->msg_conn->lconn_ld;
    if (!ld) {
        LDAP_TRACE(TRC_ERROR, "ldap_msgfree: ld pointer NULL\n");
        return 0;
    }
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return 0;
    return ldap_msgfree_direct(res);
}

LDAPMessage *ldap_first_message(LDAP *ld, LDAPMessage *res)
{
    LDAP_TRACE(TRC_API, "ldap_first_message: ld(%p) res(%p)\n", static_cast<void *>(ld), static_cast<void *>(res));
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (!op.admitted())
        return nullptr;
    LDAP_TRACE(TRC_API, "ldap_first_message: returning (%p)\n", static_cast<void *>(res));
    return res;
}

LDAPMessage *ldap_next_message(LDAP *ld, LDAPMessage *msg)
{
    LDAP_TRACE(TRC_API, "ldap_next_message: ld(%p) msg(%p)\n", static_cast<void *>(ld), static_cast<void *>(msg));
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (!op.admitted())
        return nullptr;
    LDAPMessage *next = (msg && !alone(msg)) ? msg->msg_next : nullptr;
    LDAP_TRACE(TRC_API, "ldap_next_message: returning (%p)\n", static_cast<void *>(next));
    return next;
}

int ldap_count_messages(LDAP *ld, LDAPMessage *res)
{
    LDAP_TRACE(TRC_API, "ldap_count_messages: ld(%p) res(%p)\n", static_cast<void *>(ld), static_cast<void *>(res));
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (!op.admitted())
        return -1;
    int n = 0;
    for (LDAPMessage *m = res; m; m = alone(m) ? nullptr : m->msg_next)
        n++;
    LDAP_TRACE(TRC_API, "ldap_count_messages: returning (%d)\n", n);
    return n;
}

namespace {

// The entry and reference walks share their shape: a name for the traces,
// the type wanted, and whether to start after the given message.
LDAPMessage *walk(LDAP *ld, LDAPMessage *msg, int type, bool after, const char *name)
{
    LDAP_TRACE(TRC_API, "%s: ld(%p) msg(%p)\n", name, static_cast<void *>(ld), static_cast<void *>(msg));
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (!op.admitted())
        return nullptr;
    LDAPMessage *found = find_type(after && msg ? msg->msg_next : msg, type);
    LDAP_TRACE(TRC_API, "%s: returning (%p)\n", name, static_cast<void *>(found));
    return found;
}

int count(LDAP *ld, LDAPMessage *msg, int type, const char *name)
{
    LDAP_TRACE(TRC_API, "%s: ld(%p) msg(%p)\n", name, static_cast<void *>(ld), static_cast<void *>(msg));
    zldap::OperationGuard op(ld, zldap::OnEntry::reset_error);
    if (!op.admitted())
        return -1;
    int n = count_type(msg, type);
    LDAP_TRACE(TRC_API, "%s: returning (%d)\n", name, n);
    return n;
}

} // namespace

LDAPMessage *ldap_first_entry(LDAP *ld, LDAPMessage *res)
{
    return walk(ld, res, LDAP_RES_SEARCH_ENTRY, false, "ldap_first_entry");
}

LDAPMessage *ldap_next_entry(LDAP *ld, LDAPMessage *entry)
{
    return walk(ld, entry, LDAP_RES_SEARCH_ENTRY, true, "ldap_next_entry");
}

int ldap_count_entries(LDAP *ld, LDAPMessage *res) { return count(ld, res, LDAP_RES_SEARCH_ENTRY, "ldap_count_entries"); }

LDAPMessage *ldap_first_reference(LDAP *ld, LDAPMessage *res)
{
    return walk(ld, res, LDAP_RES_SEARCH_REFERENCE, false, "ldap_first_reference");
}

LDAPMessage *ldap_next_reference(LDAP *ld, LDAPMessage *ref)
{
    return walk(ld, ref, LDAP_RES_SEARCH_REFERENCE, true, "ldap_next_reference");
}

int ldap_count_references(LDAP *ld, LDAPMessage *res)
{
    return count(ld, res, LDAP_RES_SEARCH_REFERENCE, "ldap_count_references");
}

int ldap_parse_reference(LDAP *ld, LDAPMessage *ref, char ***referralsp, LDAPControl ***serverctrlsp, int freeit)
{
    LDAP_TRACE(TRC_API, "ldap_parse_reference: ld(%p) ref(%p) referralsp(%p) serverctrlsp(%p) freeit(%d)\n",
               static_cast<void *>(ld), static_cast<void *>(ref), static_cast<void *>(referralsp),
               static_cast<void *>(serverctrlsp), freeit);
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return LDAP_PARAM_ERROR;
    int rc = LDAP_SUCCESS;
    char **urls = nullptr;
    LDAPControl **ctrls = nullptr;
    if (!ref || ref->msg_type != LDAP_RES_SEARCH_REFERENCE || !ref->msg_ber) {
        rc = LDAP_PARAM_ERROR;
    } else {
        BerElement reader = *ref->msg_ber;
        bool ok = referralsp ? fber_scanf(&reader, "{v}", &urls) != LBER_DEFAULT : fber_skip_element(&reader) == 0;
        if (!ok)
            rc = LDAP_DECODING_ERROR;
        else if (serverctrlsp)
            rc = get_ctrls_from_ber(&reader, &ctrls);
    }
    if (freeit)
        ldap_msgfree_direct(ref);
    if (rc != LDAP_SUCCESS) {
        ldap_value_free(urls);
        ldap_controls_free(ctrls);
    } else {
        if (referralsp)
            *referralsp = urls;
        if (serverctrlsp)
            *serverctrlsp = ctrls;
    }
    ldap_set_error_direct(ld, rc, nullptr, nullptr);
    LDAP_TRACE(TRC_API, "ldap_parse_reference: returning (%d)\n", rc);
    return rc;
}

int ldap_parse_reference_np(LDAP *ld, LDAPMessage *ref, char ***referralsp, LDAPControl ***serverctrlsp,
                            int freeit)
{
    LDAP_TRACE(TRC_API, "ldap_parse_reference_np: ld(%p) ref(%p) referralsp(%p) serverctrlsp(%p) freeit(%d)\n",
               static_cast<void *>(ld), static_cast<void *>(ref), static_cast<void *>(referralsp),
               static_cast<void *>(serverctrlsp), freeit);
    int rc = ldap_parse_reference(ld, ref, referralsp, serverctrlsp, freeit);
    LDAP_TRACE(TRC_API, "ldap_parse_reference_np: returning rc=%d\n", rc);
    return rc;
}
