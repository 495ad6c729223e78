// Each thread's own error state on a handle, its report on standard error,
// and the text of codes the table does not know.
#include "core/ldap_error.h"
#include "results/results.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"
#include "base/memory.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(Err2String, UnknownCodesAreUnknownError)
{
    for (int code : {80, 15, 1000, -1, 209, 0x7FFFFFFF})
        EXPECT_STREQ(ldap_err2string(code), "Unknown error") << code;
    EXPECT_STREQ(ldap_pwdpolicy_err2string(12), "Unknown error");
}

TEST(ErrorState, EachThreadHasItsOwn)
{
    LDAP *ld = ldap_init("localhost", 389);
    ASSERT_EQ(ldap_set_error(ld, 32, "o=example", "gone"), 0);
    ASSERT_EQ(ldap_set_error_direct(ld, 50, nullptr, "denied"), 0) << "a set replaces both texts";
    ASSERT_EQ(ldap_set_ext_error_direct(ld, 422), 0);
    std::thread([ld] {
        char *matched = reinterpret_cast<char *>(1), *text = matched;
        EXPECT_EQ(ldap_get_error(ld, &matched, &text), 0) << "a thread without an error reads success";
        EXPECT_TRUE(!matched && !text && ldap_get_ext_error(ld) == 0);
        ldap_set_error_direct(ld, LDAP_BUSY, nullptr, nullptr);
    }).join();
    char *matched = nullptr, *text = nullptr;
    EXPECT_EQ(ldap_get_error(ld, &matched, &text), 50);
    EXPECT_EQ(matched, nullptr);
    EXPECT_STREQ(text, "denied");
    zldap::mem_free(text);
    EXPECT_EQ(ldap_get_ext_error(ld), 422);
    EXPECT_EQ(ldap_result2error(ld, nullptr, 0), 50) << "no chain: the last code";
    ldap_set_error_direct(ld, 0, nullptr, nullptr);
    EXPECT_EQ(ldap_result2error(ld, nullptr, 0), LDAP_PARAM_ERROR) << "success reads as 89";
    EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST(ErrorState, PerrorPrintsTheCodeAndWhatCameWithIt)
{
    LDAP *ld = ldap_init("localhost", 389);
    ldap_set_error_direct(ld, LDAP_NO_SUCH_OBJECT, "o=example", nullptr);
    testing::internal::CaptureStderr();
    ldap_perror(ld, "search");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "search: No such object\nsearch: matched: o=example\n");
    ldap_set_error_direct(ld, LDAP_INVALID_CREDENTIALS, "", "bad password");
    testing::internal::CaptureStderr();
    ldap_perror(ld, "bind");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "bind: Invalid credentials\nbind: additional info: bad password\n");
    EXPECT_EQ(ldap_unbind(ld), 0);
}

} // namespace
