// Control builders and parsers: the exact value of every request control
// and request value built, argument checks and their codes, and every
// response parser over tables of well-formed and malformed values.
#include "ber_test_support.h"
#include "core/ldap_error.h"
#include "fresh_process.h"
#include "ops/extra_controls_ops.h"
#include "proto/ldap_controls.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace {

using zldap_test::Bytes;
using zldap_test::Hex;
using zldap_test::ToHex;

char *S(const char *text) { return const_cast<char *>(text); }

std::string HexOf(const struct berval &bv)
{
    const auto *p = reinterpret_cast<const unsigned char *>(bv.bv_val);
    return ToHex(Bytes(p, p + bv.bv_len));
}

class Handle {
public:
    Handle() : ld_(ldap_init("localhost", 389)) {}
    ~Handle() { ldap_unbind(ld_); }
    LDAP *get() const { return ld_; }

private:
    LDAP *ld_;
};

// ---------------------------------------------------------------------
// Request controls

struct BuildRow {
    const char *name;
    std::function<int(LDAP *, LDAPControl **)> build;
    int rc;
    const char *oid = nullptr;
    int critical = 0;
    const char *value = nullptr; // hex; nullptr: the control has no value
};

// Builders that hand the control back directly report failure as -1 here.
int Direct(LDAPControl *made, LDAPControl **ctrlp)
{
    *ctrlp = made;
    return made ? LDAP_SUCCESS : -1;
}

const std::string kCookie200(200, 'x');
const std::string kCookie64k(0x10000, 'y');
struct berval kCookieAb = {2, S("ab")};
struct berval kBigCookie = {kCookie200.size(), const_cast<char *>(kCookie200.data())};
struct berval kHugeCookie = {kCookie64k.size(), const_cast<char *>(kCookie64k.data())};
struct berval kTarget = {1, S("m")};
struct berval kContext = {2, S("c1")};
LDAPsortkey kByCn = {S("cn"), nullptr, 0};
LDAPsortkey kBySnReversed = {S("sn"), S("2.5.13.3"), 1};
LDAPsortkey kByCnFlag2 = {S("cn"), nullptr, 2};
LDAPsortkey kNoType = {nullptr, nullptr, 0};
LDAPsortkey *kSortKeys[] = {&kByCn, &kBySnReversed, nullptr};
LDAPsortkey *kSortFlag2[] = {&kByCnFlag2, nullptr};
LDAPsortkey *kSortNoType[] = {&kNoType, nullptr};
char *kGroups[] = {S("cn=g"), nullptr};
char *kAudit[] = {S("a"), S("b"), nullptr};
LDAPVLVInfo kVlvOffset = {1, 1, 2, 3, 4, nullptr, nullptr};
LDAPVLVInfo kVlvTarget = {1, 1, 2, 0, 0, &kTarget, &kContext};
LDAPVLVInfo kVlvNoOffset = {1, 1, 2, 0, 4, nullptr, nullptr};

const char kPage[] = "1.2.840.113556.1.4.319";
const char kVlv[] = "2.16.840.1.113730.3.4.9";

