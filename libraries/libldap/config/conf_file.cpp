// conf_file.cpp - locating and reading the plug-in configuration file. A
// line longer than the 512-byte buffer arrives in pieces, and each piece is
// read as a line of its own.
#include "config/conf_file.h"

#include "base/environment.h"
#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "base/version.h"
#include "zor8ldap.h"

#include <cstring>

namespace {

constexpr char kConfFileName[] = "ornldap.conf";
constexpr char kInstallDir[] = "/opt/orn/ldap/V" ZLDAP_VERSION_TEXT;
constexpr char kInstallEtcDir[] = "/opt/orn/ldap/V" ZLDAP_VERSION_TEXT "/etc";
constexpr char kBlanks[] = " \t\r\n";
constexpr char kLineEnds[] = "\t\r\n";

ldap_conf_list g_conf_list;

// dir + "/ornldap.conf" when that file can be opened for reading, else NULL.
char *readable_conf_path(const char *dir)
{
    size_t length = std::strlen(dir) + 1 + sizeof kConfFileName;
    char *path = static_cast<char *>(zldap::mem_malloc(length));
    if (!path)
        return nullptr;
    std::snprintf(path, length, "%s/%s", dir, kConfFileName);
    FILE *file = std::fopen(path, "r");
    if (!file) {
        zldap::mem_free(path);
        return nullptr;
    }
    std::fclose(file);
    return path;
}

// Splits the record's line into its fields; false when one of the first
// four is missing.
bool split_fields(ldap_conf_record *record)
{
    char *save = nullptr;
    char **required[] = {&record->type, &record->subtype, &record->name, &record->library};
    char *text = record->line;
    for (char **field : required) {
        *field = strtok_r(text, kBlanks, &save);
        text = nullptr;
        if (!*field)
            return false;
    }
    record->init_func = strtok_r(nullptr, kBlanks, &save);
    if (record->init_func)
        record->args = strtok_r(nullptr, kLineEnds, &save);
    return true;
}

} // namespace

ldap_conf_list *ldap_process_conf_list() { return &g_conf_list; }

char *ldap_locate_conf_file()
{
    LDAP_TRACE(TRC_API, "ldap_locate_conf_file() called\n");
    char *dir = ldap_getenv("ORNLDAP_CONF");
    char *path = dir ? readable_conf_path(dir) : nullptr;
    zldap::mem_free(dir);
    if (!path)
        path = readable_conf_path(kInstallEtcDir);
    if (!path)
        path = readable_conf_path(kInstallDir);
    return path;
}

FILE *ldap_open_conf_file()
{
    LDAP_TRACE(TRC_API, "ldap_open_conf_file()\n");
    char *path = ldap_locate_conf_file();
    FILE *file = path ? std::fopen(path, "r") : nullptr;
    zldap::mem_free(path);
    return file;
}

int ldap_process_conf_data(FILE *file, ldap_conf_list *list)
{
    LDAP_TRACE(TRC_API, "ldap_process_conf_data()\n");
    char line[512];
    while (std::fgets(line, sizeof line, file)) {
        if (line[0] == '#')
            continue;
        auto *record = static_cast<ldap_conf_record *>(zldap::mem_calloc(1, sizeof(ldap_conf_record)));
        if (!record)
            return LDAP_NO_MEMORY;
        std::memcpy(record->line, line, std::strlen(line) + 1);
        if (!split_fields(record)) {
            zldap::mem_free(record);
            continue;
        }
        if (list->last)
            list->last->next = record;
        else
            list->first = record;
        list->last = record;
    }
    return LDAP_SUCCESS;
}

int ldap_read_conf_file(ldap_conf_list *list)
{
    LDAP_TRACE(TRC_API, "ldap_read_conf_file()\n");
    if (list->read.load(std::memory_order_acquire))
        return LDAP_SUCCESS;
    ldap_init_all_mutex_once();
    ldap_lock_plugin_mutex();
    int rc = LDAP_SUCCESS;
    if (!list->read.load(std::memory_order_relaxed)) {
        FILE *file = ldap_open_conf_file();
        if (!file) {
            rc = LDAP_PLUGIN_CONF_NOT_OPENED;
        } else {
            rc = ldap_process_conf_data(file, list);
            std::fclose(file);
            // A failed read leaves nothing behind, so that the next one
            // starts from an empty list.
            if (rc == LDAP_SUCCESS)
                list->read.store(true, std::memory_order_release);
            else
                ldap_conf_list_clear(list);
        }
    }
    ldap_unlock_plugin_mutex();
    return rc;
}

void ldap_conf_list_clear(ldap_conf_list *list)
{
    ldap_conf_record *record = list->first;
    while (record) {
        ldap_conf_record *next = record->next;
        zldap::mem_free(record);
        record = next;
    }
    list->first = nullptr;
    list->last = nullptr;
}

const ldap_conf_record *ldap_conf_find(const ldap_conf_list *list, const char *type, const char *subtype,
                                       const char *name)
{
    for (const ldap_conf_record *record = list->first; record; record = record->next)
        if (std::strcmp(record->type, type) == 0 && std::strcmp(record->subtype, subtype) == 0 &&
            std::strcmp(record->name, name) == 0)
            return record;
    return nullptr;
}
