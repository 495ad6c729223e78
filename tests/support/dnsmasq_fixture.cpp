// dnsmasq_fixture.cpp - configuration, start and stop of the test dnsmasq.
#include "dnsmasq_fixture.h"

#include "child_process.h"
#include "loopback.h"

#include <fstream>
#include <unistd.h>

namespace zldap_test {

namespace {

constexpr const char *kDnsmasq = "/usr/sbin/dnsmasq";

} // namespace

bool Dnsmasq::Available() { return access(kDnsmasq, X_OK) == 0; }

Dnsmasq::Dnsmasq(const std::vector<std::string> &lines)
{
    if (!Available())
        return;
    const std::string conf = dir_.file("dnsmasq.conf");
    const std::string log = dir_.file("dnsmasq.log");
    for (int attempt = 0; attempt < 5 && pid_ < 0; attempt++) {
        port_ = RefusedPort().port(); // free a moment ago; a retry covers a port taken since
        std::ofstream out(conf);
        out << "port=" << port_ << "\nlisten-address=127.0.0.1\nbind-interfaces\n"
            << "no-resolv\nno-hosts\nno-poll\npid-file=" << dir_.file("dnsmasq.pid") << "\n";
        for (const std::string &line : lines)
            out << line << "\n";
        out.close();
        pid_t pid = Spawn({kDnsmasq, "--conf-file=" + conf, "--keep-in-foreground", "--log-facility=" + log}, log);
        if (pid < 0)
            break;
        // It listens on TCP once its UDP socket is bound as well.
        if (AwaitReady(pid, [&] { return Connects(AF_INET, port_); })) {
            pid_ = pid;
            return;
        }
    }
    error_ = "dnsmasq did not start: " + ReadFile(log);
}

Dnsmasq::~Dnsmasq() { Stop(); }

void Dnsmasq::Stop() { StopChild(&pid_); }

} // namespace zldap_test
