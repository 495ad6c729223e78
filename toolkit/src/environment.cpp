// environment.cpp - initialising an environment: the key database is
// opened with its password (or the stash file's), its trusted certificates
// become the trust store and an OpenSSL client context is built that every
// secure socket of the environment shares. Client sessions are cached per
// peer address for the session time-out.
#include "environment.h"

#include "stash_file.h"
#include "tls_policy.h"

#include <openssl/err.h>
#include <openssl/pem.h>

namespace zor {

namespace {

// Caps the session cache; when it is full the first peer in address order
// makes room.
constexpr size_t kMaxCachedPeers = 256;

int password_of(const Environment &env, std::string &password)
{
    if (env.has_password) {
        password = env.keyring_password;
        return ZOR_OK;
    }
    if (env.stash_file.empty())
        return ZOR_ERR_NO_PASSWORD;
    switch (read_stash_file(env.stash_file, password)) {
    case KdbStatus::ok:
        return ZOR_OK;
    case KdbStatus::loose_permissions:
        return ZOR_ERR_PERMISSION_DENIED;
    case KdbStatus::bad_format:
        return ZOR_ERR_KEYFILE_INVALID_FORMAT;
    default:
        return ZOR_ERR_NO_PASSWORD;
    }
}

int open_database(Environment &env)
{
    std::string password;
    int rc = password_of(env, password);
    if (rc != ZOR_OK)
        return rc;
    if (env.keyring_file.empty())
        return ZOR_ERR_KEYRING_OPEN;
    KeyDatabase db;
    switch (read_key_database(env.keyring_file, password, db)) {
    case KdbStatus::ok:
        break;
    case KdbStatus::bad_password:
        return ZOR_ERR_BAD_KEYFILE_PASSWORD;
    case KdbStatus::bad_format:
        return ZOR_ERR_KEYFILE_INVALID_FORMAT;
    default:
        return ZOR_ERR_KEYRING_OPEN;
    }
    env.database = std::move(db);
    return ZOR_OK;
}

int check_database(const Environment &env)
{
    for (const KdbEntry &e : env.database.entries())
        if (e.key && env.fips.fips && !is_fips_key(e.key.get()))
            return ZOR_ERR_FIPS_KEYRING;
    if (env.defaults.label.empty())
        return ZOR_OK;
    const KdbEntry *entry = env.database.find(env.defaults.label);
    if (!entry)
        return ZOR_ERR_KEY_LABEL_NOT_FOUND;
    return entry->key ? ZOR_OK : ZOR_ERR_NO_PRIVATE_KEY;
}

int remember_session(SSL *ssl, SSL_SESSION *session)
{
    SecureSocket *soc = socket_of_ssl(ssl);
    if (!soc || soc->peer.empty())
        return 0;
    Environment &env = *soc->environment;
    std::lock_guard<std::mutex> lock(env.mutex);
    auto it = env.sessions.find(soc->peer);
    if (it != env.sessions.end()) {
        SSL_SESSION_free(it->second);
        env.sessions.erase(it);
    } else if (env.sessions.size() >= kMaxCachedPeers) {
        SSL_SESSION_free(env.sessions.begin()->second);
        env.sessions.erase(env.sessions.begin());
    }
    env.sessions.emplace(soc->peer, session);
    return 1; // the cache keeps the reference
}

int build_context(Environment &env)
{
    SslCtxPtr ctx(SSL_CTX_new(TLS_client_method()));
    if (!ctx)
        return ZOR_ERR_INSUFFICIENT_STORAGE;
    X509_STORE *store = SSL_CTX_get_cert_store(ctx.get());
    for (const KdbEntry &e : env.database.entries())
        if (!e.key && !X509_STORE_add_cert(store, e.cert.get()))
            return ZOR_ERR_INTERNAL;
    SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_mode(ctx.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // A session time-out of 0 turns resumption off.
    if (env.session_timeout > 0) {
        SSL_CTX_set_timeout(ctx.get(), env.session_timeout);
        SSL_CTX_set_session_cache_mode(ctx.get(), SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
        SSL_CTX_sess_set_new_cb(ctx.get(), remember_session);
    } else {
        SSL_CTX_set_session_cache_mode(ctx.get(), SSL_SESS_CACHE_OFF);
    }
    env.context = std::move(ctx);
    return ZOR_OK;
}

int index_certificates(Environment &env)
{
    for (const KdbEntry &e : env.database.entries()) {
        BioPtr bio(BIO_new(BIO_s_mem()));
        char *text = nullptr;
        long length = 0;
        if (!bio || !PEM_write_bio_X509(bio.get(), e.cert.get()) || (length = BIO_get_mem_data(bio.get(), &text)) <= 0)
            return ZOR_ERR_INSUFFICIENT_STORAGE;
        env.pem_by_label[e.label] = std::string(text, static_cast<size_t>(length));
    }
    return ZOR_OK;
}

} // namespace

SecureSocket *socket_of_ssl(SSL *ssl) { return static_cast<SecureSocket *>(SSL_get_app_data(ssl)); }

Environment::~Environment()
{
    for (auto &s : sessions)
        SSL_SESSION_free(s.second);
    OPENSSL_cleanse(keyring_password.data(), keyring_password.size());
    OPENSSL_cleanse(pkcs11_password.data(), pkcs11_password.size());
}

void Environment::release()
{
    if (references.fetch_sub(1) == 1) {
        magic = 0;
        delete this;
    }
}

int initialise_environment(Environment &env)
{
    if (env.initialised)
        return ZOR_OK;
    // No PKCS#11 provider is available to OpenSSL here: a token is refused
    // rather than silently ignored.
    if (!env.pkcs11_path.empty())
        return ZOR_ERR_PKCS11_UNSUPPORTED;
    ERR_clear_error();
    int rc = open_database(env);
    if (rc == ZOR_OK)
        rc = check_database(env);
    if (rc == ZOR_OK)
        rc = build_context(env);
    if (rc == ZOR_OK)
        rc = index_certificates(env);
    ERR_clear_error();
    if (rc != ZOR_OK) {
        env.database = KeyDatabase();
        env.context.reset();
        env.pem_by_label.clear();
        return rc;
    }
    env.initialised = true;
    return ZOR_OK;
}

SSL_SESSION *cached_session(Environment &env, const std::string &peer)
{
    std::lock_guard<std::mutex> lock(env.mutex);
    auto it = env.sessions.find(peer);
    if (it == env.sessions.end())
        return nullptr;
    SSL_SESSION_up_ref(it->second);
    return it->second;
}

void note_cipher(Environment &env, const std::string &code)
{
    std::lock_guard<std::mutex> lock(env.mutex);
    code.copy(env.last_cipher, sizeof env.last_cipher - 1);
    env.last_cipher[std::min(code.size(), sizeof env.last_cipher - 1)] = '\0';
}

} // namespace zor
