// server_location_test.cpp - service lookups against a real name server:
// a dnsmasq with SRV, TXT and CNAME records on a loopback port, named in
// the requests (or in a resolver file given by path), so that the
// machine's own resolver is never asked.
#include "core/ldap_session.h"
#include "dns_test_support.h"
#include "dnsmasq_fixture.h"
#include "slapd_fixture.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace {

using zldap::DnsTransport;
namespace dns = zldap_test::dns;

std::vector<std::string> Records()
{
    std::vector<std::string> lines = {
        "srv-host=_ldap._tcp.example.com,ldap1.example.com,389,10,5",
        "srv-host=_ldap._tcp.example.com,ldap2.example.com,1389,20,1",
        "srv-host=_ldap._tcp.example.com,ldap3.example.com,3389,10,0",
        "txt-record=ldap1.example.com,\"service:ldaps://ldap1.example.com:1636/o=corp,c=us\",\"ldaptype:master\","
        "\"ldapvendor:Zor\",\"ldapinfo:first\"",
        "txt-record=ldap2.example.com,\"service:ldap://ldap2.example.com/ou=x,o=Corp,c=US?sub\",\"ldaptype:replica\"",
        "txt-record=ldap.tcp.txt.example,\"10 5 389 ldap1\"",
        "txt-record=ldap.tcp.txt.example,\"20\",\"0\",\"636\",\"ldap2.example.org.\"",
        "txt-record=ldap1.txt.example,\"service:LDAPS://h2:1636/o=corp\"",
        "cname=ldap.tcp.cname.example,ldapc.example",
        "txt-record=ldapc.example,\"service:LDAPS://h2:1636/o=corp\"",
        "cname=ldap.tcp.chain.example,hop1.example",
        "cname=hop1.example,hop2.example",
        "txt-record=hop2.example,\"ldapinfo:end\"",
    };
    // More servers than a 512-byte UDP answer holds.
    for (int i = 0; i < 20; i++)
        lines.push_back("srv-host=_ldap._tcp.big.example,server-with-a-long-name-" + std::to_string(i) +
                        ".big.example,389," + std::to_string(i) + ",1");
    return lines;
}

zldap_test::Dnsmasq &Server()
{
    static zldap_test::Dnsmasq server(Records()); // stopped by its pid at exit
    return server;
}

struct Row {
    const char *name;
    dns::LookupRequest request; // name_server filled in by the test
    int rc;
    std::vector<std::string> servers, details;
    int truncated;
};

void PrintTo(const Row &row, std::ostream *os) { *os << row.name; }

dns::LookupRequest Ask(const char *domain, const char *filter = nullptr, const char *service = "_ldap",
                       const char *protocol = "_tcp", int connection_type = 1,
                       DnsTransport transport = DnsTransport::Udp)
{
    return {"", transport, connection_type, 10, filter, service, protocol, domain};
}

const std::vector<std::string> kAllThree = {"ldap1.example.com:389/10/5", "ldap3.example.com:3389/10/0",
                                            "ldap2.example.com:1389/20/1"};

const Row kRows[] = {
    {"SrvByPriorityAndWeightWithHostInformation", Ask("example.com"), 0, kAllThree,
     {"2 1 o=corp,c=us Zor first", "0 0 - - -", "1 2 ou=x,o=Corp,c=US - -"}, 0},
    {"SrvOverTcp", Ask("example.com", nullptr, "_ldap", "_tcp", 2, DnsTransport::Tcp), 0, kAllThree, {}, 0},
    {"DnFilterKeepsSuffixesUnderIt", Ask("example.com", "o=corp, c=us"), 0,
     {"ldap1.example.com:389/10/5", "ldap2.example.com:1389/20/1"}, {}, 0},
    {"DnFilterBelowEverySuffix", Ask("example.com", "ou=y,o=corp,c=us"), 0, {}, {}, 0},
    {"TxtServiceRecords", Ask("txt.example", nullptr, "ldap", "tcp"), 0,
     {"h2:389/10/5", "ldap2.example.org:636/20/0"}, {"2 0 o=corp - -", "0 0 - - -"}, 0},
    {"CnameTargetTakesPortFromUrl", Ask("cname.example", nullptr, "ldap", "tcp"), 0, {"h2:1636/0/0"},
     {"2 0 o=corp - -"}, 0},
    {"CnameChain", Ask("chain.example", nullptr, "ldap", "tcp"), 0,
     {"hop1.example:389/0/0", "hop2.example:389/0/0"}, {"0 0 - - end", "0 0 - - end"}, 0},
    {"UnknownNameIsResponseCode", Ask("nothing.example"), -1, {}, {}, 0},
    {"TruncatedUdpAskedAgain", Ask("big.example", nullptr, "_ldap", "_tcp", 0), LDAP_DNS_TRUNCATED, {}, {}, 0},
};

class Dnsmasq : public testing::TestWithParam<Row> {};

