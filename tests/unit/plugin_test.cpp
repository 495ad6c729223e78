// SASL plug-ins: registration through the test plug-in's init functions,
// the registry, and synchronous SASL binds handed to a plug-in against a
// scripted server (what reaches the wire, the parameter block the plug-in
// gets, its close function at release).
#include "base/ldap_lock.h"
#include "config/plugin_registry.h"
#include "core/plugin_block.h"
#include "engine_fixture.h"
#include "plugin_support.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <functional>

using namespace zldap_test;

namespace {

// The configuration every test of this program sees: the process reads
// its configuration file once.
class ProcessConf : public testing::Environment {
public:
    void SetUp() override
    {
        conf_ = std::make_unique<ConfFile>("plugin sasl CONF-MECH " + TestPluginSlPath() + " test_plugin_init send close\n" +
                                           "plugin sasl CONF-FAILS " + TestPluginSlPath() + " test_plugin_init_fails\n");
    }
    void TearDown() override { conf_.reset(); }

private:
    std::unique_ptr<ConfFile> conf_;
};
testing::Environment *const process_conf = testing::AddGlobalTestEnvironment(new ProcessConf);

bool Registered(const char *name)
{
    ldap_lock_plugin_mutex();
    bool found = ldap_find_plugin("sasl", name) != nullptr;
    ldap_unlock_plugin_mutex();
    return found;
}

int Register(const char *name, const char *init, const char *args, const std::string &path = TestPluginSlPath())
{
    TestPluginDescription d(name, init, args, path);
    LDAPPluginInfo info = d.info();
    return ldap_register_plugin(&info);
}

struct RegisterCase {
    const char *name; // also the mechanism
    const char *init;
    std::string path;
    int code;
};

void PrintTo(const RegisterCase &c, std::ostream *os) { *os << c.name; }

const RegisterCase kRegisterCases[] = {
    {"NamedInitFunction", "test_plugin_init", TestPluginSlPath(), LDAP_SUCCESS},
    {"DefaultInitFunction", nullptr, TestPluginSlPath(), LDAP_SUCCESS},
    {"PathWithoutADot", "test_plugin_init", TestPluginSlPath().substr(0, TestPluginSlPath().size() - 3),
     LDAP_SUCCESS},
    {"InitSetsANullBindFunction", "test_plugin_init_null_bind", TestPluginSlPath(), LDAP_SUCCESS},
    {"InitSetsNoBindFunction", "test_plugin_init_no_bind", TestPluginSlPath(), LDAP_PLUGIN_FUNC_NOT_RESOLVED},
    {"InitFails", "test_plugin_init_fails", TestPluginSlPath(), LDAP_PLUGIN_NOT_INITIALIZED},
    {"InitFunctionMissing", "no_such_init", TestPluginSlPath(), LDAP_PLUGIN_FUNC_NOT_RESOLVED},
    {"LibraryMissing", "test_plugin_init", "/nonexistent/libnothing.sl", LDAP_PLUGIN_NOT_LOADED},
};

class Registration : public testing::TestWithParam<RegisterCase> {};

TEST_P(Registration, EntersThePluginOnlyWhenItsInitSucceeds)
{
    const RegisterCase &c = GetParam();
    ResetTestPlugin();
    EXPECT_EQ(Register(c.name, c.init, nullptr, c.path), c.code);
    EXPECT_EQ(Registered(c.name), c.code == LDAP_SUCCESS);
    TestPluginRecord r = ReadTestPlugin();
    if (c.code == LDAP_SUCCESS || c.code == LDAP_PLUGIN_NOT_INITIALIZED) {
        EXPECT_EQ(r.inits, 1);
        ASSERT_EQ(r.init_key_count, 1);
        EXPECT_EQ(r.init_keys[0], unsigned{LDAP_PLUGIN_TYPE}) << "the init function gets the type alone";
    }
}

INSTANTIATE_TEST_SUITE_P(Plugins, Registration, testing::ValuesIn(kRegisterCases),
                         [](const testing::TestParamInfo<RegisterCase> &info) { return std::string(info.param.name); });

TEST(Registration, NeedsATypeANameAndAPath)
{
    EXPECT_EQ(ldap_register_plugin(nullptr), LDAP_PARAM_ERROR);
    LDAPPluginInfo info{};
    EXPECT_EQ(ldap_register_plugin(&info), LDAP_PARAM_ERROR);
    TestPluginDescription d("NO-PATH", "test_plugin_init", nullptr);
    info = d.info();
    info.lp_path = nullptr;
    EXPECT_EQ(ldap_register_plugin(&info), LDAP_PARAM_ERROR);
}

TEST(ParameterBlock, SetReplacesAndKeepsTheOrder)
{
    LDAPPluginBlock *pb = ldap_plugin_block_new();
    ASSERT_NE(pb, nullptr);
    int a = 0, b = 0;
    void *value = nullptr;
    EXPECT_EQ(pb->pb_get(pb, 101, &value), -1);
    for (unsigned key = 1; key <= 40; key++) // beyond the first growth
        ASSERT_EQ(pb->pb_set(pb, key, &a), 0);
    EXPECT_EQ(pb->pb_set(pb, 7, &b), 0);
    EXPECT_EQ(pb->pb_count, 40u);
    EXPECT_EQ(pb->pb_get(pb, 7, &value), 0);
    EXPECT_EQ(value, &b);
    EXPECT_EQ(pb->pb_pairs[6].pp_key, 7u);
    EXPECT_EQ(ldap_plugin_block_func(pb, 302), nullptr);
    ldap_plugin_block_free(pb);
}

// ---- binds handed to a plug-in ----

struct Wire {
    std::vector<Request> requests; // read once the server has stopped
    ScriptServer server{[this](ScriptConnection &c) {
        while (auto r = c.Read())
            if (r->tag != 0x42) {
                requests.push_back(*r);
                c.Send(wire::Result(r->id, 0x61, 0));
            }
    }};
};

struct BindCase {
    const char *name;
    const char *mechanism;
    std::function<void()> setup; // registers what the row needs
    int code;
    bool library_sends;          // a bind request reaches the server
    std::vector<unsigned> keys;  // the bind function's block; empty: it is not called
    int closes_at_release;
};

void PrintTo(const BindCase &c, std::ostream *os) { *os << c.name; }

std::function<void()> Registers(const char *mechanism, const char *init, const char *args)
{
    return [=] { ASSERT_EQ(Register(mechanism, init, args), LDAP_SUCCESS); };
}

const std::vector<unsigned> kSaslKeys = {106, 101, 103, 102, 201, 204, 202, 206, 205, 107};
// The init function, given the block first, sets 301 in it.
const std::vector<unsigned> kGssapiKeys = {301, 106, 101, 103, 102, 204, 202, 206, 205, 107, 208, 310};

const BindCase kBindCases[] = {
    {"PluginBindsThroughTheLibrary", "SEND-CLOSE", Registers("SEND-CLOSE", "test_plugin_init", "send close"), 0,
     true, kSaslKeys, 1},
    {"PluginResultIsFinal", "RETURNS-49", Registers("RETURNS-49", "test_plugin_init", "return=49"),
     LDAP_INVALID_CREDENTIALS, false, kSaslKeys, 0},
    {"GssapiGetsItsOwnKeys", "GSSAPI", Registers("GSSAPI", "test_plugin_init", "gss=7"), 0, false, kGssapiKeys, 0},
    {"NullBindFunctionLeavesItToTheLibrary", "NULL-BIND", Registers("NULL-BIND", "test_plugin_init_null_bind", nullptr),
     0, true, {}, 0},
    {"UnconfiguredMechanismIsLeftToTheLibrary", "NOT-CONFIGURED", [] {}, 0, true, {}, 0},
    {"ConfiguredPluginIsLoadedAtFirstUse", "CONF-MECH", [] {}, 0, true, kSaslKeys, 1},
    {"ConfiguredPluginWhoseInitFails", "CONF-FAILS", [] {}, LDAP_PLUGIN_NOT_INITIALIZED, false, {}, 0},
};

class PluginBind : public testing::TestWithParam<BindCase> {};

TEST_P(PluginBind, RunsThePluginsBindFunction)
{
    const BindCase &c = GetParam();
    c.setup();
    ResetTestPlugin();
    struct berval cred {2, const_cast<char *>("ab")};
    LDAP *ld = nullptr;
    std::vector<Request> requests;
    {
        Wire wire;
        ld = HandleFor(wire.server);
        EXPECT_EQ(ldap_sasl_bind_s(ld, "cn=a", c.mechanism, &cred, nullptr, nullptr, nullptr), c.code);
        TestPluginRecord r = ReadTestPlugin();
        EXPECT_EQ(r.binds, c.keys.empty() ? 0 : 1);
        if (!c.keys.empty()) {
            EXPECT_EQ(std::vector<unsigned>(r.keys, r.keys + r.key_count), c.keys);
            EXPECT_STREQ(r.type, "sasl");
            EXPECT_STREQ(r.mechanism, c.mechanism);
            EXPECT_EQ(r.ld, ld);
            EXPECT_EQ(std::string(r.host), wire.server.host());
        }
        EXPECT_EQ(ldap_unbind(ld), LDAP_SUCCESS);
        EXPECT_EQ(ReadTestPlugin().closes, c.closes_at_release);
        requests = wire.requests;
    }
    if (!c.library_sends) {
        EXPECT_TRUE(requests.empty());
        return;
    }
    ASSERT_EQ(requests.size(), 1u);
    // A SASL bind request of version 3 for cn=a with the credentials "ab".
    Bytes sasl = Join({Octets(c.mechanism), Octets("ab")});
    EXPECT_EQ(ToHex(requests[0].op),
              ToHex(Join({Hex("60 84 00 00 00"), Bytes{static_cast<unsigned char>(15 + sasl.size())},
                          Hex("02 01 03 04 04 63 6E 3D 61 A3 84 00 00 00"), Bytes{static_cast<unsigned char>(sasl.size())},
                          sasl})));
}

INSTANTIATE_TEST_SUITE_P(Mechanisms, PluginBind, testing::ValuesIn(kBindCases),
                         [](const testing::TestParamInfo<BindCase> &info) { return std::string(info.param.name); });

// What the plug-in reads from its block, for the values the table above
// does not show.
TEST(PluginBind, GetsTheBindsParameters)
{
    ASSERT_EQ(Register("ARGS", "test_plugin_init", " a\tb\n c  "), LDAP_SUCCESS);
    ResetTestPlugin();
    Wire wire;
    LDAP *ld = HandleFor(wire.server);
    EXPECT_EQ(ldap_sasl_bind_s(ld, "cn=a", "ARGS", nullptr, nullptr, nullptr, nullptr), 0);
    TestPluginRecord r = ReadTestPlugin();
    EXPECT_EQ(r.argc, 3);
    EXPECT_STREQ(r.args, "a|b|c");
    EXPECT_STREQ(r.dn, "cn=a");
    ldap_unbind(ld);
}

TEST(PluginBind, GetsAtMost64Arguments)
{
    std::string args;
    for (int i = 0; i < 70; i++)
        args += std::to_string(i) + " ";
    ASSERT_EQ(Register("MANY-ARGS", "test_plugin_init", args.c_str()), LDAP_SUCCESS);
    ResetTestPlugin();
    Wire wire;
    LDAP *ld = HandleFor(wire.server);
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "MANY-ARGS", nullptr, nullptr, nullptr, nullptr), 0);
    TestPluginRecord r = ReadTestPlugin();
    EXPECT_EQ(r.argc, LDAP_PLUGIN_MAX_ARGS);
    ldap_unbind(ld);
}

