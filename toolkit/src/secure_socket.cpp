// secure_socket.cpp - one TLS client connection: the handshake over the
// library's callbacks with the key database's trust and the labelled client
// key, then reads and writes that report "would block" (502) when the
// callbacks found nothing to move within their wait.
#include "secure_socket.h"

#include "callback_bio.h"
#include "cert_info.h"
#include "environment.h"
#include "tls_policy.h"

#include <openssl/err.h>

#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace zor {

namespace {

// Bounds a handshake whose callbacks keep answering "would block" (their
// own handshake time-out normally ends it much sooner).
constexpr std::chrono::seconds kHandshakeLimit{60};
constexpr int kHandshakeMode = 900;
constexpr int kReadWriteMode = 901;

std::string peer_address(int fd)
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        return {};
    char host[INET6_ADDRSTRLEN] = "";
    unsigned port = 0;
    if (address.ss_family == AF_INET) {
        auto *v4 = reinterpret_cast<sockaddr_in *>(&address);
        inet_ntop(AF_INET, &v4->sin_addr, host, sizeof host);
        port = ntohs(v4->sin_port);
    } else if (address.ss_family == AF_INET6) {
        auto *v6 = reinterpret_cast<sockaddr_in6 *>(&address);
        inet_ntop(AF_INET6, &v6->sin6_addr, host, sizeof host);
        port = ntohs(v6->sin6_port);
    } else {
        return {};
    }
    return std::string(host) + "/" + std::to_string(port);
}

int verification_code(long result)
{
    long code = ZOR_ERR_VERIFY_BASE + result;
    return code <= ZOR_ERR_VERIFY_LAST ? static_cast<int>(code) : ZOR_ERR_VERIFY_BASE + X509_V_ERR_UNSPECIFIED;
}

int ssl_reason_code(int reason)
{
    switch (reason) {
    case SSL_R_NO_CIPHERS_AVAILABLE:
    case SSL_R_NO_SHARED_CIPHER:
    case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
    case SSL_R_TLSV1_ALERT_INSUFFICIENT_SECURITY:
        return ZOR_ERR_NO_CIPHERS;
    case SSL_R_UNSUPPORTED_PROTOCOL:
    case SSL_R_NO_PROTOCOLS_AVAILABLE:
    case SSL_R_TLSV1_ALERT_PROTOCOL_VERSION:
    case SSL_R_WRONG_SSL_VERSION:
    case SSL_R_VERSION_TOO_LOW:
    case SSL_R_UNSUPPORTED_SSL_VERSION:
        return ZOR_ERR_NO_PROTOCOL;
    case SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED:
        return ZOR_ERR_NO_CERTIFICATE;
    case SSL_R_SSLV3_ALERT_BAD_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN:
    case SSL_R_TLSV1_ALERT_UNKNOWN_CA:
        return ZOR_ERR_BAD_CERTIFICATE;
    case SSL_R_DECRYPTION_FAILED_OR_BAD_RECORD_MAC:
    case SSL_R_SSLV3_ALERT_BAD_RECORD_MAC:
        return ZOR_ERR_BAD_MAC;
    case SSL_R_UNEXPECTED_EOF_WHILE_READING:
        return ZOR_ERR_SOCKET_CLOSED;
    default:
        return ZOR_ERR_BAD_MESSAGE;
    }
}

// The reason code of a failed handshake, read or write.
int failure_code(SecureSocket &soc, int result)
{
    int error = SSL_get_error(soc.ssl.get(), result);
    long verified = SSL_get_verify_result(soc.ssl.get());
    if (verified != X509_V_OK)
        return verification_code(verified);
    if (soc.io_errno)
        return ZOR_ERR_IO;
    if (error == SSL_ERROR_SYSCALL || error == SSL_ERROR_ZERO_RETURN)
        return ZOR_ERR_SOCKET_CLOSED;
    unsigned long detail = ERR_peek_last_error();
    if (error == SSL_ERROR_SSL && ERR_GET_LIB(detail) == ERR_LIB_SSL)
        return ssl_reason_code(ERR_GET_REASON(detail));
    return ZOR_ERR_INTERNAL;
}

