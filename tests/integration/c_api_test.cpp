// The published functions from C: c_api_program (compiled as C against
// zor8ldap_api.h alone, linked with the static library) runs an
// asynchronous search against the test slapd; its exit status and output
// show what C reached.
#include "slapd_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <vector>

using namespace zldap_test;

namespace {

struct ProgramRun {
    int status = -1;
    std::vector<std::string> lines; // standard output and error, sorted
};

ProgramRun RunProgram(const std::string &url)
{
    ProgramRun run;
    std::string command = std::string("'") + ZLDAP_C_API_PROGRAM + "' '" + url + "' 2>&1";
    FILE *pipe = popen(command.c_str(), "r");
    if (!pipe)
        return run;
    std::string out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, pipe)) > 0)
        out.append(buf, n);
    int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.lines = SplitLines(out);
    std::sort(run.lines.begin(), run.lines.end());
    return run;
}

std::vector<std::string> Sorted(std::vector<std::string> lines)
{
    std::sort(lines.begin(), lines.end());
    return lines;
}

std::vector<std::string> PeopleLines(int from, int to)
{
    std::vector<std::string> lines;
    for (int i = from; i <= to; i++) {
        char dn[64];
        std::snprintf(dn, sizeof dn, "uid=user%03d,%s", i, Slapd::kPeople);
        lines.push_back(std::string("dn: ") + dn + " (1 values of uid)");
    }
    return lines;
}

TEST(CApi, SearchesAsynchronouslyFromC)
{
    ZLDAP_REQUIRE_SLAPD(SharedSlapd());
    const std::string server = SharedSlapd().url();
    std::vector<std::string> ten = PeopleLines(0, 9);
    ten.push_back("entries: 10");
    ten.push_back("result: 0");
    // A failed call is one line on standard error, with the call and its
    // code first and the code's text after them.
    struct Row {
        const char *what;
        std::string url;
        int status;
        std::vector<std::string> lines; // the failed call's line: its start only
    } rows[] = {
        {"ten entries, one level", server + "/" + Slapd::kPeople + "?uid?one?(uid=user00*)", 0, ten},
        {"a base that does not exist", server + "/ou=nowhere," + Slapd::kBase + "??sub", 1,
         {"entries: 0", "result: 32"}},
        {"not an LDAP URL", "http://127.0.0.1/", 2, {"ldap_url_parse: 96 ("}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        ProgramRun run = RunProgram(row.url);
        EXPECT_EQ(run.status, row.status);
        if (row.status != 2) {
            EXPECT_EQ(run.lines, Sorted(row.lines));
        } else {
            ASSERT_EQ(run.lines.size(), 1u);
            EXPECT_EQ(run.lines[0].rfind(row.lines[0], 0), 0u) << run.lines[0];
        }
    }
}

} // namespace
