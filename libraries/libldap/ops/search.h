// search.h - the search family: where each form takes its size limit,
// its server time limit and its wait from. The published forms are
// declared (C linkage) in zor8ldap_api.h; the encoding form is here.
#ifndef ZLDAP_SEARCH_H
#define ZLDAP_SEARCH_H

#include "core/ldap_session.h"
#include "zor8ldap_api.h"

#include <sys/time.h>

// The search request on lc (NULL: the thread's default connection), for a
// caller inside the operation guard on ld.
int ldap_search_ext_direct(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                           int attrsonly, LDAPControl **serverctrls, int sizelimit, struct timeval *timeout,
                           int *msgidp, LDAPConn *lc);

#endif
