// ldap_referrals.h - referral chasing: following the referrals and search
// references a response carries to the servers they name.
#ifndef ZLDAP_LDAP_REFERRALS_H
#define ZLDAP_LDAP_REFERRALS_H

#include "message/ldap_message.h"

#include <sys/time.h>

// Follows the referrals a message carries; hands the message back as it is
// when it carries none. Type of *out, or -1 when following failed; `error`
// is the caller's slot for the reason.
int look_for_referrals(LDAP *ld, LDAPMessage *msg, LDAPMessage **out, const struct timeval *timeout,
                       int *error, int hop_limit);

#endif
