// plugin_block.h - the parameter block through which the library and a
// plug-in exchange values: an ordered list of (key, value) pairs. A
// connection keeps the block of its last plug-in bind until it is released.
#ifndef ZLDAP_PLUGIN_BLOCK_H
#define ZLDAP_PLUGIN_BLOCK_H

#include "zor8ldap_plugin.h"

// A new empty block whose pb_get and pb_set are the functions below, whose
// pb_trace writes to the trace log and whose pb_sasl_bind_s is NULL; NULL
// when memory runs out.
LDAPPluginBlock *ldap_plugin_block_new();
// Accepts NULL.
void ldap_plugin_block_free(LDAPPluginBlock *pb);

// 0 with *value set, or -1 when the key is absent.
int ldap_plugin_block_get(LDAPPluginBlock *pb, unsigned int key, void **value);
// 0, or -1 when a new key can't be appended.
int ldap_plugin_block_set(LDAPPluginBlock *pb, unsigned int key, void *value);

// The plug-in function stored under key, or NULL.
LDAPPluginFunc ldap_plugin_block_func(LDAPPluginBlock *pb, unsigned int key);

#endif
