// The socket buffer: framing one LDAPMessage across calls from a
// non-blocking socket, refusing malformed frames, resumed flushes, waits on
// high descriptors, password masking in dumps and the secure toolkit's
// read and write.
#include "ber/lber.h"
#include "net/sockbuf.h"
#include "net/zorlib.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// `sb` reads and writes one end of a stream pair without blocking; the test
// drives the other end.
struct Stream {
    Stream()
    {
        int fds[2] = {-1, -1};
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds);
        sb.sd = fds[0];
        peer = fds[1];
    }
    ~Stream()
    {
        fber_free(ber);
        close(sb.sd);
        close(peer);
    }
    void Send(const Bytes &bytes) { ASSERT_EQ(write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size())); }
    ber_tag_t Next() { return fber_get_next_nb(&sb, ber, &state); }
    Bytes Contents() const { return Bytes(ber->ber_ptr, ber->ber_end); }

    Sockbuf sb{-1, nullptr};
    int peer = -1;
    BerElement *ber = fber_alloc_t(0);
    int state = 0;
};

class SocketPair : public testing::Test, public Stream {};

// An LDAPMessage of message id 1 and an unbind request: 02 01 01 42 00.
const Bytes kContents = {0x02, 0x01, 0x01, 0x42, 0x00};

TEST_F(SocketPair, AMessageArrivingByteByByteFramesAcrossCalls)
{
    Bytes message = {0x30, 0x84, 0x00, 0x00, 0x00, 0x05};
    message.insert(message.end(), kContents.begin(), kContents.end());
    for (size_t i = 0; i + 1 < message.size(); i++) {
        Send({message[i]});
        ASSERT_EQ(Next(), static_cast<ber_tag_t>(LBER_WOULD_BLOCK)) << "after byte " << i;
    }
    EXPECT_EQ(Next(), static_cast<ber_tag_t>(LBER_WOULD_BLOCK)) << "nothing new: still waiting";
    Send({message.back()});
    ASSERT_EQ(Next(), 0x30u);
    EXPECT_EQ(state, 0);
    EXPECT_EQ(ber->ber_len, 5u);
    EXPECT_EQ(Contents(), kContents);
    EXPECT_EQ(ber->ber_end[0], '\0') << "a NUL follows the contents";
    EXPECT_EQ(ber->ber_buf, ber->ber_ptr);
}

TEST_F(SocketPair, LengthFormsBackToBackAndAnEarlyEnd)
{
    Bytes contents(256, 0x5A), stream;
    for (const Bytes &header : {Bytes{0x30, 0x84, 0x00, 0x00, 0x01, 0x00}, Bytes{0x30, 0x82, 0x01, 0x00}}) {
        stream.insert(stream.end(), header.begin(), header.end());
        stream.insert(stream.end(), contents.begin(), contents.end());
    }
    Send(stream); // two messages in one read are framed one at a time
    for (int i = 0; i < 2; i++) {
        fber_free(ber);
        ber = fber_alloc_t(0);
        ASSERT_EQ(Next(), 0x30u);
        EXPECT_EQ(Contents(), contents);
    }
    fber_free(ber);
    ber = fber_alloc_t(0);
    Send({0x30, 0x05, 0x02, 0x01});
    EXPECT_EQ(Next(), static_cast<ber_tag_t>(LBER_WOULD_BLOCK));
    shutdown(peer, SHUT_WR);
    EXPECT_EQ(Next(), LBER_DEFAULT) << "the stream ended in mid-message";
}

// The content buffer grows as bytes arrive: a declared length alone costs
// one small block, and an element left in mid-frame is freed whole (by the
// fixture, under the sanitizers' watch).
TEST_F(SocketPair, ADeclaredLengthCostsNothingUntilItsBytesArrive)
{
    Send({0x30, 0x84, 0x40, 0x00, 0x00, 0x00}); // 1 GB
    ASSERT_EQ(Next(), static_cast<ber_tag_t>(LBER_WOULD_BLOCK));
    EXPECT_LE(ber->ber_end - ber->ber_buf, 64 * 1024);
    Send(Bytes(100 * 1024, 0x5A));
    ASSERT_EQ(Next(), static_cast<ber_tag_t>(LBER_WOULD_BLOCK));
    EXPECT_EQ(ber->ber_ptr - ber->ber_buf, 100 * 1024);
    EXPECT_LE(ber->ber_end - ber->ber_buf, 256 * 1024);
    EXPECT_EQ(state, 0x40000000 - 100 * 1024);
}

