// The command-line tools as a user runs them: what they refuse before
// sending anything, how long they may wait, their flags against slapd, and
// their output next to OpenLDAP's tools when those are installed.
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

// Runs a tool (the command's first word: one of ours when it starts with
// "zldap", else a program on the PATH; {name} parts replaced) through the
// shell with input on its standard input: "exit code|stdout|stderr". One
// that outlives 25 s is killed (exit 137): it hangs as far as the tests
// care.
std::string RunTool(std::string command, std::string input,
                    const std::vector<std::pair<std::string, std::string>> &values, const zldap_test::TempDir &dir)
{
    for (const auto &[name, value] : values)
        for (std::string *text : {&command, &input})
            for (size_t at; (at = text->find(name)) != std::string::npos;)
                text->replace(at, name.size(), value);
    std::string tool = command.substr(0, command.find(' '));
    if (tool.rfind("zldap", 0) == 0)
        tool = ZLDAP_TOOLS_DIR "/" + tool;
    std::ofstream(dir.file("stdin")) << input;
    std::string files = " <" + dir.file("stdin") + " >" + dir.file("stdout") + " 2>" + dir.file("stderr");
    // setsid: without a controlling terminal, as under CI.
    int status =
        std::system(("timeout -s KILL 25 setsid -w " + tool + command.substr(command.find(' ')) + files).c_str());
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
        {"zldapsearch -H ldapi://127.0.0.1:{silent} -D cn=admin -w secret" + search, "", 92, "only ldap:// and ldaps://"},
        {"zldapsearch -H 127.0.0.1:{silent}" + search, "", 92, "only ldap:// and ldaps://"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -z abc" + search, "", 89, "-z abc: expected a whole number from 0"},
        {"zldapsearch -h 127.0.0.1 -p 65536" + search, "", 89, "-p 65536: expected a whole number from 1 to 65535"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -o timeout=0" + search, "", 89, "timeout=0: expected a whole"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -o nettimeout=2x" + search, "", 89, "nettimeout=2x: expected"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -o ldif-wrap=1" + search, "", 89, "ldif-wrap=1: expected"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -o retries=2" + search, "", 89, "the extended options are"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -b o=x '(cn=a)(cn=b)'", "", 87, "position 7: text after the end"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -b o=x '(&(cn=a)' cn", "", 87, "position 1: this parenthesis is not"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -b o=x 'cn=a)'", "", 87, "position 5: a closing parenthesis"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -E pr=0" + search, "", 89, "-E pr=0: pr takes"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -e '!nosuch'" + search, "", 89, "nosuch is not one of"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -e 'assert=(a=1' " + search, "", 89, "position 1 of the filter"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -y {silent}/none" + search, "", 89, "cannot read the password"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -n -v -b o=x -f {stdin} '(uid=%s)'", "a\nb\n", 0, "filter: (uid=b)"},
        {"zldapsearch --help", "", 0, "Exit status: the LDAP result code"},
        {"zldapmodify -a -H ldap://127.0.0.1:{silent}", "dn: cn=a\ndescription: x\nchangetype: delete\n", 89, "line 3:"},
        {"zldapmodify -H ldap://127.0.0.1:{silent}", "dn: cn=a\ncn: a\n", 89, "line 2: expected add:, delete: or"},
        {"zldapmodify -H ldap://127.0.0.1:{silent} -n", del, 0, "!deleting entry \"cn=a\"\n\n"},
        {"zldapsearch -H ldap://127.0.0.1:{silent} -D cn=admin -w secret -o timeout=2" + search, "", 85, "bind: Timed out"},
        {"zldapmodify -H ldap://127.0.0.1:{silent} -x -o timeout=2", del, 85, "bind: Timed out"},
        {"zldapsearch -H ldap://127.0.0.1:{dropping} -o timeout=2" + search, "", 81, "ldap_bind: Can't contact"},
        {"zldapwhoami -H ldap://127.0.0.1:{dropping} -o nettimeout=2", "", 81, "ldap_bind: Can't contact"},
        // -W asks on the terminal only, which these runs do not have.
        {"zldapdelete -H ldap://127.0.0.1:{silent} -D cn=admin -W cn=a", "", 89, "needs a terminal"},
    };
    zldap_test::TempDir dir;
    for (const auto &[command, input, code, err] : cases) {
        auto start = std::chrono::steady_clock::now();
        std::string run = RunTool(command, input, {{"{silent}", std::to_string(silent.port())},
                                                {"{dropping}", std::to_string(dropping.port())},
                                                {"{stdin}", dir.file("stdin")}}, dir);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20)) << command;
        EXPECT_EQ(run.rfind(std::to_string(code) + "|", 0), 0u) << command << "\n" << run;
        EXPECT_NE(run.find(err), std::string::npos) << command << "\n" << run;
        if (code == 0 || code == 87 || code == 89 || code == 92) {
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
    std::ofstream(dir.file("pw"), std::ios::binary) << "secret";
    const std::string admin = " -x -H {url} -D cn=admin,dc=example,dc=com -w secret ";
    const std::string modify = "zldapmodify" + admin;
    const std::string read =
        "zldapsearch -H {url} -s base -b uid=user010,ou=people,dc=example,dc=com '(objectclass=*)'";
    const std::string user = "dn: uid=user010,ou=people,dc=example,dc=com\n";
    const std::string scratch = "cn=t,ou=scratch,dc=example,dc=com", x100(100, 'x');
    const std::string user011 = "uid=user011,ou=people,dc=example,dc=com", person = "objectClass: person\ncn: t\nsn: t\n";
    const std::tuple<std::string, std::string, int, std::string> cases[] = {
        {modify, "version: 1\n\n" + user + "ChangeType: Modify\nREPLACE: jpegPhoto\nJPEGPhoto:< file://{dir}/photo\n",
         0, "modifying entry"},
        {read + " jpegPhoto", "", 0, "jpegPhoto:: /9gAanBlZw==\n"},
        {"zldapsearch -LLL -tt -T {dir} -H {url} -s base -b uid=user010,ou=people,dc=example,dc=com jpegPhoto", "", 0,
         "jpegPhoto:< file://{dir}/zldapsearch-jpegPhoto-"},
        // The control reaches the server, which can't honour a critical one.
        {modify, user + "control: 1.2.3.4 true\nchangetype: delete\n", 12, "deleting entry"},
        {modify, user + "changeType: delete\n", 0, "deleting entry"},
        {read, "", 32, "result: 32 No such object\nmatchedDN: ou=people,dc=example,dc=com\n"},
        {"zldapsearch -LLL -H {url} -b foo", "", 34, "|Invalid DN syntax (34)\nAdditional information: invalid DN\n"},
        // Control characters in base64, lines folded at 78 columns or not.
        {"zldapadd -x -H {url} -D cn=admin,dc=example,dc=com -y {dir}/pw",
         "dn: " + scratch + "\n" + person + "description: a\ttab\ndescription: " + x100 + "\n", 0,
         "0|adding new entry \"" + scratch + "\"\n\n|"},
        {"zldapsearch -LLL -H {url} -b " + scratch + " description", "", 0,
         "0|dn: " + scratch + "\ndescription:: YQl0YWI=\ndescription: " + x100.substr(35) + "\n " + x100.substr(65) + "\n\n|"},
        {"zldapsearch -LLL -o ldif-wrap=no -H {url} -b " + scratch + " description", "", 0, x100 + "\n"},
        {"zldapsearch -LLL -H {url} -s base -b '' 1.1", "", 0, "0|dn:\n\n|"},
        {"zldapsearch -LLL -MM -a always -A -H {url} -s base -b " + user011 + " uid", "", 0, "uid:\n\n|"},
        {"zldapsearch -LLL -H {url} -e 'assert=(sn=nope)' -s base -b " + scratch, "", 122, ""},
        {"zldapsearch -LLL -H {url} -E '!sss=uid' -s base -b " + scratch, "", 12, ""},
        {"zldapsearch -LLL -H {url} -E pr=4/noprompt -b ou=people,dc=example,dc=com '(uid=user00*)' 1.1", "", 0,
         "dn: uid=user009,ou=people,dc=example,dc=com\n\n# pagedresults: cookie=\n|"},
        {"zldapsearch -LLL -c -f {dir}/stdin -H {url} -b ou=people,dc=example,dc=com '(uid=%s)' 1.1", "user001\nuser002\n",
         0, "user001,ou=people,dc=example,dc=com\n\n\ndn: uid=user002"},
        {modify + "-a -c", "dn: " + scratch + "\n" + person + "\ndn: cn=t,ou=nothere,dc=example,dc=com\n" + person, 32,
         "ldap_add: Already exists (68)\nldap_add: No such object (32)\n\tmatched DN: dc=example,dc=com\n"},
        {"zldapcompare" + admin + scratch + " cn:t", "", 6, "6|TRUE\n|"},
        {"zldapmodrdn -r" + admin + scratch + " cn=t2", "", 0, ""},
        {"zldapdelete -v -c" + admin + scratch + " cn=t2,ou=scratch,dc=example,dc=com", "", 32,
         "deleting entry \"cn=t2,ou=scratch,dc=example,dc=com\"\n|"},
        {"zldappasswd" + admin + user011, "", 0, "0|New password: "},
        {"zldappasswd" + admin + "-s pw2 " + user011, "", 0, ""},
        {"zldapwhoami -x -H {url} -w pw2 -D " + user011, "", 0, "0|dn:" + user011 + "\n|"},
    };
    for (const auto &[command, input, code, out] : cases) {
        std::string run = RunTool(command, input, {{"{url}", server.url()}, {"{dir}", dir.path()}}, dir);
        EXPECT_EQ(run.rfind(std::to_string(code) + "|", 0), 0u) << command << "\n" << run;
        std::string expected = out;
        for (size_t at; (at = expected.find("{dir}")) != std::string::npos;)
            expected.replace(at, 5, dir.path());
        EXPECT_NE(run.find(expected), std::string::npos) << command << "\n" << run;
    }
}

