// loopback.cpp - loopback servers and descriptor helpers for the tests.
#include "loopback.h"

#include <arpa/inet.h>
#include <cstring>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/un.h>
#include <unistd.h>

namespace zldap_test {

namespace {

// The loopback address of the family at port (0: any free port).
socklen_t loopback_address(int family, int port, struct sockaddr_storage &storage)
{
    std::memset(&storage, 0, sizeof storage);
    if (family == AF_INET6) {
        auto *in6 = reinterpret_cast<struct sockaddr_in6 *>(&storage);
        in6->sin6_family = AF_INET6;
        in6->sin6_addr = in6addr_loopback;
        in6->sin6_port = htons(static_cast<uint16_t>(port));
        return sizeof *in6;
    }
    auto *in4 = reinterpret_cast<struct sockaddr_in *>(&storage);
    in4->sin_family = AF_INET;
    in4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    in4->sin_port = htons(static_cast<uint16_t>(port));
    return sizeof *in4;
}

// Binds a new socket of the family to its loopback address on a free port.
ScopedFd bound_loopback_socket(int family, int &port)
{
    ScopedFd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_storage storage;
    socklen_t length = loopback_address(family, 0, storage);
    auto *address = reinterpret_cast<struct sockaddr *>(&storage);
    if (fd.get() < 0 || bind(fd.get(), address, length) != 0 || getsockname(fd.get(), address, &length) != 0)
        return ScopedFd();
    port = ntohs(family == AF_INET6 ? reinterpret_cast<struct sockaddr_in6 *>(&storage)->sin6_port
                                    : reinterpret_cast<struct sockaddr_in *>(&storage)->sin_port);
    return fd;
}

ScopedFd accept_within(int listener, int timeout_ms)
{
    if (listener < 0)
        return ScopedFd();
    struct pollfd pfd = {listener, POLLIN, 0};
    if (poll(&pfd, 1, timeout_ms) != 1)
        return ScopedFd();
    return ScopedFd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
}

} // namespace

ScopedFd &ScopedFd::operator=(ScopedFd &&other) noexcept
{
    if (this != &other)
        reset(other.release());
    return *this;
}

int ScopedFd::release()
{
    int fd = fd_;
    fd_ = -1;
    return fd;
}

void ScopedFd::reset(int fd)
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = fd;
}

LoopbackListener::LoopbackListener(int family, int backlog)
{
    ScopedFd fd = bound_loopback_socket(family, port_);
    if (fd.get() >= 0 && listen(fd.get(), backlog) == 0)
        fd_ = std::move(fd);
}

ScopedFd LoopbackListener::Accept(int timeout_ms) const { return accept_within(fd_.get(), timeout_ms); }

int LoopbackListener::Drain() const
{
    int count = 0;
    // Bounded: a test never makes more connections than this.
    while (count < 10000 && accept_within(fd_.get(), 0).get() >= 0)
        count++;
    return count;
}

RefusedPort::RefusedPort(int family) { fd_ = bound_loopback_socket(family, port_); }

LocalListener::LocalListener(const std::string &path, int backlog)
{
    struct sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    if (path.size() >= sizeof address.sun_path)
        return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    ScopedFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() >= 0 &&
        bind(fd.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0 &&
        listen(fd.get(), backlog) == 0)
        fd_ = std::move(fd);
}

ScopedFd LocalListener::Accept(int timeout_ms) const { return accept_within(fd_.get(), timeout_ms); }

bool Connects(int family, int port)
{
    ScopedFd client(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_storage storage;
    socklen_t length = loopback_address(family, port, storage);
    return client.get() >= 0 && connect(client.get(), reinterpret_cast<struct sockaddr *>(&storage), length) == 0;
}

bool HasIPv6Loopback()
{
    LoopbackListener listener(AF_INET6);
    return listener.ok() && Connects(AF_INET6, listener.port());
}

int OpenDescriptorCount()
{
    DIR *dir = opendir("/proc/self/fd");
    if (!dir)
        return -1;
    int count = 0;
    while (struct dirent *entry = readdir(dir))
        if (entry->d_name[0] != '.')
            count++;
    closedir(dir);
    return count - 1; // the directory's own descriptor
}

bool PeerClosed(int fd, int timeout_ms)
{
    struct pollfd pfd = {fd, POLLIN, 0};
    if (poll(&pfd, 1, timeout_ms) != 1)
        return false;
    char byte;
    return recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
}

} // namespace zldap_test
