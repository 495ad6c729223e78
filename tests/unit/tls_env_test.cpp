// tls_env_test.cpp - the toolkit environment against the recording toolkit
// of tests/toolkit_recorder, which this program finds beside itself: the
// calls each initialisation makes, in order, and what every refused call
// leads to. Toolkit state lasts for the process, so each row runs in a
// fresh one.
#include "core/ldap_session.h"
#include "fresh_process.h"
#include "tls/ldap_ssl_env.h"
#include "zor8ldap_api.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <dlfcn.h>
#include <string>

namespace {

std::string RecorderLog()
{
    auto log = reinterpret_cast<const char *(*)()>(dlsym(RTLD_DEFAULT, "zor_recorder_log"));
    return log ? log() : "(not loaded)";
}

#define HEAD "open;302=43200;407=518;415=545;"
#define KDB HEAD "201=/k/db.kdb;"
#define ALL KDB "202=pw;800;init;"
#define DEFAULT_KDB "/opt/orn/ldap/V6.3.1/etc/ldapkey."

const LDAPPkcs11Info kToken = {"/p11.so", "tok", "tpw", 1, 7};
const LDAPPkcs11Info kNoStorage = {"/p11.so", nullptr, nullptr, 0, 0};
const LDAPPkcs11Info kNoLabel = {"/p11.so", nullptr, "tpw", 1, 0};
const LDAPPkcs11Info kBadStorage = {"/p11.so", nullptr, nullptr, 2, 0};
const LDAPPkcs11Info kBadAccelerator = {"/p11.so", nullptr, nullptr, 0, 8};

struct Row {
    const char *name;
    const char *log; // every call the toolkit saw
    int rc = 0;
    int reason = 0;
    const char *env = nullptr; // "NAME=value"
    const char *kdb = "/k/db.kdb";
    const char *password = "pw";
    int timeout = 0;
    int fips = 0;
    const char *suiteb = nullptr;
    const char *sigalg = nullptr;
    const LDAPPkcs11Info *pkcs11 = nullptr;
    bool client = false; // the client form instead of the environment form
};

const Row kRows[] = {
    {.name = "Password", .log = ALL},
    {.name = "DefaultKdbAndStash",
     .log = "open;302=86400;407=518;415=545;201=" DEFAULT_KDB "kdb;get 201;204=" DEFAULT_KDB "sth;800;init;",
     .kdb = nullptr, .password = nullptr, .timeout = 86400},
    {.name = "StashNameCutAtLastDot", .log = HEAD "201=/a.b/db;get 201;204=/a.sth;800;init;", .kdb = "/a.b/db",
     .password = ""},
    {.name = "TimeoutTooLong", .log = "open;", .rc = 115, .timeout = 86401, .client = true},
    {.name = "OpenRefused", .log = "open;close;", .rc = 113, .reason = 5, .env = "ZOR_RECORDER_FAIL=open=5"},
    {.name = "TimeoutRefused", .log = "open;302=43200;", .rc = 115, .reason = 705,
     .env = "ZOR_RECORDER_FAIL=302=43200=705"},
    {.name = "TlsRefused", .log = "open;302=43200;407=518;close;", .rc = 113, .reason = 703,
     .env = "ZOR_RECORDER_FAIL=407=518=703"},
    {.name = "FipsLibraryRefused", .log = "open;302=43200;407=518;416=547;close;", .rc = 113, .reason = 703,
     .env = "ZOR_RECORDER_FAIL=416=547=703", .fips = 1},
    {.name = "FipsRefused", .log = HEAD "close;", .rc = 113, .reason = 703, .env = "ZOR_RECORDER_FAIL=415=545=703"},
    {.name = "KdbRefused", .log = KDB, .rc = 115, .reason = 702, .env = "ZOR_RECORDER_FAIL=201=/k/db.kdb=702"},
    {.name = "DefaultKdbRefused", .log = HEAD "201=" DEFAULT_KDB "kdb;", .rc = 119, .reason = 702,
     .env = "ZOR_RECORDER_FAIL=201=" DEFAULT_KDB "kdb=702", .kdb = nullptr},
    {.name = "PasswordRefused", .log = KDB "202=pw;", .rc = 120, .reason = 702, .env = "ZOR_RECORDER_FAIL=202=pw=702"},
    {.name = "KdbNotReadBack", .log = KDB "get 201;", .rc = 119, .reason = 5, .env = "ZOR_RECORDER_FAIL=get 201=5",
     .password = nullptr},
    {.name = "StashRefused", .log = KDB "get 201;204=/k/db.sth;", .rc = 119, .reason = 702,
     .env = "ZOR_RECORDER_FAIL=204=/k/db.sth=702", .password = nullptr},
    {.name = "CallbacksRefused", .log = KDB "202=pw;800;", .rc = 80, .reason = 701, .env = "ZOR_RECORDER_FAIL=800=701"},
    {.name = "InitFails", .log = ALL, .rc = 113, .reason = 426, .env = "ZOR_RECORDER_FAIL=init=426", .client = true},
    {.name = "FipsRetry", .log = ALL "415=545;420=573;202=pw;init;", .env = "ZOR_RECORDER_FAIL=init#1=207"},
    {.name = "FipsRetryFails", .log = ALL "415=545;420=573;202=pw;init;", .rc = 113, .reason = 207,
     .env = "ZOR_RECORDER_FAIL=init=207"},
    {.name = "SuiteB192", .log = KDB "202=pw;800;416=547;421=575;456=1;init;", .suiteb = "192"},
    {.name = "FipsAndSuiteBLevelRefused",
     .log = "open;302=43200;407=518;416=547;415=544;201=/k/db.kdb;202=pw;800;421=575;455=1;245=0403;init;",
     .env = "ZOR_RECORDER_FAIL=455=1=703", .fips = 1, .suiteb = "128", .sigalg = "0403"},
    {.name = "SuiteBOffWithSigalg", .log = KDB "202=pw;800;245=0403;init;", .suiteb = "193", .sigalg = "0403"},
    {.name = "Pkcs11Token", .log = HEAD "213=/p11.so;215=tpw;214=tok;417=551;417=553;417=549;201=/k/db.kdb;202=pw;800;init;",
     .pkcs11 = &kToken},
    {.name = "Pkcs11NothingOnToken", .log = HEAD, .rc = 115, .pkcs11 = &kNoStorage},
    {.name = "Pkcs11NoLabel", .log = "(not loaded)", .rc = 115, .reason = -7, .kdb = nullptr, .pkcs11 = &kNoLabel},
    {.name = "Pkcs11BadStorage", .log = "(not loaded)", .rc = 115, .reason = -7, .pkcs11 = &kBadStorage},
    {.name = "Pkcs11BadAccelerator", .log = "(not loaded)", .rc = 89, .reason = -7, .pkcs11 = &kBadAccelerator},
    {.name = "Pkcs11BadAcceleratorClient", .log = "(not loaded)", .rc = 115, .reason = -7,
     .pkcs11 = &kBadAccelerator, .client = true},
    {.name = "ShippedVoc", .log = "(not loaded)", .rc = 118, .reason = 118, .env = "ZORLIB_SHIPPED_VOC=true"},
    {.name = "LibraryMissing", .log = "(not loaded)", .rc = 118, .reason = 118, .env = "ZORLIB_CLIENT_VERSION=5"},
    {.name = "EntryPointMissing", .log = "(not loaded)", .rc = 118, .reason = 118, .env = "ZORLIB_CLIENT_VERSION=6"},
};

void PrintTo(const Row &row, std::ostream *os) { *os << row.name; }

class SslEnvironment : public testing::TestWithParam<Row> {};

TEST_P(SslEnvironment, CallsAndResult)
{
    const Row &row = GetParam();
    ZLDAP_IN_FRESH_PROCESS({
        if (row.env)
            putenv(const_cast<char *>(row.env));
        ldap_ssl_set_fips_mode_np(row.fips);
        if (row.suiteb)
            ldap_ssl_set_suiteb_mode(row.suiteb);
        if (row.sigalg)
            ldap_ssl_set_extn_sigalg(row.sigalg);
        int reason = -7;
        auto init = row.client ? ldap_ssl_pkcs11_client_init : ldap_ssl_pkcs11_environment_init;
        EXPECT_EQ(init(row.kdb, row.password, row.timeout, &reason, row.pkcs11, nullptr), row.rc);
        EXPECT_EQ(reason, row.reason);
        EXPECT_EQ(RecorderLog(), row.log);
    });
}

INSTANTIATE_TEST_SUITE_P(Rows, SslEnvironment, testing::ValuesIn(kRows),
                         [](const testing::TestParamInfo<Row> &info) { return std::string(info.param.name); });

// A failed load is tried again in full. The client form succeeds once;
// each environment form replaces the current environment, which lives on
// while a session holds it and is closed when the last one lets it go, or
// when it is replaced unused.
TEST(SslEnvironmentSequence, ClientOnceThenReplacements)
{
    ZLDAP_IN_FRESH_PROCESS({
        int reason = -7;
        setenv("ZORLIB_CLIENT_VERSION", "6", 1);
        ASSERT_EQ(ldap_ssl_client_init("/k/db.kdb", "pw", 0, &reason), LDAP_SECURE_LIB_MISSING);
        unsetenv("ZORLIB_CLIENT_VERSION");
        ASSERT_EQ(ldap_ssl_client_init("/k/db.kdb", "pw", 0, &reason), 0);
        LDAP *ld = ldap_init("localhost", 389);
        ASSERT_NE(ld, nullptr);
        ld->ld_ssl_env = attachZorEnvRef();
        EXPECT_EQ(ldap_ssl_client_init("/k/db.kdb", "pw", 0, &reason), LDAP_SECURE_INIT_DONE);
        EXPECT_EQ(reason, 0);
        EXPECT_EQ(ldap_ssl_environment_init("/k/db.kdb", "pw", 0, &reason), 0);
        EXPECT_EQ(ldap_ssl_environment_init("/k/db.kdb", "pw", 0, &reason), 0);
        EXPECT_EQ(RecorderLog(), ALL ALL "close;" ALL);
        ldap_unbind(ld);
        EXPECT_EQ(RecorderLog(), ALL ALL "close;" ALL "close;");
    });
}

TEST(SslSwitches, RefuseBadTexts)
{
    EXPECT_EQ(ldap_ssl_set_suiteb_mode(nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_ssl_set_suiteb_mode("12a"), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_ssl_set_suiteb_mode(""), 0);
    EXPECT_EQ(ldap_ssl_set_extn_sigalg(""), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_ssl_set_extn_sigalg(nullptr), LDAP_PARAM_ERROR);
}

TEST(SslReason, Texts)
{
    const std::pair<int, const char *> rows[] = {
        {-1, "The LDAP client is not SSL/TLS enabled."}, {0, "Success"}, {404, "Bad certificate"},
        {414, "Bad certificate"}, {706, "Invalid setting"}, {-2, "Unknown SSL error"}, {13, "Unknown SSL error"},
        {707, "Unknown SSL error"}, {INT_MIN, "Unknown SSL error"}, {INT_MAX, "Unknown SSL error"},
    };
    for (const auto &[code, text] : rows)
        EXPECT_STREQ(ldap_ssl_reason2string(code), text) << code;
}

} // namespace
