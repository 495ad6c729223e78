// alloc_sweep_test.cpp - every scenario here is run once per allocation it
// makes, failing that allocation: the documented code comes back, nothing
// leaks, and whatever the row calls usable still works afterwards.
#include "alloc_faults.h"
#include "base/memory.h"
#include "ber_test_support.h"
#include "config/conf_file.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "dns/ldapdns.h"
#include "dns_test_support.h"
#include "engine_fixture.h"
#include "fresh_process.h"
#include "loopback.h"
#include "message/ldap_message.h"
#include "message/ldap_table.h"
#include "net/sockbuf.h"
#include "plugin_support.h"
#include "proto/dn.h"
#include "proto/filter.h"
#include "proto/ldap_controls.h"
#include "results/parse_result.h"
#include "script_server.h"
#include "session/ldap_init.h"
#include "test_util.h"
#include "tls/ldap_ssl_env.h"
#include "xlate/ldap_charset.h"
#include "zor8ldap_api.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using zldap_test::AllocFaultScenario;
using zldap_test::ExpectEachAllocationFailure;
using Sweep = std::function<void(const AllocFaultScenario &)>;
using ControlsPtr = std::unique_ptr<LDAPControl *, decltype(&ldap_controls_free)>;
using HandlePtr = std::unique_ptr<LDAP, decltype(&ldap_unbind)>;

// The other codes a failing run may return.
std::function<bool(int)> AnyOf(std::vector<int> codes)
{
    return [codes](int rc) { return std::find(codes.begin(), codes.end(), rc) != codes.end(); };
}

// A call that hands out a control list: its code, or -2 when a failed call
// still handed one out.
AllocFaultScenario HandsOutControls(const std::function<int(LDAPControl ***)> &call)
{
    return {[call] {
                LDAPControl **out = nullptr;
                int rc = call(&out);
                rc = rc != 0 && out ? -2 : rc;
                ldap_controls_free(out);
                return rc;
            },
            LDAP_NO_MEMORY};
}

struct SweepRow {
    const char *name;
    // Builds the scenarios; rows that need a server or a handle make it here
    // and keep it alive for the scenarios' lifetime through the captures.
    std::function<void(const Sweep &)> with_scenario;
};

// ---- codec and protocol pieces ----------------------------------------

// A DN with every kind of value, so that each allocation path runs.
constexpr const char *kSweepDn = "cn=a\\,b+sn=\"q\"+OID.1.2=#0403616263,o=Example;c=US";

// The explode functions and dn2ufn have no code: NULL (or, for
// ldap_explode_dn, an array cut short) stands for 90.
int NoMemoryUnless(size_t expected, char **array)
{
    size_t n = 0;
    while (array && array[n])
        n++;
    ldap_value_free(array);
    return n == expected ? LDAP_SUCCESS : LDAP_NO_MEMORY;
}

int NoMemoryIfNull(char *text)
{
    int rc = text ? LDAP_SUCCESS : LDAP_NO_MEMORY;
    ldap_memfree(text);
    return rc;
}

// A URL with every part, and the DN parser and its text forms.
void UrlAndDn(const Sweep &sweep)
{
    sweep({[] {
               LDAPURLDesc *d = nullptr;
               int rc = ldap_url_parse("ldap://h:1/o=x?a,b,c?sub?(cn=y)", &d);
               ldap_free_urldesc(d);
               return rc;
           },
           LDAP_URL_NO_MEMORY});
    sweep({[] {
               int error = 0;
               zldap::release_parsed_dn(zldap::parse_dn(kSweepDn, &error));
               return error;
           },
           LDAP_NO_MEMORY});
    sweep({[] { return NoMemoryUnless(3, ldap_explode_dn(kSweepDn, 0)); }, LDAP_NO_MEMORY});
    sweep({[] { return NoMemoryUnless(3, ldap_explode_rdn(kSweepDn, 1)); }, LDAP_NO_MEMORY});
    sweep({[] { return NoMemoryUnless(10, ldap_split_dns_name("a@b.c.d.e.f.g.h.i.j")); }, LDAP_NO_MEMORY});
    sweep({[] { return NoMemoryIfNull(ldap_dn2ufn(kSweepDn)); }, LDAP_NO_MEMORY});
}

// A response list holding one control of oid with these value bytes.
ControlsPtr ResponseList(const char *oid, const std::string &hex)
{
    zldap_test::Bytes bytes = zldap_test::Hex(hex);
    LDAPControl **list = nullptr;
    EXPECT_EQ(ldap_add_control(oid, bytes.size(), reinterpret_cast<const char *>(bytes.data()), 0, &list), 0);
    return ControlsPtr(list, ldap_controls_free);
}

