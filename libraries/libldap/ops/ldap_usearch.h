// ldap_usearch.h - the search an LDAP URL describes. The published forms
// (ldap_url_search, ldap_url_search_s, ldap_url_search_st) are declared in
// zor8ldap_api.h; the unguarded form is here.
#ifndef ZLDAP_LDAP_USEARCH_H
#define ZLDAP_LDAP_USEARCH_H

#include "core/ldap_session.h"
#include "zor8ldap_api.h"

// Sends the URL's search: base, scope, filter and attributes from the URL,
// the rest from the handle. A URL naming another server than the calling
// thread's default connection is searched there as a referred request,
// collected through the default connection. The message id (of the
// default connection's table), or -1 with the handle's error set.
int ldap_url_search_direct(LDAP *ld, const char *url, int attrsonly);

#endif