// The same command lines through OpenLDAP's tools: the same standard output
// and exit status (their texts on stderr are the libraries' own). The
// updates fail without changing anything, so both runs see one state.
TEST(Tools, MatchOpenLdapTools)
{
    if (std::system("command -v ldapsearch >/dev/null && command -v ldapmodify >/dev/null") != 0)
        GTEST_SKIP() << "OpenLDAP's tools are not installed (Debian package ldap-utils)";
    zldap_test::Slapd &server = zldap_test::SharedSlapd();
    ZLDAP_REQUIRE_SLAPD(server);
    zldap_test::TempDir dir;
    const std::string people = " -b ou=people,dc=example,dc=com ", admin = " -D cn=admin,dc=example,dc=com -w secret";
    const std::string changes = "dn: uid=user001,ou=people,dc=example,dc=com\nchangetype: add\nobjectClass: person\n"
                                "cn: a\nsn: a\n\ndn: cn=none,dc=example,dc=com\nchangetype: delete\n\n"
                                "dn: cn=none,ou=nothere,dc=example,dc=com\nchangetype: modify\nadd: cn\ncn: b\n";
    const std::pair<std::string, std::string> cases[] = {
        {"ldapsearch -x -LLL -H {url}" + people + "'(uid=user01*)' cn uid mail", ""},
        {"ldapsearch -x -H {url} -b dc=example,dc=com -s one", ""},
        {"ldapsearch -x -L -H {url} -s base -b uid=user010,ou=people,dc=example,dc=com", ""},
        {"ldapsearch -x -H {url} -b ou=special,dc=example,dc=com", ""},
        {"ldapsearch -x -LL -o ldif-wrap=40 -H {url} -b ou=special,dc=example,dc=com", ""},
        {"ldapsearch -x -H {url} -b ou=nothere,dc=example,dc=com", ""},
        {"ldapsearch -x -LLL -H {url} -z 3 -s one" + people + "uid", ""},
        {"ldapsearch -x -LLL -E pr=3/noprompt -H {url} -s one" + people + "'(uid=user00*)' uid", ""},
        {"ldapsearch -x -H {url} -f {dir}/stdin" + people + "'(uid=%s)' uid", "user001\nuser002\n"},
        {"ldapmodify -x -c -H {url}" + admin + " -f {dir}/stdin", changes},
        {"ldapmodify -x -n -H {url}" + admin, changes},
        {"ldapcompare -x -H {url} uid=user001,ou=people,dc=example,dc=com uid:user002", ""},
        {"ldapwhoami -x -H {url}" + admin, ""},
    };
    for (const auto &[command, input] : cases) {
        std::vector<std::pair<std::string, std::string>> values = {{"{url}", server.url()}, {"{dir}", dir.path()}};
        std::string ours = RunTool("z" + command, input, values, dir), theirs = RunTool(command, input, values, dir);
        EXPECT_EQ(ours.substr(0, ours.rfind('|')), theirs.substr(0, theirs.rfind('|'))) << command;
    }
}

