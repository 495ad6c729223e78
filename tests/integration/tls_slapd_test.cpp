// Secure connections against real slapd servers that listen on ldap and
// ldaps, with certificates from a CA made at test time: who is trusted and
// who is not, client keys, protocols and suites, large values and results
// across TLS records, the handshake and data time-outs, and referrals that
// keep a session's security. Nothing is ever sent in clear to an ldaps
// address: such a connection is secure or it fails.
#include "fresh_process.h"
#include "loopback.h"
#include "slapd_fixture.h"
#include "zor8ldap_api.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <string>
#include <sys/wait.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

using namespace zldap_test;

namespace {

const std::string kPeople = Slapd::kPeople;
// slapd's TLS is GnuTLS: TLS 1.2 with the AES-128-GCM suites only.
const char *const kTls12Aes128 = "NORMAL:-VERS-ALL:+VERS-TLS1.2:-CIPHER-ALL:+AES-128-GCM";

int Init() { return ldap_ssl_client_init((TestPki() + "/keys.kdb").c_str(), "pw", 0, nullptr); }

// A server of three users with a certificate by that name, started once.
Slapd &Server(const char *cert, bool demand = false, const char *ciphers = "", int bulk = 0)
{
    static std::map<std::string, Slapd> servers;
    std::string key = std::string(cert) + (demand ? "+demand" : "") + ciphers + std::to_string(bulk);
    auto it = servers.find(key);
    if (it == servers.end())
        it = servers.try_emplace(key, SlapdData{.people = 3, .bulk = bulk, .tls_cert = cert,
                                                .tls_verify_client = demand, .tls_ciphers = ciphers}).first;
    EXPECT_TRUE(it->second.running()) << it->second.error(); // a refusal must come from a running server
    return it->second;
}

Slapd &Good() { return Server("server", false, "", 10000); }
std::string Host(Slapd &s) { return "127.0.0.1:" + std::to_string(s.ldaps_port()); }

// Binds and finds the three users; a secure connection must say so and
// name the server's DNS name.
int BindAndSearch(LDAP *ld)
{
    int rc = ldap_simple_bind_s(ld, Slapd::kRootDn, Slapd::kRootPassword);
    LDAPMessage *res = nullptr;
    if (rc == 0)
        rc = ldap_search_s(ld, kPeople.c_str(), LDAP_SCOPE_ONELEVEL, "(uid=*)", nullptr, 0, &res);
    int secure = 0;
    char *name = nullptr;
    ldap_get_option(ld, LDAP_OPT_SECURE_SESSION, &secure);
    ldap_get_option(ld, LDAP_OPT_PEER_ALT_NAME_2, &name);
    if (rc == 0 && (ldap_count_entries(ld, res) != 3 || secure != 1 || !name || std::string(name) != "localhost"))
        rc = -1;
    ldap_msgfree(res);
    ldap_memfree(name);
    return rc;
}

struct Row {
    const char *name;
    std::function<std::string()> hosts; // host list, or an ldaps URL for ldap_init
    const char *label, *protocols, *suite;
    int rc;
    std::string cipher; // what option 64 starts with
};

const Row kRows[] = {
    {"Tls13ByDefault", [] { return Host(Good()); }, nullptr, nullptr, nullptr, 0, "13"},
    {"Tls12WithNamedSuite", [] { return Host(Server("server", false, kTls12Aes128)); }, nullptr, "TLS12", "C02B", 0, "C02B"},
    {"SuiteTheServerLacks", [] { return Host(Server("server", false, kTls12Aes128)); }, nullptr, "TLS12", "C02C", 81},
    {"OtherCaRefusedNextHostTried", [] { return Host(Server("stranger")) + " " + Host(Good()); }, nullptr, nullptr,
     nullptr, 0, "13"},
    {"ExpiredRefused", [] { return Host(Server("expired")); }, nullptr, nullptr, nullptr, 81},
    {"ClientKeyByLabel", [] { return Host(Server("server", true)); }, "client", nullptr, nullptr, 0, "13"},
    {"NoClientKeyRefused", [] { return Host(Server("server", true)); }, nullptr, nullptr, nullptr, 81},
    {"LdapsUrl", [] { return Good().ldaps_url(); }, nullptr, nullptr, nullptr, 0, "13"},
    {"LdapsUrlOnAPlainPort", [] { return "ldaps" + Good().url().substr(4); }, nullptr, nullptr, nullptr, 81},
};

class Tls : public testing::TestWithParam<Row> {};

TEST_P(Tls, ConnectsSecurelyOrFails)
{
    ZLDAP_REQUIRE_SLAPD(Good());
    ASSERT_LE(Init(), LDAP_SECURE_INIT_DONE);
    const Row &row = GetParam();
    std::string hosts = row.hosts();
    LDAP *ld = ldap_is_ldap_url(hosts.c_str()) ? ldap_init(hosts.c_str(), 0) : ldap_ssl_session_init(hosts.c_str(), 0, row.label);
    ldap_set_option(ld, LDAP_OPT_SECURE_PROTOCOLS, row.protocols);
    ldap_set_option(ld, LDAP_OPT_CIPHER_SPECS_TLS12, row.suite);
    EXPECT_EQ(BindAndSearch(ld), row.rc);
    char *cipher = nullptr;
    if (row.rc == 0 && ldap_get_option(ld, LDAP_OPT_SECURE_CIPHER_IN_USE, &cipher) == 0) {
        EXPECT_EQ(std::string(cipher).substr(0, row.cipher.size()), row.cipher);
    }
    ldap_memfree(cipher);
    ldap_unbind(ld);
}

INSTANTIATE_TEST_SUITE_P(Rows, Tls, testing::ValuesIn(kRows), [](const auto &info) { return info.param.name; });

// StartTLS on a plain port. A server with TLS makes the session secure for
// what follows; one without refuses and the session goes on in clear (-1:
// it answers, but not securely); a certificate that does not verify fails
// the handshake and the connection carries nothing more. Ending TLS
// releases the session; the server serves the next one.
TEST(StartTls, SecuresOrFailsClosed)
{
    ZLDAP_REQUIRE_SLAPD(Good());
    ASSERT_LE(Init(), LDAP_SECURE_INIT_DONE);
    const struct {
        Slapd &server;
        int start, after;
    } rows[] = {{Good(), 0, 0}, {Server(""), LDAP_PROTOCOL_ERROR, -1}, {Server("stranger"), LDAP_SECURE_CONNECT_FAILED, LDAP_SERVER_DOWN}};
    for (const auto &r : rows) {
        LDAP *ld = ldap_init(r.server.url().c_str(), 0);
        EXPECT_EQ(ldap_start_tls_s_np(ld, nullptr), r.start) << r.server.url();
        const char *why = nullptr;
        int reason = 0, handshake = ldap_ssl_get_handshake_reason(&why);
        ldap_get_option(ld, LDAP_OPT_SECURE_REASON, &reason);
        if (r.start == LDAP_SECURE_CONNECT_FAILED) {
            EXPECT_TRUE(reason == handshake && std::string(why).find("Certificate verification failed") == 0) << why;
        }
        EXPECT_EQ(BindAndSearch(ld), r.after);
        char *values[] = {const_cast<char *>("via StartTLS"), nullptr};
        LDAPMod mod{LDAP_MOD_REPLACE, const_cast<char *>("description"), {values}}, *mods[] = {&mod, nullptr};
        EXPECT_EQ(ldap_modify_s(ld, ("uid=user000," + kPeople).c_str(), mods), r.after == LDAP_SERVER_DOWN ? r.after : 0);
        EXPECT_EQ(ldap_end_tls_s_np(ld), 0);
        ld = ldap_init(r.server.url().c_str(), 0);
        EXPECT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0);
        ldap_unbind(ld);
    }
}

