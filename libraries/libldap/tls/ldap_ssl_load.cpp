// ldap_ssl_load.cpp - loading the secure-socket toolkit: its four library
// files and the eighteen entry points resolved by name from the ssl one.
// Loading runs under ldap_ssl_mutex; once it succeeds the libraries stay
// loaded for the rest of the process.
#include "tls/ldap_ssl_load.h"

#include "base/environment.h"
#include "base/ldap_load.h"
#include "base/memory.h"
#include "base/trace.h"
#include "zor8ldap.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <strings.h>

#define LDAP_MODULE "libraries/libldap/ldap_ssl"

namespace {

enum ZorLibrary { kSsl, kSys, kCms, kVoc, kLibraryCount };
constexpr const char *kSuffixes[kLibraryCount] = {"ssl_64.so", "sys_64.so", "cms_64.so", "vocs_64.so"};
constexpr ZorLibrary kOpenOrder[kLibraryCount] = {kSys, kCms, kSsl, kVoc};
constexpr size_t kNameSize = 1024;

// The open libraries; the ssl one being open means "loaded".
ldap_dl *g_libraries[kLibraryCount];
// The toolkit's own zor_attribute_set_buffer, behind the wrapper.
decltype(zorlib_entry_points::attribute_set_buffer) g_set_buffer;

// Every attribute-setting call of the library comes through here, so that
// user data handed to a secure socket shows in the trace.
int zorAttributeSetBufferWrapper(zor_handle h, int id, const void *value, int length)
{
    if (id == ZOR_USER_DATA)
        LDAP_TRACE(TRC_CONN, "zorAttributeSetBufferWrapper: setting ZOR_USER_DATA in: %ld 0x%p  size: %d\n",
                   static_cast<long>(reinterpret_cast<intptr_t>(h)), value, length);
    return g_set_buffer(h, id, value, length);
}

// One entry point: its name and where its address goes.
struct EntryPoint {
    const char *name;
    void (*store)(zorlib_entry_points &table, void *address);
};

#define ZOR_ENTRY(field)                                                                           \
    {"zor_" #field, [](zorlib_entry_points &table, void *address) {                               \
         table.field = reinterpret_cast<decltype(table.field)>(address);                           \
     }}

// In the order they are resolved.
constexpr EntryPoint kEntryPoints[] = {
    ZOR_ENTRY(environment_open),       ZOR_ENTRY(environment_close),
    ZOR_ENTRY(environment_init),       ZOR_ENTRY(secure_soc_open),
    ZOR_ENTRY(secure_soc_init),        ZOR_ENTRY(secure_soc_close),
    ZOR_ENTRY(secure_soc_read),        ZOR_ENTRY(secure_soc_write),
    ZOR_ENTRY(attribute_set_buffer),   ZOR_ENTRY(attribute_get_buffer),
    ZOR_ENTRY(attribute_set_callback), ZOR_ENTRY(attribute_get_cert_info),
    ZOR_ENTRY(attribute_set_numeric_value), ZOR_ENTRY(attribute_get_numeric_value),
    ZOR_ENTRY(attribute_set_enum),     ZOR_ENTRY(attribute_get_enum),
    ZOR_ENTRY(strerror),               ZOR_ENTRY(get_cert_by_label),
};

#undef ZOR_ENTRY

void release_names(char *names[kLibraryCount])
{
    for (int i = 0; i < kLibraryCount; i++) {
        zldap::mem_free(names[i]);
        names[i] = nullptr;
    }
}

// The four file names for the toolkit version ZORLIB_CLIENT_VERSION (8 when
// unset): libzor8ssl_64.so and its siblings. 0, 90, or 1 when a name does
// not fit; on failure no name is kept.
int getZORLibrary(char *names[kLibraryCount])
{
    char *version = ldap_getenv("ZORLIB_CLIENT_VERSION");
    if (!version) {
        LDAP_TRACE(TRC_API, "getZORLibrary: ZORLIB_CLIENT_VERSION is not set \n");
        version = zldap::mem_strdup("8");
        if (!version) {
            LDAP_TRACE(TRC_ERROR, "getZORLibrary: strdup failed\n");
            return LDAP_NO_MEMORY;
        }
    }
    int rc = LDAP_SUCCESS;
    for (int i = 0; i < kLibraryCount && rc == LDAP_SUCCESS; i++) {
        names[i] = static_cast<char *>(zldap::mem_malloc(kNameSize));
        if (!names[i]) {
            LDAP_TRACE(TRC_ERROR, "getZORLibrary fail to allocate memory\n");
            rc = LDAP_NO_MEMORY;
            continue;
        }
        int length = std::snprintf(names[i], kNameSize, "%s%s%s", "libzor", version, kSuffixes[i]);
        if (length < 0 || static_cast<size_t>(length) >= kNameSize) {
            LDAP_TRACE(TRC_ERROR, "getZORLibrary: qva_snprintf failed\n");
            rc = 1;
        }
    }
    zldap::mem_free(version);
    if (rc != LDAP_SUCCESS)
        release_names(names);
    return rc;
}

void close_libraries()
{
    for (ldap_dl *&library : g_libraries) {
        ldap_dlclose(library);
        library = nullptr;
    }
}

