// ldap_result.h - ldap_result: handing a caller one message of its request,
// or the request's whole chain once it is complete.
#ifndef ZLDAP_LDAP_RESULT_H
#define ZLDAP_LDAP_RESULT_H

#include "message/ldap_table.h"
#include "zor8ldap_api.h"

#include <sys/time.h>

// ldap_result (declared in zor8ldap_api.h) without the operation guard,
// for callers already inside it; a time-out is not recorded as the error.
int ldap_result_int(LDAP *ld, int msgid, int all, const struct timeval *timeout, LDAPMessage **result);

// `error` is the slot referral chasing reports in; `chase` and `hop_limit`
// are the row's captured referral settings.
int ldap_return_one_msg(LDAP *ld, int id, const struct timeval *timeout, LDAPMessage **out,
                        ldap_msg_table *table, int *error, int chase, int hop_limit);
int ldap_return_all_msgs(LDAP *ld, int id, const struct timeval *timeout, LDAPMessage **out,
                         ldap_msg_table *table, int *error, int chase, int hop_limit);

#endif