// Control builders and value parsers on one handle. The filter encoder
// reports its own lack of memory as a bad filter, the value decoders
// theirs as a decoding failure.
void ControlValues(const Sweep &sweep)
{
    HandlePtr owner(ldap_init("localhost", 389), ldap_unbind);
    LDAP *ld = owner.get();
    auto build = [&](std::function<int(LDAPControl **)> call, std::vector<int> also) {
        sweep({[call] {
                   LDAPControl *ctrl = nullptr;
                   int rc = call(&ctrl);
                   ldap_control_free(ctrl);
                   return rc;
               },
               LDAP_NO_MEMORY, nullptr, AnyOf(also)});
    };
    struct berval cookie = {3, const_cast<char *>("abc")};
    build([&](LDAPControl **c) { return ldap_create_page_control(ld, 500, &cookie, 'T', c); }, {});
    build([&](LDAPControl **c) { return ldap_create_assertion_control(ld, "(&(cn=a*b)(sn=x))", 1, c); },
          {LDAP_FILTER_ERROR, LDAP_ENCODING_ERROR});
    ControlsPtr page = ResponseList("1.2.840.113556.1.4.319", "30 08 02 01 05 04 03 61 62 63");
    sweep({[&] {
               unsigned long size = 0;
               struct berval *out = nullptr;
               int rc = ldap_parse_page_control(ld, page.get(), &size, &out);
               ber_bvfree(out);
               return rc;
           },
           LDAP_NO_MEMORY});
    ControlsPtr limits = ResponseList("1.3.18.0.2.10.30", "30 1C 04 04 63 6E 3D 65 30 09 04 01 61 02 01 03 02 01 05 "
                                                          "30 09 04 01 62 02 01 01 02 01 02");
    sweep({[&] {
               LDAPLimitNumValuesResponse *response = nullptr;
               int rc = ldap_parse_limit_num_values_response(ld, limits.get(), &response);
               ldap_free_limit_num_values_response(response);
               return rc;
           },
           LDAP_NO_MEMORY, nullptr, AnyOf({LDAP_DECODING_ERROR})});
    zldap_test::Bytes policy = zldap_test::Hex("30 15 30 0B 04 01 61 31 06 04 01 31 04 01 32 80 06 04 04 63 6E 3D 70");
    sweep({[&] {
               struct berval value = {policy.size(), reinterpret_cast<char *>(policy.data())};
               LDAPPwdPolicyAttr **attrs = nullptr;
               char **dns = nullptr;
               int rc = ldap_parse_effective_pwdpolicy_response("1.3.18.0.2.12.77", &value, &attrs, &dns);
               ldap_free_effective_pwdpolicy_response(attrs, dns);
               return rc;
           },
           LDAP_NO_MEMORY, nullptr, AnyOf({LDAP_DECODING_ERROR})});
}

// Translation replaces the caller's buffer only when it succeeds; the
// failed attempt leaves it for the caller to free.
int TranslateCopy(int (*xlate)(char **, ber_len_t *, int), const char *text)
{
    char *buf = zldap::mem_strdup(text);
    ber_len_t len = std::strlen(text);
    int rc = buf ? xlate(&buf, &len, 1) : LDAP_NO_MEMORY;
    zldap::mem_free(buf);
    return rc;
}

void Xlate(const Sweep &sweep)
{
    ASSERT_EQ(ldap_set_iconv_local_codepage("ISO8859-1"), 0);
    sweep({[] { return TranslateCopy(xlate_local_to_utf8, "M\xFCller"); }, LDAP_NO_MEMORY});
    sweep({[] { return TranslateCopy(xlate_utf8_to_local, "M\xC3\xBCller"); }, LDAP_NO_MEMORY});
    sweep({[] {
               char *out = nullptr;
               int rc = ldap_xlate_local_to_utf8_wrp("M\xFCller", &out);
               zldap::mem_free(out);
               return rc;
           },
           LDAP_NO_MEMORY});
}

// Every allocating reader in one walk, on an element that converts its
// strings; a request that grows twice and converts its strings; elements
// copied in and out; a filter of every kind of item; a 40 kB message
// framed from a socket, whose content buffer grows twice on the way (a
// failed growth leaves nothing behind).
void BerCodec(const Sweep &sweep)
{
    using namespace zldap_test;
    Bytes bytes = Hex("04 02 61 62 04 02 61 62 04 02 61 62 04 02 61 62 03 02 00 FF 31 06 04 01 61 04 01 62"
                      "31 06 04 01 61 04 01 62");
    sweep({[&] {
               BerPtr ber = ExactReader(bytes);
               ScanOutputs out;
               bool read = ber && SetStringSettings(ber.get(), 3, nullptr) &&
                           ScanByItems(ber.get(), "asoOBvV", out) != LBER_DEFAULT;
               return read ? 0 : -1;
           },
           -1});
    std::string value(7000, 'z');
    sweep({[&] {
               BerPtr ber(fber_alloc_t(16));
               if (!ber || !SetStringSettings(ber.get(), 3, nullptr))
                   return -1;
               return fber_printf(ber.get(), "{it{s{s[ss]}}}", 2, ber_tag_t{0x68}, "cn=x", "description",
                                  value.c_str(), value.c_str());
           },
           -1});
    struct berval bv = {value.size(), value.data()};
    sweep({[&] {
               struct berval *out = reinterpret_cast<struct berval *>(1);
               BerPtr ber(fber_init2(&bv));
               int rc = ber ? fber_flatten(ber.get(), &out) : -1;
               rc = rc != 0 && ber && out ? -2 : rc;
               ber_bvfree(ber ? out : nullptr);
               return rc;
           },
           -1});
    sweep({[] {
               BerPtr ber(fber_alloc());
               return ber ? put_filter(ber.get(), "(&(cn=a*b)(|(x=1)(y:dn:=2))(!(z=*)))", 0) : -1;
           },
           -1});
    const std::string message = std::string("\x30\x82\xA0", 3) + '\0' + std::string(0xA000, 'z');
    sweep({[&] {
               int fds[2] = {-1, -1};
               if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) != 0 ||
                   write(fds[1], message.data(), message.size()) != static_cast<ssize_t>(message.size()))
                   return -2;
               Sockbuf sb{fds[0], nullptr};
               zldap_test::BerPtr ber(fber_alloc_t(0));
               int state = 0;
               ber_tag_t tag = ber ? fber_get_next_nb(&sb, ber.get(), &state) : LBER_DEFAULT;
               close(fds[0]);
               close(fds[1]);
               return tag == 0x30 ? 0 : -1;
           },
           -1});
}

