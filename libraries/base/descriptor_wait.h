// descriptor_wait.h - waiting for a descriptor to become readable or writable
// within a time-out. poll rather than select, so that descriptor numbers
// above FD_SETSIZE work; a signal never cuts a wait short.
#ifndef ZLDAP_DESCRIPTOR_WAIT_H
#define ZLDAP_DESCRIPTOR_WAIT_H

#include <cstdint>
#include <sys/time.h>

namespace zldap {

// Microseconds on the monotonic clock.
int64_t monotonic_microseconds();
// The deadline `timeout` from now on the monotonic clock; -1 (no deadline)
// for NULL. Negative time-outs count as none at all; huge ones are capped.
int64_t deadline_after(const struct timeval *timeout);
// Waits until fd has one of `events` (POLLIN, POLLOUT) or the deadline
// passes (-1: for ever). 1 ready, 0 timed out, -1 failed with errno.
int wait_for_descriptor(int fd, short events, int64_t deadline);

} // namespace zldap

#endif
