// alloc_faults.cpp - the allocation-failure walker used by the unit tests.
#include "alloc_faults.h"

#include "base/memory.h"

#include <gtest/gtest.h>

namespace zldap_test {

long ExpectEachAllocationFailure(const AllocFaultScenario &scenario)
{
    // A first run settles process-wide state made once (trace set-up,
    // global locks) and counts the allocations.
    scenario.run();
    zldap::mem_tracking_start(0);
    int clean_rc = scenario.run();
    zldap::AllocCounters counted = zldap::mem_tracking_stop();
    // A scenario that fails on its own would pass the walk below without
    // testing anything.
    EXPECT_EQ(clean_rc, 0) << "the scenario fails without any failed allocation";
    EXPECT_EQ(counted.live, 0) << "the scenario leaks without any failure (rc " << clean_rc << ")";
    if (scenario.check_usable)
        scenario.check_usable();

    for (long n = 1; n <= counted.allocations; n++) {
        SCOPED_TRACE(testing::Message() << "allocation " << n << " of " << counted.allocations << " failed");
        zldap::mem_tracking_start(n);
        int rc = scenario.run();
        zldap::AllocCounters after = zldap::mem_tracking_stop();
        if (!(scenario.also_acceptable && scenario.also_acceptable(rc))) {
            EXPECT_EQ(rc, scenario.expected_on_failure);
        }
        EXPECT_EQ(after.live, 0) << "blocks leaked";
        if (scenario.check_usable)
            scenario.check_usable();
    }
    return counted.allocations;
}

} // namespace zldap_test