// Waits for the descriptor when a callback answered "would block" at once;
// waiting is not I/O, the data still moves through the callbacks.
bool wait_for(const SecureSocket &soc, int error, std::chrono::steady_clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
        return false;
    pollfd p{soc.fd, static_cast<short>(error == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN), 0};
    return poll(&p, 1, static_cast<int>(left.count())) != 0;
}

void set_socket_options(SecureSocket &soc, int command)
{
    const zor_io_callbacks &cb = soc.environment->callbacks;
    if (cb.set_socket_options)
        cb.set_socket_options(soc.fd, command, soc.option_scratch);
}

int prepare_ssl(SecureSocket &soc)
{
    Environment &env = *soc.environment;
    soc.ssl.reset(SSL_new(env.context.get()));
    BIO *bio = soc.ssl ? new_callback_bio(soc) : nullptr;
    if (!bio)
        return ZOR_ERR_INSUFFICIENT_STORAGE;
    SSL_set_bio(soc.ssl.get(), bio, bio);
    SSL_set_app_data(soc.ssl.get(), &soc);
    int rc = apply_tls_policy(soc.ssl.get(), soc.settings, env);
    if (rc != ZOR_OK)
        return rc;
    if (!soc.settings.label.empty()) {
        const KdbEntry *entry = env.database.find(soc.settings.label);
        if (!entry || !entry->key)
            return entry ? ZOR_ERR_NO_PRIVATE_KEY : ZOR_ERR_KEY_LABEL_NOT_FOUND;
        if (!SSL_use_certificate(soc.ssl.get(), entry->cert.get()) || !SSL_use_PrivateKey(soc.ssl.get(), entry->key.get()))
            return ZOR_ERR_BAD_CERTIFICATE;
    }
    soc.peer = peer_address(soc.fd);
    if (SSL_SESSION *session = soc.peer.empty() ? nullptr : cached_session(env, soc.peer)) {
        SSL_set_session(soc.ssl.get(), session);
        SSL_SESSION_free(session);
    }
    return ZOR_OK;
}

void record_connection(SecureSocket &soc)
{
    const SSL_CIPHER *cipher = SSL_get_current_cipher(soc.ssl.get());
    uint16_t id = cipher ? SSL_CIPHER_get_protocol_id(cipher) : 0;
    char code[8];
    std::snprintf(code, sizeof code, id > 0xff ? "%04X" : "%02X", id);
    soc.cipher_code = code;
    const char *name = cipher ? SSL_CIPHER_standard_name(cipher) : nullptr;
    soc.cipher_name = name ? name : cipher ? SSL_CIPHER_get_name(cipher) : "";
    soc.protocol = SSL_version(soc.ssl.get()) == TLS1_3_VERSION ? "TLS13" : "TLS12";
    note_cipher(*soc.environment, soc.cipher_code);
}

// The part a read and a write share once the length is known good: one
// SSL_read_ex or SSL_write_ex through io(ssl, length, &done). "Would block"
// when the callbacks moved nothing; a close_notify ends a read's stream
// with no bytes and no error.
template <typename Io> int transfer(SecureSocket &soc, int length, int *count, bool reading, Io io)
{
    if (soc.state != SecureSocket::State::connected)
        return ZOR_ERR_INVALID_STATE;
    if (length == 0)
        return ZOR_OK;
    ERR_clear_error();
    soc.io_errno = 0;
    size_t done = 0;
    int result = io(soc.ssl.get(), static_cast<size_t>(length), &done);
    if (result == 1) {
        *count = static_cast<int>(done);
        return ZOR_OK;
    }
    int error = SSL_get_error(soc.ssl.get(), result);
    int rc = error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE ? ZOR_ERR_WOULD_BLOCK
             : reading && error == SSL_ERROR_ZERO_RETURN                    ? ZOR_OK
                                                                            : failure_code(soc, result);
    ERR_clear_error();
    return rc;
}

} // namespace

SecureSocket::~SecureSocket()
{
    ssl.reset();
    if (environment)
        environment->release();
    magic = 0;
}