TEST(PluginBind, GssapiPluginWritesItsResultIntoTheHandle)
{
    ASSERT_EQ(Register("GSSAPI", "test_plugin_init", "gss=7"), LDAP_SUCCESS);
    ResetTestPlugin();
    Wire wire;
    LDAP *ld = HandleFor(wire.server);
    ld->ld_gss_option = 5;
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "GSSAPI", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(ld->ld_gss_result, 7u);
    TestPluginRecord r = ReadTestPlugin();
    EXPECT_EQ(r.gss_option, 5u);
    EXPECT_EQ(r.inits, 1) << "a GSSAPI bind initialises the plug-in with its block first";
    ldap_unbind(ld);
}

TEST(PluginBind, ARegistrationReplacesTheEntryOfTheSameTypeAndName)
{
    Wire wire;
    LDAP *ld = HandleFor(wire.server);
    for (const char *args : {"first", "second"}) {
        ASSERT_EQ(Register("REPLACED", "test_plugin_init", args), LDAP_SUCCESS);
        EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "REPLACED", nullptr, nullptr, nullptr, nullptr), 0);
        EXPECT_STREQ(ReadTestPlugin().args, args);
    }
    ldap_unbind(ld);
}

TEST(PluginBind, EachBlockMeetsTheCloseFunctionOnce)
{
    ASSERT_EQ(Register("CLOSES", "test_plugin_init", "close"), LDAP_SUCCESS);
    ResetTestPlugin();
    Wire wire;
    LDAP *ld = HandleFor(wire.server);
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "CLOSES", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(ReadTestPlugin().closes, 0);
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "CLOSES", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(ReadTestPlugin().closes, 1) << "a later bind replaces the block";
    ldap_unbind(ld);
    TestPluginRecord r = ReadTestPlugin();
    EXPECT_EQ(r.closes, 2);
    EXPECT_TRUE(r.close_saw_a_bind_block);
}

