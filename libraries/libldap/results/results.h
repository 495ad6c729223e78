// results.h - walking result chains and releasing them: messages,
// entries, references, DNs, attribute names through a cursor, values,
// and the release functions for everything the walk hands out.
#ifndef ZLDAP_RESULTS_H
#define ZLDAP_RESULTS_H

#include "core/ldap_session.h"

int ldap_msgfree(LDAPMessage *res);
// Releases a chain handed out by ldap_result (or one message handed out
// alone) and the request's row once it is done with; the unguarded form
// for callers inside an operation. The type of what was released, or 0.
int ldap_msgfree_direct(LDAPMessage *msg);

// The result code of a chain's final response, with its matched DN and
// text as the thread's error; the chain is released when freeit is set.
int ldap_result2error(LDAP *ld, LDAPMessage *res, int freeit);
int ldap_result2error_direct(LDAP *ld, LDAPMessage *res, int freeit);
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
void ldap_value_free(char **values);
void ldap_value_free_len(struct berval **values);
void ldap_memfree(void *p);
void ldap_ber_free(BerElement *ber, int freebuf);
void ldap_mods_free(LDAPMod **mods, int freemods);

#endif
