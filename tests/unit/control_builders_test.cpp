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
#include <memory>
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

using Handle = std::unique_ptr<LDAP, decltype(&ldap_unbind)>;
Handle NewHandle() { return Handle(ldap_init("localhost", 389), ldap_unbind); }

// ---------------------------------------------------------------------
// Request controls and request values

// What a builder made: its code alone when it failed (having handed out
// nothing), else the control's OID, "!" when critical, and its value in hex.
std::string Made(int rc, LDAPControl **ctrl)
{
    if (rc != LDAP_SUCCESS)
        return std::to_string(rc) + (*ctrl ? " and a control" : "");
    std::string out = (*ctrl)->ldctl_oid + std::string((*ctrl)->ldctl_iscritical ? "!" : "");
    if ((*ctrl)->ldctl_value.bv_val)
        out += " " + HexOf((*ctrl)->ldctl_value);
    ldap_control_free(*ctrl);
    return out;
}
// Builders that hand the control back directly: failure is -1 here.
std::string Made(LDAPControl *made, LDAPControl **ctrl) { return Made(made ? 0 : -1, (*ctrl = made, ctrl)); }
// Request values: their bytes, which end in a NUL beyond the length.
std::string Made(struct berval *value, LDAPControl **)
{
    std::string out = !value ? "NULL" : value->bv_val[value->bv_len] ? "no NUL" : HexOf(*value);
    ber_bvfree(value);
    return out;
}

struct BuildRow {
    const char *call;
    std::function<std::string(LDAP *)> run;
    std::string made;
};
#define BUILD(call, made)                                                                                     \
    BuildRow { #call, [](LDAP *ld) { LDAPControl *c = reinterpret_cast<LDAPControl *>(1); (void)ld;         \
                                     return Made(call, &c); }, made }

const std::string kCookie200(200, 'x');
struct berval kCookieAb = {2, S("ab")}, kXyz = {3, S("xyz")}, kTarget = {1, S("m")}, kContext = {2, S("c1")};
LDAPsortkey kByCn = {S("cn"), nullptr, 0}, kBySnReversed = {S("sn"), S("2.5.13.3"), 1};
LDAPsortkey kByCnFlag2 = {S("cn"), nullptr, 2}, kNoType = {nullptr, nullptr, 0};
LDAPsortkey *kSortKeys[] = {&kByCn, &kBySnReversed, nullptr}, *kSortFlag2[] = {&kByCnFlag2, nullptr},
            *kSortNoType[] = {&kNoType, nullptr};
char *kGroups[] = {S("cn=g"), nullptr}, *kAudit[] = {S("a"), S("b"), nullptr}, *kAttrs[] = {S("x"), nullptr};
LDAPVLVInfo kVlvOffset = {1, 1, 2, 3, 4, nullptr, nullptr}, kVlvTarget = {1, 1, 2, 0, 0, &kTarget, &kContext};
LDAPVLVInfo kVlvNoOffset = {1, 1, 2, 0, 4, nullptr, nullptr};

