// Session creation, the operation guard and teardown while operations run.
#include "alloc_faults.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_init.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"
#include "base/memory.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <unistd.h>

using zldap_test::ScopedEnv;

namespace {

TEST(Init, PortsAndDefaults)
{
    EXPECT_EQ(ldap_init("localhost", -1), nullptr);
    struct {
        int given;
        uint32_t kept;
    } const ports[] = {{0, 389}, {389, 389}, {636, 636}, {1389, 1389}};
    for (const auto &p : ports) {
        LDAP *ld = ldap_init("localhost", p.given);
        ASSERT_NE(ld, nullptr);
        EXPECT_EQ(ld->ld_defport, p.kept);
        EXPECT_EQ(ld->ld_defconn->lconn_port, p.kept);
        EXPECT_EQ(ld->ld_defconn, ld->ld_servers);
        EXPECT_EQ(ld->ld_defconn->lconn_ld, ld);
        EXPECT_EQ(ld->ld_defconn->lconn_sb.sd, -1);
        EXPECT_EQ(ld->ld_version, 3);
        EXPECT_EQ(ld->ld_hoplimit, 10);
        EXPECT_EQ(ld->ld_no_xlate, 1u);
        EXPECT_EQ(ld->ld_options & 0x6, 0x2u);
        EXPECT_EQ(ldap_unbind(ld), 0);
    }
}

TEST(Init, HostListsAreKeptAsGiven)
{
    LDAP *ld = ldap_init("first.example  second.example:1389 [::1]:636", 389);
    ASSERT_NE(ld, nullptr);
    EXPECT_STREQ(ld->ld_defhost, "first.example  second.example:1389 [::1]:636");
    EXPECT_STREQ(ld->ld_defconn->lconn_hosts, ld->ld_defhost);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST(Init, NullHostMeansThisMachine)
{
    char name[300] = {};
    ASSERT_EQ(gethostname(name, sizeof name - 1), 0);
    LDAP *ld = ldap_init(nullptr, 0);
    ASSERT_NE(ld, nullptr);
    EXPECT_STREQ(ld->ld_defhost, name);
    EXPECT_STRNE(ld->ld_defhost, "localhost");
    EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST(Init, EmptyHostIsRefused) { EXPECT_EQ(ldap_init("", 389), nullptr); }

TEST(Init, UrlHostArgumentsNameTheirHostAndPort)
{
    struct {
        const char *url;
        int port;
        const char *host;
        uint32_t kept_port;
    } const cases[] = {
        {"LDAP://server:1389", 0, "server", 1389},
        {"ldap://server/o=x", 777, "server", 389}, // the URL's default port wins over the argument
        {"ldaps://secure.example", 0, "secure.example", 636},
        {"<URL:ldap://[::1]:1390/>", 0, "::1", 1390},
    };
    for (const auto &c : cases) {
        LDAP *ld = ldap_init(c.url, c.port);
        ASSERT_NE(ld, nullptr) << c.url;
        EXPECT_STREQ(ld->ld_defhost, c.host) << c.url;
        EXPECT_EQ(ld->ld_defport, c.kept_port) << c.url;
        EXPECT_EQ(ldap_unbind(ld), 0);
    }
    // Without a host a URL would need server location.
    EXPECT_EQ(ldap_init("ldap:///o=example", 0), nullptr);
    EXPECT_EQ(ldap_init("ldap://h:12x/", 0), nullptr) << "an unparsable URL";
}

TEST(Init, UlxdirIsSetFromTheLibraryHome)
{
    {
        ScopedEnv ulx("ULXDIR", std::nullopt);
        ScopedEnv home("QVA_LDAP_HOME", "/srv/ldaphome");
        LDAP *ld = ldap_init("localhost", 0);
        ASSERT_NE(ld, nullptr);
        ldap_unbind(ld);
        ASSERT_NE(std::getenv("ULXDIR"), nullptr);
        EXPECT_STREQ(std::getenv("ULXDIR"), "/srv/ldaphome");
    }
    {
        ScopedEnv ulx("ULXDIR", std::nullopt);
        ScopedEnv home("QVA_LDAP_HOME", std::nullopt);
        LDAP *ld = ldap_init("localhost", 0);
        ASSERT_NE(ld, nullptr);
        ldap_unbind(ld);
        EXPECT_STREQ(std::getenv("ULXDIR"), "/opt/orn/ldap/V6.3.1");
    }
    ScopedEnv ulx("ULXDIR", "/kept");
    LDAP *ld = ldap_init("localhost", 0);
    ldap_unbind(ld);
    EXPECT_STREQ(std::getenv("ULXDIR"), "/kept");
}

TEST(Init, EveryAllocationFailureGivesNullAndLeaksNothing)
{
    for (const char *host : {"localhost", static_cast<const char *>(nullptr)}) {
        long n = zldap_test::ExpectEachAllocationFailure({
            [&] {
                LDAP *ld = ldap_init(host, 0);
                if (!ld)
                    return LDAP_NO_MEMORY;
                return ldap_unbind(ld);
            },
            LDAP_NO_MEMORY, nullptr});
        EXPECT_GE(n, 3);
    }
}

TEST(Guard, RefusesNullForeignAndClosingHandles)
{
    EXPECT_EQ(ldap_start_operation(nullptr), LDAP_PARAM_ERROR);
    alignas(LDAP) unsigned char junk[sizeof(LDAP)];
    std::memset(junk, 0, sizeof junk);
    std::memcpy(junk, "LDAP HD", 7);
    EXPECT_EQ(ldap_start_operation(reinterpret_cast<LDAP *>(junk)), LDAP_PARAM_ERROR);
    ldap_end_operation(reinterpret_cast<LDAP *>(junk)); // does nothing

    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_NE(ld, nullptr);
    ASSERT_EQ(ldap_start_operation(ld), 0);
    EXPECT_EQ(ld->ld_op_count, 1u);
    ldap_end_operation(ld);
    ldap_end_operation(ld); // never below zero
    EXPECT_EQ(ld->ld_op_count, 0u);
    ld->ld_unbind_started = 1;
    EXPECT_EQ(ldap_start_operation(ld), LDAP_PARAM_ERROR);
    ld->ld_unbind_started = 0;
    EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST(Unbind, RefusesUnusableHandles)
{
    EXPECT_EQ(ldap_unbind(nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_unbind_s(nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_unbind_ext(nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
    alignas(LDAP) unsigned char junk[sizeof(LDAP)] = {};
    EXPECT_EQ(ldap_unbind(reinterpret_cast<LDAP *>(junk)), LDAP_PARAM_ERROR);
}

TEST(Unbind, AliasesReleaseTheHandle)
{
    LDAP *a = ldap_init("localhost", 0);
    LDAP *b = ldap_init("localhost", 0);
    ASSERT_TRUE(a && b);
    LDAPControl *none[] = {nullptr};
    EXPECT_EQ(ldap_unbind_s(a), 0);
    EXPECT_EQ(ldap_unbind_ext(b, none, none), 0);
}

TEST(Unbind, ReleasesEverythingTheHandleOwns)
{
    // The sanitizer build proves the release: nothing here may leak.
    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_NE(ld, nullptr);
    LDAPControl ctrl{const_cast<char *>("1.2.3"), {1, const_cast<char *>("x")}, 0};
    LDAPControl *list[] = {&ctrl, nullptr};
    struct timeval tv {3, 0};
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, list), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CLIENT_CONTROLS, list), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CONNECT_TIMEOUT, &tv), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CIPHER_SPECS, "0A"), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CIPHER_SPECS_TLS12, "x"), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SECURE_PROTOCOLS, "y"), 0);
    ldap_set_error_direct(ld, 32, "o=x", "text");
    std::thread([ld] { ldap_set_error_direct(ld, 50, "o=y", nullptr); }).join();
    LDAPConn *referral = ldap_lc_init("other", 389, 256);
    ASSERT_NE(referral, nullptr);
    ld->ld_defconn->lconn_next = referral;
    ASSERT_EQ(set_thread_connection(ld, referral), 0);
    EXPECT_EQ(get_default_connection(ld), referral);

    zldap::mem_tracking_start(0);
    EXPECT_EQ(ldap_unbind(ld), 0);
    zldap::AllocCounters freed = zldap::mem_tracking_stop();
    EXPECT_EQ(freed.allocations, 0) << "teardown allocates nothing";
}

} // namespace
