// dns_test_support.h - for the server location tests: builders for DNS
// answers written by hand, one service lookup run start to end, and a
// scripted UDP name server for what dnsmasq cannot be made to do
// (malformed and hostile answers, stale ids, silence). The scripted server
// listens on a port of 127.0.0.1; each query goes to the test's script,
// whose answers are sent back as they are.
#ifndef ZLDAP_TEST_DNS_TEST_SUPPORT_H
#define ZLDAP_TEST_DNS_TEST_SUPPORT_H

#include "ber_test_support.h"
#include "dns/ldapdns.h"
#include "dns/server_locate.h"
#include "loopback.h"
#include "test_util.h"

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace zldap_test {

namespace dns {

Bytes U16(unsigned value);
// The name as labels, ended by a zero byte.
Bytes Name(const std::string &dotted);
// A resource record of class IN with the given data.
Bytes Record(const std::string &name, int type, const Bytes &data);
Bytes Srv(const std::string &name, unsigned priority, unsigned weight, unsigned port, const std::string &target);
Bytes Txt(const std::string &name, const std::vector<std::string> &strings);
Bytes Cname(const std::string &name, const std::string &target);
// A response: header (with counts of one question and of the answers
// unless given), the question, the answers.
Bytes Answer(unsigned id, unsigned flags, const std::string &question, int type, const std::vector<Bytes> &answers);

// "host:port/priority/weight" for each server of the list.
std::vector<std::string> Servers(const server_info *list);

// One service lookup (service, protocol and domain in the request's
// place) with a fresh query state.
struct LookupRequest {
    std::string name_server;
    zldap::DnsTransport transport = zldap::DnsTransport::Udp;
    int connection_type = 1;
    int timeout = 10;
    const char *filter = nullptr;
    const char *service = "_ldap";
    const char *protocol = "_tcp";
    const char *domain = "example.com";
};
struct LookupOutcome {
    int rc;
    std::vector<std::string> servers;
    // "sec_flag replica suffix vendor info" for each server ("-" for no text)
    std::vector<std::string> details;
    int truncated;
    double seconds;
};
LookupOutcome Lookup(const LookupRequest &request);

} // namespace dns

// Points server location at files in a temporary directory for one scope,
// none of them there until the test writes it, so that the machine's
// resolver and configuration files are never read.
struct ScopedLocateFiles {
    TempDir dir;
    const std::string resolv_conf = dir.file("resolv.conf"), server_conf = dir.file("servers.conf"),
                      user_info = dir.file("user_info");
    ScopedLocateFiles() { zldap::server_locate_use_files({resolv_conf.c_str(), server_conf.c_str(), user_info.c_str()}); }
    ~ScopedLocateFiles() { zldap::server_locate_use_files({}); }
};

struct DnsQuery {
    unsigned id = 0;
    std::string name;
    int type = 0;
};

class DnsPeer {
public:
    // Returns the messages to send for a query; none means silence.
    using Script = std::function<std::vector<Bytes>(const DnsQuery &)>;

    explicit DnsPeer(Script script);
    ~DnsPeer();
    DnsPeer(const DnsPeer &) = delete;
    DnsPeer &operator=(const DnsPeer &) = delete;

    bool ok() const { return port_ > 0; }
    std::string name_server() const { return "127.0.0.1#" + std::to_string(port_); }
    int queries() const { return queries_.load(); }

private:
    void Serve();

    Script script_;
    ScopedFd udp_;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> queries_{0};
    std::thread thread_;
};

} // namespace zldap_test

#endif