const BuildRow kBuildRows[] = {
    // Paged results, written by hand: the fewest integer octets, short
    // lengths below 128 and two or three length octets above.
    {"PageSize200IsCriticalWithT", [](LDAP *ld, LDAPControl **c) { return ldap_create_page_control(ld, 200, nullptr, 'T', c); },
     0, kPage, 1, "30 06 02 02 00 C8 04 00"},
    {"PageSize100WithCookieNotCriticalWith1",
     [](LDAP *ld, LDAPControl **c) { return ldap_create_page_control(ld, 100, &kCookieAb, 1, c); }, 0, kPage, 0,
     "30 07 02 01 64 04 02 61 62"},
    {"PageSizeMinus129", [](LDAP *ld, LDAPControl **c) { return ldap_create_page_control(ld, -129, nullptr, 0, c); },
     0, kPage, 0, "30 06 02 02 FF 7F 04 00"},
    {"PageSize32768", [](LDAP *ld, LDAPControl **c) { return ldap_create_page_control(ld, 32768, nullptr, 0, c); },
     0, kPage, 0, "30 07 02 03 00 80 00 04 00"},
    {"PageSize8388607", [](LDAP *ld, LDAPControl **c) { return ldap_create_page_control(ld, 8388607, nullptr, 0, c); },
     0, kPage, 0, "30 07 02 03 7F FF FF 04 00"},
    {"PageSizeMinus8388608TakesFour",
     [](LDAP *ld, LDAPControl **c) { return ldap_create_page_control(ld, -8388608, nullptr, 0, c); }, 0, kPage, 0,
     "30 08 02 04 FF 80 00 00 04 00"},
    {"PageNullHandle", [](LDAP *, LDAPControl **c) { return ldap_create_page_control(nullptr, 1, nullptr, 0, c); },
     LDAP_PARAM_ERROR},
    {"PageNullOut", [](LDAP *ld, LDAPControl **c) { return *c = nullptr, ldap_create_page_control(ld, 1, nullptr, 0, nullptr); },
     LDAP_PARAM_ERROR},

    // Server-side sort.
    {"SortTwoKeys", [](LDAP *ld, LDAPControl **c) { return ldap_create_sort_control(ld, kSortKeys, 'T', c); }, 0,
     "1.2.840.113556.1.4.473", 1,
     "30 84 00 00 00 21 30 84 00 00 00 04 04 02 63 6E "
     "30 84 00 00 00 11 04 02 73 6E 80 08 32 2E 35 2E 31 33 2E 33 81 01 FF"},
    {"SortReverseOnlyFor1", [](LDAP *ld, LDAPControl **c) { return ldap_create_sort_control(ld, kSortFlag2, 1, c); },
     0, "1.2.840.113556.1.4.473", 0, "30 84 00 00 00 0A 30 84 00 00 00 04 04 02 63 6E"},
    {"SortNullKeys", [](LDAP *ld, LDAPControl **c) { return ldap_create_sort_control(ld, nullptr, 'T', c); },
     LDAP_PARAM_ERROR},
    {"SortKeyWithoutType", [](LDAP *ld, LDAPControl **c) { return ldap_create_sort_control(ld, kSortNoType, 'T', c); },
     LDAP_PARAM_ERROR},
    {"SortNullHandle", [](LDAP *, LDAPControl **c) { return ldap_create_sort_control(nullptr, kSortKeys, 'T', c); },
     LDAP_PARAM_ERROR},

    // Persistent search.
    {"PersistentSearchAllChanges",
     [](LDAP *ld, LDAPControl **c) { return ldap_create_persistentsearch_control(ld, 15, 1, 1, 1, c); }, 0,
     "2.16.840.1.113730.3.4.3", 1, "30 84 00 00 00 09 02 01 0F 02 01 01 02 01 01"},
    {"PersistentSearchTypes3",
     [](LDAP *ld, LDAPControl **c) { return ldap_create_persistentsearch_control(ld, 3, 0, 0, 0, c); },
     LDAP_PARAM_ERROR},
    {"PersistentSearchChangesOnly2",
     [](LDAP *ld, LDAPControl **c) { return ldap_create_persistentsearch_control(ld, 8, 2, 0, 0, c); },
     LDAP_PARAM_ERROR},

    // Assertion: the filter encoder's bytes.
    {"AssertionEquality", [](LDAP *ld, LDAPControl **c) { return ldap_create_assertion_control(ld, "(cn=x)", 0, c); },
     0, "1.3.6.1.1.12", 0, "A3 84 00 00 00 07 04 02 63 6E 04 01 78"},
    {"AssertionBadFilter", [](LDAP *ld, LDAPControl **c) { return ldap_create_assertion_control(ld, "(cn=x", 1, c); },
     LDAP_FILTER_ERROR},
    {"AssertionNullFilter", [](LDAP *ld, LDAPControl **c) { return ldap_create_assertion_control(ld, nullptr, 1, c); },
     LDAP_PARAM_ERROR},

    // Virtual list view: always critical.
    {"VlvByOffset", [](LDAP *ld, LDAPControl **c) { return ldap_create_vlv_control(ld, &kVlvOffset, c); }, 0, kVlv, 1,
     "30 84 00 00 00 12 02 01 01 02 01 02 A0 84 00 00 00 06 02 01 03 02 01 04"},
    {"VlvByValueIgnoresOffset", [](LDAP *ld, LDAPControl **c) { return ldap_create_vlv_control(ld, &kVlvTarget, c); },
     0, kVlv, 1, "30 84 00 00 00 0D 02 01 01 02 01 02 81 01 6D 04 02 63 31"},
    {"VlvOffset0", [](LDAP *ld, LDAPControl **c) { return ldap_create_vlv_control(ld, &kVlvNoOffset, c); },
     LDAP_PARAM_ERROR},
    {"VlvNullInfo", [](LDAP *ld, LDAPControl **c) { return ldap_create_vlv_control(ld, nullptr, c); },
     LDAP_PARAM_ERROR},

    // Proxied authorisation, without the environment variable: the DN and its NUL.
    {"ProxyAuthDnWithNul", [](LDAP *ld, LDAPControl **c) { return ldap_create_proxyauth_control(ld, "cn=a", 5, c); },
     0, "2.16.840.1.113730.3.4.18", 1, "63 6E 3D 61 00"},
    {"ProxyAuthNotCritical", [](LDAP *ld, LDAPControl **c) { return ldap_create_proxyauth_control(ld, "cn=a", 0, c); },
     LDAP_PARAM_ERROR},
    {"ProxyAuthNullDn", [](LDAP *ld, LDAPControl **c) { return ldap_create_proxyauth_control(ld, nullptr, 1, c); },
     LDAP_PARAM_ERROR},

    // Value limits.
    {"LimitNumValues",
     [](LDAP *ld, LDAPControl **c) { return ldap_create_limit_num_values_control(ld, 3, 5, 1, 0, c); }, 0,
     "1.3.18.0.2.10.30", 0, "30 84 00 00 00 09 02 01 03 02 01 05 01 01 FF"},
    {"LimitNumValuesNegative",
     [](LDAP *ld, LDAPControl **c) { return ldap_create_limit_num_values_control(ld, 3, -1, 1, 0, c); },
     LDAP_PARAM_ERROR},
    {"LimitNumValuesNullHandle",
     [](LDAP *, LDAPControl **c) { return ldap_create_limit_num_values_control(nullptr, 3, 5, 1, 0, c); },
     LDAP_PARAM_ERROR},

    // Value-less controls.
    {"Vendor25NeedsNoHandle", [](LDAP *, LDAPControl **c) { return ldap_create_vendor_25_control(nullptr, c); }, 0,
     "1.3.18.0.2.10.25", 1},
    {"Vendor26", [](LDAP *ld, LDAPControl **c) { return ldap_create_vendor_26_control(ld, c); }, 0,
     "1.3.18.0.2.10.26", 1},
    {"Vendor33NotCritical", [](LDAP *ld, LDAPControl **c) { return ldap_create_vendor_33_control(ld, 0, c); }, 0,
     "1.3.18.0.2.10.33", 0},
    {"Vendor33NullHandle", [](LDAP *, LDAPControl **c) { return ldap_create_vendor_33_control(nullptr, 1, c); },
     LDAP_PARAM_ERROR},
    {"Vendor25NullOut", [](LDAP *ld, LDAPControl **c) { return *c = nullptr, ldap_create_vendor_25_control(ld, nullptr); },
     LDAP_PARAM_ERROR},

    // Controls handed back directly.
    {"GroupFromBytes", [](LDAP *, LDAPControl **c) {
         struct berval v = {3, S("xyz")};
         return Direct(ldap_create_group_control(&v), c);
     }, 0, "1.3.18.0.2.10.21", 1, "78 79 7A"},
    {"GroupFromList", [](LDAP *, LDAPControl **c) { return Direct(ldap_create_group_control_from_list(kGroups, 1), c); },
     0, "1.3.18.0.2.10.21", 1, "30 84 00 00 00 0F 0A 01 01 30 84 00 00 00 06 04 04 63 6E 3D 67"},
    {"GroupFromNoList", [](LDAP *, LDAPControl **c) { return Direct(ldap_create_group_control_from_list(nullptr, 0), c); },
     0, "1.3.18.0.2.10.21", 1, "30 84 00 00 00 09 0A 01 00 30 84 00 00 00 00"},
    {"GroupFromListKind2", [](LDAP *, LDAPControl **c) { return Direct(ldap_create_group_control_from_list(kGroups, 2), c); },
     -1},
    {"ChainingAudit", [](LDAP *, LDAPControl **c) { return Direct(ldap_create_chaining_audit_control(kAudit, "s", 7), c); },
     0, "1.3.18.0.2.10.22", 1, "30 84 00 00 00 0F 30 84 00 00 00 06 04 01 61 04 01 62 04 01 73"},
    {"ChainingAuditNullText",
     [](LDAP *, LDAPControl **c) { return Direct(ldap_create_chaining_audit_control(kAudit, nullptr, 1), c); }, -1},
    {"Transaction", [](LDAP *, LDAPControl **c) { return Direct(ldap_create_transaction_control("t1"), c); }, 0,
     "1.3.18.0.2.10.5", 1, "74 31"},
    {"TransactionNullId", [](LDAP *, LDAPControl **c) { return Direct(ldap_create_transaction_control(nullptr), c); },
     -1},
};

