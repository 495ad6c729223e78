// toolkit_test.cpp - the toolkit through its entry points, resolved from the
// built libzor8ssl_64.so: exports, environments, attributes, handshakes
// with a small OpenSSL server, secure I/O and the reason texts.
#include "key_database.h"
#include "test_peer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <set>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace zortest;

constexpr const char *kPassword = "kdb secret";

// A key database file holding the given entries (a null key: trusted CA).
std::string write_database(const TempDir &dir, const std::string &name,
                           const std::vector<std::pair<std::string, const KeyPair *>> &trusted,
                           const std::vector<std::pair<std::string, const KeyPair *>> &keys)
{
    zor::KeyDatabase db;
    for (auto &[label, pair] : trusted) {
        EXPECT_EQ(db.add_trusted(label, zor::share(pair->cert.get())), zor::KdbStatus::ok);
    }
    for (auto &[label, pair] : keys) {
        EXPECT_EQ(db.add_key(label, zor::share(pair->key.get()), zor::share(pair->cert.get())), zor::KdbStatus::ok);
    }
    std::string path = dir.path(name);
    EXPECT_EQ(zor::write_key_database(path, kPassword, db), zor::KdbStatus::ok);
    return path;
}

struct Environment {
    zor_handle h = nullptr;
    Environment() { EXPECT_EQ(zorlib().environment_open(&h), 0); }
    ~Environment()
    {
        if (h)
            zorlib().environment_close(&h);
    }
    int set(int id, const std::string &value) { return zorlib().attribute_set_buffer(h, id, value.c_str(), 0); }
    int set_enum(int id, int value) { return zorlib().attribute_set_enum(h, id, value); }
    // The settings the library makes before it initialises an environment.
    int prepare(const std::string &database, const char *password)
    {
        int rc = set(ZOR_KEYRING_FILE, database);
        if (rc == 0 && password)
            rc = set(ZOR_KEYRING_PW, password);
        if (rc == 0)
            rc = set(ZOR_KEYRING_STASH_FILE, database.substr(0, database.rfind('.')) + ".sth");
        if (rc == 0)
            rc = zorlib().attribute_set_numeric_value(h, ZOR_V3_SESSION_TIMEOUT, 43200);
        if (rc == 0)
            rc = set_enum(ZOR_PROTOCOL_TLSV1, ZOR_TLSV1_ON);
        return rc == 0 ? zorlib().attribute_set_callback(h, ZOR_IO_CALLBACK, &test_callbacks()) : rc;
    }
};

class Toolkit : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dir_ = new TempDir;
        const Pki &p = pki();
        keys_ = write_database(*dir_, "keys.kdb", {{"root", &p.root}, {"ec root", &p.ec_root}}, {{"client", &p.client}});
        weak_keys_ = write_database(*dir_, "weak.kdb", {{"root", &p.root}}, {{"weak", &p.weak_client}});
    }
    static void TearDownTestSuite() { delete dir_; }

    static TempDir *dir_;
    static std::string keys_, weak_keys_;
    const Zorlib &z = zorlib();
};

TempDir *Toolkit::dir_;
std::string Toolkit::keys_, Toolkit::weak_keys_;

// One client connection: a secure socket on a fresh descriptor pair whose
// other end the test server runs.
struct Connection {
    int fds[2] = {-1, -1};
    zor_handle soc = nullptr;
    TestServer &server;

    Connection(zor_handle env, TestServer &s, bool tcp = false) : server(s)
    {
        connected_pair(fds, tcp);
        server.serve(fds[1]);
        EXPECT_EQ(zorlib().secure_soc_open(env, &soc), 0);
        EXPECT_EQ(zorlib().attribute_set_numeric_value(soc, ZOR_FD, fds[0]), 0);
    }
    ~Connection() { finish(); }
    TestServer::Result finish()
    {
        if (soc)
            zorlib().secure_soc_close(&soc);
        if (fds[0] >= 0)
            close(fds[0]);
        fds[0] = -1;
        return server.wait();
    }
    std::string text(int id)
    {
        const char *value = nullptr;
        int length = 0;
        return zorlib().attribute_get_buffer(soc, id, &value, &length) == 0 ? std::string(value, length) : "?";
    }
    std::string echo(const std::string &message)
    {
        int count = 0;
        // A write moves at most one record; the rest follows in more writes.
        for (size_t sent = 0; sent < message.size(); sent += count) {
            int rc = zorlib().secure_soc_write(soc, message.data() + sent, static_cast<int>(message.size() - sent), &count);
            EXPECT_EQ(rc, 0);
            if (rc != 0)
                return {};
        }
        std::string back;
        char buffer[256];
        while (back.size() < message.size() && zorlib().secure_soc_read(soc, buffer, sizeof buffer, &count) == 0 && count > 0)
            back.append(buffer, count);
        return back;
    }
};

