// slapd_run - starts the test slapd with its sample data, prints its URL,
// and stops it by its pid on SIGTERM or SIGINT. scripts/demo uses it.
// With ZLDAP_SLAPD_TLS set it serves TLS too, with the test certificate,
// and prints its ldaps URL and the key database that trusts it (stash file
// beside it) on the next two lines; bench/run uses that.
#include "slapd_fixture.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

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
    // ZLDAP_SLAPD_BULK adds a subtree of that many entries under ou=bulk.
    zldap_test::SlapdData data;
    if (const char *bulk = std::getenv("ZLDAP_SLAPD_BULK"))
        data.bulk = std::atoi(bulk);
    if (std::getenv("ZLDAP_SLAPD_TLS"))
        data.tls_cert = "server";
    zldap_test::Slapd server(data);
    if (!server.running()) {
        std::fprintf(stderr, "slapd_run: %s\n", server.error().c_str());
        return 1;
    }
    std::printf("%s\n", server.url().c_str());
    if (!data.tls_cert.empty())
        std::printf("%s\n%s/keys.kdb\n", server.ldaps_url().c_str(), zldap_test::TestPki().c_str());
    std::fflush(stdout);
    int signal = 0;
    sigwait(&stop, &signal);
    return 0;
}
