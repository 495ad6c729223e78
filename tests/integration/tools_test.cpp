// The command-line tools as a user runs them: what they refuse before
// sending anything, how long they may wait, and LDIF applied to slapd.
#include "loopback.h"
#include "slapd_fixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <netinet/in.h>
#include <sys/wait.h>

namespace {

using zldap_test::LoopbackListener;
using zldap_test::ScopedFd;

struct ToolRun {
    int code = -1;
    std::string out, err;
    double seconds = 0;
};

// Runs a tool (the command's first word) through the shell with input on
// its standard input; one that outlives 25 s is killed (exit 137): it
// hangs as far as the tests care.
ToolRun run_tool(const std::string &command, const std::string &input, const zldap_test::TempDir &dir)
{
    bool search = command.rfind("zldapsearch", 0) == 0;
    std::string tool = search ? ZLDAP_ZLDAPSEARCH : ZLDAP_ZLDAPMODIFY;
    std::ofstream(dir.file("stdin")) << input;
    std::string line = "timeout -s KILL 25 " + tool + command.substr(command.find(' ')) + " <" + dir.file("stdin") +
                       " >" + dir.file("stdout") + " 2>" + dir.file("stderr");
    ToolRun run;
    auto start = std::chrono::steady_clock::now();
    int status = std::system(line.c_str());
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = zldap_test::ReadFile(dir.file("stdout"));
    run.err = zldap_test::ReadFile(dir.file("stderr"));
    return run;
}

std::string expand(std::string text, const std::vector<std::pair<std::string, std::string>> &values)
{
    for (const auto &[name, value] : values)
        for (size_t at; (at = text.find(name)) != std::string::npos;)
            text.replace(at, name.size(), value);
    return text;
}

// A connect that the listener's full queue leaves pending.
ScopedFd connect_pending(int port)
{
    ScopedFd fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address);
    return fd;
}

struct ToolCase {
    const char *command; // {silent}: a listener that never answers; {dropping}: one whose queue is full
    const char *input;
    int code;
    const char *err; // part of what the tool says on stderr
};

