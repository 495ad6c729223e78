// Sessions shared by threads: each thread's own error, per-thread
// connection bindings, and unbind waiting for operations in flight. These
// tests also run under ThreadSanitizer.
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace {

TEST(SessionThreads, EachThreadReadsItsOwnError)
{
    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_NE(ld, nullptr);
    ASSERT_EQ(ldap_set_error(ld, LDAP_NO_SUCH_OBJECT, "o=example", "no entry"), 0);
    int other = -1;
    std::thread reader([&] {
        other = ldap_get_errno(ld);
        ldap_set_error(ld, LDAP_BUSY, nullptr, nullptr);
    });
    reader.join();
    EXPECT_EQ(other, 0);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

// Blocks a thread inside the guard until released.
class HeldOperation {
public:
    explicit HeldOperation(LDAP *ld) : ld_(ld)
    {
        thread_ = std::thread([this] {
            entered_rc_ = ldap_start_operation(ld_);
            {
                std::unique_lock<std::mutex> lock(m_);
                inside_ = true;
                cv_.notify_all();
                cv_.wait(lock, [this] { return release_; });
            }
            if (entered_rc_ == 0)
                ldap_end_operation(ld_);
        });
        std::unique_lock<std::mutex> lock(m_);
        cv_.wait(lock, [this] { return inside_; });
    }
    void Release()
    {
        std::lock_guard<std::mutex> lock(m_);
        release_ = true;
        cv_.notify_all();
    }
    ~HeldOperation()
    {
        Release();
        thread_.join();
    }
    int entered_rc() const { return entered_rc_; }

private:
    LDAP *ld_;
    std::thread thread_;
    std::mutex m_;
    std::condition_variable cv_;
    bool inside_ = false;
    bool release_ = false;
    int entered_rc_ = -1;
};

TEST(SessionThreads, UnbindWaitsForOperationsInsideTheGuard)
{
    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_NE(ld, nullptr);
    auto held = std::make_unique<HeldOperation>(ld);
    ASSERT_EQ(held->entered_rc(), 0);

    std::atomic<bool> unbound{false};
    std::thread unbinder([&] {
        EXPECT_EQ(ldap_unbind(ld), 0);
        unbound = true;
    });
    // Wait until the unbind has marked the handle closing; a new operation
    // is then turned away while the held one keeps the handle alive.
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

    held.reset(); // the operation leaves; the unbind may now finish
    unbinder.join();
    EXPECT_TRUE(unbound.load());
}

TEST(SessionThreads, BindingsArePerThread)
{
    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_NE(ld, nullptr);
    LDAPConn *other = ldap_lc_init("other", 389, 256);
    ASSERT_NE(other, nullptr);
    ld->ld_defconn->lconn_next = other;
    EXPECT_EQ(get_default_connection(ld), ld->ld_defconn);
    ASSERT_EQ(set_thread_connection(ld, other), 0);
    EXPECT_EQ(get_default_connection(ld), other);
    LDAPConn *seen_elsewhere = nullptr;
    std::thread([&] { seen_elsewhere = get_default_connection(ld); }).join();
    EXPECT_EQ(seen_elsewhere, ld->ld_defconn);
    ASSERT_EQ(set_thread_connection(ld, ld->ld_defconn), 0);
    EXPECT_EQ(get_default_connection(ld), ld->ld_defconn);
    ASSERT_EQ(set_thread_connection(ld, nullptr), 0);
    EXPECT_EQ(ld->ld_thread_conns, nullptr);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

} // namespace
