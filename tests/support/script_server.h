// script_server.h - a small LDAP server driven by each test, for what a
// real directory server cannot be made to do: answers split at chosen
// offsets, delays, out-of-order answers, id 0 notifications, malformed
// responses and early closes. It listens on a loopback port; each accepted
// connection runs the test's script in a thread of its own.
#ifndef ZLDAP_TEST_SCRIPT_SERVER_H
#define ZLDAP_TEST_SCRIPT_SERVER_H

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zldap_test {

using Bytes = std::vector<unsigned char>;

// A request as the server framed it.
struct Request {
    int id = -1;
    int tag = -1;   // the protocol operation's tag
    Bytes message;  // the whole LDAPMessage, header included
};

// One accepted connection, as seen by a script.
class ScriptConnection {
public:
    explicit ScriptConnection(int fd) : fd_(fd) {}
    ~ScriptConnection();
    ScriptConnection(const ScriptConnection &) = delete;
    ScriptConnection &operator=(const ScriptConnection &) = delete;

    // The next request, or nothing when the client closed or the wait
    // (generous by default) ran out.
    std::optional<Request> Read(std::chrono::milliseconds wait = std::chrono::seconds(30));
    void Send(const Bytes &bytes);
    // Sends the bytes in pieces cut at the given offsets, pausing between them.
    void SendSplit(const Bytes &bytes, const std::vector<size_t> &cuts, std::chrono::milliseconds pause);
    void Close();

private:
    int fd_;
    Bytes pending_;
};

class ScriptServer {
public:
    using Script = std::function<void(ScriptConnection &)>;

    // Listens on 127.0.0.1 at a free port; every connection runs `script`.
    explicit ScriptServer(Script script);
    // Stops listening and waits for every script to end.
    ~ScriptServer();
    ScriptServer(const ScriptServer &) = delete;
    ScriptServer &operator=(const ScriptServer &) = delete;

    int port() const { return port_; }
    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }
    int connections() const { return accepted_.load(); }

private:
    void AcceptLoop();

    Script script_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> accepted_{0};
    std::thread acceptor_;
    std::mutex workers_mutex_;
    std::vector<std::thread> workers_;
};

// Responses, encoded with short-form lengths as servers usually send them.
namespace wire {

Bytes Tlv(int tag, const Bytes &contents);
Bytes Integer(int value, int tag = 0x02);
Bytes Octets(const std::string &text, int tag = 0x04);
Bytes Seq(const std::vector<Bytes> &items, int tag = 0x30);
// An LDAPMessage: the id, the protocol operation, optionally controls.
Bytes Message(int id, const Bytes &op, const Bytes &controls = {});
// An LDAPResult-shaped response (bind, search done, modify, ...).
Bytes Result(int id, int tag, int code, const std::string &matched = "", const std::string &text = "");
// A search entry with attributes of string values.
Bytes Entry(int id, const std::string &dn,
            const std::vector<std::pair<std::string, std::vector<std::string>>> &attributes);

} // namespace wire

} // namespace zldap_test

#endif
