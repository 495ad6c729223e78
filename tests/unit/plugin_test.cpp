// SASL plug-ins: registration through the test plug-in's init functions,
// the registry copy, and synchronous SASL binds handed to a plug-in against
// a scripted server.
#include "base/ldap_lock.h"
#include "config/plugin_registry.h"
#include "engine_fixture.h"
#include "plugin_support.h"

#include <gtest/gtest.h>

#include <functional>

using namespace zldap_test;

namespace {

// The process reads its configuration file once: every test sees this one.
struct ProcessConf : testing::Environment {
    void SetUp() override
    {
        conf = std::make_unique<ConfFile>("plugin sasl CONF-MECH " + kTestPluginSl + " test_plugin_init send close\n" +
                                          "plugin sasl CONF-FAILS " + kTestPluginSl + " test_plugin_init_fails\n");
    }
    std::unique_ptr<ConfFile> conf;
};
testing::Environment *const process_conf = testing::AddGlobalTestEnvironment(new ProcessConf);

TEST(Registration, EntersAPluginWhoseInitSucceeds)
{
    const std::string no_dot = kTestPlugin.substr(0, kTestPlugin.size() - 3);
    const struct {
        const char *name, *init;
        std::string path;
        int code;
    } cases[] = {
        {"NAMED-INIT", "test_plugin_init", kTestPluginSl, 0},
        {"DEFAULT-INIT", "", kTestPluginSl, 0},
        {"PATH-WITHOUT-DOT", "test_plugin_init", no_dot, 0},
        {"NULL-BIND", "test_plugin_init_null_bind", kTestPluginSl, 0},
        {"NO-BIND", "test_plugin_init_no_bind", kTestPluginSl, LDAP_PLUGIN_FUNC_NOT_RESOLVED},
        {"INIT-FAILS", "test_plugin_init_fails", kTestPluginSl, LDAP_PLUGIN_NOT_INITIALIZED},
        {"INIT-MISSING", "no_such_init", kTestPluginSl, LDAP_PLUGIN_FUNC_NOT_RESOLVED},
        {"LIBRARY-MISSING", "test_plugin_init", "/nonexistent/lib.sl", LDAP_PLUGIN_NOT_LOADED},
    };
    for (const auto &c : cases) {
        TakeTestPluginRecord();
        EXPECT_EQ(RegisterTestPlugin(c.name, c.init, "", c.path), c.code) << c.name;
        ldap_lock_plugin_mutex();
        EXPECT_EQ(ldap_find_plugin("sasl", c.name) != nullptr, c.code == 0) << c.name;
        ldap_unlock_plugin_mutex();
        TestPluginRecord r = TakeTestPluginRecord();
        EXPECT_EQ(r.init_key_count, r.inits ? 1 : 0) << "an init function gets the type alone";
    }
    EXPECT_EQ(ldap_register_plugin(nullptr), LDAP_PARAM_ERROR);
    LDAPPluginInfo no_path{const_cast<char *>("sasl"), const_cast<char *>("NO-PATH"), nullptr, nullptr, nullptr};
    EXPECT_EQ(ldap_register_plugin(&no_path), LDAP_PARAM_ERROR);
}

const std::vector<unsigned> kSaslKeys = {106, 101, 103, 102, 201, 204, 202, 206, 205, 107};
// A GSSAPI bind gives the init function the block first, and it sets 301.
const std::vector<unsigned> kGssapiKeys = {301, 106, 101, 103, 102, 204, 202, 206, 205, 107, 208, 310};
const std::string kSeventyArguments = [] {
    std::string args;
    for (int i = 0; i < 70; i++)
        args += "a ";
    return args;
}();

struct BindCase {
    const char *name, *mechanism;
    std::function<void()> setup;
    int code;
    bool library_sends;         // a SASL bind request reaches the server
    std::vector<unsigned> keys; // the bind function's block; empty: it is not called
    int closes;                 // close calls once the handle is released
    std::function<void(LDAP *, const TestPluginRecord &)> check = nullptr;
};

void PrintTo(const BindCase &c, std::ostream *os) { *os << c.name; }

std::function<void()> Registers(const char *mechanism, const char *init, const std::string &args)
{
    return [=] { ASSERT_EQ(RegisterTestPlugin(mechanism, init, args), 0); };
}

int BindAgain(LDAP *ld, const char *mechanism)
{
    return ldap_sasl_bind_s(ld, nullptr, mechanism, nullptr, nullptr, nullptr, nullptr);
}

const BindCase kBindCases[] = {
    {"PluginBindsThroughTheLibrary", "SEND", Registers("SEND", "test_plugin_init", "send close"), 0, true, kSaslKeys, 1,
     [](LDAP *ld, const TestPluginRecord &r) {
         EXPECT_EQ(r.ld, ld);
         EXPECT_STREQ(r.host, ld->ld_defhost);
     }},
    {"PluginResultIsFinal", "RETURNS", Registers("RETURNS", "test_plugin_init", "return=49"), LDAP_INVALID_CREDENTIALS,
     false, kSaslKeys, 0},
    {"ArgumentsSplitAtBlanksTabsAndLineEnds", "ARGS", Registers("ARGS", "test_plugin_init", " a\tb\n c  "), 0, false,
     kSaslKeys, 0, [](LDAP *, const TestPluginRecord &r) { EXPECT_EQ(std::string(r.args) + "/" + std::to_string(r.argc), "a|b|c/3"); }},
    {"AtMost64Arguments", "MANY", Registers("MANY", "test_plugin_init", kSeventyArguments), 0, false, kSaslKeys, 0,
     [](LDAP *, const TestPluginRecord &r) { EXPECT_EQ(r.argc, LDAP_PLUGIN_MAX_ARGS); }},
    {"GssapiGetsItsOwnKeys", "GSSAPI", Registers("GSSAPI", "test_plugin_init", "gss=7 close"), 0, false, kGssapiKeys, 1,
     [](LDAP *ld, const TestPluginRecord &r) {
         EXPECT_EQ(ld->ld_gss_result, 7u);
         EXPECT_EQ(r.inits, 1);
     }},
    {"ALaterRegistrationReplacesTheEntry", "REPLACED",
     [] {
         Registers("REPLACED", "test_plugin_init", "first")();
         Registers("REPLACED", "test_plugin_init", "second")();
     },
     0, false, kSaslKeys, 0, [](LDAP *, const TestPluginRecord &r) { EXPECT_STREQ(r.args, "second"); }},
    {"ALaterBindClosesTheEarlierBlock", "CLOSES", Registers("CLOSES", "test_plugin_init", "close"), 0, false, kSaslKeys, 1,
     [](LDAP *ld, const TestPluginRecord &) {
         EXPECT_EQ(BindAgain(ld, "CLOSES"), 0);
         EXPECT_EQ(TakeTestPluginRecord().closes, 1);
     }},
    {"NullBindFunctionLeavesItToTheLibrary", "NULL-BIND", Registers("NULL-BIND", "test_plugin_init_null_bind", ""), 0,
     true, {}, 0},
    {"UnconfiguredMechanismIsLeftToTheLibrary", "NOT-CONFIGURED", [] {}, 0, true, {}, 0},
    {"ConfiguredPluginIsLoadedAtFirstUse", "CONF-MECH", [] {}, 0, true, kSaslKeys, 1,
     [](LDAP *, const TestPluginRecord &r) { EXPECT_EQ(r.inits, 1); }},
    {"ConfiguredPluginWhoseInitFails", "CONF-FAILS", [] {}, LDAP_PLUGIN_NOT_INITIALIZED, false, {}, 0},
};

class PluginBind : public testing::TestWithParam<BindCase> {};

TEST_P(PluginBind, RunsThePluginsBindFunction)
{
    const BindCase &c = GetParam();
    c.setup();
    TakeTestPluginRecord();
    std::vector<Bytes> requests; // read once the server has stopped
    {
        ScriptServer server([&](ScriptConnection &conn) {
            while (auto r = conn.Read())
                if (r->tag == 0x60) {
                    requests.push_back(r->op);
                    conn.Send(wire::Result(r->id, 0x61, 0));
                }
        });
        LDAP *ld = HandleFor(server);
        struct berval cred {2, const_cast<char *>("ab")};
        EXPECT_EQ(ldap_sasl_bind_s(ld, "cn=a", c.mechanism, &cred, nullptr, nullptr, nullptr), c.code);
        TestPluginRecord r = TakeTestPluginRecord();
        EXPECT_EQ(std::vector<unsigned>(r.keys, r.keys + r.key_count), c.keys);
        if (c.check)
            c.check(ld, r);
        ldap_unbind(ld);
        EXPECT_EQ(TakeTestPluginRecord().closes, c.closes);
    }
    ASSERT_EQ(requests.size(), c.library_sends ? 1u : 0u);
    if (c.library_sends) { // version 3, cn=a, the mechanism and the credentials "ab"
        Bytes sasl = Join({Octets(c.mechanism), Octets("ab")});
        EXPECT_EQ(ToHex(requests[0]), ToHex(Join({Hex("60 84 00 00 00"), {static_cast<unsigned char>(15 + sasl.size())},
                                                  Hex("02 01 03 04 04 63 6E 3D 61 A3 84 00 00 00"),
                                                  {static_cast<unsigned char>(sasl.size())}, sasl})));
    }
}

INSTANTIATE_TEST_SUITE_P(Mechanisms, PluginBind, testing::ValuesIn(kBindCases),
                         [](const testing::TestParamInfo<BindCase> &info) { return std::string(info.param.name); });

// Last in this program: it leaves the registry full.
TEST(RegistryCopy, HoldsUpTo63Entries)
{
    ASSERT_EQ(RegisterTestPlugin("COPIED", "test_plugin_init", "a b"), 0);
    LDAPPluginInfo **list = nullptr;
    ASSERT_EQ(ldap_plugin_registry_copy(&list), 0);
    int count = 0;
    for (; list[count]; count++) {
        const LDAPPluginInfo &e = *list[count];
        if (std::string(e.lp_name) == "COPIED") {
            EXPECT_EQ(std::string(e.lp_type) + "|" + e.lp_path + "|" + e.lp_init_func + "|" + e.lp_args,
                      "sasl|" + kTestPluginSl + "|test_plugin_init|a b");
        }
    }
    ldap_plugin_registry_free(list);
    for (int i = count; i <= LDAP_PLUGIN_MAX_ENTRIES; i++) {
        EXPECT_EQ(ldap_plugin_registry_copy(&list), 0);
        ldap_plugin_registry_free(list);
        ASSERT_EQ(RegisterTestPlugin("FILL-" + std::to_string(i), "test_plugin_init", ""), 0);
    }
    EXPECT_EQ(ldap_plugin_registry_copy(&list), LDAP_PARAM_ERROR);
    EXPECT_EQ(list, nullptr);
}

} // namespace