TEST_F(Toolkit, ExportsTheEighteenEntryPointsAndNothingElse)
{
    std::set<std::string> expected;
    for (const char *const *name = entry_point_names(); *name; name++)
        expected.insert(*name);
    std::set<std::string> exported;
    FILE *nm = popen("nm -D --defined-only " ZOR_SSL_LIBRARY, "r");
    ASSERT_NE(nm, nullptr);
    char line[512], kind, symbol[400];
    while (fgets(line, sizeof line, nm))
        if (sscanf(line, "%*s %c %399[^@\n]", &kind, symbol) == 2 && kind == 'T')
            exported.insert(symbol);
    pclose(nm);
    EXPECT_EQ(exported, expected);
    // The library opens all four files of the toolkit from one directory.
    for (const char *companion : {"sys", "cms", "vocs"}) {
        std::string path = std::string(ZOR_SSL_LIBRARY).replace(std::string(ZOR_SSL_LIBRARY).rfind("ssl"), 3, companion);
        void *lib = dlopen(path.c_str(), RTLD_NOW);
        EXPECT_NE(lib, nullptr) << path;
        if (lib)
            dlclose(lib);
    }
}

TEST_F(Toolkit, EnvironmentInitialisation)
{
    const std::string stash_name = dir_->path("keys.sth");
    struct Case {
        const char *name;
        std::string database;
        const char *password;
        const char *stash; // stash file contents, or none
        unsigned stash_mode;
        std::vector<std::pair<int, std::string>> buffers;
        int expected;
    } cases[] = {
        {"password", keys_, kPassword, nullptr, 0, {}, 0},
        {"stash file", keys_, nullptr, "ZORSTASH 1\nkdb secret", 0600, {}, 0},
        {"stash readable by others", keys_, nullptr, "ZORSTASH 1\nkdb secret", 0644, {}, ZOR_ERR_PERMISSION_DENIED},
        {"stash readable by group", keys_, nullptr, "ZORSTASH 1\nkdb secret", 0640, {}, ZOR_ERR_PERMISSION_DENIED},
        {"neither password nor stash", keys_, nullptr, nullptr, 0, {}, ZOR_ERR_NO_PASSWORD},
        {"wrong password", keys_, "wrong", nullptr, 0, {}, ZOR_ERR_BAD_KEYFILE_PASSWORD},
        {"wrong stashed password", keys_, nullptr, "ZORSTASH 1\nwrong", 0600, {}, ZOR_ERR_BAD_KEYFILE_PASSWORD},
        {"missing database", dir_->path("none.kdb"), kPassword, nullptr, 0, {}, ZOR_ERR_KEYRING_OPEN},
        {"damaged database", dir_->write("bad.kdb", "not a PKCS#12 file"), kPassword, nullptr, 0, {}, ZOR_ERR_KEYFILE_INVALID_FORMAT},
        {"known label", keys_, kPassword, nullptr, 0, {{ZOR_KEYRING_LABEL, "client"}}, 0},
        {"unknown label", keys_, kPassword, nullptr, 0, {{ZOR_KEYRING_LABEL, "nobody"}}, ZOR_ERR_KEY_LABEL_NOT_FOUND},
        {"label of a CA", keys_, kPassword, nullptr, 0, {{ZOR_KEYRING_LABEL, "root"}}, ZOR_ERR_NO_PRIVATE_KEY},
        {"PKCS#11 token", keys_, kPassword, nullptr, 0, {{ZOR_PKCS11_DRIVER_PATH, "/usr/lib/p11.so"}}, ZOR_ERR_PKCS11_UNSUPPORTED},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        unlink(stash_name.c_str());
        if (c.stash)
            dir_->write("keys.sth", c.stash, c.stash_mode);
        Environment env;
        ASSERT_EQ(env.prepare(c.database, c.password), 0);
        for (auto &[id, value] : c.buffers) {
            ASSERT_EQ(env.set(id, value), 0);
        }
        EXPECT_EQ(z.environment_init(env.h), c.expected) << z.strerror(z.environment_init(env.h));
    }
    unlink(stash_name.c_str());
}