TEST_F(SocketPair, ALargeMessageInPiecesFramesByteForByte)
{
    Bytes contents(300 * 1000 + 17), message = {0x30, 0x83, 0x04, 0x93, 0xF1};
    for (size_t i = 0; i < contents.size(); i++)
        contents[i] = static_cast<unsigned char>(i * 7 + i / 251);
    message.insert(message.end(), contents.begin(), contents.end());
    for (size_t at = 0, round = 0; at < message.size(); round++) {
        size_t piece = std::min<size_t>(message.size() - at, round % 2 ? 7001 : 3);
        Send(Bytes(message.begin() + at, message.begin() + at + piece));
        at += piece;
        ASSERT_EQ(Next(), at < message.size() ? static_cast<ber_tag_t>(LBER_WOULD_BLOCK) : 0x30u) << at;
    }
    EXPECT_EQ(Contents(), contents);
    EXPECT_EQ(ber->ber_end[0], '\0');
}

TEST(Sockbuf, MalformedFramesAreRefused)
{
    const std::pair<const char *, Bytes> frames[] = {
        {"multi-octet tag", {0x1F, 0x01, 0x00}},
        {"nine length octets", {0x30, 0x89, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0}},
        {"indefinite length", {0x30, 0x80, 0x02, 0x01, 0x01, 0x00, 0x00}},
        {"length above the limit", {0x30, 0x84, 0x7F, 0xFF, 0xFF, 0xFF}},
        {"five-octet length", {0x30, 0x85, 0x01, 0x00, 0x00, 0x00, 0x00}},
        {"eight-octet length past 32 bits", {0x30, 0x88, 0, 0, 0, 1, 0, 0, 0, 0}},
        {"empty element", {0x30, 0x00}},
        {"empty long-form element", {0x30, 0x81, 0x00}},
    };
    for (const auto &[what, bytes] : frames) {
        Stream pair;
        pair.Send(bytes);
        EXPECT_EQ(pair.Next(), LBER_DEFAULT) << what;
    }
    int state = 0;
    EXPECT_EQ(fber_get_next_nb(nullptr, nullptr, &state), LBER_DEFAULT);
    EXPECT_EQ(fber_flush_nb(nullptr, nullptr), -1);
    EXPECT_EQ(fber_select(nullptr, nullptr), -1);
}