// Last in this program: it leaves the registry full.
TEST(RegistryCopy, HoldsEveryEntryUpTo63)
{
    ASSERT_EQ(Register("COPIED", "test_plugin_init", "a b"), LDAP_SUCCESS);
    LDAPPluginInfo **list = nullptr;
    ASSERT_EQ(ldap_plugin_registry_copy(&list), LDAP_SUCCESS);
    int count = 0;
    for (; list[count]; count++) {
        const LDAPPluginInfo &e = *list[count];
        if (std::string(e.lp_name) == "COPIED") {
            EXPECT_STREQ(e.lp_type, "sasl");
            EXPECT_EQ(std::string(e.lp_path), TestPluginSlPath());
            EXPECT_STREQ(e.lp_init_func, "test_plugin_init");
            EXPECT_STREQ(e.lp_args, "a b");
        }
    }
    ldap_plugin_registry_free(list);
    for (int i = count; i < LDAP_PLUGIN_MAX_ENTRIES; i++)
        ASSERT_EQ(Register(("FILL-" + std::to_string(i)).c_str(), "test_plugin_init", nullptr), LDAP_SUCCESS);
    ASSERT_EQ(ldap_plugin_registry_copy(&list), LDAP_SUCCESS);
    ldap_plugin_registry_free(list);
    ASSERT_EQ(Register("ONE-TOO-MANY", "test_plugin_init", nullptr), LDAP_SUCCESS);
    list = reinterpret_cast<LDAPPluginInfo **>(1);
    EXPECT_EQ(ldap_plugin_registry_copy(&list), LDAP_PARAM_ERROR);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(ldap_plugin_registry_copy(nullptr), LDAP_PARAM_ERROR);
}

} // namespace