TEST_F(Toolkit, EnvironmentAndSocketLifeCycle)
{
    zor_handle env = nullptr, soc = nullptr, none = nullptr;
    ASSERT_EQ(z.environment_open(&env), 0);
    EXPECT_EQ(z.secure_soc_open(env, &soc), ZOR_ERR_INVALID_STATE); // not initialised
    EXPECT_EQ(z.attribute_set_buffer(env, ZOR_KEYRING_FILE, keys_.c_str(), 0), 0);
    EXPECT_EQ(z.attribute_set_buffer(env, ZOR_KEYRING_PW, kPassword, 0), 0);
    EXPECT_EQ(z.environment_init(env), 0);
    EXPECT_EQ(z.environment_init(env), 0); // once initialised it stays so
    EXPECT_EQ(z.attribute_set_buffer(env, ZOR_KEYRING_FILE, "other", 0), ZOR_ERR_INVALID_STATE);
    ASSERT_EQ(z.secure_soc_open(env, &soc), 0);
    EXPECT_EQ(z.secure_soc_init(soc), ZOR_ERR_INVALID_STATE); // no descriptor
    // Closing the environment first leaves the socket usable until it closes.
    EXPECT_EQ(z.environment_close(&env), 0);
    EXPECT_EQ(env, nullptr);
    EXPECT_EQ(z.attribute_set_numeric_value(soc, ZOR_FD, 0), 0);
    EXPECT_EQ(z.secure_soc_close(&soc), 0);
    EXPECT_EQ(soc, nullptr);
    EXPECT_EQ(z.secure_soc_close(&soc), ZOR_ERR_INVALID_HANDLE);
    EXPECT_EQ(z.environment_close(&none), ZOR_ERR_INVALID_HANDLE);
    EXPECT_EQ(z.environment_init(nullptr), ZOR_ERR_INVALID_HANDLE);
    int word = 0;
    EXPECT_EQ(z.attribute_set_enum(&word, ZOR_PROTOCOL_TLSV1, ZOR_TLSV1_ON), ZOR_ERR_INVALID_HANDLE);
}

