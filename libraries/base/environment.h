// environment.h - serialised environment accessors and the system-call
// mutex that also guards name resolution.
#ifndef ZLDAP_ENVIRONMENT_H
#define ZLDAP_ENVIRONMENT_H

#include <cstddef>

// A new copy of the variable's value (release with mem_free), or NULL.
char *ldap_getenv(const char *name);
// The value copied into buf (cut to size - 1 bytes) under the system-call
// mutex, writing no trace line and needing no set-up, for the trace module,
// which reads its own settings while it prints. False when unset.
bool ldap_getenv_untraced(const char *name, char *buf, size_t size);
// Length of the value plus 1 when set, 0 when not.
int ldap_chkenv(const char *name);
// text is "name=value" and becomes part of the environment: it must stay allocated.
int ldap_putenv(char *text);
// Adds value as an element of the variable unless it is already one: mode 1
// appends after the separator, any other mode prepends. 0, 89 or 90.
int ldap_change_env_var(int mode, const char *name, char separator, const char *value);
// Whether the separator-delimited list holds value as an element (letter
// case ignored, backslashes read as slashes).
bool ldap_env_list_contains(const char *list, const char *value, char separator);

// 0, or the lock's error; a caller that gets an error does not unlock.
int lock_syscall_mutex();
int unlock_syscall_mutex();

#endif
