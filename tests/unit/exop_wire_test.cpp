// Extended operations against the scripted server: the request name and
// value each operation and each value builder puts on the wire, the
// vendor operations slapd does not know (transactions, backup, restore)
// with the decoding of their answers, and the refusals that send nothing.
#include "ber_test_support.h"
#include "engine_fixture.h"
#include "proto/request_values.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

using namespace zldap_test;

namespace {

// What an extended request carried.
struct SentExtended {
    std::string name;
    std::optional<Bytes> value;
};

SentExtended Decode(const Request &request)
{
    SentExtended sent;
    BerPtr ber = ExactReader(request.message);
    int id = 0;
    char *name = nullptr;
    if (fber_scanf(ber.get(), "{i{a", &id, &name) == LBER_DEFAULT)
        return sent;
    sent.name = name;
    zldap::mem_free(name);
    ber_len_t len = 0;
    struct berval *value = nullptr;
    if (fber_peek_tag(ber.get(), &len) == 0x81 && fber_scanf(ber.get(), "O", &value) != LBER_DEFAULT)
        sent.value = Bytes(value->bv_val, value->bv_val + value->bv_len);
    ber_bvfree(value);
    return sent;
}

// The extended response the server gives every extended request.
struct Reply {
    int code = 0;
    std::optional<std::string> name;
    std::optional<Bytes> value;
};

class ExopServer {
public:
    ExopServer()
        : server_([this](ScriptConnection &c) {
              while (auto r = c.Read()) {
                  Reply a;
                  {
                      std::lock_guard<std::mutex> lock(m_);
                      requests_.push_back(*r);
                      a = reply_;
                  }
                  std::vector<Bytes> items = {wire::Integer(a.code, 0x0A), wire::Octets(""), wire::Octets("")};
                  if (a.name)
                      items.push_back(wire::Octets(*a.name, 0x8A));
                  if (a.value)
                      items.push_back(wire::Tlv(0x8B, *a.value));
                  c.Send(wire::Seq({wire::Integer(r->id), wire::Seq(items, 0x78)}));
              }
          }),
          ld_(HandleFor(server_))
    {
    }
    ~ExopServer() { ldap_unbind(ld_); }
    LDAP *ld() const { return ld_; }
    void Answer(const Reply &reply)
    {
        std::lock_guard<std::mutex> lock(m_);
        reply_ = reply;
    }
    std::vector<Request> Requests()
    {
        std::lock_guard<std::mutex> lock(m_);
        return requests_;
    }

private:
    std::mutex m_;
    std::vector<Request> requests_;
    Reply reply_;
    ScriptServer server_;
    LDAP *ld_;
};

// What an operation handed back besides its code.
struct Outcome {
    std::optional<std::string> name;
    std::optional<std::string> value;
    int result = -1; // backup and restore
};

// Keeps the parts an extended response handed out, releasing them.
void Keep(Outcome &out, char *name, struct berval *value)
{
    if (name)
        out.name = name;
    if (value)
        out.value = std::string(value->bv_val, value->bv_len);
    ldap_memfree(name);
    ber_bvfree(value);
}

int Synchronous(LDAP *ld, const char *oid, const char *value, Outcome &out)
{
    struct berval bv {value ? std::strlen(value) : 0, const_cast<char *>(value)};
    char *name = nullptr;
    struct berval *data = nullptr;
    int rc = ldap_extended_operation_s(ld, oid, value ? &bv : nullptr, nullptr, nullptr, &name, &data);
    Keep(out, name, data);
    return rc;
}

// Collects the answer of an asynchronous form and parses it.
int Collect(LDAP *ld, int rc, int id, Outcome &out)
{
    if (rc != 0)
        return rc;
    struct timeval tv {10, 0};
    LDAPMessage *res = nullptr;
    if (ldap_result(ld, id, LDAP_MSG_ALL, &tv, &res) != LDAP_RES_EXTENDED)
        return -1;
    char *name = nullptr;
    struct berval *data = nullptr;
    rc = ldap_parse_extended_result(ld, res, &name, &data, 1);
    Keep(out, name, data);
    return rc;
}

constexpr const char *kBackupRestore = "1.3.18.0.2.12.81";

struct ExopRow {
    const char *test;
    std::function<int(LDAP *, Outcome &)> run;
    Reply reply;
    const char *sent_name;
    std::optional<std::string> sent_value; // hex
    int code;
    Outcome expected;
};

const ExopRow kExopRows[] = {
    {"GenericWithoutValue", [](LDAP *ld, Outcome &o) { return Synchronous(ld, "1.2.3", nullptr, o); },
     {0, "1.2.3.4", Bytes{'x', 'y', 'z'}}, "1.2.3", std::nullopt, 0, {"1.2.3.4", "xyz"}},
    {"GenericWithValue", [](LDAP *ld, Outcome &o) { return Synchronous(ld, "1.2.3", "ab", o); },
     {0, std::nullopt, std::nullopt}, "1.2.3", "61 62", 0, {}},
    {"AServerErrorHandsOutNothing", [](LDAP *ld, Outcome &o) { return Synchronous(ld, "1.2.3", nullptr, o); },
     {LDAP_UNWILLING_TO_PERFORM, "1.2.3.4", Bytes{'x'}}, "1.2.3", std::nullopt, LDAP_UNWILLING_TO_PERFORM, {}},
    {"GenericAsynchronous",
     [](LDAP *ld, Outcome &o) {
         int id = -1;
         struct berval bv {1, const_cast<char *>("v")};
         return Collect(ld, ldap_extended_operation(ld, "1.2.5", &bv, nullptr, nullptr, &id), id, o);
     },
     {0, "1.2.6", std::nullopt}, "1.2.5", "76", 0, {"1.2.6", std::nullopt}},
    {"StartTransaction",
     [](LDAP *ld, Outcome &o) {
         struct berval *tran_id = nullptr;
         int rc = ldap_start_transaction_s(ld, nullptr, nullptr, &tran_id);
         char *text = ldap_get_tran_id(tran_id);
         o.value = text ? std::optional<std::string>(text) : std::nullopt;
         ldap_memfree(text);
         ber_bvfree(tran_id);
         return rc;
     },
     {0, "1.3.18.0.2.12.5", Bytes{'t', 'i', 'd', '7'}}, "1.3.18.0.2.12.5", std::nullopt, 0, {std::nullopt, "tid7"}},
    {"EndTransactionCommits",
     [](LDAP *ld, Outcome &) { return ldap_end_transaction_s(ld, "abc", 1, nullptr, nullptr); },
     {0, "1.3.18.0.2.12.6", Bytes{'x'}}, "1.3.18.0.2.12.6", "01 61 62 63", 0, {}},
    {"EndTransactionRollsBack",
     [](LDAP *ld, Outcome &) { return ldap_end_transaction_s(ld, "abc", 0, nullptr, nullptr); },
     {LDAP_OTHER, std::nullopt, std::nullopt}, "1.3.18.0.2.12.6", "00 61 62 63", LDAP_OTHER, {}},
    {"EndTransactionAsynchronous",
     [](LDAP *ld, Outcome &o) {
         int id = -1;
         return Collect(ld, ldap_end_transaction(ld, "t1", 7, nullptr, nullptr, &id), id, o);
     },
     {}, "1.3.18.0.2.12.6", "01 74 31", 0, {}},
    {"TransactionIdRequest",
     [](LDAP *ld, Outcome &) { return ldap_tran_id_request_s(ld, "abc", nullptr, nullptr); },
     {}, "1.3.18.0.2.12.64", "61 62 63", 0, {}},
    {"BackupReadsTheOperationsResult", [](LDAP *ld, Outcome &o) { return ldap_backup(ld, &o.result); },
     {0, kBackupRestore, Hex("30 03 02 01 00")}, kBackupRestore, "30 84 00 00 00 03 0A 01 01", 0,
     {std::nullopt, std::nullopt, 0}},
    {"RestoreReadsTheOperationsResult", [](LDAP *ld, Outcome &o) { return ldap_restore(ld, &o.result); },
     {0, kBackupRestore, Hex("30 03 02 01 07")}, kBackupRestore, "30 84 00 00 00 03 0A 01 02", 0,
     {std::nullopt, std::nullopt, 7}},
    {"BackupWithoutAResponseValueKeeps5", [](LDAP *ld, Outcome &o) { return ldap_backup(ld, &o.result); },
     {0, kBackupRestore, std::nullopt}, kBackupRestore, "30 84 00 00 00 03 0A 01 01", 0,
     {std::nullopt, std::nullopt, 5}},
    {"RestoreAnswerOfAnotherNameKeeps10", [](LDAP *ld, Outcome &o) { return ldap_restore(ld, &o.result); },
     {0, "1.2.3", Hex("30 03 02 01 00")}, kBackupRestore, "30 84 00 00 00 03 0A 01 02", 0,
     {std::nullopt, std::nullopt, 10}},
    {"BackupWithAMalformedValueKeeps5", [](LDAP *ld, Outcome &o) { return ldap_backup(ld, &o.result); },
     {0, kBackupRestore, Hex("04 01 00")}, kBackupRestore, "30 84 00 00 00 03 0A 01 01", 0,
     {std::nullopt, std::nullopt, 5}},
    {"BackupRefusedByTheServer", [](LDAP *ld, Outcome &o) { return ldap_backup(ld, &o.result); },
     {LDAP_INSUFFICIENT_ACCESS, kBackupRestore, Hex("30 03 02 01 00")}, kBackupRestore,
     "30 84 00 00 00 03 0A 01 01", LDAP_INSUFFICIENT_ACCESS, {std::nullopt, std::nullopt, 5}},
};

void PrintTo(const ExopRow &row, std::ostream *os) { *os << row.test; }

class ExtendedRequests : public testing::TestWithParam<ExopRow> {};

TEST_P(ExtendedRequests, SendTheirNameAndValueAndReadTheAnswer)
{
    const ExopRow &row = GetParam();
    ExopServer s;
    s.Answer(row.reply);
    Outcome out;
    EXPECT_EQ(row.run(s.ld(), out), row.code);
    ASSERT_EQ(s.Requests().size(), 1u);
    SentExtended sent = Decode(s.Requests()[0]);
    EXPECT_EQ(sent.name, row.sent_name);
    EXPECT_EQ(sent.value ? std::optional<std::string>(ToHex(*sent.value)) : std::nullopt, row.sent_value);
    EXPECT_EQ(out.name, row.expected.name);
    EXPECT_EQ(out.value, row.expected.value);
    EXPECT_EQ(out.result, row.expected.result);
}

INSTANTIATE_TEST_SUITE_P(Rows, ExtendedRequests, testing::ValuesIn(kExopRows),
                         [](const testing::TestParamInfo<ExopRow> &info) { return std::string(info.param.test); });

TEST(ExtendedRequest, IsWrittenExactly)
{
    ExopServer s;
    Outcome out;
    ASSERT_EQ(Synchronous(s.ld(), "1.2.3", nullptr, out), 0);
    EXPECT_EQ(ToHex(s.Requests()[0].message),
              "30 84 00 00 00 10 02 01 01 77 84 00 00 00 07 80 05 31 2E 32 2E 33");
}

TEST(ExtendedRequest, RefusalsSendNothing)
{
    ExopServer s;
    int id = 0;
    LDAPControl critical{const_cast<char *>("1.2.3"), {0, nullptr}, 1};
    LDAPControl *client[] = {&critical, nullptr};
    char *name = nullptr;
    EXPECT_EQ(ldap_extended_operation(s.ld(), nullptr, nullptr, nullptr, nullptr, &id), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_extended_operation(s.ld(), "1.2.3", nullptr, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_extended_operation(nullptr, "1.2.3", nullptr, nullptr, nullptr, &id), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_extended_operation_s(s.ld(), nullptr, nullptr, nullptr, nullptr, &name, nullptr),
              LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(s.ld()), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_extended_operation_s(s.ld(), "1.2.3", nullptr, nullptr, client, &name, nullptr),
              LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_EQ(ldap_end_transaction_s(s.ld(), nullptr, 1, nullptr, nullptr), LDAP_OTHER);
    EXPECT_EQ(ldap_end_transaction(s.ld(), nullptr, 1, nullptr, nullptr, &id), LDAP_OTHER);
    EXPECT_EQ(ldap_tran_id_request_s(s.ld(), nullptr, nullptr, nullptr), LDAP_OTHER);
    EXPECT_EQ(ldap_tran_id_request(s.ld(), nullptr, nullptr, nullptr, &id), LDAP_OTHER);
    EXPECT_EQ(name, nullptr);
    Outcome out;
    ASSERT_EQ(Synchronous(s.ld(), "1.2.3", nullptr, out), 0);
    EXPECT_EQ(s.Requests().size(), 1u);
}

TEST(ExtendedRequest, TheControlsFollowTheValue)
{
    ExopServer s;
    LDAPControl ctrl{const_cast<char *>("1.2.3"), {0, nullptr}, 0};
    LDAPControl *controls[] = {&ctrl, nullptr};
    ASSERT_EQ(ldap_tran_id_request_s(s.ld(), "a", controls, nullptr), 0);
    EXPECT_EQ(ToHex(s.Requests()[0].message),
              "30 84 00 00 00 34 02 01 01 77 84 00 00 00 15 80 10 31 2E 33 2E 31 38 2E 30 2E 32 2E 31 32 2E 36 34 "
              "81 01 61 A0 84 00 00 00 10 30 84 00 00 00 0A 04 05 31 2E 32 2E 33 01 01 00");
}

// ---- request values -----------------------------------------------------------

struct ValueRow {
    const char *test;
    std::function<struct berval *()> build;
    const char *hex; // nullptr: the builder refuses
};

const ValueRow kValueRows[] = {
    {"ResumeRole", [] { return ldap_create_resume_role_request(3, "a", "b"); },
     "30 84 00 00 00 09 0A 01 03 04 01 61 04 01 62"},
    {"ResumeRoleWithoutTexts", [] { return ldap_create_resume_role_request(3, nullptr, nullptr); },
     "30 84 00 00 00 07 0A 01 03 04 00 04 00"},
    {"GetFile", [] { return ldap_create_get_file_request(2, "f"); }, "30 84 00 00 00 06 0A 01 02 04 01 66"},
    {"GetFileWithoutName", [] { return ldap_create_get_file_request(2, nullptr); }, "30 84 00 00 00 05 0A 01 02 04 00"},
    {"OnlineBackup", [] { return ldap_create_online_backup_request("/d"); }, "30 84 00 00 00 04 04 02 2F 64"},
    {"OnlineBackupNeedsAPath", [] { return ldap_create_online_backup_request(nullptr); }, nullptr},
    {"LocateEntry", [] { return ldap_create_locate_entry_request("cn=a"); }, "30 84 00 00 00 06 04 04 63 6E 3D 61"},
    {"LocateEntryWithoutText", [] { return ldap_create_locate_entry_request(nullptr); }, "30 84 00 00 00 02 04 00"},
    {"PasswordPolicyBindInit", [] { return ldap_create_password_policy_bind_init_request("cn=a"); },
     "30 84 00 00 00 06 04 04 63 6E 3D 61"},
    {"PasswordPolicyBindInitNeedsADn", [] { return ldap_create_password_policy_bind_init_request(nullptr); }, nullptr},
    {"PasswordPolicyBindFinalize", [] { return ldap_create_password_policy_bind_finalize_request("cn=a", 2); },
     "30 84 00 00 00 09 04 04 63 6E 3D 61 0A 01 02"},
    {"PasswordPolicyBindFinalizeNeedsADn",
     [] { return ldap_create_password_policy_bind_finalize_request(nullptr, 2); }, nullptr},
    {"TransactionIdRequest", [] { return createTransIDReqVal("abc"); }, "61 62 63"},
    {"TransactionIdRequestNeedsAnId", [] { return createTransIDReqVal(nullptr); }, nullptr},
};

void PrintTo(const ValueRow &row, std::ostream *os) { *os << row.test; }

class RequestValues : public testing::TestWithParam<ValueRow> {};

TEST_P(RequestValues, GoOnTheWireAsBuilt)
{
    const ValueRow &row = GetParam();
    struct berval *value = row.build();
    if (!row.hex) {
        EXPECT_EQ(value, nullptr);
        return;
    }
    ASSERT_NE(value, nullptr);
    ExopServer s;
    char *name = nullptr;
    EXPECT_EQ(ldap_extended_operation_s(s.ld(), "1.2.3", value, nullptr, nullptr, &name, nullptr), 0);
    ber_bvfree(value);
    ASSERT_EQ(s.Requests().size(), 1u);
    std::optional<Bytes> sent = Decode(s.Requests()[0]).value;
    ASSERT_TRUE(sent.has_value());
    EXPECT_EQ(ToHex(*sent), row.hex);
}

INSTANTIATE_TEST_SUITE_P(Rows, RequestValues, testing::ValuesIn(kValueRows),
                         [](const testing::TestParamInfo<ValueRow> &info) { return std::string(info.param.test); });

TEST(TransactionId, IsTheValuesBytesAsText)
{
    char bytes[] = {'a', 'b', 'c'};
    struct berval id {3, bytes};
    char *text = ldap_get_tran_id(&id);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "abc") << "the copy ends where the value does";
    ldap_memfree(text);
    EXPECT_EQ(ldap_get_tran_id(nullptr), nullptr);
}

} // namespace
