// Referral chasing against scripted servers, for what slapd (in the
// integration tests) cannot be made to send: the referred requests' exact
// bytes, malformed referral lists and LDAPv2 texts, hop limits, the binds
// sent to the referred server, and the requests whose referrals are never
// followed.
#include "engine_fixture.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <map>
#include <mutex>

using namespace zldap_test;
using namespace std::chrono_literals;

namespace {

// The encoder's form of a constructed element: four length octets.
Bytes Long(unsigned tag, const std::vector<Bytes> &items)
{
    Bytes contents;
    for (const Bytes &item : items)
        contents.insert(contents.end(), item.begin(), item.end());
    Bytes out{static_cast<unsigned char>(tag), 0x84};
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<unsigned char>(contents.size() >> shift));
    return Concat(out, contents);
}

int ResponseTag(int request)
{
    static const std::map<int, int> tags{{0x60, 0x61}, {0x4A, 0x6B}, {0x63, 0x65}, {0x66, 0x67},
                                         {0x68, 0x69}, {0x6C, 0x6D}, {0x6E, 0x6F}, {0x77, 0x78}};
    return tags.at(request);
}

Bytes Urls(const std::vector<std::string> &urls, unsigned tag)
{
    std::vector<Bytes> items;
    for (const std::string &u : urls)
        items.push_back(Octets(u));
    return Seq(items, tag);
}

// A result with code 10 and a referral list.
Bytes ReferralTo(const Request &r, const std::vector<std::string> &urls)
{
    return Seq({Integer(r.id), Seq({Integer(10, 0x0A), Octets(""), Octets(""), Urls(urls, 0xA3)}, ResponseTag(r.tag))});
}

// A scripted server that keeps every request it reads and answers with
// what `reply` makes of it.
class Peer {
public:
    using Reply = std::function<Bytes(const Request &)>;
    explicit Peer(Reply reply) : reply_(std::move(reply)) {}
    std::string Host() const { return server_.host(); }
    std::string Url(const std::string &rest) const { return "ldap://" + Host() + rest; }
    std::vector<Request> Requests()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

private:
    Reply reply_;
    std::mutex mutex_;
    std::vector<Request> requests_;
    ScriptServer server_{[this](ScriptConnection &c) {
        while (auto r = c.Read(10s)) {
            std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(*r);
            c.Send(reply_(*r));
        }
    }};
};

Bytes Succeeds(const Request &r) { return wire::Result(r.id, ResponseTag(r.tag), 0); }

struct Outcome {
    int type = -1;
    int code = -1; // of the chain's last message; -1 when it does not parse
    std::string text;
    uint32_t referral_error = 0;
};

// The whole chain of id (one message in `mode` LDAP_MSG_ONE), then its rows back.
Outcome Collect(LDAP *ld, int id, int mode = LDAP_MSG_ALL)
{
    Outcome o;
    LDAPMessage *res = nullptr;
    struct timeval wait {20, 0};
    o.type = ldap_result(ld, id, mode, &wait, &res);
    if (res)
        o.referral_error = TableOf(ld)->rows[id].referral_error;
    LDAPMessage *last = res;
    for (LDAPMessage *m = res; m; m = ldap_next_message(ld, m))
        last = m;
    char *text = nullptr;
    if (last && ldap_parse_result(ld, last, &o.code, nullptr, &text, nullptr, nullptr, 0) != 0)
        o.code = -1;
    o.text = text ? text : "";
    ldap_memfree(text);
    ldap_msgfree(res);
    return o;
}

// Every connection of the handle has given all its rows back.
void ExpectNoRowsLeft(LDAP *ld)
{
    for (LDAPConn *lc = ld->ld_servers; lc; lc = lc->lconn_next)
        EXPECT_EQ(ldap_msg_table_outstanding(lc->lconn_msgtable), 0) << lc->lconn_hosts;
}