TEST_F(Toolkit, AttributeRoundTrips)
{
    Environment env;
    struct Enum {
        int id, value, expected;
    } enums[] = {
        {ZOR_PROTOCOL_SSLV2, ZOR_SSLV2_OFF, 0},
        {ZOR_PROTOCOL_SSLV3, ZOR_SSLV3_ON, 0},
        {ZOR_PROTOCOL_TLSV1, ZOR_TLSV1_ON, 0},
        {ZOR_PROTOCOL_TLSV12, 1, 0},
        {ZOR_PROTOCOL_TLSV10, 1, 0},
        {ZOR_FIPS_MODE_PROCESSING, ZOR_FIPS_MODE_PROCESSING_ON, 0},
        {ZOR_BASE_CRYPTO_LIBRARY, ZOR_BASE_CRYPTO_VOC, 0},
        {ZOR_SSL_FIPS_MODE_PROCESSING, ZOR_SSL_FIPS_MODE_PROCESSING_ON, 0},
        {ZOR_VOC_FIPS_MODE_PROCESSING, ZOR_VOC_FIPS_MODE_PROCESSING_ON, 0},
        {ZOR_SSL_SUITEB_192BIT_MODE_PROCESSING, 1, 0},
        {ZOR_PROTOCOL_SSLV3, ZOR_TLSV1_ON, ZOR_ERR_INVALID_ENUMERATION},
        {ZOR_PROTOCOL_TLSV12, 2, ZOR_ERR_INVALID_ENUMERATION},
        {ZOR_FIPS_MODE_PROCESSING, 546, ZOR_ERR_INVALID_ENUMERATION},
        {999, 1, ZOR_ERR_INVALID_ATTRIBUTE},
    };
    for (const Enum &e : enums) {
        SCOPED_TRACE(e.id);
        EXPECT_EQ(z.attribute_set_enum(env.h, e.id, e.value), e.expected);
        int back = -1;
        if (e.expected == 0 && z.attribute_get_enum(env.h, e.id, &back) == 0) {
            EXPECT_EQ(back, e.value);
        }
    }
    struct Buffer {
        int id;
        const char *value;
        int expected;
        bool readable;
    } buffers[] = {
        {ZOR_KEYRING_FILE, "/keys/ldapkey.kdb", 0, true},
        {ZOR_KEYRING_LABEL, "client", 0, true},
        {ZOR_V3_CIPHER_SPECS, "352F0A", 0, true},
        {ZOR_TLSV11_CIPHER_SPECS, "", 0, true},
        {ZOR_TLSV12_CIPHER_SPECS_EX, "C02FC030", 0, true},
        {ZOR_SSL_EXTN_SIGALG, "04030804", 0, true},
        {ZOR_KEYRING_PW, "secret", 0, false},
        {ZOR_TLSV12_CIPHER_SPECS_EX, "C02G", ZOR_ERR_INVALID_SETTING, false},
        {ZOR_SSL_EXTN_SIGALG, "rsa_pss", ZOR_ERR_INVALID_SETTING, false},
        {999, "x", ZOR_ERR_INVALID_ATTRIBUTE, false},
    };
    for (const Buffer &b : buffers) {
        SCOPED_TRACE(b.id);
        EXPECT_EQ(env.set(b.id, b.value), b.expected);
        const char *value = nullptr;
        int length = -1;
        int rc = z.attribute_get_buffer(env.h, b.id, &value, &length);
        if (b.readable) {
            EXPECT_EQ(std::string(value, length), b.value);
        }
        else if (b.expected == 0) {
            EXPECT_EQ(rc, ZOR_ERR_INVALID_ATTRIBUTE); // passwords are never read back
    }
    // A length other than 0 takes exactly that many bytes.
    EXPECT_EQ(z.attribute_set_buffer(env.h, ZOR_KEYRING_FILE, "/a/b/c", 4), 0);
        }
    const char *value = nullptr;
    int length = 0, number = 0;
    EXPECT_EQ(z.attribute_get_buffer(env.h, ZOR_KEYRING_FILE, &value, &length), 0);
    EXPECT_EQ(std::string(value, length), "/a/b");
    for (int timeout : {0, 86400, 300}) {
        EXPECT_EQ(z.attribute_set_numeric_value(env.h, ZOR_V3_SESSION_TIMEOUT, timeout), 0);
        EXPECT_EQ(z.attribute_get_numeric_value(env.h, ZOR_V3_SESSION_TIMEOUT, &number), 0);
        EXPECT_EQ(number, timeout);
    }
    EXPECT_EQ(z.attribute_set_numeric_value(env.h, ZOR_V3_SESSION_TIMEOUT, 86401), ZOR_ERR_INVALID_NUMERIC_VALUE);
    EXPECT_EQ(z.attribute_set_numeric_value(env.h, ZOR_FD, 3), ZOR_ERR_INVALID_ATTRIBUTE);
    EXPECT_EQ(z.attribute_set_callback(env.h, 801, &test_callbacks()), ZOR_ERR_INVALID_ATTRIBUTE);
}

TEST_F(Toolkit, SocketAttributes)
{
    Environment env;
    ASSERT_EQ(env.prepare(keys_, kPassword), 0);
    ASSERT_EQ(env.set_enum(ZOR_PROTOCOL_TLSV12, 0), 0);
    ASSERT_EQ(z.environment_init(env.h), 0);
    zor_handle soc = nullptr;
    ASSERT_EQ(z.secure_soc_open(env.h, &soc), 0);
    int value = -1;
    EXPECT_EQ(z.attribute_get_enum(soc, ZOR_PROTOCOL_TLSV12, &value), 0);
    EXPECT_EQ(value, 0); // inherited from the environment
    EXPECT_EQ(z.attribute_set_buffer(soc, ZOR_KEYRING_LABEL, "client", 0), 0);
    EXPECT_EQ(z.attribute_set_buffer(soc, ZOR_KEYRING_LABEL, "nobody", 0), ZOR_ERR_KEY_LABEL_NOT_FOUND);
    EXPECT_EQ(z.attribute_set_buffer(soc, ZOR_KEYRING_LABEL, "root", 0), ZOR_ERR_NO_PRIVATE_KEY);
    EXPECT_EQ(z.attribute_set_numeric_value(soc, ZOR_FD, -1), ZOR_ERR_INVALID_NUMERIC_VALUE);
    // The user data is copied whole, binary zeros included.
    const char record[8] = {'\xff', '\xff', '\xff', '\xff', 0, 0, 0, 1};
    EXPECT_EQ(z.attribute_set_buffer(soc, ZOR_USER_DATA, record, sizeof record), 0);
    const char *stored = nullptr;
    int length = 0;
    EXPECT_EQ(z.attribute_get_buffer(soc, ZOR_USER_DATA, &stored, &length), 0);
    ASSERT_EQ(length, 8);
    EXPECT_EQ(std::memcmp(stored, record, 8), 0);
    EXPECT_NE(stored, record);
    EXPECT_EQ(z.attribute_get_buffer(soc, ZOR_CONNECTION_PROTOCOL, &stored, &length), ZOR_ERR_INVALID_STATE);
    zor_cert_element *elements = nullptr;
    EXPECT_EQ(z.attribute_get_cert_info(soc, ZOR_PEER_CERT_INFO, &elements, &length), ZOR_ERR_INVALID_STATE);
    void *pem = nullptr;
    EXPECT_EQ(z.get_cert_by_label(env.h, "root", &pem), 0);
    EXPECT_NE(std::strstr(static_cast<char *>(pem), "BEGIN CERTIFICATE"), nullptr);
    EXPECT_EQ(z.get_cert_by_label(env.h, "nobody", &pem), ZOR_ERR_KEY_LABEL_NOT_FOUND);
    EXPECT_EQ(z.secure_soc_close(&soc), 0);
}

