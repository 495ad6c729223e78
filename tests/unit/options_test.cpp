// Session options: defaults, round trips, refusals, the version-dependent
// passing of values, copies handed in and out, and the global defaults.
#include "proto/ldap_controls.h"
#include "core/ldap_error.h"
#include "session/ldap_init.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"
#include "base/memory.h"
#include "base/trace.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

void *AsValue(intptr_t n) { return reinterpret_cast<void *>(n); }

class Options : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(ldap_unbind(ld), 0); }
    zldap_test::TraceCapture trace{0xFFFF}; // option calls format their trace lines
    int GetInt(int option)
    {
        int value = -12345;
        EXPECT_EQ(ldap_get_option(ld, option, &value), 0) << "option " << option;
        return value;
    }
    int SetInt(int option, int value) { return ldap_set_option(ld, option, &value); }
    LDAP *ld = ldap_init("alpha beta:1389", 389);
};

enum How { Get, Ptr, Val }; // read; set through a pointer; set with the value itself

// Run in order on one handle: the defaults, round trips and refusals, and
// the protocol version deciding how integers are passed.
TEST_F(Options, IntegerOptionsInOrder)
{
    constexpr int P = LDAP_PARAM_ERROR;
    const struct {
        How how;
        int option, value, rc;
    } rows[] = {
        {Get, LDAP_OPT_SIZELIMIT, 0, 0}, {Get, LDAP_OPT_REFERRALS, 1, 0}, {Get, LDAP_OPT_RESTART, 0, 0},
        {Get, LDAP_OPT_HOP_LIMIT, 10, 0}, {Get, LDAP_OPT_PROTOCOL_VERSION, 3, 0}, {Get, LDAP_OPT_NO_TRANSLATION, 1, 0},
        {Get, LDAP_OPT_GSS_RESULT, 0, 0}, {Get, LDAP_OPT_ERROR_NUMBER, 0, 0}, {Get, LDAP_OPT_SECURE_REASON, 0, 0},
        {Ptr, LDAP_OPT_SIZELIMIT, 50, 0}, {Ptr, LDAP_OPT_TIMELIMIT, 30, 0}, {Ptr, LDAP_OPT_DEREF, 3, 0},
        {Ptr, LDAP_OPT_RESTART, 1, 0}, {Ptr, LDAP_OPT_HOP_LIMIT, 0, 0}, {Ptr, LDAP_OPT_HOP_LIMIT_ALT, 7, 0},
        {Get, LDAP_OPT_HOP_LIMIT, 7, 0}, // options 5 and 53 share one field
        {Ptr, LDAP_OPT_SECURE_TIMEOUT, 86400, 0}, {Ptr, LDAP_OPT_GSS_OPTION, 2, 0},
        {Ptr, LDAP_OPT_PROTOCOL_VERSION, 4, P}, {Ptr, LDAP_OPT_PROTOCOL_VERSION, 1, P}, {Ptr, LDAP_OPT_SECURE_TIMEOUT, 86401, P},
        {Ptr, LDAP_OPT_SECURE_TIMEOUT, -1, P}, {Ptr, LDAP_OPT_TRACE_LEVEL, 0x10000, P}, {Ptr, LDAP_OPT_DEREF, 4, P},
        {Ptr, LDAP_OPT_SIZELIMIT, -1, P}, {Ptr, LDAP_OPT_TIMELIMIT, -5, P}, {Ptr, LDAP_OPT_HOP_LIMIT, -1, P},
        {Ptr, LDAP_OPT_GSS_OPTION, 1, P}, {Ptr, LDAP_OPT_RESTART, 2, P}, {Get, LDAP_OPT_ERROR_NUMBER, P, 0},
        {Ptr, LDAP_OPT_PROTOCOL_VERSION, 2, 0}, {Val, LDAP_OPT_SIZELIMIT, 60, 0}, // the number itself at version 2
        {Ptr, LDAP_OPT_PROTOCOL_VERSION, 3, 0}, // option 17 always takes a pointer
        // On/off options take the value itself at any version.
        {Val, LDAP_OPT_REFERRALS, 0, 0}, {Val, LDAP_OPT_REFERRALS, 1, 0}, {Val, LDAP_OPT_REFERRALS, 2, P},
        {Val, LDAP_OPT_NO_TRANSLATION, 0, 0}, {Val, LDAP_OPT_SPARE_FLAG, 1, 0}, {Val, LDAP_OPT_SPARE_FLAG, 2, P},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::Message() << "option " << r.option << " value " << r.value);
        int value = r.value;
        int rc = r.how == Get ? 0 : ldap_set_option(ld, r.option, r.how == Ptr ? &value : AsValue(r.value));
        EXPECT_EQ(rc, r.rc);
        EXPECT_TRUE(rc != 0 || GetInt(r.option) == r.value);
    }
    uint32_t saved = zldap::trace_level();
    EXPECT_EQ(SetInt(LDAP_OPT_TRACE_LEVEL, 0x8001), 0);
    EXPECT_EQ(zldap::trace_level(), 0x8001u) << "the process's level";
    EXPECT_EQ(GetInt(LDAP_OPT_TRACE_LEVEL), 0x8001);
    zldap::set_trace_level(saved);
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

