// Every public function that takes a handle, called with a NULL handle, with
// memory that is not a handle, and with a handle whose unbind has started:
// each gives its documented answer and leaves the handle as it found it
// (nothing counted in, no error recorded, the handle lock free).
#include "ber/lber.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "loopback.h"
#include "message/ldap_message.h"
#include "ops/ldap_bind.h"
#include "ops/search.h"
#include "ops/update.h"
#include "proto/ldap_controls.h"
#include "results/results.h"
#include "engine/ldap_result.h"
#include "session/ldap_init.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <pthread.h>

namespace {

// Arguments and outputs of the calls; a refused call leaves them alone.
int g_int, g_id;
char *g_text, *g_matched, **g_urls, *g_attrs[] = {const_cast<char *>("cn"), nullptr}, *g_values[] = {g_attrs[0], nullptr};
LDAPMessage *g_res;
LDAPControl **g_ctrls;
BerElement *g_cursor;
struct berval *g_servercred, g_cred = {3, const_cast<char *>("pwd")};
struct timeval g_zero = {0, 0};
LDAPMod g_mod = {LDAP_MOD_ADD, g_attrs[0], {g_values}}, *g_mods[] = {&g_mod, nullptr};

long Answer(int code) { return code; }
long Answer(const void *pointer) { return pointer ? 1 : 0; } // 0: NULL
constexpr long kNull = 0;

long Perror(LDAP *ld)
{
    testing::internal::CaptureStderr();
    ldap_perror(ld, "x");
    return static_cast<long>(testing::internal::GetCapturedStderr().size()); // prints nothing
}

struct Row {
    const char *call;
    std::function<long(LDAP *, LDAPMessage *)> run;
    long refused;               // for a foreign or closing handle
    long for_null = kSameAnswer; // for NULL, when it differs
    static constexpr long kSameAnswer = -999;
};

#define ROW(expr, ...) \
    Row { #expr, [](LDAP *ld, LDAPMessage *m) -> long { (void)ld; (void)m; return Answer(expr); }, __VA_ARGS__ }

const Row kRows[] = {
    // session
    ROW(ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &(g_int = 0)), 89, 0), // NULL: the global defaults
    ROW(ldap_get_option(ld, LDAP_OPT_SIZELIMIT, &g_int), 89, 0), ROW(ldap_unbind(ld), 89), ROW(ldap_unbind_s(ld), 89),
    ROW(ldap_unbind_ext(ld, nullptr, nullptr), 89),
    // error
    ROW(ldap_get_errno(ld), -1), ROW(ldap_get_ext_error(ld), -1), ROW(ldap_get_error(ld, &g_matched, &g_text), -1),
    ROW(ldap_set_error(ld, 32, "o=x", "text"), -1), ROW(Perror(ld), 0),
    // engine
    ROW(ldap_result(ld, 1, 1, &g_zero, &g_res), -1),
    // results
    ROW(ldap_msgfree(m), 0), ROW(ldap_result2error(ld, m, 0), 89), ROW(ldap_first_message(ld, m), kNull),
    ROW(ldap_next_message(ld, m), kNull), ROW(ldap_count_messages(ld, m), -1), ROW(ldap_first_entry(ld, m), kNull),
    ROW(ldap_next_entry(ld, m), kNull), ROW(ldap_count_entries(ld, m), -1), ROW(ldap_first_reference(ld, m), kNull),
    ROW(ldap_next_reference(ld, m), kNull), ROW(ldap_count_references(ld, m), -1),
    ROW(ldap_parse_reference(ld, m, &g_urls, &g_ctrls, 0), 89),
    ROW(ldap_parse_reference_np(ld, m, &g_urls, &g_ctrls, 0), 89), ROW(ldap_get_dn(ld, m), kNull),
    ROW(ldap_first_attribute(ld, m, &g_cursor), kNull), ROW(ldap_next_attribute(ld, m, m->msg_ber), kNull),
    ROW(ldap_count_attributes(ld, m), -1), ROW(ldap_get_values(ld, m, "cn"), kNull),
    ROW(ldap_get_values_len(ld, m, "cn"), kNull),
    // ops: bind
    ROW(ldap_simple_bind(ld, "cn=x", "pwd"), -1), ROW(ldap_simple_bind_s(ld, "cn=x", "pwd"), 89),
    ROW(ldap_bind(ld, "cn=x", "pwd", LDAP_AUTH_SIMPLE), -1),
    ROW(ldap_bind_s(ld, "cn=x", "pwd", LDAP_AUTH_SIMPLE), 89),
    ROW(ldap_sasl_bind(ld, "cn=x", "PLAIN", &g_cred, nullptr, nullptr, &g_id), 89),
    ROW(ldap_sasl_bind_s(ld, "cn=x", "PLAIN", &g_cred, nullptr, nullptr, &g_servercred), 89),
    ROW(ldap_get_bind_controls(ld, &g_ctrls), 89),
    // ops: search
    ROW(ldap_search(ld, "o=x", 2, "(cn=*)", g_attrs, 0), -1),
    ROW(ldap_search_ext(ld, "o=x", 2, "(cn=*)", g_attrs, 0, nullptr, nullptr, &g_zero, 0, &g_id), 89),
    ROW(ldap_search_ext_s(ld, "o=x", 2, "(cn=*)", g_attrs, 0, nullptr, nullptr, &g_zero, 0, &g_res), 89),
    ROW(ldap_search_s(ld, "o=x", 2, "(cn=*)", g_attrs, 0, &g_res), 89),
    ROW(ldap_search_st(ld, "o=x", 2, "(cn=*)", g_attrs, 0, &g_zero, &g_res), 89),
    ROW(ldap_get_entry_controls(ld, m, &g_ctrls), -1), ROW(ldap_get_entry_controls_np(ld, m, &g_ctrls), 89),
    // ops: updates and compare
    ROW(ldap_add(ld, "cn=x", g_mods), -1), ROW(ldap_add_ext(ld, "cn=x", g_mods, nullptr, nullptr, &g_id), 89),
    ROW(ldap_add_ext_s(ld, "cn=x", g_mods, nullptr, nullptr), 89), ROW(ldap_add_s(ld, "cn=x", g_mods), 89),
    ROW(ldap_modify(ld, "cn=x", g_mods), -1), ROW(ldap_modify_ext(ld, "cn=x", g_mods, nullptr, nullptr, &g_id), 89),
    ROW(ldap_modify_ext_s(ld, "cn=x", g_mods, nullptr, nullptr), 89), ROW(ldap_modify_s(ld, "cn=x", g_mods), 89),
    ROW(ldap_delete(ld, "cn=x"), -1), ROW(ldap_delete_ext(ld, "cn=x", nullptr, nullptr, &g_id), 89),
    ROW(ldap_delete_ext_s(ld, "cn=x", nullptr, nullptr), 89), ROW(ldap_delete_s(ld, "cn=x"), 89),
    ROW(ldap_rename(ld, "cn=x", "cn=y", nullptr, 1, nullptr, nullptr, &g_id), 89),
    ROW(ldap_rename_s(ld, "cn=x", "cn=y", "o=y", 1, nullptr, nullptr), 89),
    ROW(ldap_modrdn2(ld, "cn=x", "cn=y", 1), -1), ROW(ldap_modrdn_s(ld, "cn=x", "cn=y", 1), 89),
    ROW(ldap_compare(ld, "cn=x", "cn", "x"), -1),
    ROW(ldap_compare_ext(ld, "cn=x", "cn", &g_cred, nullptr, nullptr, &g_id), 89),
    ROW(ldap_compare_ext_s(ld, "cn=x", "cn", &g_cred, nullptr, nullptr), 89),
    ROW(ldap_compare_s(ld, "cn=x", "cn", "x"), 89, -1), // NULL: -1
};

// A search entry "cn=x" with cn: x, as filed in a row: a whole message the
// result functions could read if they were let in.
struct EntryMessage {
    explicit EntryMessage(LDAP *owner)
    {
        conn.lconn_ld = owner;
        msg.msg_type = LDAP_RES_SEARCH_ENTRY;
        msg.msg_conn = &conn;
        msg.msg_ber = fber_alloc_t(0);
        fber_printf(msg.msg_ber, "t{s{{s[s]}}}", LDAP_RES_SEARCH_ENTRY, "cn=x", "cn", "x");
        fber_reset(msg.msg_ber, 1);
    }
    ~EntryMessage() { fber_free(msg.msg_ber); }
    LDAPConn conn{};
    LDAPMessage msg{};
};

// The handle lock is free, the operation count and the thread's errors
// are as before.
bool Untouched(LDAP *ld)
{
    if (pthread_mutex_trylock(&ld->ld_mutex) != 0)
        return false;
    bool untouched = !ldap_operations_inside(ld) && ld->ld_errors == nullptr;
    pthread_mutex_unlock(&ld->ld_mutex);
    return untouched;
}

long Expected(const Row &row, bool null_handle)
{
    return null_handle && row.for_null != Row::kSameAnswer ? row.for_null : row.refused;
}

// Every test runs with every trace line on: formatting a refused call's
// trace lines must not touch the handle either.
TEST(GuardSweep, NullHandle)
{
    zldap_test::TraceCapture trace(0xFFFF);
    EntryMessage entry(nullptr);
    for (const Row &row : kRows)
        EXPECT_EQ(row.run(nullptr, &entry.msg), Expected(row, true)) << row.call;
}

TEST(GuardSweep, ForeignMemory)
{
    // Seven of the eight marker characters: not a handle either.
    alignas(LDAP) unsigned char foreign[sizeof(LDAP)] = {};
    std::memcpy(foreign, "LDAP HDl", 8);
    unsigned char before[sizeof foreign];
    std::memcpy(before, foreign, sizeof foreign);
    zldap_test::TraceCapture trace(0xFFFF);
    LDAP *ld = reinterpret_cast<LDAP *>(foreign);
    EntryMessage entry(ld);
    for (const Row &row : kRows) {
        EXPECT_EQ(row.run(ld, &entry.msg), Expected(row, false)) << row.call;
        EXPECT_EQ(std::memcmp(foreign, before, sizeof foreign), 0) << row.call << " wrote to it";
    }
    ldap_end_operation(ld); // does nothing either
    EXPECT_EQ(std::memcmp(foreign, before, sizeof foreign), 0);
}

TEST(GuardSweep, HandleWhoseUnbindHasStarted)
{
    // Its server refuses: a call that wrongly got in fails quickly.
    zldap_test::RefusedPort refused;
    LDAP *ld = ldap_init("127.0.0.1", refused.port());
    EntryMessage entry(ld);
    zldap_test::TraceCapture trace(0xFFFF);
    auto set_closing = [ld](uint32_t closing) {
        pthread_mutex_lock(&ld->ld_mutex);
        ld->ld_unbind_started = closing;
        pthread_mutex_unlock(&ld->ld_mutex);
    };
    set_closing(1);
    for (const Row &row : kRows) {
        EXPECT_EQ(row.run(ld, &entry.msg), Expected(row, false)) << row.call;
        EXPECT_TRUE(Untouched(ld)) << row.call << " counted in, recorded an error or kept the lock";
    }
    set_closing(0);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

} // namespace
