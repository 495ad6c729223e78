// Result code texts and each thread's own error state on a handle.
#include "alloc_faults.h"
#include "core/ldap_error.h"
#include "results/results.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"
#include "base/memory.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

class ErrorState : public testing::Test {
protected:
    void SetUp() override { ld = ldap_init("localhost", 389); ASSERT_NE(ld, nullptr); }
    void TearDown() override { EXPECT_EQ(ldap_unbind(ld), 0); }
    LDAP *ld = nullptr;
};

TEST(Err2String, KnownCodesHaveTheirTexts)
{
    struct {
        int code;
        const char *text;
    } const cases[] = {
        {0, "Success"},
        {4, "Sizelimit exceeded"},
        {32, "No such object"},
        {49, "Invalid credentials"},
        {81, "Can't contact LDAP server"},
        {89, "Bad parameter to an ldap routine"},
        {90, "Out of memory"},
        {96, "URL doesn't begin with ldap://"},
        {112, "ldap_ssl_client_init successfully called previously in this process."},
        {122, "The assertion filter evalues to false or undefined"},
        {129, "Could not obtain lock"},
        {137, "DNS Configuration file error"},
        {163, "No codeset point to map to"},
        {196, "Plugin function could not bind"},
        {208, "gss_init_sec_context failed"},
    };
    for (const auto &c : cases)
        EXPECT_STREQ(ldap_err2string(c.code), c.text) << c.code;
}

TEST(Err2String, UnknownCodesAreUnknownError)
{
    for (int code : {80, 15, 1000, -1, 209, 0x7FFFFFFF})
        EXPECT_STREQ(ldap_err2string(code), "Unknown error") << code;
}

TEST(Err2String, PasswordPolicyTexts)
{
    EXPECT_STREQ(ldap_pwdpolicy_err2string(0), "Success");
    EXPECT_STREQ(ldap_pwdpolicy_err2string(1), "Warning, time before expiration is %ld");
    EXPECT_STREQ(ldap_pwdpolicy_err2string(11), "Error, Password in History");
    EXPECT_STREQ(ldap_pwdpolicy_err2string(12), "Unknown error");
}

TEST_F(ErrorState, AThreadWithoutAnErrorReadsSuccess)
{
    EXPECT_EQ(ldap_get_errno(ld), 0);
    char *matched = reinterpret_cast<char *>(1);
    char *text = reinterpret_cast<char *>(1);
    EXPECT_EQ(ldap_get_error(ld, &matched, &text), 0);
    EXPECT_EQ(matched, nullptr);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(ldap_get_ext_error(ld), 0);
}

TEST_F(ErrorState, EverySetReplacesBothTexts)
{
    ASSERT_EQ(ldap_set_error_direct(ld, 32, "o=example", "gone"), 0);
    ASSERT_EQ(ldap_set_error_direct(ld, 50, nullptr, "denied"), 0);
    char *matched = nullptr;
    char *text = nullptr;
    EXPECT_EQ(ldap_get_error_direct(ld, &matched, &text), 50);
    EXPECT_EQ(matched, nullptr);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "denied");
    zldap::mem_free(text);
}

TEST_F(ErrorState, TheSecureReasonIsKeptApart)
{
    ASSERT_EQ(ldap_set_ext_error_direct(ld, 422), 0);
    ASSERT_EQ(ldap_set_error_direct(ld, 115, nullptr, nullptr), 0);
    EXPECT_EQ(ldap_get_ext_error(ld), 422);
    EXPECT_EQ(ldap_get_errno(ld), 115);
}

TEST_F(ErrorState, Result2ErrorWithoutAChainReportsTheLastCode)
{
    EXPECT_EQ(ldap_result2error(ld, nullptr, 0), LDAP_PARAM_ERROR) << "success reads as 89";
    ldap_set_error_direct(ld, LDAP_NO_SUCH_OBJECT, nullptr, nullptr);
    EXPECT_EQ(ldap_result2error(ld, nullptr, 0), LDAP_NO_SUCH_OBJECT);
}

TEST_F(ErrorState, PerrorPrintsTheCodeAndWhatCameWithIt)
{
    ldap_set_error_direct(ld, LDAP_NO_SUCH_OBJECT, "o=example", nullptr);
    testing::internal::CaptureStderr();
    ldap_perror(ld, "search");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "search: No such object\nsearch: matched: o=example\n");

    ldap_set_error_direct(ld, LDAP_INVALID_CREDENTIALS, "", "bad password");
    testing::internal::CaptureStderr();
    ldap_perror(ld, "bind");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "bind: Invalid credentials\nbind: additional info: bad password\n");
}

TEST(ErrorGuard, UnusableHandlesAreRefused)
{
    EXPECT_EQ(ldap_get_errno(nullptr), -1);
    EXPECT_EQ(ldap_get_ext_error(nullptr), -1);
    EXPECT_EQ(ldap_set_error(nullptr, 1, nullptr, nullptr), -1);
    alignas(LDAP) unsigned char junk[sizeof(LDAP)];
    std::memset(junk, 0x5A, sizeof junk);
    EXPECT_EQ(ldap_get_errno(reinterpret_cast<LDAP *>(junk)), -1);
    testing::internal::CaptureStderr();
    ldap_perror(nullptr, "x");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ErrorState, SettingAnErrorSurvivesEveryAllocationFailure)
{
    ldap_set_error_direct(ld, LDAP_BUSY, nullptr, nullptr); // the thread has a record
    zldap_test::ExpectEachAllocationFailure({
        [&] {
            int rc = ldap_set_error_direct(ld, 32, "o=example", "no such entry");
            // The record holds either the new error or the old one, never half of each.
            const ldap_error_record *r = ld->ld_errors;
            if (rc == 0) {
                EXPECT_EQ(r->ld_errno, 32);
                EXPECT_STREQ(r->ld_matched, "o=example");
                EXPECT_STREQ(r->ld_error, "no such entry");
            } else {
                EXPECT_EQ(r->ld_errno, LDAP_BUSY);
                EXPECT_EQ(r->ld_matched, nullptr);
                EXPECT_EQ(r->ld_error, nullptr);
            }
            ldap_set_error_direct(ld, LDAP_BUSY, nullptr, nullptr);
            return rc;
        },
        LDAP_NO_MEMORY,
        nullptr,
    });
}

} // namespace