struct Handle {
    explicit Handle(const Peer &peer, int version = LDAP_VERSION3) : ld(ldap_init(peer.Host().c_str(), 0))
    {
        ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    }
    ~Handle() { ldap_unbind(ld); }
    int Delete(const char *dn = "cn=old,o=a")
    {
        int id = -1;
        EXPECT_EQ(ldap_delete_ext(ld, dn, nullptr, nullptr, &id), 0);
        return id;
    }
    LDAP *ld;
};

// The two controls every referred request is sent with: paged results,
// which stays behind, and one that goes along.
LDAPControl kPaged{const_cast<char *>("1.2.840.113556.1.4.319"), {1, const_cast<char *>("x")}, 0};
LDAPControl kKept{const_cast<char *>("1.2.3"), {1, const_cast<char *>("v")}, 0};
LDAPControl *kControls[] = {&kPaged, &kKept, nullptr};
const Bytes kKeptOnWire = Long(0xA0, {Long(0x30, {Octets("1.2.3"), Tlv(0x01, {0x00}), Octets("v")})});

char kX[] = "x";
char *kValues[] = {kX, nullptr};
LDAPMod kMod{LDAP_MOD_REPLACE, const_cast<char *>("description"), {kValues}};
LDAPMod kAttr{0, const_cast<char *>("cn"), {kValues}};
LDAPMod *kMods[] = {&kMod, nullptr};
LDAPMod *kAttrs[] = {&kAttr, nullptr};
char kCn[] = "cn";
char *kAttrNames[] = {kCn, nullptr};
struct berval kValue {1, const_cast<char *>("v")};

struct Referred {
    const char *name;
    std::string url_rest; // what follows the referred server's host and port
    std::function<int(LDAP *, int *)> send;
    Bytes op;            // the protocol operation the referred server must read
    bool controls = true; // sent with kControls
};

int DeleteOld(LDAP *ld, int *id) { return ldap_delete_ext(ld, "cn=old,o=a", kControls, nullptr, id); }
int SearchA(LDAP *ld, int *id) { return ldap_search_ext(ld, "o=a", 2, "(cn=x)", kAttrNames, 0, kControls, nullptr, nullptr, 0, id); }

// The search the referred server reads: base o=b, an equality filter, attribute cn.
Bytes SearchOp(int scope, const std::string &type, const std::string &value)
{
    return Long(0x63, {Octets("o=b"), Integer(scope, 0x0A), Integer(0, 0x0A), Integer(0), Integer(0), Tlv(0x01, {0x00}),
                       Long(0xA3, {Octets(type), Octets(value)}), Long(0x30, {Octets("cn")})});
}

const Bytes kNew = Octets("cn=new,o=b");

const Referred kReferred[] = {
    {"DeleteTakesTheUrlsDn", "/cn=new,o=b", DeleteOld, Octets("cn=new,o=b", 0x4A)},
    {"DeleteKeepsItsDnWhenTheUrlHasNone", "/", DeleteOld, Octets("cn=old,o=a", 0x4A)},
    {"Modify", "/cn=new,o=b", [](LDAP *ld, int *id) { return ldap_modify_ext(ld, "cn=old,o=a", kMods, kControls, nullptr, id); },
     Long(0x66, {kNew, Long(0x30, {Long(0x30, {Integer(2, 0x0A), Long(0x30, {Octets("description"), Long(0x31, {Octets("x")})})})})})},
    {"Add", "/cn=new,o=b", [](LDAP *ld, int *id) { return ldap_add_ext(ld, "cn=old,o=a", kAttrs, kControls, nullptr, id); },
     Long(0x68, {kNew, Long(0x30, {Long(0x30, {Octets("cn"), Long(0x31, {Octets("x")})})})})},
    {"ModifyDnWithNewSuperior", "/cn=new,o=b",
     [](LDAP *ld, int *id) { return ldap_rename(ld, "cn=old,o=a", "cn=n", "o=sup", 1, kControls, nullptr, id); },
     Long(0x6C, {kNew, Octets("cn=n"), Tlv(0x01, {0xFF}), Octets("o=sup", 0x80)})},
    {"ModifyDnWithoutNewSuperiorOrControls", "/cn=new,o=b",
     [](LDAP *ld, int *id) { return ldap_rename(ld, "cn=old,o=a", "cn=n", nullptr, 0, nullptr, nullptr, id); },
     Long(0x6C, {kNew, Octets("cn=n"), Tlv(0x01, {0x00})}), false},
    {"Compare", "/cn=new,o=b", [](LDAP *ld, int *id) { return ldap_compare_ext(ld, "cn=old,o=a", "cn", &kValue, kControls, nullptr, id); },
     Long(0x6E, {kNew, Long(0x30, {Octets("cn"), Octets("v")})})},
    {"SearchTakesTheUrlsScopeAndFilter", "/o=b??one?(sn=y)", SearchA, SearchOp(1, "sn", "y")},
    {"SearchKeepsItsScopeAndFilterBytes", "/o=b", SearchA, SearchOp(2, "cn", "x")},
};

