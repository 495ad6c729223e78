// The secure I/O callbacks on a socket pair: in read/write mode a short
// read reports what came, in handshake mode a silent peer is an I/O error,
// and the socket-option callback keeps the last command in its text.
#include "tls/ldap_ssl_io.h"
#include "tls/ldap_ssl_userdata.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

TEST(TlsIo, CallbacksWaitWithinTheRecordsLimits)
{
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    zor_user_data rec{kZorUserDataKey, kZorStateReadWrite, {0, 200000}}; // read/write mode adds the 2 s data time-out
    char buf[20], text[8] = "900";
    ASSERT_EQ(write(fds[1], "0123456789", 10), 10);
    EXPECT_EQ(client_ssl_read(fds[0], buf, 20, &rec), 10);
    rec.state = kZorStateHandshake;
    EXPECT_EQ(client_ssl_read(fds[0], buf, 20, &rec), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(client_setSocketOpts(fds[0], 900, text), 0);
    EXPECT_EQ(client_setSocketOpts(fds[0], 902, text), -1);
    EXPECT_STREQ(text, "902");
    close(fds[0]);
    close(fds[1]);
}
