// ldap_controls.h - control records and lists: copying, creating, merging,
// counting and releasing them; writing them into requests and reading them
// from responses; the client-control rule every operation applies; the
// bind response controls kept on the default connection; the proxy DN
// prefix and the controls that come with a search entry.
#ifndef ZLDAP_LDAP_CONTROLS_H
#define ZLDAP_LDAP_CONTROLS_H

#include "zor8ldap_api.h"

// Lists. A list is a NULL-terminated array of control pointers; NULL and an
// array whose first entry is NULL are both empty. Copying, creating,
// adding, removing, counting and releasing are published (zor8ldap_api.h).

// Moves the input's controls in front of the destination's, in one new
// array that replaces *dest_ctrls. Both old arrays are released (not their
// controls), so the caller must not use input_ctrls after a 0 result.
// 0, or 90 with both lists unchanged.
int ldap_merge_control_lists(LDAPControl ***dest_ctrls, LDAPControl **input_ctrls);
// Releases the array of *ctrls but none of its controls, and clears *ctrls.
void ldap_free_empty_control_list(LDAPControl ***ctrls);

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
// ldap_get_entry_controls without the operation guard.
int ldap_get_entry_controls_direct(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrls);

#endif
