// Binds, updates and compares against the scripted server: the request
// bytes on the wire, the refusals that send nothing, and the result codes
// and texts that come back.
#include "alloc_faults.h"
#include "ber_test_support.h"
#include "engine_fixture.h"
#include "ops/ldap_bind.h"
#include "proto/ldap_controls.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_init.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"
#include "base/memory.h"
#include "ops/update.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

using namespace zldap_test;
using namespace std::chrono_literals;

namespace {

// A server that records every request and answers each with the response
// the test chose for its operation (result code, text, extra items).
class Recorder {
public:
    struct Reply {
        int code = 0;
        std::string text;
        Bytes extra; // appended inside the response, e.g. server SASL credentials
    };

    Recorder()
        : server_([this](ScriptConnection &c) {
              while (auto r = c.Read()) {
                  Reply a;
                  {
                      std::lock_guard<std::mutex> lock(m_);
                      requests_.push_back(*r);
                      a = answer_;
                  }
                  if (r->tag == 0x42)
                      continue; // unbind: no response
                  int response = r->tag == 0x4A ? 0x6B : (r->tag | 0x01) == 0x61 ? 0x61 : r->tag + 1;
                  Bytes op = wire::Seq({wire::Integer(a.code, 0x0A), wire::Octets(""), wire::Octets(a.text), a.extra},
                                       response);
                  c.Send(wire::Message(r->id, op));
              }
          })
    {
        ld_ = HandleFor(server_);
    }
    ~Recorder() { ldap_unbind(ld_); }

