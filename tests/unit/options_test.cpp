// Session options: defaults, round trips, refusals, the version-dependent
// passing of values, the global defaults and the records handed out.
#include "proto/ldap_controls.h"
#include "core/ldap_error.h"
#include "session/ldap_init.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"
#include "base/memory.h"
#include "base/trace.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

namespace {

void *AsValue(intptr_t n) { return reinterpret_cast<void *>(n); }

class Options : public testing::Test {
protected:
    void SetUp() override { ld = ldap_init("alpha beta:1389", 389); }
    void TearDown() override { EXPECT_EQ(ldap_unbind(ld), 0); }
    int GetInt(int option)
    {
        int value = -12345;
        EXPECT_EQ(ldap_get_option(ld, option, &value), 0) << "option " << option;
        return value;
    }
    int SetInt(int option, int value) { return ldap_set_option(ld, option, &value); }
    LDAP *ld = nullptr;
};

struct IntCase {
    int option, value;
};

TEST_F(Options, DefaultsAfterInit)
{
    const IntCase defaults[] = {
        {LDAP_OPT_SIZELIMIT, 0}, {LDAP_OPT_TIMELIMIT, 0}, {LDAP_OPT_REFERRALS, 1}, {LDAP_OPT_DEREF, 0},
        {LDAP_OPT_RESTART, 0}, {LDAP_OPT_HOP_LIMIT, 10}, {LDAP_OPT_HOP_LIMIT_ALT, 10}, {LDAP_OPT_SECURE_TIMEOUT, 0},
        {LDAP_OPT_PROTOCOL_VERSION, 3}, {LDAP_OPT_SPARE_FLAG, 0}, {LDAP_OPT_GSS_OPTION, 0}, {LDAP_OPT_GSS_RESULT, 0},
        {LDAP_OPT_NO_TRANSLATION, 1}, {LDAP_OPT_ERROR_NUMBER, 0}, {LDAP_OPT_SECURE_REASON, 0},
    };
    for (const auto &d : defaults)
        EXPECT_EQ(GetInt(d.option), d.value) << "option " << d.option;
}

TEST_F(Options, IntegersGoByPointerAtVersion3AndByValueAtVersion2)
{
    const IntCase cases[] = {
        {LDAP_OPT_SIZELIMIT, 50}, {LDAP_OPT_TIMELIMIT, 30}, {LDAP_OPT_DEREF, 3}, {LDAP_OPT_RESTART, 1},
        {LDAP_OPT_HOP_LIMIT, 0}, {LDAP_OPT_HOP_LIMIT_ALT, 7}, {LDAP_OPT_SECURE_TIMEOUT, 86400},
        {LDAP_OPT_GSS_OPTION, 2}, {LDAP_OPT_PROTOCOL_VERSION, 2},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(SetInt(LDAP_OPT_PROTOCOL_VERSION, 3), 0);
        EXPECT_EQ(SetInt(c.option, c.value), 0) << "option " << c.option;
        EXPECT_EQ(GetInt(c.option), c.value) << "option " << c.option;
    }
    EXPECT_EQ(GetInt(LDAP_OPT_HOP_LIMIT), 7) << "options 5 and 53 share one field";
    EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SIZELIMIT, AsValue(60)), 0) << "the number itself at version 2";
    EXPECT_EQ(GetInt(LDAP_OPT_SIZELIMIT), 60);
    EXPECT_EQ(SetInt(LDAP_OPT_PROTOCOL_VERSION, 3), 0) << "option 17 always takes a pointer";
    // On/off options take the value itself at any version.
    for (int option : {LDAP_OPT_REFERRALS, LDAP_OPT_NO_TRANSLATION, LDAP_OPT_SPARE_FLAG}) {
        EXPECT_EQ(ldap_set_option(ld, option, AsValue(1)), 0);
        EXPECT_EQ(GetInt(option), 1);
        EXPECT_EQ(ldap_set_option(ld, option, LDAP_OPT_OFF), 0);
        EXPECT_EQ(GetInt(option), 0);
        EXPECT_EQ(ldap_set_option(ld, option, AsValue(2)), LDAP_PARAM_ERROR);
    }
}

