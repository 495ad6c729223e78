// Extended operations and abandon against the scripted server: the request
// name and value each operation and value builder puts on the wire, the
// vendor operations slapd does not know (transactions, backup, restore)
// with the decoding of their answers, the refusals that send nothing, and
// what abandon does to the responses already filed and to those arriving
// late.
#include "ber_test_support.h"
#include "conn/ldap_connect.h"
#include "engine_fixture.h"
#include "proto/request_values.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <optional>
#include <tuple>

using namespace zldap_test;

namespace {

// The answer to every extended request: its code, name and value.
using Reply = std::tuple<int, std::optional<std::string>, std::optional<Bytes>>;

// "name value" of an extended request: the name under 0x80, then the value
// (in hex) under 0x81, after the operation's long-form header.
std::string Decoded(const Request &request)
{
    const Bytes &op = request.op;
    size_t value = 8 + op[7];
    std::string out(op.begin() + 8, op.begin() + value);
    if (value + 2 <= op.size() && op[value] == 0x81)
        out += " " + ToHex(Bytes(op.begin() + value + 2, op.begin() + value + 2 + op[value + 1]));
    return out;
}

// Answers extended requests with the test's reply and a delete at once,
// after the responses queued for other requests; holds searches without an
// answer. Abandon requests get no answer, as on a real server.
class Server {
public:
    explicit Server(Reply reply = {})
        : reply_(std::move(reply)), server_([this](ScriptConnection &c) {
              while (auto r = c.Read()) {
                  const auto &[code, name, value] = reply_;
                  std::vector<Bytes> answers, items = {Integer(code, 0x0A), Octets(""), Octets("")};
                  if (name)
                      items.push_back(Octets(*name, 0x8A));
                  if (value)
                      items.push_back(Tlv(0x8B, *value));
                  std::lock_guard<std::mutex> lock(m_);
                  requests_.push_back(*r);
                  if (r->tag == 0x4A) {
                      answers.swap(queue_);
                      answers.push_back(wire::Result(r->id, 0x6B, 0));
                  }
                  if (r->tag == 0x77)
                      answers = {Seq({Integer(r->id), Seq(items, 0x78)})};
                  for (const Bytes &b : answers)
                      c.Send(b);
              }
          }),
          ld(HandleFor(server_))
    {
    }
    ~Server() { ldap_unbind(ld); }
    // Sent before the answer to the next delete.
    void Queue(std::vector<Bytes> responses)
    {
        std::lock_guard<std::mutex> lock(m_);
        queue_ = std::move(responses);
    }
    // The extended requests decoded, or other requests of this tag in hex:
    // every earlier request has reached the server, and every response sent
    // before is filed, once a delete sent now has its answer.
    std::vector<std::string> Sent(int tag)
    {
        EXPECT_EQ(ldap_delete_s(ld, "cn=sync"), 0);
        std::lock_guard<std::mutex> lock(m_);
        std::vector<std::string> out;
        for (const Request &r : requests_)
            if (r.tag == tag)
                out.push_back(tag == 0x77 ? Decoded(r) : ToHex(r.message));
        return out;
    }
    int Search() { return ldap_search(ld, "o=x", LDAP_SCOPE_SUBTREE, "(cn=*)", nullptr, 0); }
    const ldap_msg_row &Row(int id) { return TableOf(ld)->rows[id]; }

private:
    const Reply reply_;
    std::mutex m_;
    std::vector<Request> requests_;
    std::vector<Bytes> queue_;
    ScriptServer server_;

public:
    LDAP *ld;
};

// "code name value" of what an extended operation handed out, released.
std::string Outcome(int rc, char *name, struct berval *value)
{
    std::string out = std::to_string(rc) + " " + (name ? name : "-") + " " +
                      (value ? std::string(value->bv_val, value->bv_len) : "-");
    ldap_memfree(name);
    ber_bvfree(value);
    return out;
}

std::string Sync(LDAP *ld, const char *oid, const struct berval *value)
{
    char *name = nullptr;
    struct berval *data = nullptr;
    int rc = ldap_extended_operation_s(ld, oid, value, nullptr, nullptr, &name, &data);
    return Outcome(rc, name, data);
}

struct berval kAb = {2, const_cast<char *>("ab")};
const char *kBackupRestore = "1.3.18.0.2.12.81";
const char *kBackupSent = "1.3.18.0.2.12.81 30 84 00 00 00 03 0A 01 01";
const char *kRestoreSent = "1.3.18.0.2.12.81 30 84 00 00 00 03 0A 01 02";
// ldap_backup and ldap_restore: "code result", the result preset to -1.
template <int (*operation)(LDAP *, int *)> std::string Run(LDAP *ld)
{
    int result = -1;
    int rc = operation(ld, &result);
    return std::to_string(rc) + " " + std::to_string(result);
}
const auto kBackup = Run<ldap_backup>, kRestore = Run<ldap_restore>;

// What a call gives, given the server's reply, and the request it sent.
const std::tuple<std::function<std::string(LDAP *)>, Reply, const char *, const char *> kExopRows[] = {
    {[](LDAP *ld) { return Sync(ld, "1.2.3", &kAb); }, {0, "1.2.3.4", Text("xyz")}, "1.2.3 61 62", "0 1.2.3.4 xyz"},
    {[](LDAP *ld) { return Sync(ld, "1.2.3", nullptr); }, {53, "1.2.3.4", Text("x")}, "1.2.3", "53 - -"},
    {[](LDAP *ld) {
         int id = -1, rc = ldap_extended_operation(ld, "1.2.5", &kAb, nullptr, nullptr, &id);
         return std::to_string(rc) + " id " + std::to_string(id);
     },
     {}, "1.2.5 61 62", "0 id 1"},
    // Transactions: the id is the response value; ending puts the commit octet first.
    {[](LDAP *ld) {
         struct berval *id = nullptr;
         int rc = ldap_start_transaction_s(ld, nullptr, nullptr, &id);
         return Outcome(rc, nullptr, id);
     },
     {0, "1.3.18.0.2.12.5", Text("tid7")}, "1.3.18.0.2.12.5", "0 - tid7"},
    {[](LDAP *ld) { return std::to_string(ldap_end_transaction_s(ld, "abc", 7, nullptr, nullptr)); },
     {LDAP_OTHER, std::nullopt, std::nullopt}, "1.3.18.0.2.12.6 01 61 62 63", "80"},
    {[](LDAP *ld) { return std::to_string(ldap_tran_id_request_s(ld, "abc", nullptr, nullptr)); }, {},
     "1.3.18.0.2.12.64 61 62 63", "0"},
    // Backup and restore read the operation's own result from the answer's value.
    {kBackup, {0, kBackupRestore, Hex("30 03 02 01 00")}, kBackupSent, "0 0"},
    {kRestore, {0, kBackupRestore, Hex("30 03 02 01 07")}, kRestoreSent, "0 7"},
    {kBackup, {0, kBackupRestore, std::nullopt}, kBackupSent, "0 5"},
    {kRestore, {0, "1.2.3", Hex("30 03 02 01 00")}, kRestoreSent, "0 10"},
    {kBackup, {0, kBackupRestore, Hex("04 01 00")}, kBackupSent, "0 5"},
    {kBackup, {LDAP_INSUFFICIENT_ACCESS, kBackupRestore, Hex("30 03 02 01 00")}, kBackupSent, "50 5"},
};

TEST(Extended, RequestsSendTheirNameAndValueAndReadTheAnswer)
{
    for (const auto &[run, reply, sent, outcome] : kExopRows) {
        Server s(reply);
        EXPECT_EQ(run(s.ld), outcome) << sent;
        EXPECT_EQ(s.Sent(0x77), std::vector<std::string>{sent});
    }
}

// A request value as hex, released.
std::string Value(struct berval *value)
{
    std::string out = value ? ToHex(Bytes(value->bv_val, value->bv_val + value->bv_len)) : "NULL";
    ber_bvfree(value);
    return out;
}

// Refusals send nothing. The value builders, one row per shape: texts left
// out are empty where the value can do without them.
TEST(Extended, RefusalsAndRequestValues)
{
    Server s;
    int id = 0;
    LDAPControl critical{const_cast<char *>("1.2.3"), {0, nullptr}, 1}, *client[] = {&critical, nullptr};
    EXPECT_EQ(ldap_extended_operation(s.ld, nullptr, nullptr, nullptr, nullptr, &id), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_extended_operation(s.ld, "1.2.3", nullptr, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_extended_operation(nullptr, "1.2.3", nullptr, nullptr, nullptr, &id), LDAP_PARAM_ERROR);
    EXPECT_EQ(Sync(s.ld, nullptr, nullptr), "89 - -");
    EXPECT_EQ(ldap_get_errno(s.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_extended_operation_s(s.ld, "1.2.3", nullptr, nullptr, client, nullptr, nullptr),
              LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_EQ(ldap_end_transaction(s.ld, nullptr, 1, nullptr, nullptr, &id), LDAP_OTHER);
    EXPECT_EQ(ldap_tran_id_request(s.ld, nullptr, nullptr, nullptr, &id), LDAP_OTHER);
    EXPECT_TRUE(s.Sent(0x77).empty());
    EXPECT_EQ(Value(ldap_create_resume_role_request(3, "a", nullptr)), "30 84 00 00 00 08 0A 01 03 04 01 61 04 00");
    EXPECT_EQ(Value(ldap_create_online_backup_request(nullptr)), "NULL");
    EXPECT_EQ(Value(ldap_create_locate_entry_request(nullptr)), "30 84 00 00 00 02 04 00");
    EXPECT_EQ(Value(ldap_create_password_policy_bind_finalize_request("cn=a", 2)),
              "30 84 00 00 00 09 04 04 63 6E 3D 61 0A 01 02");
    char bytes[] = {'a', 'b', 'c'};
    struct berval tran_id {3, bytes};
    char *text = ldap_get_tran_id(&tran_id);
    EXPECT_STREQ(text, "abc") << "the copy ends where the value does";
    ldap_memfree(text);
}

// ---- abandon

struct timeval kWait {10, 0};

// A search with entry e1 handed out and e2 filed is abandoned: the abandon
// request goes out, e2 and what arrives late are dropped, e1 stays the
// caller's.
TEST(Abandon, ARunningSearchLosesWhatWasNotHandedOut)
{
    Server s;
    int search = s.Search();
    s.Queue({wire::Entry(search, "cn=e1", {}), wire::Entry(search, "cn=e2", {})});
    ASSERT_EQ(ldap_delete_s(s.ld, "cn=x"), 0);
    LDAPMessage *first = nullptr;
    ASSERT_EQ(ldap_result(s.ld, search, LDAP_MSG_ONE, &kWait, &first), LDAP_RES_SEARCH_ENTRY);
    ASSERT_NE(s.Row(search).next_to_return, nullptr) << "e2 is filed and not handed out";
    ASSERT_EQ(ldap_abandon_ext(s.ld, search, nullptr, nullptr), 0);
    s.Queue({wire::Entry(search, "cn=late", {}), wire::Result(search, 0x65, 0)});
    EXPECT_EQ(s.Sent(0x50), std::vector<std::string>{"30 84 00 00 00 06 02 01 03 50 01 01"});
    const ldap_msg_row &row = s.Row(search);
    EXPECT_EQ(row.flags & (LDAP_ROW_INUSE | LDAP_ROW_ABANDON | LDAP_ROW_DONE), LDAP_ROW_INUSE | LDAP_ROW_ABANDON);
    EXPECT_EQ(row.request, nullptr);
    EXPECT_TRUE(row.first_result == first && row.last_result == first && !row.next_to_return);
    ldap_msgfree(first);
}

// Ids that cannot be abandoned, finished requests, the classic form,
// controls, referrals, and a failed send, which leaves the mark and the
// messages.
TEST(Abandon, RefusedIdsFinishedRequestsControlsReferralsAndAFailedSend)
{
    Server s;
    for (int id : {0, 200, 5000}) // not an id, never handed out, beyond the table
        EXPECT_EQ(ldap_abandon_ext(s.ld, id, nullptr, nullptr), LDAP_PARAM_ERROR) << id;
    int twice = s.Search();
    EXPECT_EQ(ldap_abandon_ext(s.ld, twice, nullptr, nullptr), 0);
    EXPECT_EQ(ldap_abandon_ext(s.ld, twice, nullptr, nullptr), LDAP_PARAM_ERROR);
    // Finished and all collected: refused, marked all the same.
    int collected = -1, uncollected = -1;
    ASSERT_EQ(ldap_delete_ext(s.ld, "cn=x", nullptr, nullptr, &collected), 0);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_result(s.ld, collected, LDAP_MSG_ALL, &kWait, &res), LDAP_RES_DELETE);
    EXPECT_EQ(ldap_abandon_ext(s.ld, collected, nullptr, nullptr), LDAP_PARAM_ERROR);
    EXPECT_TRUE(s.Row(collected).flags & LDAP_ROW_ABANDON);
    ldap_msgfree(res);
    // Finished with its result not collected: it goes, and the server is not told.
    ASSERT_EQ(ldap_delete_ext(s.ld, "cn=x", nullptr, nullptr, &uncollected), 0);
    s.Sent(0x50); // files the result on the way
    EXPECT_EQ(ldap_abandon_ext(s.ld, uncollected, nullptr, nullptr), 0);
    EXPECT_TRUE(s.Row(uncollected).first_result == nullptr && s.Row(uncollected).request == nullptr);
    EXPECT_EQ(ldap_result(s.ld, uncollected, LDAP_MSG_ALL, &kWait, &res), -1);
    EXPECT_EQ(ldap_abandon(s.ld, 0), -1);
    EXPECT_EQ(ldap_get_errno(s.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(s.Sent(0x50).size(), 1u);
    // A critical client control refuses before anything is done; the
    // referral request chased for the id is abandoned too.
    int parent = s.Search(), child = s.Search(); // the child stands for the request sent to a referral server
    auto *link = static_cast<ldap_msg_link *>(zldap::mem_calloc(1, sizeof(ldap_msg_link)));
    *link = {TableOf(s.ld), child};
    TableOf(s.ld)->rows[parent].child = link; // released with the row
    LDAPControl critical{const_cast<char *>("1.2.3"), {0, nullptr}, 1}, *client[] = {&critical, nullptr};
    EXPECT_EQ(ldap_abandon_ext(s.ld, parent, nullptr, client), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_FALSE(s.Row(parent).flags & LDAP_ROW_ABANDON);
    ASSERT_EQ(ldap_abandon_ext(s.ld, parent, nullptr, nullptr), 0);
    EXPECT_EQ(child, 8); // the ids the requests above took
    ASSERT_EQ(s.Sent(0x50).size(), 3u);
    EXPECT_EQ(s.Sent(0x50).back(), "30 84 00 00 00 06 02 01 0A 50 01 08");
    EXPECT_TRUE(s.Row(child).flags & LDAP_ROW_ABANDON);
    int search = s.Search();
    s.Queue({wire::Entry(search, "cn=e1", {})});
    s.Sent(0x50); // files e1
    lconn_mark_closed(get_default_connection(s.ld));
    EXPECT_EQ(ldap_abandon_ext(s.ld, search, nullptr, nullptr), LDAP_SERVER_DOWN);
    EXPECT_TRUE(s.Row(search).flags & LDAP_ROW_ABANDON);
    EXPECT_NE(s.Row(search).next_to_return, nullptr);
}

} // namespace
