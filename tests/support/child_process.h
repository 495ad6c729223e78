// child_process.h - servers the tests start in the foreground, with their
// output in a log file, and stop by their own pid.
#ifndef ZLDAP_TEST_CHILD_PROCESS_H
#define ZLDAP_TEST_CHILD_PROCESS_H

#include <functional>
#include <string>
#include <vector>
#include <sys/types.h>

namespace zldap_test {

// Starts argv[0] (a path) with its output appended to `log`; its pid, or -1.
pid_t Spawn(const std::vector<std::string> &argv, const std::string &log);

// Runs a program to completion; its exit status, or -1.
int Run(const std::vector<std::string> &argv, const std::string &log);

// Waits up to 10 s (a loaded machine) for `ready`. A child that exits
// meanwhile (its port was taken since it was picked) or is not ready by
// then is reaped; false then.
bool AwaitReady(pid_t pid, const std::function<bool()> &ready);

// SIGTERM, up to 5 s for a clean stop, then SIGKILL; *pid becomes -1.
// Nothing for a pid of -1.
void StopChild(pid_t *pid);

} // namespace zldap_test

#endif
