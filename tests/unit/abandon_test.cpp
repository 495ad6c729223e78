// Abandon against the scripted server: the abandon request on the wire,
// what happens to the responses already filed and to those arriving late,
// and the ids that cannot be abandoned.
#include "ber_test_support.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "engine_fixture.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

using namespace zldap_test;

namespace {

// Holds searches without an answer; answers a delete at once, after the
// responses the test queued for other requests. Abandon requests get no
// answer, as on a real server.
class HoldingServer {
public:
    HoldingServer()
        : server_([this](ScriptConnection &c) {
              while (auto r = c.Read()) {
                  std::vector<Bytes> queued;
                  {
                      std::lock_guard<std::mutex> lock(m_);
                      requests_.push_back(*r);
                      if (r->tag == 0x4A)
                          queued.swap(queue_);
                  }
                  if (r->tag != 0x4A)
                      continue;
                  for (const Bytes &b : queued)
                      c.Send(b);
                  c.Send(wire::Result(r->id, 0x6B, 0));
              }
          }),
          ld_(HandleFor(server_))
    {
    }
    ~HoldingServer()
    {
        ldap_msgfree(kept_);
        ldap_unbind(ld_);
    }
    LDAP *ld() const { return ld_; }
    // Sent before the answer to the next delete.
    void Queue(std::vector<Bytes> responses)
    {
        std::lock_guard<std::mutex> lock(m_);
        queue_ = std::move(responses);
    }
    int Search() { return ldap_search(ld_, "o=x", LDAP_SCOPE_SUBTREE, "(cn=*)", nullptr, 0); }
    int Delete()
    {
        int id = -1;
        return ldap_delete_ext(ld_, "cn=x", nullptr, nullptr, &id) == 0 ? id : -1;
    }
    // A delete answered before this returns: every earlier request has
    // reached the server, and every response sent before it is filed.
    void Sync() { ASSERT_EQ(ldap_delete_s(ld_, "cn=sync"), 0); }
    std::vector<Request> Abandons()
    {
        Sync();
        std::lock_guard<std::mutex> lock(m_);
        std::vector<Request> out;
        for (const Request &r : requests_)
            if (r.tag == 0x50)
                out.push_back(r);
        return out;
    }
    void Keep(LDAPMessage *chain) { kept_ = chain; }
    const ldap_msg_row &Row(int id) { return TableOf(ld_)->rows[id]; }

private:
    std::mutex m_;
    std::vector<Request> requests_;
    std::vector<Bytes> queue_;
    ScriptServer server_;
    LDAP *ld_;
    LDAPMessage *kept_ = nullptr;
};

struct timeval kWait {10, 0};

TEST(Abandon, ARunningSearchLosesWhatWasNotHandedOut)
{
    HoldingServer s;
    LDAP *ld = s.ld();
    int search = s.Search();
    ASSERT_EQ(search, 1);
    s.Queue({wire::Entry(search, "cn=e1", {{"cn", {"e1"}}}), wire::Entry(search, "cn=e2", {{"cn", {"e2"}}})});
    int del = s.Delete();
    LDAPMessage *first = nullptr;
    ASSERT_EQ(ldap_result(ld, search, LDAP_MSG_ONE, &kWait, &first), LDAP_RES_SEARCH_ENTRY);
    LDAPMessage *deleted = nullptr;
    ASSERT_EQ(ldap_result(ld, del, LDAP_MSG_ALL, &kWait, &deleted), LDAP_RES_DELETE); // files e2 on the way
    ldap_msgfree(deleted);
    ASSERT_NE(s.Row(search).next_to_return, nullptr) << "e2 is filed and not handed out";

    ASSERT_EQ(ldap_abandon_ext(ld, search, nullptr, nullptr), 0);
    std::vector<Request> abandons = s.Abandons();
    ASSERT_EQ(abandons.size(), 1u);
    EXPECT_EQ(ToHex(abandons[0].message), "30 84 00 00 00 06 02 01 03 50 01 01");

    // The server's late answers are read while another request is collected.
    s.Queue({wire::Entry(search, "cn=late", {{"cn", {"late"}}}), wire::Result(search, 0x65, 0)});
    s.Sync();
    const ldap_msg_row &row = s.Row(search);
    EXPECT_EQ(row.flags & (LDAP_ROW_INUSE | LDAP_ROW_ABANDON | LDAP_ROW_DONE), LDAP_ROW_INUSE | LDAP_ROW_ABANDON);
    EXPECT_EQ(row.request, nullptr);
    EXPECT_EQ(row.first_result, first);
    EXPECT_EQ(row.last_result, first);
    EXPECT_EQ(row.next_to_return, nullptr);

    LDAPMessage *more = nullptr;
    EXPECT_EQ(ldap_result(ld, search, LDAP_MSG_ONE, &kWait, &more), -1) << "nobody waits on an abandoned id";
    EXPECT_EQ(more, nullptr);
    char *dn = ldap_get_dn(ld, first);
    EXPECT_STREQ(dn, "cn=e1") << "what was handed out stays valid";
    ldap_memfree(dn);
    ldap_msgfree(first);
}

// One id in a known state, abandoned with ldap_abandon_ext.
struct AbandonCase {
    const char *test;
    std::function<int(HoldingServer &)> prepare; // the id to abandon
    int code;
    size_t abandons_sent;
    std::function<void(HoldingServer &, int)> check;
};

const AbandonCase kCases[] = {
    {"NeverHandedOut", [](HoldingServer &) { return 200; }, LDAP_PARAM_ERROR, 0, nullptr},
    {"BeyondTheTable", [](HoldingServer &) { return 5000; }, LDAP_PARAM_ERROR, 0, nullptr},
    {"Twice",
     [](HoldingServer &s) {
         int id = s.Search();
         EXPECT_EQ(ldap_abandon_ext(s.ld(), id, nullptr, nullptr), 0);
         return id;
     },
     LDAP_PARAM_ERROR, 1, nullptr},
    {"CompleteAndAllCollected",
     [](HoldingServer &s) {
         int id = s.Delete();
         LDAPMessage *res = nullptr;
         EXPECT_EQ(ldap_result(s.ld(), id, LDAP_MSG_ALL, &kWait, &res), LDAP_RES_DELETE);
         s.Keep(res);
         return id;
     },
     LDAP_PARAM_ERROR, 0,
     [](HoldingServer &s, int id) { EXPECT_TRUE(s.Row(id).flags & LDAP_ROW_ABANDON) << "marked all the same"; }},
    {"CompleteWithUncollectedResults",
     [](HoldingServer &s) {
         int id = s.Delete();
         s.Sync(); // files the answer to id on the way
         return id;
     },
     LDAP_SUCCESS, 0,
     [](HoldingServer &s, int id) {
         EXPECT_EQ(s.Row(id).first_result, nullptr);
         EXPECT_EQ(s.Row(id).request, nullptr);
         LDAPMessage *res = nullptr;
         EXPECT_EQ(ldap_result(s.ld(), id, LDAP_MSG_ALL, &kWait, &res), -1);
     }},
};

void PrintTo(const AbandonCase &c, std::ostream *os) { *os << c.test; }

class AbandonCases : public testing::TestWithParam<AbandonCase> {};

TEST_P(AbandonCases, GiveTheirCodeAndTellTheServerOnlyWhenItWorks)
{
    const AbandonCase &c = GetParam();
    HoldingServer s;
    int id = c.prepare(s);
    EXPECT_EQ(ldap_abandon_ext(s.ld(), id, nullptr, nullptr), c.code);
    EXPECT_EQ(s.Abandons().size(), c.abandons_sent);
    if (c.check)
        c.check(s, id);
}

INSTANTIATE_TEST_SUITE_P(Rows, AbandonCases, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<AbandonCase> &info) { return std::string(info.param.test); });

