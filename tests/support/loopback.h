// loopback.h - loopback servers for the tests: TCP listeners on 127.0.0.1
// or ::1 (the scripted server listens through one too), a port that
// refuses connections, a local stream socket listener, and small
// descriptor helpers.
#ifndef ZLDAP_TEST_LOOPBACK_H
#define ZLDAP_TEST_LOOPBACK_H

#include <string>
#include <sys/socket.h>

namespace zldap_test {

// Closes the descriptor it holds when it goes out of scope.
class ScopedFd {
public:
    explicit ScopedFd(int fd = -1) : fd_(fd) {}
    ~ScopedFd() { reset(); }
    ScopedFd(ScopedFd &&other) noexcept : fd_(other.release()) {}
    ScopedFd &operator=(ScopedFd &&other) noexcept;
    ScopedFd(const ScopedFd &) = delete;
    ScopedFd &operator=(const ScopedFd &) = delete;
    int get() const { return fd_; }
    int release();
    void reset(int fd = -1);

private:
    int fd_;
};

// A listening TCP socket on the loopback address of the family, on a port
// the kernel picks. ok() is false when the family has no loopback here.
class LoopbackListener {
public:
    explicit LoopbackListener(int family = AF_INET, int backlog = 64);
    bool ok() const { return fd_.get() >= 0; }
    int fd() const { return fd_.get(); }
    int port() const { return port_; }
    // Accepts one pending connection, waiting at most timeout_ms; -1 when
    // none arrives.
    ScopedFd Accept(int timeout_ms) const;
    // Accepts and closes everything pending; returns how many there were.
    int Drain() const;

private:
    ScopedFd fd_;
    int port_ = 0;
};

// A loopback TCP port where nothing listens: the socket is bound but not
// listening, so connects are refused and no other process can take the port.
class RefusedPort {
public:
    explicit RefusedPort(int family = AF_INET);
    int port() const { return port_; }

private:
    ScopedFd fd_;
    int port_ = 0;
};

// A listening local stream socket at path.
class LocalListener {
public:
    explicit LocalListener(const std::string &path, int backlog = 16);
    bool ok() const { return fd_.get() >= 0; }
    ScopedFd Accept(int timeout_ms) const;

private:
    ScopedFd fd_;
};

// Whether a connect to the family's loopback address at port succeeds.
bool Connects(int family, int port);
// Whether ::1 can be bound and connected here.
bool HasIPv6Loopback();
// Number of open descriptors of this process.
int OpenDescriptorCount();
// Whether the peer of fd has closed its end (waits at most timeout_ms).
bool PeerClosed(int fd, int timeout_ms);

} // namespace zldap_test

#endif
