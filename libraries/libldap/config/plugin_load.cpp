// plugin_load.cpp - loading a plug-in library, calling its init function
// and entering it in the registry. The init function runs under the
// plug-in lock, so a plug-in is initialised by one thread at a time.
#include "config/plugin_registry.h"

#include "base/ldap_load.h"
#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "config/conf_file.h"
#include "core/plugin_block.h"

namespace {

constexpr char kDefaultInitFunc[] = "ldap_plugin_init";

// The plug-in library loaded last, guarded by the plug-in lock. Loading
// another replaces it here but leaves it loaded: the functions registered
// from it stay callable.
ldap_dl *g_current_library;

// Steps after the lock: load when asked, initialise, register.
int init_locked(const LDAPPluginInfo *info, bool force)
{
    const ldap_plugin_entry *known = force ? nullptr : ldap_find_plugin(info->lp_type, info->lp_name);
    LDAPPluginBlock *pb = ldap_plugin_block_new();
    if (!pb || ldap_plugin_block_set(pb, LDAP_PLUGIN_TYPE, info->lp_type) != 0) {
        ldap_plugin_block_free(pb);
        return LDAP_NO_MEMORY;
    }
    // A plug-in already registered is initialised again with the init
    // function it was registered with, whichever library was loaded last.
    LDAPPluginFunc init = known ? known->init : nullptr;
    int rc = LDAP_SUCCESS;
    if (!known) {
        rc = ldap_load_plugin(info->lp_path);
        if (rc == LDAP_SUCCESS) {
            init = reinterpret_cast<LDAPPluginFunc>(
                ldap_dlsym(g_current_library, info->lp_init_func ? info->lp_init_func : kDefaultInitFunc));
            if (!init)
                rc = LDAP_PLUGIN_FUNC_NOT_RESOLVED;
        }
    }
    if (rc == LDAP_SUCCESS && init(pb) != 0)
        rc = LDAP_PLUGIN_NOT_INITIALIZED;
    if (rc == LDAP_SUCCESS && !known) {
        void *bind = nullptr;
        rc = ldap_plugin_block_get(pb, LDAP_PLUGIN_BIND_FN, &bind) == 0
                 ? ldap_add_plugin(info, reinterpret_cast<LDAPPluginFunc>(bind), init)
                 : LDAP_PLUGIN_FUNC_NOT_RESOLVED;
    }
    ldap_plugin_block_free(pb);
    return rc;
}

} // namespace

int ldap_load_plugin(const char *path)
{
    LDAP_TRACE(TRC_API, "ldap_load_plugin(): %s\n", path);
    char *file = ldap_dl_file_name(path);
    if (!file)
        return LDAP_NO_MEMORY;
    ldap_dl *library = ldap_dlopen(file, 0);
    zldap::mem_free(file);
    if (!library)
        return LDAP_PLUGIN_NOT_LOADED;
    ldap_dlrelease(g_current_library);
    g_current_library = library;
    return LDAP_SUCCESS;
}

int ldap_load_and_init_plugin(const LDAPPluginInfo *info, bool force)
{
    ldap_read_conf_file(ldap_process_conf_list());
    ldap_init_all_mutex_once();
    ldap_lock_plugin_mutex();
    int rc = init_locked(info, force);
    ldap_unlock_plugin_mutex();
    return rc;
}

int ldap_register_plugin(const LDAPPluginInfo *info)
{
    zldap::trace_setup();
    LDAP_TRACE(TRC_API, "ldap_register_plugin: plugin_info(%p)\n", static_cast<const void *>(info));
    int rc = LDAP_PARAM_ERROR;
    if (info && info->lp_type && info->lp_name && info->lp_path)
        rc = ldap_load_and_init_plugin(info, true);
    LDAP_TRACE(TRC_API, "ldap_register_plugin: returing rc=%d\n", rc);
    return rc;
}
