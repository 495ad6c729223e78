// update.h - add, modify, delete, modify DN (rename) and compare: the
// encoding and validating forms of each. The guarded, classic asynchronous
// and synchronous forms are declared (C linkage) in zor8ldap_api.h.
#ifndef ZLDAP_UPDATE_H
#define ZLDAP_UPDATE_H

#include "core/ldap_session.h"
#include "zor8ldap_api.h"

int ldap_modify_ext_direct(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls, int *msgidp,
                           LDAPConn *lc);
int ldap_modify_ext_int(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                        LDAPControl **clientctrls, int *msgidp);

int ldap_add_ext_direct(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls, int *msgidp,
                        LDAPConn *lc);
int ldap_add_ext_int(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls,
                     LDAPControl **clientctrls, int *msgidp);

int ldap_delete_ext_direct(LDAP *ld, const char *dn, LDAPControl **serverctrls, int *msgidp, LDAPConn *lc);
int ldap_delete_ext_int(LDAP *ld, const char *dn, LDAPControl **serverctrls, LDAPControl **clientctrls,
                        int *msgidp);

int ldap_rename_direct(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior,
                       int deleteoldrdn, LDAPControl **serverctrls, int *msgidp, LDAPConn *lc);
int ldap_rename_int(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                    LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp);

int ldap_compare_ext_direct(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                            LDAPControl **serverctrls, int *msgidp, LDAPConn *lc);
int ldap_compare_ext_int(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                         LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp);

#endif