TEST_F(Options, RefusalsAreParamErrors)
{
    const IntCase refused[] = {
        {LDAP_OPT_PROTOCOL_VERSION, 4}, {LDAP_OPT_PROTOCOL_VERSION, 1}, {LDAP_OPT_SECURE_TIMEOUT, 86401},
        {LDAP_OPT_SECURE_TIMEOUT, -1}, {LDAP_OPT_TRACE_LEVEL, 0x10000}, {LDAP_OPT_DEREF, 4}, {LDAP_OPT_SIZELIMIT, -1},
        {LDAP_OPT_TIMELIMIT, -5}, {LDAP_OPT_HOP_LIMIT, -1}, {LDAP_OPT_GSS_OPTION, 1}, {LDAP_OPT_RESTART, 2},
    };
    for (const auto &c : refused) {
        EXPECT_EQ(SetInt(c.option, c.value), LDAP_PARAM_ERROR) << "option " << c.option;
        EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    }
    EXPECT_EQ(GetInt(LDAP_OPT_PROTOCOL_VERSION), 3);
    // Read-only and unknown options, and a missing value or output.
    for (int option : {10, 11, 20, 21, 48, 49, 50, 51, 55, 56, 57, 64, 65, 66, 69, 12, 99, -1, 1000})
        EXPECT_EQ(ldap_set_option(ld, option, AsValue(1)), LDAP_PARAM_ERROR) << "option " << option;
    EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SIZELIMIT, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_SIZELIMIT, nullptr), LDAP_PARAM_ERROR);
    char *text = nullptr;
    for (int option : {LDAP_OPT_SECURE_PROTOCOLS, LDAP_OPT_CIPHER_SPECS_TLS12, LDAP_OPT_CIPHER_SPECS, 56, 57, 64, 65, 66, 12, 1000})
        EXPECT_EQ(ldap_get_option(ld, option, &text), LDAP_PARAM_ERROR) << "option " << option;
    EXPECT_EQ(text, nullptr);
}

TEST_F(Options, StateOfTheSessionAndTheProcess)
{
    uint32_t saved = zldap::trace_level();
    EXPECT_EQ(SetInt(LDAP_OPT_TRACE_LEVEL, 0xFFFF), 0);
    EXPECT_EQ(zldap::trace_level(), 0xFFFFu);
    EXPECT_EQ(GetInt(LDAP_OPT_TRACE_LEVEL), 0xFFFF);
    zldap::set_trace_level(saved);
    // A plain connection leaves the caller's integer alone.
    for (int option : {LDAP_OPT_SECURE_IN_USE, LDAP_OPT_CLEAR_IN_USE, LDAP_OPT_SECURE_SESSION}) {
        int value = 77;
        EXPECT_EQ(ldap_get_option(ld, option, &value), 0);
        EXPECT_EQ(value, 77);
    }
    char *text = nullptr;
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_HOST_NAME, &text), 0);
    EXPECT_STREQ(text, "alpha beta:1389");
    zldap::mem_free(text);
    ldap_set_error_direct(ld, LDAP_INSUFFICIENT_ACCESS, nullptr, "no access");
    ldap_set_ext_error_direct(ld, 422);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_ERROR_STRING, &text), 0);
    EXPECT_STREQ(text, "no access");
    zldap::mem_free(text);
    EXPECT_EQ(GetInt(LDAP_OPT_ERROR_NUMBER), LDAP_INSUFFICIENT_ACCESS);
    EXPECT_EQ(GetInt(LDAP_OPT_SECURE_REASON), 422);
}

TEST_F(Options, InfoRecordsNeedInfoVersion1)
{
    LDAPAPIInfo info{};
    EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_API_INFO, &info), LDAP_PARAM_ERROR);
    EXPECT_EQ(info.ldapai_info_version, 1);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_API_INFO, &info), 0);
    EXPECT_EQ(info.ldapai_api_version, 2004);
    EXPECT_EQ(info.ldapai_protocol_version, 3);
    EXPECT_EQ(info.ldapai_vendor_version, 510);
    EXPECT_STREQ(info.ldapai_vendor_name, "Orniva Systems Corp.");
    EXPECT_STREQ(info.ldapai_extensions[0], "VIRTUAL_LIST_VIEW");
    EXPECT_EQ(info.ldapai_extensions[1], nullptr);
    zldap::mem_free(info.ldapai_extensions[0]);
    zldap::mem_free(info.ldapai_extensions);
    zldap::mem_free(info.ldapai_vendor_name);

    LDAPAPIFeatureInfo feature{0, const_cast<char *>("VIRTUAL_LIST_VIEW"), -1};
    EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_API_FEATURE_INFO, &feature), LDAP_PARAM_ERROR);
    EXPECT_EQ(feature.ldapaif_info_version, 1);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_API_FEATURE_INFO, &feature), 0);
    EXPECT_EQ(feature.ldapaif_version, 1000);
    feature.ldapaif_name = const_cast<char *>("SORT");
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_API_FEATURE_INFO, &feature), 0);
    EXPECT_EQ(feature.ldapaif_version, 0);
}