// A peer that agrees to StartTLS, answers the handshake with a fatal alert
// and goes on listening: not one byte of the bind that follows reaches it.
TEST(StartTls, NothingInClearAfterAFailedHandshake)
{
    ASSERT_LE(Init(), LDAP_SECURE_INIT_DONE);
    LoopbackListener peer;
    std::string seen;
    std::thread server([&] {
        ScopedFd c = peer.Accept(10000);
        const unsigned char agree[] = {0x30, 0x0C, 0x02, 0x01, 0x01, 0x78, 0x07, 0x0A, 0x01, 0x00, 0x04, 0x00, 0x04, 0x00};
        const unsigned char alert[] = {0x15, 0x03, 0x03, 0x00, 0x02, 0x02, 0x28}; // fatal handshake_failure
        char buf[4096];
        for (const auto &[answer, size] : {std::pair{agree, sizeof agree}, std::pair{alert, sizeof alert}})
            if (read(c.get(), buf, sizeof buf) <= 0 || write(c.get(), answer, size) != static_cast<ssize_t>(size))
                return;
        struct pollfd in = {c.get(), POLLIN, 0};
        for (ssize_t n; poll(&in, 1, 5000) == 1 && (n = read(c.get(), buf, sizeof buf)) > 0;)
            seen.append(buf, static_cast<size_t>(n));
    });
    LDAP *ld = ldap_init(("127.0.0.1:" + std::to_string(peer.port())).c_str(), 0);
    EXPECT_EQ(ldap_start_tls_s_np(ld, nullptr), LDAP_SECURE_CONNECT_FAILED);
    EXPECT_EQ(ldap_simple_bind_s(ld, "cn=probe", "probe-secret"), LDAP_SERVER_DOWN);
    ldap_unbind(ld);
    server.join();
    EXPECT_EQ(seen.find("probe"), std::string::npos);
}

