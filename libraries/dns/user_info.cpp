// user_info.cpp - the current user's items in the user information file:
// looking one up, changing one, and the text, domain and password forms
// of the published interface.
#include "dns/user_info.h"

#include "base/memory.h"
#include "base/trace.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <pwd.h>
#include <unistd.h>

namespace zldap {
namespace {

constexpr size_t kPasswdBufferSize = 1024;
constexpr char kFileName[] = "ldap_user_info";
// The longest data whose protected blob (up to 1023 + 44 bytes more) still
// fits an item.
constexpr int kMaxPasswordLength = static_cast<int>(kUserInfoItemLimit) - 1 - 1023 - 44;

bool valid_kind(int kind) { return kind >= LDAP_USER_INFO_TEXT && kind <= LDAP_USER_INFO_DOMAIN; }

// The current user's name and the records of the user information file
// at the caller's path or the default one; rc tells whether they could be
// read. What it holds goes with it.
struct UserFile {
    char name[kUserNameMax + 1];
    char *owned = nullptr;      // the default path
    const char *path = nullptr; // the file read; NULL when none could be named
    UserInfoRecord *records = nullptr;
    int rc = LDAP_SUCCESS;

    explicit UserFile(const char *given)
    {
        rc = user_info_identity(name, given ? nullptr : &owned);
        path = rc != LDAP_SUCCESS ? nullptr : given ? given : owned;
        if (path)
            rc = user_info_read_file(path, &records);
    }
    ~UserFile()
    {
        user_info_free(records);
        mem_free(owned);
    }
    UserFile(const UserFile &) = delete;
    UserFile &operator=(const UserFile &) = delete;
};

// Copies the item of the kind from the user's first record into *data.
// 0, 32 when there is none, 90, or the failure to read the file.
int copy_item(const char *path, int kind, char **data, int *length)
{
    UserFile file(path);
    if (file.rc != LDAP_SUCCESS)
        return file.rc;
    const UserInfoRecord *r = file.records;
    while (r && std::strcmp(r->name, file.name) != 0)
        r = r->next;
    const UserInfoItem *item = r ? &r->items[kind - 1] : nullptr;
    if (!item || !item->data)
        return LDAP_NO_SUCH_OBJECT;
    // Every kind gets a zero byte after its data; texts rely on it.
    *data = static_cast<char *>(mem_malloc(item->length + 1));
    if (!*data)
        return LDAP_NO_MEMORY;
    std::memcpy(*data, item->data, item->length);
    (*data)[item->length] = '\0';
    if (length)
        *length = static_cast<int>(item->length);
    return LDAP_SUCCESS;
}

// Sets the item of the kind (clears it for data NULL) in the user's last
// record, appended when there is none, and writes the file again. 0, 90,
// or the failure to read or write the file.
int change_item(const char *path, int kind, const char *data, int length)
{
    UserFile file(path);
    if (file.rc != LDAP_SUCCESS)
        return file.rc;
    UserInfoRecord *mine = nullptr;
    UserInfoRecord **tail = &file.records;
    for (; *tail; tail = &(*tail)->next)
        if (std::strcmp((*tail)->name, file.name) == 0)
            mine = *tail;
    if (!mine) {
        mine = static_cast<UserInfoRecord *>(mem_calloc(1, sizeof *mine));
        if (!mine)
            return LDAP_NO_MEMORY;
        std::memcpy(mine->name, file.name, sizeof mine->name);
        *tail = mine;
    }
    uint8_t *copy = nullptr;
    if (data) {
        copy = static_cast<uint8_t *>(mem_malloc(static_cast<size_t>(length)));
        if (!copy)
            return LDAP_NO_MEMORY;
        if (length > 0)
            std::memcpy(copy, data, static_cast<size_t>(length));
    }
    UserInfoItem &item = mine->items[kind - 1];
    if (item.data)
        secure_zero(item.data, item.length);
    mem_free(item.data);
    item.data = copy;
    item.length = data ? static_cast<uint32_t>(length) : 0;
    return writeUserInfoFile(file.path, file.records);
}

} // namespace

int user_info_identity(char name[kUserNameMax + 1], char **default_path)
{
    struct passwd entry;
    struct passwd *found = nullptr;
    char buffer[kPasswdBufferSize];
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) != 0 || !found || !found->pw_name) {
        LDAP_TRACE(TRC_ERROR, "ldap_user_info: no account entry for user id %d\n", static_cast<int>(getuid()));
        return LDAP_LOCAL_ERROR;
    }
    std::snprintf(name, kUserNameMax + 1, "%s", found->pw_name);
    if (!default_path)
        return LDAP_SUCCESS;
    if (!found->pw_dir || !*found->pw_dir) {
        LDAP_TRACE(TRC_ERROR, "ldap_user_info: no home directory for %s\n", name);
        return LDAP_LOCAL_ERROR;
    }
    size_t size = std::strlen(found->pw_dir) + sizeof kFileName + 1;
    *default_path = static_cast<char *>(mem_malloc(size));
    if (!*default_path)
        return LDAP_NO_MEMORY;
    std::snprintf(*default_path, size, "%s/%s", found->pw_dir, kFileName);
    return LDAP_SUCCESS;
}

} // namespace zldap

