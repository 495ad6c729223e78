// cyrus_locks.cpp - real locks for Cyrus SASL. Cyrus's own are empty stubs
// unless the program gives it some, yet binds on several threads share its
// mechanisms' state (DIGEST-MD5's cache of earlier authentications).
#include "sasl_cyrus.h"

#include <cstdlib>
#include <pthread.h>

namespace sasl_cyrus {

namespace {

// Cyrus takes a NULL lock as an allocation failure.
void *lock_new()
{
    auto *mutex = static_cast<pthread_mutex_t *>(std::malloc(sizeof(pthread_mutex_t)));
    if (mutex && pthread_mutex_init(mutex, nullptr) != 0) {
        std::free(mutex);
        return nullptr;
    }
    return mutex;
}

int lock(void *mutex) { return pthread_mutex_lock(static_cast<pthread_mutex_t *>(mutex)) == 0 ? SASL_OK : SASL_FAIL; }

int unlock(void *mutex)
{
    return pthread_mutex_unlock(static_cast<pthread_mutex_t *>(mutex)) == 0 ? SASL_OK : SASL_FAIL;
}

void lock_free(void *mutex)
{
    pthread_mutex_destroy(static_cast<pthread_mutex_t *>(mutex));
    std::free(mutex);
}

} // namespace

// Cyrus ignores the call once it has been set up, by this plug-in or by
// another user of it in the process, whose locks then stay.
void use_thread_locks() { sasl_set_mutex(lock_new, lock, unlock, lock_free); }

} // namespace sasl_cyrus
