// Parsing responses: ldap_parse_result, the SASL bind and extended result
// parsers over tables of responses built as bytes and filed in a request's
// row the way the reading path files them, and the password-policy
// response control over a table of its forms.
#include "engine_fixture.h"
#include "ber_test_support.h"
#include "core/ldap_error.h"
#include "message/ldap_queue.h"
#include "ops/ldap_bind.h"
#include "proto/ldap_controls.h"
#include "zor8ldap_api.h"
#include "results/parse_result.h"
#include "results/results.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace zldap_test;
using wire::Octets;
using wire::Seq;
using wire::Tlv;

namespace {

Bytes Cat(const std::vector<Bytes> &parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out = Concat(out, p);
    return out;
}

// An LDAPResult-shaped protocol operation followed by whatever else.
Bytes Op(int tag, int code, const std::string &matched, const std::string &text, const Bytes &extra = {})
{
    return Tlv(tag, Cat({wire::Integer(code, 0x0A), Octets(matched), Octets(text), extra}));
}

Bytes Referral(const std::vector<std::string> &urls)
{
    std::vector<Bytes> items;
    for (const std::string &u : urls)
        items.push_back(Octets(u));
    return Seq(items, 0xA3);
}

// Controls with one critical control 1.2.3 whose value is "v".
const Bytes kControls = Tlv(0xA0, Seq({Octets("1.2.3"), Tlv(0x01, {0xFF}), Octets("v")}));

class Parse : public testing::Test {
protected:
    void SetUp() override { ld = ldap_init("localhost", 0); }
    void TearDown() override { ldap_unbind(ld); }

    // Files messages (the bytes after each one's message id) under a new
    // request as the reading path does: the element positioned at the
    // protocol operation, the type its tag. Returns the row's chain.
    LDAPMessage *File(const std::vector<Bytes> &bodies)
    {
        ldap_msg_table *table = TableOf(ld);
        int id = ldap_msg_table_get_next_msgid(table);
        table->rows[id].request = ldap_alloc_msg(ld->ld_defconn);
        for (const Bytes &body : bodies) {
            BerPtr ber = ExactReader(Concat(wire::Integer(id), body));
            int wire_id = 0;
            fber_get_int(ber.get(), &wire_id);
            LDAPMessage *msg = ldap_alloc_msg(ld->ld_defconn);
            msg->msg_id = wire_id;
            msg->msg_type = static_cast<int32_t>(fber_peek_tag(ber.get(), nullptr));
            msg->msg_ber = ber.release();
            put_msg_in_queue(table, msg);
        }
        pthread_mutex_lock(&table->lock);
        flush_queue(table);
        pthread_mutex_unlock(&table->lock);
        return table->rows[id].first_result;
    }
    LDAPMessage *File(const Bytes &body) { return File(std::vector<Bytes>{body}); }

    int Outstanding() { return ldap_msg_table_outstanding(TableOf(ld)); }