struct HandshakeCase {
    const char *name;
    ServerSetup server;
    std::vector<std::pair<int, int>> env_enums, socket_enums;
    std::vector<std::pair<int, std::string>> socket_buffers;
    int expected;
    const char *protocol = nullptr, *cipher = nullptr;
    const char *client_cn = nullptr; // the client certificate the server saw
};

TEST_F(Toolkit, Handshakes)
{
    const Pki &p = pki();
    // The switches open_ssl_connection sets without a protocol text.
    const std::vector<std::pair<int, int>> library_defaults = {
        {ZOR_PROTOCOL_SSLV2, ZOR_SSLV2_OFF}, {ZOR_PROTOCOL_SSLV3, ZOR_SSLV3_ON},
        {ZOR_PROTOCOL_TLSV10, 1}, {ZOR_PROTOCOL_TLSV11, 0}, {ZOR_PROTOCOL_TLSV12, 0}};
    const std::pair<int, int> fips_on = {ZOR_FIPS_MODE_PROCESSING, ZOR_FIPS_MODE_PROCESSING_ON};
    const HandshakeCase cases[] = {
        {"defaults", {&p.server}, {}, {}, {}, 0, "TLS13"},
        {"library's default switches", {&p.server}, {}, library_defaults, {}, 0, "TLS13"},
        {"TLS 1.2 switched on", {&p.server, 0, TLS1_2_VERSION}, {}, {{ZOR_PROTOCOL_TLSV12, 1}}, {}, 0, "TLS12"},
        {"TLS 1.2 switched off", {&p.server, 0, TLS1_2_VERSION}, {}, {{ZOR_PROTOCOL_TLSV12, 0}}, {}, ZOR_ERR_NO_PROTOCOL},
        {"TLS 1.2 suite by code", {&p.server, 0, TLS1_2_VERSION}, {}, {}, {{ZOR_TLSV12_CIPHER_SPECS_EX, "C030"}}, 0, "TLS12", "C030"},
        {"two-digit code", {&p.server, 0, TLS1_2_VERSION}, {}, {}, {{ZOR_TLSV11_CIPHER_SPECS, "9D"}}, 0, "TLS12", "9D"},
        {"TLS 1.3 suite by code", {&p.server}, {}, {}, {{ZOR_TLSV12_CIPHER_SPECS_EX, "1301C02F"}}, 0, "TLS13", "1301"},
        {"unknown codes only", {&p.server, 0, TLS1_2_VERSION}, {}, {{ZOR_PROTOCOL_TLSV1, ZOR_TLSV1_ON}}, {{ZOR_TLSV12_CIPHER_SPECS_EX, "FEFE"}}, ZOR_ERR_NO_PROTOCOL},
        {"only refused versions", {&p.server}, {{ZOR_PROTOCOL_TLSV1, ZOR_TLSV1_OFF}}, {{ZOR_PROTOCOL_TLSV10, 1}, {ZOR_PROTOCOL_TLSV11, 1}, {ZOR_PROTOCOL_SSLV3, ZOR_SSLV3_ON}}, {}, ZOR_ERR_NO_PROTOCOL},
        {"server of TLS 1.1 only", {&p.server, TLS1_1_VERSION, TLS1_1_VERSION, nullptr, nullptr, false, nullptr, 0}, {}, {}, {}, ZOR_ERR_NO_PROTOCOL},
        {"chain of another CA", {&p.stranger_server}, {}, {}, {}, ZOR_ERR_VERIFY_BASE + X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY},
        {"expired certificate", {&p.expired_server}, {}, {}, {}, ZOR_ERR_VERIFY_BASE + X509_V_ERR_CERT_HAS_EXPIRED},
        {"client certificate by label", {&p.server, 0, 0, nullptr, nullptr, false, &p.root}, {}, {}, {{ZOR_KEYRING_LABEL, "client"}}, 0, "TLS13", nullptr, "client"},
        {"server's preferred suite", {&p.server, 0, 0, nullptr, "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256", true}, {}, {}, {}, 0, "TLS13", "1303"},
        {"FIPS avoids ChaCha20", {&p.server, 0, 0, nullptr, "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256", true}, {fips_on}, {}, {}, 0, "TLS13", "1301"},
        {"FIPS against ChaCha20 only", {&p.server, 0, TLS1_2_VERSION, "ECDHE-RSA-CHACHA20-POLY1305"}, {fips_on}, {}, {}, ZOR_ERR_NO_CIPHERS},
        {"Suite B 128", {&p.ec_server}, {{ZOR_SSL_SUITEB_128BIT_MODE_PROCESSING, 1}}, {}, {}, 0, "TLS12", "C02B"},
        {"Suite B 192 against P-256", {&p.ec_server}, {{ZOR_SSL_SUITEB_192BIT_MODE_PROCESSING, 1}}, {}, {}, ZOR_ERR_NO_CIPHERS},
        {"Suite B 128 against RSA", {&p.server}, {{ZOR_SSL_SUITEB_128BIT_MODE_PROCESSING, 1}}, {}, {}, ZOR_ERR_NO_CIPHERS},
    };
    for (const HandshakeCase &c : cases) {
        SCOPED_TRACE(c.name);
        Environment env;
        ASSERT_EQ(env.prepare(keys_, kPassword), 0);
        for (auto [id, value] : c.env_enums) {
            ASSERT_EQ(env.set_enum(id, value), 0);
        }
        ASSERT_EQ(z.environment_init(env.h), 0);
        TestServer server(c.server);
        Connection conn(env.h, server);
        for (auto [id, value] : c.socket_enums) {
            ASSERT_EQ(z.attribute_set_enum(conn.soc, id, value), 0);
        }
        for (auto &[id, value] : c.socket_buffers) {
            ASSERT_EQ(z.attribute_set_buffer(conn.soc, id, value.c_str(), 0), 0);
        }
        int rc = z.secure_soc_init(conn.soc);
        EXPECT_EQ(rc, c.expected) << z.strerror(rc);
        if (c.protocol) {
            EXPECT_EQ(conn.text(ZOR_CONNECTION_PROTOCOL), c.protocol);
        }
        if (c.cipher) {
            EXPECT_EQ(conn.text(ZOR_CONNECTION_CIPHER), c.cipher);
        }
        if (rc == 0) {
            EXPECT_EQ(conn.echo("ping"), "ping");
        }
        TestServer::Result seen = conn.finish();
        EXPECT_EQ(seen.handshake_ok, rc == 0);
        if (c.client_cn) {
            EXPECT_EQ(seen.client_cn, c.client_cn);
        }
    }
}