class ReferralResult : public testing::TestWithParam<Referred> {};

TEST_P(ReferralResult, TheRequestIsReEncodedForTheUrlByteForByte)
{
    const Referred &row = GetParam();
    Peer b(Succeeds);
    Peer a([&](const Request &r) { return ReferralTo(r, {b.Url(row.url_rest)}); });
    Handle h(a);
    int id = -1;
    ASSERT_EQ(row.send(h.ld, &id), 0);
    Outcome o = Collect(h.ld, id);
    EXPECT_EQ(o.type, ResponseTag(a.Requests().at(0).tag));
    EXPECT_EQ(o.code, 0) << "the referred server's result";
    ASSERT_EQ(b.Requests().size(), 1u);
    Bytes expected = row.controls ? Long(0x30, {Integer(1), row.op, kKeptOnWire}) : Long(0x30, {Integer(1), row.op});
    EXPECT_EQ(ToHex(b.Requests()[0].message), ToHex(expected));
    ExpectNoRowsLeft(h.ld);
}

INSTANTIATE_TEST_SUITE_P(Requests, ReferralResult, testing::ValuesIn(kReferred),
                         [](const auto &info) { return std::string(info.param.name); });

// Referral responses to a delete that slapd does not send, and the binds
// sent to the referred server first. What is skipped, and what the caller
// gets when nothing can be followed (result 0 with the first URL as its
// text). On LDAPv2 a non-zero result's text holds the URLs, one a line, and
// the referred server gets an anonymous bind first; on LDAPv3 the rebind
// procedure or the handle's last SASL bind says how to bind. What a
// procedure hands out it gets back (freeit 1): the balance ends at 0.
int g_rebind_balance = 0;

int RebindAs(LDAP *, char **dn, char **passwd, int *method, int freeit)
{
    static char name[] = "cn=r", secret[] = "pw";
    g_rebind_balance += freeit ? -1 : 1;
    *dn = freeit ? nullptr : name;
    *passwd = freeit ? nullptr : secret;
    *method = LDAP_AUTH_SIMPLE;
    return 0;
}

int RebindAnonymous(LDAP *, char **dn, char **passwd, int *, int)
{
    *dn = *passwd = nullptr;
    return 0;
}

struct berval kSecret {6, const_cast<char *>("secret")};

struct Chase {
    const char *name;
    int version;
    std::function<Bytes(const Request &, const std::string &b_url)> answer; // the first server's, to the delete
    bool followed; // the second server reads the delete
    int code;      // of the caller's result; -1 when it does not parse
    std::string text;
    Bytes bind = {}; // the second server's first request; empty: no bind
    LDAP_REBIND_PROC proc = nullptr;
    std::function<void(LDAP *)> before = nullptr; // binds on the first server
};

const RefusedPort kRefusedPort;
const std::string kRefused = "ldap://127.0.0.1:" + std::to_string(kRefusedPort.port()) + "/cn=x";

