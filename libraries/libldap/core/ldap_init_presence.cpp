// ldap_init_presence.cpp - the slots in which threads announce the handle
// they work in, the process-wide list of the slots, and their ordering.
#include "core/ldap_init_presence.h"

#include "base/fast_tls.h"
#include "base/ldap_lock.h"

#include <linux/membarrier.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#define LDAP_MODULE "libraries/libldap/ldap_init"

namespace {

// A thread's slot. Its thread writes `object` and closers read it, always
// through atomic accesses; `depth` and `listed` are the thread's own; the
// links belong to g_registry.
struct Slot {
    const void *object;
    uint32_t depth;
    bool listed;
    Slot *prev;
    Slot *next;
};

// Zero-initialised and trivial, so that reaching it checks no guard.
ZLDAP_FAST_TLS thread_local Slot t_slot;

// g_registry guards the list and is the mutex of g_absent, on which closers
// wait. It is a leaf lock: nothing else is taken while it is held.
pthread_mutex_t g_registry = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_absent = PTHREAD_COND_INITIALIZER;
Slot *g_slots;
// Closers waiting on g_absent: a thread that empties its slot while there
// are any wakes them.
uint32_t g_waiters;

pthread_once_t g_setup = PTHREAD_ONCE_INIT;
pthread_key_t g_exit_key; // its destructor takes an exiting thread's slot off the list
bool g_exit_key_made;
bool g_asymmetric; // membarrier is registered: threads need only a compiler barrier

void unlist(void *p)
{
    auto *slot = static_cast<Slot *>(p);
    LDAP_MUTEX_GUARD(guard, &g_registry);
    if (slot->prev)
        slot->prev->next = slot->next;
    else
        g_slots = slot->next;
    if (slot->next)
        slot->next->prev = slot->prev;
    slot->listed = false;
}

void setup()
{
    g_exit_key_made = pthread_key_create(&g_exit_key, unlist) == 0;
    long commands = syscall(SYS_membarrier, MEMBARRIER_CMD_QUERY, 0, 0);
    g_asymmetric = commands > 0 && (commands & MEMBARRIER_CMD_PRIVATE_EXPEDITED) != 0 &&
                   syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
}

// When the library is unloaded, exiting threads must no longer call into it.
__attribute__((destructor)) void drop_exit_key()
{
    if (g_exit_key_made)
        pthread_key_delete(g_exit_key);
}

// Once per thread: out of line, so that the fast paths save no registers.
__attribute__((noinline, cold)) bool list_slot(Slot *slot)
{
    pthread_once(&g_setup, setup);
    if (!g_exit_key_made || pthread_setspecific(g_exit_key, slot) != 0)
        return false;
    LDAP_MUTEX_GUARD(guard, &g_registry);
    if (!guard.locked()) {
        pthread_setspecific(g_exit_key, nullptr);
        return false;
    }
    slot->prev = nullptr;
    slot->next = g_slots;
    if (g_slots)
        g_slots->prev = slot;
    g_slots = slot;
    slot->listed = true;
    return true;
}

// A thread's write of its slot, ordered before its next read of the other
// side's word. Without membarrier the write and the reads on both sides are
// sequentially consistent, which orders them the same way.
inline void write_slot(Slot *slot, const void *object)
{
    if (g_asymmetric) {
        __atomic_store_n(&slot->object, object, __ATOMIC_RELEASE);
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
    } else {
        __atomic_store_n(&slot->object, object, __ATOMIC_SEQ_CST);
    }
}

// Between the closer's write and its reads of the slots: a full fence on
// every thread. Once registered, the expedited membarrier does not fail.
void fence_all_threads()
{
    if (g_asymmetric)
        syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
}

__attribute__((noinline, cold)) void wake_closers()
{
    LDAP_MUTEX_GUARD(guard, &g_registry);
    pthread_cond_broadcast(&g_absent);
}

void withdraw(Slot *slot)
{
    write_slot(slot, nullptr);
    if (__atomic_load_n(&g_waiters, __ATOMIC_SEQ_CST) != 0)
        wake_closers();
}

// Caller holds g_registry.
bool held_anywhere(const void *object)
{
    for (Slot *s = g_slots; s; s = s->next)
        if (__atomic_load_n(&s->object, __ATOMIC_SEQ_CST) == object)
            return true;
    return false;
}

} // namespace

namespace zldap {

PresenceEntry presence_enter(const void *object, const uint32_t *closing)
{
    Slot *slot = &t_slot;
    if (slot->depth != 0) {
        if (slot->object != object)
            return PresenceEntry::unavailable;
        if (__atomic_load_n(closing, __ATOMIC_ACQUIRE) != 0)
            return PresenceEntry::closing;
        slot->depth++;
        return PresenceEntry::entered;
    }
    if (!slot->listed && !list_slot(slot))
        return PresenceEntry::unavailable;
    write_slot(slot, object);
    if (__atomic_load_n(closing, __ATOMIC_SEQ_CST) != 0) {
        withdraw(slot);
        return PresenceEntry::closing;
    }
    slot->depth = 1;
    return PresenceEntry::entered;
}

bool presence_leave(const void *object)
{
    Slot *slot = &t_slot;
    if (slot->depth == 0 || slot->object != object)
        return false;
    if (--slot->depth == 0)
        withdraw(slot);
    return true;
}

int presence_wait_until_absent(const void *object)
{
    pthread_once(&g_setup, setup);
    int rc = LDAP_MUTEX_LOCK(&g_registry);
    if (rc != 0)
        return rc;
    __atomic_add_fetch(&g_waiters, 1, __ATOMIC_SEQ_CST);
    fence_all_threads();
    while (rc == 0 && held_anywhere(object))
        rc = pthread_cond_wait(&g_absent, &g_registry);
    __atomic_sub_fetch(&g_waiters, 1, __ATOMIC_RELAXED);
    LDAP_MUTEX_UNLOCK(&g_registry);
    return rc;
}

bool presence_inside(const void *object)
{
    LDAP_MUTEX_GUARD(guard, &g_registry);
    return guard.locked() && held_anywhere(object);
}

} // namespace zldap