// Lists built, merged and cut (on failure the lists built so far stay
// whole); a list written into an element that grows for every item and
// read back into a list that grows; the prefix a proxy DN gets; and what a
// handle copies: its elements, the default controls an operation sends,
// the bind response controls stored and handed out. The thread's error
// record exists before each walk, so recording a failure allocates nothing
// the handle keeps.
void Controls(const Sweep &sweep)
{
    sweep({[] {
               LDAPControl **dest = nullptr, **input = nullptr;
               int rc = ldap_add_control("Y1", 1, "y", 0, &dest);
               rc = rc ? rc : ldap_add_control("X1", 0, nullptr, 0, &input);
               rc = rc ? rc : ldap_add_control("X2", 2, "xx", 1, &input);
               rc = rc ? rc : ldap_merge_control_lists(&dest, input);
               input = rc ? input : nullptr;
               rc = rc ? rc : ldap_remove_control(dest[1], &dest, 1);
               ldap_controls_free(dest);
               ldap_controls_free(input);
               return rc;
           },
           LDAP_NO_MEMORY});
    using namespace zldap_test;
    LDAPControl **list = nullptr;
    ldap_add_control("1.2.840.113556.1.4.319", 300, std::string(300, 'v').c_str(), 1, &list);
    for (const char *oid : {"1.2", "1.3", "1.4"})
        ldap_add_control(oid, 0, nullptr, 0, &list);
    ControlsPtr owned(list, ldap_controls_free);
    sweep({[&] {
               BerPtr ber(fber_alloc_t(0));
               return ber ? put_ctrls_into_ber(ber.get(), list) : LDAP_ENCODING_ERROR;
           },
           LDAP_ENCODING_ERROR});
    BerPtr written(fber_alloc());
    ASSERT_EQ(put_ctrls_into_ber(written.get(), list), LDAP_SUCCESS);
    sweep(HandsOutControls([&](LDAPControl ***out) {
        BerPtr ber = ExactReader(Written(written.get()));
        return ber ? get_ctrls_from_ber(ber.get(), out) : LDAP_NO_MEMORY;
    }));
    for (const char *dn : {"cn=x", "DN:cn=x"})
        sweep({[dn] {
                   char *text = nullptr;
                   int rc = ldap_proxy_dn_prefix(&text, dn);
                   rc = rc != 0 && text ? -2 : rc;
                   zldap::mem_free(text);
                   return rc;
               },
               LDAP_NO_MEMORY});

    std::unique_ptr<LDAP, decltype(&ldap_unbind)> owner(ldap_init("localhost", 389), ldap_unbind);
    LDAP *ld = owner.get();
    ldap_set_error_direct(ld, LDAP_OTHER, nullptr, nullptr);
    sweep({[&] { return BerPtr(new_ldap_ber(ld)) ? 0 : ldap_get_errno_direct(ld); }, LDAP_NO_MEMORY});
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, list), 0);
    int copied = 0;
    sweep(HandsOutControls([&](LDAPControl ***out) { return ldap_check_client_controls(ld, out, nullptr, &copied); }));
    sweep({[&] {
               int rc = ldap_store_bind_controls(ld, list);
               bool stale = rc != 0 && ld->ld_defconn->lconn_ctrls;
               ldap_store_bind_controls(ld, nullptr);
               return stale ? -2 : rc;
           },
           LDAP_NO_MEMORY});
    ASSERT_EQ(ldap_store_bind_controls(ld, list), LDAP_SUCCESS);
    AllocFaultScenario get_bind = HandsOutControls([&](LDAPControl ***out) { return ldap_get_bind_controls(ld, out); });
    get_bind.check_usable = [&] { EXPECT_EQ(ldap_count_controls(ld->ld_defconn->lconn_ctrls), 4); };
    sweep(get_bind);
}

// ---- session and connections ------------------------------------------


int Unbound(LDAP *ld, int rc) { return ldap_unbind(ld) == 0 ? rc : -1; }

