// plugin_block.cpp - the parameter block: pairs in an array that grows by
// doubling, looked up by a linear scan (a block holds about a dozen keys).
#include "core/plugin_block.h"

#include "base/memory.h"
#include "base/trace.h"

#include <cstdarg>

namespace {

// A plug-in's line in the trace log, shown and stamped as the library's own.
void trace_for_plugin(unsigned int mask, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    zldap::trace_vprint(mask, format, args);
    va_end(args);
}

} // namespace

LDAPPluginBlock *ldap_plugin_block_new()
{
    auto *pb = static_cast<LDAPPluginBlock *>(zldap::mem_calloc(1, sizeof(LDAPPluginBlock)));
    if (!pb)
        return nullptr;
    pb->pb_get = ldap_plugin_block_get;
    pb->pb_set = ldap_plugin_block_set;
    pb->pb_trace = trace_for_plugin;
    return pb;
}

void ldap_plugin_block_free(LDAPPluginBlock *pb)
{
    if (!pb)
        return;
    zldap::mem_free(pb->pb_pairs);
    zldap::mem_free(pb);
}

int ldap_plugin_block_get(LDAPPluginBlock *pb, unsigned int key, void **value)
{
    for (unsigned int i = 0; i < pb->pb_count; i++) {
        if (pb->pb_pairs[i].pp_key == key) {
            *value = pb->pb_pairs[i].pp_value;
            return 0;
        }
    }
    return -1;
}

int ldap_plugin_block_set(LDAPPluginBlock *pb, unsigned int key, void *value)
{
    for (unsigned int i = 0; i < pb->pb_count; i++) {
        if (pb->pb_pairs[i].pp_key == key) {
            pb->pb_pairs[i].pp_value = value;
            return 0;
        }
    }
    if (pb->pb_count == pb->pb_capacity) {
        unsigned int capacity = pb->pb_capacity ? 2 * pb->pb_capacity : 16;
        void *grown = zldap::mem_realloc(pb->pb_pairs, capacity * sizeof(ldap_plugin_pair));
        if (!grown)
            return -1;
        pb->pb_pairs = static_cast<ldap_plugin_pair *>(grown);
        pb->pb_capacity = capacity;
    }
    pb->pb_pairs[pb->pb_count++] = {key, value};
    return 0;
}

LDAPPluginFunc ldap_plugin_block_func(LDAPPluginBlock *pb, unsigned int key)
{
    void *value = nullptr;
    if (ldap_plugin_block_get(pb, key, &value) != 0)
        return nullptr;
    return reinterpret_cast<LDAPPluginFunc>(value);
}
