// ldap_lock.h - traced mutex helpers used throughout the library, and the
// four process-wide locks (plug-ins, global defaults, secure toolkit,
// code-set translation).
#ifndef ZLDAP_LDAP_LOCK_H
#define ZLDAP_LDAP_LOCK_H

#include <pthread.h>

namespace zldap {

// Each returns 0 or the pthread error, and traces a failure with the
// module name and line of the caller. Locking and unlocking are inline:
// the trace costs a call only when the pthread call fails.
int mutex_init(pthread_mutex_t *mutex, const char *module, int line);
void trace_lock_failure(int rc, const char *module, int line);
void trace_unlock_failure(int rc, const char *module, int line);

inline int mutex_lock(pthread_mutex_t *mutex, const char *module, int line)
{
    int rc = pthread_mutex_lock(mutex);
    if (__builtin_expect(rc != 0, 0))
        trace_lock_failure(rc, module, line);
    return rc;
}

inline int mutex_unlock(pthread_mutex_t *mutex, const char *module, int line)
{
    int rc = pthread_mutex_unlock(mutex);
    if (__builtin_expect(rc != 0, 0))
        trace_unlock_failure(rc, module, line);
    return rc;
}

// Holds a mutex for one scope; locked() tells whether taking it succeeded.
// unlock() and relock() let a scope give the mutex up for a while (for
// example around a socket read).
class MutexGuard {
public:
    MutexGuard(pthread_mutex_t *mutex, const char *module, int line)
        : mutex_(mutex), module_(module), line_(line), held_(mutex_lock(mutex, module, line) == 0)
    {
    }
    ~MutexGuard() { unlock(); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

    bool locked() const { return held_; }
    void unlock()
    {
        if (held_)
            mutex_unlock(mutex_, module_, line_);
        held_ = false;
    }
    bool relock()
    {
        if (!held_)
            held_ = mutex_lock(mutex_, module_, line_) == 0;
        return held_;
    }

private:
    pthread_mutex_t *mutex_;
    const char *module_;
    int line_;
    bool held_;
};

} // namespace zldap

// Every file that takes a lock defines LDAP_MODULE as its own module path.
#define LDAP_MUTEX_INIT(m) zldap::mutex_init((m), LDAP_MODULE, __LINE__)
#define LDAP_MUTEX_LOCK(m) zldap::mutex_lock((m), LDAP_MODULE, __LINE__)
#define LDAP_MUTEX_UNLOCK(m) zldap::mutex_unlock((m), LDAP_MODULE, __LINE__)
#define LDAP_MUTEX_GUARD(name, m) zldap::MutexGuard name((m), LDAP_MODULE, __LINE__)

// The process-wide locks (plug-in registry, defaults, secure toolkit,
// translation), all made once on first use. A failing lock or unlock is
// traced and otherwise ignored.
void ldap_init_all_mutex_once();
void ldap_lock_plugin_mutex();
void ldap_unlock_plugin_mutex();
void ldap_lock_defaults_mutex();
void ldap_unlock_defaults_mutex();
void ldap_lock_ssl_mutex();
void ldap_unlock_ssl_mutex();
void ldap_lock_xlate_mutex();
void ldap_unlock_xlate_mutex();

#endif
