// ldap_lock.cpp - traced mutex helpers and the four process-wide locks.
// The global locks live until the process ends; the library has no global
// teardown.
#include "base/ldap_lock.h"

#include "base/trace.h"

#include <atomic>

#define LDAP_MODULE "libraries/libldap/ldap_lock"

namespace zldap {

int mutex_init(pthread_mutex_t *mutex, const char *module, int line)
{
    int rc = pthread_mutex_init(mutex, nullptr);
    if (rc == 0)
        LDAP_TRACE(TRC_MUTEX, "MUTEX %p %s %d\n", static_cast<void *>(mutex), module, line);
    return rc;
}

void trace_lock_failure(int rc, const char *module, int line)
{
    LDAP_TRACE(TRC_ERROR, "Error in pthread_mutex_lock at File %s, Line %d, errno %d\n", module, line, rc);
}

void trace_unlock_failure(int rc, const char *module, int line)
{
    LDAP_TRACE(TRC_ERROR, "Error in pthread_mutex_unlock at File %s, Line %d, errno %d\n", module, line, rc);
}

} // namespace zldap

namespace {

pthread_once_t g_global_once = PTHREAD_ONCE_INIT;
std::atomic<bool> g_global_once_started{false};

pthread_mutex_t g_plugin_mutex;
pthread_mutex_t g_defaults_mutex;
pthread_mutex_t g_ssl_mutex;
pthread_mutex_t g_xlate_mutex;

void make_global_locks()
{
    pthread_mutex_t *locks[] = {&g_plugin_mutex, &g_defaults_mutex, &g_ssl_mutex, &g_xlate_mutex};
    for (pthread_mutex_t *lock : locks) {
        int rc = pthread_mutex_init(lock, nullptr);
        if (rc != 0) {
            LDAP_TRACE(TRC_ERROR,
                       "ldap_init_all_mutex_once: pthread_mutex_init failed at File %s, Line %d, "
                       "errno %d\n",
                       LDAP_MODULE, __LINE__, rc);
            return;
        }
        LDAP_TRACE(TRC_MUTEX, "MUTEX %p %s %d\n", static_cast<void *>(lock), LDAP_MODULE, __LINE__);
    }
}

void lock_global(pthread_mutex_t *lock, int line)
{
    if (!g_global_once_started.load(std::memory_order_acquire))
        ldap_init_all_mutex_once();
    zldap::mutex_lock(lock, LDAP_MODULE, line);
}

void unlock_global(pthread_mutex_t *lock, int line) { zldap::mutex_unlock(lock, LDAP_MODULE, line); }

} // namespace

void ldap_init_all_mutex_once()
{
    pthread_once(&g_global_once, make_global_locks);
    g_global_once_started.store(true, std::memory_order_release);
}

void ldap_lock_plugin_mutex() { lock_global(&g_plugin_mutex, __LINE__); }
void ldap_unlock_plugin_mutex() { unlock_global(&g_plugin_mutex, __LINE__); }
void ldap_lock_defaults_mutex() { lock_global(&g_defaults_mutex, __LINE__); }
void ldap_unlock_defaults_mutex() { unlock_global(&g_defaults_mutex, __LINE__); }
void ldap_lock_ssl_mutex() { lock_global(&g_ssl_mutex, __LINE__); }
void ldap_unlock_ssl_mutex() { unlock_global(&g_ssl_mutex, __LINE__); }
void ldap_lock_xlate_mutex() { lock_global(&g_xlate_mutex, __LINE__); }
void ldap_unlock_xlate_mutex() { unlock_global(&g_xlate_mutex, __LINE__); }
