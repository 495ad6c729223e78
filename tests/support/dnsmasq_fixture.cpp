// dnsmasq_fixture.cpp - configuration, start and stop of the test dnsmasq.
#include "dnsmasq_fixture.h"

#include "loopback.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sys/wait.h>
#include <thread>
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
        // Built before the fork: the child only calls what is safe there.
        const std::string conf_option = "--conf-file=" + conf;
        const std::string log_option = "--log-facility=" + log;
        pid_t pid = fork();
        if (pid == 0) {
            int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (fd >= 0) {
                dup2(fd, 1);
                dup2(fd, 2);
            }
            // In the foreground, so that this pid is the server's.
            execl(kDnsmasq, kDnsmasq, conf_option.c_str(), "--keep-in-foreground", log_option.c_str(),
                  static_cast<char *>(nullptr));
            _exit(127);
        }
        if (pid < 0)
            break;
        // Up to 10 s for a loaded machine to bring the server up; it
        // listens on TCP once its UDP socket is bound as well.
        bool exited = false;
        for (int i = 0; i < 200 && !exited; i++) {
            if (Connects(AF_INET, port_)) {
                pid_ = pid;
                return;
            }
            exited = waitpid(pid, nullptr, WNOHANG) == pid; // the port may have been taken meanwhile
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (!exited) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    error_ = "dnsmasq did not start: " + ReadFile(log);
}

Dnsmasq::~Dnsmasq() { Stop(); }

void Dnsmasq::Stop()
{
    if (pid_ <= 0)
        return;
    kill(pid_, SIGTERM);
    for (int i = 0; i < 100; i++) { // up to 5 s for a clean stop
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

} // namespace zldap_test
