// slapd_fixture.cpp - configuration, data, start and stop of the test slapd.
#include "slapd_fixture.h"

#include "ldif.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace zldap_test {

namespace {

constexpr const char *kSlapd = "/usr/sbin/slapd";
constexpr const char *kSlapadd = "/usr/sbin/slapadd";

int FreeLoopbackPort()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    int port = 0;
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    if (fd >= 0)
        close(fd);
    return port;
}

bool Answers(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    if (fd >= 0)
        close(fd);
    return ok;
}

// Runs a program to completion with its output in `log`; its exit status.
int Run(const std::vector<std::string> &argv, const std::string &log)
{
    pid_t pid = fork();
    if (pid == 0) {
        int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (out >= 0) {
            dup2(out, 1);
            dup2(out, 2);
        }
        std::vector<char *> args;
        for (const std::string &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Config(const std::string &dir)
{
    std::ostringstream c;
    c << "include /etc/ldap/schema/core.schema\n"
         "include /etc/ldap/schema/cosine.schema\n"
         "include /etc/ldap/schema/inetorgperson.schema\n"
      << "pidfile " << dir << "/slapd.pid\n"
      << "modulepath /usr/lib/ldap\nmoduleload back_mdb\n"
         "sizelimit unlimited\n"
         "database mdb\nmaxsize 268435456\n"
      << "suffix \"" << Slapd::kBase << "\"\n"
      << "rootdn \"" << Slapd::kRootDn << "\"\n"
      << "rootpw " << Slapd::kRootPassword << "\n"
      << "directory " << dir << "/db\n"
      // Users may change their own password (the password modify operation).
      << "access to attrs=userPassword by self write by * auth\n"
      << "access to * by dn.exact=\"" << Slapd::kRootDn << "\" write by * read\n";
    return c.str();
}

std::string Data(const SlapdData &data)
{
    std::ostringstream l;
    l << "dn: dc=example,dc=com\nobjectClass: dcObject\nobjectClass: organization\no: Example\ndc: example\n\n"
         "dn: ou=people,dc=example,dc=com\nobjectClass: organizationalUnit\nou: people\n\n"
         "dn: ou=groups,dc=example,dc=com\nobjectClass: organizationalUnit\nou: groups\n\n"
         "dn: ou=special,dc=example,dc=com\nobjectClass: organizationalUnit\nou: special\n\n"
         "dn: ou=scratch,dc=example,dc=com\nobjectClass: organizationalUnit\nou: scratch\n\n";
    for (int i = 0; i < data.people; i++) {
        char uid[16];
        std::snprintf(uid, sizeof uid, "user%03d", i);
        l << "dn: uid=" << uid << ",ou=people,dc=example,dc=com\n"
          << "objectClass: inetOrgPerson\nuid: " << uid << "\ncn: User " << i << "\nsn: Number" << i << "\n"
          << "mail: " << uid << "@example.com\nmail: " << uid << "@mail.example.com\n"
          << "telephoneNumber: +1 555 " << 1000 + i << "\n"
          << "employeeNumber: " << i << "\n";
        if (i % 10 == 0) {
            std::string photo("\x89PNG\0\0\x01\x02", 8);
            photo += std::string(1, static_cast<char>(i % 256)) + std::string("\0end", 4);
            l << "jpegPhoto:: " << ldif::base64_encode(photo) << "\n";
        }
        l << "\n";
    }
    l << "dn: cn=staff,ou=groups,dc=example,dc=com\nobjectClass: groupOfNames\ncn: staff\n";
    for (int i = 0; i < data.people && i < 5; i++) {
        char uid[16];
        std::snprintf(uid, sizeof uid, "user%03d", i);
        l << "member: uid=" << uid << ",ou=people,dc=example,dc=com\n";
    }
    l << "\n";
    std::vector<std::string> names = Slapd::EscapedNames();
    std::vector<std::string> dns = Slapd::EscapedDns();
    for (size_t i = 0; i < dns.size(); i++)
        l << "dn:: " << ldif::base64_encode(dns[i]) << "\nobjectClass: person\ncn:: " << ldif::base64_encode(names[i]) << "\nsn: special\n\n";
    if (data.bulk > 0) {
        l << "dn: ou=bulk,dc=example,dc=com\nobjectClass: organizationalUnit\nou: bulk\n\n";
        for (int i = 0; i < data.bulk; i++)
            l << "dn: cn=bulk" << i << ",ou=bulk,dc=example,dc=com\nobjectClass: person\ncn: bulk" << i
              << "\nsn: Bulk\ndescription: entry " << i << " of the large subtree\ntelephoneNumber: " << i << "\n\n";
    }
    return l.str();
}

} // namespace

std::vector<std::string> Slapd::EscapedDns()
{
    return {"cn=Smith\\, John,ou=special,dc=example,dc=com", "cn=a\\+b,ou=special,dc=example,dc=com",
            "cn=\\\"quoted\\\",ou=special,dc=example,dc=com", "cn=back\\\\slash,ou=special,dc=example,dc=com",
            "cn=\\#hash,ou=special,dc=example,dc=com", "cn=J\xC3\xBCrgen,ou=special,dc=example,dc=com"};
}

std::vector<std::string> Slapd::EscapedNames()
{
    return {"Smith, John", "a+b", "\"quoted\"", "back\\slash", "#hash", "J\xC3\xBCrgen"};
}

bool Slapd::Available() { return access(kSlapd, X_OK) == 0 && access(kSlapadd, X_OK) == 0; }

Slapd::Slapd(const SlapdData &data) : data_(data)
{
    if (Available() && Setup())
        Launch();
}

Slapd::~Slapd() { Stop(); }

bool Slapd::Setup()
{
    std::string dir = dir_.path();
    if (mkdir((dir + "/db").c_str(), 0700) != 0) {
        error_ = "cannot make the database directory";
        return false;
    }
    std::ofstream(dir + "/slapd.conf") << Config(dir);
    std::ofstream(dir + "/data.ldif") << Data(data_);
    if (Run({kSlapadd, "-q", "-f", dir + "/slapd.conf", "-l", dir + "/data.ldif"}, dir + "/slapadd.log") != 0) {
        error_ = "slapadd failed: " + ReadFile(dir + "/slapadd.log");
        return false;
    }
    return true;
}

bool Slapd::Launch()
{
    std::string dir = dir_.path();
    for (int attempt = 0; attempt < 5 && pid_ < 0; attempt++) {
        port_ = FreeLoopbackPort();
        std::string listen = "ldap://127.0.0.1:" + std::to_string(port_) + "/";
        pid_t pid = fork();
        if (pid == 0) {
            int out = open((dir + "/slapd.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (out >= 0) {
                dup2(out, 1);
                dup2(out, 2);
            }
            // -d keeps slapd in the foreground, so that this pid is the server's.
            execl(kSlapd, "slapd", "-f", (dir + "/slapd.conf").c_str(), "-h", listen.c_str(), "-d", "0",
                  static_cast<char *>(nullptr));
            _exit(127);
        }
        if (pid < 0)
            break;
        // Up to 10 s for a loaded machine to bring the server up.
        for (int i = 0; i < 200; i++) {
            if (Answers(port_)) {
                pid_ = pid;
                return true;
            }
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid)
                break; // it exited: the port may have been taken meanwhile
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (pid_ < 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    error_ = "slapd did not start: " + ReadFile(dir + "/slapd.log");
    return false;
}

void Slapd::Stop()
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

Slapd &SharedSlapd()
{
    // Destroyed at exit, which stops the server by its pid.
    static Slapd server;
    return server;
}

} // namespace zldap_test