class BuildControl : public testing::TestWithParam<BuildRow> {};

TEST_P(BuildControl, ValueCriticalityAndCode)
{
    const BuildRow &row = GetParam();
    Handle ld;
    LDAPControl *ctrl = reinterpret_cast<LDAPControl *>(0x1);
    ASSERT_EQ(row.build(ld.get(), &ctrl), row.rc);
    if (row.rc != LDAP_SUCCESS) {
        EXPECT_EQ(ctrl, nullptr) << "a failed builder hands out nothing";
        return;
    }
    ASSERT_NE(ctrl, nullptr);
    EXPECT_STREQ(ctrl->ldctl_oid, row.oid);
    EXPECT_EQ(ctrl->ldctl_iscritical, row.critical);
    if (row.value) {
        ASSERT_NE(ctrl->ldctl_value.bv_val, nullptr);
        EXPECT_EQ(HexOf(ctrl->ldctl_value), ToHex(Hex(row.value)));
    } else {
        EXPECT_EQ(ctrl->ldctl_value.bv_val, nullptr);
    }
    ldap_control_free(ctrl);
}

INSTANTIATE_TEST_SUITE_P(Rows, BuildControl, testing::ValuesIn(kBuildRows),
                         [](const testing::TestParamInfo<BuildRow> &info) { return std::string(info.param.name); });