void InitAndOpen(const Sweep &sweep)
{
    // The default host; a named one is made by ldap_open, which reads the
    // version from the environment and opens the connection at once.
    sweep({[] { LDAP *ld = ldap_init(nullptr, 0); return ld ? Unbound(ld, 0) : LDAP_NO_MEMORY; }, LDAP_NO_MEMORY});
    zldap_test::LoopbackListener listener(AF_INET, 256);
    auto drain = [&] { listener.Drain(); };
    zldap_test::ScopedEnv env("LDAP_VERSION", "3");
    sweep({[&] { LDAP *ld = ldap_open("127.0.0.1", listener.port()); return ld ? Unbound(ld, 0) : LDAP_NO_MEMORY; },
           LDAP_NO_MEMORY, drain});
    // A connection comes with 0, and only then.
    sweep({[&] {
               LDAP *ld = ldap_init("127.0.0.1", 389);
               int rc = -7;
               LDAPConn *lc = ld ? find_connection(ld, "localhost", listener.port(), 1, &rc, 1) : nullptr;
               return ld ? Unbound(ld, (lc != nullptr) == (rc == 0) ? rc : -1) : LDAP_NO_MEMORY;
           },
           LDAP_NO_MEMORY, drain});
}

// Options that copy, on a handle that stays usable. Failures are recorded
// in the thread's error record, made beforehand so that recording
// allocates nothing.
void OptionCopies(const Sweep &sweep)
{
    LDAP *ld = ldap_init("localhost", 389);
    ldap_set_error_direct(ld, LDAP_OTHER, nullptr, nullptr);
    auto usable = [ld] { EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_ON), 0); };
    LDAPControl control{const_cast<char *>("1.2.3"), {2, const_cast<char *>("ab")}, 1}, *list[] = {&control, nullptr};
    struct timeval tv {1, 2};
    const std::pair<int, const void *> options[] = {{LDAP_OPT_SERVER_CONTROLS, list}, {LDAP_OPT_CONNECT_TIMEOUT, &tv},
                                                    {LDAP_OPT_CIPHER_SPECS_TLS12, "0A"}, {LDAP_OPT_SECURE_PROTOCOLS, "x"}};
    for (const auto &[option, value] : options) {
        sweep({[=] {
                   int rc = ldap_set_option(ld, option, value);
                   void *out = nullptr;
                   if (rc == 0 && option != LDAP_OPT_SECURE_PROTOCOLS)
                       rc = ldap_get_option(ld, option, &out);
                   option == LDAP_OPT_SERVER_CONTROLS ? ldap_controls_free(static_cast<LDAPControl **>(out)) : zldap::mem_free(out);
                   ldap_set_option(ld, option, nullptr);
                   return rc;
               },
               LDAP_NO_MEMORY, usable,
               // a text that can't be copied out is refused with 89
               [option](int rc) { return option == LDAP_OPT_CIPHER_SPECS_TLS12 && rc == LDAP_PARAM_ERROR; }});
    }
    sweep({[ld] {
               LDAPAPIInfo info{1};
               int rc = ldap_get_option(ld, LDAP_OPT_API_INFO, &info);
               EXPECT_EQ(rc == 0, info.ldapai_vendor_name != nullptr);
               zldap::mem_free(info.ldapai_extensions ? info.ldapai_extensions[0] : nullptr);
               zldap::mem_free(info.ldapai_extensions);
               zldap::mem_free(info.ldapai_vendor_name);
               return rc;
           },
           LDAP_NO_MEMORY, usable});
    ldap_unbind(ld);
}

// A thread's error record holds either the new error or the old one,
// never half of each.
void SetError(const Sweep &sweep)
{
    LDAP *ld = ldap_init("localhost", 389);
    ldap_set_error_direct(ld, LDAP_BUSY, nullptr, nullptr);
    sweep({[ld] {
               int rc = ldap_set_error_direct(ld, 32, "o=example", "no such entry");
               const ldap_error_record *r = ld->ld_errors;
               EXPECT_EQ(r->ld_errno, rc == 0 ? 32 : LDAP_BUSY);
               EXPECT_EQ(r->ld_matched != nullptr, rc == 0);
               EXPECT_EQ(r->ld_error != nullptr, rc == 0);
               ldap_set_error_direct(ld, LDAP_BUSY, nullptr, nullptr);
               return rc;
           },
           LDAP_NO_MEMORY});
    ldap_unbind(ld);
}

// ---- engine and operations --------------------------------------------

// A response as the reading path leaves it (element at the protocol
// operation), on a handle of its own; every part a parser can hand out is
// there: matched DN, text, referrals or name and value, two controls.
struct SweepResponse {
    explicit SweepResponse(const zldap_test::Bytes &operation)
    {
        using namespace zldap_test::wire;
        zldap_test::Bytes controls = Tlv(0xA0, zldap_test::Join({Seq({Octets("1.2.3"), Octets("value")}),
                                                                  Seq({Octets("1.2.4"), Tlv(0x01, {0xFF})})}));
        zldap_test::BerPtr ber =
            zldap_test::ExactReader(zldap_test::Join({Integer(1), operation, controls}));
        int id = 0;
        fber_get_int(ber.get(), &id);
        msg = ldap_alloc_msg(ld->ld_defconn);
        msg->msg_id = id;
        msg->msg_type = static_cast<int32_t>(fber_peek_tag(ber.get(), nullptr));
        msg->msg_ber = ber.release();
        start = msg->msg_ber->ber_ptr;
        // The thread's error record exists before the sweep: recording a
        // failure then makes nothing that outlives a run.
        ldap_set_error_direct(ld, LDAP_OTHER, nullptr, nullptr);
    }
    ~SweepResponse()
    {
        free_msg(msg, 0);
        ldap_unbind(ld);
    }
    LDAP *ld = ldap_init("localhost", 0);
    LDAPMessage *msg = nullptr;
    char *start = nullptr; // an extended parse consumes the element: each run starts here again
};

