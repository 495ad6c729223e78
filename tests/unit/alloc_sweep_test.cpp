// alloc_sweep_test.cpp - every scenario here is run once per allocation it
// makes, failing that allocation: the documented code comes back, nothing
// leaks, and whatever the row calls usable still works afterwards.
#include "alloc_faults.h"
#include "proto/url.h"

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

// ---- session and connections ------------------------------------------

// ---- engine and operations --------------------------------------------

const SweepRow kRows[] = {
    // ---- codec and protocol pieces rows ----
    {"UrlParse", UrlParse},

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
