// alloc_sweep_test.cpp - every scenario here is run once per allocation it
// makes, failing that allocation: the documented code comes back, nothing
// leaks, and whatever the row calls usable still works afterwards.
#include "alloc_faults.h"
#include "ber_test_support.h"
#include "zor8ldap_api.h"
#include "proto/dn.h"
#include "proto/ldap_controls.h"
#include "proto/url.h"
#include "results/results.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <vector>
#include <string>

namespace {

using zldap_test::AllocFaultScenario;
using zldap_test::ExpectEachAllocationFailure;

struct SweepRow {
    const char *name;
    // Builds the scenario; rows that need a server or a handle make it here
    // and keep it alive for the scenario's lifetime through the captures.
    std::function<void(const std::function<void(const AllocFaultScenario &)> &)> with_scenario;
};

// ---- codec and protocol pieces ----------------------------------------

void UrlParse(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    sweep({[] {
               LDAPURLDesc *d = nullptr;
               int rc = ldap_url_parse("ldap://h:1/o=x?a,b,c?sub?(cn=y)", &d);
               ldap_free_urldesc(d);
               return rc;
           },
           LDAP_URL_NO_MEMORY});
}

// A DN with every kind of value, so that each allocation path runs.
constexpr const char *kSweepDn = "cn=a\\,b+sn=\"q\"+OID.1.2=#0403616263,o=Example;c=US";

void DnParse(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    sweep({[] {
               int error = 0;
               zldap::release_parsed_dn(zldap::parse_dn(kSweepDn, &error));
               return error;
           },
           LDAP_NO_MEMORY});
}

// The explode functions and dn2ufn have no code: NULL (or, for
// ldap_explode_dn, an array cut short) stands for 90.
int NoMemoryUnless(size_t expected, char **array)
{
    size_t n = 0;
    while (array && array[n])
        n++;
    ldap_value_free(array);
    return n == expected ? LDAP_SUCCESS : LDAP_NO_MEMORY;
}

void DnExplode(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    sweep({[] { return NoMemoryUnless(3, ldap_explode_dn(kSweepDn, 0)); }, LDAP_NO_MEMORY});
}

void DnExplodeRdn(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    sweep({[] { return NoMemoryUnless(3, ldap_explode_rdn(kSweepDn, 1)); }, LDAP_NO_MEMORY});
}

void DnSplitDnsName(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    sweep({[] { return NoMemoryUnless(10, ldap_split_dns_name("a@b.c.d.e.f.g.h.i.j")); }, LDAP_NO_MEMORY});
}

void DnToUfn(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    sweep({[] {
               char *ufn = ldap_dn2ufn(kSweepDn);
               int rc = ufn ? LDAP_SUCCESS : LDAP_NO_MEMORY;
               ldap_memfree(ufn);
               return rc;
           },
           LDAP_NO_MEMORY});
}

// Sweeps body on a handle made outside the sweep; `also` lists the other
// codes a failing run may return.
void WithHandle(const std::function<void(const AllocFaultScenario &)> &sweep, const std::function<int(LDAP *)> &body,
                int expected, std::initializer_list<int> also = {})
{
    LDAP *ld = ldap_init("localhost", 389);
    ASSERT_NE(ld, nullptr);
    std::vector<int> others(also);
    sweep({[ld, &body] { return body(ld); }, expected, nullptr,
           [&others](int rc) { return std::find(others.begin(), others.end(), rc) != others.end(); }});
    ldap_unbind(ld);
}

// Runs a builder and releases what it built.
int BuildAndFree(const std::function<int(LDAPControl **)> &build)
{
    LDAPControl *ctrl = nullptr;
    int rc = build(&ctrl);
    ldap_control_free(ctrl);
    return rc;
}

void PageControlBuild(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    WithHandle(sweep, [](LDAP *ld) {
        struct berval cookie = {3, const_cast<char *>("abc")};
        return BuildAndFree([&](LDAPControl **c) { return ldap_create_page_control(ld, 500, &cookie, 'T', c); });
    }, LDAP_NO_MEMORY);
}

// The filter encoder reports its own lack of memory as a bad filter.
void AssertionControlBuild(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    WithHandle(sweep, [](LDAP *ld) {
        return BuildAndFree(
            [&](LDAPControl **c) { return ldap_create_assertion_control(ld, "(&(cn=a*b)(sn=x))", 1, c); });
    }, LDAP_NO_MEMORY, {LDAP_FILTER_ERROR, LDAP_ENCODING_ERROR});
}

// A response list holding one control of oid with these value bytes.
LDAPControl **ResponseList(const char *oid, const std::string &hex)
{
    zldap_test::Bytes bytes = zldap_test::Hex(hex);
    LDAPControl **list = nullptr;
    EXPECT_EQ(ldap_add_control(oid, bytes.size(), reinterpret_cast<const char *>(bytes.data()), 0, &list), 0);
    return list;
}

void PageControlParse(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    LDAPControl **list = ResponseList("1.2.840.113556.1.4.319", "30 08 02 01 05 04 03 61 62 63");
    WithHandle(sweep, [list](LDAP *ld) {
        unsigned long size = 0;
        struct berval *cookie = nullptr;
        int rc = ldap_parse_page_control(ld, list, &size, &cookie);
        ber_bvfree(cookie);
        return rc;
    }, LDAP_NO_MEMORY);
    ldap_controls_free(list);
}

// The decoder reports its own lack of memory as a decoding failure.
void LimitNumValuesParse(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    LDAPControl **list = ResponseList("1.3.18.0.2.10.30", "30 1C 04 04 63 6E 3D 65 "
                                                          "30 09 04 01 61 02 01 03 02 01 05 "
                                                          "30 09 04 01 62 02 01 01 02 01 02");
    WithHandle(sweep, [list](LDAP *ld) {
        LDAPLimitNumValuesResponse *response = nullptr;
        int rc = ldap_parse_limit_num_values_response(ld, list, &response);
        ldap_free_limit_num_values_response(response);
        return rc;
    }, LDAP_NO_MEMORY, {LDAP_DECODING_ERROR});
    ldap_controls_free(list);
}

void EffectivePwdPolicyParse(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    sweep({[] {
               zldap_test::Bytes bytes =
                   zldap_test::Hex("30 15 30 0B 04 01 61 31 06 04 01 31 04 01 32 80 06 04 04 63 6E 3D 70");
               struct berval value = {bytes.size(), reinterpret_cast<char *>(bytes.data())};
               LDAPPwdPolicyAttr **attrs = nullptr;
               char **dns = nullptr;
               int rc = ldap_parse_effective_pwdpolicy_response("1.3.18.0.2.12.77", &value, &attrs, &dns);
               ldap_free_effective_pwdpolicy_response(attrs, dns);
               return rc;
           },
           LDAP_NO_MEMORY, nullptr, [](int rc) { return rc == LDAP_DECODING_ERROR; }});
}

// ---- session and connections ------------------------------------------

// ---- engine and operations --------------------------------------------

const SweepRow kRows[] = {
    // ---- codec and protocol pieces rows ----
    {"UrlParse", UrlParse},
    {"DnParse", DnParse},
    {"DnExplode", DnExplode},
    {"DnExplodeRdn", DnExplodeRdn},
    {"DnSplitDnsName", DnSplitDnsName},
    {"DnToUfn", DnToUfn},
    {"PageControlBuild", PageControlBuild},
    {"AssertionControlBuild", AssertionControlBuild},
    {"PageControlParse", PageControlParse},
    {"LimitNumValuesParse", LimitNumValuesParse},
    {"EffectivePwdPolicyParse", EffectivePwdPolicyParse},

    // ---- session and connections rows ----

    // ---- engine and operations rows ----
};

class AllocSweep : public testing::TestWithParam<SweepRow> {};

TEST_P(AllocSweep, EveryAllocationFailsCleanly)
{
    GetParam().with_scenario([](const AllocFaultScenario &scenario) {
        EXPECT_GT(ExpectEachAllocationFailure(scenario), 0) << "the scenario allocates nothing";
    });
}

INSTANTIATE_TEST_SUITE_P(Rows, AllocSweep, testing::ValuesIn(kRows),
                         [](const testing::TestParamInfo<SweepRow> &info) { return std::string(info.param.name); });

} // namespace