// An LDAPResult-shaped operation with its matched DN and text, then extra fields.
zldap_test::Bytes SweepOperation(int tag, int code, const zldap_test::Bytes &extra)
{
    using namespace zldap_test::wire;
    zldap_test::Bytes contents = Integer(code, 0x0A);
    for (const zldap_test::Bytes &field : {Octets("o=x"), Octets("see there"), extra})
        contents = zldap_test::Join({contents, field});
    return Tlv(tag, contents);
}

// ldap_parse_result, and the extended parser in the form that hands out
// the controls as well (the plain form reads a part of the same).
void ParseResults(const Sweep &sweep)
{
    using namespace zldap_test::wire;
    SweepResponse r(SweepOperation(0x65, LDAP_REFERRAL, Seq({Octets("ldap://a/"), Octets("ldap://b/")}, 0xA3)));
    sweep({[&] {
               int code = 0;
               char *matched = nullptr, *text = nullptr;
               char **refs = nullptr;
               LDAPControl **ctrls = nullptr;
               int rc = ldap_parse_result(r.ld, r.msg, &code, &matched, &text, &refs, &ctrls, 0);
               EXPECT_EQ(rc == 0, matched && text && ldap_count_values(refs) == 2 && ldap_count_controls(ctrls) == 2);
               ldap_memfree(matched);
               ldap_memfree(text);
               ldap_value_free(refs);
               ldap_controls_free(ctrls);
               return rc;
           },
           LDAP_NO_MEMORY});
    SweepResponse x(SweepOperation(0x78, 0, zldap_test::Join({Octets("1.2.9", 0x8A), Octets("data", 0x8B)})));
    sweep({[&] {
               x.msg->msg_ber->ber_ptr = x.start;
               char *oid = nullptr;
               struct berval *value = nullptr;
               LDAPControl **ctrls = nullptr;
               int rc = ldap_parse_extended_result_ext(x.ld, x.msg, &oid, &value, &ctrls, 0);
               EXPECT_EQ(rc == 0, oid && value && ldap_count_controls(ctrls) == 2);
               ldap_memfree(oid);
               ber_bvfree(value);
               ldap_controls_free(ctrls);
               return rc;
           },
           LDAP_NO_MEMORY});
}

// A table is made and grown; a failed growth leaves it as it was (its
// requests still held), so that a later one still works.
void TableGrowth(const Sweep &sweep)
{
    sweep({[] {
               ldap_msg_table *table = ldap_msg_table_init(8);
               if (!table)
                   return LDAP_NO_MEMORY;
               for (int i = 0; i < 7; i++)
                   ldap_msg_table_get_next_msgid(table);
               int held = ldap_msg_table_outstanding(table);
               int rc = ldap_msg_table_get_next_msgid(table) == 8 ? LDAP_SUCCESS : LDAP_NO_MEMORY;
               bool kept = ldap_msg_table_outstanding(table) == held;
               if (rc != LDAP_SUCCESS && (!kept || ldap_msg_table_get_next_msgid(table) != 8))
                   rc = LDAP_OTHER;
               ldap_msg_table_free(table);
               return rc;
           },
           LDAP_NO_MEMORY});
}

// A fresh handle on the server per run: a failed read ends its connection.
int OnFreshHandle(const zldap_test::ScriptServer &server, const std::function<int(LDAP *)> &body)
{
    LDAP *ld = zldap_test::HandleFor(server);
    if (!ld)
        return LDAP_NO_MEMORY;
    int rc = body(ld);
    ldap_unbind(ld);
    return rc;
}

