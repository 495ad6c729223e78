// plugin_registry.cpp - the registry's entries, the copy of the registry a
// caller can take, and the copy of one entry a bind works with.
#include "config/plugin_registry.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "config/conf_file.h"

#include <cstring>

namespace {

constexpr char kArgumentBlanks[] = " \t\r\n";

ldap_plugin_entry *g_registry; // guarded by the plug-in lock

void free_info_texts(LDAPPluginInfo *info)
{
    for (char *text : {info->lp_type, info->lp_name, info->lp_path, info->lp_init_func, info->lp_args})
        zldap::mem_free(text);
}

// Copies the five texts (absent ones stay NULL): 0 or 90, with nothing
// kept on failure.
int copy_info_texts(const LDAPPluginInfo *from, LDAPPluginInfo *to)
{
    *to = {};
    const char *texts[] = {from->lp_type, from->lp_name, from->lp_path, from->lp_init_func, from->lp_args};
    char **copies[] = {&to->lp_type, &to->lp_name, &to->lp_path, &to->lp_init_func, &to->lp_args};
    for (int i = 0; i < 5; i++) {
        if (texts[i] && !(*copies[i] = zldap::mem_strdup(texts[i]))) {
            free_info_texts(to);
            *to = {};
            return LDAP_NO_MEMORY;
        }
    }
    return LDAP_SUCCESS;
}

// Splits args into at most LDAP_PLUGIN_MAX_ARGS copies: 0 or 90.
int split_arguments(const char *args, ldap_plugin_use *use)
{
    use->argv = static_cast<char **>(zldap::mem_calloc(LDAP_PLUGIN_MAX_ARGS + 1, sizeof(char *)));
    if (!use->argv)
        return LDAP_NO_MEMORY;
    const char *rest = args ? args : "";
    while (use->argc < LDAP_PLUGIN_MAX_ARGS) {
        rest += std::strspn(rest, kArgumentBlanks);
        size_t length = std::strcspn(rest, kArgumentBlanks);
        if (length == 0)
            break;
        if (!(use->argv[use->argc] = zldap::mem_strndup(rest, length)))
            return LDAP_NO_MEMORY;
        use->argc++;
        rest += length;
    }
    return LDAP_SUCCESS;
}

// Fills use from the entry of type and name: 0, 12 when there is none, 90.
int copy_entry_for_use(const char *type, const char *name, ldap_plugin_use *use)
{
    ldap_init_all_mutex_once();
    ldap_lock_plugin_mutex();
    int rc = LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
    if (const ldap_plugin_entry *entry = ldap_find_plugin(type, name)) {
        use->bind = entry->bind;
        use->init = entry->init;
        use->type = zldap::mem_strdup(entry->info.lp_type);
        rc = use->type ? split_arguments(entry->info.lp_args, use) : LDAP_NO_MEMORY;
    }
    ldap_unlock_plugin_mutex();
    if (rc != LDAP_SUCCESS)
        ldap_plugin_use_release(use);
    return rc;
}

} // namespace

ldap_plugin_entry *ldap_find_plugin(const char *type, const char *name)
{
    for (ldap_plugin_entry *entry = g_registry; entry; entry = entry->next)
        if (std::strcmp(entry->info.lp_type, type) == 0 && std::strcmp(entry->info.lp_name, name) == 0)
            return entry;
    return nullptr;
}

int ldap_add_plugin(const LDAPPluginInfo *info, LDAPPluginFunc bind, LDAPPluginFunc init)
{
    auto *entry = static_cast<ldap_plugin_entry *>(zldap::mem_calloc(1, sizeof(ldap_plugin_entry)));
    if (!entry)
        return LDAP_NO_MEMORY;
    if (copy_info_texts(info, &entry->info) != LDAP_SUCCESS) {
        zldap::mem_free(entry);
        return LDAP_NO_MEMORY;
    }
    entry->bind = bind;
    entry->init = init;
    ldap_plugin_entry **link = &g_registry;
    while (*link && !(std::strcmp((*link)->info.lp_type, info->lp_type) == 0 &&
                      std::strcmp((*link)->info.lp_name, info->lp_name) == 0))
        link = &(*link)->next;
    ldap_plugin_entry *replaced = *link;
    entry->next = replaced ? replaced->next : nullptr;
    *link = entry;
    if (replaced) {
        free_info_texts(&replaced->info);
        zldap::mem_free(replaced);
    }
    return LDAP_SUCCESS;
}

int ldap_plugin_registry_copy(LDAPPluginInfo ***list)
{
    if (!list)
        return LDAP_PARAM_ERROR;
    *list = nullptr;
    ldap_init_all_mutex_once();
    ldap_lock_plugin_mutex();
    int count = 0;
    for (const ldap_plugin_entry *entry = g_registry; entry; entry = entry->next)
        count++;
    int rc = LDAP_PARAM_ERROR;
    LDAPPluginInfo **copy = nullptr;
    if (count <= LDAP_PLUGIN_MAX_ENTRIES) {
        copy = static_cast<LDAPPluginInfo **>(zldap::mem_calloc(count + 1, sizeof(LDAPPluginInfo *)));
        rc = copy ? LDAP_SUCCESS : LDAP_NO_MEMORY;
        int i = 0;
        for (const ldap_plugin_entry *entry = g_registry; entry && rc == LDAP_SUCCESS; entry = entry->next, i++) {
            copy[i] = static_cast<LDAPPluginInfo *>(zldap::mem_calloc(1, sizeof(LDAPPluginInfo)));
            rc = copy[i] ? copy_info_texts(&entry->info, copy[i]) : LDAP_NO_MEMORY;
        }
    }
    ldap_unlock_plugin_mutex();
    if (rc != LDAP_SUCCESS)
        ldap_plugin_registry_free(copy);
    else
        *list = copy;
    return rc;
}

void ldap_plugin_registry_free(LDAPPluginInfo **list)
{
    if (!list)
        return;
    for (LDAPPluginInfo **info = list; *info; info++) {
        free_info_texts(*info);
        zldap::mem_free(*info);
    }
    zldap::mem_free(list);
}

int ldap_plugin_acquire(const char *conf_type, const char *type, const char *name, ldap_plugin_use *use)
{
    *use = {};
    int rc = copy_entry_for_use(type, name, use);
    if (rc != LDAP_UNAVAILABLE_CRITICAL_EXTENSION)
        return rc;
    ldap_conf_list *conf = ldap_process_conf_list();
    int conf_rc = ldap_read_conf_file(conf);
    // Records exist only in a list that has been read whole, and such a
    // list never changes again: the one found stays valid unlocked.
    ldap_lock_plugin_mutex();
    const ldap_conf_record *record = ldap_conf_find(conf, conf_type, type, name);
    ldap_unlock_plugin_mutex();
    if (!record)
        return conf_rc == LDAP_PLUGIN_CONF_NOT_OPENED ? conf_rc : LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
    LDAPPluginInfo info{record->subtype, record->name, record->library, record->init_func, record->args};
    rc = ldap_load_and_init_plugin(&info, false);
    return rc != LDAP_SUCCESS ? rc : copy_entry_for_use(type, name, use);
}

void ldap_plugin_use_release(ldap_plugin_use *use)
{
    zldap::mem_free(use->type);
    if (use->argv)
        for (int i = 0; i < use->argc; i++)
            zldap::mem_free(use->argv[i]);
    zldap::mem_free(use->argv);
    *use = {};
}
