/*
 * zor8ldap_api.h - the functions of the published LDAP C interface that
 * the library implements, with C linkage so that C and C++ programs alike
 * reach them through the static library. The shared object exports only
 * the zor_ family of zor8ldap.h; the types and constants come from there.
 */
#ifndef ZOR8LDAP_API_H
#define ZOR8LDAP_API_H

#include "zor8ldap.h"
#include "zor8ldap_plugin.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------ */
/* Sessions and options                                                */
/* ------------------------------------------------------------------ */

/* A new handle; nothing is sent until the first operation. */
LDAP *ldap_init(const char *host, int port);
/* ldap_init, then the protocol version from LDAP_VERSION (exactly "3"
 * gives 3, anything else 2) and the default connection opened. */
LDAP *ldap_open(const char *host, int port);
/* ld NULL sets or reads the process-wide defaults. */
int ldap_set_option(LDAP *ld, int option, const void *invalue);
int ldap_get_option(LDAP *ld, int option, void *outvalue);
/* Each waits for the handle's running operations, then releases it; no
 * unbind request is sent and the controls are not looked at. */
int ldap_unbind(LDAP *ld);
int ldap_unbind_s(LDAP *ld);
int ldap_unbind_ext(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls);

/* ------------------------------------------------------------------ */
/* Result codes and each thread's last error                           */
/* ------------------------------------------------------------------ */

char *ldap_err2string(int err);
char *ldap_pwdpolicy_err2string(int err);
int ldap_get_errno(LDAP *ld);
/* The outs receive new copies (release with ldap_memfree), or NULL. */
int ldap_get_error(LDAP *ld, char **matched, char **text);
int ldap_set_error(LDAP *ld, int code, const char *matched, const char *text);
int ldap_get_ext_error(LDAP *ld);
void ldap_perror(LDAP *ld, const char *prefix);
/* The result code of a chain's final response, with its matched DN and
 * text as the thread's error; the chain is released when freeit is set. */
int ldap_result2error(LDAP *ld, LDAPMessage *res, int freeit);

/* ------------------------------------------------------------------ */
/* Bind                                                                */
/* ------------------------------------------------------------------ */

int ldap_simple_bind(LDAP *ld, const char *dn, const char *passwd);
int ldap_simple_bind_s(LDAP *ld, const char *dn, const char *passwd);
/* Only LDAP_AUTH_SIMPLE is accepted as method. */
int ldap_bind(LDAP *ld, const char *dn, const char *passwd, int method);
int ldap_bind_s(LDAP *ld, const char *dn, const char *passwd, int method);
int ldap_sasl_bind(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                   LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp);
/* *servercredp, when given, receives the server's credentials (release
 * with ber_bvfree). */
int ldap_sasl_bind_s(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                     LDAPControl **serverctrls, LDAPControl **clientctrls, struct berval **servercredp);

/* ------------------------------------------------------------------ */
/* SASL plug-ins (zor8ldap_plugin.h)                                   */
/* ------------------------------------------------------------------ */

/* Loads the plug-in's library (the path cut at its last dot, or extended,
 * to end in ".so"), calls its init function and enters it in the registry,
 * replacing an entry of the same type and name. 0, 89 for a missing type,
 * name or path, 90, 193 (library not loaded), 194 (init function missing,
 * or it set no bind function), 195 (init function failed). */
int ldap_register_plugin(const LDAPPluginInfo *info);
/* *list receives a NULL-terminated array of copies of the registry's
 * entries, released with ldap_plugin_registry_free. 0, 89 for a NULL list
 * or a registry of more than LDAP_PLUGIN_MAX_ENTRIES entries, 90. */
int ldap_plugin_registry_copy(LDAPPluginInfo ***list);
void ldap_plugin_registry_free(LDAPPluginInfo **list);

/* ------------------------------------------------------------------ */
/* Search                                                              */
/* ------------------------------------------------------------------ */

/* Asynchronous forms return the message id (or, for the _ext forms, a
 * result code with the id in *msgidp); collect with ldap_result. */
int ldap_search(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly);
int ldap_search_ext(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                    LDAPControl **serverctrls, LDAPControl **clientctrls, struct timeval *timeout,
                    int sizelimit, int *msgidp);
int ldap_search_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                  LDAPMessage **res);
int ldap_search_st(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                   struct timeval *timeout, LDAPMessage **res);
int ldap_search_ext_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                      int attrsonly, LDAPControl **serverctrls, LDAPControl **clientctrls,
                      struct timeval *timeout, int sizelimit, LDAPMessage **res);

/* ------------------------------------------------------------------ */
/* Add, modify, delete, rename and compare                             */
/* ------------------------------------------------------------------ */

int ldap_add(LDAP *ld, const char *dn, LDAPMod **attrs);
int ldap_add_ext(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls,
                 LDAPControl **clientctrls, int *msgidp);
