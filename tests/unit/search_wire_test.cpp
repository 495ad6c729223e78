// The search family against the scripted server: which size limit, time
// limit and wait each form uses, how NULL arguments are sent, refusals
// that send nothing, and time-outs that orphan the request.
#include "ber_test_support.h"
#include "engine_fixture.h"
#include "core/ldap_error.h"
#include "results/results.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_init.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"
#include "ops/search.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

using namespace zldap_test;
using namespace std::chrono_literals;

namespace {

// What a search request carried.
struct SentSearch {
    std::string base;
    int scope = -1, deref = -1, sizelimit = -1, timelimit = -1, attrsonly = -1;
    Bytes rest; // filter and attributes, as encoded
};

SentSearch Decode(const Request &request)
{
    SentSearch s;
    struct berval bv {request.message.size(), reinterpret_cast<char *>(const_cast<unsigned char *>(request.message.data()))};
    BerElement *ber = fber_init2(&bv);
    int id = 0;
    char *base = nullptr;
    ber_len_t len = 0;
    if (fber_scanf(ber, "{i{aeeiib", &id, &base, &s.scope, &s.deref, &s.sizelimit, &s.timelimit, &s.attrsonly) !=
        LBER_DEFAULT) {
        s.base = base;
        s.rest.assign(ber->ber_ptr, ber->ber_end);
    }
    (void)len;
    zldap::mem_free(base);
    fber_free(ber);
    return s;
}

// Answers searches with one entry and a result code the test picks, after
// an optional delay.
class SearchServer {
public:
    SearchServer()
        : server_([this](ScriptConnection &c) {
              while (auto r = c.Read()) {
                  {
                      std::lock_guard<std::mutex> lock(m_);
                      sent_.push_back(Decode(*r));
                  }
                  for (int i = 0; i < delay_ms_.load(); i++)
                      std::this_thread::sleep_for(1ms);
                  c.Send(wire::Entry(r->id, "cn=a", {{"cn", {"a"}}}));
                  c.Send(wire::Result(r->id, 0x65, code_.load(), "o=x", ""));
              }
          }),
          ld_(HandleFor(server_))
    {
    }
    ~SearchServer() { ldap_unbind(ld_); }
    LDAP *ld() { return ld_; }
    SentSearch Last()
    {
        std::lock_guard<std::mutex> lock(m_);
        return sent_.empty() ? SentSearch{} : sent_.back();
    }
    size_t Count()
    {
        std::lock_guard<std::mutex> lock(m_);
        return sent_.size();
    }
    std::atomic<int> code_{0};
    std::atomic<int> delay_ms_{0};

private:
    std::mutex m_;
    std::vector<SentSearch> sent_;
    ScriptServer server_;
    LDAP *ld_;
};

TEST(SearchLimits, EachFormTakesItsLimitsFromItsOwnPlace)
{
    SearchServer s;
    int hundred = 100, thirty = 30;
    ASSERT_EQ(ldap_set_option(s.ld(), LDAP_OPT_SIZELIMIT, &hundred), 0);
    ASSERT_EQ(ldap_set_option(s.ld(), LDAP_OPT_TIMELIMIT, &thirty), 0);
    LDAPMessage *res = nullptr;

    ASSERT_EQ(ldap_search_s(s.ld(), "o=x", LDAP_SCOPE_SUBTREE, "(cn=a)", nullptr, 0, &res), 0);
    EXPECT_EQ(s.Last().sizelimit, 0) << "ldap_search_s never limits the size";
    EXPECT_EQ(s.Last().timelimit, 30);
    ldap_msgfree_direct(res);

    struct timeval tv {10, 0};
    ASSERT_EQ(ldap_search_st(s.ld(), "o=x", LDAP_SCOPE_SUBTREE, "(cn=a)", nullptr, 0, &tv, &res), 0);
    EXPECT_EQ(s.Last().sizelimit, 100);
    EXPECT_EQ(s.Last().timelimit, 30);
    ldap_msgfree_direct(res);

    struct {
        struct timeval tv;
        int sent;
    } const timeouts[] = {{{0, 300000}, 1}, {{7, 0}, 7}};
    for (const auto &t : timeouts) {
        struct timeval given = t.tv;
        ASSERT_EQ(ldap_search_ext_s(s.ld(), "o=x", LDAP_SCOPE_BASE, "(cn=a)", nullptr, 0, nullptr, nullptr, &given,
                                    5, &res),
                  0);
        EXPECT_EQ(s.Last().timelimit, t.sent);
        EXPECT_EQ(s.Last().sizelimit, 5);
        ldap_msgfree_direct(res);
    }
    ASSERT_EQ(ldap_search_ext_s(s.ld(), "o=x", LDAP_SCOPE_BASE, "(cn=a)", nullptr, 0, nullptr, nullptr, nullptr, 5,
                                &res),
              0);
    EXPECT_EQ(s.Last().timelimit, 30) << "no time-out: the handle's time limit";
    ldap_msgfree_direct(res);
}

TEST(SearchArguments, NullBaseAndAttributesAndBadInput)
{
    SearchServer s;
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_s(s.ld(), nullptr, LDAP_SCOPE_ONELEVEL, "(cn=a)", nullptr, 1, &res), 0);
    SentSearch last = s.Last();
    EXPECT_EQ(last.base, "");
    EXPECT_EQ(last.scope, 1);
    EXPECT_NE(last.attrsonly, 0);
    ASSERT_GE(last.rest.size(), 6u);
    EXPECT_EQ(ToHex(Bytes(last.rest.end() - 6, last.rest.end())), "30 84 00 00 00 00") << "an empty attribute list";
    ldap_msgfree_direct(res);