// A search whose first server refers to a second one with a search
// reference, on a fresh handle each run. A failure while chasing drops
// the reference: the search succeeds without the second server's entry,
// which the row counts as the memory failure it is. A failure while
// reading costs the connection; one in the filter encoder is a filter
// error; a few (error records) cost nothing. By URL, the second server is
// searched directly, referred from the first server's table; a failure
// in the URL's parser is a bad URL.
void SearchReferenceChased(const Sweep &sweep, bool by_url)
{
    using namespace zldap_test::wire;
    // Encoded before the sweep: the servers' own encoding must not count.
    zldap_test::Bytes referred = zldap_test::Concat(Entry(1, "cn=b,o=b", {}), Result(1, 0x65, 0));
    zldap_test::ScriptServer b([&](zldap_test::ScriptConnection &c) {
        while (auto r = c.Read())
            c.Send(referred);
    });
    zldap_test::Bytes initial =
        zldap_test::Join({Entry(1, "cn=a,o=a", {}),
                          Seq({Integer(1), Seq({Octets("ldap://" + b.host() + "/o=b??sub")}, 0x73)}),
                          Result(1, 0x65, 0)});
    zldap_test::ScriptServer a([&](zldap_test::ScriptConnection &c) {
        while (auto r = c.Read())
            c.Send(initial);
    });
    std::string url = "ldap://" + b.host() + "/o=b??sub";
    int bad_url = by_url ? LDAP_PARAM_ERROR : LDAP_SUCCESS;
    sweep({[&] {
               return OnFreshHandle(a, [&](LDAP *ld) {
                   LDAPMessage *res = nullptr;
                   int rc = by_url ? ldap_url_search_s(ld, url.c_str(), 0, &res)
                                   : ldap_search_s(ld, "o=a", LDAP_SCOPE_SUBTREE, "(cn=*)", nullptr, 0, &res);
                   if (rc == LDAP_SUCCESS && ldap_count_entries(ld, res) != (by_url ? 1 : 2))
                       rc = LDAP_NO_MEMORY;
                   ldap_msgfree(res);
                   return rc;
               });
           },
           LDAP_NO_MEMORY, nullptr, AnyOf({LDAP_SERVER_DOWN, LDAP_FILTER_ERROR, LDAP_SUCCESS, bad_url})});
}

// A server that answers binds, modifies and extended requests (these with
// a name and a value), and nothing else: other requests stay outstanding
// until they are abandoned. The answers are written by hand, so the server
// allocates nothing through the seam.
class SweepServer {
public:
    int Run(const std::function<int(LDAP *)> &body) { return OnFreshHandle(server_, body); }

private:
    zldap_test::ScriptServer server_{[](zldap_test::ScriptConnection &c) {
        using namespace zldap_test::wire;
        while (auto r = c.Read()) {
            std::vector<zldap_test::Bytes> op = {Integer(0, 0x0A), Octets(""), Octets("")};
            if (r->tag == 0x77)
                op.insert(op.end(), {Octets("1.2.9", 0x8A), Octets("data", 0x8B)});
            if (r->tag == 0x60 || r->tag == 0x66 || r->tag == 0x77)
                c.Send(Seq({Integer(r->id), Seq(op, r->tag == 0x77 ? 0x78 : r->tag + 1)}));
        }
    }};
};

// Each run sends a delete the server never answers and abandons it, on a
// handle whose connection is open and whose error record exists already.
void AbandonRequest(const Sweep &sweep)
{
    SweepServer server;
    server.Run([&](LDAP *ld) {
        EXPECT_EQ(ldap_extended_operation_s(ld, "1.2.3", nullptr, nullptr, nullptr, nullptr, nullptr), 0);
        ldap_set_error_direct(ld, LDAP_OTHER, nullptr, nullptr);
        sweep({[ld] {
                   int id = -1;
                   int rc = ldap_delete_ext(ld, "cn=x", nullptr, nullptr, &id);
                   if (rc != LDAP_SUCCESS)
                       return rc;
                   rc = ldap_abandon_ext(ld, id, nullptr, nullptr);
                   // An abandon that could not be sent leaves the request in its
                   // row until the table goes; give the row back now instead.
                   if (rc != LDAP_SUCCESS)
                       ldap_msg_table_release_msgid(get_default_connection(ld)->lconn_msgtable, id);
                   return rc;
               },
               LDAP_NO_MEMORY});
        return 0;
    });
}

// A SASL bind handed to a plug-in that binds through the library and keeps
// its block for its close function, a modify and an extended operation, on
// a fresh handle each run. Failures while sending are memory errors; while
// an answer is read they cost the connection; once it is in, texts that
// cannot be kept are dropped and the outcome stands.
void OperationsOverTheWire(const Sweep &sweep)
{
    ASSERT_EQ(zldap_test::RegisterTestPlugin("SWEEP-BIND", "test_plugin_init", "send close"), 0);
    SweepServer server;
    static char x[] = "x";
    static char *values[] = {x, nullptr};
    static LDAPMod mod{LDAP_MOD_REPLACE, const_cast<char *>("description"), {values}};
    static LDAPMod *mods[] = {&mod, nullptr};
    sweep({[&] {
               return server.Run([](LDAP *ld) {
                   int rc = ldap_sasl_bind_s(ld, "cn=a", "SWEEP-BIND", nullptr, nullptr, nullptr, nullptr);
                   rc = rc ? rc : ldap_modify_s(ld, "cn=a", mods);
                   if (rc)
                       return rc;
                   struct berval value = {3, const_cast<char *>("abc")};
                   char *name = nullptr;
                   struct berval *data = nullptr;
                   rc = ldap_extended_operation_s(ld, "1.2.3", &value, nullptr, nullptr, &name, &data);
                   EXPECT_EQ(rc == 0, name && data);
                   ldap_memfree(name);
                   ber_bvfree(data);
                   return rc;
               });
           },
           LDAP_NO_MEMORY, nullptr, AnyOf({LDAP_SERVER_DOWN, LDAP_CONNECT_ERROR, LDAP_SUCCESS})});
}

