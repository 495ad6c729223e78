// alloc_sweep_test.cpp - every scenario here is run once per allocation it
// makes, failing that allocation: the documented code comes back, nothing
// leaks, and whatever the row calls usable still works afterwards.
#include "alloc_faults.h"
#include "ber_test_support.h"
#include "core/ldap_error.h"
#include "message/ldap_message.h"
#include "proto/dn.h"
#include "proto/ldap_controls.h"
#include "proto/url.h"
#include "results/parse_result.h"
#include "results/results.h"
#include "script_server.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <functional>
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

// ---- session and connections ------------------------------------------

// ---- engine and operations --------------------------------------------

// A response as the reading path leaves it (element at the protocol
// operation), on a handle of its own; every part a parser can hand out is
// there: matched DN, text, referrals or name and value, two controls.
struct SweepResponse {
    explicit SweepResponse(const zldap_test::Bytes &operation)
    {
        using namespace zldap_test::wire;
        zldap_test::Bytes controls = Tlv(0xA0, zldap_test::Concat(Seq({Octets("1.2.3"), Octets("value")}),
                                                                    Seq({Octets("1.2.4"), Tlv(0x01, {0xFF})})));
        zldap_test::BerPtr ber =
            zldap_test::ExactReader(zldap_test::Concat(zldap_test::Concat(Integer(1), operation), controls));
        int id = 0;
        fber_get_int(ber.get(), &id);
        msg = ldap_alloc_msg(ld->ld_defconn);
        msg->msg_id = id;
        msg->msg_type = static_cast<int32_t>(fber_peek_tag(ber.get(), nullptr));
        msg->msg_ber = ber.release();
        start = msg->msg_ber->ber_ptr;
        // The thread's error record exists before the sweep: recording a
        // failure then makes nothing that outlives a run.
        ldap_set_error_direct(ld, LDAP_OTHER, nullptr, nullptr);
    }
    ~SweepResponse()
    {
        free_msg(msg, 0);
        ldap_unbind(ld);
    }
    LDAP *ld = ldap_init("localhost", 0);
    LDAPMessage *msg = nullptr;
    char *start = nullptr; // an extended parse consumes the element: each run starts here again
};

// An LDAPResult-shaped operation with its matched DN and text, then extra fields.
zldap_test::Bytes SweepOperation(int tag, int code, const zldap_test::Bytes &extra)
{
    using namespace zldap_test::wire;
    zldap_test::Bytes contents = Integer(code, 0x0A);
    for (const zldap_test::Bytes &field : {Octets("o=x"), Octets("see there"), extra})
        contents = zldap_test::Concat(contents, field);
    return Tlv(tag, contents);
}

void ParseResult(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    using namespace zldap_test::wire;
    SweepResponse r(SweepOperation(0x65, LDAP_REFERRAL, Seq({Octets("ldap://a/"), Octets("ldap://b/")}, 0xA3)));
    sweep({[&] {
               int code = 0;
               char *matched = nullptr, *text = nullptr;
               char **refs = nullptr;
               LDAPControl **ctrls = nullptr;
               int rc = ldap_parse_result(r.ld, r.msg, &code, &matched, &text, &refs, &ctrls, 0);
               EXPECT_EQ(rc == 0, matched && text && ldap_count_values(refs) == 2 && ldap_count_controls(ctrls) == 2);
               ldap_memfree(matched);
               ldap_memfree(text);
               ldap_value_free(refs);
               ldap_controls_free(ctrls);
               return rc;
           },
           LDAP_NO_MEMORY});
}

// The plain form and the one that hands out the controls as well.
void ParseExtendedResult(const std::function<void(const AllocFaultScenario &)> &sweep, bool with_controls)
{
    using namespace zldap_test::wire;
    SweepResponse r(SweepOperation(0x78, 0, zldap_test::Concat(Octets("1.2.9", 0x8A), Octets("data", 0x8B))));
    sweep({[&, with_controls] {
               r.msg->msg_ber->ber_ptr = r.start;
               char *oid = nullptr;
               struct berval *value = nullptr;
               LDAPControl **ctrls = nullptr;
               int rc = with_controls ? ldap_parse_extended_result_ext(r.ld, r.msg, &oid, &value, &ctrls, 0)
                                      : ldap_parse_extended_result(r.ld, r.msg, &oid, &value, 0);
               EXPECT_EQ(rc == 0, oid && value && ldap_count_controls(ctrls) == (with_controls ? 2 : 0));
               ldap_memfree(oid);
               ber_bvfree(value);
               ldap_controls_free(ctrls);
               return rc;
           },
           LDAP_NO_MEMORY});
}

const SweepRow kRows[] = {
    // ---- codec and protocol pieces rows ----
    {"UrlParse", UrlParse},
    {"DnParse", DnParse},
    {"DnExplode", DnExplode},
    {"DnExplodeRdn", DnExplodeRdn},
    {"DnSplitDnsName", DnSplitDnsName},
    {"DnToUfn", DnToUfn},

    // ---- session and connections rows ----

    // ---- engine and operations rows ----
    {"ParseResult", ParseResult},
    {"ParseExtendedResult", [](const auto &sweep) { ParseExtendedResult(sweep, false); }},
    {"ParseExtendedResultWithControls", [](const auto &sweep) { ParseExtendedResult(sweep, true); }},
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
