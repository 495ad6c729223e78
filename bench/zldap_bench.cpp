// zldap_bench - operations per second against a directory server, using
// only the exported functions: w1 sequential base searches for one entry,
// w2 subtree searches walking every attribute and value of a large
// subtree, w3 eight threads sharing one handle doing w1. zldap_tls_bench
// is the same over ldaps: it initialises the secure-socket toolkit with a
// key database first, which the exported functions cannot do.
#include "zor8ldap.h"
#ifdef ZLDAP_BENCH_TLS
#include "zor8ldap_api.h"
#endif

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string url;
    std::string entry;   // w1: the DN searched with base scope
    std::string subtree; // w2: the base of the large subtree; none: no w2
    std::string keydb;   // zldap_tls_bench: the key database (its stash file beside it)
    std::string binddn, password;
    double seconds = 5;
};

bool BaseSearch(LDAP *ld, const std::string &dn)
{
    LDAPMessage *res = nullptr;
    int rc = zor_ldap_search_st(ld, dn.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, nullptr, &res);
    bool ok = rc == 0 && zor_ldap_count_entries(ld, res) == 1;
    zor_ldap_msgfree(res);
    return ok;
}

// Walks every attribute and value; returns the number of entries.
long SubtreeSearch(LDAP *ld, const std::string &base, long *values)
{
    LDAPMessage *res = nullptr;
    int rc = zor_ldap_search_st(ld, base.c_str(), LDAP_SCOPE_SUBTREE, "(objectClass=*)", nullptr, 0, nullptr, &res);
    long entries = 0;
    for (LDAPMessage *e = zor_ldap_first_entry(ld, res); rc == 0 && e; e = zor_ldap_next_entry(ld, e)) {
        entries++;
        char *dn = zor_ldap_get_dn(ld, e);
        zor_ldap_memfree(dn);
        BerElement *cursor = nullptr;
        for (char *a = zor_ldap_first_attribute(ld, e, &cursor); a; a = zor_ldap_next_attribute(ld, e, cursor)) {
            struct berval **vals = zor_ldap_get_values_len(ld, e, a);
            for (int i = 0; vals && vals[i]; i++)
                (*values)++;
            zor_ldap_value_free_len(vals);
            zor_ldap_memfree(a);
        }
        zor_ldap_ber_free(cursor, 0);
    }
    zor_ldap_msgfree(res);
    return rc == 0 ? entries : -1;
}

LDAP *Connect(const Options &o)
{
    LDAP *ld = zor_ldap_init(o.url.c_str(), 0);
    if (ld && !o.binddn.empty() && zor_ldap_simple_bind_s(ld, o.binddn.c_str(), o.password.c_str()) != 0) {
        zor_ldap_unbind(ld);
        return nullptr;
    }
    return ld;
}

double Elapsed(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

} // namespace

int main(int argc, char **argv)
{
    Options o;
    for (int opt; (opt = getopt(argc, argv, "H:e:b:D:w:n:K:")) != -1;) {
        switch (opt) {
        case 'H': o.url = optarg; break;
        case 'e': o.entry = optarg; break;
        case 'b': o.subtree = optarg; break;
        case 'D': o.binddn = optarg; break;
        case 'w': o.password = optarg; break;
        case 'n': o.seconds = std::atof(optarg); break;
        case 'K': o.keydb = optarg; break;
        default:
            std::fprintf(stderr, "usage: zldap_bench -H url -e entry-dn [-b subtree-base] [-D dn -w pw] [-n seconds]"
                                 " [-K keydb]\n");
            return 2;
        }
    }
#ifdef ZLDAP_BENCH_TLS
    // The library is linked in, so the toolkit is found through this
    // program's run-time search path rather than in its own folder.
    setenv("ZORLIB_LOCAL_INSTALL_MODE", "1", 0);
    if (int rc = ldap_ssl_client_init(o.keydb.c_str(), nullptr, 0, nullptr); rc != 0) {
        std::fprintf(stderr, "zldap_tls_bench: key database %s: %s\n", o.keydb.c_str(), zor_ldap_err2string(rc));
        return 2;
    }
#endif
    LDAP *ld = Connect(o);
    if (o.url.empty() || o.entry.empty() || !ld) {
        std::fprintf(stderr, "zldap_bench: needs -H and -e, and a server that answers\n");
        return 2;
    }

    long n = 0;
    auto start = Clock::now();
    while (Elapsed(start) < o.seconds && BaseSearch(ld, o.entry))
        n++;
    std::printf("w1 base search, 1 thread:     %10.0f ops/s\n", n / Elapsed(start));

    long searches = 0, entries = 0, values = 0;
    start = Clock::now();
    while (!o.subtree.empty() && Elapsed(start) < o.seconds) {
        long got = SubtreeSearch(ld, o.subtree, &values);
        if (got < 0)
            break;
        entries += got;
        searches++;
    }
    double t = Elapsed(start);
    if (!o.subtree.empty())
        std::printf("w2 subtree search:            %10.2f ops/s (%ld entries, %ld values each, %.0f entries/s)\n",
                searches / t, searches ? entries / searches : 0, searches ? values / searches : 0, entries / t);

    std::atomic<long> shared{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    start = Clock::now();
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&] {
            while (!stop && BaseSearch(ld, o.entry))
                shared++;
        });
    while (Elapsed(start) < o.seconds)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    stop = true;
    for (std::thread &th : threads)
        th.join();
    std::printf("w3 base search, 8 threads:    %10.0f ops/s\n", shared / Elapsed(start));
    zor_ldap_unbind(ld);
    return 0;
}
