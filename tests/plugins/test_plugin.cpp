// test_plugin.cpp - a SASL plug-in for the tests: it records what the
// library gives it and does what its init function name and its
// configured arguments ask (test_plugin.h).
#include "test_plugin.h"

#include "zor8ldap_plugin.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace {

std::mutex g_mutex;
TestPluginRecord g_record = [] {
    TestPluginRecord r{};
    r.close_saw_a_bind_block = true;
    return r;
}();
std::atomic<int> g_inits_running{0};
// Blocks given to the bind function whose close has not run yet.
const LDAPPluginBlock *g_bind_blocks[64];
int g_bind_block_count;

template <size_t N> void copy_text(char (&to)[N], const void *from)
{
    std::snprintf(to, N, "%s", from ? static_cast<const char *>(from) : "(none)");
}

void *get(LDAPPluginBlock *pb, unsigned key)
{
    void *value = nullptr;
    return pb->pb_get(pb, key, &value) == 0 ? value : nullptr;
}

int close_function(LDAPPluginBlock *pb)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_record.closes++;
    auto *end = g_bind_blocks + g_bind_block_count;
    auto *found = std::find(g_bind_blocks, end, pb);
    if (found == end)
        g_record.close_saw_a_bind_block = false;
    else
        *found = g_bind_blocks[--g_bind_block_count];
    return 0;
}

int bind_function(LDAPPluginBlock *pb)
{
    auto *argv = static_cast<char **>(get(pb, LDAP_PLUGIN_ARGV));
    bool send = false, close = false;
    int result = 0;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        TestPluginRecord &r = g_record;
        r.binds++;
        r.key_count = 0;
        for (unsigned i = 0; i < pb->pb_count && r.key_count < 16; i++)
            r.keys[r.key_count++] = pb->pb_pairs[i].pp_key;
        copy_text(r.type, get(pb, LDAP_PLUGIN_TYPE));
        copy_text(r.mechanism, get(pb, LDAP_PLUGIN_MECHANISM));
        copy_text(r.dn, get(pb, LDAP_PLUGIN_BIND_DN));
        copy_text(r.host, get(pb, LDAP_PLUGIN_HOST));
        r.ld = get(pb, LDAP_PLUGIN_LD);
        r.argc = reinterpret_cast<intptr_t>(get(pb, LDAP_PLUGIN_ARGC));
        r.gss_option = reinterpret_cast<uintptr_t>(get(pb, LDAP_PLUGIN_GSS_OPTION));
        std::string joined;
        for (char **arg = argv; arg && *arg; arg++) {
            joined += (joined.empty() ? "" : "|") + std::string(*arg);
            send |= std::strcmp(*arg, "send") == 0;
            close |= std::strcmp(*arg, "close") == 0;
            if (std::strncmp(*arg, "return=", 7) == 0)
                result = std::atoi(*arg + 7);
            if (std::strncmp(*arg, "gss=", 4) == 0)
                *static_cast<uint32_t *>(get(pb, LDAP_PLUGIN_GSS_RESULT)) = std::atoi(*arg + 4);
        }
        copy_text(r.args, joined.c_str());
        if (close && g_bind_block_count < 64)
            g_bind_blocks[g_bind_block_count++] = pb;
    }
    if (close && pb->pb_set(pb, LDAP_PLUGIN_CLOSE_FN, reinterpret_cast<void *>(close_function)) != 0)
        return LDAP_NO_MEMORY;
    if (!send)
        return result;
    return pb->pb_sasl_bind_s(static_cast<LDAP *>(get(pb, LDAP_PLUGIN_LD)),
                              static_cast<const char *>(get(pb, LDAP_PLUGIN_BIND_DN)),
                              static_cast<const char *>(get(pb, LDAP_PLUGIN_MECHANISM)),
                              static_cast<const struct berval *>(get(pb, LDAP_PLUGIN_CREDENTIALS)),
                              static_cast<LDAPControl **>(get(pb, LDAP_PLUGIN_SERVER_CONTROLS)), nullptr);
}

// Counts the call and records its block; returns what the caller returns.
int record_init(LDAPPluginBlock *pb, std::chrono::milliseconds pause)
{
    int running = ++g_inits_running;
    std::this_thread::sleep_for(pause);
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_record.inits++;
        g_record.most_inits_at_once = std::max(g_record.most_inits_at_once, running);
        g_record.init_key_count = 0;
        for (unsigned i = 0; i < pb->pb_count && g_record.init_key_count < 4; i++)
            g_record.init_keys[g_record.init_key_count++] = pb->pb_pairs[i].pp_key;
    }
    --g_inits_running;
    return 0;
}

int set_bind(LDAPPluginBlock *pb, void *bind)
{
    return pb->pb_set(pb, LDAP_PLUGIN_BIND_FN, bind) == 0 ? 0 : 1;
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) int test_plugin_init(LDAPPluginBlock *pb)
{
    record_init(pb, {});
    return set_bind(pb, reinterpret_cast<void *>(bind_function));
}

// The name the library looks for when the configuration names none.
__attribute__((visibility("default"))) int ldap_plugin_init(LDAPPluginBlock *pb) { return test_plugin_init(pb); }

__attribute__((visibility("default"))) int test_plugin_init_slow(LDAPPluginBlock *pb)
{
    record_init(pb, std::chrono::milliseconds(20));
    return set_bind(pb, reinterpret_cast<void *>(bind_function));
}

__attribute__((visibility("default"))) int test_plugin_init_no_bind(LDAPPluginBlock *pb)
{
    return record_init(pb, {});
}

__attribute__((visibility("default"))) int test_plugin_init_null_bind(LDAPPluginBlock *pb)
{
    record_init(pb, {});
    return set_bind(pb, nullptr);
}

__attribute__((visibility("default"))) int test_plugin_init_fails(LDAPPluginBlock *pb)
{
    record_init(pb, {});
    return 1;
}

__attribute__((visibility("default"))) void test_plugin_read(TestPluginRecord *record)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    *record = g_record;
}

__attribute__((visibility("default"))) void test_plugin_reset()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_record = {};
    g_record.close_saw_a_bind_block = true;
    g_bind_block_count = 0;
}

} // extern "C"