Bytes Fields(const Request &r, std::vector<Bytes> rest)
{
    rest.insert(rest.begin(), {Integer(10, 0x0A), Octets(""), Octets("")});
    return Seq({Integer(r.id), Seq(rest, 0x6B)});
}

Bytes V2Text(const Request &r, const std::string &text) { return wire::Result(r.id, 0x6B, LDAP_PARTIAL_RESULTS, "", text); }
Bytes ToB(const Request &r, const std::string &b) { return ReferralTo(r, {b}); }
Bytes BindOp(std::vector<Bytes> fields) { return Long(0x30, {Integer(1), Long(0x60, fields)}); }
const Bytes kV2Bind = BindOp({Integer(2), Octets(""), Octets("", 0x80)});

const Chase kChases[] = {
    {"UnparsableAndUnreachableUrlsAreSkipped", 3,
     [](const Request &r, const std::string &b) { return ReferralTo(r, {"not a url", "ldap://h:12a/", kRefused, b}); }, true, 0, ""},
    {"TheFirstUrlOfAListThatFailsIsRecorded", 3,
     [](const Request &r, const std::string &b) { return ReferralTo(r, {"http://x/", "ldaps" + b.substr(4), kRefused}); }, false, 0,
     "Referral:\nhttp://x/\n"},
    {"AnEmptyList", 3, [](const Request &r, const std::string &) { return Fields(r, {Tlv(0xA3, {})}); }, false, 0, "Referral:\n \n"},
    {"NoListAtAll", 3, [](const Request &r, const std::string &) { return Fields(r, {}); }, false, 0, "Referral:\n \n"},
    {"ATruncatedListIsHandedOverAsItCame", 3,
     [](const Request &r, const std::string &) { return Fields(r, {Hex("A3 09 04 01 78")}); }, false, -1, ""},
    {"V2OneUrl", 2, [](const Request &r, const std::string &b) { return V2Text(r, "Referral:\n" + b + "\n"); }, true, 0, "", kV2Bind},
    {"V2TheNextLineWhenOneFails", 2, [](const Request &r, const std::string &b) { return V2Text(r, "Referral:\nhttp://x/\n" + b); },
     true, 0, "", kV2Bind},
    {"V2TheMarkerInAnyCase", 2, [](const Request &r, const std::string &b) { return V2Text(r, "partial REFERRAL:\n" + b); }, true,
     0, "", kV2Bind},
    {"V2NoMarker", 2, [](const Request &r, const std::string &) { return V2Text(r, "no referral"); }, false, LDAP_PARTIAL_RESULTS,
     "no referral"},
    {"V2NoUrlAfterTheMarker", 2, [](const Request &r, const std::string &) { return V2Text(r, "Referral:\n\n"); }, false,
     LDAP_PARTIAL_RESULTS, "Referral:\n\n"},
    {"TheProceduresSimpleBind", 3, ToB, true, 0, "", BindOp({Integer(3), Octets("cn=r"), Octets("pw", 0x80)}), RebindAs},
    {"NoBindWhenTheProcedureSaysAnonymous", 3, ToB, true, 0, "", {}, RebindAnonymous},
    {"TheStoredExternalBind", 3, ToB, true, 0, "", BindOp({Integer(3), Octets(""), Long(0xA3, {Octets("EXTERNAL")})}), RebindAs,
     [](LDAP *ld) { EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr), 0); }},
    {"TheStoredSaslMechanismAndCredentials", 3, ToB, true, 0, "",
     BindOp({Integer(3), Octets("cn=r"), Long(0xA3, {Octets("DIGEST-MD5"), Octets("secret")})}), RebindAs,
     [](LDAP *ld) {
         int id = -1;
         ASSERT_EQ(ldap_sasl_bind(ld, nullptr, "DIGEST-MD5", &kSecret, nullptr, nullptr, &id), 0);
         EXPECT_EQ(Collect(ld, id).code, 0);
     }},
};

