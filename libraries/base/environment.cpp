// environment.cpp - environment accessors. Every getenv and putenv of the
// library runs under the system-call mutex, which also serialises
// getaddrinfo; values are copied before the mutex is released.
#include "base/environment.h"

#include "base/memory.h"
#include "base/trace.h"
#include "zor8ldap.h"

#include <atomic>
#include <cctype>
#include <cstddef>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

#define LDAP_MODULE "libraries/libldap/environment"

namespace {

pthread_mutex_t g_syscall_mutex = PTHREAD_MUTEX_INITIALIZER; // usable before any set-up
pthread_once_t g_syscall_once = PTHREAD_ONCE_INIT;

// The mutex's creation line, written at its first traced use.
void announce_syscall_mutex()
{
    LDAP_TRACE(TRC_MUTEX, "MUTEX %p %s %d\n", static_cast<void *>(&g_syscall_mutex), LDAP_MODULE,
               __LINE__);
}

// Upper case, backslashes as slashes: the form both sides are compared in.
char fold_element_char(char c)
{
    return (c == '\\') ? '/' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}

// Whether text starts with value, both folded.
bool starts_with_folded(const char *text, const char *value)
{
    for (; *value; ++text, ++value)
        if (!*text || fold_element_char(*text) != fold_element_char(*value))
            return false;
    return true;
}

// Texts handed to putenv belong to the environment for the rest of the
// process. They are chained here so that they stay reachable even after
// someone else replaces the variable.
struct KeptText {
    KeptText *next;
    char text[1];
};
std::atomic<KeptText *> g_kept_texts{nullptr};

void keep_for_process(KeptText *kept)
{
    kept->next = g_kept_texts.load(std::memory_order_relaxed);
    while (!g_kept_texts.compare_exchange_weak(kept->next, kept, std::memory_order_release,
                                               std::memory_order_relaxed)) {
    }
}

} // namespace

int lock_syscall_mutex()
{
    pthread_once(&g_syscall_once, announce_syscall_mutex);
    int rc = pthread_mutex_lock(&g_syscall_mutex);
    if (rc != 0)
        LDAP_TRACE(TRC_ERROR, "lock_syscall_mutex: Failed to lock. errno=%d\n", rc);
    return rc;
}

int unlock_syscall_mutex()
{
    int rc = pthread_mutex_unlock(&g_syscall_mutex);
    if (rc != 0)
        LDAP_TRACE(TRC_ERROR, "unlock_syscall_mutex: Failed to lock. errno=%d\n", rc);
    return rc;
}

char *ldap_getenv(const char *name)
{
    if (!name || !*name) {
        LDAP_TRACE(TRC_ERROR, "ldap_getenv: varname == %s\n", name ? "\"\"" : "NULL");
        return nullptr;
    }
    if (lock_syscall_mutex() != 0) {
        LDAP_TRACE(TRC_API, "ldap_getenv: %s=%s\n", name, "NULL");
        return nullptr;
    }
    const char *value = std::getenv(name);
    char *copy = value ? zldap::mem_strdup(value) : nullptr;
    unlock_syscall_mutex();
    // Traced once the mutex is released: a trace line may read the
    // environment itself (the time-stamp format).
    if (value && !copy)
        LDAP_TRACE(TRC_ERROR, "Error - ldap_getenv: strdup failed for %s value\n", name);
    LDAP_TRACE(TRC_API, "ldap_getenv: %s=%s\n", name, trace_str(copy, "NULL"));
    return copy;
}

bool ldap_getenv_untraced(const char *name, char *buf, size_t size)
{
    if (size == 0 || pthread_mutex_lock(&g_syscall_mutex) != 0)
        return false;
    const char *value = std::getenv(name);
    if (value) {
        std::strncpy(buf, value, size - 1);
        buf[size - 1] = '\0';
    }
    pthread_mutex_unlock(&g_syscall_mutex);
    return value != nullptr;
}

int ldap_chkenv(const char *name)
{
    if (!name || !*name) {
        LDAP_TRACE(TRC_ERROR, "ldap_chkenv: varname == %s\n", name ? "\"\"" : "NULL");
        return 0;
    }
    int result = 0;
    if (lock_syscall_mutex() == 0) {
        const char *value = std::getenv(name);
        if (value)
            result = static_cast<int>(std::strlen(value)) + 1;
        unlock_syscall_mutex();
    }
    LDAP_TRACE(TRC_API, "ldap_chkenv: environment variable \"%s\" %s\n", name,
               result ? "is set" : "is NOT set");
    return result;
}

int ldap_putenv(char *text)
{
    if (!text || !*text) {
        LDAP_TRACE(TRC_ERROR, "Error - ldap_putenv: invalid input\n");
        return 0;
    }
    if (lock_syscall_mutex() != 0) {
        LDAP_TRACE(TRC_ERROR, "Error - ldap_putenv: lock failed\n");
        return 0;
    }
    int rc = putenv(text);
    int saved = errno;
    unlock_syscall_mutex();
    if (rc == -1)
        LDAP_TRACE(TRC_ERROR, "Error - ldap_putenv: putenv failed for %s, errno=%d\n", text, saved);
    else
        LDAP_TRACE(TRC_API, "ldap_putenv: %s\n", text);
    return rc;
}

bool ldap_env_list_contains(const char *list, const char *value, char separator)
{
    if (!list || !value || !*value)
        return false;
    char sep = fold_element_char(separator);
    size_t value_len = std::strlen(value);
    for (const char *at = list; *at; ++at) {
        if (!starts_with_folded(at, value))
            continue;
        char next = fold_element_char(at[value_len]);
        if (next != '\0' && next != sep && !std::isspace(static_cast<unsigned char>(next)))
            return false; // the first occurrence that runs on decides: absent
        if (at == list || fold_element_char(at[-1]) == sep)
            return true;
    }
    return false;
}

int ldap_change_env_var(int mode, const char *name, char separator, const char *value)
{
    LDAP_TRACE(TRC_API, "ldap_change_env_var: env=%s\n", trace_str(name, "NULL"));
    if (!name || !*name || !value || !*value)
        return LDAP_PARAM_ERROR;

    char *current = ldap_getenv(name);
    if (current && ldap_env_list_contains(current, value, separator)) {
        zldap::mem_free(current);
        return 0;
    }
    bool has_current = current && *current;
    size_t size = std::strlen(name) + std::strlen(value) + 3 + (has_current ? std::strlen(current) : 0);
    auto *kept = static_cast<KeptText *>(zldap::mem_malloc(offsetof(KeptText, text) + size));
    if (!kept) {
        zldap::mem_free(current);
        return LDAP_NO_MEMORY;
    }
    char *text = kept->text;
    if (!has_current)
        std::snprintf(text, size, "%s=%s", name, value);
    else if (mode == 1)
        std::snprintf(text, size, "%s=%s%c%s", name, current, separator, value);
    else
        std::snprintf(text, size, "%s=%s%c%s", name, value, separator, current);
    zldap::mem_free(current);
    if (ldap_putenv(text) != 0) {
        zldap::mem_free(kept);
        return LDAP_PARAM_ERROR;
    }
    keep_for_process(kept);
    return 0;
}
