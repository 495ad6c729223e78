// Environment accessors: copies, presence checks, list elements and
// changing list variables.
#include "base/environment.h"
#include "base/memory.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstdlib>

using zldap_test::ScopedEnv;

namespace {

TEST(Environment, CopiesAndPresence)
{
    ScopedEnv env("ZLDAP_TEST_VAR", "abc");
    char *copy = ldap_getenv("ZLDAP_TEST_VAR");
    EXPECT_STREQ(copy, "abc");
    EXPECT_NE(copy, std::getenv("ZLDAP_TEST_VAR")) << "a copy of its own";
    zldap::mem_free(copy);
    EXPECT_EQ(ldap_chkenv("ZLDAP_TEST_VAR"), 4) << "the value with its terminator";
    ScopedEnv empty("ZLDAP_TEST_VAR", "");
    EXPECT_EQ(ldap_chkenv("ZLDAP_TEST_VAR"), 1);
    ScopedEnv unset("ZLDAP_TEST_VAR", std::nullopt);
    EXPECT_EQ(ldap_getenv("ZLDAP_TEST_VAR"), nullptr);
    EXPECT_EQ(ldap_chkenv("ZLDAP_TEST_VAR"), 0);
    EXPECT_EQ(ldap_getenv(""), nullptr);
    EXPECT_EQ(ldap_getenv(nullptr), nullptr);
    EXPECT_EQ(ldap_chkenv(nullptr), 0);
    EXPECT_EQ(ldap_putenv(nullptr), 0);
}

TEST(Environment, ListElementsAreWholeElements)
{
    const struct {
        const char *list, *value;
        bool present;
    } cases[] = {
        {"/opt/a:/opt/b", "/opt/b", true}, {"/OPT/A:/opt/b", "/opt/a", true}, // letter case ignored
        {"\\opt\\a:/opt/b", "/opt/a", true}, {"/opt/a", "\\OPT\\A", true},     // backslash reads as slash
        {"/opt/a /x", "/opt/a", true},                                          // white space ends an element
        {"/opt/ab:/opt/a", "/opt/a", false},                                    // the first occurrence runs on
        {"x/opt/a:/y", "/opt/a", false},                                        // not at an element start
        {"x/opt/a:/opt/a", "/opt/a", true}, {"", "/opt/a", false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(ldap_env_list_contains(c.list, c.value, ':'), c.present) << c.value << " in " << c.list;
}

TEST(Environment, ChangeEnvVarPrependsAppendsOrLeavesAListedValue)
{
    ScopedEnv env("ZLDAP_TEST_PATH", std::nullopt);
    const struct {
        int mode;
        char separator;
        const char *value, *result;
    } steps[] = {{0, ':', "/first", "/first"}, {1, ':', "/last", "/first:/last"}, {0, ':', "/front", "/front:/first:/last"},
                 {0, ':', "\\FIRST", "/front:/first:/last"}, {1, ';', "/x", "/front:/first:/last;/x"}};
    for (const auto &s : steps) {
        EXPECT_EQ(ldap_change_env_var(s.mode, "ZLDAP_TEST_PATH", s.separator, s.value), 0);
        EXPECT_STREQ(std::getenv("ZLDAP_TEST_PATH"), s.result);
    }
    EXPECT_EQ(ldap_change_env_var(0, "", ':', "x"), 89);
    EXPECT_EQ(ldap_change_env_var(0, "ZLDAP_TEST_PATH", ':', nullptr), 89);
}

} // namespace
