// ssl_environment_test.cpp - the client and environment initialisations
// against the real toolkit, which this program finds beside itself, on key
// databases its key tool makes from certificates the openssl command makes.
#include "test_util.h"
#include "zor8ldap_api.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using InitFunction = int (*)(const char *, const char *, int, int *);

struct Step {
    const char *name;
    InitFunction init;
    const char *kdb;
    const char *password; // NULL: the stash file
    int fips;
    int rc;
    int reason;
};

TEST(SslEnvironmentToolkit, InitialisesFromKeyDatabases)
{
    zldap_test::TempDir dir;
    const std::string tool = std::string(ZLDAP_ZLDAPKEY) + " ";
    // A CA for both databases; the second also holds an RSA 1024 client key,
    // which the toolkit refuses in FIPS mode until FIPS processing is off.
    const std::string make = "cd " + dir.path() +
                             " && openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -subj /CN=ca"
                             " && openssl req -x509 -newkey rsa:1024 -nodes -keyout weak.key -out weak.pem -subj /CN=weak"
                             " && " + tool + "create --db keys.kdb --pw pw --stash"
                             " && " + tool + "add --db keys.kdb --pw pw --label ca --cert ca.pem"
                             " && cp keys.kdb weak.kdb && " + tool + "import --db weak.kdb --pw pw --label weak"
                             " --key weak.key --cert weak.pem >/dev/null 2>&1";
    ASSERT_EQ(std::system(make.c_str()), 0);
    const std::string keys = dir.file("keys.kdb"), weak = dir.file("weak.kdb"), missing = dir.file("none.kdb");
    const Step steps[] = {
        {"wrong password", ldap_ssl_client_init, keys.c_str(), "bad", 0, LDAP_SECURE_INIT_FAILED, 408},
        {"password", ldap_ssl_client_init, keys.c_str(), "pw", 0, 0, 0},
        {"only once", ldap_ssl_client_init, keys.c_str(), "pw", 0, LDAP_SECURE_INIT_DONE, 0},
        {"stash file", ldap_ssl_environment_init, keys.c_str(), nullptr, 0, 0, 0},
        {"no stash file", ldap_ssl_environment_init, weak.c_str(), nullptr, 0, LDAP_SECURE_INIT_FAILED, 201},
        {"FIPS retried", ldap_ssl_environment_init, weak.c_str(), "pw", 1, 0, 0},
        {"no database", ldap_ssl_environment_init, missing.c_str(), "pw", 0, LDAP_SECURE_INIT_FAILED, 202},
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(step.name);
        ldap_ssl_set_fips_mode_np(step.fips);
        int reason = -1;
        EXPECT_EQ(step.init(step.kdb, step.password, 0, &reason), step.rc);
        EXPECT_EQ(reason, step.reason) << ldap_ssl_reason2string(reason);
    }
}

} // namespace
