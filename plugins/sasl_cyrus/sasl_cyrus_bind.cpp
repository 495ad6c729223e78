// sasl_cyrus_bind.cpp - the plug-in's init and bind functions: a SASL bind
// whose mechanism Cyrus SASL's client library works, step by step, through
// the library's own SASL bind (each server challenge goes to Cyrus, each
// answer of Cyrus to the server).
//
// No security layer is negotiated: the library's connection carries LDAP
// messages as they are, so integrity or privacy would have to come from a
// secure connection.
#include "sasl_cyrus.h"

#include <cstdio>
#include <cstring>
#include <pthread.h>

#define EXPORTED extern "C" __attribute__((visibility("default")))

namespace sasl_cyrus {

namespace {

pthread_once_t g_cyrus_once = PTHREAD_ONCE_INIT;
int g_cyrus_ready = SASL_FAIL;

// Cyrus's client side is set up once per process and kept: the library
// keeps its plug-ins loaded for the life of the process too.
void start_cyrus()
{
    use_thread_locks();
    g_cyrus_ready = sasl_client_init(nullptr);
}

void *get(LDAPPluginBlock *pb, unsigned int key)
{
    void *value = nullptr;
    return pb->pb_get(pb, key, &value) == 0 ? value : nullptr;
}

// The server's name as Cyrus wants it (mechanisms such as DIGEST-MD5 name
// the service they authenticate to): the host of the first host entry, or
// "localhost" for a local socket.
void server_name(const char *hosts, char *name, size_t size)
{
    const char *host = hosts ? hosts + std::strspn(hosts, " ") : "";
    size_t length = std::strcspn(host, " :");
    if (*host == '[') {
        host++;
        length = std::strcspn(host, "]");
    } else if (*host == '/' || length == 0) {
        host = "localhost";
        length = std::strlen(host);
    }
    std::snprintf(name, size, "%.*s", static_cast<int>(length), host);
}

struct Exchange {
    LDAPPluginBlock *pb;
    LDAP *ld;
    const char *mechanism;
    LDAPControl **serverctrls;
    const Credentials *credentials;
    sasl_conn_t *conn = nullptr;
    bool started = false; // sasl_client_start has run
    bool done = false;    // Cyrus has nothing more to say or check
};

// A Cyrus connection for the bind's server that allows plain-text
// mechanisms (the caller chose the mechanism) and no security layer (see
// the top of this file). 0 or a result code; *conn is NULL or to dispose.
int open_cyrus(LDAPPluginBlock *pb, const char *mechanism, const char *hosts, const Credentials &credentials,
               sasl_conn_t **conn)
{
    char server[256];
    server_name(hosts, server, sizeof server);
    pb->pb_trace(kTraceFlow, "sasl_cyrus_bind: server(%s) authcid(%s) authzid(%s) realm(%s)\n", server,
                 credentials.authcid ? credentials.authcid : "<NULL>",
                 credentials.authzid ? credentials.authzid : "<NULL>", credentials.realm ? credentials.realm : "<NULL>");
    int result = sasl_client_new("ldap", server, nullptr, nullptr, prompted_callbacks(credentials), 0, conn);
    if (result != SASL_OK)
        return cyrus_failure(pb, nullptr, "sasl_client_new", mechanism, result);
    sasl_security_properties_t properties{};
    result = sasl_setprop(*conn, SASL_SEC_PROPS, &properties);
    return result == SASL_OK ? LDAP_SUCCESS : cyrus_failure(pb, *conn, "sasl_setprop", mechanism, result);
}

// Cyrus's next message: the first one, or the answer to the server's
// challenge; prompts are answered until Cyrus has what it needs.
int cyrus_step(Exchange &x, const struct berval *challenge, const char **out, unsigned *length)
{
    sasl_interact_t *prompts = nullptr;
    const char *call = x.started ? "sasl_client_step" : "sasl_client_start";
    int result = SASL_INTERACT, refused = LDAP_SUCCESS;
    while (result == SASL_INTERACT && refused == LDAP_SUCCESS) {
        // The prompts go back to Cyrus, which frees them, even when the
        // answer is a refusal.
        if (prompts)
            refused = answer_prompts(x.pb, x.mechanism, *x.credentials, prompts);
        const char *chosen = nullptr;
        result = x.started ? sasl_client_step(x.conn, challenge ? challenge->bv_val : nullptr,
                                              challenge ? static_cast<unsigned>(challenge->bv_len) : 0, &prompts, out,
                                              length)
                           : sasl_client_start(x.conn, x.mechanism, &prompts, out, length, &chosen);
    }
    x.started = true;
    x.done = result == SASL_OK;
    if (refused != LDAP_SUCCESS)
        return refused;
    if (result != SASL_OK && result != SASL_CONTINUE)
        return cyrus_failure(x.pb, x.conn, call, x.mechanism, result);
    return LDAP_SUCCESS;
}

// Sends Cyrus's messages until the server's answer is final. A success is
// taken only when Cyrus has checked the server's last word too (SCRAM and
// DIGEST-MD5 prove the server knows the password).
int exchange(Exchange &x)
{
    const char *out = nullptr;
    unsigned length = 0;
    int rc = cyrus_step(x, nullptr, &out, &length);
    while (rc == LDAP_SUCCESS) {
        struct berval request = {length, const_cast<char *>(out)};
        struct berval *challenge = nullptr;
        // Cyrus tells "no initial response" (NULL) from an empty one.
        int sent = x.pb->pb_sasl_bind_s(x.ld, nullptr, x.mechanism, out ? &request : nullptr, x.serverctrls,
                                        &challenge);
        bool more = challenge && challenge->bv_len > 0;
        if (sent == LDAP_SASL_BIND_IN_PROGRESS || (sent == LDAP_SUCCESS && (more || !x.done)))
            rc = cyrus_step(x, challenge, &out, &length);
        x.pb->pb_bvfree(challenge);
        if (sent == LDAP_SASL_BIND_IN_PROGRESS)
            continue;
        if (rc == LDAP_SUCCESS && sent == LDAP_SUCCESS && !x.done) {
            x.pb->pb_trace(kTraceError, "sasl_cyrus_bind: Error - the server ended %s before Cyrus was done\n",
                           x.mechanism);
            rc = LDAP_LOCAL_ERROR;
        }
        return rc == LDAP_SUCCESS ? sent : rc;
    }
    return rc;
}

int bind_function(LDAPPluginBlock *pb)
{
    auto *mechanism = static_cast<const char *>(get(pb, LDAP_PLUGIN_MECHANISM));
    auto *hosts = static_cast<const char *>(get(pb, LDAP_PLUGIN_HOST));
    pb->pb_trace(kTraceFlow, "sasl_cyrus_bind: mechanism(%s) hosts(%s)\n", mechanism, hosts ? hosts : "(null)");
    pthread_once(&g_cyrus_once, start_cyrus);
    if (g_cyrus_ready != SASL_OK)
        return cyrus_failure(pb, nullptr, "sasl_client_init", mechanism, g_cyrus_ready);
    Credentials credentials;
    Exchange x{pb, static_cast<LDAP *>(get(pb, LDAP_PLUGIN_LD)), mechanism,
               static_cast<LDAPControl **>(get(pb, LDAP_PLUGIN_SERVER_CONTROLS)), &credentials};
    int rc = read_credentials(pb, static_cast<const char *>(get(pb, LDAP_PLUGIN_BIND_DN)),
                              static_cast<const struct berval *>(get(pb, LDAP_PLUGIN_CREDENTIALS)), &credentials);
    if (rc == LDAP_SUCCESS)
        rc = open_cyrus(pb, mechanism, hosts, credentials, &x.conn);
    if (rc == LDAP_SUCCESS)
        rc = exchange(x);
    sasl_dispose(&x.conn);
    release_credentials(&credentials);
    pb->pb_trace(kTraceFlow, "sasl_cyrus_bind: returning rc=%d\n", rc);
    return rc;
}

} // namespace

} // namespace sasl_cyrus

// The init function a configuration line names: it hands the library the
// bind function.
EXPORTED int sasl_cyrus_init(LDAPPluginBlock *pb)
{
    return pb->pb_set(pb, LDAP_PLUGIN_BIND_FN, reinterpret_cast<void *>(sasl_cyrus::bind_function));
}