    LDAP *ld = nullptr;
};

std::vector<std::string> Strings(char **values)
{
    std::vector<std::string> out;
    for (char **p = values; p && *p; p++)
        out.emplace_back(*p);
    return out;
}

// ---------------------------------------------------------------------
// ldap_parse_result

struct ResultRow {
    const char *name;
    Bytes body;
    int rc;
    int code;
    const char *matched;
    const char *text;
    std::vector<std::string> referrals;
    const char *control; // OID of the one control expected, or NULL
    bool bad_controls = false; // controls are read only when asked for
};

const ResultRow kResultRows[] = {
    {"Plain", Op(0x65, 0, "dc=x", "fine"), 0, 0, "dc=x", "fine", {}, nullptr},
    {"ServerCode", Op(0x67, 32, "dc=x", "no such object"), 0, 32, "dc=x", "no such object", {}, nullptr},
    {"ReferralList", Op(0x65, 10, "", "", Referral({"ldap://a/o=x", "ldap://b/o=x"})), 0, 10, "", "",
     {"ldap://a/o=x", "ldap://b/o=x"}, nullptr},
    {"ReferralCodeWithoutList", Op(0x65, 10, "", ""), 0, 10, "", "", {}, nullptr},
    {"EmptyReferralList", Op(0x65, 10, "", "", Tlv(0xA3, {})), 0, 10, "", "", {}, nullptr},
    {"ListWithoutReferralCodeIsNotRead", Op(0x65, 0, "", "", Referral({"ldap://a/"})), 0, 0, "", "", {}, nullptr},
    {"Controls", Concat(Op(0x69, 0, "", ""), kControls), 0, 0, "", "", {}, "1.2.3"},
    {"ReferralsAndControls", Concat(Op(0x65, 10, "", "", Referral({"ldap://a/"})), kControls), 0, 10, "", "",
     {"ldap://a/"}, "1.2.3"},
    {"ControlsAfterSaslCredentials", Concat(Op(0x61, 14, "", "", Octets("c", 0x87)), kControls), 0, 14, "", "",
     {}, "1.2.3"},
    {"EmptyOperation", Tlv(0x65, {}), LDAP_DECODING_ERROR, 0, nullptr, nullptr, {}, nullptr},
    {"NoMatchedDn", Tlv(0x65, wire::Integer(0, 0x0A)), LDAP_DECODING_ERROR, 0, nullptr, nullptr, {}, nullptr},
    {"NoText", Tlv(0x65, Concat(wire::Integer(0, 0x0A), Octets(""))), LDAP_DECODING_ERROR, 0, nullptr, nullptr,
     {}, nullptr},
    {"OperationPastTheData", Hex("65 10 0A 01 00 04 00 04 00"), LDAP_DECODING_ERROR, 0, nullptr, nullptr, {},
     nullptr},
    {"TextPastTheOperation", Hex("65 07 0A 01 00 04 00 04 02 61 62"), LDAP_DECODING_ERROR, 0, nullptr, nullptr,
     {}, nullptr},
    {"ReferralUrlPastItsList", Op(0x65, 10, "", "", Hex("A3 04 04 05 61 62")), LDAP_DECODING_ERROR, 0, nullptr,
     nullptr, {}, nullptr},
    {"CriticalityAfterValue",
     Concat(Op(0x65, 0, "", ""), Tlv(0xA0, Seq({Octets("1.2.3"), Octets("v"), Tlv(0x01, {0xFF})}))),
     LDAP_DECODING_ERROR, 0, nullptr, nullptr, {}, nullptr, true},
};

class ParseResultRows : public Parse, public testing::WithParamInterface<ResultRow> {};

TEST_P(ParseResultRows, HandsOutEveryPartOrNone)
{
    const ResultRow &row = GetParam();
    LDAPMessage *res = File(row.body);
    for (int pass = 0; pass < 2; pass++) { // a copy is read: the second parse sees the same
        SCOPED_TRACE(pass);
        int code = -7;
        char *matched = nullptr, *text = nullptr;
        char **refs = nullptr;
        LDAPControl **ctrls = nullptr;
        ASSERT_EQ(ldap_parse_result(ld, res, &code, &matched, &text, &refs, &ctrls, 0), row.rc);
        if (row.rc != LDAP_SUCCESS) {
            EXPECT_EQ(code, -7) << "the code is given only on success";
            EXPECT_TRUE(!matched && !text && !refs && !ctrls);
            continue;
        }
        EXPECT_EQ(code, row.code);
        EXPECT_STREQ(matched, row.matched);
        EXPECT_STREQ(text, row.text);
        EXPECT_EQ(Strings(refs), row.referrals);
        ASSERT_EQ(ldap_count_controls(ctrls), row.control ? 1 : 0);
        if (row.control) {
            EXPECT_STREQ(ctrls[0]->ldctl_oid, row.control);
            EXPECT_NE(ctrls[0]->ldctl_iscritical, 0);
            EXPECT_EQ(std::string(ctrls[0]->ldctl_value.bv_val, ctrls[0]->ldctl_value.bv_len), "v");
        }
        ldap_memfree(matched);
        ldap_memfree(text);
        ldap_value_free(refs);
        ldap_controls_free(ctrls);
    }
    int unasked = row.bad_controls ? LDAP_SUCCESS : row.rc;
    EXPECT_EQ(ldap_parse_result(ld, res, nullptr, nullptr, nullptr, nullptr, nullptr, 0), unasked)
        << "the LDAPResult is checked even when none of its parts is asked for";
    EXPECT_EQ(ldap_parse_result(ld, res, nullptr, nullptr, nullptr, nullptr, nullptr, 1), unasked);
    EXPECT_EQ(Outstanding(), 0) << "freeit releases the message and its row, whatever the outcome";
}

INSTANTIATE_TEST_SUITE_P(Responses, ParseResultRows, testing::ValuesIn(kResultRows),
                         [](const testing::TestParamInfo<ResultRow> &info) { return std::string(info.param.name); });

TEST_F(Parse, TheChainIsWalkedToItsResult)
{
    TraceCapture trace(0xFFFF);
    Bytes entry = Tlv(0x64, Concat(Octets("cn=a"), Tlv(0x30, {})));
    LDAPMessage *res = File({entry, Tlv(0x73, Octets("ldap://r/")), entry, Op(0x65, 4, "", "limit")});
    res->msg_flags |= LDAP_MSGFLAG_ALONE; // handed out alone: a chain of one, without a result
    char *text = reinterpret_cast<char *>(1);
    EXPECT_EQ(ldap_parse_result(ld, res, nullptr, nullptr, &text, nullptr, nullptr, 0), LDAP_OPERATIONS_ERROR);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(ldap_parse_result(ld, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 1), LDAP_OPERATIONS_ERROR);
    EXPECT_NE(trace.text().find("ldap_parse_result: NULLMSG passed"), std::string::npos);
    EXPECT_EQ(ldap_parse_result(nullptr, res, nullptr, nullptr, nullptr, nullptr, nullptr, 1), LDAP_PARAM_ERROR)
        << "a refused parse frees nothing";

    res->msg_flags &= ~LDAP_MSGFLAG_ALONE;
    int code = 0;
    ASSERT_EQ(ldap_parse_result(ld, res, &code, nullptr, &text, nullptr, nullptr, 1), 0);
    EXPECT_EQ(code, LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_STREQ(text, "limit");
    ldap_memfree(text);
    EXPECT_EQ(Outstanding(), 0);
}

// ---------------------------------------------------------------------
// ldap_parse_sasl_bind_result

struct SaslRow {
    const char *name;
    Bytes body;
    int rc;
    const char *creds; // NULL: none handed out
};

const SaslRow kSaslRows[] = {
    {"InProgressWithCredentials", Op(0x61, 14, "", "", Octets("challenge", 0x87)), LDAP_SASL_BIND_IN_PROGRESS,
     "challenge"},
    {"DoneWithoutCredentials", Op(0x61, 0, "", ""), 0, nullptr},
    {"EmptyCredentials", Op(0x61, 0, "", "", Octets("", 0x87)), 0, ""},
    {"CredentialsAfterAReferral", Op(0x61, 10, "", "", Concat(Referral({"ldap://a/"}), Octets("c", 0x87))),
     LDAP_REFERRAL, "c"},
    {"ControlsAreNoCredentials", Concat(Op(0x61, 0, "", ""), kControls), 0, nullptr},
    {"RefusedCredentials", Op(0x61, 49, "", "bad password"), LDAP_INVALID_CREDENTIALS, nullptr},
    {"CredentialsPastTheOperation", Hex("61 09 0A 01 00 04 00 04 00 87 05 61"), 0, nullptr},
    {"NoTextWithCodeZero", Tlv(0x61, Concat(wire::Integer(0, 0x0A), Octets(""))), LDAP_DECODING_ERROR, nullptr},
    {"NoTextWithAServerCode", Tlv(0x61, Concat(wire::Integer(49, 0x0A), Octets(""))), LDAP_INVALID_CREDENTIALS,
     nullptr},
};

class SaslRows : public Parse, public testing::WithParamInterface<SaslRow> {};

TEST_P(SaslRows, ReturnTheCodeAndHandOutTheCredentials)
{
    const SaslRow &row = GetParam();
    LDAPMessage *res = File(row.body);
    struct berval *creds = reinterpret_cast<struct berval *>(1);
    EXPECT_EQ(ldap_parse_sasl_bind_result(ld, res, &creds, 0), row.rc);
    EXPECT_EQ(ldap_get_errno(ld), row.rc);
    if (row.creds) {
        ASSERT_NE(creds, nullptr);
        EXPECT_EQ(std::string(creds->bv_val, creds->bv_len), row.creds);
        ber_bvfree(creds);
    } else {
        EXPECT_EQ(creds, nullptr);
    }
    EXPECT_EQ(ldap_parse_sasl_bind_result(ld, res, nullptr, 1), row.rc) << "read from a copy: again the same";
    EXPECT_EQ(Outstanding(), 0);
}

INSTANTIATE_TEST_SUITE_P(Responses, SaslRows, testing::ValuesIn(kSaslRows),
                         [](const testing::TestParamInfo<SaslRow> &info) { return std::string(info.param.name); });

// A synchronous SASL bind reads its response through the parsers: the
// controls are kept for ldap_get_bind_controls, the credentials handed out,
// the text recorded; an answer that is no bind response is refused and
// released (the sanitizer build checks).
TEST(SaslBindResponse, IsReadThroughTheParsers)
{
    int answer = 0x61;
    ScriptServer server([&answer](ScriptConnection &c) {
        while (auto r = c.Read())
            c.Send(Seq({Integer(r->id), Op(answer, 14, "", "more", Octets("next", 0x87)), kControls}));
    });
    LDAP *ld = HandleFor(server);
    struct berval cred {1, const_cast<char *>("x")};
    struct berval *creds = nullptr;
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "DIGEST-MD5", &cred, nullptr, nullptr, &creds),
              LDAP_SASL_BIND_IN_PROGRESS);
    ASSERT_NE(creds, nullptr);
    EXPECT_EQ(std::string(creds->bv_val, creds->bv_len), "next");
    ber_bvfree(creds);
    char *text = nullptr;
    EXPECT_EQ(ldap_get_error(ld, nullptr, &text), LDAP_SASL_BIND_IN_PROGRESS);
    EXPECT_STREQ(text, "more");
    ldap_memfree(text);
    LDAPControl **ctrls = nullptr;
    ASSERT_EQ(ldap_get_bind_controls(ld, &ctrls), 0);
    EXPECT_EQ(ldap_count_controls(ctrls), 1);
    ldap_controls_free(ctrls);

