// Session creation from hosts, URLs and ports, the library home in the
// environment, each thread's own error state on a handle, and teardown of
// everything a handle owns.
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "results/results.h"
#include "session/ldap_init.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"
#include "base/memory.h"
#include "dns_test_support.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <thread>
#include <unistd.h>

using zldap_test::ScopedEnv;

namespace {

TEST(Init, HostsUrlsAndPorts)
{
    char name[300] = {};
    ASSERT_EQ(gethostname(name, sizeof name - 1), 0);
    struct {
        const char *host;
        int port;
        const char *kept_host; // NULL: refused
        uint32_t kept_port;
    } const cases[] = {
        {"localhost", 0, "localhost", 389}, {"localhost", 1389, "localhost", 1389}, {"localhost", -1, nullptr, 0},
        {"first.example  second.example:1389 [::1]:636", 389, "first.example  second.example:1389 [::1]:636", 389},
        {nullptr, 0, name, 389}, // this machine
        {"", 389, nullptr, 0},
        {"LDAP://server:1389", 0, "server", 1389},
        {"ldap://server/o=x", 777, "server", 389}, // the URL's default port wins over the argument
        {"ldaps://secure.example", 0, "secure.example", 636},
        {"<URL:ldap://[::1]:1390/>", 0, "::1", 1390},
        {"ldap:///o=example", 0, nullptr, 0}, // server location finds no server
        {"ldap://h:12x/", 0, nullptr, 0},
        {"localhost", 65925, nullptr, 0}, // would reach the socket as 389
        {"ldap://server:65925", 0, nullptr, 0},
        {"ldap://h%zzevil.example/", 0, nullptr, 0}, // not the host "h"
    };
    zldap_test::ScopedLocateFiles files; // no resolver file: server location asks no one
    for (const auto &c : cases) {
        LDAP *ld = ldap_init(c.host, c.port);
        SCOPED_TRACE(c.host ? c.host : "NULL");
        ASSERT_EQ(ld != nullptr, c.kept_host != nullptr);
        if (ld) {
            EXPECT_STREQ(ld->ld_defconn->lconn_hosts, c.kept_host);
            EXPECT_EQ(ld->ld_defconn->lconn_port, c.kept_port);
            EXPECT_EQ(ldap_unbind(ld), 0);
        }
    }
}

TEST(Init, UlxdirIsSetFromTheLibraryHome)
{
    struct {
        const char *ulxdir, *home, *expected;
    } const cases[] = {
        {nullptr, "/srv/ldaphome", "/srv/ldaphome"}, {nullptr, nullptr, "/opt/orn/ldap/V6.3.1"}, {"/kept", "/x", "/kept"}};
    for (const auto &c : cases) {
        auto value = [](const char *v) { return v ? std::optional<std::string>(v) : std::nullopt; };
        ScopedEnv ulx("ULXDIR", value(c.ulxdir));
        ScopedEnv home("QVA_LDAP_HOME", value(c.home));
        EXPECT_EQ(ldap_unbind(ldap_init("localhost", 0)), 0);
        EXPECT_STREQ(std::getenv("ULXDIR"), c.expected);
    }
}

TEST(Unbind, ReleasesEverythingTheHandleOwns)
{
    // The first handle of the process settles what stays for good (the
    // trace set-up, ULXDIR's text); from the second on, nothing may stay.
    EXPECT_EQ(ldap_unbind(ldap_init("localhost", 0)), 0);
    zldap::mem_tracking_start(0);
    LDAP *ld = ldap_init("localhost", 0);
    LDAPControl ctrl{const_cast<char *>("1.2.3"), {1, const_cast<char *>("x")}, 0}, *list[] = {&ctrl, nullptr};
    struct timeval tv {3, 0};
    const std::pair<int, const void *> options[] = {
        {LDAP_OPT_SERVER_CONTROLS, list}, {LDAP_OPT_CLIENT_CONTROLS, list}, {LDAP_OPT_CONNECT_TIMEOUT, &tv},
        {LDAP_OPT_CIPHER_SPECS, "0A"}, {LDAP_OPT_CIPHER_SPECS_TLS12, "x"}, {LDAP_OPT_SECURE_PROTOCOLS, "y"}};
    for (const auto &[option, value] : options)
        ASSERT_EQ(ldap_set_option(ld, option, value), 0);
    ldap_set_error_direct(ld, 32, "o=x", "text");
    std::thread([ld] { ldap_set_error_direct(ld, 50, "o=y", nullptr); }).join();
    LDAPConn *referral = ldap_lc_init("other", 389, 256);
    ld->ld_defconn->lconn_next = referral;
    ASSERT_EQ(set_thread_connection(ld, referral), 0);
    EXPECT_EQ(ldap_unbind(ld), 0);
    EXPECT_EQ(zldap::mem_tracking_stop().live, 0);
    // The aliases do the same.
    EXPECT_EQ(ldap_unbind_s(ldap_init("localhost", 0)), 0);
    EXPECT_EQ(ldap_unbind_ext(ldap_init("localhost", 0), nullptr, nullptr), 0);
}

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
