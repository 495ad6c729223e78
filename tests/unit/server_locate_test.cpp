// server_locate_test.cpp - the weighted order within a priority, the
// configuration file as a cache of earlier answers (written, read back,
// expired, malformed) and the host lists made from it.
#include "base/memory.h"
#include "dns/server_list.h"
#include "dns_test_support.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>

namespace {

using zldap_test::DnsPeer;
using zldap_test::DnsQuery;
namespace dns = zldap_test::dns;

// Servers a, b, c, ... of the given priority/weight pairs; the share of
// each order over 4000 fixed seeds.
TEST(ServerOrder, PriorityThenWeightedDraw)
{
    const struct {
        std::vector<std::pair<int, int>> servers;
        std::map<std::string, double> shares;
    } rows[] = {
        {{{10, 1}, {10, 3}, {10, 0}, {5, 0}, {20, 7}}, {{"dbace", 0.75}, {"dabce", 0.25}}},
        {{{1, 1}, {1, 1}, {1, 2}},
         {{"cab", .25}, {"cba", .25}, {"acb", 1 / 6.}, {"bca", 1 / 6.}, {"abc", 1 / 12.}, {"bac", 1 / 12.}}},
        {{{1, 0}, {1, 0}}, {{"ab", 1}}},
    };
    for (const auto &row : rows) {
        std::map<std::string, double> seen;
        for (unsigned seed = 0; seed < 4000; seed++) {
            server_info *list = nullptr;
            for (size_t i = 0; i < row.servers.size(); i++)
                zldap::server_list_insert(&list, zldap::server_info_new(std::string(1, char('a' + i)).c_str(), 389,
                                                                        row.servers[i].first, row.servers[i].second,
                                                                        "s", "d"));
            zldap::server_list_order_by_weight(&list, seed);
            std::string order;
            for (const server_info *s = list; s; s = s->next)
                order += s->host;
            seen[order] += 1 / 4000.;
            zldap::server_list_free(list);
        }
        ASSERT_EQ(seen.size(), row.shares.size());
        for (const auto &[order, share] : row.shares)
            EXPECT_NEAR(seen[order], share, 0.03) << order;
    }
}

// Request for _ldap._tcp in example.com from the configuration file only
// (name_server empty) or from it and the name server.
struct Request {
    explicit Request(std::string name_server) : name_server(std::move(name_server))
    {
        request.search_source = this->name_server.empty() ? 1 : 0;
        request.name_servers = this->name_server.empty() ? nullptr : servers;
        request.dns_domains = domains;
        request.service_key = const_cast<char *>("_ldap");
        request.protocol = const_cast<char *>("_tcp");
        request.connection_type = 1;
        request.connection_timeout = 5;
    }
    std::string name_server;
    char *servers[2] = {name_server.data(), nullptr};
    char *domains[2] = {const_cast<char *>("example.com"), nullptr};
    server_request request{};
};

std::pair<int, std::vector<std::string>> Locate(server_request *request)
{
    server_info *list = nullptr;
    int rc = ldap_server_locate(request, &list);
    std::vector<std::string> servers = dns::Servers(list);
    EXPECT_EQ(ldap_server_free_list(list), 0);
    return {rc, servers};
}

TEST(ServerCache, SavedListIsAskedInsteadOfDnsUntilItExpires)
{
    zldap_test::ScopedLocateFiles files;
    DnsPeer peer([](const DnsQuery &q) {
        std::vector<zldap_test::Bytes> records;
        if (q.type == 255)
            records = {dns::Srv(q.name, 1, 1, 389, "dns.example.com")};
        return std::vector<zldap_test::Bytes>{dns::Answer(q.id, 0x8180, q.name, q.type, records)};
    });
    ASSERT_TRUE(peer.ok());
    Request r(peer.name_server());
    server_info *list = nullptr;
    for (auto [host, priority] : {std::pair{"late", 9}, {"early", 2}}) {
        server_info *s = zldap::server_info_new(host, 636, priority, 1, "_ldap", "example.com");
        s->suffix = zldap::mem_strdup("o=\"q\\\",c=x");
        zldap::server_list_insert(&list, s);
    }
    ASSERT_EQ(ldap_server_cache_save(nullptr, 3600, list), 0);
    const std::string saved = zldap_test::ReadFile(files.server_conf);
    const std::vector<std::string> cached = {"early:636/2/1", "late:636/9/1"};
    const struct {
        const char *expiry; // nullptr: as saved
        std::vector<std::string> servers;
        int queries;
    } rows[] = {{"1", {"dns.example.com:389/1/1"}, 2}, {"0", cached, 0}, {nullptr, cached, 0}};
    for (const auto &row : rows) {
        const std::string expiry = row.expiry ? "\n" + std::string(row.expiry) + "\n" : "";
        std::ofstream(files.server_conf) << (row.expiry ? std::regex_replace(saved, std::regex("\n[0-9]+\n"), expiry)
                                                        : saved);
        int before = peer.queries();
        EXPECT_EQ(Locate(&r.request), std::pair(0, row.servers));
        EXPECT_EQ(peer.queries() - before, row.queries);
    }
    // Texts come back as they were saved.
    r.request.search_source = 1;
    server_info *back = nullptr;
    ASSERT_EQ(ldap_server_locate(&r.request, &back), 0);
    EXPECT_STREQ(back->suffix, list->suffix);
    ldap_server_free_list(back);
    ldap_server_free_list(list);
}

TEST(ServerCache, LinesAndHostLists)
{
    const struct {
        const char *file; // nullptr: none
        int rc;
        const char *plain, *ssl;
    } rows[] = {
        {"0\n_ldap EXAMPLE.com h1 1 2 3 4 1 \"o=x\"\n  # note\n_ldap example.com h2 1 0 636 0 2\n"
         "_ldap example.com h3 0 0 0\n",
         0, "h3 h1:3", "h3 h2:636"},
        {"\n# only a comment\n", LDAP_DNS_SERVERS_FOUND},
        {"0\n_ldap example.com h \"v\"\n", LDAP_DNS_CONFIG_ERROR},         // a text where a number goes
        {"0\n_ldap example.com\n", LDAP_DNS_CONFIG_ERROR},                // no host
        {"0\n_ldap example.com h 70000\n", LDAP_DNS_CONFIG_ERROR},        // past 16 bits
        {"0\n_ldap example.com h 1 2 3 4 5 \"open\n", LDAP_DNS_CONFIG_ERROR},
        {"0\n_ldap example.com h 1 2 3 4 5 \"\" \"\" \"\" x\n", LDAP_DNS_CONFIG_ERROR},
        {"soon\n", LDAP_DNS_CONFIG_ERROR},
        {"1\n_ldap example.com h\n", LDAP_DNS_CONFIG_ERROR}, // expired
        {nullptr, LDAP_DNS_CONFIG_ERROR},
    };
    for (const auto &row : rows) {
        zldap_test::ScopedLocateFiles files;
        if (row.file)
            std::ofstream(files.server_conf) << row.file;
        Request r("");
        EXPECT_EQ(Locate(&r.request).first, row.rc) << (row.file ? row.file : "no file");
        for (auto [ssl, want] : {std::pair{0, row.plain}, {1, row.ssl}}) {
            char *hosts = auto_server_locate(&r.request, ssl);
            EXPECT_STREQ(hosts, want);
            ldap_memfree(hosts);
        }
    }
}

} // namespace