int ldap_add_s(LDAP *ld, const char *dn, LDAPMod **attrs);
int ldap_add_ext_s(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls,
                   LDAPControl **clientctrls);

int ldap_modify(LDAP *ld, const char *dn, LDAPMod **mods);
int ldap_modify_ext(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                    LDAPControl **clientctrls, int *msgidp);
int ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods);
int ldap_modify_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                      LDAPControl **clientctrls);

int ldap_delete(LDAP *ld, const char *dn);
int ldap_delete_ext(LDAP *ld, const char *dn, LDAPControl **serverctrls, LDAPControl **clientctrls,
                    int *msgidp);
int ldap_delete_s(LDAP *ld, const char *dn);
int ldap_delete_ext_s(LDAP *ld, const char *dn, LDAPControl **serverctrls, LDAPControl **clientctrls);

int ldap_rename(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp);
int ldap_rename_s(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                  LDAPControl **serverctrls, LDAPControl **clientctrls);
int ldap_modrdn2(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn);
int ldap_modrdn_s(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn);

int ldap_compare(LDAP *ld, const char *dn, const char *attr, const char *value);
int ldap_compare_ext(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                     LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp);
int ldap_compare_s(LDAP *ld, const char *dn, const char *attr, const char *value);
int ldap_compare_ext_s(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                       LDAPControl **serverctrls, LDAPControl **clientctrls);

/* ------------------------------------------------------------------ */
/* Abandon                                                             */
/* ------------------------------------------------------------------ */

/* Tells the server to stop working on msgid and frees the responses not */
/* yet handed out; later responses for it are thrown away and ldap_result */
/* refuses it. A finished request is only forgotten: 0 when something was */
/* left to collect, else a failure. ldap_abandon gives 0 or -1 (the reason */
/* in the thread's error); ldap_abandon_ext the code: 89 for an id that is */
/* not outstanding or already abandoned, 12 for a critical client control. */
int ldap_abandon(LDAP *ld, int msgid);
int ldap_abandon_ext(LDAP *ld, int msgid, LDAPControl **serverctrls, LDAPControl **clientctrls);

/* ------------------------------------------------------------------ */
/* Results                                                             */
/* ------------------------------------------------------------------ */

/* Type of the (last) message handed out, 0 on time-out, -1 on error. */
int ldap_result(LDAP *ld, int msgid, int all, struct timeval *timeout, LDAPMessage **result);
/* The type of what was released, or 0. */
int ldap_msgfree(LDAPMessage *res);
int ldap_msgid(LDAPMessage *msg);
int ldap_msgtype(LDAPMessage *msg);

LDAPMessage *ldap_first_message(LDAP *ld, LDAPMessage *res);
LDAPMessage *ldap_next_message(LDAP *ld, LDAPMessage *msg);
int ldap_count_messages(LDAP *ld, LDAPMessage *res);
LDAPMessage *ldap_first_entry(LDAP *ld, LDAPMessage *res);
LDAPMessage *ldap_next_entry(LDAP *ld, LDAPMessage *entry);
int ldap_count_entries(LDAP *ld, LDAPMessage *res);
LDAPMessage *ldap_first_reference(LDAP *ld, LDAPMessage *res);
LDAPMessage *ldap_next_reference(LDAP *ld, LDAPMessage *ref);
int ldap_count_references(LDAP *ld, LDAPMessage *res);
int ldap_parse_reference(LDAP *ld, LDAPMessage *ref, char ***referralsp, LDAPControl ***serverctrlsp, int freeit);
int ldap_parse_reference_np(LDAP *ld, LDAPMessage *ref, char ***referralsp, LDAPControl ***serverctrlsp,
                            int freeit);

char *ldap_get_dn(LDAP *ld, LDAPMessage *entry);
char *ldap_first_attribute(LDAP *ld, LDAPMessage *entry, BerElement **ber);
char *ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *ber);
int ldap_count_attributes(LDAP *ld, LDAPMessage *entry);
char **ldap_get_values(LDAP *ld, LDAPMessage *entry, const char *attr);
struct berval **ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *attr);
int ldap_count_values(char **values);
int ldap_count_values_len(struct berval **values);

/* Release functions; each accepts NULL. */
void ldap_value_free(char **values);
void ldap_value_free_len(struct berval **values);
void ldap_memfree(void *p);
/* Releases the cursor only: it never owns the buffer it walks. */
void ldap_ber_free(BerElement *ber, int freebuf);
void ldap_mods_free(LDAPMod **mods, int freemods);
void ber_bvfree(struct berval *bv);
void ber_bvecfree(struct berval **bvec);

/* ------------------------------------------------------------------ */
/* Controls                                                            */
/* ------------------------------------------------------------------ */

/* A list is a NULL-terminated array of control pointers; NULL and an
 * array whose first entry is NULL are both empty. Lists handed out belong
 * to the caller, who releases them with ldap_controls_free. */
