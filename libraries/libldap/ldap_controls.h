// ldap_controls.h - control records and lists: copying, creating, merging,
// counting and releasing them.
#ifndef ZLDAP_LDAP_CONTROLS_H
#define ZLDAP_LDAP_CONTROLS_H

#include "lber.h"
#include "zor8ldap.h"

int ldap_copy_controls(LDAPControl ***to_here, LDAPControl **from);
void ldap_control_free(LDAPControl *ctrl);
void ldap_controls_free(LDAPControl **ctrls);
int ldap_count_controls(LDAPControl **ctrls);

// Writes a non-empty list as the Controls of a request; 0 or 83.
int put_ctrls_into_ber(BerElement *ber, LDAPControl **ctrls);

#endif
