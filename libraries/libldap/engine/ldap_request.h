// ldap_request.h - sending requests: filing a request in its row, writing
// it to the server (opening the connection on first use), waiting for a
// writable socket, and the request skeleton every operation follows.
#ifndef ZLDAP_LDAP_REQUEST_H
#define ZLDAP_LDAP_REQUEST_H

#include "base/function_ref.h"
#include "message/ldap_table.h"

#include <sys/time.h>

// Files the request in the row of its id (*stored = 1 from then on) and
// writes it. 0 or a result code.
int ldap_msg_table_send_message(ldap_msg_table *table, LDAP *ld, LDAPMessage *msg, int *stored,
                                const struct timeval *timeout);
// Writes the request's element to its connection, an all-zero time-out
// meaning none. 0 or a result code; a failure marks the connection closed
// for good.
int ldap_write_msg(LDAP *ld, LDAPMessage *msg, const struct timeval *timeout);
// Waits until sd is writable: >0 writable, 0 timed out, -1 failed. The
// process-wide write time-out, when set, replaces the caller's.
int waitOnSocket(int sd, const struct timeval *timeout);
// LDAP_LIB_WRITE_TIMEOUT as read at the first call: seconds (1 or more) or -1.
int ldap_write_timeout();

namespace zldap {

// What an operation adds to the skeleton: its trace line for a missing
// connection, its request tag, the server controls to send, and the encoder of its protocol
// operation (tag included). The encoder returns 0 or a result code; it is
// referenced, not copied, so it must outlive the plan (name the lambda).
struct RequestPlan {
    const char *no_connection; // a whole trace line
    int tag;
    LDAPControl **server_controls;
    FunctionRef<int(BerElement *)> encode;
};

// The request skeleton: connection (lc, or the thread's default), message,
// id, element, envelope, operation, controls, send; on failure everything
// made is released and the code is the handle's error. 0 with *msgid set.
int send_request(LDAP *ld, LDAPConn *lc, const RequestPlan &plan, int *msgid,
                 const struct timeval *timeout = nullptr);

} // namespace zldap

#endif