int ldap_copy_controls(LDAPControl ***to_here, LDAPControl **from);
void ldap_control_free(LDAPControl *ctrl);
void ldap_controls_free(LDAPControl **ctrls);
int ldap_count_controls(LDAPControl **ctrls);
/* A new control with copies of oid and of len value bytes (followed by a
 * NUL that len does not count); len 0 makes a control without a value.
 * 0, 89 or 90; *ctrlp is NULL on failure. */
int ldap_create_control(const char *oid, ber_len_t len, const char *value, int iscritical,
                        LDAPControl **ctrlp);
/* ldap_create_control, then the control appended to *ctrls (a new array).
 * 0, 89 or 90 with the list unchanged. */
int ldap_add_control(const char *oid, ber_len_t len, const char *value, int iscritical,
                     LDAPControl ***ctrls);
/* Replaces *ctrls by a new array without ctrl, which is released when
 * freeit is non-zero. 0, 89 when ctrl is not in the list, or 90; the list
 * is unchanged on failure. */
int ldap_remove_control(LDAPControl *ctrl, LDAPControl ***ctrls, int freeit);
/* A copy of the controls the last SASL bind received. 0, 89, 129 or the
 * copy's code. */
int ldap_get_bind_controls(LDAP *ld, LDAPControl ***ctrls);
/* "dn:" followed by the DN, or a copy of a DN that already starts with
 * "dn:" in any case. 0, 89 or 90; release the text with ldap_memfree. */
int ldap_proxy_dn_prefix(char **proxy_dn, const char *dn);
/* The controls that follow a search entry. ldap_get_entry_controls
 * returns -1 when the handle is refused, the _np form 89. */
int ldap_get_entry_controls(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrls);
int ldap_get_entry_controls_np(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrls);

/* ------------------------------------------------------------------ */
/* Parsing results (every out-pointer may be NULL; freeit 1 releases  */
/* the message whatever the outcome)                                   */
/* ------------------------------------------------------------------ */

/* The result code, matched DN, diagnostic message, referral URLs (code 10 */
/* only) and controls of the first message of the chain that is neither an */
/* entry nor a reference. The message is read from a copy of its element, */
/* so it can be parsed again. 0 with every part handed out; 1 when the chain */
/* has no such message; 84 when it is malformed; 90; 89 when the operation */
/* cannot start. On failure the out-pointers are NULL and *errcodep is left */
/* alone. */
int ldap_parse_result(LDAP *ld, LDAPMessage *res, int *errcodep, char **matcheddnp, char **errmsgp,
                      char ***referralsp, LDAPControl ***serverctrlsp, int freeit);

/* The server SASL credentials of a bind response (tag 0x87; NULL when the */
/* server sent none). The response's result code (14 while the exchange goes */
/* on), 84 for a malformed response with code 0, 90, or 89 for a message */
/* that is not a bind response (not released then). */
int ldap_parse_sasl_bind_result(LDAP *ld, LDAPMessage *res, struct berval **servercredp, int freeit);

/* The response name and value of an extended response, handed out only */
/* when its result code is 0 (absent parts leave their out-pointers as they */
/* were). Reads the message's own element, so a second parse of the same */
/* message fails. The result code; -1 when the LDAPResult cannot be */
/* decoded; 84 or 90 from the controls; 89 for a message that is not an */
/* extended response (not released then, the thread's error left 0). */
int ldap_parse_extended_result(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap,
                               int freeit);
/* The same, handing out the response controls as well. */
int ldap_parse_extended_result_ext(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap,
                                   LDAPControl ***serverctrlsp, int freeit);

/* Reads every password-policy control ("1.3.6.1.4.1.42.2.27.8.5.1") of the */
/* list into three numbers: *controlerr 0 (none) or the error's value plus 3 */
/* (the numbering of ldap_pwdpolicy_err2string), *controlwarn the warning */
/* kind (0 none, 1 time before expiration, 2 grace logins remaining) and */
/* *controlres the warning's number. 0; 84 for a malformed control, with all */
/* three outputs 0; 90; 89 when an argument is NULL. */
int ldap_parse_pwdpolicy_response(LDAPControl **serverControls, int *controlerr, int *controlwarn,
                                  int *controlres);

/* ------------------------------------------------------------------ */
/* Extended operations                                                 */
/* ------------------------------------------------------------------ */

/* Sends requestoid with requestdata (NULL: no value); collect the */
/* response with ldap_result and read it with ldap_parse_extended_result. */
/* 0 with *msgidp set; 89 for a NULL handle, name or id pointer. */
int ldap_extended_operation(LDAP *ld, const char *requestoid, const struct berval *requestdata,
                            LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp);