TEST_F(Toolkit, SecureIoThroughTheCallbacks)
{
    Environment env;
    ASSERT_EQ(env.prepare(keys_, kPassword), 0);
    ASSERT_EQ(z.environment_init(env.h), 0);
    TestServer server({&pki().server});
    Connection conn(env.h, server);
    const char record[120] = {'\xff', '\xff', '\xff', '\xff', '\x84', '\x03'};
    ASSERT_EQ(z.attribute_set_buffer(conn.soc, ZOR_USER_DATA, record, sizeof record), 0);
    io_log().reads = io_log().writes = 0;
    ASSERT_EQ(z.secure_soc_init(conn.soc), 0);
    // Every byte went through the callbacks, which saw the stored record.
    const char *stored = nullptr;
    int length = 0;
    ASSERT_EQ(z.attribute_get_buffer(conn.soc, ZOR_USER_DATA, &stored, &length), 0);
    EXPECT_GT(io_log().reads, 0);
    EXPECT_GT(io_log().writes, 0);
    EXPECT_EQ(io_log().user_data, stored);
    EXPECT_EQ(io_log().last_option, 901); // read/write mode after the handshake
    EXPECT_EQ(conn.text(ZOR_CONNECTION_CIPHER_NAME), "TLS_AES_256_GCM_SHA384");
    const char *last = nullptr;
    ASSERT_EQ(z.attribute_get_buffer(env.h, ZOR_CONNECTION_CIPHER, &last, &length), 0);
    EXPECT_STREQ(last, "1302");

    std::string big(100000, 'x');
    for (size_t i = 0; i < big.size(); i++)
        big[i] = static_cast<char>('a' + i % 26);
    EXPECT_EQ(conn.echo(big), big);

    // No data within the callback's wait: "would block", nothing lost.
    fcntl(conn.fds[0], F_SETFL, fcntl(conn.fds[0], F_GETFL) | O_NONBLOCK);
    char buffer[16];
    int count = -1;
    EXPECT_EQ(z.secure_soc_read(conn.soc, buffer, sizeof buffer, &count), ZOR_ERR_WOULD_BLOCK);
    EXPECT_EQ(count, 0);
    ASSERT_EQ(z.secure_soc_write(conn.soc, "0123456789", 10, &count), 0);
    int rc;
    while ((rc = z.secure_soc_read(conn.soc, buffer, 4, &count)) == ZOR_ERR_WOULD_BLOCK)
        usleep(1000);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(std::string(buffer, count), "0123");
    // The rest is already decrypted: asked with no buffer, the toolkit says so.
    int held = -1;
    EXPECT_EQ(z.secure_soc_read(conn.soc, nullptr, 1, &held), 0);
    EXPECT_EQ(held, 6);

    zor_cert_element *elements = nullptr;
    int n = 0;
    ASSERT_EQ(z.attribute_get_cert_info(conn.soc, ZOR_PEER_CERT_INFO, &elements, &n), 0);
    std::multimap<int, std::string> info;
    for (int i = 0; i < n; i++)
        info.emplace(elements[i].type, elements[i].text);
    EXPECT_EQ(info.find(ZOR_CERT_SUBJECT_DN)->second, "CN=server.test,O=Zor Test");
    EXPECT_EQ(info.find(ZOR_CERT_ISSUER_CN)->second, "Zor Test Root");
    EXPECT_EQ(info.count(ZOR_CERT_SAN_DNS), 2u);
    EXPECT_EQ(info.find(ZOR_CERT_SAN_ALL)->second, "DNS:server.test, DNS:ldap.test, IP:127.0.0.1");
    EXPECT_EQ(info.find(ZOR_CERT_VERSION)->second, "3");
    EXPECT_EQ(info.find(ZOR_CERT_VALIDITY_NOT_AFTER)->second.size(), 20u);
}

