// ldap_controls.h - control records and lists: copying, creating, merging,
// counting and releasing them; writing them into requests and reading them
// from responses; the client-control rule every operation applies; the
// bind response controls kept on the default connection; the proxy DN
// prefix and the controls that come with a search entry.
#ifndef ZLDAP_LDAP_CONTROLS_H
#define ZLDAP_LDAP_CONTROLS_H

#include "zor8ldap.h"

// Lists. A list is a NULL-terminated array of control pointers; NULL and an
// array whose first entry is NULL are both empty. Lists handed out belong
// to the caller, who releases them with ldap_controls_free.
int ldap_copy_controls(LDAPControl ***to_here, LDAPControl **from);
void ldap_control_free(LDAPControl *ctrl);
void ldap_controls_free(LDAPControl **ctrls);
int ldap_count_controls(LDAPControl **ctrls);

// Moves the input's controls in front of the destination's, in one new
// array that replaces *dest_ctrls. Both old arrays are released (not their
// controls), so the caller must not use input_ctrls after a 0 result.
// 0, or 90 with both lists unchanged.
int ldap_merge_control_lists(LDAPControl ***dest_ctrls, LDAPControl **input_ctrls);
// Releases the array of *ctrls but none of its controls, and clears *ctrls.
void ldap_free_empty_control_list(LDAPControl ***ctrls);
// A new control with copies of oid and of len value bytes (followed by a
// NUL that len does not count); len 0 makes a control without a value.
// 0, 89 or 90; *ctrlp is NULL on failure.
int ldap_create_control(const char *oid, ber_len_t len, const char *value, int iscritical,
                        LDAPControl **ctrlp);
// ldap_create_control, then the control appended to *ctrls (a new array).
// 0, 89 or 90 with the list unchanged.
int ldap_add_control(const char *oid, ber_len_t len, const char *value, int iscritical,
                     LDAPControl ***ctrls);
// Replaces *ctrls by a new array without ctrl, which is released when
// freeit is non-zero. 0, 89 when ctrl is not in the list, or 90; the list
// is unchanged on failure.
int ldap_remove_control(LDAPControl *ctrl, LDAPControl ***ctrls, int freeit);

// The wire. put_ctrls_into_ber writes a non-empty list as the Controls of a
// request (0, or 83 with possibly some bytes already written; the caller
// releases the element). get_ctrls_from_ber reads the Controls at the
// element's position, if any: 0 with the list or NULL, 84 or 90 with NULL.
int put_ctrls_into_ber(BerElement *ber, LDAPControl **ctrls);
int get_ctrls_from_ber(BerElement *ber, LDAPControl ***ctrls);

// The client-control rule, applied by operations before they encode: any
// critical client control refuses the operation with 12 (recorded as the
// thread's error). When *serverctrls is NULL it receives a copy of the
// handle's default server controls and *copied becomes 1; the caller
// releases that copy with ldap_controls_free after the operation. An
// explicitly given list, even an empty one, is used as it is.
// 0, 12, 89 or the code of the failing option read.
int ldap_check_client_controls(LDAP *ld, LDAPControl ***serverctrls, LDAPControl **clientctrls,
                               int *copied);

// Keeps copies of a SASL bind's response controls on the handle's default
// connection in place of the previous ones (NULL or an empty list clears
// them). 0, 89, 90 (nothing kept) or 129.
int ldap_store_bind_controls(LDAP *ld, LDAPControl **ctrls);
// A copy of the controls the last SASL bind received. 0, 89, 129 or the
// copy's code.
int ldap_get_bind_controls(LDAP *ld, LDAPControl ***ctrls);

// "dn:" followed by the DN, or a copy of a DN that already starts with
// "dn:" in any case. 0, 89 or 90; release the text with ldap_memfree.
int ldap_proxy_dn_prefix(char **proxy_dn, const char *dn);

// The controls that follow a search entry. The direct form runs without
// the operation guard; ldap_get_entry_controls enters it and returns -1
// when it can't, ldap_get_entry_controls_np returns 89 then.
int ldap_get_entry_controls_direct(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrls);
int ldap_get_entry_controls(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrls);
int ldap_get_entry_controls_np(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrls);

#endif