    answer = 0x65;
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "DIGEST-MD5", &cred, nullptr, nullptr, &creds), LDAP_PARAM_ERROR);
    EXPECT_EQ(creds, nullptr);
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(ld)), 0) << "the answer and its row are released";
    ldap_unbind(ld);
}

// ---------------------------------------------------------------------
// ldap_parse_extended_result and its form with controls

struct ExtendedRow {
    const char *name;
    Bytes body;
    int rc;
    const char *oid;     // NULL: the caller's pointer is left alone
    const char *value;   // the same
    bool with_control;   // the form with controls hands out 1.2.3
    int rc_with_controls;
};

const Bytes kName = Octets("1.3.6.1.4.1.1466.20037", 0x8A);
const Bytes kValue = Octets("data", 0x8B);

const ExtendedRow kExtendedRows[] = {
    {"NameAndValue", Op(0x78, 0, "", "", Concat(kName, kValue)), 0, "1.3.6.1.4.1.1466.20037", "data", false, 0},
    {"NeitherNameNorValue", Op(0x78, 0, "", ""), 0, nullptr, nullptr, false, 0},
    {"ValueOnly", Op(0x78, 0, "", "", kValue), 0, nullptr, "data", false, 0},
    {"Controls", Concat(Op(0x78, 0, "", "", kName), kControls), 0, "1.3.6.1.4.1.1466.20037", nullptr, true, 0},
    {"ServerCodeHandsOutNothing", Concat(Op(0x78, 53, "", "no", Concat(kName, kValue)), kControls),
     LDAP_UNWILLING_TO_PERFORM, nullptr, nullptr, false, LDAP_UNWILLING_TO_PERFORM},
    {"MalformedResult", Tlv(0x78, wire::Integer(0, 0x0A)), -1, nullptr, nullptr, false, -1},
    {"NamePastTheOperation", Hex("78 09 0A 01 00 04 00 04 00 8A 05 61"), 0, nullptr, nullptr, false, 0},
    {"ValuePastTheOperation", Concat(Hex("78 0F 0A 01 00 04 00 04 00 8A 03 31 2E 32 8B 05 61"), kControls), 0,
     "1.2", nullptr, false, 0},
    {"MalformedControls", Concat(Op(0x78, 0, "", "", kValue), Hex("A0 05 30 03 04 01")), 0, nullptr, "data", false,
     LDAP_DECODING_ERROR},
};

