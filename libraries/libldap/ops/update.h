// update.h - add, modify, delete, modify DN (rename) and compare, each in
// its encoding, validating, guarded, classic asynchronous and synchronous
// forms.
#ifndef ZLDAP_UPDATE_H
#define ZLDAP_UPDATE_H

#include "core/ldap_session.h"

int ldap_modify_ext_direct(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls, int *msgidp,
                           LDAPConn *lc);
int ldap_modify_ext_int(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                        LDAPControl **clientctrls, int *msgidp);
int ldap_modify_ext(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                    LDAPControl **clientctrls, int *msgidp);
int ldap_modify(LDAP *ld, const char *dn, LDAPMod **mods);
int ldap_modify_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                      LDAPControl **clientctrls);
int ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods);

int ldap_add_ext_direct(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls, int *msgidp,
                        LDAPConn *lc);
int ldap_add_ext_int(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls,
                     LDAPControl **clientctrls, int *msgidp);
int ldap_add_ext(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls,
                 LDAPControl **clientctrls, int *msgidp);
int ldap_add(LDAP *ld, const char *dn, LDAPMod **attrs);
int ldap_add_ext_s(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls,
                   LDAPControl **clientctrls);
int ldap_add_s(LDAP *ld, const char *dn, LDAPMod **attrs);

int ldap_delete_ext_direct(LDAP *ld, const char *dn, LDAPControl **serverctrls, int *msgidp, LDAPConn *lc);
int ldap_delete_ext_int(LDAP *ld, const char *dn, LDAPControl **serverctrls, LDAPControl **clientctrls,
                        int *msgidp);
int ldap_delete_ext(LDAP *ld, const char *dn, LDAPControl **serverctrls, LDAPControl **clientctrls,
                    int *msgidp);
int ldap_delete(LDAP *ld, const char *dn);
int ldap_delete_ext_s(LDAP *ld, const char *dn, LDAPControl **serverctrls, LDAPControl **clientctrls);
int ldap_delete_s(LDAP *ld, const char *dn);

int ldap_rename_direct(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior,
                       int deleteoldrdn, LDAPControl **serverctrls, int *msgidp, LDAPConn *lc);
int ldap_rename_int(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                    LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp);
int ldap_rename(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp);
int ldap_modrdn2(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn);
int ldap_rename_s(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                  LDAPControl **serverctrls, LDAPControl **clientctrls);
int ldap_modrdn_s(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn);

int ldap_compare_ext_direct(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                            LDAPControl **serverctrls, int *msgidp, LDAPConn *lc);
int ldap_compare_ext_int(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                         LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp);
int ldap_compare_ext(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                     LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp);
int ldap_compare(LDAP *ld, const char *dn, const char *attr, const char *value);
int ldap_compare_ext_s(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                       LDAPControl **serverctrls, LDAPControl **clientctrls);
int ldap_compare_s(LDAP *ld, const char *dn, const char *attr, const char *value);

#endif