// A 10,000-entry result and a 1 MB value, both far beyond one TLS record,
// over one secure connection.
TEST(TlsBulk, LargeResultsAndValues)
{
    ZLDAP_REQUIRE_SLAPD(Good());
    ASSERT_LE(Init(), LDAP_SECURE_INIT_DONE);
    LDAP *ld = ldap_init(Good().ldaps_url().c_str(), 0);
    ASSERT_EQ(ldap_simple_bind_s(ld, Slapd::kRootDn, Slapd::kRootPassword), 0);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_s(ld, "ou=bulk,dc=example,dc=com", LDAP_SCOPE_ONELEVEL, "(cn=*)", nullptr, 0, &res), 0);
    EXPECT_EQ(ldap_count_entries(ld, res), 10000);
    ldap_msgfree(res);
    std::string big(1 << 20, 'x');
    big.replace(big.size() / 2, 5, "-mid-");
    char *oc[] = {const_cast<char *>("person"), nullptr}, *sn[] = {big.data(), nullptr};
    LDAPMod m_oc{LDAP_MOD_ADD, const_cast<char *>("objectClass"), {oc}}, m_sn{LDAP_MOD_ADD, const_cast<char *>("sn"), {sn}};
    LDAPMod *mods[] = {&m_oc, &m_sn, nullptr};
    const char *dn = "cn=big,ou=scratch,dc=example,dc=com";
    ASSERT_EQ(ldap_add_s(ld, dn, mods), 0);
    ASSERT_EQ(ldap_search_s(ld, dn, LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, &res), 0);
    char **got = ldap_get_values(ld, ldap_first_entry(ld, res), "sn");
    EXPECT_TRUE(got && got[0] == big);
    ldap_value_free(got);
    ldap_msgfree(res);
    EXPECT_EQ(ldap_delete_s(ld, dn), 0);
    ldap_unbind(ld);
}

// A peer that accepts and never answers fails the handshake after the
// handshake time-out (0.8 s here; 5 s by default).
TEST(TlsTimeouts, SilentPeerDuringTheHandshake)
{
    ScopedEnv wait("QVA_SSL_CLIENT_HANDSHAKE_TIMEOUT_MILLISECS", "800");
    LoopbackListener silent;
    ZLDAP_IN_FRESH_PROCESS({
        ASSERT_EQ(Init(), 0);
        LDAP *ld = ldap_ssl_session_init("127.0.0.1", silent.port(), nullptr);
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(ldap_simple_bind_s(ld, "", ""), LDAP_SERVER_DOWN);
        double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        int reason = 0;
        ldap_get_option(ld, LDAP_OPT_SECURE_REASON, &reason);
        EXPECT_EQ(reason, LDAP_SECURE_CONNECT_FAILED);
        EXPECT_TRUE(took >= 0.7 && took < 4.0) << took << " s: well below the default 5 s, even on a loaded machine";
        ldap_unbind(ld);
    });
}

