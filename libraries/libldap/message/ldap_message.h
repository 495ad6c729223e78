// ldap_message.h - the LDAPMessage record: one request or response, and
// the links of a result chain.
#ifndef ZLDAP_LDAP_MESSAGE_H
#define ZLDAP_LDAP_MESSAGE_H

#include "ber/lber.h"
#include "core/ldap_session.h"
#include "zor8ldap_api.h"

// msg_flags bit: handed out alone by LDAP_MSG_ONE; counts as a chain of one.
inline constexpr uint32_t LDAP_MSGFLAG_ALONE = 0x02;
// msg_flags bit: msg_ber lives in the message's own block (a response read
// from a connection); free_msg releases it with the message.
inline constexpr uint32_t LDAP_MSGFLAG_OWN_READER = 0x04;

struct ldapmsg {
    int32_t msg_id;      // 0 in a new message
    int32_t msg_type;    // request or response tag; 0x30 in a new message
    uint32_t msg_flags;
    // A search entry's hint for attribute lookups: the offset in msg_ber's
    // buffer of a type that is the first of its name in the entry, or 0.
    // Any thread walking the entry may set it, so it is read and written
    // atomically; an entry's element never changes once it is read.
    uint32_t msg_attr_hint;
    BerElement *msg_ber; // owned; positioned at the protocol operation
    LDAPConn *msg_conn;  // its lconn_ld owns the message, its lconn_msgtable files it
    LDAPMessage *msg_next;
    LDAPMessage *msg_prev;
};

LDAPMessage *ldap_alloc_msg(LDAPConn *conn);
// A message for a response to be read from conn, with its reading element
// (the handle's translation setting and protocol version) in the same
// block: one allocation per response. NULL when memory runs out.
LDAPMessage *ldap_alloc_response(LDAP *ld, LDAPConn *conn);
// A new element for writing a request, carrying the handle's translation
// setting and protocol version. NULL with 90 as the thread's error when
// memory runs out.
BerElement *new_ldap_ber(LDAP *ld);
// Releases msg and its element; with all = 1 also every message after it.
void free_msg(LDAPMessage *msg, int all);
// 1 for the types that end a request (bind, search done, modify, add,
// delete, modify DN, compare, extended), else 0.
int is_last_msg(LDAPMessage *msg);

#endif