/* Sends and waits without limit: the response's result code, with its */
/* name and value handed out (each when its pointer is given) when it is */
/* 0. Release them with ldap_memfree and ber_bvfree. */
int ldap_extended_operation_s(LDAP *ld, const char *requestoid, const struct berval *requestdata,
                              LDAPControl **serverctrls, LDAPControl **clientctrls, char **retoidp,
                              struct berval **retdatap);

/* Transactions. The synchronous start hands out the transaction id the */
/* server sent (ber_bvfree; ldap_get_tran_id gives it as text). An id */
/* whose request value cannot be built gives 80 and nothing is sent. */
int ldap_start_transaction(LDAP *ld, LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp);
int ldap_start_transaction_s(LDAP *ld, LDAPControl **serverctrls, LDAPControl **clientctrls,
                             struct berval **tran_id);
/* commit non-zero commits, 0 rolls back. */
int ldap_end_transaction(LDAP *ld, const char *tran_id, int commit, LDAPControl **serverctrls,
                         LDAPControl **clientctrls, int *msgidp);
int ldap_end_transaction_s(LDAP *ld, const char *tran_id, int commit, LDAPControl **serverctrls,
                           LDAPControl **clientctrls);
int ldap_tran_id_request(LDAP *ld, const char *tran_id, LDAPControl **serverctrls, LDAPControl **clientctrls,
                         int *msgidp);
int ldap_tran_id_request_s(LDAP *ld, const char *tran_id, LDAPControl **serverctrls, LDAPControl **clientctrls);
/* The bytes of a transaction id as a new string (ldap_memfree), or NULL. */
char *ldap_get_tran_id(const struct berval *tran_id_bv);

/* Server backup and restore. *result receives the operation's own result */
/* code from the server's answer; it stays 5 (backup) or 10 (restore) when */
/* the answer carries none. The code of the extended operation; 90 or 80 */
/* when the request value cannot be built. */
int ldap_backup(LDAP *ld, int *result);
int ldap_restore(LDAP *ld, int *result);

/* ------------------------------------------------------------------ */
/* LDAP URLs                                                           */
/* ------------------------------------------------------------------ */

/* 0 and a record with defaults applied (port 389 or 636, base scope, the
 * filter "(objectClass=*)"); else 96, 98, 99 or 21 and no record. */
int ldap_url_parse(const char *url, LDAPURLDesc **ludpp);
void ldap_free_urldesc(LDAPURLDesc *ludp);
/* 1 when the string starts like an LDAP URL, else 0. */
int ldap_is_ldap_url(const char *url);
/* The search a URL describes (base, scope, filter, attributes; the other
 * parameters from the handle), on the URL's server: one other than the
 * calling thread's default connection is searched as a referred request
 * whose results ldap_result collects on the default connection. The
 * asynchronous form returns a message id, or -1 (89 for a bad URL); the
 * synchronous ones 0 with the chain in *res (the search's own code is in
 * the chain), 85 on a time-out, else the code that stopped them. */
int ldap_url_search(LDAP *ld, const char *url, int attrsonly);
int ldap_url_search_s(LDAP *ld, const char *url, int attrsonly, LDAPMessage **res);
int ldap_url_search_st(LDAP *ld, const char *url, int attrsonly, struct timeval *timeout, LDAPMessage **res);

/* ------------------------------------------------------------------ */
/* Distinguished names (release arrays with ldap_value_free, strings  */
/* with ldap_memfree)                                                  */
/* ------------------------------------------------------------------ */

/* The escaped values only, RDNs joined by commas; a text without "=" and
 * "," comes back as a copy. NULL for NULL, a malformed or an empty DN. */
char *ldap_dn2ufn(const char *dn);
/* One string per RDN (values escaped); a text without "=" and "," is split
 * as a DNS or mail name. NULL for a malformed or empty DN. */
char **ldap_explode_dn(const char *dn, int notypes);
/* One string per pair of the first RDN, values as parsed (not escaped). */
char **ldap_explode_rdn(const char *dn, int notypes);
/* The pieces between "@" and "." characters, empty ones dropped. */
char **ldap_split_dns_name(const char *name);

/* ------------------------------------------------------------------ */
/* Ready-made controls and request values. Criticality arguments of type */
/* char are T-flags (critical exactly when 'T'); int ones are booleans.  */
/* Controls are released with ldap_control_free, values with ber_bvfree. */
/* ------------------------------------------------------------------ */
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

/* Persistent search change types, alone or all together (15). */
#define LDAP_CHANGETYPE_ADD    1
#define LDAP_CHANGETYPE_DELETE 2
#define LDAP_CHANGETYPE_MODIFY 4
#define LDAP_CHANGETYPE_MODDN  8
#define LDAP_CHANGETYPE_ANY    15

/* One key of a server-side sort request. */
typedef struct ldapsortkey {
    char *sk_attrtype;
    char *sk_matchruleoid; /* NULL: the attribute's own ordering rule */
    int sk_reverseorder;   /* 1: reverse order */
} LDAPsortkey;

