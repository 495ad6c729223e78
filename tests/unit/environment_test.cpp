// Environment accessors: copies, presence checks and list elements.
#include "base/environment.h"
#include "base/memory.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using zldap_test::ScopedEnv;

namespace {

std::string Value(const char *name)
{
    const char *v = std::getenv(name);
    return v ? v : "<unset>";
}

TEST(Getenv, ReturnsAnOwnedCopyOrNull)
{
    ScopedEnv env("ZLDAP_TEST_VAR", "some value");
    char *copy = ldap_getenv("ZLDAP_TEST_VAR");
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "some value");
    EXPECT_NE(copy, std::getenv("ZLDAP_TEST_VAR"));
    zldap::mem_free(copy);

    ScopedEnv unset("ZLDAP_TEST_VAR", std::nullopt);
    EXPECT_EQ(ldap_getenv("ZLDAP_TEST_VAR"), nullptr);
    EXPECT_EQ(ldap_getenv(nullptr), nullptr);
    EXPECT_EQ(ldap_getenv(""), nullptr);
}

TEST(Chkenv, CountsTheValueWithItsTerminator)
{
    {
        ScopedEnv env("ZLDAP_TEST_VAR", "");
        EXPECT_EQ(ldap_chkenv("ZLDAP_TEST_VAR"), 1);
    }
    {
        ScopedEnv env("ZLDAP_TEST_VAR", "abc");
        EXPECT_EQ(ldap_chkenv("ZLDAP_TEST_VAR"), 4);
    }
    ScopedEnv env("ZLDAP_TEST_VAR", std::nullopt);
    EXPECT_EQ(ldap_chkenv("ZLDAP_TEST_VAR"), 0);
    EXPECT_EQ(ldap_chkenv(nullptr), 0);
    EXPECT_EQ(ldap_chkenv(""), 0);
}

TEST(Putenv, RefusesEmptyInput)
{
    EXPECT_EQ(ldap_putenv(nullptr), 0);
    char empty[] = "";
    EXPECT_EQ(ldap_putenv(empty), 0);
}

struct ElementCase {
    const char *list;
    const char *value;
    bool present;
};

void PrintTo(const ElementCase &c, std::ostream *os) { *os << c.value << " in " << c.list; }

class EnvListElement : public testing::TestWithParam<ElementCase> {};

TEST_P(EnvListElement, IsFoundOnlyAsAWholeElement)
{
    const ElementCase c = GetParam();
    EXPECT_EQ(ldap_env_list_contains(c.list, c.value, ':'), c.present) << c.list << " / " << c.value;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, EnvListElement,
    testing::Values(ElementCase{"/opt/a:/opt/b", "/opt/a", true},
                    ElementCase{"/opt/a:/opt/b", "/opt/b", true},
                    ElementCase{"/OPT/A:/opt/b", "/opt/a", true},     // letter case ignored
                    ElementCase{"\\opt\\a:/opt/b", "/opt/a", true},   // backslash reads as slash
                    ElementCase{"/opt/a", "\\OPT\\A", true},
                    ElementCase{"/opt/a /x", "/opt/a", true},         // white space ends an element
                    ElementCase{"/opt/ab:/opt/a", "/opt/a", false},   // the first occurrence runs on
                    ElementCase{"x/opt/a:/y", "/opt/a", false},       // not at an element start
                    ElementCase{"x/opt/a:/opt/a", "/opt/a", true},    // a later occurrence starts one
                    ElementCase{"/opt/b", "/opt/a", false},
                    ElementCase{"", "/opt/a", false}));

TEST(ChangeEnvVar, AppendsPrependsOrSets)
{
    {
        ScopedEnv env("ZLDAP_TEST_PATH", std::nullopt);
        EXPECT_EQ(ldap_change_env_var(0, "ZLDAP_TEST_PATH", ':', "/first"), 0);
        EXPECT_EQ(Value("ZLDAP_TEST_PATH"), "/first");
        EXPECT_EQ(ldap_change_env_var(1, "ZLDAP_TEST_PATH", ':', "/last"), 0);
        EXPECT_EQ(Value("ZLDAP_TEST_PATH"), "/first:/last");
        EXPECT_EQ(ldap_change_env_var(0, "ZLDAP_TEST_PATH", ':', "/front"), 0);
        EXPECT_EQ(Value("ZLDAP_TEST_PATH"), "/front:/first:/last");
    }
    ScopedEnv env("ZLDAP_TEST_PATH", "");
    EXPECT_EQ(ldap_change_env_var(1, "ZLDAP_TEST_PATH", ';', "/only"), 0);
    EXPECT_EQ(Value("ZLDAP_TEST_PATH"), "/only");
}

TEST(ChangeEnvVar, LeavesAListedValueAlone)
{
    ScopedEnv env("ZLDAP_TEST_PATH", "/usr/LIB:/opt/x");
    EXPECT_EQ(ldap_change_env_var(0, "ZLDAP_TEST_PATH", ':', "\\usr\\lib"), 0);
    EXPECT_EQ(Value("ZLDAP_TEST_PATH"), "/usr/LIB:/opt/x");
}

TEST(ChangeEnvVar, RefusesMissingNamesAndValues)
{
    EXPECT_EQ(ldap_change_env_var(0, nullptr, ':', "x"), 89);
    EXPECT_EQ(ldap_change_env_var(0, "", ':', "x"), 89);
    EXPECT_EQ(ldap_change_env_var(0, "ZLDAP_TEST_PATH", ':', nullptr), 89);
    EXPECT_EQ(ldap_change_env_var(0, "ZLDAP_TEST_PATH", ':', ""), 89);
}

TEST(SyscallMutex, LocksAndUnlocks)
{
    ASSERT_EQ(lock_syscall_mutex(), 0);
    EXPECT_EQ(unlock_syscall_mutex(), 0);
}

} // namespace
