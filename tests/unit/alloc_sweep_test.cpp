// alloc_sweep_test.cpp - every scenario here is run once per allocation it
// makes, failing that allocation: the documented code comes back, nothing
// leaks, and whatever the row calls usable still works afterwards.
#include "alloc_faults.h"
#include "engine_fixture.h"
#include "message/ldap_table.h"
#include "ops/update.h"
#include "proto/url.h"
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

// ---- session and connections ------------------------------------------

// ---- engine and operations --------------------------------------------

// A table is made and grown; a failed growth leaves it as it was, so that
// a later one still works.
void TableGrowth(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    sweep({[] {
               ldap_msg_table *table = ldap_msg_table_init(8);
               if (!table)
                   return LDAP_NO_MEMORY;
               for (int i = 0; i < 7; i++)
                   ldap_msg_table_get_next_msgid(table);
               int rc = ldap_msg_table_get_next_msgid(table) == 8 ? LDAP_SUCCESS : LDAP_NO_MEMORY;
               if (rc != LDAP_SUCCESS && ldap_msg_table_get_next_msgid(table) != 8)
                   rc = LDAP_OTHER;
               ldap_msg_table_free(table);
               return rc;
           },
           LDAP_NO_MEMORY});
}

// A modify against a scripted server, on a fresh handle each run (a failed
// read ends its connection). Failures while sending are memory errors;
// while reading the answer they cost the connection; once the answer is
// in, its code comes back even when its texts cannot be kept.
void ModifyOverTheWire(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    // Encoded before the sweep: the server's own encoding must not count.
    zldap_test::Bytes reply = zldap_test::wire::Result(1, 0x67, 0);
    zldap_test::ScriptServer server([&](zldap_test::ScriptConnection &c) {
        while (auto r = c.Read())
            if (r->tag != 0x42)
                c.Send(reply);
    });
    static char x[] = "x";
    static char *values[] = {x, nullptr};
    static LDAPMod mod{LDAP_MOD_REPLACE, const_cast<char *>("description"), {values}};
    static LDAPMod *mods[] = {&mod, nullptr};
    sweep({[&] {
               LDAP *ld = zldap_test::HandleFor(server);
               if (!ld)
                   return LDAP_NO_MEMORY;
               int rc = ldap_modify_s(ld, "cn=a", mods);
               ldap_unbind(ld);
               return rc;
           },
           LDAP_NO_MEMORY, nullptr, [](int rc) { return rc == LDAP_SERVER_DOWN || rc == LDAP_SUCCESS; }});
}

const SweepRow kRows[] = {
    // ---- codec and protocol pieces rows ----
    {"UrlParse", UrlParse},

    // ---- session and connections rows ----

    // ---- engine and operations rows ----
    {"TableGrowth", TableGrowth},
    {"ModifyOverTheWire", ModifyOverTheWire},
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
