// SASL binds through the Cyrus SASL plug-in against a slapd that checks them
// with Cyrus SASL, and the library's own EXTERNAL bind over a local socket.
// The server's "Who am I?" answer tells whom it took each session for.
#include "slapd_fixture.h"
#include "zor8ldap_api.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

namespace {

using zldap_test::Slapd;

constexpr const char *kOther = "uid=user000,ou=people,dc=example,dc=com";

TEST(SaslSlapd, BindsAsTheServerSeesThem)
{
    Slapd server({.people = 1, .authz_policy = "to", .sasl = true});
    ZLDAP_REQUIRE_SLAPD(server);
    if (!*ZLDAP_SASL_CYRUS_PLUGIN)
        GTEST_SKIP() << "the Cyrus SASL plug-in is not built (Debian package libsasl2-dev)";
    zldap_test::TempDir conf;
    std::ofstream file(conf.file("ornldap.conf"));
    for (const char *mechanism : {"SCRAM-SHA-256", "DIGEST-MD5", "PLAIN", "NO-SUCH-MECH"})
        file << "plugin sasl " << mechanism << " " ZLDAP_SASL_CYRUS_PLUGIN " sasl_cyrus_init" << std::endl;
    setenv("ORNLDAP_CONF", conf.path().c_str(), 1);
    const std::string peer = "gidNumber=" + std::to_string(getegid()) + "+uidNumber=" + std::to_string(geteuid()) +
                             ",cn=peercred,cn=external,cn=auth";
    struct {
        const char *mechanism, *name, *password;
        int code;
        const char *who; // the identity the server reports after a success
    } const cases[] = {
        {"SCRAM-SHA-256", "sasl", Slapd::kSaslPassword, 0, Slapd::kSaslUser},
        {"DIGEST-MD5", "authcid=sasl\nrealm=example.com", Slapd::kSaslPassword, 0, Slapd::kSaslUser},
        {"PLAIN", "authcid=sasl\nauthzid=dn:uid=user000,ou=people,dc=example,dc=com", Slapd::kSaslPassword, 0, kOther},
        {"SCRAM-SHA-256", "sasl", "wrong", 49, nullptr},
        {"SCRAM-SHA-256", "sasl", nullptr, 89, nullptr},                    // no password
        {"SCRAM-SHA-256", Slapd::kSaslUser, Slapd::kSaslPassword, 89, nullptr}, // a DN names no SASL identity
        {"NO-SUCH-MECH", "sasl", Slapd::kSaslPassword, 86, nullptr},
        // Over the local socket slapd knows the peer's uid and gid.
        {"EXTERNAL", nullptr, nullptr, 0, peer.c_str()},
    };
    for (const auto &c : cases) {
        LDAP *ld = ldap_init((std::strcmp(c.mechanism, "EXTERNAL") ? server.host() : server.socket_path()).c_str(), 0);
        berval password{c.password ? std::strlen(c.password) : 0, const_cast<char *>(c.password)};
        int rc = ldap_sasl_bind_s(ld, c.name, c.mechanism, c.password ? &password : nullptr, nullptr, nullptr, nullptr);
        if (rc == LDAP_AUTH_UNKNOWN && c.code != rc)
            std::printf("skipped %s: Cyrus SASL has no module for it here\n", c.mechanism);
        else
            EXPECT_EQ(rc, c.code) << c.mechanism << " " << c.name;
        berval *who = nullptr;
        if (c.who && rc == 0) {
            EXPECT_EQ(ldap_extended_operation_s(ld, "1.3.6.1.4.1.4203.1.11.3", nullptr, nullptr, nullptr, nullptr, &who), 0);
            EXPECT_EQ(who ? std::string(who->bv_val, who->bv_len) : "", std::string("dn:") + c.who) << c.mechanism;
        }
        ber_bvfree(who);
        ldap_unbind(ld);
    }
}

} // namespace
