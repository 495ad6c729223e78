// ldap_queue.cpp - messages go from the reader into the queue, and from the
// queue into their rows. The reader never takes the table lock: filing
// happens in flush_queue, under the table lock, by whichever thread next
// looks at the table.
#include "message/ldap_queue.h"

#include "base/ldap_lock.h"
#include "base/trace.h"

#define LDAP_MODULE "libraries/libldap/ldap_queue"

void put_msg_in_queue(ldap_msg_table *table, LDAPMessage *msg)
{
    if (!table || !msg)
        return;
    LDAP_TRACE(TRC_API, "put_msg_in_queue: storing msgid=%d in queue\n", msg->msg_id);
    LDAP_MUTEX_GUARD(guard, &table->queue_lock);
    if (!guard.locked()) {
        LDAP_TRACE(TRC_ERROR, "put_msg_in_queue: failed to lock queue, rc=%d\n", 129);
        return;
    }
    msg->msg_next = nullptr;
    if (table->queue_last)
        table->queue_last->msg_next = msg;
    else
        table->queue_first = msg;
    table->queue_last = msg;
}

void flush_queue(ldap_msg_table *table)
{
    LDAP_MUTEX_GUARD(guard, &table->queue_lock);
    if (!guard.locked()) {
        LDAP_TRACE(TRC_ERROR, "flush_queue: failed to lock queue!\n");
        return;
    }
    LDAPMessage *msg = table->queue_first;
    table->queue_first = table->queue_last = nullptr;
    while (msg) {
        LDAPMessage *next = msg->msg_next;
        msg->msg_next = nullptr;
        if (put_msg_in_table(table, msg) != 0)
            free_msg(msg, 0);
        msg = next;
    }
}

int put_msg_in_table(ldap_msg_table *table, LDAPMessage *msg)
{
    if (!table || !msg)
        return LDAP_PARAM_ERROR;
    LDAP_TRACE(TRC_API, "put_msg_in_table: storing msgtype=0x%x, msgid=%d in table\n",
               static_cast<unsigned>(msg->msg_type), msg->msg_id);
    int id = msg->msg_id;
    if (id < 0 || static_cast<uint32_t>(id) >= table->row_count) {
        LDAP_TRACE(TRC_API, "put_msg_in_table: BAD Msg (%d), throw it.\n", id);
        return LDAP_OTHER;
    }
    ldap_msg_row &row = table->rows[id];
    if (row.flags & LDAP_ROW_ABANDON) {
        LDAP_TRACE(TRC_API, "put_msg_in_table: Cant store msg since abandon issued for msgid %d\n", id);
        return LDAP_OTHER;
    }
    if (!row.request && id != 0) {
        LDAP_TRACE(TRC_API, "put_msg_in_table: No corresponding request msg found.\n");
        return LDAP_OTHER;
    }
    msg->msg_next = nullptr;
    msg->msg_prev = row.last_result;
    if (row.last_result)
        row.last_result->msg_next = msg;
    else
        row.first_result = msg;
    row.last_result = msg;
    if (!row.next_to_return)
        row.next_to_return = msg;
    if (id == 0 || !is_last_msg(msg))
        return LDAP_SUCCESS;
    row.flags |= LDAP_ROW_DONE;
    // Nobody will collect an orphan's results: they go with its row.
    if (row.flags & LDAP_ROW_ORPHAN)
        ldap_msg_table_release_msgid_direct(table, id);
    return LDAP_SUCCESS;
}