// Refusals reach no server; the time-outs of 2 s are checked against a
// bound of 20 s, far above them (a tool's own bound here is at most 4 s:
// connect plus operation), because the shared machine may be slow to start
// a process. Without a bound these runs wait for minutes or forever.
TEST(Tools, RefuseBadArgumentsAndStayWithinTheirTimeOuts)
{
    LoopbackListener silent;
    LoopbackListener dropping(AF_INET, 0);
    ASSERT_TRUE(silent.ok() && dropping.ok());
    // With a backlog of 0 the queue holds one connection; SYNs beyond it
    // are dropped, so a connect there waits for the system's retries.
    ScopedFd first = connect_pending(dropping.port()), second = connect_pending(dropping.port());
    const char *search = " -b dc=example,dc=com '(objectclass=*)'";
    const ToolCase cases[] = {
        {"zldapsearch -H ldaps://127.0.0.1:{silent} -D cn=admin -w secret", "", 92, "only ldap:// URLs"},
        {"zldapsearch -H LDAPI://%2Fvar%2Frun%2Fslapd", "", 92, "only ldap:// URLs"},
        {"zldapsearch -h ldaps://127.0.0.1:{silent}", "", 92, "only ldap:// URLs"},
        {"zldapsearch -H 127.0.0.1:{silent}", "", 92, "only ldap:// URLs"},
        {"zldapmodify -H ldaps://127.0.0.1:{silent}", "dn: cn=a\nchangetype: delete\n", 92, "only ldap:// URLs"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -z abc", "", 89, "-z abc: expected a whole number from 0"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -l -1", "", 89, "-l -1: expected a whole number from 0"},
        {"zldapsearch -h 127.0.0.1 -p abc", "", 89, "-p abc: expected a whole number from 1 to 65535"},
        {"zldapsearch -h 127.0.0.1 -p 65536", "", 89, "-p 65536: expected a whole number from 1 to 65535"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -t 0", "", 89, "-t 0: expected a whole number from 1"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -o nettimeout=2x", "", 89, "nettimeout=2x: expected"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -o timeout=2", "", 89, "the only extended option"},
        {"zldapmodify -h 127.0.0.1 -p 0", "dn: cn=a\nchangetype: delete\n", 89, "-p 0: expected"},
        {"zldapmodify -H ldap://127.0.0.1:{silent}",
         "dn: cn=a\nchangetype: modrdn\nnewrdn: cn=b\ndeleteoldrdn: 1\nnewsuperior: o=x\n", 92, "line 5: newsuperior"},
        {"zldapmodify -H ldap://127.0.0.1:{silent}", "dn: cn=a\ndescription: x\nchangetype: delete\n", 89, "line 3:"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -D cn=admin -w secret -t 2", "", 85, "bind: Timed out"},
        {"zldapmodify -H ldap://127.0.0.1:{silent} -t 2", "dn: cn=a\nchangetype: delete\n", 85, "cn=a: Timed out"},
        {"zldapsearch -H ldap://127.0.0.1:{dropping} -t 2", "", 81, "search:"},
        {"zldapsearch -H ldap://127.0.0.1:{dropping} -o nettimeout=2", "", 81, "search:"},
    };
    zldap_test::TempDir dir;
    for (const ToolCase &c : cases) {
        std::string command = expand(c.command, {{"{silent}", std::to_string(silent.port())},
                                                 {"{dropping}", std::to_string(dropping.port())}});
        if (command.rfind("zldapsearch", 0) == 0)
            command += search;
        ToolRun run = run_tool(command, c.input, dir);
        EXPECT_EQ(run.code, c.code) << command << "\n" << run.err;
        EXPECT_NE(run.err.find(c.err), std::string::npos) << command << "\n" << run.err;
        EXPECT_LT(run.seconds, 20) << command;
        if (c.code == 89 || c.code == 92) {
            EXPECT_LT(silent.Accept(0).get(), 0) << command << " connected before refusing";
        }
        silent.Drain();
    }
}

// LDIF as RFC 2849 writes it reaches slapd as meant, one step after the
// other: each row's command runs against the server's state the rows
// before it left.
TEST(Tools, ApplyLdifAsWritten)
{
    zldap_test::Slapd &server = zldap_test::SharedSlapd();
    ZLDAP_REQUIRE_SLAPD(server);
    zldap_test::TempDir dir;
    std::ofstream(dir.file("photo"), std::ios::binary) << std::string("\xFF\xD8\0jpeg", 7);
    const std::string modify = "zldapmodify -H {url} -D cn=admin,dc=example,dc=com -w secret";
    const std::string read = "zldapsearch -H {url} -s base -b uid=user010,ou=people,dc=example,dc=com '(objectclass=*)'";
    const std::string user = "dn: uid=user010,ou=people,dc=example,dc=com\n";
    struct {
        std::string command, input;
        int code;
        const char *out; // part of stdout
    } const cases[] = {
        {modify, "version: 1\n\n" + user + "ChangeType: Modify\nREPLACE: jpegPhoto\nJPEGPhoto:< file://{dir}/photo\n-\n",
         0, "modifying entry"},
        {read + " jpegPhoto", "", 0, "jpegPhoto:: /9gAanBlZw==\n"},
        // The control reaches the server, which can't honour a critical one.
        {modify, user + "control: 1.2.3.4 true\nchangetype: delete\n", 12, "deleting entry"},
        {read + " uid", "", 0, "uid: user010\n"},
        {modify, user + "changeType: delete\n", 0, "deleting entry"},
        {read, "", 32, ""},
    };
    for (const auto &c : cases) {
        auto values = std::vector<std::pair<std::string, std::string>>{{"{url}", server.url()}, {"{dir}", dir.path()}};
        std::string command = expand(c.command, values);
        ToolRun run = run_tool(command, expand(c.input, values), dir);
        EXPECT_EQ(run.code, c.code) << command << "\n" << c.input << run.err;
        EXPECT_NE(run.out.find(c.out), std::string::npos) << command << "\n" << run.out;
    }
}

// A SASL bind from the command line, with a configuration line for the
// Cyrus plug-in: only the user itself may read its password.
TEST(Tools, BindWithSasl)
{
    zldap_test::Slapd server({.sasl = true});
    ZLDAP_REQUIRE_SLAPD(server);
    if (!*ZLDAP_SASL_CYRUS_PLUGIN)
        GTEST_SKIP() << "the Cyrus SASL plug-in is not built (Debian package libsasl2-dev)";
    zldap_test::TempDir dir;
    std::ofstream(dir.file("ornldap.conf")) << "plugin sasl SCRAM-SHA-256 " ZLDAP_SASL_CYRUS_PLUGIN " sasl_cyrus_init\n";
    setenv("ORNLDAP_CONF", dir.path().c_str(), 1);
    std::string search = " -s base -b uid=sasl,ou=people,dc=example,dc=com '(objectclass=*)' userPassword";
    ToolRun run = run_tool("zldapsearch -Y SCRAM-SHA-256 -U sasl -w sasl-secret -H " + server.url() + search, "", dir);
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_NE(run.out.find("userPassword: sasl-secret"), std::string::npos) << run.out;
}

} // namespace