/* A virtual list view request. With an assertion value the target is the */
/* first entry at or after it; without one, the entry at the offset of a */
/* list of the given content count (offset 0 is refused). */
typedef struct ldapvlvinfo {
    int ldvlv_version;
    int ldvlv_before_count;
    int ldvlv_after_count;
    int ldvlv_offset;
    int ldvlv_count;
    struct berval *ldvlv_attrvalue; /* target assertion value, or NULL */
    struct berval *ldvlv_context;   /* context ID from the last response, or NULL */
} LDAPVLVInfo;

/* One attribute of an effective password policy and its values. */
typedef struct ldappwdpolicyattr {
    char *pa_attr;
    char **pa_values; /* NULL when the server sent none */
} LDAPPwdPolicyAttr;

/* ---- request controls: 0, or 83, 87, 89, 90 with *ctrlp NULL ---------- */

/* The page size is written as a signed 32-bit INTEGER; cookie NULL (or */
/* without bytes) starts a new paged search. */
int ldap_create_page_control(LDAP *ld, unsigned long pagesize, struct berval *cookie, char iscritical,
                             LDAPControl **ctrlp);
/* changetypes: one of the LDAP_CHANGETYPE_ values; changesonly 0 or 1. */
int ldap_create_persistentsearch_control(LDAP *ld, int changetypes, int changesonly, int return_echg_ctls,
                                         int iscritical, LDAPControl **ctrlp);
/* The filter in the usual text form; 87 when it does not parse. */
int ldap_create_assertion_control(LDAP *ld, const char *filter, int iscritical, LDAPControl **ctrlp);
/* Always critical. */
int ldap_create_vlv_control(LDAP *ld, LDAPVLVInfo *vlvinfop, LDAPControl **ctrlp);
/* iscritical 0 is refused: the server must not run the operation as the */
/* bound identity instead. USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING=YES */
/* (read once per process) wraps the DN in a SEQUENCE. */
int ldap_create_proxyauth_control(LDAP *ld, const char *proxydn, int iscritical, LDAPControl **ctrlp);
/* Two non-negative limits and a flag, as the server defines them. */
int ldap_create_limit_num_values_control(LDAP *ld, int first_limit, int second_limit, int flag, int iscritical,
                                         LDAPControl **ctrlp);
/* Controls without a value; the first two are always critical. */
int ldap_create_vendor_25_control(LDAP *ld, LDAPControl **ctrlp);
int ldap_create_vendor_26_control(LDAP *ld, LDAPControl **ctrlp);
int ldap_create_vendor_33_control(LDAP *ld, int iscritical, LDAPControl **ctrlp);

/* ---- request controls returned directly: NULL on failure, the reason */
/* in the trace --------------------------------------------------------- */

/* Critical; the value is a copy of the given bytes. */
LDAPControl *ldap_create_group_control(struct berval *value);
/* Critical; kind 0 or 1, then the group DNs (NULL: none). */
LDAPControl *ldap_create_group_control_from_list(char **groups, int kind);
LDAPControl *ldap_create_chaining_audit_control(char **list, const char *text, int iscritical);
/* Critical; the value is the id's text without its NUL. */
LDAPControl *ldap_create_transaction_control(const char *tran_id);

/* ---- extended request values: a new berval, or NULL -------------------- */

struct berval *ldap_create_account_status_request(const char *entry_dn);
struct berval *ldap_create_effective_pwdpolicy_request(const char *entry_dn);
/* attrs NULL: the entry DN alone. */
struct berval *ldap_create_group_eval_request(const char *entry_dn, char **attrs);
struct berval *ldap_create_prepare_transaction_request(const char *tran_id);
/* One octet, 1 when commit is non-zero else 0, then the id's text. */
struct berval *ldap_create_end_transaction_request(const char *tran_id, int commit);
/* An empty value, for requests whose value must be present. */
struct berval *ldap_create_empty_request_value(void);
/* Values of further vendor requests; a NULL text is sent as empty unless */
/* it is required. */
struct berval *ldap_create_resume_role_request(int kind, const char *first, const char *second);
struct berval *ldap_create_get_file_request(int kind, const char *name);
/* path is required. */
struct berval *ldap_create_online_backup_request(const char *path);
struct berval *ldap_create_locate_entry_request(const char *entry);
/* bind_dn is required in both steps. */
struct berval *ldap_create_password_policy_bind_init_request(const char *bind_dn);
struct berval *ldap_create_password_policy_bind_finalize_request(const char *bind_dn, int value);

/* ---- response controls: 0, 84, 89, 90, or 93 when no control matches ---- */

/* The last paged-results control decides. *cookie is a new value (release */
/* with ber_bvfree), or NULL when the server sent none. */
int ldap_parse_page_control(LDAP *ld, LDAPControl **ctrls, unsigned long *size_estimate,
                            struct berval **cookie);