// Cookies of 128 bytes and more use two or three length octets, never 0x81.
TEST(PageControl, LongCookiesUseTwoAndThreeLengthOctets)
{
    Handle ld;
    struct Case {
        struct berval *cookie;
        const char *head;
    } cases[] = {{&kBigCookie, "30 82 00 CF 02 01 05 04 82 00 C8"},
                 {&kHugeCookie, "30 83 01 00 08 02 01 05 04 83 01 00 00"}};
    for (const Case &c : cases) {
        LDAPControl *ctrl = nullptr;
        ASSERT_EQ(ldap_create_page_control(ld.get(), 5, c.cookie, 'T', &ctrl), LDAP_SUCCESS);
        Bytes expected = zldap_test::Concat(Hex(c.head), Bytes(c.cookie->bv_val, c.cookie->bv_val + c.cookie->bv_len));
        EXPECT_EQ(HexOf(ctrl->ldctl_value), ToHex(expected));
        ldap_control_free(ctrl);
    }
}

TEST(SortControl, RecordsItsCodeAsTheThreadsError)
{
    Handle ld;
    LDAPControl *ctrl = nullptr;
    EXPECT_EQ(ldap_create_sort_control(ld.get(), nullptr, 'T', &ctrl), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(ld.get()), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_create_sort_control(ld.get(), kSortKeys, 'T', &ctrl), LDAP_SUCCESS);
    EXPECT_EQ(ldap_get_errno(ld.get()), LDAP_SUCCESS);
    ldap_control_free(ctrl);
}

TEST(ProxyAuthControl, JavaEncodingIsChosenOncePerProcess)
{
    ZLDAP_IN_FRESH_PROCESS({
        Handle ld;
        LDAPControl *ctrl = nullptr;
        {
            zldap_test::ScopedEnv env("USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING", "yEs");
            ASSERT_EQ(ldap_create_proxyauth_control(ld.get(), "cn=a", 1, &ctrl), LDAP_SUCCESS);
            EXPECT_EQ(HexOf(ctrl->ldctl_value), "30 84 00 00 00 06 04 04 63 6E 3D 61");
            ldap_control_free(ctrl);
        }
        // The variable is gone, the choice stays.
        ASSERT_EQ(ldap_create_proxyauth_control(ld.get(), "cn=a", 1, &ctrl), LDAP_SUCCESS);
        EXPECT_EQ(HexOf(ctrl->ldctl_value), "30 84 00 00 00 06 04 04 63 6E 3D 61");
        ldap_control_free(ctrl);
    });
}

// ---------------------------------------------------------------------
// Request values

struct ValueRow {
    const char *name;
    std::function<struct berval *()> build;
    const char *value; // hex; nullptr: NULL is expected
};

const ValueRow kValueRows[] = {
    {"AccountStatus", [] { return ldap_create_account_status_request("cn=a"); }, "30 84 00 00 00 06 04 04 63 6E 3D 61"},
    {"AccountStatusNullDn", [] { return ldap_create_account_status_request(nullptr); }, nullptr},
    {"EffectivePwdPolicy", [] { return ldap_create_effective_pwdpolicy_request("cn=a"); },
     "30 84 00 00 00 06 04 04 63 6E 3D 61"},
    {"GroupEvalWithAttrs", [] {
         static char *attrs[] = {S("x"), nullptr};
         return ldap_create_group_eval_request("cn=a", attrs);
     }, "30 84 00 00 00 0F 04 04 63 6E 3D 61 30 84 00 00 00 03 04 01 78"},
    {"GroupEvalWithoutAttrs", [] { return ldap_create_group_eval_request("cn=a", nullptr); },
     "30 84 00 00 00 06 04 04 63 6E 3D 61"},
    {"PrepareTransaction", [] { return ldap_create_prepare_transaction_request("abc"); }, "61 62 63"},
    {"PrepareTransactionNullId", [] { return ldap_create_prepare_transaction_request(nullptr); }, nullptr},
    {"EndTransactionCommit", [] { return ldap_create_end_transaction_request("abc", 7); }, "01 61 62 63"},
    {"EndTransactionRollBack", [] { return ldap_create_end_transaction_request("abc", 0); }, "00 61 62 63"},
    {"EndTransactionNullId", [] { return ldap_create_end_transaction_request(nullptr, 1); }, nullptr},
    {"Empty", [] { return ldap_create_empty_request_value(); }, ""},
};

class BuildValue : public testing::TestWithParam<ValueRow> {};