// ---- server location ----------------------------------------------------

// Name servers from a resolver file, the domain from LOCALDOMAIN.
void DnsSearchLists(const Sweep &sweep)
{
    zldap_test::TempDir dir;
    std::ofstream(dir.file("resolv.conf")) << "nameserver 10.0.0.1\nnameserver 10.0.0.2\nsearch a.example\n";
    zldap_test::ScopedEnv env("LOCALDOMAIN", "l.example");
    sweep({[&] {
               server_request request{};
               zldap::DnsSearchLists lists;
               int rc = zldap::dns_settle_search_lists(&request, dir.file("resolv.conf").c_str(), "h", &lists);
               zldap::dns_search_lists_free(&lists);
               return rc;
           },
           LDAP_NO_MEMORY});
}

// A lookup whose servers each get a vendor, an info text and a service URL.
void DnsLookup(const Sweep &sweep)
{
    namespace dns = zldap_test::dns;
    zldap_test::DnsPeer peer([](const zldap_test::DnsQuery &q) {
        std::vector<zldap_test::Bytes> records;
        if (q.type == 255)
            records = {dns::Srv(q.name, 1, 1, 389, "a.example"), dns::Srv(q.name, 1, 2, 389, "b.example")};
        else
            records = {dns::Txt(q.name, {"service:ldaps://" + q.name + ":636/o=x", "ldapvendor:v", "ldapinfo:i"})};
        return std::vector<zldap_test::Bytes>{dns::Answer(q.id, 0x8180, q.name, q.type, records)};
    });
    sweep({[&] {
               dns::LookupOutcome out = dns::Lookup({peer.name_server()});
               return out.rc == 0 && out.servers.size() != 2 ? -2 : out.rc;
           },
           LDAP_NO_MEMORY});
}

// Servers from the configuration file, then the same as a host list.
void ServerLocate(const Sweep &sweep)
{
    zldap_test::ScopedLocateFiles files;
    std::ofstream(files.server_conf) << "0\n_ldap a.example c.a.example 1 2 3 4 1 \"o=x\" \"v\" \"i\"\n";
    char service[] = "_ldap", protocol[] = "_tcp", domain[] = "a.example", *domains[] = {domain, nullptr};
    server_request request{1, nullptr, nullptr, service, nullptr, nullptr, domains, 0, 5, nullptr, protocol};
    sweep({[&] {
               server_info *list = nullptr;
               int rc = ldap_server_locate(&request, &list);
               ldap_server_free_list(list);
               return rc ? rc : NoMemoryIfNull(auto_server_locate(&request, 0));
           },
           LDAP_NO_MEMORY});
}

// Items of the current user among another user's, then the password
// read with its key and with another.
void UserInfoFile(const Sweep &sweep)
{
    zldap_test::TempDir dir;
    const std::string path = dir.file("ldap_user_info");
    sweep({[&] {
               // alice's record: no domain, the text "t", no password
               std::ofstream(path, std::ios::binary) << std::string("\x05" "alice" "\x00\x01\x00\x00\x00\x01" "t" "\x00", 14);
               int rc = ldap_set_user_info_text("text", path.c_str());
               if (rc == 0)
                   rc = ldap_set_user_info_password("key", "secret", 6, path.c_str());
               for (const char *key : {"key", "other"}) {
                   char *data = nullptr;
                   int length = 0;
                   if (rc == 0)
                       rc = ldap_get_user_info_password(key, &data, &length, path.c_str());
                   ldap_memfree(data);
               }
               return rc;
           },
           LDAP_NO_MEMORY});
}

// ---- configuration ----------------------------------------------------

// The configuration file read into a list of its own. A failure while the
// file is located leaves it unfound.
void ConfRead(const Sweep &sweep)
{
    zldap_test::ConfFile conf("plugin sasl A lib init a b\n# comment\nplugin sasl B lib\n");
    sweep({[] {
               ldap_conf_list list{};
               int rc = ldap_read_conf_file(&list);
               EXPECT_EQ(rc == 0, list.first && list.first->next);
               ldap_conf_list_clear(&list);
               return rc;
           },
           LDAP_NO_MEMORY, nullptr, [](int rc) { return rc == LDAP_PLUGIN_CONF_NOT_OPENED; }});
}

// A registration replacing its own entry, then a copy of the registry. The
// configuration file the registration reads first is not looked at, so a
// failure there goes unnoticed; a record for the opened library that can't
// be made is a library not loaded.
void RegisterAndCopy(const Sweep &sweep)
{
    sweep({[] {
               int rc = zldap_test::RegisterTestPlugin("SWEEP", "test_plugin_init", "a b");
               LDAPPluginInfo **list = nullptr;
               if (rc == 0)
                   rc = ldap_plugin_registry_copy(&list);
               ldap_plugin_registry_free(list);
               return rc;
           },
           LDAP_NO_MEMORY, nullptr, [](int rc) { return rc == LDAP_SUCCESS || rc == LDAP_PLUGIN_NOT_LOADED; }});
}

// ---- secure transport -------------------------------------------------

