// slapd_fixture.h - a throw-away slapd for the integration tests: its own
// configuration and data (loaded with slapadd) in a temporary directory, a
// free loopback port, and a stop by its own pid.
#ifndef ZLDAP_TEST_SLAPD_FIXTURE_H
#define ZLDAP_TEST_SLAPD_FIXTURE_H

#include "test_util.h"

#include <string>
#include <vector>
#include <sys/types.h>

namespace zldap_test {

struct SlapdData {
    int people = 200;      // uid=userNNN,ou=people entries
    int bulk = 0;          // entries under ou=bulk, for large searches
    // Overlays from /usr/lib/ldap, loaded and stacked on the database in this
    // order, and the directives that configure them.
    std::vector<std::string> overlays;
    std::string overlay_config;
    std::string authz_policy; // "to", "from", "any" or "all"; empty: none
    std::string ldif;         // further entries, loaded after the standard ones
    // Cyrus SASL binds: the identity uid=X of any mechanism is uid=X,ou=people
    // with its cleartext userPassword; kSaslUser has one (and may act as
    // uid=user000 where authz_policy allows). slapd also listens on the local
    // socket socket_path().
    bool sasl = false;
    int port = 0;             // 0: a free one, picked at start
    // TLS: slapd also listens on ldaps_url() with the certificate of this
    // name from TestPki() ("server", "expired", or "stranger" from another
    // CA); empty: no TLS.
    std::string tls_cert;
    bool tls_verify_client = false; // TLSVerifyClient demand (clients of the test CA)
    std::string tls_ciphers;        // TLSCipherSuite (a GnuTLS priority text); empty: slapd's own
    int ldaps_port = 0;             // 0: a free one, picked at start
};

// Files made once per test program by openssl and the key tool: the test CA
// (ca.pem) and another one, their certificates and keys (server, expired,
// stranger, client; <name>.pem and .key), and keys.kdb (password "pw", with
// its stash file) trusting the test CA and holding the client key under
// the label "client". The directory's path.
const std::string &TestPki();

// The LDIF of a referral object at dn (whose first RDN is an ou) that
// refers to url (more URLs follow "\nref: ").
std::string ReferralLdif(const std::string &dn, const std::string &url);

class Slapd {
public:
    static constexpr const char *kBase = "dc=example,dc=com";
    static constexpr const char *kRootDn = "cn=admin,dc=example,dc=com";
    static constexpr const char *kRootPassword = "secret";
    static constexpr const char *kPeople = "ou=people,dc=example,dc=com";
    static constexpr const char *kSaslUser = "uid=sasl,ou=people,dc=example,dc=com";
    static constexpr const char *kSaslPassword = "sasl-secret";

    // Whether this machine has slapd; tests skip without it.
    static bool Available();

    explicit Slapd(const SlapdData &data = {});
    ~Slapd();

    bool running() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    const std::string &error() const { return error_; }
    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }
    std::string url() const { return "ldap://127.0.0.1:" + std::to_string(port_); }
    int ldaps_port() const { return ldaps_port_; }
    std::string ldaps_url() const { return "ldaps://127.0.0.1:" + std::to_string(ldaps_port_); }
    std::string socket_path() const { return dir_.file("ldapi"); }
    const SlapdData &data() const { return data_; }

    void Stop();

private:
    bool Setup();
    bool Launch();

    SlapdData data_;
    TempDir dir_;
    pid_t pid_ = -1;
    int port_ = 0;
    int ldaps_port_ = 0;
    std::string error_;
};

// One server per test program, started on first use and stopped at exit.
Slapd &SharedSlapd();

} // namespace zldap_test

#define ZLDAP_REQUIRE_SLAPD(server)                                                                \
    do {                                                                                           \
        if (!zldap_test::Slapd::Available())                                                       \
            GTEST_SKIP() << "slapd is not installed (Debian package slapd)";                       \
        ASSERT_TRUE((server).running()) << (server).error();                                       \
    } while (0)

#endif
