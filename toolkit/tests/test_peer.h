// test_peer.h - the two ends of a test connection: a small OpenSSL server
// that runs each connection in its own thread and echoes what it reads,
// and the toolkit's entry points resolved from the built libzor8ssl_64.so
// the way the library resolves them, with I/O callbacks over a descriptor.
#ifndef ZOR_TEST_PEER_H
#define ZOR_TEST_PEER_H

#include "test_pki.h"
#include "zor_toolkit.h"

#include <atomic>
#include <string>
#include <thread>

namespace zortest {

struct ServerSetup {
    const KeyPair *identity = nullptr;
    int min_version = 0, max_version = 0;
    const char *cipher_list = nullptr, *ciphersuites = nullptr;
    bool server_preference = false;
    const KeyPair *client_ca = nullptr; // asks for, and requires, a client certificate
    int security_level = -1;
    bool hang_up = false; // closes right after the handshake
};

class TestServer {
public:
    struct Result {
        bool handshake_ok = false;
        bool reused = false;
        std::string client_cn;
    };

    explicit TestServer(const ServerSetup &setup);
    ~TestServer();
    // Runs one connection on fd (closed when it ends) in a thread.
    void serve(int fd);
    // Waits for the connection started last.
    Result wait();

private:
    zor::SslCtxPtr ctx_;
    bool hang_up_;
    std::thread thread_;
    Result result_;
};

// The entry points, resolved by name from the toolkit's shared object.
struct Zorlib {
    decltype(&zor_environment_open) environment_open;
    decltype(&zor_environment_close) environment_close;
    decltype(&zor_environment_init) environment_init;
    decltype(&zor_secure_soc_open) secure_soc_open;
    decltype(&zor_secure_soc_init) secure_soc_init;
    decltype(&zor_secure_soc_close) secure_soc_close;
    decltype(&zor_secure_soc_read) secure_soc_read;
    decltype(&zor_secure_soc_write) secure_soc_write;
    decltype(&zor_attribute_set_buffer) attribute_set_buffer;
    decltype(&zor_attribute_get_buffer) attribute_get_buffer;
    decltype(&zor_attribute_set_callback) attribute_set_callback;
    decltype(&zor_attribute_get_cert_info) attribute_get_cert_info;
    decltype(&zor_attribute_set_numeric_value) attribute_set_numeric_value;
    decltype(&zor_attribute_get_numeric_value) attribute_get_numeric_value;
    decltype(&zor_attribute_set_enum) attribute_set_enum;
    decltype(&zor_attribute_get_enum) attribute_get_enum;
    decltype(&zor_strerror) strerror;
    decltype(&zor_get_cert_by_label) get_cert_by_label;
};

// Loads the toolkit once; fails the calling test when a name is missing.
const Zorlib &zorlib();
const char *const *entry_point_names(); // the eighteen, NULL-terminated

// What the test callbacks saw.
struct IoLog {
    std::atomic<int> reads{0}, writes{0};
    std::atomic<void *> user_data{nullptr};
    std::atomic<int> last_option{0};
};
IoLog &io_log();
// Callbacks that read and write the descriptor itself, as the library's do.
const zor_io_callbacks &test_callbacks();

// A connected pair of loopback TCP sockets (client, server), so that the
// peer has an address; or a socketpair when tcp is false.
void connected_pair(int fds[2], bool tcp);

} // namespace zortest

#endif
