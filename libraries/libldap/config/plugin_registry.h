// plugin_registry.h - the registry of initialised plug-ins, at most one per
// type and name, kept until the process ends and guarded by the plug-in
// lock; loading and initialising plug-ins into it; and what a bind takes
// from it.
#ifndef ZLDAP_PLUGIN_REGISTRY_H
#define ZLDAP_PLUGIN_REGISTRY_H

#include "zor8ldap_api.h"

struct ldap_plugin_entry {
    LDAPPluginInfo info; // owned copies of the five texts
    LDAPPluginFunc bind; // NULL when the plug-in set key 301 to NULL
    LDAPPluginFunc init;
    ldap_plugin_entry *next;
};

// The entry of this type and name (letter case counts), or NULL. The
// caller holds the plug-in lock.
ldap_plugin_entry *ldap_find_plugin(const char *type, const char *name);
// Enters a new entry with copies of info's texts, replacing one of the
// same type and name. 0 or 90 (the registry is then unchanged). The caller
// holds the plug-in lock.
int ldap_add_plugin(const LDAPPluginInfo *info, LDAPPluginFunc bind, LDAPPluginFunc init);

// Opens the plug-in library that path names (ldap_dl_file_name) as the
// current plug-in library; the one it replaces stays loaded. 0, 90 or 193.
// The caller holds the plug-in lock.
int ldap_load_plugin(const char *path);
// Reads the configuration file, then, under the plug-in lock, loads the
// library (with force, or when no entry has info's type and name), calls
// the init function and enters the plug-in in the registry. Without
// loading, the known entry's init function is called again and nothing
// else is done. 0, 90, 193, 194 (the init function is missing, or it set
// no bind function), 195 (the init function failed).
int ldap_load_and_init_plugin(const LDAPPluginInfo *info, bool force);

// What a bind needs of a registered plug-in, copied under the plug-in lock
// so that a registration replacing the entry meanwhile takes nothing away.
struct ldap_plugin_use {
    LDAPPluginFunc bind; // may be NULL
    LDAPPluginFunc init;
    char *type;
    int argc;
    char **argv; // the entry's arguments split at blanks, tabs and line ends, NULL-terminated
};

// Fills use from the entry of type and name; when there is none, reads the
// configuration file and loads and initialises the plug-in that its record
// (conf_type, type, name) describes. 0, 12 when no plug-in is registered or
// configured, 192 when none is registered and no configuration file can
// be opened, or the code of loading and initialising.
int ldap_plugin_acquire(const char *conf_type, const char *type, const char *name, ldap_plugin_use *use);
void ldap_plugin_use_release(ldap_plugin_use *use);

#endif
