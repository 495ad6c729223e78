// Connection establishment: host lists and their entry rules over TCP,
// IPv6 and local sockets, connects with a time-out, descriptors above 1023,
// finding, adding and releasing connections, and ldap_open.
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "loopback.h"
#include "message/ldap_table.h"
#include "net/zorlib.h"
#include "session/ldap_init.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"
#include "base/memory.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

using zldap_test::LoopbackListener;
using zldap_test::PeerClosed;
using zldap_test::RefusedPort;
using zldap_test::ScopedFd;

namespace {

// A name glibc refuses before asking any name server (an empty label).
constexpr const char *kUnresolvable = "bad..name";

bool IsNonBlocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

// A handle whose default connection tries hosts on port.
LDAP *HandleFor(const std::string &hosts, int port, const struct timeval *connect_timeout = nullptr)
{
    LDAP *ld = ldap_init("placeholder", port);
    zldap::mem_free(ld->ld_defconn->lconn_hosts);
    ld->ld_defconn->lconn_hosts = zldap::mem_strdup(hosts.c_str());
    ldap_set_option(ld, LDAP_OPT_CONNECT_TIMEOUT, connect_timeout);
    return ld;
}

int ChainLength(LDAP *ld)
{
    int n = 0;
    for (LDAPConn *lc = ld->ld_servers; lc; lc = lc->lconn_next)
        n++;
    return n;
}

double SecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

enum Target { None, A, B, L, V }; // two IPv4 listeners, a local socket, an IPv6 listener

// Run without and with a connect time-out: a refused entry is never waited
// out (the whole table stays far below one time-out per row).
TEST(HostList, EntriesAreTriedInOrderWithTheirPortRules)
{
    zldap_test::TempDir dir;
    // The local socket's path fills a socket address exactly, and has a
    // colon in it: a path is taken whole, and one too long to fit would
    // name this socket if it were cut.
    const std::string path = dir.file("ld:" + std::string(sizeof(sockaddr_un::sun_path) - 5 - dir.path().size(), 's'));
    LoopbackListener a, b, v(AF_INET6);
    zldap_test::LocalListener l(path);
    RefusedPort r;
    ASSERT_TRUE(a.ok() && b.ok() && l.ok());
    const std::string long_entry(600, 'h');
    const std::pair<std::string, std::string> names[] = {
        {"{A}", std::to_string(a.port())}, {"{B}", std::to_string(b.port())}, {"{R}", std::to_string(r.port())},
        {"{V}", std::to_string(v.port())}, {"{L}", path}};
    const std::function<ScopedFd(int)> accept[] = {
        [](int) { return ScopedFd(); }, [&](int ms) { return a.Accept(ms); }, [&](int ms) { return b.Accept(ms); },
        [&](int ms) { return l.Accept(ms); }, [&](int ms) { return v.ok() ? v.Accept(ms) : ScopedFd(); }};
    const struct {
        std::string hosts, default_port;
        int rc;
        Target target;
    } cases[] = {
        {"127.0.0.1", "{A}", 0, A},
        // A plain name uses the connection's port, a suffixed one its own.
        {"127.0.0.1 127.0.0.1:{B}", "{R}", 0, B}, {"127.0.0.1 127.0.0.1:{B}", "{A}", 0, A},
        {"127.0.0.1:{R} 127.0.0.1:{B}", "{A}", 0, B}, {"localhost:{B}", "{R}", 0, B},
        {"   127.0.0.1:{B}   ", "{R}", 0, B}, {"127.0.0.1:{R}\t127.0.0.1:{A}", "{R}", 0, A},
        // An IPv6 literal uses the connection's port, bracketed or not,
        // whatever follows the bracket; an entry after it has its own.
        {"[::1]:{B} 127.0.0.1:{A}", "{R}", 0, A}, {"::1 127.0.0.1:{A}", "{R}", 0, A}, {"[::1] 127.0.0.1:{A}", "{R}", 0, A},
        {"[::1]:636", "{V}", 0, V}, {"[::1]:{R}", "{V}", 0, V}, {"::1", "{V}", 0, V},
        {"127.0.0.1:{R} [::1]:{R}", "{V}", 0, V}, {"[::1]:{V}", "{R}", LDAP_SERVER_DOWN, None},
        // Local socket paths.
        {"/nonexistent/socket {L}", "{R}", 0, L}, {"{L}tail", "{A}", LDAP_CONNECT_ERROR, None},
        // Entries that can't be used are skipped.
        {std::string(kUnresolvable) + " 127.0.0.1:{A}", "{R}", 0, A}, {"127.0.0.1:abc 127.0.0.1:{A}", "{R}", 0, A},
        {long_entry + " 127.0.0.1:{B}", "{R}", 0, B},
        // The code of the last attempt is the result.
        {"127.0.0.1:{R}", "{A}", LDAP_SERVER_DOWN, None},
        {"127.0.0.1:{R} /nonexistent/socket", "{A}", LDAP_CONNECT_ERROR, None},
        {"/nonexistent/socket 127.0.0.1:{R}", "{A}", LDAP_SERVER_DOWN, None},
        {kUnresolvable, "{A}", LDAP_SERVER_DOWN, None}, {"127.0.0.1:abc", "{A}", LDAP_PARAM_ERROR, None},
        {"127.0.0.1:", "{A}", LDAP_PARAM_ERROR, None}, {"127.0.0.1:0", "{A}", LDAP_PARAM_ERROR, None},
        {"127.0.0.1:65536", "{A}", LDAP_PARAM_ERROR, None}, {"127.0.0.1:-1", "{A}", LDAP_PARAM_ERROR, None},
        {long_entry, "{A}", LDAP_PARAM_ERROR, None},
        // Nothing to try: nothing opened, nothing failed.
        {"", "{A}", 0, None}, {"    ", "{A}", 0, None},
    };
    zldap_test::TraceCapture trace(0xFFFF); // every trace line of a connect is formatted
    int before = zldap_test::OpenDescriptorCount();
    const struct timeval five = {5, 0};
    for (const struct timeval *timeout : {static_cast<const struct timeval *>(nullptr), &five}) {
        auto start = std::chrono::steady_clock::now();
        for (const auto &c : cases) {
            if (!v.ok() && (c.hosts + c.default_port).find("{V}") != std::string::npos)
                continue; // no IPv6 loopback here
            auto expand = [&](std::string s) {
                for (const auto &[from, to] : names)
                    for (size_t at; (at = s.find(from)) != std::string::npos;)
                        s.replace(at, from.size(), to);
                return s;
            };
            SCOPED_TRACE("hosts \"" + expand(c.hosts).substr(0, 80) + "\" port " + expand(c.default_port) +
                         (timeout ? " with a time-out" : ""));
            LDAP *ld = HandleFor(expand(c.hosts), std::stoi(expand(c.default_port)), timeout);
            LDAPConn *lc = ld->ld_defconn;
            EXPECT_EQ(open_ldap_connection(ld, lc), c.rc);
            std::vector<ScopedFd> accepted;
            for (int t = A; t <= V; t++) {
                accepted.push_back(accept[t](c.target == t ? 2000 : 0));
                EXPECT_EQ(accepted.back().get() >= 0, c.target == t) << "listener " << t;
            }
            EXPECT_EQ(lc->lconn_connected, c.target != None ? 1u : 0u);
            EXPECT_TRUE(c.target != None ? IsNonBlocking(lc->lconn_sb.sd) : lc->lconn_sb.sd == -1);
            EXPECT_EQ(ldap_unbind(ld), 0);
            for (const ScopedFd &fd : accepted)
                EXPECT_TRUE(fd.get() < 0 || PeerClosed(fd.get(), 2000)) << "unbind closes it";
        }
        EXPECT_LT(SecondsSince(start), 5.0);
    }
    EXPECT_EQ(zldap_test::OpenDescriptorCount(), before);
}

// Linux answers a connect to a listener whose accept queue is full with
// silence: the SYN is dropped, so the client stays "in progress" until its
// own time-out. With a backlog of 0 the queue is full after one connection
// that is never accepted; the probes confirm that state (a probe that does
// not complete in 300 ms) so the test does not depend on the queue length.
class FullBacklog {
public:
    FullBacklog() : listener_(AF_INET, 0)
    {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address_.sin_port = htons(static_cast<uint16_t>(listener_.port()));
        for (int i = 0; i < 16 && !saturated_ && listener_.ok(); i++) {
            ScopedFd probe(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
            int rc = connect(probe.get(), address(), sizeof address_);
            if (rc != 0 && errno != EINPROGRESS)
                break;
            struct pollfd pfd = {probe.get(), POLLOUT, 0};
            saturated_ = rc != 0 && poll(&pfd, 1, 300) == 0;
            probes_.push_back(std::move(probe));
        }
    }
    bool saturated() const { return saturated_; }
    int port() const { return listener_.port(); }
    const struct sockaddr *address() const { return reinterpret_cast<const struct sockaddr *>(&address_); }

private:
    LoopbackListener listener_;
    struct sockaddr_in address_ {};
    std::vector<ScopedFd> probes_;
    bool saturated_ = false;
};

// The bounds are generous (0.9 s to 10 s for a 1 s time-out): the machine
// is shared and only the order of magnitude is the point.
TEST(TdsConnect, AnUnansweredEntryTimesOutAndTheNextIsTried)
{
    FullBacklog full;
    if (!full.saturated())
        GTEST_SKIP() << "this kernel answers connects to a full accept queue; no silent peer";
    ScopedFd sd(socket(AF_INET, SOCK_STREAM, 0));
    struct timeval one = {1, 0};
    auto start = std::chrono::steady_clock::now();
    errno = 0;
    EXPECT_EQ(tds_connect(sd.get(), full.address(), sizeof(sockaddr_in), &one), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(SecondsSince(start), 0.9);
    EXPECT_LT(SecondsSince(start), 10.0);
    EXPECT_FALSE(IsNonBlocking(sd.get())) << "a timed connect leaves the socket blocking";

    LoopbackListener good;
    LDAP *ld = HandleFor("127.0.0.1:" + std::to_string(full.port()) + " 127.0.0.1", good.port(), &one);
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(open_ldap_connection(ld, ld->ld_defconn), LDAP_SUCCESS);
    EXPECT_GE(SecondsSince(start), 0.9);
    EXPECT_LT(SecondsSince(start), 10.0);
    EXPECT_GE(good.Accept(2000).get(), 0);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

// Opening again closes the old socket; a failed secure set-up closes each
// socket and tries the next entry.
TEST(HostList, NoSocketIsLeftBehind)
{
    LoopbackListener a, b;
    LDAP *ld = HandleFor("127.0.0.1:" + std::to_string(a.port()) + " 127.0.0.1:" + std::to_string(b.port()), 389);
    ASSERT_EQ(open_ldap_connection(ld, ld->ld_defconn), 0);
    ScopedFd first = a.Accept(2000);
    int before = zldap_test::OpenDescriptorCount();
    ASSERT_EQ(open_ldap_connection(ld, ld->ld_defconn), 0);
    EXPECT_TRUE(PeerClosed(first.get(), 2000));
    EXPECT_EQ(zldap_test::OpenDescriptorCount(), before);
    ld->ld_ssl_flag = 1; // a secure session while the toolkit is not loaded in this program
    EXPECT_EQ(open_ldap_connection(ld, ld->ld_defconn), LDAP_SECURE_LIB_MISSING);
    EXPECT_EQ(zldap_test::OpenDescriptorCount(), before - 1);
    EXPECT_EQ(ld->ld_defconn->lconn_connected, 0u);
    for (const LoopbackListener *l : {&a, &a, &b}) {
        ScopedFd accepted = l->Accept(2000);
        EXPECT_TRUE(PeerClosed(accepted.get(), 2000));
    }
    ld->ld_ssl_flag = 0;
    EXPECT_EQ(ldap_unbind(ld), 0);
}

// The resolver's own bound: a name is resolved whole or not at all.
TEST(HostList, ANameTooLongToResolveIsRefused)
{
    struct addrinfo *raw = nullptr;
    EXPECT_EQ(qva_getaddrinfo(std::string(600, 'a').c_str(), htons(389), &raw), LDAP_SERVER_DOWN);
    EXPECT_EQ(errno, EHOSTUNREACH);
}

// poll, not select: select() cannot watch descriptors of FD_SETSIZE (1024)
// and above. The low descriptors are taken first so that the connection's
// socket is numbered above 1023.
TEST(HostList, DescriptorsAbove1023Work)
{
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    constexpr rlim_t kWanted = 1400;
    if (saved.rlim_cur < kWanted) {
        if (saved.rlim_max != RLIM_INFINITY && saved.rlim_max < kWanted)
            GTEST_SKIP() << "descriptor limit " << saved.rlim_max << " is too low";
        struct rlimit raised = saved;
        raised.rlim_cur = kWanted;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    }
    LoopbackListener good;
    RefusedPort r;
    {
        std::vector<ScopedFd> fillers;
        // dup hands out the lowest free number: once it returns 1100, every
        // number below is taken. Bounded by the limit raised above.
        for (int i = 0; i < 1200 && (fillers.empty() || fillers.back().get() < 1100); i++)
            fillers.emplace_back(dup(good.fd()));
        ASSERT_GE(fillers.back().get(), 1100);
        struct timeval five = {5, 0};
        LDAP *ld = HandleFor("127.0.0.1:" + std::to_string(r.port()) + " 127.0.0.1", good.port(), &five);
        EXPECT_EQ(open_ldap_connection(ld, ld->ld_defconn), 0);
        EXPECT_GT(ld->ld_defconn->lconn_sb.sd, 1023);
        EXPECT_GE(good.Accept(2000).get(), 0);
        EXPECT_EQ(ldap_unbind(ld), 0);
    }
    setrlimit(RLIMIT_NOFILE, &saved);
}

enum class Found { None, Default, Added };

// Looking up never opens anything; with open_if_missing a missing server is
// opened once and appended. Failures leave the chain and the descriptors
// as they were and are the thread's error.
TEST(FindConnection, MatchesByNameOrAddressAndOpensWhatIsMissing)
{
    LoopbackListener def_server, other;
    RefusedPort r;
    const int P = def_server.port(), O = other.port();
    LDAP *ld = ldap_init("127.0.0.1", P);
    const struct {
        const char *host;
        int port, open, include_default;
        Found found;
        int rc;
    } cases[] = {
        {nullptr, P, 0, 1, Found::Default, 0}, {"127.0.0.1", P, 0, 1, Found::Default, 0},
        {"127.1", P, 0, 1, Found::Default, 0}, {"localhost", P, 1, 1, Found::Default, 0},
        {"127.0.0.1", P, 0, 0, Found::None, 0}, {"127.0.0.1", P + 1, 0, 1, Found::None, 0},
        {kUnresolvable, P, 0, 1, Found::None, 0}, {"127.0.0.1", r.port(), 1, 0, Found::None, LDAP_SERVER_DOWN},
        {kUnresolvable, 389, 1, 0, Found::None, LDAP_SERVER_DOWN}, {"127.0.0.1", 0, 1, 0, Found::None, LDAP_PARAM_ERROR},
        {"127.0.0.1", 65536, 1, 0, Found::None, LDAP_PARAM_ERROR},
        {"localhost", O, 1, 1, Found::Added, 0}, {"127.0.0.1", O, 1, 0, Found::Added, 0}, // found again
    };
    zldap_test::TraceCapture trace(0xFFFF);
    int before = zldap_test::OpenDescriptorCount();
    for (const auto &c : cases) {
        int rc = -7;
        LDAPConn *lc = find_connection(ld, c.host, c.port, c.open, &rc, c.include_default);
        LDAPConn *added = ld->ld_defconn->lconn_next;
        EXPECT_EQ(lc, c.found == Found::Default ? ld->ld_defconn : c.found == Found::Added ? added : nullptr)
            << (c.host ? c.host : "NULL") << ":" << c.port;
        EXPECT_EQ(rc, c.rc);
        EXPECT_TRUE(c.rc == 0 || ldap_get_errno(ld) == c.rc);
        EXPECT_EQ(ChainLength(ld), c.found == Found::Added ? 2 : 1);
        EXPECT_EQ(zldap_test::OpenDescriptorCount(), before + (c.found == Found::Added ? 1 : 0));
    }
    LDAPConn *added = ld->ld_defconn->lconn_next;
    EXPECT_EQ(added->lconn_ld, ld);
    EXPECT_TRUE(IsNonBlocking(added->lconn_sb.sd));
    EXPECT_GE(other.Accept(2000).get(), 0);
    EXPECT_LT(other.Accept(0).get(), 0) << "one connect only";
    EXPECT_LT(def_server.Accept(0).get(), 0) << "looking up opens nothing";
    // Leaving the default connection out opens a second one to its server.
    EXPECT_EQ(find_connection(ld, "127.0.0.1", P, 1, nullptr, 0), added->lconn_next);
    EXPECT_EQ(ChainLength(ld), 3);
    EXPECT_EQ(ldap_unbind(ld), 0);
    // Port -1 or -2 is 389, or 636 when the default connection is secure.
    zor_secure_record secure_dummy = {};
    for (int port : {-1, -2}) {
        LDAP *plain = ldap_init("127.0.0.1", 389), *secure = ldap_init("127.0.0.1", 636);
        EXPECT_EQ(find_connection(plain, "127.0.0.1", port, 0, nullptr, 1), plain->ld_defconn);
        EXPECT_EQ(find_connection(secure, "127.0.0.1", port, 0, nullptr, 1), nullptr);
        secure->ld_defconn->lconn_sb.secure = &secure_dummy;
        EXPECT_EQ(find_connection(secure, "127.0.0.1", port, 0, nullptr, 1), secure->ld_defconn);
        secure->ld_defconn->lconn_sb.secure = nullptr;
        EXPECT_EQ(ldap_unbind(plain) + ldap_unbind(secure), 0);
    }
}

TEST(ReleaseConnection, UnlinksFreesAndClosesOnlyIdleChainMembers)
{
    LoopbackListener a, b;
    LDAP *ld = ldap_init("127.0.0.1", 389);
    LDAPConn *first = find_connection(ld, "127.0.0.1", a.port(), 1, nullptr, 0);
    LDAPConn *second = find_connection(ld, "127.0.0.1", b.port(), 1, nullptr, 0);
    ASSERT_TRUE(first && second);
    ScopedFd from_a = a.Accept(2000);
    release_connection(ld, first);
    EXPECT_EQ(ld->ld_defconn->lconn_next, second) << "the rest of the chain stays";
    EXPECT_TRUE(PeerClosed(from_a.get(), 2000));
    // The default connection stays with its handle; a record not in the
    // chain is not the handle's to free.
    release_connection(ld, ld->ld_defconn);
    LDAPConn *stranger = ldap_lc_init("127.0.0.1", 389, 8);
    release_connection(ld, stranger);
    ldap_lc_free(stranger);
    EXPECT_EQ(ChainLength(ld), 2);
    // A connection with a request outstanding moves to the chain's end
    // until it is released again without one.
    LDAPConn *last = find_connection(ld, "localhost", a.port(), 1, nullptr, 0);
    int id = ldap_msg_table_get_next_msgid(second->lconn_msgtable);
    release_connection(ld, second);
    EXPECT_EQ(ld->ld_defconn->lconn_next, last);
    EXPECT_EQ(last->lconn_next, second);
    ldap_msg_table_release_msgid(second->lconn_msgtable, id);
    release_connection(ld, second);
    release_connection(ld, last);
    EXPECT_EQ(ChainLength(ld), 1);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST(LdapOpen, ConnectsAtOnceWithTheEnvironmentsVersion)
{
    LoopbackListener listener;
    RefusedPort r;
    const std::pair<std::optional<std::string>, int> cases[] = {
        {std::nullopt, 2}, {"2", 2}, {"3.0", 2}, {" 3", 2}, {"", 2}, {"3", 3}};
    for (const auto &[value, version] : cases) {
        zldap_test::ScopedEnv env("LDAP_VERSION", value);
        LDAP *ld = ldap_open("127.0.0.1", listener.port());
        ASSERT_NE(ld, nullptr);
        EXPECT_EQ(ld->ld_version, version) << value.value_or("(unset)");
        ScopedFd accepted = listener.Accept(2000);
        EXPECT_EQ(ldap_unbind(ld), 0);
        EXPECT_TRUE(PeerClosed(accepted.get(), 2000));
    }
    // A failure leaves nothing behind. The first call in the process
    // settles what stays for good (ULXDIR's text, the trace set-up).
    EXPECT_EQ(ldap_open("127.0.0.1", r.port()), nullptr);
    int before = zldap_test::OpenDescriptorCount();
    zldap::mem_tracking_start(0);
    for (const char *host : {"127.0.0.1", kUnresolvable, ""})
        EXPECT_EQ(ldap_open(host, r.port()), nullptr) << host;
    EXPECT_EQ(ldap_open("127.0.0.1", -1), nullptr);
    EXPECT_EQ(zldap::mem_tracking_stop().live, 0);
    EXPECT_EQ(zldap_test::OpenDescriptorCount(), before);
}

} // namespace
