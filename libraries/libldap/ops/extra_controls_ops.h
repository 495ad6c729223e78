// extra_controls_ops.h - the control builders and parsers that run inside
// the operation guard of their handle: server-side sort request and
// response, entry change notification and the value-limit response.
#ifndef ZLDAP_EXTRA_CONTROLS_OPS_H
#define ZLDAP_EXTRA_CONTROLS_OPS_H

#include "proto/extra_controls.h"

extern "C" {

// One attribute whose values the server cut short, with the two numbers
// the server reports for it.
typedef struct ldaplimitnumvaluesattr {
    char *lnva_attr;
    int lnva_first;
    int lnva_second;
    struct ldaplimitnumvaluesattr *lnva_next;
} LDAPLimitNumValuesAttr;

typedef struct ldaplimitnumvaluesresponse {
    char *lnvr_dn;
    LDAPLimitNumValuesAttr *lnvr_attrs; // in the reverse of the order received
} LDAPLimitNumValuesResponse;

// A sort request for the NULL-terminated keys (T-flag criticality). The
// result is also recorded as the calling thread's error: 0, 83, 89 or 90.
int ldap_create_sort_control(LDAP *ld, LDAPsortkey **keys, char iscritical, LDAPControl **ctrlp);
// The last sort response control decides: its result code and, when
// attribute is given, the attribute that caused it (a new string) or NULL.
// 0, 84, 89, 90 or 93, recorded as the calling thread's error.
int ldap_parse_sort_control(LDAP *ld, LDAPControl **ctrls, unsigned long *result, char **attribute);

// The first entry change control: the change type and, each when asked
// for, the previous DN of a renamed entry (a new string or NULL), whether
// a change number above 0 came and that number. 0, 84, 89, 90 or 93.
int ldap_parse_entrychange_control(LDAP *ld, LDAPControl **ctrls, int *chgtypep, char **prevdnp, int *chgnumpresentp,
                                   int *chgnump);

// The first value-limit response control, as a new record released with
// ldap_free_limit_num_values_response. 0, 84, 89, 90 or 93.
int ldap_parse_limit_num_values_response(LDAP *ld, LDAPControl **ctrls, LDAPLimitNumValuesResponse **response);
void ldap_free_limit_num_values_response(LDAPLimitNumValuesResponse *response);

} // extern "C"

#endif