TEST_F(Toolkit, WritingToAPeerThatHasGoneIsAnErrorNotASignal)
{
    Environment env;
    ASSERT_EQ(env.prepare(keys_, kPassword), 0);
    ASSERT_EQ(z.environment_init(env.h), 0);
    ServerSetup setup{&pki().server};
    setup.hang_up = true;
    TestServer server(setup);
    Connection conn(env.h, server);
    ASSERT_EQ(z.secure_soc_init(conn.soc), 0);
    server.wait(); // the server's end is closed
    // The callback's plain write meets EPIPE; SIGPIPE would end this program.
    int count = 0, rc = 0;
    for (int i = 0; i < 3 && rc == 0; i++)
        rc = z.secure_soc_write(conn.soc, "late", 4, &count);
    EXPECT_EQ(rc, ZOR_ERR_IO);
}

TEST_F(Toolkit, SessionsAreResumedPerPeerWithinTheTimeOut)
{
    for (int timeout : {300, 0}) {
        SCOPED_TRACE(timeout);
        Environment env;
        ASSERT_EQ(env.prepare(keys_, kPassword), 0);
        ASSERT_EQ(z.attribute_set_numeric_value(env.h, ZOR_V3_SESSION_TIMEOUT, timeout), 0);
        ASSERT_EQ(z.environment_init(env.h), 0);
        TestServer server({&pki().server});
        for (bool resumed : {false, timeout > 0}) {
            Connection conn(env.h, server, true);
            ASSERT_EQ(z.secure_soc_init(conn.soc), 0);
            EXPECT_EQ(conn.echo("x"), "x"); // takes in the session ticket
            EXPECT_EQ(conn.finish().reused, resumed);
        }
    }
}

