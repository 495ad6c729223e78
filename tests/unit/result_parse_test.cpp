// Parsing responses: ldap_parse_result, the SASL bind and extended result
// parsers over one table of responses built as bytes and filed in a
// request's row the way the reading path files them, a SASL bind that reads
// its answer through them, and the password-policy response control over a
// table of its forms.
#include "engine_fixture.h"
#include "message/ldap_queue.h"
#include "zor8ldap_api.h"

#include <gtest/gtest.h>


using namespace zldap_test;

namespace {

// An LDAPResult-shaped protocol operation followed by whatever else.
Bytes Op(int tag, int code, const std::string &matched, const std::string &text, const Bytes &extra = {})
{
    return Tlv(tag, Join({Integer(code, 0x0A), Octets(matched), Octets(text), extra}));
}

// Controls with one critical control 1.2.3 whose value is "v".
const Bytes kControls = Tlv(0xA0, Seq({Octets("1.2.3"), Tlv(0x01, {0xFF}), Octets("v")}));
const Bytes kName = Octets("1.9", 0x8A), kValue = Octets("data", 0x8B), kCreds = Octets("c", 0x87);
const Bytes kEntry = Tlv(0x64, Concat(Octets("cn=a"), Tlv(0x30, {}))), kReferral = Seq({Octets("ldap://a/")}, 0xA3);
struct berval kUnset = {5, const_cast<char *>("unset")}; // a caller's pointer a parser must leave alone

// Files messages (the bytes after each one's message id) under a new
// request as the reading path does: the element positioned at the
// protocol operation, the type its tag. Returns the row's chain.
LDAPMessage *File(LDAP *ld, const std::vector<Bytes> &bodies)
{
    ldap_msg_table *table = TableOf(ld);
    int id = ldap_msg_table_get_next_msgid(table);
    table->rows[id].request = ldap_alloc_msg(ld->ld_defconn);
    for (const Bytes &body : bodies) {
        BerPtr ber = ExactReader(Concat(Integer(id), body));
        LDAPMessage *msg = ldap_alloc_msg(ld->ld_defconn);
        fber_get_int(ber.get(), &msg->msg_id);
        msg->msg_type = static_cast<int32_t>(fber_peek_tag(ber.get(), nullptr));
        msg->msg_ber = ber.release();
        put_msg_in_queue(table, msg);
    }
    pthread_mutex_lock(&table->lock);
    flush_queue(table);
    pthread_mutex_unlock(&table->lock);
    return table->rows[id].first_result;
}

std::string Str(const char *s) { return s ? "'" + std::string(s) + "'" : "-"; }
std::string Str(const berval *v)
{
    return v == &kUnset ? "unset" : v ? "'" + std::string(v->bv_val, v->bv_len) + "'" : "-";
}

// " oid!'value'" of each control handed out, which are released.
std::string Controls(LDAPControl **ctrls)
{
    std::string out;
    for (LDAPControl **c = ctrls; c && *c; c++)
        out += std::string(" ") + (*c)->ldctl_oid + ((*c)->ldctl_iscritical ? "!" : "") + Str(&(*c)->ldctl_value);
    ldap_controls_free(ctrls);
    return out;
}

// ldap_parse_result: "code matched text referrals controls", a failure
// its code alone (it hands out nothing), then the code of a parse of the
// same message (it reads a copy) that asks for no part and frees.
std::string Result(LDAP *ld, const std::vector<Bytes> &bodies)
{
    LDAPMessage *res = File(ld, bodies);
    int code = -7;
    char *matched = nullptr, *text = nullptr, **refs = nullptr;
    LDAPControl **ctrls = nullptr;
    int rc = ldap_parse_result(ld, res, &code, &matched, &text, &refs, &ctrls, 0);
    std::string out = std::to_string(code) + " " + Str(matched) + " " + Str(text);
    for (char **r = refs; r && *r; r++)
        out += std::string(" ") + *r;
    out += Controls(ctrls);
    out = rc == LDAP_SUCCESS ? out : std::to_string(rc) + (out == "-7 - -" ? "" : " and " + out);
    ldap_memfree(matched);
    ldap_memfree(text);
    ldap_value_free(refs);
    return out + " / " + std::to_string(ldap_parse_result(ld, res, nullptr, nullptr, nullptr, nullptr, nullptr, 1));
}

// ldap_parse_sasl_bind_result, which records its code: "code credentials",
// then the code of a second parse (of the same copy) that frees.
std::string Sasl(LDAP *ld, const std::vector<Bytes> &bodies)
{
    LDAPMessage *res = File(ld, bodies);
    struct berval *creds = &kUnset;
    int rc = ldap_parse_sasl_bind_result(ld, res, &creds, 0);
    std::string out = std::to_string(rc) + (ldap_get_errno(ld) == rc ? " " : " unrecorded ") + Str(creds);
    ber_bvfree(creds == &kUnset ? nullptr : creds);
    return out + " / " + std::to_string(ldap_parse_sasl_bind_result(ld, res, nullptr, 1));
}

// ldap_parse_extended_result_ext, which records its code: "code name value
// controls"; the parse consumes the message.
std::string Extended(LDAP *ld, const std::vector<Bytes> &bodies)
{
    LDAPMessage *res = File(ld, bodies);
    char *oid = kUnset.bv_val;
    struct berval *value = &kUnset;
    LDAPControl **ctrls = nullptr;
    int rc = ldap_parse_extended_result_ext(ld, res, &oid, &value, &ctrls, 0);
    std::string out = std::to_string(rc) + (ldap_get_errno(ld) == rc ? " " : " unrecorded ") + oid + " " + Str(value);
    ldap_memfree(oid == kUnset.bv_val ? nullptr : oid);
    ber_bvfree(value == &kUnset ? nullptr : value);
    out += Controls(ctrls);
    return ldap_parse_extended_result(ld, res, nullptr, nullptr, 1) == -1 ? out : out + " not consumed";
}

// The password-policy response control over controls with these values
// (empty: none), after one of another type; both are passed over:
// "code error warning-kind warning-value". A malformed value clears them all.
std::string Policy(LDAP *, const std::vector<Bytes> &values)
{
    LDAPControl **ctrls = nullptr;
    ldap_add_control("1.2.3", 3, "xyz", 0, &ctrls);
    for (const Bytes &v : values)
        ldap_add_control("1.3.6.1.4.1.42.2.27.8.5.1", v.size(), reinterpret_cast<const char *>(v.data()), 0, &ctrls);
    int error = -1, kind = -1, value = -1;
    int rc = ldap_parse_pwdpolicy_response(ctrls, &error, &kind, &value);
    ldap_controls_free(ctrls);
    return std::to_string(rc) + " " + std::to_string(error) + " " + std::to_string(kind) + " " + std::to_string(value);
}

struct Row {
    std::string (*parse)(LDAP *, const std::vector<Bytes> &);
    std::vector<Bytes> bodies;
    const char *parsed;
};

const Row kRows[] = {
    {Result, {Op(0x67, 32, "dc=x", "no such object")}, "32 'dc=x' 'no such object' / 0"},
    // A result code of 10 carries a referral list; another code's is not read.
    {Result, {Concat(Op(0x65, 10, "", "", Seq({Octets("ldap://a/"), Octets("ldap://b/")}, 0xA3)), kControls)},
     "10 '' '' ldap://a/ ldap://b/ 1.2.3!'v' / 0"},
    {Result, {Op(0x65, 10, "", "")}, "10 '' '' / 0"},
    {Result, {Op(0x65, 0, "", "", kReferral)}, "0 '' '' / 0"},
    {Result, {Concat(Op(0x69, 0, "", ""), kControls)}, "0 '' '' 1.2.3!'v' / 0"},
    {Result, {Concat(Op(0x61, 14, "", "", kCreds), kControls)}, "14 '' '' 1.2.3!'v' / 0"},
    {Result, {kEntry, Tlv(0x73, Octets("ldap://r/")), kEntry, Op(0x65, 4, "", "limit")}, "4 '' 'limit' / 0"},
    {Result, {Tlv(0x65, {})}, "84 / 84"},
    {Result, {Tlv(0x65, Integer(0, 0x0A))}, "84 / 84"},
    {Result, {Tlv(0x65, Concat(Integer(0, 0x0A), Octets("")))}, "84 / 84"},
    {Result, {Hex("65 10 0A 01 00 04 00 04 00")}, "84 / 84"},
    {Result, {Hex("65 07 0A 01 00 04 00 04 02 61 62")}, "84 / 84"},
    {Result, {Op(0x65, 10, "", "", Hex("A3 04 04 05 61 62"))}, "84 / 84"},
    // Controls are read only when asked for.
    {Result, {Concat(Op(0x65, 0, "", ""), Tlv(0xA0, Seq({Octets("1.2.3"), Octets("v"), Tlv(0x01, {0xFF})})))},
     "84 / 0"},
    {Sasl, {Op(0x61, 14, "", "", Octets("challenge", 0x87))}, "14 'challenge' / 14"},
    {Sasl, {Op(0x61, 10, "", "", Concat(kReferral, kCreds))}, "10 'c' / 10"},
    {Sasl, {Concat(Op(0x61, 0, "", ""), kControls)}, "0 - / 0"},
    {Sasl, {Hex("61 09 0A 01 00 04 00 04 00 87 05 61")}, "0 - / 0"},
    {Sasl, {Tlv(0x61, Concat(Integer(0, 0x0A), Octets("")))}, "84 - / 84"},
    {Sasl, {Tlv(0x61, Concat(Integer(49, 0x0A), Octets("")))}, "49 - / 49"},
    // Name and value only for code 0; parts missing or malformed are none.
    {Extended, {Op(0x78, 0, "", "", Concat(kName, kValue))}, "0 1.9 'data'"},
    {Extended, {Concat(Op(0x78, 0, "", "", kValue), kControls)}, "0 unset 'data' 1.2.3!'v'"},
    {Extended, {Concat(Op(0x78, 53, "", "no", Concat(kName, kValue)), kControls)}, "53 unset unset"},
    {Extended, {Tlv(0x78, Integer(0, 0x0A))}, "-1 unset unset"},
    {Extended, {Hex("78 09 0A 01 00 04 00 04 00 8A 05 61")}, "0 unset unset"},
    {Extended, {Concat(Hex("78 0F 0A 01 00 04 00 04 00 8A 03 31 2E 32 8B 05 61"), kControls)},
     "0 1.2 unset"},
    {Extended, {Concat(Op(0x78, 0, "", "", kValue), Hex("A0 05 30 03 04 01"))}, "84 unset unset"},
    {Policy, {Hex("30 05 A0 03 80 01 78")}, "0 0 1 120"},
    {Policy, {Hex("30 08 A0 03 80 01 05 81 01 02")}, "0 5 1 5"},
    {Policy, {Bytes{}, Hex("30 03 81 01 02")}, "0 5 0 0"},
    {Policy, {Hex("30 05 81 03 0A 01 08")}, "0 11 0 0"},
    {Policy, {Hex("30 07 80 05 81 03 02 01 04")}, "0 0 2 4"},
    {Policy, {Hex("30 03 82 01 00")}, "0 0 0 0"},
    {Policy, {Hex("30 03 81 01 01"), Hex("30 05 A0 03 81 01 09")}, "0 4 2 9"},
    {Policy, {Hex("30 03 81 01 02"), Hex("30 00")}, "84 0 0 0"},
    {Policy, {Hex("30 03 81")}, "84 0 0 0"},
    {Policy, {Hex("30 02 80 00")}, "84 0 0 0"},
    {Policy, {Hex("30 02 A0 00")}, "84 0 0 0"},
    {Policy, {Hex("30 0B 81 09 FF FF FF FF FF FF FF FF FF")}, "84 0 0 0"},
};

TEST(Parse, EveryResponseGivesItsPartsOrNone)
{
    LDAP *ld = ldap_init("localhost", 0);
    for (const Row &row : kRows) {
        EXPECT_EQ(row.parse(ld, row.bodies), row.parsed);
        EXPECT_EQ(ldap_msg_table_outstanding(TableOf(ld)), 0) << row.parsed << ": freeit releases message and row";
    }
    ldap_unbind(ld);
}

// Refused: a message of another type, a chain without a result (a message
// handed out alone is a chain of one), no message. Nothing is freed.
TEST(Parse, RefusalsFreeNothing)
{
    LDAP *ld = ldap_init("localhost", 0);
    LDAPMessage *res = File(ld, {kEntry, Op(0x65, 0, "", "")});
    EXPECT_EQ(ldap_parse_sasl_bind_result(ld, res->msg_next, nullptr, 1), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_sasl_bind_result(ld, nullptr, nullptr, 1), LDAP_PARAM_ERROR);
    LDAPControl **ctrls = reinterpret_cast<LDAPControl **>(1);
    EXPECT_EQ(ldap_parse_extended_result_ext(ld, res->msg_next, nullptr, nullptr, &ctrls, 1), LDAP_PARAM_ERROR);
    EXPECT_EQ(ctrls, nullptr);
    EXPECT_EQ(ldap_get_errno(ld), 0) << "the extended parser leaves the thread's error at 0";
    LDAPMessage *bad_controls = File(ld, {Concat(Op(0x78, 0, "", ""), Hex("A0 01"))});
    EXPECT_EQ(ldap_parse_extended_result(ld, bad_controls, nullptr, nullptr, 1), 0) << "the form without controls";
    EXPECT_EQ(ldap_parse_result(ld, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 1), LDAP_OPERATIONS_ERROR);
    res->msg_flags |= LDAP_MSGFLAG_ALONE;
    char *text = reinterpret_cast<char *>(1);
    EXPECT_EQ(ldap_parse_result(ld, res, nullptr, nullptr, &text, nullptr, nullptr, 0), LDAP_OPERATIONS_ERROR);
    EXPECT_EQ(text, nullptr);
    res->msg_flags &= ~LDAP_MSGFLAG_ALONE;
    EXPECT_EQ(ldap_msgfree(res), LDAP_RES_SEARCH_RESULT) << "none of them freed a message";
    LDAPControl *empty[] = {nullptr};
    int out = 0;
    EXPECT_EQ(ldap_parse_pwdpolicy_response(nullptr, &out, &out, &out), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_pwdpolicy_response(empty, nullptr, &out, &out), LDAP_PARAM_ERROR);
    ldap_unbind(ld);
}

// A synchronous SASL bind reads its answer through the parsers: the
// controls are kept for ldap_get_bind_controls, the text recorded; an answer that is no bind response is refused and
// released (the sanitizer build checks).
TEST(Parse, SaslBindReadsItsAnswerThroughTheParsers)
{
    ScriptServer server([](ScriptConnection &c) {
        for (int answer = 0x61; auto r = c.Read(); answer = 0x65) // a bind response, then a search result
            c.Send(Seq({Integer(r->id), Op(answer, 14, "", "more", Octets("next", 0x87)), kControls}));
    });
    LDAP *ld = HandleFor(server);
    struct berval cred {1, const_cast<char *>("x")};
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "DIGEST-MD5", &cred, nullptr, nullptr, nullptr), 14);
    char *text = nullptr;
    EXPECT_EQ(ldap_get_error(ld, nullptr, &text), LDAP_SASL_BIND_IN_PROGRESS);
    EXPECT_STREQ(text, "more");
    ldap_memfree(text);
    LDAPControl **ctrls = nullptr;
    ASSERT_EQ(ldap_get_bind_controls(ld, &ctrls), 0);
    EXPECT_EQ(Controls(ctrls), " 1.2.3!'v'");
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "DIGEST-MD5", &cred, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(ld)), 0) << "the answer and its row are released";
    ldap_unbind(ld);
}

} // namespace
