// handles.h - what the toolkit's opaque handles point at: an environment
// (key database, trust, protocol and FIPS settings, I/O callbacks; built
// into an OpenSSL client context by zor_environment_init) and a secure
// socket (one TLS connection over the library's descriptor, inheriting the
// environment's connection settings).
#ifndef ZOR_HANDLES_H
#define ZOR_HANDLES_H

#include "key_database.h"
#include "zor_toolkit.h"

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace zor {

constexpr uint32_t kEnvironmentMagic = 0x5a454e56; // "ZENV"
constexpr uint32_t kSocketMagic = 0x5a534f43;      // "ZSOC"

// Protocol switches and cipher lists: set on an environment as defaults,
// copied into each secure socket, where they may be changed again.
struct ConnectionSettings {
    bool tls1 = true;  // TLS 1.2 and 1.3 as a group
    bool tls12 = true; // TLS 1.2 alone
    // Recorded and reported, never negotiated.
    bool sslv2 = false, sslv3 = false, tls10 = false, tls11 = false;
    std::string v3_ciphers, tls10_ciphers, tls11_ciphers; // two-hex-digit codes
    std::string tls12_ciphers;                            // four-hex-digit codes
    std::string label;
};

struct FipsSettings {
    bool fips = false;     // 415: suites, algorithms and the key database
    bool ssl_fips = false; // 420: suites and algorithms only
    bool voc_fips = false; // 421: the same, asked for with Suite B
    int base_crypto = ZOR_BASE_CRYPTO_SYSTEM;
    int accelerator = 0; // bits 1, 2, 4: recorded only
    int suiteb = 0;      // 0, 128 or 192

    bool restricts_algorithms() const { return fips || ssl_fips || voc_fips; }
};

struct Environment {
    uint32_t magic = kEnvironmentMagic;
    std::atomic<int> references{1}; // the handle, and each open socket

    // Settings, fixed once the environment is initialised.
    std::string keyring_file, keyring_password, stash_file;
    bool has_password = false;
    std::string pkcs11_path, pkcs11_label, pkcs11_password;
    std::string sigalgs; // four-hex-digit signature scheme codes
    int session_timeout = 43200;
    ConnectionSettings defaults;
    FipsSettings fips;
    zor_io_callbacks callbacks{};
    bool has_callbacks = false;

    // Built by zor_environment_init.
    bool initialised = false;
    KeyDatabase database;
    SslCtxPtr context;
    std::map<std::string, std::string> pem_by_label;

    // Shared by the sockets once initialised.
    std::mutex mutex;
    char last_cipher[8] = {0};
    std::map<std::string, SSL_SESSION *> sessions; // by peer address

    ~Environment();
    void release();
};

struct SecureSocket {
    uint32_t magic = kSocketMagic;
    Environment *environment = nullptr; // holds a reference
    int fd = -1;
    ConnectionSettings settings;
    std::string user_data;   // attribute 200, handed to the callbacks
    char option_scratch[8];  // the user data of set_socket_options
    SslPtr ssl;
    enum class State { opened, connected, failed } state = State::opened;
    std::string peer; // the peer's address, the session cache key

    // Read back after the handshake.
    std::string cipher_code, cipher_name, protocol;
    std::vector<std::string> cert_texts;
    std::vector<zor_cert_element> cert_elements;
    bool cert_info_built = false;

    // What the callbacks reported, for the reason code of a failure.
    int io_errno = 0;
    bool peer_closed = false;

    ~SecureSocket();
    void *user_data_pointer() { return user_data.empty() ? nullptr : user_data.data(); }
};

Environment *as_environment(zor_handle h);
SecureSocket *as_socket(zor_handle h);

} // namespace zor

#endif
