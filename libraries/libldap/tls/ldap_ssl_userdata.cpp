// ldap_ssl_userdata.cpp - building, storing and switching the I/O callbacks'
// per-connection record. The waits come from the environment once per
// process and side (client or server): the first record built on a side
// becomes its template, and every later record is a copy of it.
#include "tls/ldap_ssl_userdata.h"

#include "base/environment.h"
#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "net/zorlib.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#define LDAP_MODULE "libraries/libldap/ldap_ssl"

namespace {

constexpr zor_time kClientHandshakeWait = {5, 0};
constexpr zor_time kServerHandshakeWait = {1, 0};
constexpr zor_time kOneSecond = {1, 0};

std::atomic<int32_t> g_data_timeout{2};
std::atomic<int64_t> g_default_wait_sec{1};
std::atomic<int64_t> g_default_wait_usec{0};

// The templates are built once; the lock keeps two first connections of a
// side from building one at the same time.
pthread_mutex_t g_template_mutex = PTHREAD_MUTEX_INITIALIZER;
bool g_template_built[2];
zor_user_data g_template[2];

// A variable's value read with format into *out; false when it is unset,
// empty or holds no number.
template <class T> bool read_number(const char *name, const char *format, T *out)
{
    char *value = ldap_getenv(name);
    bool found = value && *value && std::sscanf(value, format, out) == 1;
    zldap::mem_free(value);
    return found;
}

// Steps 4 and 5 of the build: the handshake wait of the record's side.
void read_handshake_wait(zor_user_data *rec, bool client)
{
    rec->ioTimeout = client ? kClientHandshakeWait : kServerHandshakeWait;
    long value = 0;
    if (client && read_number("QVA_SSL_CLIENT_HANDSHAKE_TIMEOUT", "%ld", &value)) {
        rec->ioTimeout = {value, 0};
        LDAP_TRACE(TRC_CONN, "initZorUserData: QVA_SSL_CLIENT_HANDSHAKE_TIMEOUT: %d secs\n", static_cast<int>(value));
        return;
    }
    long ms = 0;
    if (!read_number(client ? "QVA_SSL_CLIENT_HANDSHAKE_TIMEOUT_MILLISECS" : "SSL_TIMEOUT_MILLISEC", "%ld", &ms))
        return;
    if (ms < 0) {
        rec->ioTimeout.sec = -1;
        return;
    }
    rec->ioTimeout = rec->rem = {ms / 1000, (ms % 1000) * 1000};
    LDAP_TRACE(TRC_CONN,
               client ? "initZorUserData:  QVA_SSL_CLIENT_HANDSHAKE_TIMEOUT_MILLISECS used: %ld secs  %ld usecs\n"
                      : "initZorUserData:  SSL TIMEOUT MILLISECS used: %ld secs  %ld usecs\n",
               static_cast<long>(rec->ioTimeout.sec), static_cast<long>(rec->ioTimeout.usec));
}

} // namespace

int32_t zor_data_timeout() { return g_data_timeout.load(std::memory_order_relaxed); }

zor_time zor_default_wait()
{
    return {g_default_wait_sec.load(std::memory_order_relaxed), g_default_wait_usec.load(std::memory_order_relaxed)};
}

int initZorUserData(zor_user_data *rec)
{
    bool client = rec->prot_env == kZorEnvClient;
    zldap::MutexGuard guard(&g_template_mutex, LDAP_MODULE, __LINE__);
    zor_user_data &tmpl = g_template[client ? 0 : 1];
    bool &built = g_template_built[client ? 0 : 1];
    if (built) {
        std::memcpy(rec, &tmpl, sizeof *rec);
        return 0;
    }
    built = true;
    int32_t data_timeout = 0;
    if (read_number("QVA_SSL_DATA_TIMEOUT", "%d", &data_timeout) && zor_data_timeout() != 0)
        g_data_timeout.store(data_timeout, std::memory_order_relaxed);
    LDAP_TRACE(TRC_CONN, "initZorUserData: env type: %d client: %d server: %d \n", rec->prot_env, kZorEnvClient,
               kZorEnvServer);
    read_handshake_wait(rec, client);
    rec->rem = rec->ioTimeout;
    long level = 0;
    if (read_number("QVA_SSL_CLIENT_TRACELEVEL", "%ld", &level)) {
        rec->trace = static_cast<uint64_t>(level);
        LDAP_TRACE(TRC_CONN, "initZorUserData: QVA_SSL_CLIENT_TRACELEVEL: %ld\n", level);
    }
    std::memcpy(&tmpl, rec, sizeof tmpl);
    if (!client) {
        g_default_wait_sec.store(rec->ioTimeout.sec, std::memory_order_relaxed);
        g_default_wait_usec.store(rec->ioTimeout.usec, std::memory_order_relaxed);
    }
    return 0;
}

