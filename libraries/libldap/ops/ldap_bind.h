// ldap_bind.h - simple and SASL binds, and the bind state a SASL bind
// records in the handle for rebinding on referrals. The published forms
// are declared (C linkage) in zor8ldap_api.h.
#ifndef ZLDAP_LDAP_BIND_H
#define ZLDAP_LDAP_BIND_H

#include "core/ldap_session.h"
#include "zor8ldap_api.h"

int ldap_simple_bind_direct(LDAP *ld, const char *dn, const char *passwd, LDAPControl **serverctrls,
                            int *msgidp, LDAPConn *lc);

int ldap_sasl_bind_encode_and_send(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                                   LDAPControl **serverctrls, int *msgidp, LDAPConn *lc);
// Sends a SASL bind request on the calling thread's default connection and
// waits for its response: the result code, with the server's credentials
// in *servercredp when it is not NULL. What plug-ins bind with.
int ldap_sasl_bind_s_direct(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                            LDAPControl **serverctrls, struct berval **servercredp);
// Runs the bind function of the plug-in registered (or configured) for the
// mechanism. 12 when no plug-in handles the mechanism and 192 when none is
// registered and there is no configuration file: the caller then sends the
// SASL bind request itself.
int ldap_sasl_bind_call_plugin(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                               LDAPControl **serverctrls, LDAPControl **clientctrls, struct berval **servercredp,
                               int async, int *msgidp);
int ldap_sasl_bind_int(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                       LDAPControl **serverctrls, LDAPControl **clientctrls, struct berval **servercredp,
                       int async, int *msgidp);

#endif