TEST_F(SocketPair, ALargeFlushResumesAfterTheSocketFills)
{
    int small = 4096;
    ASSERT_EQ(setsockopt(sb.sd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    std::string value(100 * 1024, 'v');
    ASSERT_EQ(fber_printf(ber, "{io}", 7, value.data(), static_cast<int>(value.size())), 0);
    const std::string all(ber->ber_buf, ber->ber_ptr);
    EXPECT_EQ(fber_flush_nb(&sb, ber), -11);
    EXPECT_GT(ber->ber_rwptr - ber->ber_buf, 0);
    // Drain the peer while flushing again until everything is through.
    std::string received;
    char buf[65536];
    int rc = -11;
    for (int round = 0; round < 10000 && received.size() < all.size(); round++) {
        ssize_t n = read(peer, buf, sizeof buf);
        received.append(buf, n > 0 ? static_cast<size_t>(n) : 0);
        if (rc == -11)
            rc = fber_flush_nb(&sb, ber);
    }
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(received, all);
    EXPECT_EQ(fber_flush_nb(&sb, ber), 0) << "nothing left to write";
}

TEST_F(SocketPair, WaitsWorkOnDescriptorsAbove1023)
{
    struct rlimit limit {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int high = 1500;
    if (limit.rlim_max <= static_cast<rlim_t>(high))
        GTEST_SKIP() << "the descriptor limit is below " << high;
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_EQ(dup2(sb.sd, high), high);
    Sockbuf high_sb{high, nullptr};
    struct timeval zero {0, 0}, wait {5, 0};
    EXPECT_EQ(fber_select(&high_sb, &zero), 0);
    Send({0x30, 0x05});
    EXPECT_EQ(fber_select(&high_sb, &wait), 1);
    EXPECT_EQ(fber_get_next_nb(&high_sb, ber, &state), static_cast<ber_tag_t>(LBER_WOULD_BLOCK));
    close(high);
}

// A userpassword value and a simple bind's password are masked in place
// in the dump of a request written and in that of the contents framed at
// the other end: eight x in each, and no Q of the bind password, which is
// masked whole.
TEST(Sockbuf, DumpsHidePasswords)
{
    const ber_tag_t bind = 0x60, simple = 0x80;
    for (bool bind_request : {false, true}) {
        Stream pair;
        ASSERT_EQ(bind_request ? fber_printf(pair.ber, "{it{ists}}", 1, bind, 3, "cn=a", simple, "Q!Q-QQ?Q")
                               : fber_printf(pair.ber, "{s{s[s]}}", "cn=a", "userpassword", "QQQQQQ99 tail"),
                  0);
        zldap_test::TraceCapture trace(0x10);
        EXPECT_EQ(fber_flush_nb(&pair.sb, pair.ber), 0);
        Sockbuf other{pair.peer, nullptr};
        BerElement *framed = fber_alloc_t(0);
        int state = 0;
        EXPECT_EQ(fber_get_next_nb(&other, framed, &state), 0x30u);
        fber_free(framed);
        std::string text = trace.text(), rows;
        for (size_t at = text.find("\t|0"); at != std::string::npos; at = text.find("\t|0", at + 1))
            rows += text.substr(at, text.find('\n', at) - at);
        EXPECT_EQ(std::count(rows.begin(), rows.end(), 'x'), 16) << text;
        EXPECT_EQ(text.find('Q'), std::string::npos) << text;
    }
}

// A stand-in for the toolkit: read and write return rc; read without a
// buffer reports the decrypted bytes held.
int g_rc = 0, g_held = 0;
int FakeRead(zor_handle, char *buffer, int, int *count)
{
    *count = buffer ? 0 : g_held;
    return buffer ? g_rc : 0;
}
const char *FakeText(int) { return "fake reason"; }
int FakeWrite(zor_handle, const char *, int length, int *count)
{
    *count = g_rc ? 0 : length;
    return g_rc;
}

TEST(Sockbuf, SecureRecordsGoThroughTheToolkit)
{
    zorlib_entry_points saved = g_zorlib;
    g_zorlib.secure_soc_read = FakeRead;
    g_zorlib.secure_soc_write = FakeWrite;
    g_zorlib.strerror = FakeText;
    zldap_test::TraceCapture trace(0xFFFF);
    zor_secure_record record{};
    Sockbuf secure{-1, &record}; // the socket itself is never asked
    char buf[4];
    const struct timeval zero {0, 0};
    const struct {
        int rc, read, would_block, written, held, readable;
    } rows[] = {{ZOR_WOULD_BLOCK, 0, LBER_WOULD_BLOCK, -11, 0, 0}, {ZOR_ERR_READ_FAILED, -1, 0, -1, 12, 1}, {420, -1, 0, -1, 1, 1},
                {0, 0, 0, 3, 1, 1}};
    for (const auto &r : rows) {
        g_rc = r.rc;
        g_held = r.held;
        int would_block = 0;
        EXPECT_EQ(fber_socket_read_nb(&secure, buf, 4, &would_block), r.read) << r.rc;
        EXPECT_EQ(would_block, r.would_block);
        EXPECT_EQ(BerWrite_nb(&secure, "abc", 3), r.written);
        EXPECT_EQ(fber_select(&secure, &zero), r.readable) << "decrypted bytes make it readable";
    }
    g_zorlib = saved;
}

} // namespace