int ldap_user_info_lookup(const char *path, int kind, char **data, int *length)
{
    zldap::trace_setup();
    LDAP_TRACE(TRC_API, "ldap_user_info_lookup: kind %d, file %s\n", kind, trace_str(path, "NULL"));
    if (data)
        *data = nullptr;
    if (!data || !zldap::valid_kind(kind))
        return LDAP_PARAM_ERROR;
    int rc = zldap::copy_item(path, kind, data, length);
    LDAP_TRACE(TRC_API, "ldap_user_info_lookup: rc=%d\n", rc);
    return rc;
}

int ldap_user_info_update(const char *path, int kind, const char *data, int length)
{
    zldap::trace_setup();
    LDAP_TRACE(TRC_API, "ldap_user_info_update: kind %d, file %s\n", kind, trace_str(path, "NULL"));
    if (!zldap::valid_kind(kind) || (data && (length < 0 || static_cast<uint32_t>(length) >= zldap::kUserInfoItemLimit)))
        return LDAP_PARAM_ERROR;
    int rc = zldap::change_item(path, kind, data, length);
    LDAP_TRACE(TRC_API, "ldap_user_info_update: rc=%d\n", rc);
    return rc;
}

int ldap_set_user_info_text(const char *text, const char *path)
{
    return ldap_user_info_update(path, LDAP_USER_INFO_TEXT, text, text ? static_cast<int>(std::strlen(text)) : 0);
}

int ldap_get_user_info_text(char **text, const char *path)
{
    return ldap_user_info_lookup(path, LDAP_USER_INFO_TEXT, text, nullptr);
}

int ldap_set_user_info_domain(const char *domain, const char *path)
{
    return ldap_user_info_update(path, LDAP_USER_INFO_DOMAIN, domain,
                                 domain ? static_cast<int>(std::strlen(domain)) : 0);
}

int ldap_get_user_info_domain(char **domain, const char *path)
{
    return ldap_user_info_lookup(path, LDAP_USER_INFO_DOMAIN, domain, nullptr);
}

int ldap_set_user_info_password(const char *key, const char *data, int length, const char *path)
{
    zldap::trace_setup();
    LDAP_TRACE(TRC_API, "ldap_set_user_info_password: file %s\n", trace_str(path, "NULL"));
    if (!key || (data && (length < 0 || length > zldap::kMaxPasswordLength)))
        return LDAP_PARAM_ERROR;
    if (!data)
        return ldap_user_info_update(path, LDAP_USER_INFO_PASSWORD, nullptr, 0);
    uint8_t *blob = nullptr;
    size_t blob_length = 0;
    int rc = zldap::user_info_protect(key, reinterpret_cast<const uint8_t *>(data), static_cast<size_t>(length),
                                      static_cast<unsigned>(time(nullptr)), &blob, &blob_length);
    if (rc == LDAP_SUCCESS) {
        rc = ldap_user_info_update(path, LDAP_USER_INFO_PASSWORD, reinterpret_cast<char *>(blob),
                                   static_cast<int>(blob_length));
        zldap::secure_zero(blob, blob_length);
    }
    zldap::mem_free(blob);
    return rc;
}

int ldap_get_user_info_password(const char *key, char **data, int *length, const char *path)
{
    zldap::trace_setup();
    LDAP_TRACE(TRC_API, "ldap_get_user_info_password: file %s\n", trace_str(path, "NULL"));
    if (data)
        *data = nullptr;
    if (!key || !data || !length)
        return LDAP_PARAM_ERROR;
    char *blob = nullptr;
    int blob_length = 0;
    int rc = ldap_user_info_lookup(path, LDAP_USER_INFO_PASSWORD, &blob, &blob_length);
    if (rc == LDAP_SUCCESS)
        rc = zldap::user_info_recover(key, reinterpret_cast<uint8_t *>(blob), static_cast<size_t>(blob_length),
                                      data, length);
    if (blob)
        zldap::secure_zero(blob, static_cast<size_t>(blob_length));
    zldap::mem_free(blob);
    return rc;
}
