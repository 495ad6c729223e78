// dns_lookup_test.cpp - the name servers and domains of a call (request,
// LOCALDOMAIN, a resolver file, the host name) and lookups against a
// scripted name server: stale ids, host information that fails, silence.
#include "dns_test_support.h"
#include "loopback.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace {

using zldap::DnsTransport;
using zldap_test::Bytes;
using zldap_test::DnsPeer;
using zldap_test::DnsQuery;
namespace dns = zldap_test::dns;

std::vector<std::string> Texts(char **list)
{
    std::vector<std::string> out;
    for (; list && *list; list++)
        out.emplace_back(*list);
    return out;
}

struct ListsRow {
    const char *name;
    std::vector<const char *> servers, domains; // the request's lists
    int search_source;
    std::optional<std::string> localdomain;
    std::optional<std::string> resolv_conf; // nullopt: no such file
    const char *host_name;
    int rc;
    std::vector<std::string> want_servers, want_domains;
};

void PrintTo(const ListsRow &row, std::ostream *os) { *os << row.name; }

const std::string kLongLine = "domain " + std::string(260, 'x') + "nameserver 6.6.6.6\n";

const ListsRow kLists[] = {
    {"RequestListsAsGiven", {"10.0.0.1"}, {"a.example"}, 0, "l.example", std::nullopt, "h", 0, {"10.0.0.1"},
     {"a.example"}},
    {"LocalDomainTakenWhole", {}, {}, 0, "x.example y.example", "nameserver 127.0.0.1\nsearch s.example\n", "h", 0,
     {"127.0.0.1"}, {"x.example y.example"}},
    {"SearchReplacesDomain", {}, {}, 0, std::nullopt,
     "nameserver 127.0.0.1\ndomain a.example\nsearch b.example  c.example\nnameserver ::1\n", "h", 0,
     {"127.0.0.1", "::1"}, {"b.example", "c.example"}},
    {"DomainReplacesSearch", {}, {}, 0, "", "search b.example c.example\ndomain\ta.example \nnameserver 10.1.1.1\n",
     "h", 0, {"10.1.1.1"}, {"a.example"}},
    {"HostNameDomain", {}, {}, 0, std::nullopt, "nameservers 9.9.9.9\nnameserver 10.1.1.1\n", "h.corp.example", 0,
     {"10.1.1.1"}, {"corp.example"}},
    {"OverlongLineCut", {}, {}, 0, std::nullopt, kLongLine + "nameserver 10.1.1.1\n", "h", 0, {"10.1.1.1"},
     {std::string(248, 'x')}},
    {"HostNameWithoutDot", {}, {}, 0, std::nullopt, "nameserver 10.1.1.1\n", "h", LDAP_DNS_NO_DOMAIN, {}, {}},
    {"HostNameEndingInDot", {}, {}, 0, std::nullopt, "nameserver 10.1.1.1\n", "h.", LDAP_DNS_NO_DOMAIN, {}, {}},
    {"NoFileWhileServersWanted", {}, {"a.example"}, 0, std::nullopt, std::nullopt, "h", LDAP_DNS_NO_DOMAIN, {}, {}},
    {"NoNameServerInFile", {}, {"a.example"}, 2, std::nullopt, "domain d.example\n", "h", LDAP_DNS_NO_DOMAIN, {}, {}},
    {"NoFileWithServersGiven", {"10.0.0.1"}, {}, 0, std::nullopt, std::nullopt, "h.d.example", 0, {"10.0.0.1"},
     {"d.example"}},
    {"ConfigurationOnly", {}, {}, 1, std::nullopt, "nameserver 10.1.1.1\ndomain d.example\n", "h", 0,
     {"dummyServer"}, {"d.example"}},
};

class SearchLists : public testing::TestWithParam<ListsRow> {};

TEST_P(SearchLists, FromRequestEnvironmentFileAndHostName)
{
    const ListsRow &row = GetParam();
    zldap_test::TempDir dir;
    const std::string path = dir.file("resolv.conf");
    if (row.resolv_conf)
        std::ofstream(path) << *row.resolv_conf;
    zldap_test::ScopedEnv env("LOCALDOMAIN", row.localdomain);
    std::vector<const char *> servers = row.servers, domains = row.domains;
    servers.push_back(nullptr);
    domains.push_back(nullptr);
    server_request request{};
    request.search_source = row.search_source;
    request.name_servers = row.servers.empty() ? nullptr : const_cast<char **>(servers.data());
    request.dns_domains = row.domains.empty() ? nullptr : const_cast<char **>(domains.data());
    zldap::DnsSearchLists lists;
    EXPECT_EQ(zldap::dns_settle_search_lists(&request, path.c_str(), row.host_name, &lists), row.rc);
    EXPECT_EQ(Texts(lists.name_servers), row.want_servers);
    EXPECT_EQ(Texts(lists.domains), row.want_domains);
    zldap::dns_search_lists_free(&lists);
}

