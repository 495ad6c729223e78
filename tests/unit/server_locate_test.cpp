// server_locate_test.cpp - the weighted order within a priority, the
// configuration file as a cache of earlier answers (written, read back,
// expired, malformed) and the host lists made from it.
#include "dns/server_list.h"
#include "dns_test_support.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <tuple>

namespace {

namespace dns = zldap_test::dns;

// Servers a, b, ... of these priority/weight pairs: the share of each
// order over 4000 fixed seeds.
TEST(ServerOrder, PriorityThenWeightedDraw)
{
    const std::pair<std::vector<std::pair<int, int>>, std::map<std::string, double>> rows[] = {
        {{{10, 1}, {10, 3}, {10, 0}, {5, 0}, {20, 7}}, {{"dbace", .75}, {"dabce", .25}}},
        {{{1, 1}, {1, 1}, {1, 2}},
         {{"cab", .25}, {"cba", .25}, {"acb", 1 / 6.}, {"bca", 1 / 6.}, {"abc", 1 / 12.}, {"bac", 1 / 12.}}},
    };
    for (const auto &[servers, shares] : rows) {
        std::map<std::string, double> seen;
        for (unsigned seed = 0; seed < 4000; seed++) {
            server_info *list = nullptr;
            for (size_t i = 0; i < servers.size(); i++)
                zldap::server_list_insert(&list, zldap::server_info_new(std::string(1, char('a' + i)).c_str(), 389,
                                                                        servers[i].first, servers[i].second, "s", "d"));
            zldap::server_list_order_by_weight(&list, seed);
            std::string order;
            for (const server_info *s = list; s; s = s->next)
                order += s->host;
            seen[order] += 1 / 4000.;
            zldap::server_list_free(list);
        }
        for (const auto &[order, share] : shares)
            EXPECT_NEAR(seen[order], share, 0.03) << order;
    }
}

// _ldap._tcp in example.com, from the configuration file and the name
// servers given, or from the file alone without them.
server_request Request(char **name_servers)
{
    static char *domains[] = {const_cast<char *>("example.com"), nullptr};
    return {name_servers ? 0 : 1, nullptr, nullptr, const_cast<char *>("_ldap"), nullptr, name_servers, domains,
            1, 5, nullptr, const_cast<char *>("_tcp")};
}

// The host list of the request, "-" for none.
std::string Hosts(server_request request, int ssl)
{
    char *hosts = auto_server_locate(&request, ssl);
    std::string out = hosts ? hosts : "-";
    ldap_memfree(hosts);
    return out;
}

TEST(ServerCache, SavedListIsAskedInsteadOfDnsUntilItExpires)
{
    zldap_test::ScopedLocateFiles files;
    zldap_test::DnsPeer peer([](const zldap_test::DnsQuery &q) {
        return std::vector(1, dns::Answer(q.id, 0x8180, q.name, q.type, {dns::Srv(q.name, 1, 1, 389, "dns.example")}));
    });
    std::string name_server = peer.name_server();
    char *servers[] = {name_server.data(), nullptr};
    // Read from a file of the test's own, then saved over it.
    std::ofstream(files.server_conf) << "0\n_ldap example.com late 9 1 636 0 0 \"a\\\"b\\\\c\"\n"
                                        "_ldap example.com early 2 1 636\n";
    server_request request = Request(nullptr);
    server_info *list = nullptr;
    ASSERT_EQ(ldap_server_locate(&request, &list), 0);
    ASSERT_EQ(ldap_server_cache_save(nullptr, 3600, list), 0);
    ldap_server_free_list(list);
    const std::string saved = zldap_test::ReadFile(files.server_conf);
    EXPECT_NE(saved.find("\n_ldap example.com late 9 1 636 0 0 \"a\\\"b\\\\c\" \"\" \"\"\n"), std::string::npos);
    // The expiry line: 1 has passed, 0 never comes.
    for (auto [line, hosts, queries] : {std::tuple{"\n1\n", "dns.example:389", 2},
                                          {"\n0\n", "early:636 late:636", 0}, {"", "early:636 late:636", 0}}) {
        std::ofstream(files.server_conf) << (*line ? std::regex_replace(saved, std::regex("\n\\d+\n"), line) : saved);
        int before = peer.queries();
        EXPECT_EQ(Hosts(Request(servers), 0), hosts);
        EXPECT_EQ(peer.queries() - before, queries);
    }
}

TEST(ServerCache, LinesAndHostLists)
{
    const struct { const char *file; int rc; const char *plain = "-", *ssl = "-"; } rows[] = {
        {"0\n_ldap EXAMPLE.com h1 1 2 3 4 1 \"o=x\"\n  # note\n_ldap example.com h2 1 0 636 0 2\n"
         "_ldap example.com h3 0 0 0\n",
         0, "h3 h1:3", "h3 h2:636"},
        {"\n# only a comment\n", LDAP_DNS_SERVERS_FOUND},
        {"0\n_ldap example.com\n", LDAP_DNS_CONFIG_ERROR}, // no host
        {"0\n_ldap example.com h 1 2 3 4 5 \"open\n", LDAP_DNS_CONFIG_ERROR},
        {"0\n_ldap example.com h 1 2 3 4 5 \"\" \"\" \"\" x\n", LDAP_DNS_CONFIG_ERROR},
        {"soon\n", LDAP_DNS_CONFIG_ERROR},
        {nullptr, LDAP_DNS_CONFIG_ERROR}, // no file
    };
    for (const auto &row : rows) {
        zldap_test::ScopedLocateFiles files;
        if (row.file)
            std::ofstream(files.server_conf) << row.file;
        server_request request = Request(nullptr);
        server_info *list = nullptr;
        EXPECT_EQ(ldap_server_locate(&request, &list), row.rc) << (row.file ? row.file : "no file");
        ldap_server_free_list(list);
        EXPECT_EQ(Hosts(request, 0), row.plain);
        EXPECT_EQ(Hosts(request, 1), row.ssl);
    }
}

} // namespace
