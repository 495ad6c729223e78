// ldap_message.h - the LDAPMessage record: one request or response, and
// the links of a result chain.
#ifndef ZLDAP_LDAP_MESSAGE_H
#define ZLDAP_LDAP_MESSAGE_H

#include "lber.h"
#include "ldap_session.h"

// msg_flags bit: handed out alone by LDAP_MSG_ONE; counts as a chain of one.
inline constexpr uint32_t LDAP_MSGFLAG_ALONE = 0x02;

struct ldapmsg {
    int32_t msg_id;      // 0 in a new message
    int32_t msg_type;    // request or response tag; 0x30 in a new message
    uint32_t msg_flags;
    BerElement *msg_ber; // owned; positioned at the protocol operation
    LDAPConn *msg_conn;  // its lconn_ld owns the message, its lconn_msgtable files it
    LDAPMessage *msg_next;
    LDAPMessage *msg_prev;
};

LDAPMessage *ldap_alloc_msg(LDAPConn *conn);
// Releases msg and its element; with all = 1 also every message after it.
void free_msg(LDAPMessage *msg, int all);
int ldap_msgid(LDAPMessage *msg);
int ldap_msgtype(LDAPMessage *msg);
// 1 for the types that end a request (bind, search done, modify, add,
// delete, modify DN, compare, extended), else 0.
int is_last_msg(LDAPMessage *msg);
// Releases a chain handed out by ldap_result (or one message handed out
// alone) and the request's row once it is done with; the unguarded form
// for callers inside an operation. The type of what was released, or 0.
int ldap_msgfree_direct(LDAPMessage *msg);

#endif