    LDAP *ld() const { return ld_; }
    const ScriptServer *server() const { return &server_; }
    void Answer(int code, const std::string &text = "", const Bytes &extra = {})
    {
        std::lock_guard<std::mutex> lock(m_);
        answer_ = {code, text, extra};
    }
    std::vector<Request> Requests()
    {
        std::lock_guard<std::mutex> lock(m_);
        return requests_;
    }
    // The protocol operation of the last request, without the envelope.
    Bytes LastOperation()
    {
        std::vector<Request> all = Requests();
        if (all.empty())
            return {};
        const Bytes &m = all.back().message;
        size_t header = 2 + ((m[1] & 0x80) ? (m[1] & 0x7F) : 0);
        size_t id_len = m[header + 1];
        return Bytes(m.begin() + static_cast<long>(header + 2 + id_len), m.end());
    }

private:
    std::mutex m_;
    std::vector<Request> requests_;
    Reply answer_;
    ScriptServer server_;
    LDAP *ld_ = nullptr;
};

std::string ErrorText(LDAP *ld)
{
    char *text = nullptr;
    ldap_get_error_direct(ld, nullptr, &text);
    std::string out = text ? text : "";
    zldap::mem_free(text);
    return out;
}

TEST(Bind, ASimpleBindIsWrittenExactly)
{
    Recorder r;
    ASSERT_EQ(ldap_simple_bind_s(r.ld(), "cn=a", nullptr), 0);
    ASSERT_EQ(r.Requests().size(), 1u);
    EXPECT_EQ(ToHex(r.Requests()[0].message),
              "30 84 00 00 00 14 02 01 01 60 84 00 00 00 0B 02 01 03 04 04 63 6E 3D 61 80 00");
}

TEST(Bind, AnonymousBindsSendEmptyStringsAtTheHandlesVersion)
{
    Recorder r;
    int two = 2;
    ASSERT_EQ(ldap_set_option(r.ld(), LDAP_OPT_PROTOCOL_VERSION, &two), 0);
    ASSERT_EQ(ldap_simple_bind_s(r.ld(), nullptr, nullptr), 0);
    EXPECT_EQ(ToHex(r.LastOperation()), "60 84 00 00 00 07 02 01 02 04 00 80 00");
}

TEST(Bind, TheServersCodeAndTextComeBack)
{
    Recorder r;
    r.Answer(LDAP_INVALID_CREDENTIALS, "wrong password");
    EXPECT_EQ(ldap_simple_bind_s(r.ld(), "cn=a", "secret"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(ldap_get_errno(r.ld()), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(ErrorText(r.ld()), "wrong password");
}

TEST(Bind, OtherMethodsAreRefusedWithoutSending)
{
    Recorder r;
    EXPECT_EQ(ldap_bind_s(r.ld(), "cn=a", "pw", LDAP_AUTH_SASL), LDAP_AUTH_UNKNOWN);
    EXPECT_EQ(ldap_bind(r.ld(), "cn=a", "pw", 0), -1);
    EXPECT_EQ(ldap_get_errno(r.ld()), LDAP_AUTH_UNKNOWN);
    EXPECT_TRUE(r.Requests().empty());
    EXPECT_EQ(ldap_simple_bind_s(nullptr, "cn=a", "pw"), LDAP_PARAM_ERROR);
}

TEST(Bind, AsynchronousSimpleBindReturnsTheId)
{
    Recorder r;
    int id = ldap_simple_bind(r.ld(), "cn=a", "pw");
    ASSERT_GT(id, 0);
    EXPECT_EQ(ldap_bind(r.ld(), "cn=a", "pw", LDAP_AUTH_SIMPLE), id + 1);
    EXPECT_EQ(ldap_simple_bind(nullptr, "cn=a", "pw"), -1);
}

TEST(SaslBind, WithoutAPlugInTheLibrarySendsTheRequestItself)
{
    Recorder r;
    Bytes creds = wire::Octets("challenge", 0x87);
    r.Answer(LDAP_SASL_BIND_IN_PROGRESS, "", creds);
    struct berval cred {2, const_cast<char *>("ab")};
    struct berval *server_cred = nullptr;
    EXPECT_EQ(ldap_sasl_bind_s(r.ld(), "cn=a", "DIGEST-MD5", &cred, nullptr, nullptr, &server_cred),
              LDAP_SASL_BIND_IN_PROGRESS);
    EXPECT_EQ(ToHex(r.LastOperation()),
              "60 84 00 00 00 1F 02 01 03 04 04 63 6E 3D 61 A3 84 00 00 00 10 04 0A 44 49 47 45 53 54 2D 4D 44 35 "
              "04 02 61 62");
    ASSERT_NE(server_cred, nullptr);
    EXPECT_EQ(std::string(server_cred->bv_val, server_cred->bv_len), "challenge");
    ber_bvfree(server_cred);
    EXPECT_EQ(r.ld()->ld_bind_method, 2);
    EXPECT_STREQ(r.ld()->ld_bind_dn, "DIGEST-MD5");
    ASSERT_NE(r.ld()->ld_bind_cred, nullptr);
    EXPECT_EQ(r.ld()->ld_bind_cred->bv_len, 2u);
    EXPECT_EQ(r.ld()->ld_sctrls, nullptr) << "a bind without controls leaves no defaults";
    EXPECT_EQ(r.ld()->ld_cctrls, nullptr);
}

TEST(SaslBind, ExternalWithCredentialsIsRefusedBeforeSending)
{
    Recorder r;
    struct berval cred {1, const_cast<char *>("x")};
    EXPECT_EQ(ldap_sasl_bind_s(r.ld(), nullptr, "external", &cred, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_sasl_bind_s(r.ld(), "cn=a", "EXTERNAL", nullptr, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
    EXPECT_TRUE(r.Requests().empty());
    EXPECT_EQ(ldap_sasl_bind_s(r.ld(), nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(ToHex(r.LastOperation()),
              "60 84 00 00 00 15 02 01 03 04 00 A3 84 00 00 00 0A 04 08 45 58 54 45 52 4E 41 4C");
}

TEST(SaslBind, AsynchronousFormsNeedAnIdPointer)
{
    Recorder r;
    EXPECT_EQ(ldap_sasl_bind(r.ld(), nullptr, "PLAIN", nullptr, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
    int id = 0;
    ASSERT_EQ(ldap_sasl_bind(r.ld(), nullptr, "PLAIN", nullptr, nullptr, nullptr, &id), 0);
    EXPECT_GT(id, 0);
    LDAPControl critical{const_cast<char *>("1.2.3"), {0, nullptr}, 1};
    LDAPControl *client[] = {&critical, nullptr};
    EXPECT_EQ(ldap_sasl_bind(r.ld(), nullptr, "PLAIN", nullptr, nullptr, client, &id),
              LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
}

// ---- updates ----------------------------------------------------------------

TEST(Modify, AReplaceIsWrittenExactly)
{
    Recorder r;
    char x[] = "x";
    char *values[] = {x, nullptr};
    LDAPMod mod{LDAP_MOD_REPLACE, const_cast<char *>("description"), {values}};
    LDAPMod *mods[] = {&mod, nullptr};
    ASSERT_EQ(ldap_modify_s(r.ld(), "cn=a", mods), 0);
    Bytes op = r.LastOperation();
    std::string hex = ToHex(op);
    EXPECT_NE(hex.find("30 84 00 00 00 1F 0A 01 02 30 84 00 00 00 16 04 0B 64 65 73 63 72 69 70 74 69 6F 6E 31 84 00 "
                       "00 00 03 04 01 78"),
              std::string::npos)
        << hex;
    EXPECT_EQ(op[0], 0x66);
}

TEST(Modify, BinaryValuesKeepTheirZeroBytes)
{
    Recorder r;
    char bytes[] = {'a', '\0', 'b'};
    struct berval value {3, bytes};
    struct berval *values[] = {&value, nullptr};
    LDAPMod mod{LDAP_MOD_ADD | LDAP_MOD_BVALUES, const_cast<char *>("photo"), {nullptr}};
    mod.mod_bvalues = values;
    LDAPMod *mods[] = {&mod, nullptr};
    ASSERT_EQ(ldap_modify_s(r.ld(), "cn=a", mods), 0);
    std::string hex = ToHex(r.LastOperation());
    EXPECT_NE(hex.find("0A 01 00 30 84 00 00 00 12 04 05 70 68 6F 74 6F 31 84 00 00 00 05 04 03 61 00 62"),
              std::string::npos)
        << hex;
}

TEST(Add, IgnoresTheOperationCodeButNotTheBinaryFlag)
{
    Recorder r;
    char top[] = "top";
    char *values[] = {top, nullptr};
    LDAPMod mod{LDAP_MOD_DELETE, const_cast<char *>("objectClass"), {values}};
    LDAPMod *attrs[] = {&mod, nullptr};
    ASSERT_EQ(ldap_add_s(r.ld(), "cn=a", attrs), 0);
    EXPECT_EQ(ToHex(r.LastOperation()),
              "68 84 00 00 00 2A 04 04 63 6E 3D 61 30 84 00 00 00 1E 30 84 00 00 00 18 04 0B 6F 62 6A 65 63 74 43 6C "
              "61 73 73 31 84 00 00 00 05 04 03 74 6F 70");
}

TEST(Delete, SendsTheDnAsThePrimitiveRequest)
{
    Recorder r;
    ASSERT_EQ(ldap_delete_s(r.ld(), "cn=gone"), 0);
    EXPECT_EQ(ToHex(r.LastOperation()), "4A 07 63 6E 3D 67 6F 6E 65");
    EXPECT_EQ(ldap_delete_s(r.ld(), nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(r.Requests().size(), 1u) << "a NULL DN sends nothing";
}

TEST(Rename, TheBooleanAndTheOptionalNewSuperior)
{
    Recorder r;
    ASSERT_EQ(ldap_modrdn_s(r.ld(), "cn=a,o=x", "cn=b", 1), 0);
    EXPECT_EQ(ToHex(r.LastOperation()),
              "6C 84 00 00 00 13 04 08 63 6E 3D 61 2C 6F 3D 78 04 04 63 6E 3D 62 01 01 FF");
    int id = 0;
    ASSERT_EQ(ldap_rename(r.ld(), "cn=a,o=x", "cn=b", "o=y", 0, nullptr, nullptr, &id), 0);
    EXPECT_GT(id, 0);
    for (int i = 0; i < 500 && r.Requests().size() < 2; i++)
        std::this_thread::sleep_for(10ms);
    EXPECT_EQ(ToHex(r.LastOperation()),
              "6C 84 00 00 00 18 04 08 63 6E 3D 61 2C 6F 3D 78 04 04 63 6E 3D 62 01 01 00 80 03 6F 3D 79");
    EXPECT_EQ(ldap_modrdn_s(r.ld(), "cn=a", nullptr, 0), -1) << "failures before a result are -1";
    EXPECT_EQ(ldap_get_errno(r.ld()), LDAP_PARAM_ERROR);
}

TEST(Compare, ReturnsTrueFalseOrTheServersError)
{
    Recorder r;
    r.Answer(LDAP_COMPARE_TRUE);
    EXPECT_EQ(ldap_compare_s(r.ld(), "cn=a", "cn", "a"), LDAP_COMPARE_TRUE);
    EXPECT_EQ(ToHex(r.LastOperation()),
              "6E 84 00 00 00 13 04 04 63 6E 3D 61 30 84 00 00 00 07 04 02 63 6E 04 01 61");
    r.Answer(LDAP_COMPARE_FALSE);
    EXPECT_EQ(ldap_compare_s(r.ld(), "cn=a", "cn", "b"), LDAP_COMPARE_FALSE);
    r.Answer(LDAP_NO_SUCH_OBJECT, "no entry");
    EXPECT_EQ(ldap_compare_s(r.ld(), "cn=missing", "cn", "b"), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(ErrorText(r.ld()), "no entry");
    EXPECT_EQ(ldap_compare_s(r.ld(), "cn=a", nullptr, "b"), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_compare_s(nullptr, "cn=a", "cn", "b"), -1);
}

TEST(Updates, CriticalClientControlsRefuseEveryOperationBeforeEncoding)
{
    Recorder r;
    LDAPControl critical{const_cast<char *>("1.2.3"), {0, nullptr}, 1};
    LDAPControl *client[] = {&critical, nullptr};
    char *values[] = {nullptr};
    LDAPMod mod{LDAP_MOD_ADD, const_cast<char *>("cn"), {values}};
    LDAPMod *mods[] = {&mod, nullptr};
    struct berval value {1, const_cast<char *>("a")};
    EXPECT_EQ(ldap_modify_ext_s(r.ld(), "cn=a", mods, nullptr, client), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_EQ(ldap_add_ext_s(r.ld(), "cn=a", mods, nullptr, client), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_EQ(ldap_delete_ext_s(r.ld(), "cn=a", nullptr, client), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_EQ(ldap_compare_ext_s(r.ld(), "cn=a", "cn", &value, nullptr, client),
              LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_EQ(ldap_rename_s(r.ld(), "cn=a", "cn=b", nullptr, 0, nullptr, client), -1);
    EXPECT_TRUE(r.Requests().empty());
}

TEST(Updates, DefaultServerControlsGoWithRequestsThatHaveNone)
{
    Recorder r;
    LDAPControl ctrl{const_cast<char *>("1.2.3"), {0, nullptr}, 0};
    LDAPControl *defaults[] = {&ctrl, nullptr};
    ASSERT_EQ(ldap_set_option(r.ld(), LDAP_OPT_SERVER_CONTROLS, defaults), 0);
    ASSERT_EQ(ldap_delete_s(r.ld(), "cn=a"), 0);
    EXPECT_EQ(ToHex(r.Requests().back().message),
              "30 84 00 00 00 1F 02 01 01 4A 04 63 6E 3D 61 A0 84 00 00 00 10 30 84 00 00 00 0A 04 05 31 2E 32 2E 33 "
              "01 01 00");
    LDAPControl *none[] = {nullptr};
    ASSERT_EQ(ldap_delete_ext_s(r.ld(), "cn=b", none, nullptr), 0);
    EXPECT_EQ(ToHex(r.LastOperation()), "4A 04 63 6E 3D 62") << "an explicit empty list sends none";
}

TEST(Updates, EveryAllocationFailureIsReportedAndLeaksNothing)
{
    Recorder r; // a fresh handle per run: a failed read ends its connection
    char x[] = "x";
    char *values[] = {x, nullptr};
    LDAPMod mod{LDAP_MOD_REPLACE, const_cast<char *>("description"), {values}};
    LDAPMod *mods[] = {&mod, nullptr};
    auto run = [&] {
        LDAP *ld = HandleFor(*r.server());
        if (!ld)
            return LDAP_NO_MEMORY;
        int rc = ldap_modify_s(ld, "cn=a", mods);
        ldap_unbind(ld);
        return rc;
    };
    // Failures while sending are memory errors; while reading the answer
    // they cost the connection. Once the answer is in, the server's code
    // comes back even when its texts cannot be kept.
    ExpectEachAllocationFailure(
        {run, LDAP_NO_MEMORY, nullptr, [](int rc) { return rc == LDAP_SERVER_DOWN || rc == LDAP_SUCCESS; }});
}

} // namespace
