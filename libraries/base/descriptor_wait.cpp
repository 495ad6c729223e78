// descriptor_wait.cpp - descriptor waits with deadlines on the monotonic clock.
#include "base/descriptor_wait.h"

#include <cerrno>
#include <climits>
#include <ctime>
#include <poll.h>

namespace zldap {

int64_t monotonic_microseconds()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

int64_t deadline_after(const struct timeval *timeout)
{
    if (!timeout)
        return -1;
    constexpr int64_t kCapSeconds = INT64_MAX / 1000000 / 4;
    int64_t seconds = timeout->tv_sec < 0 ? 0 : timeout->tv_sec;
    if (seconds > kCapSeconds)
        seconds = kCapSeconds;
    int64_t total = seconds * 1000000 + static_cast<int64_t>(timeout->tv_usec);
    return monotonic_microseconds() + (total < 0 ? 0 : total);
}

int wait_for_descriptor(int fd, short events, int64_t deadline)
{
    for (;;) {
        int wait_ms = -1;
        if (deadline >= 0) {
            int64_t left = deadline - monotonic_microseconds();
            int64_t ms = left < 0 ? 0 : (left + 999) / 1000;
            wait_ms = ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
        }
        struct pollfd pfd = {fd, events, 0};
        int rc = poll(&pfd, 1, wait_ms);
        if (rc < 0 && errno == EINTR)
            continue;
        if (rc > 0 && (pfd.revents & POLLNVAL)) {
            errno = EBADF;
            return -1;
        }
        if (rc == 0 && deadline >= 0 && monotonic_microseconds() < deadline)
            continue; // woke early: the rounding of the remaining time
        return rc > 0 ? 1 : rc;
    }
}

} // namespace zldap
