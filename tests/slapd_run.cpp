// slapd_run - starts the test slapd with its sample data, prints its URL,
// and stops it by its pid on SIGTERM or SIGINT. scripts/demo uses it.
#include "slapd_fixture.h"

#include <csignal>
#include <cstdio>

int main()
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    if (!zldap_test::Slapd::Available()) {
        std::fprintf(stderr, "slapd_run: slapd is not installed (Debian package slapd)\n");
        return 1;
    }
    zldap_test::Slapd server;
    if (!server.running()) {
        std::fprintf(stderr, "slapd_run: %s\n", server.error().c_str());
        return 1;
    }
    std::printf("%s\n", server.url().c_str());
    std::fflush(stdout);
    int signal = 0;
    sigwait(&stop, &signal);
    return 0;
}
