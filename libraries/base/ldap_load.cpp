// ldap_load.cpp - opening, resolving and closing run-time libraries. The
// record keeps the loader's handle; the pinned loader functions of
// glibc_baseline.h keep the shared object loadable on old systems.
#include "base/ldap_load.h"

#include "base/memory.h"
#include "base/trace.h"
#include "zor8ldap.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#define LDAP_MODULE "libraries/libldap/ldap_load"

struct ldap_dl {
    void *handle;
};

ldap_dl *ldap_dlopen(const char *file, int flags)
{
    auto *dl = static_cast<ldap_dl *>(zldap::mem_calloc(1, sizeof(ldap_dl)));
    if (!dl)
        return nullptr;
    int mode = flags ? flags : LDAP_DL_DEFAULT_FLAGS;
    dl->handle = dlopen(file, mode);
    if (!dl->handle) {
        const char *why = dlerror();
        LDAP_TRACE(TRC_ERROR, "dlopen(%s,%d) failed at %d in %s with error: %s\n", trace_str(file), mode,
                   __LINE__, LDAP_MODULE, trace_str(why));
        zldap::mem_free(dl);
        return nullptr;
    }
    return dl;
}

void *ldap_dlsym(ldap_dl *dl, const char *name)
{
    if (!dl || !name)
        return nullptr;
    return dlsym(dl->handle, name);
}

int ldap_dlclose(ldap_dl *dl)
{
    if (!dl)
        return LDAP_OTHER;
    dlclose(dl->handle);
    zldap::mem_free(dl);
    return LDAP_SUCCESS;
}

void ldap_dlrelease(ldap_dl *dl) { zldap::mem_free(dl); }

char *ldap_dl_file_name(const char *path)
{
    const char *dot = std::strrchr(path, '.');
    size_t stem = dot ? static_cast<size_t>(dot - path) : std::strlen(path);
    char *file = static_cast<char *>(zldap::mem_malloc(stem + sizeof ".so"));
    if (!file)
        return nullptr;
    std::memcpy(file, path, stem);
    std::memcpy(file + stem, ".so", sizeof ".so");
    return file;
}

char *ldap_dl_own_directory()
{
    Dl_info info;
    char canonical[PATH_MAX];
    if (dladdr(reinterpret_cast<void *>(&ldap_dl_own_directory), &info) == 0 || !info.dli_fname ||
        !realpath(info.dli_fname, canonical))
        return nullptr;
    const char *slash = std::strrchr(canonical, '/');
    return zldap::mem_strndup(canonical, static_cast<size_t>(slash - canonical) + 1);
}