// A server that stops after the handshake: the read waits no longer than
// the caller's time-out, and the connection carries on once it answers.
TEST(TlsTimeouts, SilentPeerAfterTheHandshake)
{
    ScopedEnv data("QVA_SSL_DATA_TIMEOUT", "1");
    Slapd &server = Server("server"); // started again in the fresh process, which stops it
    ZLDAP_REQUIRE_SLAPD(server);
    ZLDAP_IN_FRESH_PROCESS({
        ASSERT_EQ(Init(), 0);
        LDAP *ld = ldap_init(server.ldaps_url().c_str(), 0);
        ASSERT_EQ(ldap_simple_bind_s(ld, Slapd::kRootDn, Slapd::kRootPassword), 0);
        kill(server.pid(), SIGSTOP);
        waitpid(server.pid(), nullptr, WUNTRACED); // stopped for sure, not about to answer
        LDAPMessage *res = nullptr;
        struct timeval wait {1, 0};
        auto start = std::chrono::steady_clock::now();
        int rc = ldap_search_st(ld, kPeople.c_str(), LDAP_SCOPE_ONELEVEL, "(uid=*)", nullptr, 0, &wait, &res);
        double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        kill(server.pid(), SIGCONT);
        EXPECT_EQ(rc, LDAP_TIMEOUT);
        EXPECT_TRUE(took >= 0.9 && took < 6.0) << took << " s: the time-out and one data time-out, with room";
        EXPECT_EQ(BindAndSearch(ld), 0);
        ldap_unbind(ld);
    });
}

// Two servers of one suffix: the first refers to the second's users by an
// ldaps URL only or by an ldap URL only. A secure session follows only the
// first, a plain one only the second; a URL search never goes plain to an
// ldaps address.
const int kPortB = RefusedPort().port(), kLdapsB = RefusedPort().port();

Slapd &Referring()
{
    static Slapd b(SlapdData{.people = 3, .port = kPortB, .tls_cert = "server", .ldaps_port = kLdapsB});
    auto url = [](const char *scheme, int port) { return std::string(scheme) + "://127.0.0.1:" + std::to_string(port) + "/" + kPeople; };
    static Slapd a(SlapdData{.people = 0,
                             .ldif = ReferralLdif("ou=sonly,dc=example,dc=com", url("ldaps", kLdapsB)) +
                                     ReferralLdif("ou=ponly,dc=example,dc=com", url("ldap", kPortB)),
                             .tls_cert = "server"});
    return b.running() ? a : b;
}

TEST(TlsReferrals, KeepTheSessionsSecurity)
{
    ZLDAP_REQUIRE_SLAPD(Referring());
    ASSERT_LE(Init(), LDAP_SECURE_INIT_DONE);
    const struct {
        bool secure;
        std::string base;
        int rc, entries;
    } rows[] = {{true, "ou=sonly,dc=example,dc=com", 0, 3}, {true, "ou=ponly,dc=example,dc=com", 0, 0},
                {false, "ou=sonly,dc=example,dc=com", 0, 0}, {false, "ou=ponly,dc=example,dc=com", 0, 3},
                {false, "ldaps://127.0.0.1:" + std::to_string(kLdapsB) + "/" + kPeople + "??one", LDAP_SECURE_CONNECT_FAILED, 0}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.base + (r.secure ? " secure" : " plain"));
        LDAP *ld = ldap_init((r.secure ? Referring().ldaps_url() : Referring().url()).c_str(), 0);
        LDAPMessage *res = nullptr;
        int rc = ldap_is_ldap_url(r.base.c_str()) ? zor_ldap_url_search_st(ld, r.base.c_str(), 0, nullptr, &res)
                                                  : ldap_search_s(ld, r.base.c_str(), LDAP_SCOPE_SUBTREE, "(uid=*)", nullptr, 0, &res);
        EXPECT_EQ(rc, r.rc);
        EXPECT_EQ(res ? ldap_count_entries(ld, res) : 0, r.entries);
        ldap_msgfree(res);
        ldap_unbind(ld);
    }
}

} // namespace