class Chasing : public testing::TestWithParam<Chase> {};

TEST_P(Chasing, FollowsOrLeavesToTheCaller)
{
    const Chase &row = GetParam();
    g_rebind_balance = 0;
    Peer b(Succeeds);
    Peer a([&](const Request &r) { return r.tag == 0x60 ? Succeeds(r) : row.answer(r, b.Url("/cn=new,o=b")); });
    Handle h(a, row.version);
    ldap_set_option(h.ld, LDAP_OPT_REBIND_PROC, reinterpret_cast<void *>(row.proc));
    if (row.before)
        row.before(h.ld);
    Outcome o = Collect(h.ld, h.Delete());
    EXPECT_EQ(o.type, LDAP_RES_DELETE);
    EXPECT_EQ(o.code, row.code);
    EXPECT_EQ(o.text, row.text);
    EXPECT_EQ(g_rebind_balance, 0);
    std::vector<std::string> expected, read;
    if (!row.bind.empty())
        expected.push_back(ToHex(row.bind));
    if (row.followed)
        expected.push_back(ToHex(Long(0x30, {Integer(static_cast<int>(expected.size()) + 1), Octets("cn=new,o=b", 0x4A)})));
    for (const Request &r : b.Requests())
        read.push_back(ToHex(r.message));
    EXPECT_EQ(read, expected);
    ExpectNoRowsLeft(h.ld);
}

INSTANTIATE_TEST_SUITE_P(Responses, Chasing, testing::ValuesIn(kChases),
                         [](const auto &info) { return std::string(info.param.name); });

// Two servers that refer to each other: the hop limit ends it.
class HopLimit : public testing::TestWithParam<int> {};

TEST_P(HopLimit, EndsTwoServersReferringToEachOther)
{
    std::string a_url, b_url;
    Peer b([&](const Request &r) { return ReferralTo(r, {a_url}); });
    Peer a([&](const Request &r) { return ReferralTo(r, {b_url}); });
    a_url = a.Url("/cn=x");
    b_url = b.Url("/cn=x");
    Handle h(a);
    int hops = GetParam();
    if (hops >= 0)
        ldap_set_option(h.ld, LDAP_OPT_HOP_LIMIT, &hops);
    else
        hops = 10; // the default
    Outcome o = Collect(h.ld, h.Delete());
    EXPECT_EQ(a.Requests().size() + b.Requests().size(), static_cast<size_t>(hops + 1));
    EXPECT_EQ(o.code, 0);
    EXPECT_EQ(o.text, "Referral:\n" + (hops % 2 ? a_url : b_url) + "\n") << "the URL not followed";
    EXPECT_EQ(o.referral_error, static_cast<uint32_t>(LDAP_REFERRAL_LIMIT_EXCEEDED));
    ExpectNoRowsLeft(h.ld);
}

INSTANTIATE_TEST_SUITE_P(Limits, HopLimit, testing::Values(0, 1, -1));

// A bind's referral is its result; an extended request's ends in its
// first URL, under the request's own tag (no final tag is known).
TEST(NotFollowed, BindsAndExtendedRequests)
{
    Peer b(Succeeds);
    Peer a([&](const Request &r) { return ReferralTo(r, {b.Url("/"), "ldap://other/"}); });
    Handle h(a);
    EXPECT_EQ(ldap_simple_bind_s(h.ld, "cn=a", "pw"), LDAP_REFERRAL);
    int id = -1;
    ASSERT_EQ(ldap_extended_operation(h.ld, "1.2.3", nullptr, nullptr, nullptr, &id), 0);
    Outcome o = Collect(h.ld, id, LDAP_MSG_ONE);
    EXPECT_EQ(o.type, 0x77);
    EXPECT_EQ(o.code, 0);
    EXPECT_EQ(o.text, "Referral:\n" + b.Url("/") + "\n");
    EXPECT_TRUE(b.Requests().empty());
    ExpectNoRowsLeft(h.ld);
}

} // namespace