INSTANTIATE_TEST_SUITE_P(Rows, SearchLists, testing::ValuesIn(kLists),
                         [](const auto &info) { return std::string(info.param.name); });

// Scripted answers: the service query gets `service`, every host query `host`.
struct PeerRow {
    const char *name;
    std::function<std::vector<Bytes>(const DnsQuery &)> service, host;
    int rc;
    std::vector<std::string> servers;
};

void PrintTo(const PeerRow &row, std::ostream *os) { *os << row.name; }

const char *const kService = "_ldap._tcp.example.com";
Bytes Refused(const DnsQuery &q) { return dns::Answer(q.id, 0x8185, q.name, q.type, {}); }
Bytes OneSrv(const DnsQuery &q) { return dns::Answer(q.id, 0x8180, q.name, q.type, {dns::Srv(q.name, 1, 1, 389, "s.example.com")}); }

const PeerRow kPeers[] = {
    {"StaleIdSkipped",
     [](const DnsQuery &q) { return std::vector<Bytes>{dns::Answer(q.id - 1, 0x8180, q.name, q.type, {}), OneSrv(q)}; },
     [](const DnsQuery &q) { return std::vector<Bytes>{Refused(q)}; }, 0, {"s.example.com:389/1/1"}},
    {"RefusedHostKeepsServerWithDefaultPort",
     [](const DnsQuery &q) {
         return std::vector<Bytes>{dns::Answer(q.id, 0x8180, q.name, q.type, {dns::Cname(q.name, "c.example.com")})};
     },
     [](const DnsQuery &q) { return std::vector<Bytes>{Refused(q)}; }, 0, {"c.example.com:389/0/0"}},
    {"MalformedHostAnswerEndsLookup", [](const DnsQuery &q) { return std::vector<Bytes>{OneSrv(q)}; },
     [](const DnsQuery &q) {
         Bytes lying = dns::Answer(q.id, 0x8180, q.name, q.type, {});
         lying[7] = 5; // five answers, none there
         return std::vector<Bytes>{lying};
     },
     LDAP_DNS_BAD_DATA, {}},
    {"SilentHostEndsLookup", [](const DnsQuery &q) { return std::vector<Bytes>{OneSrv(q)}; },
     [](const DnsQuery &) { return std::vector<Bytes>{}; }, LDAP_CONNECT_ERROR, {}},
    {"RefusedService", [](const DnsQuery &q) { return std::vector<Bytes>{Refused(q)}; }, nullptr, -1, {}},
    {"NothingFound",
     [](const DnsQuery &q) { return std::vector<Bytes>{dns::Answer(q.id, 0x8180, q.name, q.type, {})}; }, nullptr,
     LDAP_DNS_SERVERS_FOUND, {}},
};

class ScriptedPeer : public testing::TestWithParam<PeerRow> {};

TEST_P(ScriptedPeer, Lookup)
{
    const PeerRow &row = GetParam();
    DnsPeer peer([&](const DnsQuery &q) { return q.name == kService ? row.service(q) : row.host(q); });
    ASSERT_TRUE(peer.ok());
    dns::LookupOutcome out = dns::Lookup({peer.name_server(), DnsTransport::Udp, 1, 1});
    EXPECT_EQ(out.rc, row.rc);
    EXPECT_EQ(out.servers, row.servers);
}

INSTANTIATE_TEST_SUITE_P(Rows, ScriptedPeer, testing::ValuesIn(kPeers),
                         [](const auto &info) { return std::string(info.param.name); });

// A silent name server costs the time-out and 91; a TCP one whose
// connection the kernel accepted, too. Bounds are generous for a loaded
// machine: at least the time-out, far less than the 30 s a hang would be.
TEST(DnsTransport, SilenceTimesOut)
{
    DnsPeer silent([](const DnsQuery &) { return std::vector<Bytes>{}; });
    zldap_test::LoopbackListener listener;
    ASSERT_TRUE(silent.ok() && listener.ok());
    for (auto [server, transport] : {std::pair{silent.name_server(), DnsTransport::Udp},
                                     std::pair{"127.0.0.1#" + std::to_string(listener.port()), DnsTransport::Tcp}}) {
        dns::LookupOutcome out = dns::Lookup({server, transport, 1, 1});
        EXPECT_EQ(out.rc, LDAP_CONNECT_ERROR) << server;
        EXPECT_GE(out.seconds, 0.9);
        EXPECT_LT(out.seconds, 10.0);
    }
}

TEST(DnsTransport, ConnectFailures)
{
    zldap_test::RefusedPort refused;
    const std::pair<std::string, int> rows[] = {
        {"127.0.0.1#" + std::to_string(refused.port()), LDAP_CONNECT_ERROR},
        {"127.0.0.1#", LDAP_LOCAL_ERROR},
        {"127.0.0.1#53x", LDAP_LOCAL_ERROR},
    };
    for (const auto &[server, rc] : rows)
        EXPECT_EQ(dns::Lookup({server, DnsTransport::Tcp, 2, 1}).rc, rc) << server;
}

} // namespace