/* Every output may be NULL; *contextp is a new value or NULL. */
int ldap_parse_vlv_control(LDAP *ld, LDAPControl **ctrls, unsigned long *target_posp, unsigned long *list_countp,
                           struct berval **contextp, int *errcodep);

/* The value of an effective password policy response (name */
/* LDAP_EXOP_EFFECTIVE_PWDPOLICY): at most 23 attributes, NULL-terminated, */
/* and the DNs the policy comes from (NULL when none). 0, 84, 89 or 90 with */
/* both outputs NULL. Release both with ldap_free_effective_pwdpolicy_response. */
int ldap_parse_effective_pwdpolicy_response(const char *oidres, struct berval *result, LDAPPwdPolicyAttr ***attrs,
                                            char ***dns);
void ldap_free_effective_pwdpolicy_response(LDAPPwdPolicyAttr **attrs, char **dns);

/* One attribute whose values the server cut short, with the two numbers */
/* the server reports for it. */
typedef struct ldaplimitnumvaluesattr {
    char *lnva_attr;
    int lnva_first;
    int lnva_second;
    struct ldaplimitnumvaluesattr *lnva_next;
} LDAPLimitNumValuesAttr;

typedef struct ldaplimitnumvaluesresponse {
    char *lnvr_dn;
    LDAPLimitNumValuesAttr *lnvr_attrs; /* in the reverse of the order received */
} LDAPLimitNumValuesResponse;

/* A sort request for the NULL-terminated keys (T-flag criticality). The */
/* result is also recorded as the calling thread's error: 0, 83, 89 or 90. */
int ldap_create_sort_control(LDAP *ld, LDAPsortkey **keys, char iscritical, LDAPControl **ctrlp);
/* The last sort response control decides: its result code and, when */
/* attribute is given, the attribute that caused it (a new string) or NULL. */
/* 0, 84, 89, 90 or 93, recorded as the calling thread's error. */
int ldap_parse_sort_control(LDAP *ld, LDAPControl **ctrls, unsigned long *result, char **attribute);

/* The first entry change control: the change type and, each when asked */
/* for, the previous DN of a renamed entry (a new string or NULL), whether */
/* a change number above 0 came and that number. 0, 84, 89, 90 or 93. */
int ldap_parse_entrychange_control(LDAP *ld, LDAPControl **ctrls, int *chgtypep, char **prevdnp, int *chgnumpresentp,
                                   int *chgnump);

/* The first value-limit response control, as a new record released with */
/* ldap_free_limit_num_values_response. 0, 84, 89, 90 or 93. */
int ldap_parse_limit_num_values_response(LDAP *ld, LDAPControl **ctrls, LDAPLimitNumValuesResponse **response);
void ldap_free_limit_num_values_response(LDAPLimitNumValuesResponse *response);

/* ------------------------------------------------------------------ */
/* Secure transport: the toolkit's environment and switches            */
/* ------------------------------------------------------------------ */

/* PKCS#11 token settings; the library only reads them. */
typedef struct LDAPPkcs11Info {
    const char *libPath;       /* the token's driver library */
    const char *tokenLabel;
    const char *tokenPassword;
    int keyStorage;            /* 1: the keys are on the token; 0: they are not */
    int acceleratorMode;       /* 0 to 7: 1 symmetric, 2 digest, 4 random */
} LDAPPkcs11Info;

/* Loads the secure-socket toolkit and makes one environment from the key
 * database (NULL: the installation's etc/ldapkey.kdb) with its password or,
 * without one, its stash file (the name ending in .sth), and a session
 * time-out in seconds (0: 12 hours; at most 86400). Once per process: later
 * calls return 112. *reason (optional) receives the toolkit's reason code
 * (ldap_ssl_reason2string). 0, 80, 90, 112, 113, 115, 118, 119 or 120. */
int ldap_ssl_client_init(const char *keyring, const char *keyring_pw, int ssl_timeout, int *reason);
int ldap_ssl_client_init_setup(const char *keyring, const char *keyring_pw, int ssl_timeout, int *reason,
                               const LDAPPkcs11Info *pkcs11);
/* Checks the PKCS#11 settings first (115); the last argument is not used. */
int ldap_ssl_pkcs11_client_init(const char *keyring, const char *keyring_pw, int ssl_timeout, int *reason,
                                const LDAPPkcs11Info *pkcs11, void *unused);
/* As the client forms, but repeatable: each success replaces the
 * environment new secure sessions use; sessions keep the one they have. */
int ldap_ssl_environment_init(const char *keyring, const char *keyring_pw, int ssl_timeout, int *reason);
int ldap_ssl_environment_init_setup(const char *keyring, const char *keyring_pw, int ssl_timeout, int *reason,
                                    const LDAPPkcs11Info *pkcs11);
