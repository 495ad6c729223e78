// ldap_load.h - a thin layer over the dynamic loader, for the libraries the
// library opens itself at run time: SASL plug-ins and the secure-socket
// toolkit.
#ifndef ZLDAP_LDAP_LOAD_H
#define ZLDAP_LDAP_LOAD_H

#include <dlfcn.h>

// An open library; made by ldap_dlopen and released by ldap_dlclose or
// ldap_dlrelease.
struct ldap_dl;

// Every symbol bound at once and made global, so that a library loaded
// after it can use its symbols.
inline constexpr int LDAP_DL_DEFAULT_FLAGS = RTLD_NOW | RTLD_GLOBAL; // 0x102

// Opens file with flags (0 for the default flags). NULL, with the loader's
// error traced, when it can't be opened or the record can't be allocated.
ldap_dl *ldap_dlopen(const char *file, int flags);
// The address of name in the library; NULL when it is missing or either
// argument is NULL.
void *ldap_dlsym(ldap_dl *dl, const char *name);
// Closes the library and releases the record: 0, or 80 (LDAP_OTHER) for NULL.
int ldap_dlclose(ldap_dl *dl);
// Releases the record and leaves the library loaded for the rest of the
// process: what it resolved stays callable.
void ldap_dlrelease(ldap_dl *dl);

// The file a plug-in library path names: the path cut at its last dot
// (anywhere in the path) with ".so" put in its place, or ".so" appended
// when the path has no dot, so that "/usr/lib/sasl/libgss.sl" opens
// "/usr/lib/sasl/libgss.so". A new text (release with mem_free), or NULL.
char *ldap_dl_file_name(const char *path);

// The directory of the file the library itself was loaded from (the
// program's own file when the library is linked in), with a trailing "/":
// a new text (release with mem_free), or NULL when the loader can't tell.
char *ldap_dl_own_directory();

#endif
