// The socket buffer: framing one LDAPMessage across calls from a
// non-blocking socket, refusing malformed frames, resumed flushes, waits on
// high descriptors and the secure toolkit's read and write.
#include "alloc_faults.h"
#include "ber/lber.h"
#include "base/memory.h"
#include "net/sockbuf.h"
#include "test_util.h"
#include "base/trace.h"
#include "net/zorlib.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// A connected stream pair: `sb` reads and writes one end without blocking,
// the test drives the other end.
class SocketPair : public testing::Test {
protected:
    void SetUp() override
    {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        sb.sd = fds[0];
        sb.secure = nullptr;
        peer = fds[1];
        ASSERT_EQ(fcntl(sb.sd, F_SETFL, fcntl(sb.sd, F_GETFL) | O_NONBLOCK), 0);
        ber = fber_alloc_t(0);
        ASSERT_NE(ber, nullptr);
    }
    void TearDown() override
    {
        fber_free(ber);
        close(sb.sd);
        if (peer >= 0)
            close(peer);
    }
    void Send(const Bytes &bytes) { ASSERT_EQ(write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size())); }
    ber_tag_t Next() { return fber_get_next_nb(&sb, ber, &state); }
    Bytes Contents() const { return Bytes(ber->ber_ptr, ber->ber_end); }

    Sockbuf sb{};
    int peer = -1;
    BerElement *ber = nullptr;
    int state = 0;
};

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

TEST_F(SocketPair, ShortAndLongLengthFormsGiveTheSameElement)
{
    Bytes contents(256);
    for (size_t i = 0; i < contents.size(); i++)
        contents[i] = static_cast<unsigned char>(i);
    for (const Bytes &header : {Bytes{0x30, 0x84, 0x00, 0x00, 0x01, 0x00}, Bytes{0x30, 0x82, 0x01, 0x00}}) {
        Bytes message = header;
        message.insert(message.end(), contents.begin(), contents.end());
        Send(message);
        fber_free(ber);
        ber = fber_alloc_t(0);
        ASSERT_EQ(Next(), 0x30u);
        EXPECT_EQ(ber->ber_len, 256u);
        EXPECT_EQ(Contents(), contents);
    }
}

TEST_F(SocketPair, TwoMessagesInOneReadAreFramedOneAtATime)
{
    Bytes two = {0x30, 0x05};
    two.insert(two.end(), kContents.begin(), kContents.end());
    two.insert(two.end(), two.begin(), two.end());
    Send(two);
    ASSERT_EQ(Next(), 0x30u);
    fber_free(ber);
    ber = fber_alloc_t(0);
    ASSERT_EQ(Next(), 0x30u);
    EXPECT_EQ(Contents(), kContents);
}

TEST_F(SocketPair, EndOfStreamInMidMessageFails)
{
    Send({0x30, 0x05, 0x02, 0x01});
    EXPECT_EQ(Next(), static_cast<ber_tag_t>(LBER_WOULD_BLOCK));
    close(peer);
    peer = -1;
    EXPECT_EQ(Next(), LBER_DEFAULT);
}

struct BadFrame {
    const char *what;
    Bytes bytes;
};

void PrintTo(const BadFrame &f, std::ostream *os) { *os << f.what; }

class MalformedFrames : public testing::TestWithParam<BadFrame> {};