/* Refuses an accelerator mode outside 0 to 7 with 89. */
int ldap_ssl_pkcs11_environment_init(const char *keyring, const char *keyring_pw, int ssl_timeout, int *reason,
                                     const LDAPPkcs11Info *pkcs11, void *unused);
/* Switches for the environments made from now on. FIPS: any non-zero mode
 * turns it on; 0. Suite B: "128" or "192", any other decimal text turns it
 * off; 0, or 89 for NULL or a text that is not decimal. Signature
 * algorithms offered: a copy is kept; 0, 89 for NULL or "", 90. */
int ldap_ssl_set_fips_mode_np(int mode);
int ldap_ssl_set_suiteb_mode(const char *mode);
int ldap_ssl_set_extn_sigalg(const char *sigalgs);
/* A new session (as ldap_init) whose connections are all secure, on the
 * current environment, offering the client key under label (NULL: none).
 * NULL before any successful initialisation above. */
LDAP *ldap_ssl_session_init(const char *host, int port, const char *label);
/* Initialises the toolkit as ldap_ssl_client_init (112 is no failure) and
 * makes ld secure: its open default connection gets the secure layer, or
 * its first connection is made secure. 0, the initialisation's code, 89,
 * 90, 129, or a code of the secure set-up (113 to 118, or the toolkit's
 * reason when the label is refused). Deprecated. */
int ldap_ssl_start(LDAP *ld, const char *keyring, const char *keyring_pw, const char *label);
/* StartTLS: asks the server to secure ld's open plain connection and, when
 * it agrees, runs the handshake on it with the current environment (an
 * initialisation above must have succeeded), the session's label, cipher
 * lists and protocols. The last argument is not used. 0; the server's code when it
 * refuses (the connection stays plain); 89; 112 when the connection is
 * secure already; 113 to 116 (116: the handshake failed); 129; or the
 * toolkit's reason when the label is refused. The result is also the
 * session's error. Once the server has agreed, a failure leaves the
 * connection unusable, never plain: nothing more goes out in clear (later
 * requests on it fail with 81). */
int ldap_start_tls_s_np(LDAP *ld, void *unused);
/* Closes the secure layer of ld's connection and unbinds ld (which is gone
 * afterwards, whatever the result). 89 for an invalid handle, 80 when the
 * secure layer cannot be closed (ld is kept then), else ldap_unbind's
 * result. */
int ldap_end_tls_s_np(LDAP *ld);
/* Why the calling thread's latest secure handshake (ldaps or StartTLS, on
 * any session) failed: the toolkit's reason code, 0 when it succeeded or
 * none ran; *text (when text is not NULL) receives the toolkit's constant
 * text for it, as "Certificate verification failed: certificate has
 * expired". Option 51 gives only 116 for a failed ldaps handshake. */
int ldap_ssl_get_handshake_reason(const char **text);
/* The cipher list for SSL V3 and TLS 1.0 (as option 7), under the
 * handle's lock. 0, 89, 90, 115 or 129. */
int ldap_set_ssl_cipher(LDAP *ld, const char *ciphers);
/* A constant English text for a reason code, "Unknown SSL error" for
 * codes it does not know. */
const char *ldap_ssl_reason2string(int reason);

/* ------------------------------------------------------------------ */
/* Code-set translation between the local code page and UTF-8          */
/* ------------------------------------------------------------------ */

/* Sets the process locale for all categories (NULL or "" for the */
/* environment's) and settles the local code page again. 0, 82 when the */
/* locale is refused, 129, or the result of ldap_set_iconv_local_codepage. */
int ldap_set_locale(const char *locale);
/* Sets the local code page (NULL: LDAP_CODEPAGE, else the locale's code */
/* set). A code page already set is replaced only by a named one; an empty */
/* name then gives 89 and keeps it. 0, 89 or 90. */
int ldap_set_iconv_local_codepage(const char *codepage);
/* Sets the code page that stands for one of the library's charset names */
/* ("ISO-8859-1", "ORN437", "Shift-JIS", ...). 89 for a missing or unknown name. */
int ldap_set_iconv_local_charset(const char *charset);
/* A new copy of the name, "ISO8859-1" for NULL or ""; NULL when memory runs out. */
char *ldap_get_iconv_compliant_codepage(const char *codepage);
/* A new copy of "/usr/lib/nls/loc"; NULL when memory runs out. */
char *ldap_get_default_locale_path(void);

/* Translate *inlen bytes from inbuf into outbuf, which has *outlen bytes of */
/* room; *outlen is reduced by the bytes written (also when the translation */
/* fails part way). 0, 89 for a missing argument, 82, 90 or 160 to 163. */
int ldap_xlate_local_to_utf8(char *inbuf, unsigned int *inlen, char *outbuf, size_t *outlen);
int ldap_xlate_utf8_to_local(char *inbuf, unsigned int *inlen, char *outbuf, size_t *outlen);
/* UCS-2 here is big-endian, two bytes a character. */
int ldap_xlate_local_to_unicode(char *inbuf, unsigned int *inlen, char *outbuf, size_t *outlen);
int ldap_xlate_unicode_to_local(char *inbuf, unsigned int *inlen, char *outbuf, size_t *outlen);
/* *result receives a new NUL-terminated UTF-8 copy of text (NULL on */
/* failure). 0, 1 for a missing text, 89 for a missing result pointer, 90, */
/* or a translation result. */
int ldap_xlate_local_to_utf8_wrp(const char *text, char **result);