// TLS from the command line with the test key database (its stash file
// beside it, or its password from a file): ldaps://, StartTLS required on
// a plain port, and a handshake that fails says why.
TEST(Tools, SearchOverTls)
{
    zldap_test::Slapd good({.people = 3, .tls_cert = "server"}), expired({.people = 0, .tls_cert = "expired"});
    ZLDAP_REQUIRE_SLAPD(good);
    // A sanitizer's dlopen does not search the tool's run-time path for the toolkit.
    zldap_test::ScopedEnv toolkit("LD_LIBRARY_PATH", ZLDAP_TOOLS_DIR "/..");
    zldap_test::TempDir dir;
    std::ofstream(dir.file("pw")) << "pw\n";
    const std::string db = " -o tls_keydb=" + zldap_test::TestPki() + "/keys.kdb", search = " -LLL -s base -b dc=example,dc=com 1.1";
    const std::tuple<std::string, int, std::string> cases[] = {
        {"zldapsearch -H " + good.ldaps_url() + db + search, 0, "0|dn: dc=example,dc=com\n\n|"},
        {"zldapsearch -ZZ -H " + good.url() + db + " -o tls_keydb_pw={dir}/pw" + search, 0, "0|dn: dc=example,dc=com\n\n|"},
        {"zldapsearch -ZZ -H " + zldap_test::SharedSlapd().url() + db + search, 2, "ldap_start_tls: Protocol error (2)"},
        {"zldapsearch -Z -H " + zldap_test::SharedSlapd().url() + db + search, 0, "warning: StartTLS failed"},
        {"zldapsearch -H " + expired.ldaps_url() + db + search, 81, "TLS handshake failed: Certificate verification failed: certificate has expired"},
    };
    for (const auto &[command, code, out] : cases) {
        std::string run = RunTool(command, "", {{"{dir}", dir.path()}}, dir);
        EXPECT_EQ(run.rfind(std::to_string(code) + "|", 0), 0u) << command << "\n" << run;
        EXPECT_NE(run.find(out), std::string::npos) << command << "\n" << run;
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
    std::string run = RunTool("zldapsearch -LLL -Y SCRAM-SHA-256 -U sasl -w sasl-secret -H {url} -s base -b " + user +
                                  " '(objectclass=*)' userPassword",
                              "", {{"{url}", server.url()}}, dir);
    EXPECT_EQ(run.rfind("0|dn: " + user + "\nuserPassword: sasl-secret\n", 0), 0u) << run;
}

} // namespace