TEST_P(MalformedFrames, AreRefused)
{
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    const Bytes &bytes = GetParam().bytes;
    ASSERT_EQ(write(fds[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    Sockbuf sb{fds[0], nullptr};
    BerElement *ber = fber_alloc_t(0);
    int state = 0;
    EXPECT_EQ(fber_get_next_nb(&sb, ber, &state), LBER_DEFAULT);
    fber_free(ber);
    close(fds[0]);
    close(fds[1]);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, MalformedFrames,
    testing::Values(BadFrame{"multi-octet tag", {0x1F, 0x01, 0x00}},
                    BadFrame{"nine length octets", {0x30, 0x89, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0}},
                    BadFrame{"indefinite length", {0x30, 0x80, 0x02, 0x01, 0x01, 0x00, 0x00}},
                    BadFrame{"length above the limit", {0x30, 0x84, 0x7F, 0xFF, 0xFF, 0xFF}},
                    BadFrame{"five-octet length", {0x30, 0x85, 0x01, 0x00, 0x00, 0x00, 0x00}},
                    BadFrame{"eight-octet length past 32 bits", {0x30, 0x88, 0, 0, 0, 1, 0, 0, 0, 0}},
                    BadFrame{"empty element", {0x30, 0x00}},
                    BadFrame{"empty long-form element", {0x30, 0x81, 0x00}}));

TEST(SockbufArguments, NullsAreRefused)
{
    Sockbuf sb{-1, nullptr};
    BerElement *ber = fber_alloc_t(0);
    int state = 0;
    EXPECT_EQ(fber_get_next_nb(nullptr, ber, &state), LBER_DEFAULT);
    EXPECT_EQ(fber_get_next_nb(&sb, nullptr, &state), LBER_DEFAULT);
    EXPECT_EQ(fber_get_next_nb(&sb, ber, nullptr), LBER_DEFAULT);
    EXPECT_EQ(fber_flush_nb(nullptr, ber), -1);
    EXPECT_EQ(fber_flush_nb(&sb, nullptr), -1);
    EXPECT_EQ(fber_select(nullptr, nullptr), -1);
    long left = 0;
    char byte;
    EXPECT_EQ(FBerReadDirect_nb(&sb, &byte, 0, &left), -1);
    EXPECT_EQ(BerWrite_nb(&sb, &byte, 0), 0);
    fber_free(ber);
}

TEST_F(SocketPair, AFailedContentAllocationFailsTheFrame)
{
    Send({0x30, 0x05});
    zldap::mem_tracking_start(1);
    EXPECT_EQ(Next(), LBER_DEFAULT);
    zldap::AllocCounters counted = zldap::mem_tracking_stop();
    EXPECT_EQ(counted.live, 0);
}

TEST_F(SocketPair, ALargeFlushResumesAfterTheSocketFills)
{
    int small = 4096;
    ASSERT_EQ(setsockopt(sb.sd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    BerElement *out = fber_alloc();
    std::string value(100 * 1024, 'v');
    ASSERT_EQ(fber_printf(out, "{io}", 7, value.data(), static_cast<int>(value.size())), 0);
    long total = out->ber_ptr - out->ber_buf;

    zldap_test::TraceCapture trace(0x10);
    EXPECT_EQ(fber_flush_nb(&sb, out), -11);
    long written = out->ber_rwptr - out->ber_buf;
    EXPECT_GT(written, 0);
    EXPECT_LT(written, total);

    // Drain the peer while flushing again until everything is through.
    std::string received;
    char buf[65536];
    int rc = -11;
    for (int round = 0; round < 10000 && rc == -11; round++) {
        ssize_t n = read(peer, buf, sizeof buf);
        if (n > 0)
            received.append(buf, static_cast<size_t>(n));
        rc = fber_flush_nb(&sb, out);
    }
    EXPECT_EQ(rc, 0);
    for (ssize_t n; received.size() < static_cast<size_t>(total) && (n = read(peer, buf, sizeof buf)) > 0;)
        received.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(received, std::string(out->ber_buf, static_cast<size_t>(total)));
    EXPECT_NE(trace.text().find(" (re-flush)"), std::string::npos);
    EXPECT_EQ(fber_flush_nb(&sb, out), 0) << "nothing left to write";
    fber_free(out);
}

TEST_F(SocketPair, WaitsWorkOnDescriptorsAbove1023)
{
    struct rlimit limit {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int high = 1500;
    if (limit.rlim_cur <= static_cast<rlim_t>(high)) {
        if (limit.rlim_max <= static_cast<rlim_t>(high))
            GTEST_SKIP() << "the descriptor limit is below " << high;
        limit.rlim_cur = limit.rlim_max;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    ASSERT_EQ(dup2(sb.sd, high), high);
    Sockbuf high_sb{high, nullptr};
    struct timeval zero {0, 0};
    EXPECT_EQ(fber_select(&high_sb, &zero), 0);
    Send({0x30, 0x05});
    struct timeval wait {5, 0};
    EXPECT_EQ(fber_select(&high_sb, &wait), 1);
    EXPECT_EQ(fber_get_next_nb(&high_sb, ber, &state), static_cast<ber_tag_t>(LBER_WOULD_BLOCK));
    close(high);
}

TEST_F(SocketPair, DumpsHideAPasswordValue)
{
    BerElement *out = fber_alloc();
    ASSERT_EQ(fber_printf(out, "{s{s[s]}}", "cn=x", "userpassword", "Secret99 tail"), 0);
    zldap_test::TraceCapture trace(0x10);
    EXPECT_EQ(fber_flush_nb(&sb, out), 0);
    std::string text = trace.text();
    EXPECT_EQ(text.find("Secret"), std::string::npos) << text;
    EXPECT_NE(text.find("|1.......xxxxxxxx|"), std::string::npos) << text;
    EXPECT_NE(text.find("userpassword"), std::string::npos);
    fber_free(out);
}

// A stand-in for the toolkit's read and write.
struct FakeToolkit {
    static inline int read_rc = 0;
    static inline int held = 0;
    static inline int write_rc = 0;
    static int Read(zor_handle, char *buffer, int, int *count)
    {
        if (!buffer) {
            *count = held;
            return 0;
        }
        *count = 0;
        return read_rc;
    }
    static int Write(zor_handle, const char *, int length, int *count)
    {
        *count = write_rc == 0 ? length : 0;
        return write_rc;
    }
    static const char *Text(int) { return "fake reason"; }
};

class SecureSockbuf : public SocketPair {
protected:
    void SetUp() override
    {
        SocketPair::SetUp();
        saved = g_zorlib;
        g_zorlib.secure_soc_read = FakeToolkit::Read;
        g_zorlib.secure_soc_write = FakeToolkit::Write;
        g_zorlib.strerror = FakeToolkit::Text;
        sb.secure = &record;
    }
    void TearDown() override
    {
        g_zorlib = saved;
        SocketPair::TearDown();
    }
    zorlib_entry_points saved{};
    zor_secure_record record{};
};

TEST_F(SecureSockbuf, ReadCodesMapToWouldBlockAndFailure)
{
    char buf[4];
    int would_block = 0;
    FakeToolkit::read_rc = ZOR_WOULD_BLOCK;
    EXPECT_EQ(fber_socket_read_nb(&sb, buf, 4, &would_block), 0);
    EXPECT_EQ(would_block, LBER_WOULD_BLOCK);
    zldap_test::TraceCapture trace(0xFFFF);
    FakeToolkit::read_rc = ZOR_ERR_READ_FAILED;
    EXPECT_EQ(fber_socket_read_nb(&sb, buf, 4, &would_block), -1);
    EXPECT_EQ(trace.text().find("zor_secure_soc_read"), std::string::npos) << "406 is not traced";
    FakeToolkit::read_rc = 420;
    EXPECT_EQ(fber_socket_read_nb(&sb, buf, 4, &would_block), -1);
    EXPECT_NE(trace.text().find("zor_secure_soc_read() rc=420 fake reason"), std::string::npos);
}

TEST_F(SecureSockbuf, DecryptedBytesMakeTheSocketReadable)
{
    struct timeval zero {0, 0};
    FakeToolkit::held = 0;
    EXPECT_EQ(fber_select(&sb, &zero), 0);
    FakeToolkit::held = 12;
    sb.sd = -1; // the socket is never asked
    EXPECT_EQ(fber_select(&sb, &zero), 1);
    sb.sd = peer; // restored for TearDown's close of both ends
    peer = -1;
}

TEST_F(SecureSockbuf, WriteWouldBlockIsMinusEleven)
{
    FakeToolkit::write_rc = ZOR_WOULD_BLOCK;
    EXPECT_EQ(BerWrite_nb(&sb, "abc", 3), -11);
    FakeToolkit::write_rc = 1;
    EXPECT_EQ(BerWrite_nb(&sb, "abc", 3), -1);
    FakeToolkit::write_rc = 0;
    EXPECT_EQ(BerWrite_nb(&sb, "abc", 3), 3);
}

} // namespace