const BuildRow kBuildRows[] = {
    // Paged results, written by hand: the fewest integer octets.
    BUILD(ldap_create_page_control(ld, 200, nullptr, 'T', &c), "1.2.840.113556.1.4.319! 30 06 02 02 00 C8 04 00"),
    BUILD(ldap_create_page_control(ld, 100, &kCookieAb, 1, &c), "1.2.840.113556.1.4.319 30 07 02 01 64 04 02 61 62"),
    BUILD(ldap_create_page_control(ld, -129, nullptr, 0, &c), "1.2.840.113556.1.4.319 30 06 02 02 FF 7F 04 00"),
    BUILD(ldap_create_page_control(ld, 8388607, nullptr, 0, &c), "1.2.840.113556.1.4.319 30 07 02 03 7F FF FF 04 00"),
    BUILD(ldap_create_page_control(ld, -8388608, nullptr, 0, &c),
          "1.2.840.113556.1.4.319 30 08 02 04 FF 80 00 00 04 00"),
    // Server-side sort: only a flag of 1 reverses.
    BUILD(ldap_create_sort_control(ld, kSortKeys, 'T', &c),
          "1.2.840.113556.1.4.473! 30 84 00 00 00 21 30 84 00 00 00 04 04 02 63 6E "
          "30 84 00 00 00 11 04 02 73 6E 80 08 32 2E 35 2E 31 33 2E 33 81 01 FF"),
    BUILD(ldap_create_sort_control(ld, kSortFlag2, 1, &c),
          "1.2.840.113556.1.4.473 30 84 00 00 00 0A 30 84 00 00 00 04 04 02 63 6E"),
    BUILD(ldap_create_sort_control(ld, kSortNoType, 'T', &c), "89"),
    BUILD(ldap_create_persistentsearch_control(ld, 15, 1, 1, 1, &c),
          "2.16.840.1.113730.3.4.3! 30 84 00 00 00 09 02 01 0F 02 01 01 02 01 01"),
    BUILD(ldap_create_persistentsearch_control(ld, 3, 0, 0, 0, &c), "89"),
    BUILD(ldap_create_persistentsearch_control(ld, 8, 2, 0, 0, &c), "89"),
    BUILD(ldap_create_assertion_control(ld, "(cn=x)", 0, &c), "1.3.6.1.1.12 A3 84 00 00 00 07 04 02 63 6E 04 01 78"),
    BUILD(ldap_create_assertion_control(ld, "(cn=x", 1, &c), "87"),
    // Virtual list view: always critical; a target value overrides the offset.
    BUILD(ldap_create_vlv_control(ld, &kVlvOffset, &c),
          "2.16.840.1.113730.3.4.9! 30 84 00 00 00 12 02 01 01 02 01 02 A0 84 00 00 00 06 02 01 03 02 01 04"),
    BUILD(ldap_create_vlv_control(ld, &kVlvTarget, &c),
          "2.16.840.1.113730.3.4.9! 30 84 00 00 00 0D 02 01 01 02 01 02 81 01 6D 04 02 63 31"),
    BUILD(ldap_create_vlv_control(ld, &kVlvNoOffset, &c), "89"),
    // Proxied authorisation, without the environment variable: the DN and its NUL.
    BUILD(ldap_create_proxyauth_control(ld, "cn=a", 5, &c), "2.16.840.1.113730.3.4.18! 63 6E 3D 61 00"),
    BUILD(ldap_create_proxyauth_control(ld, "cn=a", 0, &c), "89"),
    BUILD(ldap_create_limit_num_values_control(ld, 3, 5, 1, 0, &c),
          "1.3.18.0.2.10.30 30 84 00 00 00 09 02 01 03 02 01 05 01 01 FF"),
    BUILD(ldap_create_limit_num_values_control(ld, 3, -1, 1, 0, &c), "89"),
    BUILD(ldap_create_vendor_25_control(nullptr, &c), "1.3.18.0.2.10.25!"),
    BUILD(ldap_create_vendor_33_control(ld, 0, &c), "1.3.18.0.2.10.33"),
    BUILD(ldap_create_group_control(&kXyz), "1.3.18.0.2.10.21! 78 79 7A"),
    BUILD(ldap_create_group_control_from_list(kGroups, 1),
          "1.3.18.0.2.10.21! 30 84 00 00 00 0F 0A 01 01 30 84 00 00 00 06 04 04 63 6E 3D 67"),
    BUILD(ldap_create_group_control_from_list(kGroups, 2), "-1"),
    BUILD(ldap_create_chaining_audit_control(kAudit, "s", 7),
          "1.3.18.0.2.10.22! 30 84 00 00 00 0F 30 84 00 00 00 06 04 01 61 04 01 62 04 01 73"),
    BUILD(ldap_create_transaction_control("t1"), "1.3.18.0.2.10.5! 74 31"),
    BUILD(ldap_create_transaction_control(nullptr), "-1"),
    // Request values.
    BUILD(ldap_create_account_status_request("cn=a"), "30 84 00 00 00 06 04 04 63 6E 3D 61"),
    BUILD(ldap_create_effective_pwdpolicy_request("cn=a"), "30 84 00 00 00 06 04 04 63 6E 3D 61"),
    BUILD(ldap_create_group_eval_request("cn=a", kAttrs),
          "30 84 00 00 00 0F 04 04 63 6E 3D 61 30 84 00 00 00 03 04 01 78"),
    BUILD(ldap_create_group_eval_request("cn=a", nullptr), "30 84 00 00 00 06 04 04 63 6E 3D 61"),
    BUILD(ldap_create_prepare_transaction_request("abc"), "61 62 63"),
    BUILD(ldap_create_end_transaction_request("abc", 7), "01 61 62 63"),
    BUILD(ldap_create_end_transaction_request("abc", 0), "00 61 62 63"),
    BUILD(ldap_create_end_transaction_request(nullptr, 1), "NULL"),
    BUILD(ldap_create_empty_request_value(), ""),
};