// Opens name, either bare (the dynamic loader searches) or under prefix.
ldap_dl *open_library(const char *name, const char *prefix)
{
    if (!prefix) {
        LDAP_TRACE(TRC_API, "loadXeltShared: Loading Zorlib library: %s \n", name);
        return ldap_dlopen(name, 0);
    }
    LDAP_TRACE(TRC_API, "loadXeltShared: Loading Zorlib library: %s zorLibPath=%s\n", name, prefix);
    size_t prefix_length = std::strlen(prefix);
    size_t name_length = std::strlen(name);
    char *path = static_cast<char *>(zldap::mem_malloc(prefix_length + name_length + 1));
    if (!path)
        return nullptr;
    std::memcpy(path, prefix, prefix_length);
    std::memcpy(path + prefix_length, name, name_length + 1);
    ldap_dl *library = ldap_dlopen(path, 0);
    zldap::mem_free(path);
    return library;
}

// Opens all four libraries; any failure closes those that opened. The
// toolkit is installed beside the library, so without
// ZORLIB_LOCAL_INSTALL_MODE the libraries are taken from the directory the
// library itself was loaded from, never from a directory of the system.
// With it, the dynamic loader searches; the library's run-time search path
// is its own directory ($ORIGIN), so the toolkit beside it is found there
// too.
int open_libraries(char *const names[kLibraryCount])
{
    char *prefix = nullptr;
    if (ldap_chkenv("ZORLIB_LOCAL_INSTALL_MODE") == 0) {
        prefix = ldap_dl_own_directory();
        if (!prefix) {
            LDAP_TRACE(TRC_ERROR, "loadXeltShared: Unable to get default libpath\n");
            return LDAP_SECURE_LIB_MISSING;
        }
    }
    bool all_open = true;
    for (ZorLibrary which : kOpenOrder) {
        g_libraries[which] = open_library(names[which], prefix);
        all_open = all_open && g_libraries[which];
    }
    zldap::mem_free(prefix);
    if (all_open)
        return LDAP_SUCCESS;
    LDAP_TRACE(TRC_ERROR, "Error - loadXeltShared: Failed to load libraries %s %s %s and %s\n", names[kSys],
               names[kCms], names[kSsl], names[kVoc]);
    close_libraries();
    return LDAP_SECURE_LIB_MISSING;
}

// A missing entry point: the toolkit does not count as loaded.
int clearLoadXelt(const char *name)
{
    close_libraries();
    LDAP_TRACE(TRC_ERROR, "clearLoadXelt: Failed to find symbol %s\n", name);
    return LDAP_SECURE_LIB_MISSING;
}

// g_zorlib is filled only once every entry point has been found.
int resolve_entry_points()
{
    zorlib_entry_points resolved{};
    for (const EntryPoint &entry : kEntryPoints) {
        void *address = ldap_dlsym(g_libraries[kSsl], entry.name);
        if (!address)
            return clearLoadXelt(entry.name);
        entry.store(resolved, address);
    }
    g_set_buffer = resolved.attribute_set_buffer;
    resolved.attribute_set_buffer = zorAttributeSetBufferWrapper;
    g_zorlib = resolved;
    LDAP_TRACE(TRC_API, "loadXeltShared: Successfully resolved the required Zorlib function addresses\n");
    return LDAP_SUCCESS;
}

} // namespace

int loadXeltShared()
{
    char *shipped = ldap_getenv("ZORLIB_SHIPPED_VOC");
    bool refused = shipped && strcasecmp(shipped, "TRUE") == 0;
    zldap::mem_free(shipped);
    if (refused) {
        LDAP_TRACE(TRC_ERROR,
                   "loadXeltShared: Error Check the supported version of ZORLIB in the install guide.\n");
        return LDAP_SECURE_LIB_MISSING;
    }
    if (g_libraries[kSsl]) {
        LDAP_TRACE(TRC_API, "loadXeltShared: Zorlib library has already loaded\n");
        return LDAP_SUCCESS;
    }
    char *names[kLibraryCount] = {};
    if (getZORLibrary(names) != LDAP_SUCCESS) {
        LDAP_TRACE(TRC_ERROR, "loadXeltShared: Missing Zorlib library name\n");
        return LDAP_SECURE_LIB_MISSING;
    }
    int rc = open_libraries(names);
    if (rc == LDAP_SUCCESS)
        rc = resolve_entry_points();
    release_names(names);
    return rc;
}

void getZorFunctionTable(ZorFunctionTable *table)
{
    if (!table)
        return;
    const zorlib_entry_points &z = g_zorlib;
    *table = {z.environment_open,   z.environment_close,     z.environment_init,
              z.secure_soc_open,    z.secure_soc_init,       z.secure_soc_close,
              z.secure_soc_read,    z.secure_soc_write,      z.attribute_set_buffer,
              z.attribute_get_buffer, z.attribute_set_numeric_value, z.attribute_get_numeric_value,
              z.attribute_set_enum, z.attribute_get_enum,    z.attribute_set_callback,
              z.attribute_get_cert_info, z.get_cert_by_label};
}
