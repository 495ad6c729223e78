// dns_answer_test.cpp - DNS answers read without a network: server records
// from SRV, TXT and CNAME answers, a table of malformed and hostile
// messages, a host's key:value strings, and the DN suffix filter.
#include "dns/ldapdns.h"
#include "dns/server_list.h"
#include "dns_test_support.h"

#include "base/memory.h"
#include "base/trace.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using zldap_test::Bytes;
using zldap_test::Hex;
using zldap_test::Join;
namespace dns = zldap_test::dns;

constexpr const char *kQuestion = "ldap.tcp.example.com";

// A state holding msg as the message received.
struct Received {
    zldap::DnsQueryState q;
    explicit Received(const Bytes &msg, int connection_type = 0)
    {
        server_request request{};
        request.connection_type = connection_type;
        zldap::dns_state_reset(&q, &request);
        q.buffer = static_cast<uint8_t *>(zldap::mem_malloc(msg.size()));
        std::memcpy(q.buffer, msg.data(), msg.size());
        q.length = msg.size();
        q.service = "ldap";
        q.domain = "example.com";
    }
    ~Received() { zldap::dns_state_release(&q); }
};

Bytes Response(const std::vector<Bytes> &answers, unsigned flags = 0x8180)
{
    return dns::Answer(7, flags, kQuestion, 255, answers);
}

// The message with its 16-bit field at offset replaced.
Bytes Patched(Bytes msg, size_t offset, unsigned value)
{
    msg[offset] = static_cast<unsigned char>(value >> 8);
    msg[offset + 1] = static_cast<unsigned char>(value);
    return msg;
}

// The question ends at 12 + 22 + 4: answers written by hand start at 38.
const Bytes kHead = Response({});
Bytes WithAnswers(unsigned count, const Bytes &records) { return Join({Patched(kHead, 6, count), records}); }

struct AnswerRow {
    const char *name;
    Bytes msg;
    int connection_type;
    int rc;
    std::vector<std::string> servers;
    int truncated;
};

void PrintTo(const AnswerRow &row, std::ostream *os) { *os << row.name; }

const std::string kLongLabel(63, 'a');

