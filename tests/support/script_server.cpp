// script_server.cpp - the scripted LDAP server of the tests.
#include "script_server.h"

#include <poll.h>
#include <stdexcept>
#include <unistd.h>

namespace zldap_test {

namespace {

// The size of the element at the front of data with its header: the
// header's own size in *header, 0 while the element is incomplete.
size_t WholeElement(const Bytes &data, size_t *header)
{
    if (data.size() < 2)
        return 0;
    size_t count = (data[1] & 0x80) ? data[1] & 0x7F : 0;
    size_t length = count ? 0 : data[1];
    for (size_t i = 0; i < count && 2 + i < data.size(); i++)
        length = length << 8 | data[2 + i];
    *header = 2 + count;
    return data.size() >= *header + length ? *header + length : 0;
}

} // namespace

std::optional<Request> ScriptConnection::Read(std::chrono::milliseconds wait)
{
    auto deadline = std::chrono::steady_clock::now() + wait;
    size_t header = 0, whole = 0;
    while (!(whole = WholeElement(pending_, &header))) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (fd_.get() < 0 || left.count() <= 0)
            return std::nullopt;
        struct pollfd pfd = {fd_.get(), POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(left.count())) <= 0)
            continue;
        unsigned char buf[65536];
        ssize_t n = read(fd_.get(), buf, sizeof buf);
        if (n <= 0)
            return std::nullopt;
        pending_.insert(pending_.end(), buf, buf + n);
    }
    Request request;
    request.message.assign(pending_.begin(), pending_.begin() + static_cast<long>(whole));
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<long>(whole));
    // The message id is a short INTEGER right after the header.
    const Bytes &m = request.message;
    size_t op = header + 2 + m[header + 1];
    request.id = 0;
    for (size_t i = header + 2; i < op && i < m.size(); i++)
        request.id = request.id << 8 | m[i];
    if (op < m.size()) {
        request.tag = m[op];
        request.op.assign(m.begin() + static_cast<long>(op), m.end());
    }
    return request;
}

// A blocking send writes everything; a peer that has gone is no error here.
void ScriptConnection::Send(const Bytes &bytes) { send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }

void ScriptConnection::Close()
{
    if (fd_.get() >= 0)
        shutdown(fd_.get(), SHUT_RDWR);
    fd_.reset();
}

ScriptServer::ScriptServer(Script script) : script_(std::move(script))
{
    if (!listener_.ok())
        throw std::runtime_error("cannot listen on 127.0.0.1");
    acceptor_ = std::thread([this] {
        for (;;) {
            // Connections queued before the stop still run their script.
            bool stopping = stopping_;
            ScopedFd fd = listener_.Accept(stopping ? 0 : 50);
            if (fd.get() < 0 && stopping)
                break;
            if (fd.get() < 0)
                continue;
            accepted_++;
            std::lock_guard<std::mutex> lock(workers_mutex_);
            workers_.emplace_back([this, fd = fd.release()] {
                ScriptConnection connection(fd);
                script_(connection);
            });
        }
    });
}

ScriptServer::~ScriptServer()
{
    stopping_ = true;
    acceptor_.join();
    for (std::thread &worker : workers_)
        worker.join();
}

namespace wire {

Bytes Message(int id, const std::function<int(BerElement *)> &op)
{
    return Encode([&](BerElement *ber) { return fber_printf(ber, "{i", id) || op(ber) || fber_printf(ber, "}"); });
}

Bytes Result(int id, int tag, int code, const std::string &matched, const std::string &text)
{
    return Message(id, [&](BerElement *ber) {
        return fber_printf(ber, "t{ess}", static_cast<ber_tag_t>(tag), code, matched.c_str(), text.c_str());
    });
}

Bytes Entry(int id, const std::string &dn,
            const std::vector<std::pair<std::string, std::vector<std::string>>> &attributes)
{
    return Message(id, [&](BerElement *ber) {
        int rc = fber_printf(ber, "t{s{", static_cast<ber_tag_t>(0x64), dn.c_str());
        for (const auto &[type, values] : attributes) {
            rc |= fber_printf(ber, "{s[", type.c_str());
            for (const std::string &v : values)
                rc |= fber_printf(ber, "o", v.data(), static_cast<int>(v.size()));
            rc |= fber_printf(ber, "]}");
        }
        return rc | fber_printf(ber, "}}");
    });
}

} // namespace wire

} // namespace zldap_test
