// alloc_sweep_test.cpp - every scenario here is run once per allocation it
// makes, failing that allocation: the documented code comes back, nothing
// leaks, and whatever the row calls usable still works afterwards.
#include "alloc_faults.h"
#include "ber_test_support.h"
#include "core/ldap_error.h"
#include "message/ldap_message.h"
#include "proto/filter.h"
#include "proto/ldap_controls.h"
#include "proto/url.h"
#include "session/ldap_init.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
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

using Sweep = std::function<void(const AllocFaultScenario &)>;
using ControlsPtr = std::unique_ptr<LDAPControl *, decltype(&ldap_controls_free)>;

// A call that hands out a control list: its code, or -2 when a failed call
// still handed one out.
AllocFaultScenario HandsOutControls(const std::function<int(LDAPControl ***)> &call)
{
    return {[call] {
                LDAPControl **out = nullptr;
                int rc = call(&out);
                rc = rc != 0 && out ? -2 : rc;
                ldap_controls_free(out);
                return rc;
            },
            LDAP_NO_MEMORY};
}

void UrlParse(const Sweep &sweep)
{
    sweep({[] {
               LDAPURLDesc *d = nullptr;
               int rc = ldap_url_parse("ldap://h:1/o=x?a,b,c?sub?(cn=y)", &d);
               ldap_free_urldesc(d);
               return rc;
           },
           LDAP_URL_NO_MEMORY});
}

// Every allocating reader in one walk, on an element that converts its
// strings; a request that grows twice and converts its strings; elements
// copied in and out; a filter of every kind of item.
void BerCodec(const Sweep &sweep)
{
    using namespace zldap_test;
    Bytes bytes = Hex("04 02 61 62 04 02 61 62 04 02 61 62 04 02 61 62 03 02 00 FF 31 06 04 01 61 04 01 62"
                      "31 06 04 01 61 04 01 62");
    sweep({[&] {
               BerPtr ber = ExactReader(bytes);
               ScanOutputs out;
               bool read = ber && SetStringSettings(ber.get(), 3, nullptr) &&
                           ScanByItems(ber.get(), "asoOBvV", out) != LBER_DEFAULT;
               return read ? 0 : -1;
           },
           -1});
    std::string value(7000, 'z');
    sweep({[&] {
               BerPtr ber(fber_alloc_t(16));
               if (!ber || !SetStringSettings(ber.get(), 3, nullptr))
                   return -1;
               return fber_printf(ber.get(), "{it{s{s[ss]}}}", 2, ber_tag_t{0x68}, "cn=x", "description",
                                  value.c_str(), value.c_str());
           },
           -1});
    struct berval bv = {value.size(), value.data()};
    sweep({[&] {
               struct berval *out = reinterpret_cast<struct berval *>(1);
               BerPtr ber(fber_init2(&bv));
               int rc = ber ? fber_flatten(ber.get(), &out) : -1;
               rc = rc != 0 && ber && out ? -2 : rc;
               ber_bvfree(ber ? out : nullptr);
               return rc;
           },
           -1});
    sweep({[] {
               BerPtr ber(fber_alloc());
               return ber ? put_filter(ber.get(), "(&(cn=a*b)(|(x=1)(y:dn:=2))(!(z=*)))", 0) : -1;
           },
           -1});
}

// Lists built, merged and cut (on failure the lists built so far stay
// whole); a list written into an element that grows for every item and
// read back into a list that grows; the prefix a proxy DN gets; and what a
// handle copies: its elements, the default controls an operation sends,
// the bind response controls stored and handed out. The thread's error
// record exists before each walk, so recording a failure allocates nothing
// the handle keeps.
void Controls(const Sweep &sweep)
{
    sweep({[] {
               LDAPControl **dest = nullptr, **input = nullptr;
               int rc = ldap_add_control("Y1", 1, "y", 0, &dest);
               rc = rc ? rc : ldap_add_control("X1", 0, nullptr, 0, &input);
               rc = rc ? rc : ldap_add_control("X2", 2, "xx", 1, &input);
               rc = rc ? rc : ldap_merge_control_lists(&dest, input);
               input = rc ? input : nullptr;
               rc = rc ? rc : ldap_remove_control(dest[1], &dest, 1);
               ldap_controls_free(dest);
               ldap_controls_free(input);
               return rc;
           },
           LDAP_NO_MEMORY});
    using namespace zldap_test;
    LDAPControl **list = nullptr;
    ldap_add_control("1.2.840.113556.1.4.319", 300, std::string(300, 'v').c_str(), 1, &list);
    for (const char *oid : {"1.2", "1.3", "1.4"})
        ldap_add_control(oid, 0, nullptr, 0, &list);
    ControlsPtr owned(list, ldap_controls_free);
    sweep({[&] {
               BerPtr ber(fber_alloc_t(0));
               return ber ? put_ctrls_into_ber(ber.get(), list) : LDAP_ENCODING_ERROR;
           },
           LDAP_ENCODING_ERROR});
    BerPtr written(fber_alloc());
    ASSERT_EQ(put_ctrls_into_ber(written.get(), list), LDAP_SUCCESS);
    sweep(HandsOutControls([&](LDAPControl ***out) {
        BerPtr ber = ExactReader(Written(written.get()));
        return ber ? get_ctrls_from_ber(ber.get(), out) : LDAP_NO_MEMORY;
    }));
    for (const char *dn : {"cn=x", "DN:cn=x"})
        sweep({[dn] {
                   char *text = nullptr;
                   int rc = ldap_proxy_dn_prefix(&text, dn);
                   rc = rc != 0 && text ? -2 : rc;
                   zldap::mem_free(text);
                   return rc;
               },
               LDAP_NO_MEMORY});

    std::unique_ptr<LDAP, decltype(&ldap_unbind)> owner(ldap_init("localhost", 389), ldap_unbind);
    LDAP *ld = owner.get();
    ldap_set_error_direct(ld, LDAP_OTHER, nullptr, nullptr);
    for (int reading : {0, 1})
        sweep({[&] { return BerPtr(new_ldap_ber(ld, reading)) ? 0 : ldap_get_errno_direct(ld); }, LDAP_NO_MEMORY});
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, list), 0);
    int copied = 0;
    sweep(HandsOutControls([&](LDAPControl ***out) { return ldap_check_client_controls(ld, out, nullptr, &copied); }));
    sweep({[&] {
               int rc = ldap_store_bind_controls(ld, list);
               bool stale = rc != 0 && ld->ld_defconn->lconn_ctrls;
               ldap_store_bind_controls(ld, nullptr);
               return stale ? -2 : rc;
           },
           LDAP_NO_MEMORY});
    ASSERT_EQ(ldap_store_bind_controls(ld, list), LDAP_SUCCESS);
    AllocFaultScenario get_bind = HandsOutControls([&](LDAPControl ***out) { return ldap_get_bind_controls(ld, out); });
    get_bind.check_usable = [&] { EXPECT_EQ(ldap_count_controls(ld->ld_defconn->lconn_ctrls), 4); };
    sweep(get_bind);
}

// ---- session and connections ------------------------------------------

// ---- engine and operations --------------------------------------------

const SweepRow kRows[] = {
    // ---- codec and protocol pieces rows ----
    {"UrlParse", UrlParse},
    {"BerCodec", BerCodec},
    {"Controls", Controls},

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