const AnswerRow kAnswers[] = {
    {"SrvByPriorityThenArrival",
     Response({dns::Srv(kQuestion, 20, 1, 1389, "b.example.com"), dns::Srv(kQuestion, 10, 5, 389, "a.example.com"),
               dns::Srv(kQuestion, 10, 0, 389, "c.example.com")}),
     0, 0, {"a.example.com:389/10/5", "c.example.com:389/10/0", "b.example.com:1389/20/1"}, 0},
    {"SrvWinsOverTxtAndCname",
     Response({dns::Cname(kQuestion, "alias.example.com"), dns::Txt(kQuestion, {"1 2 3 t"}),
               dns::Srv(kQuestion, 1, 1, 389, "s.example.com")}),
     0, 0, {"s.example.com:389/1/1"}, 0},
    {"TxtBlankSeparatedGetsDomain", Response({dns::Txt(kQuestion, {"10 5 389 ldap1"})}), 0, 0,
     {"ldap1.example.com:389/10/5"}, 0},
    {"TxtFourStringsEndingInDot", Response({dns::Txt(kQuestion, {"20", "0", "636", "ldap1.example.org."})}), 0, 0,
     {"ldap1.example.org:636/20/0"}, 0},
    {"TxtWithTooFewItemsSkipped",
     Response({dns::Txt(kQuestion, {"10 5 389"}), dns::Txt(kQuestion, {"1", "2", "3"}),
               dns::Cname(kQuestion, "c.example.com")}),
     0, 0, {"c.example.com:0/0/0"}, 0},
    {"SrvTargetCompressed",
     Response({dns::Record(kQuestion, 33, Join({dns::U16(1), dns::U16(2), dns::U16(3), Hex("03 73 72 76 C0 0C")}))}),
     0, 0, {"srv.ldap.tcp.example.com:3/1/2"}, 0},
    {"NoAnswers", Response({}), 0, LDAP_DNS_SERVERS_FOUND, {}, 0},
    {"OtherTypesOnly", Response({dns::Record(kQuestion, 1, Hex("7F 00 00 01"))}), 0, LDAP_DNS_SERVERS_FOUND, {}, 0},
    {"ResponseCode", Response({}, 0x8183), 0, -1, {}, 0},
    {"TruncatedAskedAgain", Response({dns::Srv(kQuestion, 1, 1, 389, "s.example.com")}, 0x8380), 0,
     LDAP_DNS_TRUNCATED, {}, 0},
    {"TruncatedKeptOverUdpOnly", Response({dns::Srv(kQuestion, 1, 1, 389, "s.example.com")}, 0x8380), 1, 0,
     {"s.example.com:389/1/1"}, 1},
    // Malformed and hostile messages.
    {"HeaderCutShort", Hex("00 07 81 80 00 01 00 00"), 0, LDAP_DNS_BAD_DATA, {}, 0},
    {"QuestionCountLies", Patched(kHead, 4, 2), 0, LDAP_DNS_BAD_DATA, {}, 0},
    {"AnswerCountLies", WithAnswers(3, dns::Srv(kQuestion, 1, 1, 389, "s.example.com")), 0, LDAP_DNS_BAD_DATA, {}, 0},
    {"AnswerCountHuge", WithAnswers(0xFFFF, {}), 0, LDAP_DNS_BAD_DATA, {}, 0},
    {"LabelPastTheEnd", WithAnswers(1, Hex("28 61 62")), 0, LDAP_DNS_BAD_DATA, {}, 0},
    {"PointerToItself", WithAnswers(1, Hex("C0 26")), 0, LDAP_DNS_BAD_DATA, {}, 0},
    {"PointersInACircle", WithAnswers(1, Hex("C0 28 C0 26")), 0, LDAP_DNS_BAD_DATA, {}, 0},
    {"LabelThenPointerBack", WithAnswers(1, Hex("01 61 C0 26")), 0, LDAP_DNS_BAD_DATA, {}, 0},
    {"PointerPastTheEnd", WithAnswers(1, Hex("FF FF")), 0, LDAP_DNS_BAD_DATA, {}, 0},
    {"PointerCutInHalf", WithAnswers(1, Hex("C0")), 0, LDAP_DNS_BAD_DATA, {}, 0},
    {"NameLongerThan255",
     WithAnswers(1, dns::Record(kLongLabel + "." + kLongLabel + "." + kLongLabel + "." + kLongLabel + ".b", 33, {})), 0,
     LDAP_DNS_BAD_DATA, {}, 0},
    {"RecordCutBeforeItsLength", WithAnswers(1, Hex("00 00 21 00 01")), 0, LDAP_DNS_BAD_DATA, {}, 0},
    {"DataLengthPastTheEnd", WithAnswers(1, Join({dns::Name("x"), Hex("00 21 00 01 00 00 00 00 00 64 00 01")})), 0,
     LDAP_DNS_BAD_DATA, {}, 0},
    {"SrvDataTooShort", WithAnswers(1, dns::Record("x", 33, Hex("00 01 00 02"))), 0, LDAP_DNS_BAD_DATA, {}, 0},
    {"SrvTargetLeavesTheMessage", WithAnswers(1, dns::Record("x", 33, Hex("00 01 00 02 00 03 3F"))), 0,
     LDAP_DNS_BAD_DATA, {}, 0},
    {"TxtStringPastItsRecord", WithAnswers(1, Join({dns::Record("x", 16, Hex("32 61")), Bytes(60, 'a')})), 0,
     LDAP_DNS_BAD_DATA, {}, 0},
};

class DnsAnswer : public testing::TestWithParam<AnswerRow> {};