TEST(Build, ValueCriticalityAndCode)
{
    Handle ld = NewHandle();
    for (const BuildRow &row : kBuildRows)
        EXPECT_EQ(row.run(ld.get()), row.made) << row.call;
    EXPECT_EQ(ldap_create_sort_control(ld.get(), nullptr, 'T', nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(ld.get()), LDAP_PARAM_ERROR) << "the sort builder records its code";
}

// Cookies of 128 bytes and more use two or three length octets, never 0x81.
TEST(Build, LongCookiesUseTwoAndThreeLengthOctets)
{
    Handle ld = NewHandle();
    const std::string huge(0x10000, 'y');
    for (auto [cookie, head] : {std::pair{&kCookie200, "30 82 00 CF 02 01 05 04 82 00 C8"},
                                std::pair{&huge, "30 83 01 00 08 02 01 05 04 83 01 00 00"}}) {
        struct berval bv = {cookie->size(), const_cast<char *>(cookie->data())};
        LDAPControl *ctrl = nullptr;
        ASSERT_EQ(ldap_create_page_control(ld.get(), 5, &bv, 'T', &ctrl), LDAP_SUCCESS);
        Bytes expected = zldap_test::Concat(Hex(head), Bytes(cookie->begin(), cookie->end()));
        EXPECT_EQ(HexOf(ctrl->ldctl_value), ToHex(expected));
        ldap_control_free(ctrl);
    }
}

TEST(Build, JavaProxyAuthEncodingIsChosenOncePerProcess)
{
    ZLDAP_IN_FRESH_PROCESS({
        Handle ld = NewHandle();
        for (bool set : {true, false}) { // the variable goes, the choice stays
            std::optional<zldap_test::ScopedEnv> env;
            if (set)
                env.emplace("USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING", "yEs");
            LDAPControl *ctrl = nullptr;
            ASSERT_EQ(ldap_create_proxyauth_control(ld.get(), "cn=a", 1, &ctrl), LDAP_SUCCESS);
            EXPECT_EQ(HexOf(ctrl->ldctl_value), "30 84 00 00 00 06 04 04 63 6E 3D 61");
            ldap_control_free(ctrl);
        }
    });
}

// ---------------------------------------------------------------------
// Response controls

// What a parser handed out, as text; a failing parser gives its code and
// must set no pointer output.
std::string Parsed(int rc, const std::string &text, bool handed_out)
{
    return rc == LDAP_SUCCESS ? text : std::to_string(rc) + (handed_out ? " and output" : "");
}

std::string Str(const char *s) { return s ? s : "-"; }
std::string Str(const struct berval *bv) { return bv ? std::string(bv->bv_val, bv->bv_len) : "-"; }
std::string N(long n) { return std::to_string(n) + " "; }

std::string Page(LDAP *ld, LDAPControl **ctrls)
{
    unsigned long size = 0;
    struct berval *cookie = nullptr;
    int rc = ldap_parse_page_control(ld, ctrls, &size, &cookie);
    std::string out = Parsed(rc, N(size) + Str(cookie), cookie != nullptr);
    ber_bvfree(cookie);
    return out;
}

// The sort parser also leaves its code as the thread's error.
std::string Sort(LDAP *ld, LDAPControl **ctrls)
{
    unsigned long result = 0;
    char *attribute = nullptr;
    int rc = ldap_parse_sort_control(ld, ctrls, &result, &attribute);
    std::string out = Parsed(rc, N(result) + Str(attribute), attribute != nullptr);
    zldap::mem_free(attribute);
    return ldap_get_errno(ld) == rc ? out : "not recorded";
}

std::string EntryChange(LDAP *ld, LDAPControl **ctrls)
{
    int type = 0, has_number = -1, number = -1;
    char *previous = nullptr;
    int rc = ldap_parse_entrychange_control(ld, ctrls, &type, &previous, &has_number, &number);
    std::string out = Parsed(rc, N(type) + Str(previous) + " " + N(has_number) + N(number), previous != nullptr);
    zldap::mem_free(previous);
    return out;
}

std::string Vlv(LDAP *ld, LDAPControl **ctrls)
{
    unsigned long position = 0, count = 0;
    int result = 0;
    struct berval *context = nullptr;
    int rc = ldap_parse_vlv_control(ld, ctrls, &position, &count, &context, &result);
    std::string out = Parsed(rc, N(position) + N(count) + N(result) + Str(context), context != nullptr);
    ber_bvfree(context);
    return out;
}

// "dn name:first second ...", attributes newest first.
std::string LimitValues(LDAP *ld, LDAPControl **ctrls)
{
    LDAPLimitNumValuesResponse *response = nullptr;
    int rc = ldap_parse_limit_num_values_response(ld, ctrls, &response);
    std::string text = response ? response->lnvr_dn : "";
    for (LDAPLimitNumValuesAttr *a = response ? response->lnvr_attrs : nullptr; a; a = a->lnva_next)
        text += " " + std::string(a->lnva_attr) + ":" + N(a->lnva_first) + std::to_string(a->lnva_second);
    ldap_free_limit_num_values_response(response);
    return Parsed(rc, text, response != nullptr);
}

// The value of the last control, read as an effective password policy
// response: "name=v1,v2 ... | dn ...".
std::string PwdPolicy(LDAP *, LDAPControl **ctrls)
{
    LDAPPwdPolicyAttr **attrs = nullptr;
    char **dns = nullptr;
    int rc = ldap_parse_effective_pwdpolicy_response(
        "1.3.18.0.2.12.77", &ctrls[ldap_count_controls(ctrls) - 1]->ldctl_value, &attrs, &dns);
    std::string text;
    for (LDAPPwdPolicyAttr **a = attrs; a && *a; a++) {
        text += std::string((*a)->pa_attr) + "=";
        for (char **v = (*a)->pa_values; v && *v; v++)
            text += std::string(v == (*a)->pa_values ? "" : ",") + *v;
        text += " ";
    }
    text += "|";
    for (char **d = dns; d && *d; d++)
        text += std::string(" ") + *d;
    ldap_free_effective_pwdpolicy_response(attrs, dns);
    return Parsed(rc, text, attrs || dns);
}

struct ParseRow {
    std::string (*parse)(LDAP *, LDAPControl **);
    const char *oid;
    std::vector<std::string> values; // hex of each matching control, in order; "none": no value
    std::string parsed;
};

const char kPage[] = "1.2.840.113556.1.4.319", kSort[] = "1.2.840.113556.1.4.474";
const char kChange[] = "2.16.840.1.113730.3.4.7", kVlvResponse[] = "2.16.840.1.113730.3.4.10";
const char kLimits[] = "1.3.18.0.2.10.30", kBad[] = "84", kNotFound[] = "93";

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
    {Page, kPage, {"30 05 02 01 05 04 00"}, "5 "},
    {Page, kPage, {"30 03 02 01 05"}, "5 -"},
    {Page, kPage, {"30 08 02 02 01 00 04 02 61 62"}, "256 ab"},
    {Page, kPage, {"30 84 00 00 00 09 02 01 05 04 82 00 02 61 62"}, "5 ab"},
    {Page, kPage, {"30 06 02 01 05 04 01 79", "30 06 02 01 07 04 01 7A"}, "7 z"},
    {Page, kPage, {"30 03 02 01 05", "30 01"}, kBad},
    {Page, kPage, {"none"}, kBad},
    {Page, kPage, {"31 03 02 01 05"}, kBad},
    {Page, kPage, {"30 03 0A 01 05"}, kBad},
    {Page, kPage, {"30 05 02 01 05 80 00"}, kBad},
    {Page, kPage, {"30 09 02 01 05"}, kBad},
    {Page, kPage, {"30 05 02 01 05 04 05"}, kBad},
    {Page, kPage, {"30 84 00 00"}, kBad},
    {Page, kPage, {"30 07 02 05 01 02 03 04 05"}, kBad},
    {Page, kPage, {}, kNotFound},
    // Sort, by hand too; the attribute is an OCTET STRING.
    {Sort, kSort, {"30 03 0A 01 00"}, "0 -"},
    {Sort, kSort, {"30 07 0A 01 10 04 02 63 6E"}, "16 cn"},
    {Sort, kSort, {"30 03 02 01 35"}, "53 -"},
    {Sort, kSort, {"30 07 0A 01 10 04 02 63 6E", "30 03 0A 01 00"}, "0 -"},
    {Sort, kSort, {"30 07 0A 01 10 80 02 63 6E"}, kBad},
    {Sort, kSort, {"30 03 04 01 00"}, kBad},
    {Sort, kSort, {}, kNotFound},
    // Entry change: the first control decides; a change number of 0 is none.
    {EntryChange, kChange, {"30 06 02 01 04 02 01 00"}, "4 - 0 0 "},
    {EntryChange, kChange, {"30 06 02 01 01 02 01 07"}, "1 - 1 7 "},
    {EntryChange, kChange, {"30 0C 02 01 08 04 04 63 6E 3D 6F 02 01 09"}, "8 cn=o 1 9 "},
    {EntryChange, kChange, {"30 03 02 01 02", "30 03 02 01 01"}, "2 - 0 0 "},
    {EntryChange, kChange, {"30 03 02 01 08"}, kBad},
    {EntryChange, kChange, {"30 06 02 01"}, kBad},
    {EntryChange, kChange, {"none"}, kBad},
    {EntryChange, kChange, {}, kNotFound},
    // Virtual list view: position, count and result, then an optional context.
    {Vlv, kVlvResponse, {"30 09 02 01 05 02 01 64 0A 01 35"}, "5 100 53 -"},
    {Vlv, kVlvResponse, {"30 0D 02 01 05 02 01 64 0A 01 00 04 02 63 31"}, "5 100 0 c1"},
    {Vlv, kVlvResponse, {"30 0D 02 01 05 02 01 64 0A 01 00 04 05 63"}, kBad},
    {Vlv, kVlvResponse, {"30 06 02 01 05 02 01"}, kBad},
    {Vlv, kVlvResponse, {"none"}, kBad},
    {Vlv, kVlvResponse, {}, kNotFound},
    // Value limits: attributes while the next tag is a SEQUENCE.
    {LimitValues, kLimits,
     {"30 1C 04 04 63 6E 3D 65 30 09 04 01 61 02 01 03 02 01 05 30 09 04 01 62 02 01 01 02 01 02"},
     "cn=e b:1 2 a:3 5"},
    {LimitValues, kLimits, {"30 0B 04 04 63 6E 3D 65 31 03 04 01 61"}, "cn=e"},
    {LimitValues, kLimits, {"30 0E 04 04 63 6E 3D 65 30 06 04 01 61 02 01 03"}, kBad},
    {LimitValues, kLimits, {"30 00"}, kBad},
    {LimitValues, kLimits, {"none"}, kBad},
    {LimitValues, kLimits, {}, kNotFound},
    // Effective password policy: at most 23 attributes, then the DNs under 0x80.
    {PwdPolicy, "x", {"30 15 30 0B 04 01 61 31 06 04 01 31 04 01 32 80 06 04 04 63 6E 3D 70"}, "a=1,2 | cn=p"},
    {PwdPolicy, "x", {"30 0D 30 0B 04 01 61 31 06 04 01 31 04 01 32"}, "a=1,2 |"},
    {PwdPolicy, "x", {AttrsOf(23)}, "a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= a= |"},
    {PwdPolicy, "x", {AttrsOf(24)}, kBad},
    {PwdPolicy, "x", {"30 05 30 03 04 05 61"}, kBad},
    {PwdPolicy, "x", {"30"}, kBad},
};

TEST(Parse, HandsOutWhatTheValueHolds)
{
    Handle ld = NewHandle();
    for (const ParseRow &row : kParseRows) {
        // An unrelated control first: parsers look at OIDs, not positions.
        LDAPControl **ctrls = nullptr;
        ASSERT_EQ(ldap_add_control("1.2.3", 0, nullptr, 0, &ctrls), LDAP_SUCCESS);
        for (const std::string &hex : row.values) {
            Bytes bytes = hex == "none" ? Bytes() : Hex(hex);
            ASSERT_EQ(ldap_add_control(row.oid, bytes.size(), reinterpret_cast<const char *>(bytes.data()), 0, &ctrls),
                      LDAP_SUCCESS);
        }
        EXPECT_EQ(row.parse(ld.get(), ctrls), row.parsed) << row.oid << " " << testing::PrintToString(row.values);
        ldap_controls_free(ctrls);
    }
    struct berval value = {2, S("\x30\x00")};
    LDAPPwdPolicyAttr **attrs = nullptr;
    char **dns = nullptr;
    EXPECT_EQ(ldap_parse_effective_pwdpolicy_response("1.2.3", &value, &attrs, &dns), LDAP_PARAM_ERROR) << "another OID";
}

} // namespace