TEST(Abandon, TheReferralRequestChasedForTheIdIsAbandonedToo)
{
    HoldingServer s;
    int parent = s.Search();
    int child = s.Search(); // stands for the request sent to a referral server
    auto *link = static_cast<ldap_msg_link *>(zldap::mem_calloc(1, sizeof(ldap_msg_link)));
    link->table = TableOf(s.ld());
    link->row_id = child;
    TableOf(s.ld())->rows[parent].child = link; // released with the row
    ASSERT_EQ(ldap_abandon_ext(s.ld(), parent, nullptr, nullptr), 0);
    std::vector<Request> abandons = s.Abandons();
    ASSERT_EQ(abandons.size(), 2u);
    EXPECT_EQ(ToHex(abandons[1].message), "30 84 00 00 00 06 02 01 04 50 01 02");
    EXPECT_TRUE(s.Row(child).flags & LDAP_ROW_ABANDON);
}

TEST(Abandon, TheClassicFormGivesZeroOrMinusOne)
{
    HoldingServer s;
    EXPECT_EQ(ldap_abandon(s.ld(), 0), -1);
    EXPECT_EQ(ldap_get_errno(s.ld()), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_abandon(s.ld(), 200), -1);
    EXPECT_EQ(ldap_abandon(nullptr, 1), -1);
    EXPECT_EQ(ldap_abandon(s.ld(), s.Search()), 0);
    EXPECT_EQ(ldap_get_errno(s.ld()), LDAP_SUCCESS);
    EXPECT_EQ(s.Abandons().size(), 1u);
}

TEST(Abandon, ControlsAreSentOrRefused)
{
    HoldingServer s;
    EXPECT_EQ(ldap_abandon_ext(s.ld(), 0, nullptr, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_abandon_ext(nullptr, 1, nullptr, nullptr), LDAP_PARAM_ERROR);
    int search = s.Search();
    LDAPControl ctrl{const_cast<char *>("1.2.3"), {0, nullptr}, 0};
    LDAPControl critical{const_cast<char *>("1.2.3"), {0, nullptr}, 1};
    LDAPControl *server[] = {&ctrl, nullptr}, *client[] = {&critical, nullptr};
    EXPECT_EQ(ldap_abandon_ext(s.ld(), search, nullptr, client), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_FALSE(s.Row(search).flags & LDAP_ROW_ABANDON) << "refused before anything was done";
    ASSERT_EQ(ldap_abandon_ext(s.ld(), search, server, nullptr), 0);
    std::vector<Request> abandons = s.Abandons();
    ASSERT_EQ(abandons.size(), 1u);
    EXPECT_EQ(ToHex(abandons[0].message), "30 84 00 00 00 1C 02 01 02 50 01 01 A0 84 00 00 00 10 30 84 00 00 00 0A 04 "
                                          "05 31 2E 32 2E 33 01 01 00");
}

TEST(Abandon, AFailedSendLeavesTheMarkAndTheMessages)
{
    HoldingServer s;
    int search = s.Search();
    s.Queue({wire::Entry(search, "cn=e1", {{"cn", {"e1"}}})});
    s.Sync();
    lconn_mark_closed(get_default_connection(s.ld()));
    EXPECT_EQ(ldap_abandon_ext(s.ld(), search, nullptr, nullptr), LDAP_SERVER_DOWN);
    EXPECT_TRUE(s.Row(search).flags & LDAP_ROW_ABANDON);
    EXPECT_NE(s.Row(search).next_to_return, nullptr);
    EXPECT_EQ(ldap_abandon_ext(s.ld(), search, nullptr, nullptr), LDAP_PARAM_ERROR);
}

} // namespace
