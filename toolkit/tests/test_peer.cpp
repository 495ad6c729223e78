// test_peer.cpp - the test server, the loaded entry points and the test
// callbacks.
#include "test_peer.h"

#include <arpa/inet.h>
#include <csignal>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <stdexcept>

namespace zortest {

TestServer::TestServer(const ServerSetup &setup) : ctx_(SSL_CTX_new(TLS_server_method())), hang_up_(setup.hang_up)
{
    SSL_CTX *ctx = ctx_.get();
    if (setup.security_level >= 0)
        SSL_CTX_set_security_level(ctx, setup.security_level);
    if (!SSL_CTX_use_certificate(ctx, setup.identity->cert.get()) || !SSL_CTX_use_PrivateKey(ctx, setup.identity->key.get()))
        throw std::runtime_error("server identity");
    if (setup.min_version)
        SSL_CTX_set_min_proto_version(ctx, setup.min_version);
    if (setup.max_version)
        SSL_CTX_set_max_proto_version(ctx, setup.max_version);
    if (setup.cipher_list)
        SSL_CTX_set_cipher_list(ctx, setup.cipher_list);
    if (setup.ciphersuites)
        SSL_CTX_set_ciphersuites(ctx, setup.ciphersuites);
    if (setup.server_preference)
        SSL_CTX_set_options(ctx, SSL_OP_CIPHER_SERVER_PREFERENCE);
    if (setup.client_ca) {
        X509_STORE_add_cert(SSL_CTX_get_cert_store(ctx), setup.client_ca->cert.get());
        SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    static const unsigned char context[] = "zortest";
    SSL_CTX_set_session_id_context(ctx, context, sizeof context - 1);
}

TestServer::~TestServer()
{
    if (thread_.joinable())
        thread_.join();
}

void TestServer::serve(int fd)
{
    if (thread_.joinable())
        thread_.join();
    result_ = Result();
    thread_ = std::thread([this, fd] {
        // A client gone away must not end the test program through SIGPIPE.
        sigset_t pipe_only;
        sigemptyset(&pipe_only);
        sigaddset(&pipe_only, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_only, nullptr);
        zor::SslPtr ssl(SSL_new(ctx_.get()));
        SSL_set_fd(ssl.get(), fd);
        if (SSL_accept(ssl.get()) == 1) {
            result_.handshake_ok = true;
            result_.reused = SSL_session_reused(ssl.get());
            if (X509 *peer = SSL_get0_peer_certificate(ssl.get()))
                result_.client_cn = subject_cn(peer);
            char buffer[4096];
            int n;
            while (!hang_up_ && (n = SSL_read(ssl.get(), buffer, sizeof buffer)) > 0)
                if (SSL_write(ssl.get(), buffer, n) <= 0)
                    break;
            SSL_shutdown(ssl.get());
        }
        close(fd);
    });
}

TestServer::Result TestServer::wait()
{
    if (thread_.joinable())
        thread_.join();
    return result_;
}

namespace {

const char *const kNames[] = {
    "zor_environment_open", "zor_environment_close", "zor_environment_init",
    "zor_secure_soc_open", "zor_secure_soc_init", "zor_secure_soc_close",
    "zor_secure_soc_read", "zor_secure_soc_write", "zor_attribute_set_buffer",
    "zor_attribute_get_buffer", "zor_attribute_set_callback", "zor_attribute_get_cert_info",
    "zor_attribute_set_numeric_value", "zor_attribute_get_numeric_value", "zor_attribute_set_enum",
    "zor_attribute_get_enum", "zor_strerror", "zor_get_cert_by_label", nullptr,
};

int test_read(int fd, void *buffer, int length, void *user_data)
{
    io_log().reads++;
    io_log().user_data = user_data;
    return static_cast<int>(read(fd, buffer, static_cast<size_t>(length)));
}

int test_write(int fd, const void *buffer, int length, void *user_data)
{
    io_log().writes++;
    io_log().user_data = user_data;
    // Plain write, as the library's callback does: the toolkit keeps a
    // closed peer's SIGPIPE from ending the process.
    return static_cast<int>(write(fd, buffer, static_cast<size_t>(length)));
}

int test_options(int, int command, void *)
{
    io_log().last_option = command;
    return 0;
}

} // namespace

const char *const *entry_point_names() { return kNames; }

const Zorlib &zorlib()
{
    static const Zorlib api = [] {
        Zorlib z{};
        void *lib = dlopen(ZOR_SSL_LIBRARY, RTLD_NOW | RTLD_GLOBAL);
        if (!lib)
            throw std::runtime_error(dlerror());
        void **slots = reinterpret_cast<void **>(&z);
        for (int i = 0; kNames[i]; i++)
            if (!(slots[i] = dlsym(lib, kNames[i])))
                throw std::runtime_error(kNames[i]);
        return z;
    }();
    return api;
}

IoLog &io_log()
{
    static IoLog log;
    return log;
}

const zor_io_callbacks &test_callbacks()
{
    static const zor_io_callbacks callbacks = {test_read, test_write, nullptr, test_options, nullptr, nullptr};
    return callbacks;
}

void connected_pair(int fds[2], bool tcp)
{
    if (!tcp) {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
            throw std::runtime_error("socketpair");
        return;
    }
    // One listener for the whole program: every connection reaches the
    // same server address, as an LDAP server's do.
    static sockaddr_in address{};
    static socklen_t length = sizeof address;
    static int listener = [] {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(fd, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(fd, 4) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
            throw std::runtime_error("listen");
        return fd;
    }();
    // Connect and accept in one step, so that each caller gets its own pair.
    static std::mutex pairing;
    std::lock_guard<std::mutex> lock(pairing);
    fds[0] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fds[0], reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        (fds[1] = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) < 0)
        throw std::runtime_error("connect");
}

} // namespace zortest
