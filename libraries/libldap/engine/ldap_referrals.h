// ldap_referrals.h - referral chasing: following the referrals and search
// references a response carries to the servers they name. A response
// tells the client to ask elsewhere in three ways: a result code of 10
// with a referral list, a search reference (0x73), and on LDAPv2 a
// non-zero result whose text holds "Referral:\n" and URLs, one a line.
//
// `error` is the slot of the caller of look_for_referrals: chasing sets it
// to 0 on success, to a result code (or -1) on failure.
#ifndef ZLDAP_LDAP_REFERRALS_H
#define ZLDAP_LDAP_REFERRALS_H

#include "message/ldap_table.h"

#include <sys/time.h>

// Follows the referrals msg carries; hands msg back as it is when it
// carries none. Type of *out; without *out 0 when the slot is 0 (nothing
// yet within the time-out), -1 when following failed.
int look_for_referrals(LDAP *ld, LDAPMessage *msg, LDAPMessage **out, const struct timeval *timeout,
                       int *error, int hop_limit);

// How a response refers elsewhere, read from a copy of its element: the
// URL list (new, or NULL for an empty one) of a search reference or of a
// result with code 10 (v3), the new error text of an LDAPv2 result with a
// non-zero code (v2); none for a result without referral, unreadable when
// the parts needed do not decode.
enum class ReferralForm { unreadable, none, v3, v2 };
ReferralForm read_referral(LDAP *ld, const LDAPMessage *msg, char ***urls, char **text);

// Sends msg's request to the first usable URL (urls is consumed) and
// returns the first result of the referred request, moved into msg's row;
// NULL on failure (msg is then dropped from its row) or time-out.
LDAPMessage *chase_v3_referrals(LDAP *ld, char **urls, LDAPMessage *msg, const struct timeval *timeout,
                                int *error, int hops_left);
// The same for the URLs of an LDAPv2 referral text, one at a time; msg
// itself when the text holds no referral.
LDAPMessage *chase_v2_referrals(LDAP *ld, LDAPMessage *msg, const char *text, const struct timeval *timeout,
                                int *error, int hops_left);
// The URLs, one a line, that follow "Referral:\n" (found in any case) in
// an LDAPv2 error text, as a new NULL-terminated array; NULL when the text
// holds none. 90 when memory runs out, else 0.
int v2_referral_urls(const char *text, char ***urls);

// The connection to the first URL that parses, has the handle's security
// and whose server can be reached (opened when missing), with that URL's
// record. NULL with *code 90, 80 or 81.
LDAPConn *get_referral_connection(LDAP *ld, char **urls, LDAPURLDesc **desc, int *code);
// Binds on the referral connection of table as the rebind procedure and
// the handle's last SASL bind say. The bind's code, 0 when none is needed.
int send_referral_bind_request(LDAP *ld, ldap_msg_table *table);
// Binds, then sends msg's initial request re-encoded for desc on table's
// connection. The new id; -1 with the reason in the slot; -2 when the
// bind found the server down.
int reencode_and_send(LDAP *ld, ldap_msg_table *table, LDAPURLDesc *desc, LDAPMessage *msg, int *error);
// The request of `initial` (a whole LDAPMessage, left untouched) with id,
// desc's DN, scope and filter, and its controls but paged results. NULL
// with ld's error set (80 for a request that cannot be referred, 83, 84,
// 90). desc takes the initial DN when it has none.
BerElement *re_encode_request(LDAP *ld, const BerElement *initial, int id, LDAPURLDesc *desc);

#endif