/* ------------------------------------------------------------------ */
/* Server location through DNS and a configuration file                */
/* ------------------------------------------------------------------ */

/* What to look for and where. A missing text or list takes its default:
 * service "ldap" then "_ldap", protocol "tcp" then "_tcp", the name
 * servers of /etc/resolv.conf, the system's domains. A name server may
 * carry its port after a "#" ("127.0.0.1#5353"); port 53 otherwise. */
typedef struct server_request {
    int search_source;      /* 1 configuration file only, 2 DNS only, else both */
    char *conf_filename;    /* NULL: "/etc/ldap_server_info.conf" */
    void *reserved;
    char *service_key;
    char *enetwork_domain;  /* joined to the service as service.enetwork_domain */
    char **name_servers;    /* NULL-terminated */
    char **dns_domains;     /* NULL-terminated */
    int connection_type;    /* 0 UDP, then TCP; 1 UDP only; 2 TCP only */
    int connection_timeout; /* seconds; 0: UDP waits for ever, TCP must connect at once */
    char *DN_filter;        /* servers' suffixes must lie under this DN */
    char *protocol;
} server_request;

/* One server found, a node of a doubly linked list. */
typedef struct server_info {
    char *host;
    int port;
    char *suffix;
    char *service;
    char *domain;
    int replica;            /* 1 master, 2 replica, 0 not given */
    int sec_flag;           /* 1 plain LDAP, 2 LDAP over SSL, 0 not given */
    unsigned short priority;
    unsigned short weight;
    char *vendor;
    char *info;
    struct server_info *prev;
    struct server_info *next;
} server_info;

/* Finds the servers of the request (NULL: the built-in default request)
 * in the configuration file and through DNS, by priority and, within a
 * priority, in a weighted random order. 0 with a list; 133 without one;
 * 134 with a list when some DNS answers were truncated; 89 when
 * server_info_listpp is NULL; 82, 90, 91, 135, 136 or 137 otherwise. */
int ldap_server_locate(server_request *request, server_info **server_info_listpp);
/* Writes the list as a configuration file (path NULL: the default one),
 * expiring time_to_live seconds from now (0: never). 0 or 82. */
int ldap_server_cache_save(const char *path, unsigned long time_to_live, server_info *list);
/* Frees every record of the list with its texts. 0. */
int ldap_server_free_list(server_info *list);
/* The servers found as a host list for ldap_init ("host:port" or "host",
 * blank-separated): SSL servers when ssl is not 0, plain ones otherwise,
 * and those that name neither. NULL when none is found; release with
 * ldap_memfree. */
char *auto_server_locate(server_request *request, int ssl);

/* ------------------------------------------------------------------ */
/* The user information file ("ldap_user_info" in the home directory  */
/* of the real user when path is NULL). Results: 0; 89 for a missing  */
/* argument; 82 without an account entry or home directory; 90; 21     */
/* for a damaged file; 32 when the user has no record or no such item; */
/* 53 when the file cannot be written; 92 from the password functions  */
/* when the system's libcrypto (SHA-1) cannot be loaded. Release       */
/* results with ldap_memfree.                                          */
/* ------------------------------------------------------------------ */

#define LDAP_USER_INFO_TEXT     1
#define LDAP_USER_INFO_PASSWORD 2 /* a blob protected with a key */
#define LDAP_USER_INFO_DOMAIN   3 /* the default enetwork domain */

/* A copy of the current user's item of that kind, followed by a zero byte
 * that *length (optional) does not count. */
int ldap_user_info_lookup(const char *path, int kind, char **data, int *length);
/* Sets the current user's item (a copy of length bytes) or, with data
 * NULL, clears it; a record left without items is dropped. */
int ldap_user_info_update(const char *path, int kind, const char *data, int length);
/* Protects the data (NULL clears the item) with the key. */
int ldap_set_user_info_password(const char *key, const char *data, int length, const char *path);
/* The data stored with this key; with another key, a made-up word and 0. */
int ldap_get_user_info_password(const char *key, char **data, int *length, const char *path);
int ldap_set_user_info_text(const char *text, const char *path);
int ldap_get_user_info_text(char **text, const char *path);
int ldap_set_user_info_domain(const char *domain, const char *path);
int ldap_get_user_info_domain(char **domain, const char *path);

#ifdef __cplusplus
}
#endif

#endif /* ZOR8LDAP_API_H */