TEST_P(DnsAnswer, ServersOrCode)
{
    const AnswerRow &row = GetParam();
    Received r(row.msg, row.connection_type);
    int rc = zldap::dns_read_answer_header(&r.q);
    if (rc == LDAP_SUCCESS)
        rc = zldap::dns_collect_servers(&r.q);
    EXPECT_EQ(rc, row.rc);
    EXPECT_EQ(dns::Servers(r.q.current), row.servers);
    EXPECT_EQ(r.q.truncated, row.truncated);
    for (const server_info *s = r.q.current; s; s = s->next) {
        EXPECT_STREQ(s->service, "ldap");
        EXPECT_STREQ(s->domain, "example.com");
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, DnsAnswer, testing::ValuesIn(kAnswers),
                         [](const auto &info) { return std::string(info.param.name); });

struct HostRow {
    const char *name;
    std::vector<std::string> strings;
    int port_before;
    // host, port, sec_flag, suffix, replica, vendor, info after
    const char *host;
    int port, sec_flag;
    const char *suffix;
    int replica;
    const char *vendor, *info;
};

void PrintTo(const HostRow &row, std::ostream *os) { *os << row.name; }

const HostRow kHosts[] = {
    {"SecureUrlSetsEverything", {"service:LDAPS://h2:1636/o=corp"}, 0, "h2", 1636, 2, "o=corp", 0, nullptr, nullptr},
    {"KnownPortStays", {"service: ldap://h3:1389/o=a?sub"}, 389, "h3", 389, 1, "o=a", 0, nullptr, nullptr},
    {"DefaultPortsByScheme", {"service:ldaps://h4"}, 0, "h4", 636, 2, nullptr, 0, nullptr, nullptr},
    {"AllKeys", {"ldaptype:MASTER", "ldapvendor: Zor Inc", "ldapinfo:x y", "other:z", "LdapInfo:ignored"}, 5,
     "host", 5, 0, nullptr, 1, "Zor Inc", "x y"},
    {"Replica", {"ldaptype:Replica"}, 5, "host", 5, 0, nullptr, 2, nullptr, nullptr},
    {"EmptyPortStopsReading", {"service:ldap://h5:/o=x", "ldaptype:master"}, 0, "host", 0, 0, nullptr, 0, nullptr,
     nullptr},
    {"PortNotDigits", {"service:ldap://h5:12a"}, 0, "host", 0, 0, nullptr, 0, nullptr, nullptr},
    {"NoHost", {"service:ldap://:389/o=x"}, 0, "host", 0, 0, nullptr, 0, nullptr, nullptr},
    {"EmptySuffix", {"service:ldap://h5/"}, 0, "host", 0, 0, nullptr, 0, nullptr, nullptr},
    {"OtherScheme", {"service:http://h5", "ldapinfo:late"}, 0, "host", 0, 0, nullptr, 0, nullptr, nullptr},
};

class HostText : public testing::TestWithParam<HostRow> {};

TEST_P(HostText, AppliesItsKeys)
{
    const HostRow &row = GetParam();
    Received r(dns::Answer(3, 0x8180, "host", 16,
                           {dns::Record("host", 1, Hex("7F 00 00 01")), dns::Txt("host", row.strings)}));
    server_info *s = zldap::server_info_new("host", row.port_before, 0, 0, "ldap", "example.com");
    ASSERT_EQ(zldap::dns_read_answer_header(&r.q), LDAP_SUCCESS);
    EXPECT_EQ(zldap::dns_apply_host_text(&r.q, s), LDAP_SUCCESS);
    auto text = [](const char *t) { return std::string(t ? t : "(none)"); };
    EXPECT_EQ(text(s->host), text(row.host));
    EXPECT_EQ(s->port, row.port);
    EXPECT_EQ(s->sec_flag, row.sec_flag);
    EXPECT_EQ(text(s->suffix), text(row.suffix));
    EXPECT_EQ(s->replica, row.replica);
    EXPECT_EQ(text(s->vendor), text(row.vendor));
    EXPECT_EQ(text(s->info), text(row.info));
    zldap::server_info_free(s);
}

INSTANTIATE_TEST_SUITE_P(Rows, HostText, testing::ValuesIn(kHosts),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(DnsSuffix, ComparesComponentsFromTheRight)
{
    struct {
        const char *filter, *suffix;
        bool kept;
    } const rows[] = {
        {nullptr, nullptr, true},       {" ", nullptr, true},
        {"o=corp, c=us", "ou=x,o=Corp,c=US", true}, {"o=corp, c=us", "o=corp,c=us", true},
        {"o=corp, c=us", "c=us", false}, {"o=corp,c=us", nullptr, false},
        {"o=corp,c=us", "o=corpx,c=us", false}, {"c=us", " o=a , c=US ", true},
        {"x,c=us", "x,c=us", false},    {"o=corp,,c=us", "o=corp,,c=us", false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(zldap::dns_suffix_matches(row.filter, row.suffix), row.kept)
            << trace_str(row.filter) << " / " << trace_str(row.suffix);
}

} // namespace