TEST_F(Options, CopiedValuesAreStoredAndCleared)
{
    struct timeval tv {5, 250000}, *out = nullptr;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CONNECT_TIMEOUT, &tv), 0);
    tv.tv_sec = 99;
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_CONNECT_TIMEOUT, &out), 0);
    EXPECT_TRUE(out && out->tv_sec == 5 && out->tv_usec == 250000);
    zldap::mem_free(out);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CONNECT_TIMEOUT, nullptr), 0);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_CONNECT_TIMEOUT, &out), 0);
    EXPECT_EQ(out, nullptr);

    char *text = nullptr;
    EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_CIPHER_SPECS, nullptr), LDAP_NO_MEMORY) << "no list to re-check";
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CIPHER_SPECS, "352F0A"), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CIPHER_SPECS, nullptr), 0) << "re-checks the current list";
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_CIPHER_SPECS, &text), 0);
    EXPECT_STREQ(text, "352F0A");
    zldap::mem_free(text);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CIPHER_SPECS_TLS12, "TLS_AES_128_GCM_SHA256"), 0);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_CIPHER_SPECS_TLS12, &text), 0);
    EXPECT_STREQ(text, "TLS_AES_128_GCM_SHA256");
    zldap::mem_free(text);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CIPHER_SPECS_TLS12, nullptr), 0);
    EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_CIPHER_SPECS_TLS12, &text), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SECURE_PROTOCOLS, "TLSV12"), 0);
    EXPECT_STREQ(ld->ld_ssl_protocols, "TLSV12");
    EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SECURE_PROTOCOLS, nullptr), 0);
    EXPECT_EQ(ld->ld_ssl_protocols, nullptr);
}

// Two controls: 1.2.3 without a value, 1.2.4 critical with the value "ab\0c".
struct ControlList {
    char value[4] = {'a', 'b', '\0', 'c'};
    LDAPControl first{const_cast<char *>("1.2.3"), {0, nullptr}, 0};
    LDAPControl second{const_cast<char *>("1.2.4"), {4, value}, 1};
    LDAPControl *list[3] = {&first, &second, nullptr};
};

TEST_F(Options, ControlsAreDeepCopiesAndCriticalClientControlsAreRefusedWhole)
{
    ControlList given;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, given.list), 0);
    given.value[0] = 'X';
    LDAPControl **out = nullptr;
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_SERVER_CONTROLS, &out), 0);
    ASSERT_EQ(ldap_count_controls(out), 2);
    EXPECT_STREQ(out[1]->ldctl_oid, "1.2.4");
    EXPECT_EQ(std::memcmp(out[1]->ldctl_value.bv_val, "ab\0c", 4), 0);
    ldap_controls_free(out);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, nullptr), 0);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_SERVER_CONTROLS, &out), 0);
    EXPECT_EQ(out, nullptr);

    given.list[1] = nullptr;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CLIENT_CONTROLS, given.list), 0);
    ControlList critical;
    EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_CLIENT_CONTROLS, critical.list), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_CLIENT_CONTROLS, &out), 0);
    EXPECT_EQ(ldap_count_controls(out), 1) << "the old list stays";
    ldap_controls_free(out);
}

TEST(GlobalDefaults, StayApartFromHandles)
{
    int fifty = 50, zero = 0, value = 0;
    ASSERT_EQ(ldap_set_option(nullptr, LDAP_OPT_SIZELIMIT, &fifty), 0);
    ASSERT_EQ(ldap_get_option(nullptr, LDAP_OPT_SIZELIMIT, &value), 0);
    EXPECT_EQ(value, 50);
    ASSERT_EQ(ldap_get_option(nullptr, LDAP_OPT_HOP_LIMIT, &value), 0);
    EXPECT_EQ(value, 10);
    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_SIZELIMIT, &value), 0);
    EXPECT_EQ(value, 0);
    ldap_unbind(ld);
    EXPECT_EQ(ldap_set_option(nullptr, LDAP_OPT_PROTOCOL_VERSION, &fifty), LDAP_PARAM_ERROR);
    ldap_set_option(nullptr, LDAP_OPT_SIZELIMIT, &zero);
    ldap_version_record record;
    EXPECT_EQ(ldap_get_version(&record), 631);
    EXPECT_EQ(record.protocol_version + record.ssl_version + record.security_level, 728);
    EXPECT_EQ(ldap_get_version(nullptr), 631);
}

} // namespace