// Texts are copied in and out; gets that have nothing to copy are refused.
TEST_F(Options, TextsRecordsAndControlsAreCopies)
{
    ldap_set_error_direct(ld, LDAP_INSUFFICIENT_ACCESS, nullptr, "no access");
    const char *const kGetOnly = "";
    const struct {
        int option;
        const char *set;
        int set_rc, get_rc;
        const char *got;
    } texts[] = {
        {LDAP_OPT_HOST_NAME, kGetOnly, 0, 0, "alpha beta:1389"}, {LDAP_OPT_ERROR_STRING, kGetOnly, 0, 0, "no access"},
        {LDAP_OPT_CIPHER_SPECS, nullptr, LDAP_NO_MEMORY, LDAP_PARAM_ERROR, nullptr}, // no list to re-check
        {LDAP_OPT_CIPHER_SPECS, "352F0A", 0, 0, "352F0A"},
        {LDAP_OPT_CIPHER_SPECS, nullptr, 0, 0, "352F0A"}, // re-checks the current list
        {LDAP_OPT_CIPHER_SPECS_TLS12, "TLS_AES_128_GCM_SHA256", 0, 0, "TLS_AES_128_GCM_SHA256"},
        {LDAP_OPT_CIPHER_SPECS_TLS12, nullptr, 0, LDAP_PARAM_ERROR, nullptr},
        {LDAP_OPT_SECURE_PROTOCOLS, "TLSV12", 0, LDAP_PARAM_ERROR, nullptr},
    };
    for (const auto &t : texts) {
        char *text = nullptr;
        EXPECT_EQ(t.set == kGetOnly ? 0 : ldap_set_option(ld, t.option, t.set), t.set_rc) << t.option;
        EXPECT_EQ(ldap_get_option(ld, t.option, &text), t.get_rc) << t.option;
        EXPECT_STREQ(text, t.got);
        zldap::mem_free(text);
    }
    EXPECT_STREQ(ld->ld_ssl_protocols, "TLSV12");
    struct timeval tv {5, 250000}, *out = nullptr;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CONNECT_TIMEOUT, &tv), 0);
    tv.tv_sec = 99;
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_CONNECT_TIMEOUT, &out), 0);
    EXPECT_TRUE(out && out->tv_sec == 5 && out->tv_usec == 250000);
    zldap::mem_free(out);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CONNECT_TIMEOUT, nullptr), 0);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_CONNECT_TIMEOUT, &out), 0);
    EXPECT_EQ(out, nullptr);
    LDAP_REBIND_PROC proc = [](LDAP *, char **, char **, int *, int) { return 0; }, got = nullptr;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_REBIND_PROC, reinterpret_cast<void *>(proc)), 0);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_REBIND_PROC, &got), 0);
    EXPECT_EQ(got, proc);
    int untouched = 77; // a plain connection leaves the caller's integer alone
    EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_SECURE_IN_USE, &untouched), 0);
    EXPECT_EQ(untouched, 77);
    // The info records need info version 1, which a refusal writes back.
    LDAPAPIInfo info{};
    EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_API_INFO, &info), LDAP_PARAM_ERROR);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_API_INFO, &info), 0);
    EXPECT_STREQ(info.ldapai_extensions[0], "VIRTUAL_LIST_VIEW");
    zldap::mem_free(info.ldapai_extensions[0]);
    zldap::mem_free(info.ldapai_extensions);
    zldap::mem_free(info.ldapai_vendor_name);
    LDAPAPIFeatureInfo feature{0, const_cast<char *>("VIRTUAL_LIST_VIEW"), -1};
    EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_API_FEATURE_INFO, &feature), LDAP_PARAM_ERROR);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_API_FEATURE_INFO, &feature), 0);
    EXPECT_EQ(feature.ldapaif_version, 1000);

    char value[4] = {'a', 'b', '\0', 'c'};
    LDAPControl plain{const_cast<char *>("1.2.3"), {0, nullptr}, 0}, critical{const_cast<char *>("1.2.4"), {4, value}, 1};
    LDAPControl *list[] = {&plain, &critical, nullptr}, **copy = nullptr;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, list), 0);
    value[0] = 'X';
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_SERVER_CONTROLS, &copy), 0);
    ASSERT_EQ(ldap_count_controls(copy), 2);
    EXPECT_EQ(std::string(copy[1]->ldctl_value.bv_val, 4), std::string("ab\0c", 4)) << "a deep copy";
    ldap_controls_free(copy);
    // A critical client control refuses the whole list; the old one stays.
    list[1] = nullptr;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CLIENT_CONTROLS, list), 0);
    list[1] = &critical;
    EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_CLIENT_CONTROLS, list), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_CLIENT_CONTROLS, &copy), 0);
    EXPECT_EQ(ldap_count_controls(copy), 1);
    ldap_controls_free(copy);
}

TEST(GlobalDefaults, StayApartFromHandles)
{
    int fifty = 50, zero = 0, value = 0;
    ASSERT_EQ(ldap_set_option(nullptr, LDAP_OPT_SIZELIMIT, &fifty), 0);
    ASSERT_EQ(ldap_get_option(nullptr, LDAP_OPT_SIZELIMIT, &value), 0);
    EXPECT_EQ(value, 50);
    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_SIZELIMIT, &value), 0);
    EXPECT_EQ(value, 0);
    ldap_unbind(ld);
    EXPECT_EQ(ldap_set_option(nullptr, LDAP_OPT_PROTOCOL_VERSION, &fifty), LDAP_PARAM_ERROR);
    ldap_set_option(nullptr, LDAP_OPT_SIZELIMIT, &zero);
    ldap_version_record record;
    EXPECT_EQ(ldap_get_version(&record), 631);
    EXPECT_EQ(record.sdk_version, 631);
    EXPECT_EQ(ldap_get_version(nullptr), 631);
}

} // namespace
