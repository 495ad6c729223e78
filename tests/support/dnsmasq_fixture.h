// dnsmasq_fixture.h - a throw-away dnsmasq for the server location tests:
// its own configuration file (the test's records, no upstream servers,
// no hosts file) in a temporary directory, a free port on 127.0.0.1, and
// a stop by its own pid. Requests name it as "127.0.0.1#<port>", so the
// machine's resolver is never asked.
#ifndef ZLDAP_TEST_DNSMASQ_FIXTURE_H
#define ZLDAP_TEST_DNSMASQ_FIXTURE_H

#include "test_util.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace zldap_test {

class Dnsmasq {
public:
    // Whether this machine has dnsmasq; tests skip without it.
    static bool Available();

    // lines are configuration lines such as
    // "srv-host=_ldap._tcp.example.com,ldap1.example.com,389,10,5".
    explicit Dnsmasq(const std::vector<std::string> &lines);
    ~Dnsmasq();
    Dnsmasq(const Dnsmasq &) = delete;
    Dnsmasq &operator=(const Dnsmasq &) = delete;

    bool running() const { return pid_ > 0; }
    const std::string &error() const { return error_; }
    int port() const { return port_; }
    std::string name_server() const { return "127.0.0.1#" + std::to_string(port_); }

    void Stop();

private:
    TempDir dir_;
    pid_t pid_ = -1;
    int port_ = 0;
    std::string error_;
};

} // namespace zldap_test

#define ZLDAP_REQUIRE_DNSMASQ(server)                                                              \
    do {                                                                                           \
        if (!zldap_test::Dnsmasq::Available())                                                     \
            GTEST_SKIP() << "dnsmasq is not installed (Debian package dnsmasq-base)";              \
        ASSERT_TRUE((server).running()) << (server).error();                                       \
    } while (0)

#endif
