// extra_controls.h - ready-made request controls, parsers of response
// controls and values of extended requests that need no session: paging,
// virtual list view, persistent search, assertion, proxied authorisation,
// value limits, groups, chaining audit, transactions, and the records they
// read and write. Builders that take a handle only check that it is there.
//
// Criticality arguments follow one of two conventions. A `char` argument is
// a T-flag: the control is critical exactly when it is 'T' (84), so 1 is
// not critical. An `int` argument is a boolean: non-zero is critical.
//
// Controls are released with ldap_control_free, values with ber_bvfree.
#ifndef ZLDAP_EXTRA_CONTROLS_H
#define ZLDAP_EXTRA_CONTROLS_H

#include "zor8ldap.h"

extern "C" {

#define LDAP_CONTROL_PAGEDRESULTS      "1.2.840.113556.1.4.319"
#define LDAP_CONTROL_SORTREQUEST       "1.2.840.113556.1.4.473"
#define LDAP_CONTROL_SORTRESPONSE      "1.2.840.113556.1.4.474"
#define LDAP_CONTROL_PERSISTENTSEARCH  "2.16.840.1.113730.3.4.3"
#define LDAP_CONTROL_ENTRYCHANGE       "2.16.840.1.113730.3.4.7"
#define LDAP_CONTROL_VLVREQUEST        "2.16.840.1.113730.3.4.9"
#define LDAP_CONTROL_VLVRESPONSE       "2.16.840.1.113730.3.4.10"
#define LDAP_CONTROL_ASSERTION         "1.3.6.1.1.12"
#define LDAP_CONTROL_PROXYAUTH         "2.16.840.1.113730.3.4.18"
#define LDAP_CONTROL_LIMIT_NUM_VALUES  "1.3.18.0.2.10.30"
#define LDAP_CONTROL_GROUP             "1.3.18.0.2.10.21"
#define LDAP_CONTROL_CHAINING_AUDIT    "1.3.18.0.2.10.22"
#define LDAP_CONTROL_TRANSACTION       "1.3.18.0.2.10.5"
#define LDAP_CONTROL_VENDOR_25         "1.3.18.0.2.10.25"
#define LDAP_CONTROL_VENDOR_26         "1.3.18.0.2.10.26"
#define LDAP_CONTROL_VENDOR_33         "1.3.18.0.2.10.33"
#define LDAP_EXOP_EFFECTIVE_PWDPOLICY  "1.3.18.0.2.12.77"

// Persistent search change types, alone or all together (15).
#define LDAP_CHANGETYPE_ADD    1
#define LDAP_CHANGETYPE_DELETE 2
#define LDAP_CHANGETYPE_MODIFY 4
#define LDAP_CHANGETYPE_MODDN  8
#define LDAP_CHANGETYPE_ANY    15

// One key of a server-side sort request.
typedef struct ldapsortkey {
    char *sk_attrtype;
    char *sk_matchruleoid; // NULL: the attribute's own ordering rule
    int sk_reverseorder;   // 1: reverse order
} LDAPsortkey;

// A virtual list view request. With an assertion value the target is the
// first entry at or after it; without one, the entry at the offset of a
// list of the given content count (offset 0 is refused).
typedef struct ldapvlvinfo {
    int ldvlv_version;
    int ldvlv_before_count;
    int ldvlv_after_count;
    int ldvlv_offset;
    int ldvlv_count;
    struct berval *ldvlv_attrvalue; // target assertion value, or NULL
    struct berval *ldvlv_context;   // context ID from the last response, or NULL
} LDAPVLVInfo;

// One attribute of an effective password policy and its values.
typedef struct ldappwdpolicyattr {
    char *pa_attr;
    char **pa_values; // NULL when the server sent none
} LDAPPwdPolicyAttr;

// ---- request controls: 0, or 83, 87, 89, 90 with *ctrlp NULL ----------

// The page size is written as a signed 32-bit INTEGER; cookie NULL (or
// without bytes) starts a new paged search.
int ldap_create_page_control(LDAP *ld, unsigned long pagesize, struct berval *cookie, char iscritical,
                             LDAPControl **ctrlp);
// changetypes: one of the LDAP_CHANGETYPE_ values; changesonly 0 or 1.
int ldap_create_persistentsearch_control(LDAP *ld, int changetypes, int changesonly, int return_echg_ctls,
                                         int iscritical, LDAPControl **ctrlp);
// The filter in the usual text form; 87 when it does not parse.
int ldap_create_assertion_control(LDAP *ld, const char *filter, int iscritical, LDAPControl **ctrlp);
// Always critical.
int ldap_create_vlv_control(LDAP *ld, LDAPVLVInfo *vlvinfop, LDAPControl **ctrlp);
// iscritical 0 is refused: the server must not run the operation as the
// bound identity instead. USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING=YES
// (read once per process) wraps the DN in a SEQUENCE.
int ldap_create_proxyauth_control(LDAP *ld, const char *proxydn, int iscritical, LDAPControl **ctrlp);
// Two non-negative limits and a flag, as the server defines them.
int ldap_create_limit_num_values_control(LDAP *ld, int first_limit, int second_limit, int flag, int iscritical,
                                         LDAPControl **ctrlp);
// Controls without a value; the first two are always critical.
int ldap_create_vendor_25_control(LDAP *ld, LDAPControl **ctrlp);
int ldap_create_vendor_26_control(LDAP *ld, LDAPControl **ctrlp);
int ldap_create_vendor_33_control(LDAP *ld, int iscritical, LDAPControl **ctrlp);

// ---- request controls returned directly: NULL on failure, the reason
// in the trace ---------------------------------------------------------

// Critical; the value is a copy of the given bytes.
LDAPControl *ldap_create_group_control(struct berval *value);
// Critical; kind 0 or 1, then the group DNs (NULL: none).
LDAPControl *ldap_create_group_control_from_list(char **groups, int kind);
LDAPControl *ldap_create_chaining_audit_control(char **list, const char *text, int iscritical);
// Critical; the value is the id's text without its NUL.
LDAPControl *ldap_create_transaction_control(const char *tran_id);

// ---- extended request values: a new berval, or NULL --------------------

struct berval *ldap_create_account_status_request(const char *entry_dn);
struct berval *ldap_create_effective_pwdpolicy_request(const char *entry_dn);
// attrs NULL: the entry DN alone.
struct berval *ldap_create_group_eval_request(const char *entry_dn, char **attrs);
struct berval *ldap_create_prepare_transaction_request(const char *tran_id);
// One octet, 1 when commit is non-zero else 0, then the id's text.
struct berval *ldap_create_end_transaction_request(const char *tran_id, int commit);
// An empty value, for requests whose value must be present.
struct berval *ldap_create_empty_request_value(void);

// ---- response controls: 0, 84, 89, 90, or 93 when no control matches ----

// The last paged-results control decides. *cookie is a new value (release
// with ber_bvfree), or NULL when the server sent none.
int ldap_parse_page_control(LDAP *ld, LDAPControl **ctrls, unsigned long *size_estimate,
                            struct berval **cookie);
// Every output may be NULL; *contextp is a new value or NULL.
int ldap_parse_vlv_control(LDAP *ld, LDAPControl **ctrls, unsigned long *target_posp, unsigned long *list_countp,
                           struct berval **contextp, int *errcodep);

// The value of an effective password policy response (name
// LDAP_EXOP_EFFECTIVE_PWDPOLICY): at most 23 attributes, NULL-terminated,
// and the DNs the policy comes from (NULL when none). 0, 84, 89 or 90 with
// both outputs NULL. Release both with ldap_free_effective_pwdpolicy_response.
int ldap_parse_effective_pwdpolicy_response(const char *oidres, struct berval *result, LDAPPwdPolicyAttr ***attrs,
                                            char ***dns);
void ldap_free_effective_pwdpolicy_response(LDAPPwdPolicyAttr **attrs, char **dns);

} // extern "C"

#endif
