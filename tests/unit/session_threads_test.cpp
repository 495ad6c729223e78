// Sessions shared by threads: each thread's own error, and unbind waiting
// for operations in flight. These tests also run under ThreadSanitizer.
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

namespace {

TEST(SessionThreads, EachThreadReadsItsOwnError)
{
    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_EQ(ldap_set_error(ld, LDAP_NO_SUCH_OBJECT, "o=example", "no entry"), 0);
    std::thread([&] {
        EXPECT_EQ(ldap_get_errno(ld), 0);
        ldap_set_error(ld, LDAP_BUSY, nullptr, nullptr);
    }).join();
    EXPECT_EQ(ldap_get_errno(ld), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST(SessionThreads, UnbindWaitsForOperationsInsideTheGuard)
{
    LDAP *ld = ldap_init("localhost", 0);
    std::promise<void> inside, leave;
    std::thread operation([&] {
        EXPECT_EQ(ldap_start_operation(ld), 0);
        inside.set_value();
        leave.get_future().wait();
        ldap_end_operation(ld);
    });
    inside.get_future().wait();
    std::atomic<bool> unbound{false};
    std::thread unbinder([&] {
        EXPECT_EQ(ldap_unbind(ld), 0);
        unbound = true;
    });
    // Once the unbind has marked the handle closing, a new operation is
    // turned away while the one inside keeps the handle alive.
    int rc = 0;
    for (int i = 0; i < 2000 && rc == 0; i++) {
        rc = ldap_start_operation(ld);
        if (rc == 0) {
            ldap_end_operation(ld);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    EXPECT_EQ(rc, LDAP_PARAM_ERROR);
    EXPECT_FALSE(unbound.load()) << "unbind returned while an operation was inside";
    leave.set_value();
    operation.join();
    unbinder.join();
    EXPECT_TRUE(unbound.load());
}

} // namespace
