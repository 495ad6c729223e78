// alloc_faults.h - runs a scenario once per allocation it makes, failing
// that allocation, and checks the code it returns, that nothing leaks and
// whatever the caller says "usable" means afterwards.
#ifndef ZLDAP_TEST_ALLOC_FAULTS_H
#define ZLDAP_TEST_ALLOC_FAULTS_H

#include <functional>

namespace zldap_test {

struct AllocFaultScenario {
    // Runs the operation and releases everything it made; returns its code.
    std::function<int()> run;
    // The code every run with a failed allocation must return.
    int expected_on_failure;
    // Optional: checked after every run (for example, that the handle still works).
    std::function<void()> check_usable;
    // Optional: other codes a failing run may return, for scenarios whose
    // failures surface differently on different paths (a failed read is a
    // lost connection, not a memory error).
    std::function<bool(int)> also_acceptable;
};

// Returns the number of allocations the scenario makes (each one has been failed once).
long ExpectEachAllocationFailure(const AllocFaultScenario &scenario);

} // namespace zldap_test

#endif
