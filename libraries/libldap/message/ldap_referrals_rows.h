// ldap_referrals_rows.h - the rows' side of referral chasing: linking a
// referral child row to the row it works for, walking up to the top row of
// a chain, the referral text and error collected there, the result set
// aside while referrals are chased, and the substitute result that stands
// in for a referral that could not be followed.
#ifndef ZLDAP_LDAP_REFERRALS_ROWS_H
#define ZLDAP_LDAP_REFERRALS_ROWS_H

#include "message/ldap_table.h"

// The final response tag of a request tag (delete, search, modify, add,
// modify DN, compare); any other tag is returned unchanged.
int response_tag(int request_tag);

// An LDAPResult message "{it{ess}}" for id, with its element positioned
// like a received one (at the protocol operation). NULL strings are
// written empty. NULL when memory runs out.
BerElement *build_result_ber(int code, const char *matched, const char *text, int id, int type);

// Walks up the parent links from (*table, *id) to the row without one,
// taking one table lock at a time. 0 with the top row's table locked (the
// caller unlocks it), or 129 with nothing locked.
int find_top_row(ldap_msg_table **table, int *id);

// A result for r's id and connection, of type response_tag(r's type),
// carrying code, an empty matched DN and text. *out is NULL unless the
// result is code; 90 when memory runs out (or code is 90).
int get_return_error_msg(LDAPMessage *r, int code, const char *text, LDAPMessage **out);

// What a top row hands out once its referrals are settled, taken out of
// the row: the substitute result built from `from` with the row's referral
// text (the saved result and the text are freed), else the saved result.
// *out is NULL when the row has neither; 90 when memory runs out. The
// caller holds the row's table lock and places the message in the chain.
int take_referral_outcome(ldap_msg_row *row, LDAPMessage *from, LDAPMessage **out);

// Keeps a search result done obtained from a referral child as the saved
// result of its top row when its result code is not 0 and that row has
// none yet; frees it otherwise. The message is unlinked first.
void keep_saved_result(LDAPMessage *msg);

// "Referral:\n" begins a new text; each URL follows with "\n" (a blank
// stands for a missing URL). 0, or 90 with the text unchanged.
int append_referral(char **text, const char *url);

// Adds url to the referral text of the top row above (table, id); the
// first URL of the text brings its code as the row's referral error.
// 0, 90 or 129 (also recorded as ld's error).
int record_referral_error(LDAP *ld, ldap_msg_table *table, int id, const char *url, int code);

// Makes the row of child_id in child_table the referral child of msg's
// row: links both ways, gives the child one hop less than its parent,
// captures chasing on for it and makes the calling thread its collector.
// 0, 90 or 129 (nothing linked).
int set_parent_child_pointers(LDAPMessage *msg, ldap_msg_table *child_table, int child_id);

#endif