int open_secure_socket(Environment &env, SecureSocket *&out)
{
    if (!env.initialised)
        return ZOR_ERR_INVALID_STATE;
    auto *soc = new SecureSocket;
    env.references.fetch_add(1);
    soc->environment = &env;
    soc->settings = env.defaults;
    std::memset(soc->option_scratch, 0, sizeof soc->option_scratch);
    out = soc;
    return ZOR_OK;
}

int handshake(SecureSocket &soc)
{
    if (soc.state != SecureSocket::State::opened || soc.fd < 0)
        return ZOR_ERR_INVALID_STATE;
    const zor_io_callbacks &cb = soc.environment->callbacks;
    if (!cb.read)
        return ZOR_ERR_NO_READ_FUNCTION;
    if (!cb.write)
        return ZOR_ERR_NO_WRITE_FUNCTION;
    soc.state = SecureSocket::State::failed;
    ERR_clear_error();
    int rc = prepare_ssl(soc);
    if (rc == ZOR_OK)
        set_socket_options(soc, kHandshakeMode);
    auto deadline = std::chrono::steady_clock::now() + kHandshakeLimit;
    while (rc == ZOR_OK) {
        ERR_clear_error();
        int result = SSL_connect(soc.ssl.get());
        if (result == 1)
            break;
        int error = SSL_get_error(soc.ssl.get(), result);
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE)
            rc = failure_code(soc, result);
        else if (!wait_for(soc, error, deadline))
            rc = ZOR_ERR_HANDSHAKE_TIMEOUT;
    }
    ERR_clear_error();
    if (rc != ZOR_OK)
        return rc;
    soc.state = SecureSocket::State::connected;
    record_connection(soc);
    set_socket_options(soc, kReadWriteMode);
    return ZOR_OK;
}

int secure_read(SecureSocket &soc, char *buffer, int length, int *count)
{
    if (!buffer) {
        // How many decrypted bytes wait, so that the caller need not wait
        // on a socket that will show nothing.
        if (length != 1)
            return ZOR_ERR_INVALID_LENGTH;
        *count = soc.state == SecureSocket::State::connected ? SSL_pending(soc.ssl.get()) : 0;
        return ZOR_OK;
    }
    *count = 0;
    if (length < 0)
        return ZOR_ERR_INVALID_LENGTH;
    auto io = [buffer](SSL *ssl, size_t n, size_t *done) { return SSL_read_ex(ssl, buffer, n, done); };
    return transfer(soc, length, count, true, io);
}

int secure_write(SecureSocket &soc, const char *buffer, int length, int *count)
{
    *count = 0;
    if (length < 0 || (!buffer && length > 0))
        return ZOR_ERR_INVALID_LENGTH;
    auto io = [buffer](SSL *ssl, size_t n, size_t *done) { return SSL_write_ex(ssl, buffer, n, done); };
    return transfer(soc, length, count, false, io);
}

void close_secure_socket(SecureSocket *soc)
{
    // A connection that is still good is ended with a close_notify; one
    // that failed is simply dropped.
    if (soc->state == SecureSocket::State::connected) {
        ERR_clear_error();
        SSL_shutdown(soc->ssl.get());
        ERR_clear_error();
    }
    delete soc;
}

int peer_certificate_info(SecureSocket &soc, zor_cert_element **elements, int *count)
{
    if (soc.state != SecureSocket::State::connected)
        return ZOR_ERR_INVALID_STATE;
    if (!soc.cert_info_built) {
        X509 *peer = SSL_get0_peer_certificate(soc.ssl.get());
        if (!peer)
            return ZOR_ERR_NO_CERTIFICATE;
        std::vector<CertText> texts = describe_certificate(peer);
        for (CertText &t : texts)
            soc.cert_texts.push_back(std::move(t.text));
        // The texts are complete before any pointer into them is taken.
        for (size_t i = 0; i < texts.size(); i++)
            soc.cert_elements.push_back({texts[i].type, soc.cert_texts[i].c_str()});
        soc.cert_info_built = true;
    }
    *elements = soc.cert_elements.data();
    *count = static_cast<int>(soc.cert_elements.size());
    return ZOR_OK;
}

} // namespace zor
