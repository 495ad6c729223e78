// Control builders and parsers: the exact value of every request control
// and request value built, argument checks and their codes, and every
// response parser over tables of well-formed and malformed values.
#include "ber_test_support.h"
#include "core/ldap_error.h"
#include "fresh_process.h"
#include "zor8ldap_api.h"
#include "proto/ldap_controls.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <functional>
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
    {"PageSize200IsCriticalWithT", [](auto ld, auto c) { return ldap_create_page_control(ld, 200, nullptr, 'T', c); },
     0, kPage, 1, "30 06 02 02 00 C8 04 00"},
    {"PageSize100WithCookieNotCriticalWith1",
     [](auto ld, auto c) { return ldap_create_page_control(ld, 100, &kCookieAb, 1, c); }, 0, kPage, 0,
     "30 07 02 01 64 04 02 61 62"},
    {"PageSizeMinus129", [](auto ld, auto c) { return ldap_create_page_control(ld, -129, nullptr, 0, c); },
     0, kPage, 0, "30 06 02 02 FF 7F 04 00"},
    {"PageSize8388607", [](auto ld, auto c) { return ldap_create_page_control(ld, 8388607, nullptr, 0, c); },
     0, kPage, 0, "30 07 02 03 7F FF FF 04 00"},
    {"PageSizeMinus8388608TakesFour",
     [](auto ld, auto c) { return ldap_create_page_control(ld, -8388608, nullptr, 0, c); }, 0, kPage, 0,
     "30 08 02 04 FF 80 00 00 04 00"},
    {"PageNullHandle", [](auto, auto c) { return ldap_create_page_control(nullptr, 1, nullptr, 0, c); },
     LDAP_PARAM_ERROR},

    // Server-side sort.
    {"SortTwoKeys", [](auto ld, auto c) { return ldap_create_sort_control(ld, kSortKeys, 'T', c); }, 0,
     "1.2.840.113556.1.4.473", 1,
     "30 84 00 00 00 21 30 84 00 00 00 04 04 02 63 6E "
     "30 84 00 00 00 11 04 02 73 6E 80 08 32 2E 35 2E 31 33 2E 33 81 01 FF"},
    {"SortReverseOnlyFor1", [](auto ld, auto c) { return ldap_create_sort_control(ld, kSortFlag2, 1, c); },
     0, "1.2.840.113556.1.4.473", 0, "30 84 00 00 00 0A 30 84 00 00 00 04 04 02 63 6E"},
    {"SortNullKeys", [](auto ld, auto c) { return ldap_create_sort_control(ld, nullptr, 'T', c); }, LDAP_PARAM_ERROR},
    {"SortKeyWithoutType", [](auto ld, auto c) { return ldap_create_sort_control(ld, kSortNoType, 'T', c); },
     LDAP_PARAM_ERROR},
    {"SortNullHandle", [](auto, auto c) { return ldap_create_sort_control(nullptr, kSortKeys, 'T', c); },
     LDAP_PARAM_ERROR},

    // Persistent search.
    {"PersistentSearchAllChanges",
     [](auto ld, auto c) { return ldap_create_persistentsearch_control(ld, 15, 1, 1, 1, c); }, 0,
     "2.16.840.1.113730.3.4.3", 1, "30 84 00 00 00 09 02 01 0F 02 01 01 02 01 01"},
    {"PersistentSearchTypes3",
     [](auto ld, auto c) { return ldap_create_persistentsearch_control(ld, 3, 0, 0, 0, c); },
     LDAP_PARAM_ERROR},
    {"PersistentSearchChangesOnly2",
     [](auto ld, auto c) { return ldap_create_persistentsearch_control(ld, 8, 2, 0, 0, c); },
     LDAP_PARAM_ERROR},

    // Assertion: the filter encoder's bytes.
    {"AssertionEquality", [](auto ld, auto c) { return ldap_create_assertion_control(ld, "(cn=x)", 0, c); },
     0, "1.3.6.1.1.12", 0, "A3 84 00 00 00 07 04 02 63 6E 04 01 78"},
    {"AssertionBadFilter", [](auto ld, auto c) { return ldap_create_assertion_control(ld, "(cn=x", 1, c); },
     LDAP_FILTER_ERROR},

    // Virtual list view: always critical.
    {"VlvByOffset", [](auto ld, auto c) { return ldap_create_vlv_control(ld, &kVlvOffset, c); },
     0, kVlv, 1, "30 84 00 00 00 12 02 01 01 02 01 02 A0 84 00 00 00 06 02 01 03 02 01 04"},
    {"VlvByValueIgnoresOffset", [](auto ld, auto c) { return ldap_create_vlv_control(ld, &kVlvTarget, c); },
     0, kVlv, 1, "30 84 00 00 00 0D 02 01 01 02 01 02 81 01 6D 04 02 63 31"},
    {"VlvOffset0", [](auto ld, auto c) { return ldap_create_vlv_control(ld, &kVlvNoOffset, c); }, LDAP_PARAM_ERROR},

    // Proxied authorisation, without the environment variable: the DN and its NUL.
    {"ProxyAuthDnWithNul", [](auto ld, auto c) { return ldap_create_proxyauth_control(ld, "cn=a", 5, c); },
     0, "2.16.840.1.113730.3.4.18", 1, "63 6E 3D 61 00"},
    {"ProxyAuthNotCritical", [](auto ld, auto c) { return ldap_create_proxyauth_control(ld, "cn=a", 0, c); },
     LDAP_PARAM_ERROR},
    {"ProxyAuthNullDn", [](auto ld, auto c) { return ldap_create_proxyauth_control(ld, nullptr, 1, c); },
     LDAP_PARAM_ERROR},

    // Value limits.
    {"LimitNumValues", [](auto ld, auto c) { return ldap_create_limit_num_values_control(ld, 3, 5, 1, 0, c); },
     0, "1.3.18.0.2.10.30", 0, "30 84 00 00 00 09 02 01 03 02 01 05 01 01 FF"},
    {"LimitNumValuesNegative",
     [](auto ld, auto c) { return ldap_create_limit_num_values_control(ld, 3, -1, 1, 0, c); },
     LDAP_PARAM_ERROR},

    // Value-less controls.
    {"Vendor25NeedsNoHandle", [](auto, auto c) { return ldap_create_vendor_25_control(nullptr, c); },
     0, "1.3.18.0.2.10.25", 1},
    {"Vendor33NotCritical", [](auto ld, auto c) { return ldap_create_vendor_33_control(ld, 0, c); },
     0, "1.3.18.0.2.10.33", 0},
    {"Vendor33NullHandle", [](auto, auto c) { return ldap_create_vendor_33_control(nullptr, 1, c); },
     LDAP_PARAM_ERROR},

    // Controls handed back directly.
    {"GroupFromBytes", [](auto, auto c) {
         struct berval v = {3, S("xyz")};
         return Direct(ldap_create_group_control(&v), c);
     }, 0, "1.3.18.0.2.10.21", 1, "78 79 7A"},
    {"GroupFromList", [](auto, auto c) { return Direct(ldap_create_group_control_from_list(kGroups, 1), c); },
     0, "1.3.18.0.2.10.21", 1, "30 84 00 00 00 0F 0A 01 01 30 84 00 00 00 06 04 04 63 6E 3D 67"},
    {"GroupFromListKind2", [](auto, auto c) { return Direct(ldap_create_group_control_from_list(kGroups, 2), c); },
     -1},
    {"ChainingAudit", [](auto, auto c) { return Direct(ldap_create_chaining_audit_control(kAudit, "s", 7), c); },
     0, "1.3.18.0.2.10.22", 1, "30 84 00 00 00 0F 30 84 00 00 00 06 04 01 61 04 01 62 04 01 73"},
    {"Transaction", [](auto, auto c) { return Direct(ldap_create_transaction_control("t1"), c); },
     0, "1.3.18.0.2.10.5", 1, "74 31"},
    {"TransactionNullId", [](auto, auto c) { return Direct(ldap_create_transaction_control(nullptr), c); }, -1},
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
    EXPECT_EQ(ldap_create_sort_control(ld.get(), nullptr, 'T', nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(ld.get()), LDAP_PARAM_ERROR);
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
    {"EffectivePwdPolicy", [] { return ldap_create_effective_pwdpolicy_request("cn=a"); },
     "30 84 00 00 00 06 04 04 63 6E 3D 61"},
    {"GroupEvalWithAttrs", [] {
         static char *attrs[] = {S("x"), nullptr};
         return ldap_create_group_eval_request("cn=a", attrs);
     }, "30 84 00 00 00 0F 04 04 63 6E 3D 61 30 84 00 00 00 03 04 01 78"},
    {"GroupEvalWithoutAttrs", [] { return ldap_create_group_eval_request("cn=a", nullptr); },
     "30 84 00 00 00 06 04 04 63 6E 3D 61"},
    {"PrepareTransaction", [] { return ldap_create_prepare_transaction_request("abc"); }, "61 62 63"},
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

// What a parser handed out, as text, and whether any pointer output was
// set (a failing parser must set none).
struct Parsed {
    int rc;
    std::string text;
    bool handed_out;
};

std::string Str(const char *s) { return s ? s : "-"; }
std::string Str(const struct berval *bv) { return bv ? std::string(bv->bv_val, bv->bv_len) : "-"; }

Parsed Page(LDAP *ld, LDAPControl **ctrls)
{
    unsigned long size = 0;
    struct berval *cookie = nullptr;
    int rc = ldap_parse_page_control(ld, ctrls, &size, &cookie);
    Parsed out{rc, std::to_string(size) + " " + Str(cookie), cookie != nullptr};
    ber_bvfree(cookie);
    return out;
}

// The sort parser also leaves its code as the thread's error.
Parsed Sort(LDAP *ld, LDAPControl **ctrls)
{
    unsigned long result = 0;
    char *attribute = nullptr;
    int rc = ldap_parse_sort_control(ld, ctrls, &result, &attribute);
    Parsed out{rc, std::to_string(result) + " " + Str(attribute), attribute != nullptr};
    zldap::mem_free(attribute);
    EXPECT_EQ(ldap_get_errno(ld), rc);
    return out;
}

Parsed EntryChange(LDAP *ld, LDAPControl **ctrls)
{
    int type = 0, has_number = -1, number = -1;
    char *previous = nullptr;
    int rc = ldap_parse_entrychange_control(ld, ctrls, &type, &previous, &has_number, &number);
    Parsed out{rc,
               std::to_string(type) + " " + Str(previous) + " " + std::to_string(has_number) + " " +
                   std::to_string(number),
               previous != nullptr};
    zldap::mem_free(previous);
    return out;
}

Parsed Vlv(LDAP *ld, LDAPControl **ctrls)
{
    unsigned long position = 0, count = 0;
    int result = 0;
    struct berval *context = nullptr;
    int rc = ldap_parse_vlv_control(ld, ctrls, &position, &count, &context, &result);
    Parsed out{rc,
               std::to_string(position) + " " + std::to_string(count) + " " + std::to_string(result) + " " +
                   Str(context),
               context != nullptr};
    ber_bvfree(context);
    return out;
}

// "dn name:first:second ...", attributes newest first.
Parsed LimitValues(LDAP *ld, LDAPControl **ctrls)
{
    LDAPLimitNumValuesResponse *response = nullptr;
    int rc = ldap_parse_limit_num_values_response(ld, ctrls, &response);
    Parsed out{rc, "", response != nullptr};
    if (response) {
        out.text = response->lnvr_dn;
        for (LDAPLimitNumValuesAttr *a = response->lnvr_attrs; a; a = a->lnva_next)
            out.text += " " + std::string(a->lnva_attr) + ":" + std::to_string(a->lnva_first) + ":" +
                        std::to_string(a->lnva_second);
    }
    ldap_free_limit_num_values_response(response);
    return out;
}

// The value of the last control, read as an effective password policy
// response: "name=v1,v2 ... | dn ...".
Parsed PwdPolicy(LDAP *, LDAPControl **ctrls)
{
    int n = ldap_count_controls(ctrls);
    LDAPPwdPolicyAttr **attrs = nullptr;
    char **dns = nullptr;
    int rc = ldap_parse_effective_pwdpolicy_response("1.3.18.0.2.12.77", &ctrls[n - 1]->ldctl_value, &attrs, &dns);
    Parsed out{rc, "", attrs || dns};
    for (LDAPPwdPolicyAttr **a = attrs; a && *a; a++) {
        out.text += std::string((*a)->pa_attr) + "=";
        for (char **v = (*a)->pa_values; v && *v; v++)
            out.text += std::string(v == (*a)->pa_values ? "" : ",") + *v;
        out.text += " ";
    }
    out.text += "|";
    for (char **d = dns; d && *d; d++)
        out.text += std::string(" ") + *d;
    ldap_free_effective_pwdpolicy_response(attrs, dns);
    return out;
}

struct ParseRow {
    const char *name;
    Parsed (*parse)(LDAP *, LDAPControl **);
    const char *oid;
    std::vector<std::string> values; // hex of each matching control, in order; "none": no value
    int rc;
    const char *text = ""; // what a successful parse handed out
};

const char kSort[] = "1.2.840.113556.1.4.474";
const char kChange[] = "2.16.840.1.113730.3.4.7", kVlvResponse[] = "2.16.840.1.113730.3.4.10";
const char kLimits[] = "1.3.18.0.2.10.30";

std::string AttrsOf(int count)
{
    std::string attrs;
    for (int i = 0; i < count; i++)
        attrs += " 30 05 04 01 61 31 00";
    char head[32];
    std::snprintf(head, sizeof head, "30 84 00 00 00 %02X", count * 7);
    return head + attrs;
}

const ParseRow kParseRows[] = {
    // Paged results, read by hand: every control is read, the last one decides.
    {"PageEmptyCookie", Page, kPage, {"30 05 02 01 05 04 00"}, 0, "5 "},
    {"PageNoCookie", Page, kPage, {"30 03 02 01 05"}, 0, "5 -"},
    {"PageTwoOctetSize", Page, kPage, {"30 08 02 02 01 00 04 02 61 62"}, 0, "256 ab"},
    {"PageLongForms", Page, kPage, {"30 84 00 00 00 09 02 01 05 04 82 00 02 61 62"}, 0, "5 ab"},
    {"PageLastWins", Page, kPage, {"30 06 02 01 05 04 01 79", "30 06 02 01 07 04 01 7A"}, 0, "7 z"},
    {"PageLaterMalformed", Page, kPage, {"30 03 02 01 05", "30 01"}, LDAP_DECODING_ERROR},
    {"PageNoValue", Page, kPage, {"none"}, LDAP_DECODING_ERROR},
    {"PageWrongOuterTag", Page, kPage, {"31 03 02 01 05"}, LDAP_DECODING_ERROR},
    {"PageWrongSizeTag", Page, kPage, {"30 03 0A 01 05"}, LDAP_DECODING_ERROR},
    {"PageWrongCookieTag", Page, kPage, {"30 05 02 01 05 80 00"}, LDAP_DECODING_ERROR},
    {"PageSequencePastEnd", Page, kPage, {"30 09 02 01 05"}, LDAP_DECODING_ERROR},
    {"PageCookiePastEnd", Page, kPage, {"30 05 02 01 05 04 05"}, LDAP_DECODING_ERROR},
    {"PageLengthOctetsPastEnd", Page, kPage, {"30 84 00 00"}, LDAP_DECODING_ERROR},
    {"PageFiveOctetSize", Page, kPage, {"30 07 02 05 01 02 03 04 05"}, LDAP_DECODING_ERROR},
    {"PageNotFound", Page, kPage, {}, LDAP_CONTROL_NOT_FOUND},
    // Sort, by hand too; the attribute is an OCTET STRING.
    {"SortSuccess", Sort, kSort, {"30 03 0A 01 00"}, 0, "0 -"},
    {"SortWithAttribute", Sort, kSort, {"30 07 0A 01 10 04 02 63 6E"}, 0, "16 cn"},
    {"SortIntegerResult", Sort, kSort, {"30 03 02 01 35"}, 0, "53 -"},
    {"SortLastWins", Sort, kSort, {"30 07 0A 01 10 04 02 63 6E", "30 03 0A 01 00"}, 0, "0 -"},
    {"SortAttributeTagged80", Sort, kSort, {"30 07 0A 01 10 80 02 63 6E"}, LDAP_DECODING_ERROR},
    {"SortWrongResultTag", Sort, kSort, {"30 03 04 01 00"}, LDAP_DECODING_ERROR},
    {"SortPastEnd", Sort, kSort, {"30 09 0A 01 10"}, LDAP_DECODING_ERROR},
    {"SortNoValue", Sort, kSort, {"none"}, LDAP_DECODING_ERROR},
    {"SortNotFound", Sort, kSort, {}, LDAP_CONTROL_NOT_FOUND},
    // Entry change: the first control decides; a change number of 0 is none.
    {"ChangeModifyNumber0", EntryChange, kChange, {"30 06 02 01 04 02 01 00"}, 0, "4 - 0 0"},
    {"ChangeAddNumber7", EntryChange, kChange, {"30 06 02 01 01 02 01 07"}, 0, "1 - 1 7"},
    {"ChangeDeleteNoNumber", EntryChange, kChange, {"30 03 02 01 02"}, 0, "2 - 0 0"},
    {"ChangeRename", EntryChange, kChange, {"30 0C 02 01 08 04 04 63 6E 3D 6F 02 01 09"}, 0, "8 cn=o 1 9"},
    {"ChangeFirstWins", EntryChange, kChange, {"30 03 02 01 02", "30 03 02 01 01"}, 0, "2 - 0 0"},
    {"ChangeRenameWithoutDn", EntryChange, kChange, {"30 03 02 01 08"}, LDAP_DECODING_ERROR},
    {"ChangeTruncated", EntryChange, kChange, {"30 06 02 01"}, LDAP_DECODING_ERROR},
    {"ChangeEmptySequence", EntryChange, kChange, {"30 00"}, LDAP_DECODING_ERROR},
    {"ChangeNoValue", EntryChange, kChange, {"none"}, LDAP_DECODING_ERROR},
    {"ChangeNotFound", EntryChange, kChange, {}, LDAP_CONTROL_NOT_FOUND},
    // Virtual list view: position, count and result, then an optional context.
    {"VlvNoContext", Vlv, kVlvResponse, {"30 09 02 01 05 02 01 64 0A 01 35"}, 0, "5 100 53 -"},
    {"VlvContext", Vlv, kVlvResponse, {"30 0D 02 01 05 02 01 64 0A 01 00 04 02 63 31"}, 0, "5 100 0 c1"},
    {"VlvContextPastEnd", Vlv, kVlvResponse, {"30 0D 02 01 05 02 01 64 0A 01 00 04 05 63"}, LDAP_DECODING_ERROR},
    {"VlvTruncated", Vlv, kVlvResponse, {"30 06 02 01 05 02 01"}, LDAP_DECODING_ERROR},
    {"VlvNoValue", Vlv, kVlvResponse, {"none"}, LDAP_DECODING_ERROR},
    {"VlvNotFound", Vlv, kVlvResponse, {}, LDAP_CONTROL_NOT_FOUND},
    // Value limits: attributes while the next tag is a SEQUENCE.
    {"LimitsTwoAttributes", LimitValues, kLimits,
     {"30 1C 04 04 63 6E 3D 65 30 09 04 01 61 02 01 03 02 01 05 30 09 04 01 62 02 01 01 02 01 02"}, 0,
     "cn=e b:1:2 a:3:5"},
    {"LimitsDnOnly", LimitValues, kLimits, {"30 06 04 04 63 6E 3D 65"}, 0, "cn=e"},
    {"LimitsStopAtOtherTag", LimitValues, kLimits, {"30 0B 04 04 63 6E 3D 65 31 03 04 01 61"}, 0, "cn=e"},
    {"LimitsAttributeTruncated", LimitValues, kLimits, {"30 0E 04 04 63 6E 3D 65 30 06 04 01 61 02 01 03"},
     LDAP_DECODING_ERROR},
    {"LimitsNoDn", LimitValues, kLimits, {"30 00"}, LDAP_DECODING_ERROR},
    {"LimitsNoValue", LimitValues, kLimits, {"none"}, LDAP_DECODING_ERROR},
    {"LimitsNotFound", LimitValues, kLimits, {}, LDAP_CONTROL_NOT_FOUND},
    // Effective password policy: at most 23 attributes, then the DNs under 0x80.
    {"PolicyAttributesAndDns", PwdPolicy, "x", {"30 15 30 0B 04 01 61 31 06 04 01 31 04 01 32 80 06 04 04 63 6E 3D 70"},
     0, "a=1,2 | cn=p"},
    {"PolicyNoDns", PwdPolicy, "x", {"30 0D 30 0B 04 01 61 31 06 04 01 31 04 01 32"}, 0, "a=1,2 |"},
    {"PolicyEmpty", PwdPolicy, "x", {"30 00"}, 0, "|"},
    {"Policy23Attributes", PwdPolicy, "x", {AttrsOf(23)}, 0,
     "a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= |"},
    {"Policy24Attributes", PwdPolicy, "x", {AttrsOf(24)}, LDAP_DECODING_ERROR},
    {"PolicyNameTruncated", PwdPolicy, "x", {"30 05 30 03 04 05 61"}, LDAP_DECODING_ERROR},
    {"PolicyNoSequence", PwdPolicy, "x", {"30"}, LDAP_DECODING_ERROR},
};

class Parse : public testing::TestWithParam<ParseRow> {};

TEST_P(Parse, HandsOutWhatTheValueHolds)
{
    const ParseRow &row = GetParam();
    Handle ld;
    // An unrelated control first: parsers look at OIDs, not positions.
    LDAPControl **ctrls = nullptr;
    ASSERT_EQ(ldap_add_control("1.2.3", 0, nullptr, 0, &ctrls), LDAP_SUCCESS);
    for (const std::string &hex : row.values) {
        Bytes bytes = hex == "none" ? Bytes() : Hex(hex);
        ASSERT_EQ(ldap_add_control(row.oid, bytes.size(), reinterpret_cast<const char *>(bytes.data()), 0, &ctrls),
                  LDAP_SUCCESS);
    }
    Parsed parsed = row.parse(ld.get(), ctrls);
    EXPECT_EQ(parsed.rc, row.rc);
    if (row.rc == LDAP_SUCCESS) {
        EXPECT_EQ(parsed.text, row.text);
    } else {
        EXPECT_FALSE(parsed.handed_out);
    }
    ldap_controls_free(ctrls);
}

INSTANTIATE_TEST_SUITE_P(Rows, Parse, testing::ValuesIn(kParseRows),
                         [](const testing::TestParamInfo<ParseRow> &info) { return std::string(info.param.name); });

// Arguments the parsers check before they look for their control.
TEST(ParseArguments, NullArguments)
{
    Handle ld;
    LDAPControl *empty[] = {nullptr};
    unsigned long n = 0;
    int i = 0;
    struct berval *bv = nullptr, pwd = {2, S("\x30\x00")};
    LDAPLimitNumValuesResponse *limits = nullptr;
    LDAPPwdPolicyAttr **attrs = nullptr;
    char **dns = nullptr;
    EXPECT_EQ(ldap_parse_page_control(nullptr, empty, &n, &bv), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_page_control(ld.get(), empty, &n, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_sort_control(nullptr, empty, &n, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_sort_control(ld.get(), empty, nullptr, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_entrychange_control(ld.get(), empty, nullptr, nullptr, &i, &i), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_vlv_control(ld.get(), nullptr, &n, &n, &bv, &i), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_limit_num_values_response(ld.get(), empty, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_limit_num_values_response(ld.get(), empty, &limits), LDAP_CONTROL_NOT_FOUND);
    EXPECT_EQ(ldap_parse_effective_pwdpolicy_response("1.2.3", &pwd, &attrs, &dns), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_effective_pwdpolicy_response("1.3.18.0.2.12.77", &pwd, &attrs, nullptr), LDAP_PARAM_ERROR);
}

} // namespace
