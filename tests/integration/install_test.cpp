// The installed library as its users meet it: install_and_build.sh installs
// this build under a temporary prefix and builds the consumers of
// tests/consumers/ against it (pkg-config and a plain compiler call;
// find_package); they and an installed tool then search the test slapd.
#include "slapd_fixture.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <utility>

using namespace zldap_test;

namespace {

// A shell command's exit status and everything it wrote.
std::pair<int, std::string> RunShell(const std::string &command)
{
    std::string out;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe)
        return {-1, out};
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;)
        out.append(buf, n);
    int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

TEST(Install, ProgramsBuiltOnTheInstalledTreeSearchSlapd)
{
    ZLDAP_REQUIRE_SLAPD(SharedSlapd());
    TempDir dir;
    char real[PATH_MAX];
    ASSERT_NE(realpath(dir.path().c_str(), real), nullptr);
    const std::string prefix = std::string(real) + "/prefix";
    auto [code, out] = RunShell(std::string(ZLDAP_INSTALL_AND_BUILD) + " '" + prefix + "' '" + real + "'");
    ASSERT_EQ(code, 0) << out;

    const std::string dn = std::string("uid=user001,") + Slapd::kPeople;
    const std::string url = "'" + SharedSlapd().url() + "/" + Slapd::kPeople + "?uid?one?(uid=user001)'";
    const std::string shared =
        "loaded from " + prefix + "/" ZLDAP_INSTALL_LIBDIR "/libzor8ldap_64.so\ndn: " + dn + "\nresult: 0\n";
    struct Row {
        std::string command, output; // the output expected in full, or for the tool in part
    } rows[] = {
        {std::string(real) + "/shared_consumer_pc " + url, shared},
        {std::string(real) + "/cmake/shared_consumer " + url, shared},
        {std::string(real) + "/cmake/static_consumer " + url, "entries: 1\nresult: 0\n"},
        {prefix + "/" ZLDAP_INSTALL_BINDIR "/zldapsearch -H " + SharedSlapd().url() + " -b " + Slapd::kPeople +
             " -s one '(uid=user001)' uid",
         "dn: " + dn + "\nuid: user001\n"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.command);
        auto [status, output] = RunShell(row.command);
        EXPECT_EQ(status, 0);
        if (row.output.rfind("dn: ", 0) == 0)
            EXPECT_NE(output.find(row.output), std::string::npos) << output;
        else
            EXPECT_EQ(output, row.output);
    }
}

} // namespace
