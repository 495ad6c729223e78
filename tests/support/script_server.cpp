// script_server.cpp - the scripted LDAP server of the tests.
#include "script_server.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace zldap_test {

namespace {

// Length of a whole BER element at the front of `data`, or 0 while it is
// incomplete, or -1 when the header is not one an LDAP client sends.
long ElementLength(const Bytes &data)
{
    if (data.size() < 2)
        return 0;
    size_t header = 2;
    size_t length = data[1];
    if (length & 0x80) {
        size_t count = length & 0x7F;
        if (count == 0 || count > 4)
            return -1;
        if (data.size() < 2 + count)
            return 0;
        length = 0;
        for (size_t i = 0; i < count; i++)
            length = (length << 8) | data[2 + i];
        header += count;
    }
    return data.size() >= header + length ? static_cast<long>(header + length) : 0;
}

// The message id and operation tag of a framed LDAPMessage.
void Describe(Request &request)
{
    const Bytes &m = request.message;
    size_t p = 2 + ((m[1] & 0x80) ? (m[1] & 0x7F) : 0);
    if (p + 2 > m.size() || m[p] != 0x02)
        return;
    size_t len = m[p + 1];
    int id = 0;
    for (size_t i = 0; i < len && p + 2 + i < m.size(); i++)
        id = (id << 8) | m[p + 2 + i];
    request.id = id;
    size_t op = p + 2 + len;
    if (op < m.size())
        request.tag = m[op];
}

Bytes LengthOctets(size_t length)
{
    if (length < 0x80)
        return {static_cast<unsigned char>(length)};
    Bytes octets;
    for (size_t l = length; l; l >>= 8)
        octets.insert(octets.begin(), static_cast<unsigned char>(l & 0xFF));
    octets.insert(octets.begin(), static_cast<unsigned char>(0x80 | octets.size()));
    return octets;
}

} // namespace

ScriptConnection::~ScriptConnection() { Close(); }

std::optional<Request> ScriptConnection::Read(std::chrono::milliseconds wait)
{
    auto deadline = std::chrono::steady_clock::now() + wait;
    for (;;) {
        long whole = ElementLength(pending_);
        if (whole < 0)
            return std::nullopt;
        if (whole > 0) {
            Request request;
            request.message.assign(pending_.begin(), pending_.begin() + whole);
            pending_.erase(pending_.begin(), pending_.begin() + whole);
            Describe(request);
            return request;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (fd_ < 0 || left.count() <= 0)
            return std::nullopt;
        struct pollfd pfd = {fd_, POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(left.count())) <= 0)
            continue;
        unsigned char buf[65536];
        ssize_t n = read(fd_, buf, sizeof buf);
        if (n <= 0)
            return std::nullopt;
        pending_.insert(pending_.end(), buf, buf + n);
    }
}

void ScriptConnection::Send(const Bytes &bytes)
{
    size_t sent = 0;
    while (fd_ >= 0 && sent < bytes.size()) {
        ssize_t n = send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            return;
        sent += static_cast<size_t>(n);
    }
}

void ScriptConnection::SendSplit(const Bytes &bytes, const std::vector<size_t> &cuts, std::chrono::milliseconds pause)
{
    size_t from = 0;
    for (size_t cut : cuts) {
        Send(Bytes(bytes.begin() + from, bytes.begin() + cut));
        from = cut;
        std::this_thread::sleep_for(pause);
    }
    Send(Bytes(bytes.begin() + from, bytes.end()));
}

void ScriptConnection::Close()
{
    if (fd_ >= 0) {
        shutdown(fd_, SHUT_RDWR);
        close(fd_);
        fd_ = -1;
    }
}

ScriptServer::ScriptServer(Script script) : script_(std::move(script))
{
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener_ < 0)
        throw std::runtime_error("socket failed");
    int one = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    struct sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(listener_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(listener_, 64) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr *>(&addr), &len) != 0)
        throw std::runtime_error("listen failed");
    port_ = ntohs(addr.sin_port);
    acceptor_ = std::thread([this] { AcceptLoop(); });
}

ScriptServer::~ScriptServer()
{
    stopping_ = true;
    acceptor_.join();
    close(listener_);
    std::lock_guard<std::mutex> lock(workers_mutex_);
    for (std::thread &worker : workers_)
        worker.join();
}

void ScriptServer::AcceptLoop()
{
    while (!stopping_) {
        struct pollfd pfd = {listener_, POLLIN, 0};
        if (poll(&pfd, 1, 50) <= 0)
            continue;
        int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        accepted_++;
        std::lock_guard<std::mutex> lock(workers_mutex_);
        workers_.emplace_back([this, fd] {
            ScriptConnection connection(fd);
            script_(connection);
        });
    }
}

namespace wire {

Bytes Tlv(int tag, const Bytes &contents)
{
    Bytes out = {static_cast<unsigned char>(tag)};
    Bytes length = LengthOctets(contents.size());
    out.insert(out.end(), length.begin(), length.end());
    out.insert(out.end(), contents.begin(), contents.end());
    return out;
}

Bytes Integer(int value, int tag)
{
    // The shortest two's complement form.
    Bytes octets;
    long v = value;
    do {
        octets.insert(octets.begin(), static_cast<unsigned char>(v & 0xFF));
        v >>= 8;
    } while (!((v == 0 && !(octets.front() & 0x80)) || (v == -1 && (octets.front() & 0x80))));
    return Tlv(tag, octets);
}

Bytes Octets(const std::string &text, int tag) { return Tlv(tag, Bytes(text.begin(), text.end())); }

Bytes Seq(const std::vector<Bytes> &items, int tag)
{
    Bytes contents;
    for (const Bytes &item : items)
        contents.insert(contents.end(), item.begin(), item.end());
    return Tlv(tag, contents);
}

Bytes Message(int id, const Bytes &op, const Bytes &controls)
{
    std::vector<Bytes> items = {Integer(id), op};
    if (!controls.empty())
        items.push_back(controls);
    return Seq(items);
}

Bytes Result(int id, int tag, int code, const std::string &matched, const std::string &text)
{
    return Message(id, Seq({Integer(code, 0x0A), Octets(matched), Octets(text)}, tag));
}

Bytes Entry(int id, const std::string &dn,
            const std::vector<std::pair<std::string, std::vector<std::string>>> &attributes)
{
    std::vector<Bytes> attrs;
    for (const auto &[type, values] : attributes) {
        std::vector<Bytes> vals;
        for (const std::string &v : values)
            vals.push_back(Octets(v));
        attrs.push_back(Seq({Octets(type), Seq(vals, 0x31)}));
    }
    return Message(id, Seq({Octets(dn), Seq(attrs)}, 0x64));
}

} // namespace wire

} // namespace zldap_test
