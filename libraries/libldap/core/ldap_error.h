// ldap_error.h - result code texts and the per-thread error state of a handle.
#ifndef ZLDAP_LDAP_ERROR_H
#define ZLDAP_LDAP_ERROR_H

#include "core/ldap_session.h"
#include "zor8ldap_api.h"

// Unguarded forms for callers already inside an operation.
int ldap_set_error_direct(LDAP *ld, int code, const char *matched, const char *text);
// The same with texts already allocated through the seam, which the
// thread's record takes over (or which are freed when it cannot).
int ldap_set_error_taking(LDAP *ld, int code, char *matched, char *text);
// An empty text that ldap_set_error_taking takes over like an allocated
// one but that costs no allocation (most results carry an empty matched DN
// and text). It is never written: the record's readers hand out copies.
char *ldap_empty_text();
// Records code, with no texts, as the thread's error and returns it: the
// failure paths that return the code they record.
int ldap_fail(LDAP *ld, int code);
// Records code the same way and returns result, for the failure paths that
// return -1, NULL or false and leave the reason in the thread's error.
template <class T> T ldap_fail_returning(LDAP *ld, int code, T result)
{
    ldap_fail(ld, code);
    return result;
}
int ldap_get_errno_direct(LDAP *ld);
int ldap_get_error_direct(LDAP *ld, char **matched, char **text);
int ldap_set_ext_error_direct(LDAP *ld, int reason);
int ldap_get_ext_error_direct(LDAP *ld);

// Releases a handle's whole list of error records.
void ldap_free_error_records(LDAP *ld);

#endif