    size_t before = s.Count();
    EXPECT_EQ(ldap_search_s(s.ld(), "o=x", 3, "(cn=a)", nullptr, 0, &res), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_search_s(s.ld(), "o=x", 0, nullptr, nullptr, 0, &res), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_search(s.ld(), "o=x", 0, nullptr, nullptr, 0), -1);
    EXPECT_EQ(ldap_get_errno(s.ld()), LDAP_PARAM_ERROR);
    int id = 0;
    EXPECT_EQ(ldap_search_ext(s.ld(), "o=x", 0, "(cn=a)", nullptr, 0, nullptr, nullptr, nullptr, 0, nullptr),
              LDAP_PARAM_ERROR);
    LDAPControl critical{const_cast<char *>("1.2.3"), {0, nullptr}, 1};
    LDAPControl *client[] = {&critical, nullptr};
    EXPECT_EQ(ldap_search_ext(s.ld(), "o=x", 0, "(cn=a)", nullptr, 0, nullptr, client, nullptr, 0, &id),
              LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_EQ(s.Count(), before) << "nothing was sent";
}

TEST(SearchResults, TheServersCodeComesBackWithTheChain)
{
    SearchServer s;
    s.code_ = LDAP_NO_SUCH_OBJECT;
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_s(s.ld(), "o=x", LDAP_SCOPE_BASE, "(cn=a)", nullptr, 0, &res), LDAP_NO_SUCH_OBJECT);
    ASSERT_NE(res, nullptr);
    EXPECT_EQ(res->msg_type, 0x64);
    char *matched = nullptr;
    ldap_get_error_direct(s.ld(), &matched, nullptr);
    EXPECT_STREQ(matched, "o=x");
    zldap::mem_free(matched);
    ldap_msgfree_direct(res);
}

TEST(SearchTimeouts, ATimedOutSearchIsOrphanedAndReleasedWhenItsResultArrives)
{
    SearchServer s;
    s.delay_ms_ = 400;
    LDAPMessage *res = nullptr;
    struct timeval short_wait {0, 100000};
    EXPECT_EQ(ldap_search_st(s.ld(), "o=x", LDAP_SCOPE_BASE, "(cn=a)", nullptr, 0, &short_wait, &res), LDAP_TIMEOUT);
    EXPECT_EQ(res, nullptr);
    ldap_msg_table *table = TableOf(s.ld());
    EXPECT_EQ(ldap_msg_table_outstanding(table), 1);
    s.delay_ms_ = 0;
    // The next search reads the orphan's late answers too, which frees its row.
    ASSERT_EQ(ldap_search_s(s.ld(), "o=x", LDAP_SCOPE_BASE, "(cn=b)", nullptr, 0, &res), 0);
    ldap_msgfree_direct(res);
    EXPECT_EQ(ldap_msg_table_outstanding(table), 0);
}

TEST(SearchTimeouts, AZeroTimeOutPollsForStBoundlessForExtS)
{
    SearchServer s;
    s.delay_ms_ = 200;
    LDAPMessage *res = nullptr;
    struct timeval zero {0, 0};
    EXPECT_EQ(ldap_search_st(s.ld(), "o=x", LDAP_SCOPE_BASE, "(cn=a)", nullptr, 0, &zero, &res), LDAP_TIMEOUT);
    struct timeval zero_again {0, 0};
    EXPECT_EQ(ldap_search_ext_s(s.ld(), "o=x", LDAP_SCOPE_BASE, "(cn=a)", nullptr, 0, nullptr, nullptr, &zero_again,
                                0, &res),
              0);
    ldap_msgfree_direct(res);
}

} // namespace
