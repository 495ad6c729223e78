// ldap_init_presence.h - the operation guard's fast way in and out: each
// thread announces in a slot of its own the handle it is working in, so
// that entering and leaving take no locked instruction and no shared write.
//
// Entering stores the handle in the thread's slot and then reads the
// handle's closing flag; unbind sets the flag and then reads every slot.
// Each side writes one word and then reads the other's, which needs a full
// fence on both sides. The threads' side is only a compiler barrier: the
// unbinding side runs membarrier(2), which puts a full fence on every
// running thread of the process, so a thread either has its slot seen or
// sees the flag. Where the kernel has no membarrier, both sides write and
// read these words sequentially consistent instead.
#ifndef ZLDAP_LDAP_INIT_PRESENCE_H
#define ZLDAP_LDAP_INIT_PRESENCE_H

#include <cstdint>

namespace zldap {

enum class PresenceEntry {
    entered,     // announced (or one level deeper in the same object)
    closing,     // *closing read non-zero: nothing announced
    unavailable, // the thread's slot holds another object or cannot be listed
};

// Announces the calling thread inside `object` unless *closing, read after
// the announcement, is non-zero. Entries into the same object nest.
PresenceEntry presence_enter(const void *object, const uint32_t *closing);

// Ends one entry of the calling thread into `object`; false when the
// thread has none (it was counted in some other way).
bool presence_leave(const void *object);

// For the closer, after it has set the flag that presence_enter reads
// (with a sequentially consistent write):
// returns 0 once no thread is inside `object`, or the error of the lock or
// the wait. The caller holds no lock that a thread inside might need.
int presence_wait_until_absent(const void *object);

// Whether some thread is inside `object` now.
bool presence_inside(const void *object);

} // namespace zldap

#endif
