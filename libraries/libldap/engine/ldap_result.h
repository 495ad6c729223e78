// ldap_result.h - ldap_result: handing a caller one message of its request,
// or the request's whole chain once it is complete.
#ifndef ZLDAP_LDAP_RESULT_H
#define ZLDAP_LDAP_RESULT_H

#include "message/ldap_table.h"

#include <sys/time.h>

// Type of the (last) message handed out, 0 on time-out, -1 on error.
int ldap_result(LDAP *ld, int msgid, int all, struct timeval *timeout, LDAPMessage **result);
int ldap_result_int(LDAP *ld, int msgid, int all, const struct timeval *timeout, LDAPMessage **result);

// `error` is the slot referral chasing reports in; `chase` and `hop_limit`
// are the row's captured referral settings.
int ldap_return_one_msg(LDAP *ld, int id, const struct timeval *timeout, LDAPMessage **out,
                        ldap_msg_table *table, int *error, int chase, int hop_limit);
int ldap_return_all_msgs(LDAP *ld, int id, const struct timeval *timeout, LDAPMessage **out,
                         ldap_msg_table *table, int *error, int chase, int hop_limit);

#endif
