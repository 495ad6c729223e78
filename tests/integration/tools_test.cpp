// The command-line tools as a user runs them: what they refuse before
// sending anything, how long they may wait, and LDIF applied to slapd.
#include "loopback.h"
#include "slapd_fixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sys/wait.h>
#include <tuple>
#include <vector>

namespace {

// Runs a tool (the command's first word; {name} parts replaced) through
// the shell with input on its standard input: "exit code|stdout|stderr".
// One that outlives 25 s is killed (exit 137): it hangs as far as the
// tests care.
std::string RunTool(std::string command, std::string input,
                    const std::vector<std::pair<std::string, std::string>> &values, const zldap_test::TempDir &dir)
{
    for (const auto &[name, value] : values)
        for (std::string *text : {&command, &input})
            for (size_t at; (at = text->find(name)) != std::string::npos;)
                text->replace(at, name.size(), value);
    std::string tool = command.rfind("zldapsearch", 0) == 0 ? ZLDAP_ZLDAPSEARCH : ZLDAP_ZLDAPMODIFY;
    std::ofstream(dir.file("stdin")) << input;
    std::string files = " <" + dir.file("stdin") + " >" + dir.file("stdout") + " 2>" + dir.file("stderr");
    int status = std::system(("timeout -s KILL 25 " + tool + command.substr(command.find(' ')) + files).c_str());
    return std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + "|" +
           zldap_test::ReadFile(dir.file("stdout")) + "|" + zldap_test::ReadFile(dir.file("stderr"));
}

// Refusals reach no server. The time-outs of 2 s are checked against a
// bound of 20 s, far above them (a tool's own bound here is at most 4 s:
// connect plus operation), because the shared machine may be slow to start
// a process; without a bound these runs wait for minutes or forever.
TEST(Tools, RefuseBadArgumentsAndStayWithinTheirTimeOuts)
{
    zldap_test::LoopbackListener silent, dropping(AF_INET, 0);
    ASSERT_TRUE(silent.ok() && dropping.ok());
    // With a backlog of 0 the queue holds one connection; SYNs beyond it
    // are dropped, so a connect there waits for the system's retries.
    ASSERT_TRUE(zldap_test::Connects(AF_INET, dropping.port()));
    const std::string search = " -b dc=example,dc=com '(objectclass=*)'", del = "dn: cn=a\nchangetype: delete\n";
    const std::tuple<std::string, std::string, int, const char *> cases[] = {
        {"zldapsearch -H ldaps://127.0.0.1:{silent} -D cn=admin -w secret" + search, "", 92, "only ldap:// URLs"},
        {"zldapsearch -H 127.0.0.1:{silent}" + search, "", 92, "only ldap:// URLs"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -z abc" + search, "", 89, "-z abc: expected a whole number from 0"},
        {"zldapsearch -h 127.0.0.1 -p 65536" + search, "", 89, "-p 65536: expected a whole number from 1 to 65535"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -t 0" + search, "", 89, "-t 0: expected a whole number from 1"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -o nettimeout=2x" + search, "", 89, "nettimeout=2x: expected"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -o timeout=2" + search, "", 89, "the only extended option"},
        {"zldapmodify -H ldap://127.0.0.1:{silent}", "dn: cn=a\nchangetype: modrdn\nnewrdn: cn=b\ndeleteoldrdn: 1\n"
                                                     "newsuperior: o=x\n", 92, "line 5: newsuperior"},
        {"zldapmodify -H ldap://127.0.0.1:{silent}", "dn: cn=a\ndescription: x\nchangetype: delete\n", 89, "line 3:"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -D cn=admin -w secret -t 2" + search, "", 85, "bind: Timed out"},
        {"zldapmodify -H ldap://127.0.0.1:{silent} -t 2", del, 85, "cn=a: Timed out"},
        {"zldapsearch -H ldap://127.0.0.1:{dropping} -t 2" + search, "", 81, "search:"},
        {"zldapsearch -H ldap://127.0.0.1:{dropping} -o nettimeout=2" + search, "", 81, "search:"},
    };
    zldap_test::TempDir dir;
    for (const auto &[command, input, code, err] : cases) {
        auto start = std::chrono::steady_clock::now();
        std::string run = RunTool(command, input, {{"{silent}", std::to_string(silent.port())},
                                                {"{dropping}", std::to_string(dropping.port())}}, dir);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20)) << command;
        EXPECT_EQ(run.rfind(std::to_string(code) + "|", 0), 0u) << command << "\n" << run;
        EXPECT_NE(run.substr(run.rfind('|')).find(err), std::string::npos) << command << "\n" << run;
        if (code == 89 || code == 92) {
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
    const std::string read =
        "zldapsearch -H {url} -s base -b uid=user010,ou=people,dc=example,dc=com '(objectclass=*)'";
    const std::string user = "dn: uid=user010,ou=people,dc=example,dc=com\n";
    const std::tuple<std::string, std::string, int, const char *> cases[] = {
        {modify, "version: 1\n\n" + user + "ChangeType: Modify\nREPLACE: jpegPhoto\nJPEGPhoto:< file://{dir}/photo\n",
         0, "modifying entry"},
        {read + " jpegPhoto", "", 0, "jpegPhoto:: /9gAanBlZw==\n"},
        // The control reaches the server, which can't honour a critical one.
        {modify, user + "control: 1.2.3.4 true\nchangetype: delete\n", 12, "deleting entry"},
        {modify, user + "changeType: delete\n", 0, "deleting entry"},
        {read, "", 32, ""},
    };
    for (const auto &[command, input, code, out] : cases) {
        std::string run = RunTool(command, input, {{"{url}", server.url()}, {"{dir}", dir.path()}}, dir);
        EXPECT_EQ(run.rfind(std::to_string(code) + "|", 0), 0u) << command << "\n" << run;
        EXPECT_NE(run.substr(0, run.rfind('|')).find(out), std::string::npos) << command << "\n" << run;
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
    const std::string user = "uid=sasl,ou=people,dc=example,dc=com";
    std::string run = RunTool("zldapsearch -Y SCRAM-SHA-256 -U sasl -w sasl-secret -H {url} -s base -b " + user +
                                  " '(objectclass=*)' userPassword",
                              "", {{"{url}", server.url()}}, dir);
    EXPECT_EQ(run.rfind("0|dn: " + user + "\nuserPassword: sasl-secret\n", 0), 0u) << run;
}

} // namespace