// Environments prepared on the recording toolkit, which the loader finds,
// from a key database with its password and from the default one with its
// stash file. A session holds the current environment around each, so each
// replaces one and nothing outlives the run. A default key database name
// that can't be made is 119.
void SslEnvironments(const Sweep &sweep)
{
    zldap_test::ScopedEnv search("ZORLIB_LOCAL_INSTALL_MODE", "");
    zldap_test::ScopedEnv path("LD_LIBRARY_PATH", ZLDAP_RECORDER_DIR);
    ZLDAP_IN_FRESH_PROCESS(sweep({[] {
               int rc = LDAP_SUCCESS;
               for (const char *kdb : {"/k/db.kdb", static_cast<const char *>(nullptr)}) {
                   ZorEnvRef *held = attachZorEnvRef();
                   int step = ldap_ssl_environment_init(kdb, kdb ? "pw" : nullptr, 0, nullptr);
                   rc = rc != LDAP_SUCCESS ? rc : step;
                   if (held)
                       deleteZorEnvRef(held);
               }
               return rc;
           },
           LDAP_NO_MEMORY, nullptr, [](int rc) { return rc == LDAP_SECURE_KEYRING_MISSING; }}));
}

// A secure session's first connection, to a listener, over the recording
// toolkit: the session, its label and the connection's secure record.
void SecureConnect(const Sweep &sweep)
{
    zldap_test::ScopedEnv search("ZORLIB_LOCAL_INSTALL_MODE", "");
    zldap_test::ScopedEnv path("LD_LIBRARY_PATH", ZLDAP_RECORDER_DIR);
    zldap_test::LoopbackListener listener(AF_INET, 256);
    ZLDAP_IN_FRESH_PROCESS(ASSERT_EQ(ldap_ssl_client_init("/k/db.kdb", "pw", 0, nullptr), 0); sweep({[&] {
               LDAP *ld = ldap_ssl_session_init("127.0.0.1", listener.port(), "label");
               return ld ? Unbound(ld, open_default_connection(ld)) : LDAP_NO_MEMORY;
           },
           LDAP_NO_MEMORY, [&] { listener.Drain(); }}));
}

// StartTLS accepted by a scripted server, over the recording toolkit: the
// request, the session's hold on the environment and the secure record.
// As for any extended operation, a copy of the response's empty texts may
// fail without failing the operation.
void StartTls(const Sweep &sweep)
{
    zldap_test::ScopedEnv search("ZORLIB_LOCAL_INSTALL_MODE", "");
    zldap_test::ScopedEnv path("LD_LIBRARY_PATH", ZLDAP_RECORDER_DIR);
    SweepServer server;
    ZLDAP_IN_FRESH_PROCESS(ASSERT_EQ(ldap_ssl_client_init("/k/db.kdb", "pw", 0, nullptr), 0); sweep({[&] {
               return server.Run([](LDAP *ld) { return ldap_start_tls_s_np(ld, nullptr); });
           },
           LDAP_NO_MEMORY, nullptr,
           [](int rc) { return rc == LDAP_SERVER_DOWN || rc == LDAP_CONNECT_ERROR || rc == LDAP_SUCCESS; }}));
}

const SweepRow kRows[] = {
    // ---- codec and protocol pieces rows ----
    {"UrlAndDn", UrlAndDn},
    {"BerCodec", BerCodec},
    {"Controls", Controls},
    {"ControlValues", ControlValues},
    {"Xlate", Xlate},

    // ---- session and connections rows ----
    {"InitAndOpen", InitAndOpen},
    {"OptionCopies", OptionCopies},
    {"SetError", SetError},

    // ---- engine and operations rows ----
    {"ParseResults", ParseResults},
    {"TableGrowth", TableGrowth},
    {"OperationsOverTheWire", OperationsOverTheWire},
    {"SearchReferenceChased", [](const auto &sweep) { SearchReferenceChased(sweep, false); }},
    {"UrlSearchOfAnotherServer", [](const auto &sweep) { SearchReferenceChased(sweep, true); }},
    {"AbandonRequest", AbandonRequest},

    // ---- server location rows ----
    {"DnsSearchLists", DnsSearchLists},
    {"DnsLookup", DnsLookup},
    {"ServerLocate", ServerLocate},
    {"UserInfoFile", UserInfoFile},
    // ---- configuration rows ----
    {"ConfRead", ConfRead},
    {"RegisterAndCopy", RegisterAndCopy},
    // ---- secure transport rows ----
    {"SslEnvironments", SslEnvironments},
    {"SecureConnect", SecureConnect},
    {"StartTls", StartTls},
};

class AllocSweep : public testing::TestWithParam<SweepRow> {};

TEST_P(AllocSweep, EveryAllocationFailsCleanly)
{
    GetParam().with_scenario([](const AllocFaultScenario &scenario) {
        EXPECT_GT(ExpectEachAllocationFailure(scenario), 0) << "the scenario allocates nothing";
    });
}

INSTANTIATE_TEST_SUITE_P(Rows, AllocSweep, testing::ValuesIn(kRows),
                         [](const testing::TestParamInfo<SweepRow> &info) { return std::string(info.param.name); });

} // namespace
