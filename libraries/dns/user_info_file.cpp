// user_info_file.cpp - the user information file on disk: reading it in
// either layout, writing it in the current one.
//
// A record is a name (a length byte and its bytes) and three items in the
// order domain, text, password. An item is a presence byte (0 or 1) and,
// when present, a 4-byte big-endian length below 65536 and the bytes.
// Files of the older layout carry 4 more bytes before every item length;
// a file that does not scan whole in the current layout is read as one.
#include "dns/user_info.h"

#include "base/memory.h"
#include "base/trace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zldap {
namespace {

// The item kinds in the order the file holds them.
constexpr int kFileOrder[3] = {LDAP_USER_INFO_DOMAIN, LDAP_USER_INFO_TEXT, LDAP_USER_INFO_PASSWORD};
constexpr size_t kReadChunk = 4096;

// Walks the bytes of one layout; every read is checked against the end.
struct Cursor {
    const uint8_t *bytes;
    size_t length;
    size_t pos;

    bool take(size_t count, const uint8_t **out)
    {
        if (count > length - pos)
            return false;
        *out = bytes + pos;
        pos += count;
        return true;
    }
};

// Reads one item's presence and extent; false when damaged.
bool read_item(Cursor &cursor, bool old_layout, const uint8_t **data, uint32_t *length, bool *present)
{
    const uint8_t *p;
    if (!cursor.take(1, &p) || *p > 1)
        return false;
    *present = *p == 1;
    if (!*present)
        return true;
    if (old_layout && !cursor.take(4, &p))
        return false;
    if (!cursor.take(4, &p))
        return false;
    uint32_t n = static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
                 static_cast<uint32_t>(p[2]) << 8 | p[3];
    if (n >= kUserInfoItemLimit)
        return false;
    *length = n;
    return cursor.take(n, data);
}

// Scans (records NULL) or reads the whole file in one layout: 0, 21 or 90.
int read_layout(const uint8_t *bytes, size_t length, bool old_layout, UserInfoRecord **records)
{
    Cursor cursor{bytes, length, 0};
    UserInfoRecord **tail = records;
    while (cursor.pos < length) {
        const uint8_t *p;
        const uint8_t *name;
        if (!cursor.take(1, &p) || !cursor.take(*p, &name))
            return LDAP_INVALID_SYNTAX;
        size_t name_length = *p;
        UserInfoRecord *record = nullptr;
        if (records) {
            record = static_cast<UserInfoRecord *>(mem_calloc(1, sizeof *record));
            if (!record)
                return LDAP_NO_MEMORY;
            std::memcpy(record->name, name, name_length);
            *tail = record;
            tail = &record->next;
        }
        for (int kind : kFileOrder) {
            const uint8_t *data = nullptr;
            uint32_t item_length = 0;
            bool present = false;
            if (!read_item(cursor, old_layout, &data, &item_length, &present))
                return LDAP_INVALID_SYNTAX;
            if (!record || !present)
                continue;
            UserInfoItem &item = record->items[kind - 1];
            item.data = static_cast<uint8_t *>(mem_malloc(item_length));
            if (!item.data)
                return LDAP_NO_MEMORY;
            std::memcpy(item.data, data, item_length);
            item.length = item_length;
        }
    }
    return LDAP_SUCCESS;
}

bool write_bytes(FILE *file, const void *bytes, size_t length)
{
    return length == 0 || std::fwrite(bytes, 1, length, file) == length;
}

bool write_record(FILE *file, const UserInfoRecord *record)
{
    size_t name_length = strnlen(record->name, kUserNameMax);
    uint8_t length_byte = static_cast<uint8_t>(name_length);
    if (!write_bytes(file, &length_byte, 1) || !write_bytes(file, record->name, name_length))
        return false;
    for (int kind : kFileOrder) {
        const UserInfoItem &item = record->items[kind - 1];
        uint8_t head[5] = {static_cast<uint8_t>(item.data ? 1 : 0), static_cast<uint8_t>(item.length >> 24),
                           static_cast<uint8_t>(item.length >> 16), static_cast<uint8_t>(item.length >> 8),
                           static_cast<uint8_t>(item.length)};
        if (!write_bytes(file, head, item.data ? 5 : 1) || (item.data && !write_bytes(file, item.data, item.length)))
            return false;
    }
    return true;
}

} // namespace

void secure_zero(void *memory, size_t length)
{
    volatile uint8_t *p = static_cast<volatile uint8_t *>(memory);
    while (length-- > 0)
        *p++ = 0;
}

void user_info_free(UserInfoRecord *records)
{
    while (records) {
        UserInfoRecord *next = records->next;
        for (UserInfoItem &item : records->items) {
            if (item.data)
                secure_zero(item.data, item.length);
            mem_free(item.data);
        }
        mem_free(records);
        records = next;
    }
}

bool user_info_has_items(const UserInfoRecord *record)
{
    for (const UserInfoItem &item : record->items)
        if (item.data)
            return true;
    return false;
}

int user_info_parse(const uint8_t *bytes, size_t length, UserInfoRecord **records)
{
    *records = nullptr;
    bool old_layout = read_layout(bytes, length, false, nullptr) != LDAP_SUCCESS;
    int rc = read_layout(bytes, length, old_layout, records);
    if (rc != LDAP_SUCCESS) {
        user_info_free(*records);
        *records = nullptr;
    }
    return rc;
}

int user_info_read_file(const char *path, UserInfoRecord **records)
{
    *records = nullptr;
    FILE *file = std::fopen(path, "rbe");
    if (!file)
        return errno == ENOENT ? LDAP_SUCCESS : LDAP_INVALID_SYNTAX;
    uint8_t *bytes = nullptr;
    size_t length = 0;
    int rc = LDAP_SUCCESS;
    for (;;) {
        auto *grown = static_cast<uint8_t *>(mem_realloc(bytes, length + kReadChunk));
        if (!grown) {
            rc = LDAP_NO_MEMORY;
            break;
        }
        bytes = grown;
        size_t got = std::fread(bytes + length, 1, kReadChunk, file);
        length += got;
        if (got < kReadChunk) {
            if (std::ferror(file))
                rc = LDAP_INVALID_SYNTAX;
            break;
        }
    }
    std::fclose(file);
    if (rc == LDAP_SUCCESS)
        rc = user_info_parse(bytes, length, records);
    if (bytes)
        secure_zero(bytes, length);
    mem_free(bytes);
    return rc;
}

} // namespace zldap

int writeUserInfoFile(const char *path, zldap::UserInfoRecord *records)
{
    // The file holds protected passwords: only its owner may read it,
    // also when it existed before with wider permissions.
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    FILE *file = fd >= 0 ? fdopen(fd, "wb") : nullptr;
    if (!file) {
        int err = errno;
        if (fd >= 0)
            close(fd);
        LDAP_TRACE(TRC_ERROR, "writeUserInfoFile: Can't create %s: rc = %d\n", path, err);
        return LDAP_UNWILLING_TO_PERFORM;
    }
    // Best effort: a file that belongs to someone else keeps its mode.
    (void)fchmod(fd, 0600);
    bool ok = true;
    for (const zldap::UserInfoRecord *r = records; r && ok; r = r->next)
        if (zldap::user_info_has_items(r))
            ok = zldap::write_record(file, r);
    if (std::fclose(file) != 0)
        ok = false;
    return ok ? LDAP_SUCCESS : LDAP_UNWILLING_TO_PERFORM;
}
