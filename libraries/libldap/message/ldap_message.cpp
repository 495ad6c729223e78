// ldap_message.cpp - creation and release of LDAPMessage records, the
// elements they carry, and the test for a response that ends its request.
#include "message/ldap_message.h"

#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_error.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#define LDAP_MODULE "libraries/libldap/ldap_message"

LDAPMessage *ldap_alloc_msg(LDAPConn *conn)
{
    auto *msg = static_cast<LDAPMessage *>(zldap::mem_calloc(1, sizeof(LDAPMessage)));
    if (msg) {
        msg->msg_type = 0x30;
        msg->msg_conn = conn;
    }
    return msg;
}

LDAPMessage *ldap_alloc_response(LDAP *ld, LDAPConn *conn)
{
    constexpr size_t kReaderOffset = (sizeof(LDAPMessage) + alignof(std::max_align_t) - 1) &
                                     ~(alignof(std::max_align_t) - 1);
    auto *block = static_cast<char *>(zldap::mem_calloc(1, kReaderOffset + fber_reader_size()));
    if (!block)
        return nullptr;
    auto *msg = reinterpret_cast<LDAPMessage *>(block);
    msg->msg_type = 0x30;
    msg->msg_conn = conn;
    msg->msg_flags = LDAP_MSGFLAG_OWN_READER;
    msg->msg_ber = fber_place_reader(block + kReaderOffset);
    fber_set_string_settings(msg->msg_ber, ld->ld_no_xlate, ld->ld_version);
    return msg;
}

BerElement *new_ldap_ber(LDAP *ld)
{
    if (!ld)
        return nullptr;
    // The settings live in the element's own allocation: one block per element.
    BerElement *ber = fber_alloc();
    if (!ber)
        return ldap_fail_returning(ld, LDAP_NO_MEMORY, nullptr);
    fber_set_string_settings(ber, ld->ld_no_xlate, ld->ld_version);
    return ber;
}

void free_msg(LDAPMessage *msg, int all)
{
    LDAP_TRACE(TRC_API, "free_msg: msg(%p), all(%d)\n", static_cast<void *>(msg), all);
    while (msg) {
        LDAPMessage *next = msg->msg_next;
        if (msg->msg_flags & LDAP_MSGFLAG_OWN_READER)
            fber_release_reader(msg->msg_ber);
        else
            fber_free(msg->msg_ber);
        zldap::mem_free(msg);
        msg = (all == 1) ? next : nullptr;
    }
}

int ldap_msgid(LDAPMessage *msg)
{
    LDAP_TRACE(TRC_API, "ldap_msgid: msg(%p)\n", static_cast<void *>(msg));
    return msg ? msg->msg_id : -1;
}

int ldap_msgtype(LDAPMessage *msg) { return msg ? msg->msg_type : 0; }

int is_last_msg(LDAPMessage *msg)
{
    if (!msg)
        return 0;
    // Every response but search entries and references ends its request.
    constexpr int kFinalTypes[] = {LDAP_RES_BIND,    LDAP_RES_SEARCH_RESULT, LDAP_RES_MODIFY,
                                   LDAP_RES_ADD,     LDAP_RES_DELETE,        LDAP_RES_MODRDN,
                                   LDAP_RES_COMPARE, LDAP_RES_EXTENDED};
    bool last = std::find(std::begin(kFinalTypes), std::end(kFinalTypes), msg->msg_type) != std::end(kFinalTypes);
    LDAP_TRACE(TRC_API, last ? "is_last_msg: returning TRUE, msgid=%d\n" : "is_last_msg: returning FALSE, msgid=%d\n",
               msg->msg_id);
    return last ? 1 : 0;
}
