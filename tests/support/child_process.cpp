// child_process.cpp - start, readiness and stop of the tests' servers.
#include "child_process.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace zldap_test {

pid_t Spawn(const std::vector<std::string> &argv, const std::string &log)
{
    // Built before the fork: the child only calls what is safe there.
    std::vector<char *> args;
    for (const std::string &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (out >= 0) {
            dup2(out, 1);
            dup2(out, 2);
        }
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

int Run(const std::vector<std::string> &argv, const std::string &log)
{
    pid_t pid = Spawn(argv, log);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool AwaitReady(pid_t pid, const std::function<bool()> &ready)
{
    for (int i = 0; i < 200; i++) {
        if (ready())
            return true;
        if (waitpid(pid, nullptr, WNOHANG) == pid)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return false;
}

void StopChild(pid_t *pid)
{
    if (*pid <= 0)
        return;
    kill(*pid, SIGTERM);
    for (int i = 0; i < 100; i++) {
        if (waitpid(*pid, nullptr, WNOHANG) == *pid) {
            *pid = -1;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    kill(*pid, SIGKILL);
    waitpid(*pid, nullptr, 0);
    *pid = -1;
}

} // namespace zldap_test