TEST_P(BuildValue, Bytes)
{
    const ValueRow &row = GetParam();
    struct berval *value = row.build();
    if (!row.value) {
        EXPECT_EQ(value, nullptr);
        return;
    }
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(HexOf(*value), ToHex(Hex(row.value)));
    EXPECT_EQ(value->bv_val[value->bv_len], '\0');
    ber_bvfree(value);
}

INSTANTIATE_TEST_SUITE_P(Rows, BuildValue, testing::ValuesIn(kValueRows),
                         [](const testing::TestParamInfo<ValueRow> &info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------
// Response controls

// An unrelated control, then one control of oid per hex value (nullptr: a
// control without value).
class Response {
public:
    Response(const char *oid, const std::vector<const char *> &values)
    {
        EXPECT_EQ(ldap_add_control("1.2.3", 0, nullptr, 0, &list_), LDAP_SUCCESS);
        for (const char *hex : values) {
            Bytes bytes = hex ? Hex(hex) : Bytes();
            EXPECT_EQ(ldap_add_control(oid, bytes.size(), reinterpret_cast<const char *>(bytes.data()), 0, &list_),
                      LDAP_SUCCESS);
        }
    }
    ~Response() { ldap_controls_free(list_); }
    Response(const Response &) = delete;
    Response &operator=(const Response &) = delete;
    LDAPControl **get() const { return list_; }

private:
    LDAPControl **list_ = nullptr;
};

struct ParseRow {
    const char *name;
    std::vector<const char *> values; // hex of each matching control, in order
    int rc;
    unsigned long number = 0;          // size estimate, sort result, change type or target position
    std::optional<std::string> text{}; // cookie, attribute, previous DN or context
    int extra = 0;                     // change number or content count
    int result = 0;                    // the VLV result
};

std::string RowName(const testing::TestParamInfo<ParseRow> &info) { return info.param.name; }

std::optional<std::string> Text(const char *s)
{
    return s ? std::optional<std::string>(s) : std::nullopt;
}

std::optional<std::string> Text(const struct berval *bv)
{
    return bv ? std::optional<std::string>(std::string(bv->bv_val, bv->bv_len)) : std::nullopt;
}

const char kSortResponse[] = "1.2.840.113556.1.4.474";
const char kEntryChange[] = "2.16.840.1.113730.3.4.7";
const char kVlvResponse[] = "2.16.840.1.113730.3.4.10";
const char kLimitValues[] = "1.3.18.0.2.10.30";

// Paged results: every control is read, the last one decides.
const ParseRow kPageRows[] = {
    {"SizeAndEmptyCookie", {"30 05 02 01 05 04 00"}, 0, 5, ""},
    {"NoCookie", {"30 03 02 01 05"}, 0, 5},
    {"TwoOctetSize", {"30 08 02 02 01 00 04 02 61 62"}, 0, 256, "ab"},
    {"LongForms", {"30 84 00 00 00 09 02 01 05 04 82 00 02 61 62"}, 0, 5, "ab"},
    {"LastWins", {"30 06 02 01 05 04 01 79", "30 06 02 01 07 04 01 7A"}, 0, 7, "z"},
    {"NoValue", {nullptr}, LDAP_DECODING_ERROR},
    {"WrongOuterTag", {"31 03 02 01 05"}, LDAP_DECODING_ERROR},
    {"WrongSizeTag", {"30 03 0A 01 05"}, LDAP_DECODING_ERROR},
    {"WrongCookieTag", {"30 05 02 01 05 80 00"}, LDAP_DECODING_ERROR},
    {"SequencePastEnd", {"30 09 02 01 05"}, LDAP_DECODING_ERROR},
    {"CookiePastEnd", {"30 05 02 01 05 04 05"}, LDAP_DECODING_ERROR},
    {"LengthOctetsPastEnd", {"30 84 00 00"}, LDAP_DECODING_ERROR},
    {"FiveOctetSize", {"30 07 02 05 01 02 03 04 05"}, LDAP_DECODING_ERROR},
    {"LaterControlMalformed", {"30 03 02 01 05", "30 01"}, LDAP_DECODING_ERROR},
    {"NotFound", {}, LDAP_CONTROL_NOT_FOUND},
};

class ParsePage : public testing::TestWithParam<ParseRow> {};

TEST_P(ParsePage, Outputs)
{
    const ParseRow &row = GetParam();
    Handle ld;
    Response ctrls(kPage, row.values);
    unsigned long size = 0;
    struct berval *cookie = reinterpret_cast<struct berval *>(0x1);
    ASSERT_EQ(ldap_parse_page_control(ld.get(), ctrls.get(), &size, &cookie), row.rc);
    if (row.rc == LDAP_SUCCESS) {
        EXPECT_EQ(size, row.number);
    }
    EXPECT_EQ(Text(cookie), row.text);
    ber_bvfree(cookie);
}

INSTANTIATE_TEST_SUITE_P(Rows, ParsePage, testing::ValuesIn(kPageRows), RowName);

// Sort: by hand too, the last control decides; the attribute is an OCTET STRING.
const ParseRow kSortRows[] = {
    {"Success", {"30 03 0A 01 00"}, 0, 0},
    {"WithAttribute", {"30 07 0A 01 10 04 02 63 6E"}, 0, 16, "cn"},
    {"IntegerResult", {"30 03 02 01 35"}, 0, 53},
    {"LastWins", {"30 07 0A 01 10 04 02 63 6E", "30 03 0A 01 00"}, 0, 0},
    {"AttributeTagged80", {"30 07 0A 01 10 80 02 63 6E"}, LDAP_DECODING_ERROR},
    {"WrongResultTag", {"30 03 04 01 00"}, LDAP_DECODING_ERROR},
    {"PastEnd", {"30 09 0A 01 10"}, LDAP_DECODING_ERROR},
    {"NoValue", {nullptr}, LDAP_DECODING_ERROR},
    {"NotFound", {}, LDAP_CONTROL_NOT_FOUND},
};

class ParseSort : public testing::TestWithParam<ParseRow> {};

TEST_P(ParseSort, OutputsAndTheThreadsError)
{
    const ParseRow &row = GetParam();
    Handle ld;
    Response ctrls(kSortResponse, row.values);
    unsigned long result = 99;
    char *attribute = S("untouched");
    ASSERT_EQ(ldap_parse_sort_control(ld.get(), ctrls.get(), &result, &attribute), row.rc);
    EXPECT_EQ(ldap_get_errno(ld.get()), row.rc);
    if (row.rc == LDAP_SUCCESS) {
        EXPECT_EQ(result, row.number);
    }
    EXPECT_EQ(Text(attribute), row.text);
    zldap::mem_free(attribute);
}

INSTANTIATE_TEST_SUITE_P(Rows, ParseSort, testing::ValuesIn(kSortRows), RowName);

// Entry change: the first control decides; a change number of 0 is none.
const ParseRow kEntryChangeRows[] = {
    {"ModifyWithNumber0", {"30 06 02 01 04 02 01 00"}, 0, 4},
    {"AddWithNumber7", {"30 06 02 01 01 02 01 07"}, 0, 1, std::nullopt, 7},
    {"DeleteWithoutNumber", {"30 03 02 01 02"}, 0, 2},
    {"RenameWithPreviousDn", {"30 0C 02 01 08 04 04 63 6E 3D 6F 02 01 09"}, 0, 8, "cn=o", 9},
    {"FirstWins", {"30 03 02 01 02", "30 03 02 01 01"}, 0, 2},
    {"RenameWithoutDn", {"30 03 02 01 08"}, LDAP_DECODING_ERROR},
    {"Truncated", {"30 06 02 01"}, LDAP_DECODING_ERROR},
    {"EmptySequence", {"30 00"}, LDAP_DECODING_ERROR},
    {"NoValue", {nullptr}, LDAP_DECODING_ERROR},
    {"NotFound", {}, LDAP_CONTROL_NOT_FOUND},
};

class ParseEntryChange : public testing::TestWithParam<ParseRow> {};

TEST_P(ParseEntryChange, Outputs)
{
    const ParseRow &row = GetParam();
    Handle ld;
    Response ctrls(kEntryChange, row.values);
    int type = -1, has_number = -1, number = -1;
    char *previous = S("untouched");
    ASSERT_EQ(ldap_parse_entrychange_control(ld.get(), ctrls.get(), &type, &previous, &has_number, &number), row.rc);
    EXPECT_EQ(Text(previous), row.text);
    zldap::mem_free(previous);
    if (row.rc != LDAP_SUCCESS)
        return;
    EXPECT_EQ(type, static_cast<int>(row.number));
    EXPECT_EQ(has_number, row.extra > 0 ? 1 : 0);
    EXPECT_EQ(number, row.extra);
}

INSTANTIATE_TEST_SUITE_P(Rows, ParseEntryChange, testing::ValuesIn(kEntryChangeRows), RowName);

// Virtual list view: position, count and result, then an optional context.
const ParseRow kVlvRows[] = {
    {"WithoutContext", {"30 09 02 01 05 02 01 64 0A 01 35"}, 0, 5, std::nullopt, 100, 53},
    {"WithContext", {"30 0D 02 01 05 02 01 64 0A 01 00 04 02 63 31"}, 0, 5, "c1", 100, 0},
    {"ContextPastEnd", {"30 0D 02 01 05 02 01 64 0A 01 00 04 05 63"}, LDAP_DECODING_ERROR},
    {"Truncated", {"30 06 02 01 05 02 01"}, LDAP_DECODING_ERROR},
    {"NoValue", {nullptr}, LDAP_DECODING_ERROR},
    {"NotFound", {}, LDAP_CONTROL_NOT_FOUND},
};

class ParseVlv : public testing::TestWithParam<ParseRow> {};

TEST_P(ParseVlv, Outputs)
{
    const ParseRow &row = GetParam();
    Handle ld;
    Response ctrls(kVlvResponse, row.values);
    unsigned long position = 0, count = 0;
    int result = -1;
    struct berval *context = reinterpret_cast<struct berval *>(0x1);
    ASSERT_EQ(ldap_parse_vlv_control(ld.get(), ctrls.get(), &position, &count, &context, &result), row.rc);
    EXPECT_EQ(Text(context), row.text);
    ber_bvfree(context);
    if (row.rc != LDAP_SUCCESS)
        return;
    EXPECT_EQ(position, row.number);
    EXPECT_EQ(count, static_cast<unsigned long>(row.extra));
    EXPECT_EQ(result, row.result);
    // Every output is optional.
    EXPECT_EQ(ldap_parse_vlv_control(ld.get(), ctrls.get(), nullptr, nullptr, nullptr, nullptr), LDAP_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Rows, ParseVlv, testing::ValuesIn(kVlvRows), RowName);

// Value limits: the DN, then attributes newest first, written "dn|name:a:b,...".
struct SummaryRow {
    const char *name;
    const char *value;
    int rc;
    const char *summary = "";
};

const SummaryRow kLimitRows[] = {
    {"TwoAttributes",
     "30 1C 04 04 63 6E 3D 65 30 09 04 01 61 02 01 03 02 01 05 30 09 04 01 62 02 01 01 02 01 02", 0,
     "cn=e|b:1:2,a:3:5,"},
    {"DnOnly", "30 06 04 04 63 6E 3D 65", 0, "cn=e|"},
    {"StopsAtOtherTag", "30 0B 04 04 63 6E 3D 65 31 03 04 01 61", 0, "cn=e|"},
    {"AttributeTruncated", "30 0E 04 04 63 6E 3D 65 30 06 04 01 61 02 01 03", LDAP_DECODING_ERROR},
    {"NoDn", "30 00", LDAP_DECODING_ERROR},
};

class ParseLimitValues : public testing::TestWithParam<SummaryRow> {};

TEST_P(ParseLimitValues, Record)
{
    const SummaryRow &row = GetParam();
    Handle ld;
    Response ctrls(kLimitValues, {row.value});
    LDAPLimitNumValuesResponse *response = reinterpret_cast<LDAPLimitNumValuesResponse *>(0x1);
    ASSERT_EQ(ldap_parse_limit_num_values_response(ld.get(), ctrls.get(), &response), row.rc);
    if (row.rc != LDAP_SUCCESS) {
        EXPECT_EQ(response, nullptr);
        return;
    }
    std::string summary = std::string(response->lnvr_dn) + "|";
    for (LDAPLimitNumValuesAttr *a = response->lnvr_attrs; a; a = a->lnva_next)
        summary += std::string(a->lnva_attr) + ":" + std::to_string(a->lnva_first) + ":" +
                   std::to_string(a->lnva_second) + ",";
    EXPECT_EQ(summary, row.summary);
    ldap_free_limit_num_values_response(response);
}

INSTANTIATE_TEST_SUITE_P(Rows, ParseLimitValues, testing::ValuesIn(kLimitRows),
                         [](const testing::TestParamInfo<SummaryRow> &info) { return std::string(info.param.name); });

// Effective password policy, written "name=v1,v2;...|dn,...".
std::string AttrsOf(int count)
{
    std::string attrs;
    for (int i = 0; i < count; i++)
        attrs += " 30 05 04 01 61 31 00";
    char head[32];
    std::snprintf(head, sizeof head, "30 84 00 00 00 %02X", count * 7);
    return head + attrs;
}

const std::string k23Attrs = AttrsOf(23), k24Attrs = AttrsOf(24);

const SummaryRow kPwdPolicyRows[] = {
    {"AttributesAndDns", "30 15 30 0B 04 01 61 31 06 04 01 31 04 01 32 80 06 04 04 63 6E 3D 70", 0, "a=1,2;|cn=p,"},
    {"NoDns", "30 0D 30 0B 04 01 61 31 06 04 01 31 04 01 32", 0, "a=1,2;|"},
    {"NothingInside", "30 00", 0, "|"},
    {"TwentyThreeAttributes", k23Attrs.c_str(), 0,
     "a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;a=;|"},
    {"TwentyFourAttributes", k24Attrs.c_str(), LDAP_DECODING_ERROR},
    {"NameTruncated", "30 05 30 03 04 05 61", LDAP_DECODING_ERROR},
    {"NoSequence", "30", LDAP_DECODING_ERROR},
};

class ParsePwdPolicy : public testing::TestWithParam<SummaryRow> {};

TEST_P(ParsePwdPolicy, AttributesAndDns)
{
    const SummaryRow &row = GetParam();
    Bytes bytes = Hex(row.value);
    struct berval value = {bytes.size(), reinterpret_cast<char *>(bytes.data())};
    LDAPPwdPolicyAttr **attrs = nullptr;
    char **dns = nullptr;
    ASSERT_EQ(ldap_parse_effective_pwdpolicy_response("1.3.18.0.2.12.77", &value, &attrs, &dns), row.rc);
    if (row.rc != LDAP_SUCCESS) {
        EXPECT_EQ(attrs, nullptr);
        EXPECT_EQ(dns, nullptr);
        return;
    }
    std::string summary;
    for (LDAPPwdPolicyAttr **a = attrs; *a; a++) {
        summary += std::string((*a)->pa_attr) + "=";
        for (char **v = (*a)->pa_values; v && *v; v++)
            summary += std::string(v == (*a)->pa_values ? "" : ",") + *v;
        summary += ";";
    }
    summary += "|";
    for (char **d = dns; d && *d; d++)
        summary += std::string(*d) + ",";
    EXPECT_EQ(summary, row.summary);
    ldap_free_effective_pwdpolicy_response(attrs, dns);
}

INSTANTIATE_TEST_SUITE_P(Rows, ParsePwdPolicy, testing::ValuesIn(kPwdPolicyRows),
                         [](const testing::TestParamInfo<SummaryRow> &info) { return std::string(info.param.name); });

// Arguments every parser checks before it looks for its control.
TEST(ParseArguments, NullArgumentsAndEmptyLists)
{
    Handle ld;
    LDAP *h = ld.get();
    LDAPControl *empty[] = {nullptr};
    Response page(kPage, {"30 03 02 01 05"});
    unsigned long n = 0;
    int i = 0;
    char *s = nullptr;
    struct berval *bv = nullptr;
    LDAPLimitNumValuesResponse *limits = nullptr;
    LDAPPwdPolicyAttr **attrs = nullptr;
    char **dns = nullptr;
    struct berval pwd = {2, S("\x30\x00")};
    const struct {
        const char *what;
        int rc;
        int expected;
    } cases[] = {
        {"page without handle", ldap_parse_page_control(nullptr, page.get(), &n, &bv), LDAP_PARAM_ERROR},
        {"page without list", ldap_parse_page_control(h, nullptr, &n, &bv), LDAP_PARAM_ERROR},
        {"page without cookie out", ldap_parse_page_control(h, page.get(), &n, nullptr), LDAP_PARAM_ERROR},
        {"page empty list", ldap_parse_page_control(h, empty, &n, &bv), LDAP_CONTROL_NOT_FOUND},
        {"sort without handle", ldap_parse_sort_control(nullptr, empty, &n, &s), LDAP_PARAM_ERROR},
        {"sort without result out", ldap_parse_sort_control(h, empty, nullptr, &s), LDAP_PARAM_ERROR},
        {"sort empty list", ldap_parse_sort_control(h, empty, &n, nullptr), LDAP_CONTROL_NOT_FOUND},
        {"entry change without handle", ldap_parse_entrychange_control(nullptr, empty, &i, &s, &i, &i),
         LDAP_PARAM_ERROR},
        {"entry change without type out", ldap_parse_entrychange_control(h, empty, nullptr, &s, &i, &i),
         LDAP_PARAM_ERROR},
        {"entry change empty list", ldap_parse_entrychange_control(h, empty, &i, nullptr, nullptr, nullptr),
         LDAP_CONTROL_NOT_FOUND},
        {"vlv without handle", ldap_parse_vlv_control(nullptr, empty, &n, &n, &bv, &i), LDAP_PARAM_ERROR},
        {"vlv without list", ldap_parse_vlv_control(h, nullptr, &n, &n, &bv, &i), LDAP_PARAM_ERROR},
        {"vlv empty list", ldap_parse_vlv_control(h, empty, &n, &n, &bv, &i), LDAP_CONTROL_NOT_FOUND},
        {"limits without handle", ldap_parse_limit_num_values_response(nullptr, empty, &limits), LDAP_PARAM_ERROR},
        {"limits without out", ldap_parse_limit_num_values_response(h, empty, nullptr), LDAP_PARAM_ERROR},
        {"limits empty list", ldap_parse_limit_num_values_response(h, empty, &limits), LDAP_CONTROL_NOT_FOUND},
        {"limits not found", ldap_parse_limit_num_values_response(h, page.get(), &limits), LDAP_CONTROL_NOT_FOUND},
        {"policy of another name", ldap_parse_effective_pwdpolicy_response("1.2.3", &pwd, &attrs, &dns),
         LDAP_PARAM_ERROR},
        {"policy without value", ldap_parse_effective_pwdpolicy_response("1.3.18.0.2.12.77", nullptr, &attrs, &dns),
         LDAP_PARAM_ERROR},
        {"policy without DNs out", ldap_parse_effective_pwdpolicy_response("1.3.18.0.2.12.77", &pwd, &attrs, nullptr),
         LDAP_PARAM_ERROR},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.rc, c.expected) << c.what;
}

} // namespace
