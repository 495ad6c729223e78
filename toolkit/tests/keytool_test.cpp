// keytool_test.cpp - zldapkey run as a user runs it: one table of steps on
// one database, each with its exit code and a piece of its output; a step
// that fails must leave the database file as it was. The database it makes
// then opens in the toolkit through the stash file.
#include "test_peer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sys/stat.h>

namespace {

using namespace zortest;

struct ToolRun {
    int exit;
    std::string output;
};

ToolRun run(const std::string &arguments)
{
    std::string command = std::string(ZLDAPKEY) + " " + arguments + " 2>&1";
    FILE *p = popen(command.c_str(), "r");
    ToolRun r{-1, {}};
    char buffer[512];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, p)) > 0)
        r.output.append(buffer, n);
    int status = pclose(p);
    r.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

std::string contents(const std::string &path)
{
    std::string data;
    FILE *f = fopen(path.c_str(), "rb");
    char buffer[4096];
    size_t n;
    while (f && (n = fread(buffer, 1, sizeof buffer, f)) > 0)
        data.append(buffer, n);
    if (f)
        fclose(f);
    return data;
}

struct Step {
    const char *arguments; // after "{db}" and "{dir}" are replaced
    int exit;
    const char *output;
    unsigned stash_mode = 0; // chmod of the stash file before the step
};

std::string expand(std::string text, const TempDir &dir)
{
    for (size_t at; (at = text.find("{dir}")) != std::string::npos;)
        text.replace(at, 5, dir.path(""));
    return text;
}

TEST(KeyTool, CommandsOnOneDatabase)
{
    TempDir dir;
    const Pki &p = pki();
    dir.write("root.pem", pem(p.root.cert.get()));
    dir.write("other.der", der(p.other_root.cert.get()));
    dir.write("client.p12", pkcs12(p.client, "p12 pw"));
    dir.write("client.key", key_pem(p.client.key.get()));
    dir.write("client.pem", pem(p.client.cert.get()));
    dir.write("ec.key", key_pem(p.ec_server.key.get()));
    dir.write("ec.pem", pem(p.ec_server.cert.get()));
    dir.write("garbage", "no certificate here");
    const Step steps[] = {
        {"create --db {dir}keys.kdb --pw pw1", 0, ""},
        {"create --db {dir}keys.kdb --pw pw1", 2, "already exists"},
        {"add --db {dir}keys.kdb --pw pw1 --label root --cert {dir}root.pem", 0, ""},
        {"add --db {dir}keys.kdb --pw pw1 --label other --cert {dir}other.der", 0, ""},
        {"add --db {dir}keys.kdb --pw pw1 --label root --cert {dir}other.der", 4, "already in use"},
        {"add --db {dir}keys.kdb --pw pw1 --label x --cert {dir}garbage", 5, "not in the expected format"},
        {"add --db {dir}keys.kdb --pw pw1 --label x --cert {dir}missing.pem", 2, "does not exist"},
        {"add --db {dir}keys.kdb --pw wrong --label x --cert {dir}root.pem", 3, "wrong password"},
        {"add --db {dir}missing.kdb --pw pw1 --label x --cert {dir}root.pem", 2, "does not exist"},
        {"import --db {dir}keys.kdb --pw pw1 --label client --p12 {dir}client.p12 --p12-pw 'p12 pw'", 0, ""},
        {"import --db {dir}keys.kdb --pw pw1 --label client2 --p12 {dir}client.p12 --p12-pw bad", 3, "wrong password"},
        {"import --db {dir}keys.kdb --pw pw1 --label again --key {dir}client.key --cert {dir}client.pem", 4, "already in the database"},
        {"import --db {dir}keys.kdb --pw pw1 --label pem --key {dir}ec.key --cert {dir}ec.pem", 0, ""},
        {"import --db {dir}keys.kdb --pw pw1 --label mixed --key {dir}client.key --cert {dir}root.pem", 5, "does not belong"},
        {"import --db {dir}keys.kdb --pw pw1 --label bad --p12 {dir}garbage", 5, "not in the expected format"},
        {"list --db {dir}keys.kdb --pw pw1", 0, "client\tkey\tCN=client,O=Zor Test\texpires 2"},
        {"list --db {dir}keys.kdb --pw pw1", 0, "other\ttrusted\tCN=Zor Other Root,O=Zor Test\t"},
        {"delete --db {dir}keys.kdb --pw pw1 --label other", 0, ""},
        {"delete --db {dir}keys.kdb --pw pw1 --label other", 4, "no entry has that label"},
        {"list --db {dir}keys.kdb --stashed", 2, "keys.sth: the file does not exist"},
        {"stash --db {dir}keys.kdb --pw pw1", 0, "stash file written"},
        {"list --db {dir}keys.kdb --stashed", 0, "root\ttrusted"},
        {"list --db {dir}keys.kdb --stashed", 6, "can be read by group or others", 0644},
        {"chpw --db {dir}keys.kdb --stashed --new-pw pw2", 0, "stash file written", 0600},
        {"list --db {dir}keys.kdb --pw pw1", 3, "wrong password"},
        {"list --db {dir}keys.kdb --pw pw2", 0, "pem\tkey"},
        {"frobnicate --db {dir}keys.kdb", 1, "unknown command"},
        {"list", 1, "--db is needed"},
        {"--help", 0, "Exit codes:"},
    };
    const std::string db = dir.path("keys.kdb");
    for (const Step &s : steps) {
        std::string arguments = expand(s.arguments, dir);
        SCOPED_TRACE(arguments);
        if (s.stash_mode)
            chmod(dir.path("keys.sth").c_str(), s.stash_mode);
        std::string before = contents(db);
        ToolRun r = run(arguments);
        EXPECT_EQ(r.exit, s.exit) << r.output;
        EXPECT_NE(r.output.find(s.output), std::string::npos) << r.output;
        if (s.exit != 0) {
            EXPECT_EQ(contents(db), before);
        }
    }
    struct stat st;
    ASSERT_EQ(stat(db.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(stat(dir.path("keys.sth").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    // The toolkit opens what the tool made, unattended.
    const Zorlib &z = zorlib();
    zor_handle env = nullptr;
    ASSERT_EQ(z.environment_open(&env), 0);
    EXPECT_EQ(z.attribute_set_buffer(env, ZOR_KEYRING_FILE, db.c_str(), 0), 0);
    EXPECT_EQ(z.attribute_set_buffer(env, ZOR_KEYRING_STASH_FILE, dir.path("keys.sth").c_str(), 0), 0);
    EXPECT_EQ(z.attribute_set_buffer(env, ZOR_KEYRING_LABEL, "client", 0), 0);
    EXPECT_EQ(z.environment_init(env), 0);
    z.environment_close(&env);
}

} // namespace