TEST_P(Dnsmasq, Lookup)
{
    ZLDAP_REQUIRE_DNSMASQ(Server());
    const Row &row = GetParam();
    dns::LookupRequest request = row.request;
    request.name_server = Server().name_server();
    dns::LookupOutcome out = dns::Lookup(request);
    EXPECT_EQ(out.rc, row.rc);
    EXPECT_EQ(out.servers, row.servers);
    if (!row.details.empty()) {
        EXPECT_EQ(out.details, row.details);
    }
    EXPECT_EQ(out.truncated, row.truncated);
}

INSTANTIATE_TEST_SUITE_P(Rows, Dnsmasq, testing::ValuesIn(kRows),
                         [](const auto &info) { return std::string(info.param.name); });

// A truncated UDP answer is kept (and counted) over UDP only; over TCP the
// whole answer arrives.
TEST(DnsmasqTruncation, UdpKeepsWhatArrivedTcpGetsAll)
{
    ZLDAP_REQUIRE_DNSMASQ(Server());
    dns::LookupRequest udp = Ask("big.example");
    udp.name_server = Server().name_server();
    dns::LookupOutcome partial = dns::Lookup(udp);
    EXPECT_EQ(partial.rc, 0);
    EXPECT_EQ(partial.truncated, 1);
    EXPECT_GT(partial.servers.size(), 0u);
    EXPECT_LT(partial.servers.size(), 20u);

    dns::LookupRequest tcp = Ask("big.example", nullptr, "_ldap", "_tcp", 0, DnsTransport::Tcp);
    tcp.name_server = Server().name_server();
    dns::LookupOutcome whole = dns::Lookup(tcp);
    EXPECT_EQ(whole.rc, 0);
    EXPECT_EQ(whole.truncated, 0);
    ASSERT_EQ(whole.servers.size(), 20u);
    for (int i = 0; i < 20; i++)
        EXPECT_EQ(whole.servers[i], "server-with-a-long-name-" + std::to_string(i) + ".big.example:389/" +
                                        std::to_string(i) + "/1");
}

// The name server and domains come from a resolver file given by path, or
// the domain from LOCALDOMAIN; every domain is then asked in turn.
TEST(DnsmasqSearchLists, ResolverFileAndLocalDomain)
{
    ZLDAP_REQUIRE_DNSMASQ(Server());
    zldap_test::TempDir dir;
    std::ofstream(dir.file("resolv.conf")) << "nameserver " << Server().name_server()
                                           << "\nsearch nothing.example example.com\n";
    const struct {
        std::optional<std::string> localdomain;
        std::vector<int> codes;
        size_t servers;
    } rows[] = {{std::nullopt, {-1, 0}, 3}, {"example.com", {0}, 3}};
    for (const auto &row : rows) {
        zldap_test::ScopedEnv env("LOCALDOMAIN", row.localdomain);
        server_request request{};
        request.connection_type = 1;
        request.connection_timeout = 10;
        zldap::DnsSearchLists lists;
        ASSERT_EQ(zldap::dns_settle_search_lists(&request, dir.file("resolv.conf").c_str(), "h", &lists), 0);
        zldap::DnsQueryState q;
        zldap::dns_state_reset(&q, &request);
        std::vector<int> codes;
        for (char **domain = lists.domains; *domain; domain++)
            codes.push_back(zldap::dns_lookup_service(&q, "_ldap", "_tcp", *domain, lists.name_servers[0],
                                                      DnsTransport::Udp));
        EXPECT_EQ(codes, row.codes);
        EXPECT_EQ(dns::Servers(q.results).size(), row.servers);
        zldap::dns_state_release(&q);
        zldap::dns_search_lists_free(&lists);
    }
}

// ldap_init given a URL without a host finds the server that holds its DN
// through the SRV records and the servers' own text records, skipping a
// preferred server of another suffix, and the search reaches it.
TEST(DnsmasqLocate, InitConnectsToTheServerOfItsDn)
{
    zldap_test::Slapd &slapd = zldap_test::SharedSlapd();
    ZLDAP_REQUIRE_SLAPD(slapd);
    const std::string host = slapd.host(), port = host.substr(host.find(':') + 1);
    zldap_test::Dnsmasq server({
        "srv-host=_ldap._tcp.example.com,ldap1.example.com," + port + ",10,5",
        "srv-host=_ldap._tcp.example.com,ldap0.example.com,1,5,5",
        "txt-record=ldap1.example.com,\"service:ldap://127.0.0.1/dc=example,dc=com\"",
        "txt-record=ldap0.example.com,\"service:ldap://127.0.0.1/o=other\"",
    });
    ZLDAP_REQUIRE_DNSMASQ(server);
    zldap_test::ScopedLocateFiles files;
    std::ofstream(files.resolv_conf) << "nameserver " << server.name_server() << "\n";
    zldap_test::ScopedEnv domain("LOCALDOMAIN", "example.com");

    LDAP *ld = ldap_init("ldap:///dc=example,dc=com", 0);
    ASSERT_NE(ld, nullptr);
    EXPECT_STREQ(ld->ld_defhost, host.c_str());
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_st(ld, slapd.kBase, LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, nullptr, &res), 0);
    EXPECT_EQ(ldap_count_entries(ld, res), 1);
    ldap_msgfree(res);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

} // namespace