TEST_F(Toolkit, ConnectionsInParallelShareOneEnvironment)
{
    Environment env;
    ASSERT_EQ(env.prepare(keys_, kPassword), 0);
    ASSERT_EQ(z.environment_init(env.h), 0);
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&] {
            for (int i = 0; i < 5; i++) {
                TestServer server({&pki().server});
                Connection conn(env.h, server, true);
                if (z.secure_soc_init(conn.soc) == 0 && conn.echo("hello") == "hello")
                    good++;
            }
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(good, 20);
}

TEST_F(Toolkit, FipsRetryWithoutKeyDatabaseChecks)
{
    // As the library does on 207: FIPS processing off, SSL-level FIPS on.
    Environment env;
    ASSERT_EQ(env.prepare(weak_keys_, kPassword), 0);
    ASSERT_EQ(env.set_enum(ZOR_FIPS_MODE_PROCESSING, ZOR_FIPS_MODE_PROCESSING_ON), 0);
    EXPECT_EQ(z.environment_init(env.h), ZOR_ERR_FIPS_KEYRING);
    ASSERT_EQ(env.set_enum(ZOR_FIPS_MODE_PROCESSING, ZOR_FIPS_MODE_PROCESSING_OFF), 0);
    ASSERT_EQ(env.set_enum(ZOR_SSL_FIPS_MODE_PROCESSING, ZOR_SSL_FIPS_MODE_PROCESSING_ON), 0);
    ASSERT_EQ(env.set(ZOR_KEYRING_PW, kPassword), 0);
    ASSERT_EQ(z.environment_init(env.h), 0);
    TestServer server({&pki().server, 0, 0, nullptr, "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256", true});
    Connection conn(env.h, server);
    ASSERT_EQ(z.secure_soc_init(conn.soc), 0);
    EXPECT_EQ(conn.text(ZOR_CONNECTION_CIPHER), "1301");
}

TEST_F(Toolkit, EveryReasonHasItsText)
{
    struct Text {
        int code;
        const char *text;
    } texts[] = {
        {ZOR_ERR_WOULD_BLOCK, "Would block"},
        {ZOR_ERR_IO, "I/O error"},
        {ZOR_ERR_BAD_KEYFILE_PASSWORD, "Bad keyfile password"},
        {ZOR_ERR_NO_PROTOCOL, "No protocol version to negotiate: SSL 3.0, TLS 1.0 and TLS 1.1 are never used"},
        {ZOR_ERR_VERIFY_BASE + X509_V_ERR_CERT_HAS_EXPIRED, "Certificate verification failed: certificate has expired"},
        {ZOR_ERR_VERIFY_BASE + X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
         "Certificate verification failed: unable to get local issuer certificate"},
        {-1, "Unknown reason code"},
    };
    for (const Text &t : texts) {
        EXPECT_STREQ(z.strerror(t.code), t.text);
    }
    for (int code : {ZOR_ERR_INVALID_HANDLE, ZOR_ERR_INTERNAL, ZOR_ERR_INSUFFICIENT_STORAGE, ZOR_ERR_INVALID_STATE,
                     ZOR_ERR_KEY_LABEL_NOT_FOUND, ZOR_ERR_KEYFILE_INVALID_FORMAT, ZOR_ERR_NO_PASSWORD,
                     ZOR_ERR_KEYRING_OPEN, ZOR_ERR_FIPS_KEYRING, ZOR_ERR_NO_CIPHERS, ZOR_ERR_NO_CERTIFICATE,
                     ZOR_ERR_BAD_CERTIFICATE, ZOR_ERR_BAD_MESSAGE, ZOR_ERR_BAD_MAC, ZOR_ERR_PERMISSION_DENIED,
                     ZOR_ERR_NO_READ_FUNCTION, ZOR_ERR_NO_WRITE_FUNCTION, ZOR_ERR_SOCKET_CLOSED, ZOR_ERR_NO_PRIVATE_KEY,
                     ZOR_ERR_INVALID_ATTRIBUTE, ZOR_ERR_INVALID_LENGTH, ZOR_ERR_INVALID_ENUMERATION,
                     ZOR_ERR_INVALID_NUMERIC_VALUE, ZOR_ERR_INVALID_SETTING, ZOR_ERR_PKCS11_UNSUPPORTED,
                     ZOR_ERR_HANDSHAKE_TIMEOUT})
        EXPECT_STRNE(z.strerror(code), "Unknown reason code") << code;
}

} // namespace
