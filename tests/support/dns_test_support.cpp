// dns_test_support.cpp - answer builders, one lookup, the scripted name server.
#include "dns_test_support.h"

#include <chrono>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zldap_test {

namespace dns {

Bytes U16(unsigned value) { return {static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)}; }

Bytes Name(const std::string &dotted)
{
    Bytes out;
    size_t start = 0;
    while (start < dotted.size()) {
        size_t dot = dotted.find('.', start);
        if (dot == std::string::npos)
            dot = dotted.size();
        out.push_back(static_cast<unsigned char>(dot - start));
        out.insert(out.end(), dotted.begin() + static_cast<long>(start), dotted.begin() + static_cast<long>(dot));
        start = dot + 1;
    }
    out.push_back(0);
    return out;
}

Bytes Record(const std::string &name, int type, const Bytes &data)
{
    return Join({Name(name), U16(static_cast<unsigned>(type)), U16(1), Hex("00 00 00 3C"), U16(data.size()), data});
}

Bytes Srv(const std::string &name, unsigned priority, unsigned weight, unsigned port, const std::string &target)
{
    return Record(name, 33, Join({U16(priority), U16(weight), U16(port), Name(target)}));
}

Bytes Txt(const std::string &name, const std::vector<std::string> &strings)
{
    Bytes data;
    for (const std::string &s : strings) {
        data.push_back(static_cast<unsigned char>(s.size()));
        data.insert(data.end(), s.begin(), s.end());
    }
    return Record(name, 16, data);
}

Bytes Cname(const std::string &name, const std::string &target) { return Record(name, 5, Name(target)); }

Bytes Answer(unsigned id, unsigned flags, const std::string &question, int type, const std::vector<Bytes> &answers)
{
    Bytes out = Join({U16(id), U16(flags), U16(1), U16(answers.size()), U16(0), U16(0), Name(question),
                      U16(static_cast<unsigned>(type)), U16(1)});
    for (const Bytes &a : answers)
        out.insert(out.end(), a.begin(), a.end());
    return out;
}

std::vector<std::string> Servers(const server_info *list)
{
    std::vector<std::string> out;
    for (; list; list = list->next)
        out.push_back(std::string(list->host) + ":" + std::to_string(list->port) + "/" +
                      std::to_string(list->priority) + "/" + std::to_string(list->weight));
    return out;
}

LookupOutcome Lookup(const LookupRequest &request)
{
    server_request r{};
    r.connection_type = request.connection_type;
    r.connection_timeout = request.timeout;
    r.DN_filter = const_cast<char *>(request.filter);
    zldap::DnsQueryState q;
    zldap::dns_state_reset(&q, &r);
    auto start = std::chrono::steady_clock::now();
    LookupOutcome out{};
    out.rc = zldap::dns_lookup_service(&q, request.service, request.protocol, request.domain,
                                       request.name_server.c_str(), request.transport);
    out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    out.servers = Servers(q.results);
    auto text = [](const char *t) { return std::string(t ? t : "-"); };
    for (const server_info *s = q.results; s; s = s->next)
        out.details.push_back(std::to_string(s->sec_flag) + " " + std::to_string(s->replica) + " " + text(s->suffix) +
                              " " + text(s->vendor) + " " + text(s->info));
    out.truncated = q.truncated;
    zldap::dns_state_release(&q);
    return out;
}

} // namespace dns

namespace {

// The id, name and type of a query message; false when it is not one.
bool ParseQuery(const unsigned char *msg, size_t length, DnsQuery *query)
{
    if (length < 12)
        return false;
    query->id = static_cast<unsigned>(msg[0] << 8 | msg[1]);
    size_t pos = 12;
    query->name.clear();
    while (pos < length && msg[pos] != 0) {
        size_t n = msg[pos];
        if (n > 63 || pos + 1 + n > length)
            return false;
        if (!query->name.empty())
            query->name += '.';
        query->name.append(reinterpret_cast<const char *>(msg + pos + 1), n);
        pos += 1 + n;
    }
    if (pos + 5 > length)
        return false;
    query->type = msg[pos + 1] << 8 | msg[pos + 2];
    return true;
}

} // namespace

DnsPeer::DnsPeer(Script script) : script_(std::move(script)), udp_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(udp_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        getsockname(udp_.get(), reinterpret_cast<sockaddr *>(&address), &length) != 0)
        return;
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Serve(); });
}

DnsPeer::~DnsPeer()
{
    stopping_ = true;
    if (thread_.joinable())
        thread_.join();
}

void DnsPeer::Serve()
{
    while (!stopping_) {
        struct pollfd p = {udp_.get(), POLLIN, 0};
        if (poll(&p, 1, 50) <= 0)
            continue;
        unsigned char msg[1024];
        struct sockaddr_in from = {};
        socklen_t from_length = sizeof from;
        ssize_t n = recvfrom(udp_.get(), msg, sizeof msg, 0, reinterpret_cast<sockaddr *>(&from), &from_length);
        DnsQuery query;
        if (n <= 0 || !ParseQuery(msg, static_cast<size_t>(n), &query))
            continue;
        queries_++;
        for (const Bytes &answer : script_(query))
            sendto(udp_.get(), answer.data(), answer.size(), 0, reinterpret_cast<sockaddr *>(&from), from_length);
    }
}

} // namespace zldap_test