int setZorUserData(Sockbuf *sb, zor_user_data *rec, int init, int conn_type, int env_type)
{
    zor_user_data local{};
    if (!rec) {
        local.key = kZorUserDataKey;
        local.state = kZorStateHandshake;
        local.ioTimeout = local.rem = local.BlockTime = kOneSecond;
        rec = &local;
        init = 1;
    }
    rec->prot_conn = conn_type;
    rec->prot_env = env_type;
    if (init)
        initZorUserData(rec);
    if (rec->trace & kZorTraceRecord)
        LDAP_TRACE(TRC_CONN,
                   "setZorUserData:  key: %d state: %d prot: %d:%d trace: 0x%X ioTimeout: %ld:%ld BlockTime: %ld:%ld "
                   "rem: %ld:%ld\n",
                   rec->key, rec->state, rec->prot_conn, rec->prot_env, static_cast<unsigned>(rec->trace),
                   static_cast<long>(rec->ioTimeout.sec), static_cast<long>(rec->ioTimeout.usec),
                   static_cast<long>(rec->BlockTime.sec), static_cast<long>(rec->BlockTime.usec),
                   static_cast<long>(rec->rem.sec), static_cast<long>(rec->rem.usec));
    int rc = g_zorlib.attribute_set_buffer(sb->secure->soc, ZOR_USER_DATA, rec, sizeof *rec);
    if (rc != ZOR_OK)
        LDAP_TRACE(TRC_ERROR, "Error -  setZorUserData: zor_attribute_set_buffer() zor_user_data rc=%d %s\n", rc,
                   zorErrorText(rc));
    return rc;
}

int getZorUserData(Sockbuf *sb, zor_user_data **rec, int *error)
{
    if (error)
        *error = 0;
    const char *stored = nullptr;
    int length = 0;
    int rc = g_zorlib.attribute_get_buffer(sb->secure->soc, ZOR_USER_DATA, &stored, &length);
    if (rc != ZOR_OK) {
        LDAP_TRACE(TRC_ERROR, "Error -  getZorUserData: zor_attribute_get_buffer() zor_user_data rc=%d %s\n", rc,
                   zorErrorText(rc));
        if (error)
            *error = rc;
        return 0;
    }
    if (length != static_cast<int>(sizeof(zor_user_data)) || !stored) {
        LDAP_TRACE(TRC_ERROR, "Error -  getZorUserData: zor user data size: %d != %d\n", length,
                   static_cast<int>(sizeof(zor_user_data)));
        return 0;
    }
    // The toolkit's own copy: what is changed through it is what the
    // callbacks see from then on.
    *rec = reinterpret_cast<zor_user_data *>(const_cast<char *>(stored));
    zor_user_data *r = *rec;
    if (r->trace & kZorTraceRecord)
        LDAP_TRACE(TRC_CONN,
                   "getZorUserData: %p key: %d state: %d prot: %d:%d trace: 0x%X ioTimeout: %ld.%06ld BlockTime: "
                   "%d.%06ld rem: %d.%06ld\n",
                   static_cast<void *>(r), r->key, r->state, r->prot_conn, r->prot_env, static_cast<unsigned>(r->trace),
                   static_cast<long>(r->ioTimeout.sec), static_cast<long>(r->ioTimeout.usec),
                   static_cast<int>(r->BlockTime.sec), static_cast<long>(r->BlockTime.usec),
                   static_cast<int>(r->rem.sec), static_cast<long>(r->rem.usec));
    return static_cast<int>(sizeof(zor_user_data));
}

int setZorUserDatahandshakeMode(Sockbuf *sb, zor_user_data **out, int mode)
{
    zor_user_data *rec = nullptr;
    int error = 0;
    if (getZorUserData(sb, &rec, &error) != static_cast<int>(sizeof(zor_user_data))) {
        LDAP_TRACE(TRC_ERROR, "Error -  setZorUserDatahandshakeMode:  getZorUserData failed rc: %d \n", error);
        return error;
    }
    rec->state = mode == 1 ? kZorStateHandshake : kZorStateReadWrite;
    if (rec->trace & kZorTraceRecord)
        LDAP_TRACE(TRC_CONN, mode == 1 ? "setZorUserDatahandshakeMode:  to For-Handshake\n"
                                       : "setZorUserDatahandshakeMode:  to For-Read-Write\n");
    rec->rem = rec->ioTimeout;
    if (out)
        *out = rec;
    return 0;
}
