// test_plugin.cpp - a SASL plug-in for the tests: it records what the
// library gives it and does what test_plugin.h describes.
#include "test_plugin.h"

#include "zor8ldap_plugin.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#define EXPORTED extern "C" __attribute__((visibility("default")))

namespace {

std::mutex g_mutex;
TestPluginRecord g_record;
int g_inits_running;

void *get(LDAPPluginBlock *pb, unsigned key)
{
    void *value = nullptr;
    return pb->pb_get(pb, key, &value) == 0 ? value : nullptr;
}

template <size_t N> int keys_of(LDAPPluginBlock *pb, unsigned (&keys)[N])
{
    unsigned count = std::min<unsigned>(pb->pb_count, N);
    for (unsigned i = 0; i < count; i++)
        keys[i] = pb->pb_pairs[i].pp_key;
    return static_cast<int>(count);
}

int close_function(LDAPPluginBlock *)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_record.closes++;
    return 0;
}

int bind_function(LDAPPluginBlock *pb)
{
    std::unique_lock<std::mutex> lock(g_mutex);
    TestPluginRecord &r = g_record;
    r.binds++;
    r.key_count = keys_of(pb, r.keys);
    r.argc = reinterpret_cast<intptr_t>(get(pb, LDAP_PLUGIN_ARGC));
    std::snprintf(r.host, sizeof r.host, "%s", static_cast<char *>(get(pb, LDAP_PLUGIN_HOST)));
    r.ld = get(pb, LDAP_PLUGIN_LD);
    std::string joined;
    int result = 0;
    bool send = false;
    for (auto **arg = static_cast<char **>(get(pb, LDAP_PLUGIN_ARGV)); *arg; arg++) {
        joined += (joined.empty() ? "" : "|") + std::string(*arg);
        send |= std::strcmp(*arg, "send") == 0;
        if (std::strcmp(*arg, "close") == 0)
            pb->pb_set(pb, LDAP_PLUGIN_CLOSE_FN, reinterpret_cast<void *>(close_function));
        if (std::strncmp(*arg, "return=", 7) == 0)
            result = std::atoi(*arg + 7);
        if (std::strncmp(*arg, "gss=", 4) == 0)
            *static_cast<uint32_t *>(get(pb, LDAP_PLUGIN_GSS_RESULT)) = std::atoi(*arg + 4);
    }
    std::snprintf(r.args, sizeof r.args, "%s", joined.c_str());
    lock.unlock();
    if (!send)
        return result;
    return pb->pb_sasl_bind_s(static_cast<LDAP *>(get(pb, LDAP_PLUGIN_LD)),
                              static_cast<char *>(get(pb, LDAP_PLUGIN_BIND_DN)),
                              static_cast<char *>(get(pb, LDAP_PLUGIN_MECHANISM)),
                              static_cast<berval *>(get(pb, LDAP_PLUGIN_CREDENTIALS)),
                              static_cast<LDAPControl **>(get(pb, LDAP_PLUGIN_SERVER_CONTROLS)), nullptr);
}

// Records the call; sets key 301 to bind unless told not to set it.
int init(LDAPPluginBlock *pb, bool set, void *bind, int result = 0, int pause_ms = 0)
{
    std::unique_lock<std::mutex> lock(g_mutex);
    int running = ++g_inits_running;
    g_record.most_inits_at_once = std::max(g_record.most_inits_at_once, running);
    lock.unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
    lock.lock();
    --g_inits_running;
    g_record.inits++;
    g_record.init_key_count = keys_of(pb, g_record.init_keys);
    return set ? pb->pb_set(pb, LDAP_PLUGIN_BIND_FN, bind) : result;
}

void *const kBind = reinterpret_cast<void *>(bind_function);

} // namespace

EXPORTED int test_plugin_init(LDAPPluginBlock *pb) { return init(pb, true, kBind); }
EXPORTED int ldap_plugin_init(LDAPPluginBlock *pb) { return init(pb, true, kBind); }
EXPORTED int test_plugin_init_slow(LDAPPluginBlock *pb) { return init(pb, true, kBind, 0, 20); }
EXPORTED int test_plugin_init_no_bind(LDAPPluginBlock *pb) { return init(pb, false, nullptr); }
EXPORTED int test_plugin_init_null_bind(LDAPPluginBlock *pb) { return init(pb, true, nullptr); }
EXPORTED int test_plugin_init_fails(LDAPPluginBlock *pb) { return init(pb, false, nullptr, 1); }

// Hands out what was recorded since the last call and starts afresh.
EXPORTED void test_plugin_take(TestPluginRecord *out)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    *out = g_record;
    g_record = {};
}
