// alloc_sweep_test.cpp - every scenario here is run once per allocation it
// makes, failing that allocation: the documented code comes back, nothing
// leaks, and whatever the row calls usable still works afterwards.
#include "alloc_faults.h"
#include "base/memory.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "loopback.h"
#include "proto/ldap_controls.h"
#include "proto/url.h"
#include "session/ldap_init.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
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

using Sweep = std::function<void(const AllocFaultScenario &)>;

int Unbound(LDAP *ld, int rc) { return ldap_unbind(ld) == 0 ? rc : -1; }

void InitAndOpen(const Sweep &sweep)
{
    for (const char *host : {"localhost", static_cast<const char *>(nullptr)})
        sweep({[host] { LDAP *ld = ldap_init(host, 0); return ld ? Unbound(ld, 0) : LDAP_NO_MEMORY; }, LDAP_NO_MEMORY});
    zldap_test::LoopbackListener listener(AF_INET, 256);
    auto drain = [&] { listener.Drain(); };
    for (const char *version : {"3", static_cast<const char *>(nullptr)}) {
        zldap_test::ScopedEnv env("LDAP_VERSION", version ? std::optional<std::string>(version) : std::nullopt);
        sweep({[&] { LDAP *ld = ldap_open("127.0.0.1", listener.port()); return ld ? Unbound(ld, 0) : LDAP_NO_MEMORY; },
               LDAP_NO_MEMORY, drain});
    }
    // A connection comes with 0, and only then.
    sweep({[&] {
               LDAP *ld = ldap_init("127.0.0.1", 389);
               int rc = -7;
               LDAPConn *lc = ld ? find_connection(ld, "localhost", listener.port(), 1, &rc, 1) : nullptr;
               return ld ? Unbound(ld, (lc != nullptr) == (rc == 0) ? rc : -1) : LDAP_NO_MEMORY;
           },
           LDAP_NO_MEMORY, drain});
}

// Options that copy, on a handle that stays usable. Failures are recorded
// in the thread's error record, made beforehand so that recording
// allocates nothing.
void OptionCopies(const Sweep &sweep)
{
    LDAP *ld = ldap_init("localhost", 389);
    ldap_set_error_direct(ld, LDAP_OTHER, nullptr, nullptr);
    auto usable = [ld] { EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_ON), 0); };
    LDAPControl control{const_cast<char *>("1.2.3"), {2, const_cast<char *>("ab")}, 1}, *list[] = {&control, nullptr};
    struct timeval tv {1, 2};
    const std::pair<int, const void *> options[] = {{LDAP_OPT_SERVER_CONTROLS, list}, {LDAP_OPT_CONNECT_TIMEOUT, &tv},
                                                    {LDAP_OPT_CIPHER_SPECS_TLS12, "0A"}, {LDAP_OPT_SECURE_PROTOCOLS, "x"}};
    for (const auto &[option, value] : options) {
        sweep({[=] {
                   int rc = ldap_set_option(ld, option, value);
                   void *out = nullptr;
                   if (rc == 0 && option != LDAP_OPT_SECURE_PROTOCOLS)
                       rc = ldap_get_option(ld, option, &out);
                   option == LDAP_OPT_SERVER_CONTROLS ? ldap_controls_free(static_cast<LDAPControl **>(out)) : zldap::mem_free(out);
                   ldap_set_option(ld, option, nullptr);
                   return rc;
               },
               LDAP_NO_MEMORY, usable,
               // a text that can't be copied out is refused with 89
               [option](int rc) { return option == LDAP_OPT_CIPHER_SPECS_TLS12 && rc == LDAP_PARAM_ERROR; }});
    }
    sweep({[ld] {
               LDAPAPIInfo info{1};
               int rc = ldap_get_option(ld, LDAP_OPT_API_INFO, &info);
               EXPECT_EQ(rc == 0, info.ldapai_vendor_name != nullptr);
               zldap::mem_free(info.ldapai_extensions ? info.ldapai_extensions[0] : nullptr);
               zldap::mem_free(info.ldapai_extensions);
               zldap::mem_free(info.ldapai_vendor_name);
               return rc;
           },
           LDAP_NO_MEMORY, usable});
    ldap_unbind(ld);
}

// A thread's error record holds either the new error or the old one,
// never half of each.
void SetError(const Sweep &sweep)
{
    LDAP *ld = ldap_init("localhost", 389);
    ldap_set_error_direct(ld, LDAP_BUSY, nullptr, nullptr);
    sweep({[ld] {
               int rc = ldap_set_error_direct(ld, 32, "o=example", "no such entry");
               const ldap_error_record *r = ld->ld_errors;
               EXPECT_EQ(r->ld_errno, rc == 0 ? 32 : LDAP_BUSY);
               EXPECT_EQ(r->ld_matched != nullptr, rc == 0);
               EXPECT_EQ(r->ld_error != nullptr, rc == 0);
               ldap_set_error_direct(ld, LDAP_BUSY, nullptr, nullptr);
               return rc;
           },
           LDAP_NO_MEMORY});
    ldap_unbind(ld);
}

// ---- engine and operations --------------------------------------------

const SweepRow kRows[] = {
    // ---- codec and protocol pieces rows ----
    {"UrlParse", UrlParse},

    // ---- session and connections rows ----
    {"InitAndOpen", InitAndOpen},
    {"OptionCopies", OptionCopies},
    {"SetError", SetError},

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
