/*
 * zor8ldap_api.h - the functions of the published LDAP C interface that
 * the library implements, with C linkage so that C and C++ programs alike
 * reach them through the static library. The shared object exports only
 * the zor_ family of zor8ldap.h; the types and constants come from there.
 */
#ifndef ZOR8LDAP_API_H
#define ZOR8LDAP_API_H

#include "zor8ldap.h"

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
/* LDAP URLs                                                           */
/* ------------------------------------------------------------------ */

/* 0 and a record with defaults applied (port 389 or 636, base scope, the
 * filter "(objectClass=*)"); else 96, 98, 99 or 21 and no record. */
int ldap_url_parse(const char *url, LDAPURLDesc **ludpp);
void ldap_free_urldesc(LDAPURLDesc *ludp);
/* 1 when the string starts like an LDAP URL, else 0. */
int ldap_is_ldap_url(const char *url);

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

#ifdef __cplusplus
}
#endif

#endif /* ZOR8LDAP_API_H */
