// script_server.h - a small LDAP server driven by each test, for what a
// real directory server cannot be made to do: answers split at chosen
// offsets, delays, out-of-order answers, id 0 notifications, malformed
// responses and early closes. It listens on a loopback port; each accepted
// connection runs the test's script in a thread of its own.
#ifndef ZLDAP_TEST_SCRIPT_SERVER_H
#define ZLDAP_TEST_SCRIPT_SERVER_H

#include "ber_test_support.h"
#include "loopback.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zldap_test {

// A request as the server framed it.
struct Request {
    int id = -1;
    int tag = -1;  // the protocol operation's tag
    Bytes message; // the whole LDAPMessage
    Bytes op;      // what follows the message id: the operation and any controls
};

// One accepted connection, as seen by a script. Reading never allocates
// through the library's seam, so a script may serve an allocation sweep
// (with answers built before the sweep starts).
class ScriptConnection {
public:
    explicit ScriptConnection(int fd) : fd_(fd) {}
    ~ScriptConnection() { Close(); }

    // The next request, or nothing when the client closed or the wait
    // (generous by default) ran out.
    std::optional<Request> Read(std::chrono::milliseconds wait = std::chrono::seconds(30));
    void Send(const Bytes &bytes);
    void Close();

private:
    ScopedFd fd_;
    Bytes pending_;
};

class ScriptServer {
public:
    using Script = std::function<void(ScriptConnection &)>;

    // Listens on 127.0.0.1 at a free port; every connection runs `script`.
    explicit ScriptServer(Script script);
    // Stops listening and waits for every script to end.
    ~ScriptServer();

    int port() const { return listener_.port(); }
    std::string host() const { return "127.0.0.1:" + std::to_string(port()); }
    int connections() const { return accepted_.load(); }

private:
    Script script_;
    LoopbackListener listener_;
    std::atomic<bool> stopping_{false};
    std::atomic<int> accepted_{0};
    std::mutex workers_mutex_;
    std::vector<std::thread> workers_;
    std::thread acceptor_;
};

// Responses, encoded by the library's own encoder (which allocates through
// the seam).
namespace wire {

// The element builders of the one BER builder set, for answers written by hand.
using zldap_test::Integer;
using zldap_test::Octets;
using zldap_test::Seq;
using zldap_test::Tlv;

// An LDAPMessage: the id and whatever `op` writes after it.
Bytes Message(int id, const std::function<int(BerElement *)> &op);
// An LDAPResult-shaped response (bind, search done, modify, ...).
Bytes Result(int id, int tag, int code, const std::string &matched = "", const std::string &text = "");
// A search entry whose attributes have the given values.
Bytes Entry(int id, const std::string &dn,
            const std::vector<std::pair<std::string, std::vector<std::string>>> &attributes);

} // namespace wire

} // namespace zldap_test

#endif