class ExtendedRows : public Parse, public testing::WithParamInterface<ExtendedRow> {};

TEST_P(ExtendedRows, HandOutNameAndValueOnlyForCodeZero)
{
    const ExtendedRow &row = GetParam();
    for (bool with_controls : {false, true}) {
        SCOPED_TRACE(with_controls);
        LDAPMessage *res = File(row.body);
        char *untouched_oid = const_cast<char *>("caller's");
        struct berval untouched_value {};
        char *oid = untouched_oid;
        struct berval *value = &untouched_value;
        LDAPControl **ctrls = reinterpret_cast<LDAPControl **>(1);
        int expected = with_controls ? row.rc_with_controls : row.rc;
        int rc = with_controls ? ldap_parse_extended_result_ext(ld, res, &oid, &value, &ctrls, 0)
                               : ldap_parse_extended_result(ld, res, &oid, &value, 0);
        ASSERT_EQ(rc, expected);
        EXPECT_EQ(ldap_get_errno(ld), expected);
        bool handed_out = expected == LDAP_SUCCESS;
        if (handed_out && row.oid) {
            EXPECT_STREQ(oid, row.oid);
            ldap_memfree(oid);
        } else {
            EXPECT_EQ(oid, untouched_oid);
        }
        if (handed_out && row.value) {
            EXPECT_EQ(std::string(value->bv_val, value->bv_len), row.value);
            ber_bvfree(value);
        } else {
            EXPECT_EQ(value, &untouched_value);
        }
        if (with_controls) {
            EXPECT_EQ(ldap_count_controls(ctrls), row.with_control ? 1 : 0);
            ldap_controls_free(ctrls);
        }
        EXPECT_EQ(ldap_parse_extended_result(ld, res, nullptr, nullptr, 1), -1)
            << "the first parse consumed the message";
        EXPECT_EQ(Outstanding(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Responses, ExtendedRows, testing::ValuesIn(kExtendedRows),
                         [](const testing::TestParamInfo<ExtendedRow> &info) { return std::string(info.param.name); });

TEST_F(Parse, AMessageOfAnotherTypeIsRefusedAndKept)
{
    LDAPMessage *res = File(Op(0x65, 0, "", ""));
    EXPECT_EQ(ldap_parse_sasl_bind_result(ld, res, nullptr, 1), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_sasl_bind_result(ld, nullptr, nullptr, 1), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_sasl_bind_result(nullptr, res, nullptr, 1), LDAP_PARAM_ERROR);
    LDAPControl **ctrls = reinterpret_cast<LDAPControl **>(1);
    EXPECT_EQ(ldap_parse_extended_result_ext(ld, res, nullptr, nullptr, &ctrls, 1), LDAP_PARAM_ERROR);
    EXPECT_EQ(ctrls, nullptr);
    EXPECT_EQ(ldap_get_errno(ld), 0) << "the extended parser leaves the thread's error at 0";
    EXPECT_EQ(ldap_parse_extended_result(nullptr, res, nullptr, nullptr, 1), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_msgfree(res), LDAP_RES_SEARCH_RESULT) << "none of them freed the message";
}

// ---------------------------------------------------------------------
// ldap_parse_pwdpolicy_response

constexpr const char *kPolicyOid = "1.3.6.1.4.1.42.2.27.8.5.1";

struct PolicyRow {
    const char *name;
    std::vector<Bytes> values; // one password-policy control each
    int rc;
    int error;
    int warn_kind;
    int warn_value;
};

const PolicyRow kPolicyRows[] = {
    {"TimeBeforeExpiration", {Hex("30 05 A0 03 80 01 78")}, 0, 0, 1, 120},
    {"GraceLoginsRemaining", {Hex("30 05 A0 03 81 01 03")}, 0, 0, 2, 3},
    {"WarningAndError", {Hex("30 08 A0 03 80 01 05 81 01 02")}, 0, 5, 1, 5},
    {"ErrorAlone", {Hex("30 03 81 01 02")}, 0, 5, 0, 0},
    {"WrappedError", {Hex("30 05 81 03 0A 01 08")}, 0, 11, 0, 0},
    {"OlderGraceWarning", {Hex("30 07 80 05 81 03 02 01 04")}, 0, 0, 2, 4},
    {"UnknownFirstTag", {Hex("30 03 82 01 00")}, 0, 0, 0, 0},
    {"EachControlAddsWhatItCarries", {Hex("30 03 81 01 01"), Hex("30 05 A0 03 81 01 09")}, 0, 4, 2, 9},
    {"EmptySequence", {Hex("30 00")}, LDAP_DECODING_ERROR, 0, 0, 0},
    {"Truncated", {Hex("30 03 81")}, LDAP_DECODING_ERROR, 0, 0, 0},
    {"EmptyOlderWarning", {Hex("30 02 80 00")}, LDAP_DECODING_ERROR, 0, 0, 0},
    {"EmptyStandardWarning", {Hex("30 02 A0 00")}, LDAP_DECODING_ERROR, 0, 0, 0},
    {"ErrorInNeitherForm", {Hex("30 0B 81 09 FF FF FF FF FF FF FF FF FF")}, LDAP_DECODING_ERROR, 0, 0, 0},
    {"BadControlAfterAGoodOne", {Hex("30 03 81 01 02"), Hex("30 00")}, LDAP_DECODING_ERROR, 0, 0, 0},
};

class PolicyRows : public testing::TestWithParam<PolicyRow> {};

TEST_P(PolicyRows, ReadWarningAndError)
{
    const PolicyRow &row = GetParam();
    std::vector<LDAPControl> controls;
    for (const Bytes &v : row.values)
        controls.push_back({const_cast<char *>(kPolicyOid),
                            {v.size(), reinterpret_cast<char *>(const_cast<unsigned char *>(v.data()))}, 0});
    // Controls of other types, and one without a value, are passed over.
    LDAPControl other{const_cast<char *>("1.2.3"), {3, const_cast<char *>("xyz")}, 0};
    LDAPControl no_value{const_cast<char *>(kPolicyOid), {0, nullptr}, 0};
    std::vector<LDAPControl *> list = {&other, &no_value};
    for (LDAPControl &c : controls)
        list.push_back(&c);
    list.push_back(nullptr);
    int error = -1, kind = -1, value = -1;
    EXPECT_EQ(ldap_parse_pwdpolicy_response(list.data(), &error, &kind, &value), row.rc);
    EXPECT_EQ(error, row.error);
    EXPECT_EQ(kind, row.warn_kind);
    EXPECT_EQ(value, row.warn_value);
}

INSTANTIATE_TEST_SUITE_P(Values, PolicyRows, testing::ValuesIn(kPolicyRows),
                         [](const testing::TestParamInfo<PolicyRow> &info) { return std::string(info.param.name); });

TEST(PolicyResponse, ArgumentsAndAnEmptyList)
{
    LDAPControl *empty[] = {nullptr};
    int error = 7, kind = 7, value = 7;
    EXPECT_EQ(ldap_parse_pwdpolicy_response(empty, &error, &kind, &value), 0);
    EXPECT_EQ(error + kind + value, 0) << "the outputs are cleared";
    EXPECT_EQ(ldap_parse_pwdpolicy_response(nullptr, &error, &kind, &value), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_pwdpolicy_response(empty, nullptr, &kind, &value), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_pwdpolicy_response(empty, &error, nullptr, &value), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_pwdpolicy_response(empty, &error, &kind, nullptr), LDAP_PARAM_ERROR);
}

} // namespace
