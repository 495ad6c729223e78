// alloc_sweep_test.cpp - every scenario here is run once per allocation it
// makes, failing that allocation: the documented code comes back, nothing
// leaks, and whatever the row calls usable still works afterwards.
#include "alloc_faults.h"
#include "base/memory.h"
#include "proto/dn.h"
#include "proto/url.h"
#include "results/results.h"
#include "xlate/ldap_charset.h"

#include <gtest/gtest.h>

#include <cstring>
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

// Translation replaces the caller's buffer only when it succeeds; the
// failed attempt leaves it for the caller to free.
int TranslateCopy(int (*xlate)(char **, ber_len_t *, int), const char *text)
{
    char *buf = zldap::mem_strdup(text);
    if (!buf)
        return LDAP_NO_MEMORY;
    ber_len_t len = std::strlen(text);
    int rc = xlate(&buf, &len, 1);
    zldap::mem_free(buf);
    return rc;
}

void XlateToUtf8(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    ASSERT_EQ(ldap_set_iconv_local_codepage("ISO8859-1"), 0);
    sweep({[] { return TranslateCopy(xlate_local_to_utf8, "M\xFCller"); }, LDAP_NO_MEMORY});
}

void XlateToLocal(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    ASSERT_EQ(ldap_set_iconv_local_codepage("ISO8859-1"), 0);
    sweep({[] { return TranslateCopy(xlate_utf8_to_local, "M\xC3\xBCller"); }, LDAP_NO_MEMORY});
}

void XlateWrapper(const std::function<void(const AllocFaultScenario &)> &sweep)
{
    ASSERT_EQ(ldap_set_iconv_local_codepage("ISO8859-1"), 0);
    sweep({[] {
               char *out = nullptr;
               int rc = ldap_xlate_local_to_utf8_wrp("M\xFCller", &out);
               zldap::mem_free(out);
               return rc;
           },
           LDAP_NO_MEMORY});
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
    {"XlateToUtf8", XlateToUtf8},
    {"XlateToLocal", XlateToLocal},
    {"XlateWrapper", XlateWrapper},

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
