// Walking result chains where a real server cannot help: references,
// attribute names at the length limit, entries without attributes, and
// what ldap_msgfree and ldap_mods_free release. Ordinary entries and
// values are walked in the integration tests against slapd.
#include "engine_fixture.h"
#include "base/memory.h"
#include "core/ldap_error.h"
#include "results/results.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

using namespace zldap_test;

namespace {

using Attributes = std::vector<std::pair<std::string, std::vector<std::string>>>;

// A handle holding one whole chain: an entry without attributes, an entry
// with the given attributes (by default a binary value of one named
// `name`), a reference and a search result done.
class Chain {
public:
    explicit Chain(const std::string &name) : Chain(Attributes{{name, {std::string("bin\0ary", 7)}}}) {}
    explicit Chain(const Attributes &attributes)
        : server_([attributes](ScriptConnection &c) {
              auto reference = [](BerElement *ber) {
                  return fber_printf(ber, "t{s}", ber_tag_t{0x73}, "ldap://elsewhere/o=x");
              };
              while (auto r = c.Read())
                  c.Send(Concat(Concat(wire::Entry(r->id, "cn=empty,o=x", {}),
                                       wire::Entry(r->id, "cn=named,o=x", attributes)),
                                Concat(wire::Message(r->id, reference), wire::Result(r->id, 0x65, 0))));
          }),
          ld(HandleFor(server_))
    {
        // The reference is the caller's to walk, not to be followed.
        ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
        int id = 0;
        EXPECT_EQ(SendDelete(ld, "cn=x", &id), 0);
        struct timeval tv {10, 0};
        EXPECT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, &tv, &res), LDAP_RES_SEARCH_RESULT);
    }
    ~Chain() { ldap_unbind(ld); }

private:
    ScriptServer server_;

public:
    LDAP *ld;
    LDAPMessage *res = nullptr;
};

TEST(Results, CountsReferencesAndTheChainsRelease)
{
    Chain c("cn");
    EXPECT_EQ(ldap_count_entries(c.ld, c.res), 2);
    EXPECT_EQ(ldap_count_references(c.ld, c.res), 1);
    EXPECT_EQ(ldap_count_messages(c.ld, c.res), 4);
    LDAPMessage *ref = ldap_first_reference(c.ld, c.res);
    ASSERT_NE(ref, nullptr);
    EXPECT_EQ(ldap_next_reference(c.ld, ref), nullptr);
    EXPECT_EQ(ldap_msgtype(ref), LDAP_RES_SEARCH_REFERENCE);
    EXPECT_EQ(ldap_msgid(ref), c.res->msg_id);
    char **urls = nullptr;
    EXPECT_EQ(ldap_parse_reference(c.ld, ref, &urls, nullptr, 0), 0);
    ASSERT_EQ(ldap_count_values(urls), 1);
    EXPECT_STREQ(urls[0], "ldap://elsewhere/o=x");
    ldap_value_free(urls);
    EXPECT_EQ(ldap_parse_reference(c.ld, c.res, &urls, nullptr, 0), LDAP_PARAM_ERROR) << "not a reference";
    LDAPMessage *empty = ldap_first_entry(c.ld, c.res);
    EXPECT_EQ(ldap_count_attributes(c.ld, empty), 0);
    EXPECT_EQ(ldap_count_attributes(c.ld, ldap_next_entry(c.ld, empty)), 1);
    BerElement *cursor = nullptr;
    EXPECT_EQ(ldap_first_attribute(c.ld, empty, &cursor), nullptr);
    EXPECT_EQ(ldap_get_errno(c.ld), 0) << "no attributes is no error";
    EXPECT_NE(cursor, nullptr) << "an entry without attributes still hands out its cursor";
    ldap_ber_free(cursor, 0);
    EXPECT_EQ(ldap_msgfree(c.res), LDAP_RES_SEARCH_RESULT) << "a chain reports its last message's type";
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(c.ld)), 0) << "and gives its row back";
}

TEST(Results, AttributeNamesOfUpTo400BytesAreReadWhole)
{
    for (size_t length : {400, 401}) {
        Chain c(std::string(length, 'a'));
        LDAPMessage *named = ldap_next_entry(c.ld, ldap_first_entry(c.ld, c.res));
        BerElement *cursor = nullptr;
        char *a = ldap_first_attribute(c.ld, named, &cursor);
        if (length == 401) {
            EXPECT_EQ(a, nullptr);
            EXPECT_EQ(ldap_get_errno(c.ld), LDAP_DECODING_ERROR);
            EXPECT_EQ(cursor, nullptr) << "a failed first read takes the cursor back";
        } else {
            ASSERT_NE(a, nullptr);
            EXPECT_EQ(std::strlen(a), length);
            struct berval **values = ldap_get_values_len(c.ld, named, a);
            ASSERT_EQ(ldap_count_values_len(values), 1);
            EXPECT_EQ(std::string(values[0]->bv_val, values[0]->bv_len), std::string("bin\0ary", 7));
            ldap_value_free_len(values);
            ldap_memfree(a);
            ldap_ber_free(cursor, 0);
        }
        ldap_msgfree(c.res);
    }
}

// Walking in the entry's order and asking again out of order both find
// the first attribute of a name, also when a later type repeats it.
TEST(Results, ValuesComeFromTheFirstAttributeOfTheName)
{
    Chain c(Attributes{{"cn", {"first"}}, {"sn", {"s"}}, {"CN", {"again"}}, {"mail", {"m"}}});
    LDAPMessage *named = ldap_next_entry(c.ld, ldap_first_entry(c.ld, c.res));
    const std::pair<const char *, const char *> asked[] = {{"cn", "first"}, {"sn", "s"},   {"CN", "first"},
                                                           {"mail", "m"},   {"SN", "s"},   {"mail", "m"}};
    for (const auto &[attr, value] : asked) {
        char **values = ldap_get_values(c.ld, named, attr);
        ASSERT_EQ(ldap_count_values(values), 1) << attr;
        EXPECT_STREQ(values[0], value) << attr;
        ldap_value_free(values);
    }
    EXPECT_EQ(ldap_get_values(c.ld, named, "c"), nullptr);
    EXPECT_EQ(ldap_get_errno(c.ld), LDAP_DECODING_ERROR);
    // Asked for each name as the cursor hands it out: the repeated type
    // still gives the first attribute's values.
    std::string walked;
    BerElement *cursor = nullptr;
    for (char *a = ldap_first_attribute(c.ld, named, &cursor); a; a = ldap_next_attribute(c.ld, named, cursor)) {
        char **values = ldap_get_values(c.ld, named, a);
        walked += std::string(values ? values[0] : "-") + ";";
        ldap_value_free(values);
        ldap_memfree(a);
    }
    EXPECT_EQ(walked, "first;s;first;m;");
    ldap_ber_free(cursor, 0);
    ldap_msgfree(c.res);
}

// An element that is no cursor of this library, passed as one, is read
// like a cursor and nothing is written past its end.
TEST(Results, NextAttributeReadsAnElementThatIsNoCursor)
{
    Chain c(Attributes{{"cn", {"a"}}, {"sn", {"b"}}});
    LDAPMessage *named = ldap_next_entry(c.ld, ldap_first_entry(c.ld, c.res));
    BerElement *cursor = nullptr;
    char *first = ldap_first_attribute(c.ld, named, &cursor);
    void *memory = std::malloc(fber_reader_size());
    BerElement *bare = fber_place_reader(memory);
    bare->ber_buf = cursor->ber_buf;
    bare->ber_ptr = cursor->ber_ptr;
    bare->ber_end = cursor->ber_end;
    char *second = ldap_next_attribute(c.ld, named, bare);
    EXPECT_STREQ(second, "sn");
    std::free(memory);
    ldap_memfree(first);
    ldap_memfree(second);
    ldap_ber_free(cursor, 0);
    ldap_msgfree(c.res);
}

// What ldap_get_values_len gives for `attr` on an entry read from `op`
// (the protocol operation's octets), with or without translated types.
std::string ValuesOf(LDAP *ld, const Bytes &op, bool translated, const char *attr)
{
    LDAPConn conn{};
    conn.lconn_ld = ld;
    LDAPMessage entry{};
    entry.msg_type = LDAP_RES_SEARCH_ENTRY;
    entry.msg_conn = &conn;
    struct berval bv {op.size(), reinterpret_cast<char *>(const_cast<unsigned char *>(op.data()))};
    entry.msg_ber = fber_init2(&bv);
    fber_set_string_settings(entry.msg_ber, translated ? 0 : 1, LDAP_VERSION3);
    std::string out;
    struct berval **values = ldap_get_values_len(ld, &entry, attr);
    for (int i = 0; values && values[i]; i++)
        out += std::string(values[i]->bv_val, values[i]->bv_len) + ";";
    ldap_value_free_len(values);
    fber_free(entry.msg_ber);
    return out + " error " + std::to_string(ldap_get_errno(ld));
}

// The lookup that reads an entry's headers finds what the format-driven
// walk finds (the walk runs while BER traffic is traced): the same values
// or the same failure, on each way an entry can be malformed.
TEST(Results, AttributeLookupAgreesWithTheFormatWalk)
{
    auto attr = [](const std::string &type, const std::vector<std::string> &values, unsigned type_tag = 0x04) {
        std::vector<Bytes> set;
        for (const auto &v : values)
            set.push_back(Octets(v));
        return Seq({Octets(type, type_tag), Seq(set, 0x31)});
    };
    auto entry = [](const std::vector<Bytes> &attrs, const Bytes &after = {}) {
        return Concat(Seq({Octets("cn=x,o=y"), Seq(attrs)}, 0x64), after);
    };
    Bytes whole = entry({attr("cn", {"a", "b"}), attr("sn", {"s"})});
    const std::pair<const char *, Bytes> rows[] = {
        {"well formed", whole},
        {"cut short", Bytes(whole.begin(), whole.end() - 3)},
        {"a repeated type", entry({attr("cn", {"first"}), attr("CN", {"again"})})},
        {"a NUL inside a type", entry({attr(std::string("cn\0x", 4), {"v"}), attr("cn", {"w"})})},
        {"a type of 401 octets", entry({attr("sn", {"s"}), attr(std::string(401, 'c'), {"v"}), attr("cn", {"w"})})},
        {"a type of another tag", entry({attr("cn", {"v"}, 0x80)})},
        {"an extra element in an attribute",
         entry({Seq({Octets("cn"), Seq({Octets("v")}, 0x31), Octets("sn")}), attr("sn", {"s"})})},
        {"controls after the attributes", entry({attr("cn", {"v"})}, Tlv(0xA0, Seq({Octets("1.2.3")})))},
        {"no attributes", entry({})},
        {"a type running past the end", entry({Tlv(0x30, Bytes{0x04, 0x09, 'c'})})},
        {"values running past the end", entry({Tlv(0x30, Concat(Octets("cn"), Bytes{0x31, 0x20, 0x04, 0x01, 'v'}))})},
    };
    LDAP *ld = ldap_init("localhost", 0);
    for (const auto &[what, op] : rows) {
        for (bool translated : {false, true}) {
            for (const char *asked : {"cn", "CN", "sn", "mail"}) {
                std::string direct = ValuesOf(ld, op, translated, asked);
                TraceCapture walking(0xFFFF);
                EXPECT_EQ(direct, ValuesOf(ld, op, translated, asked)) << what << ", " << asked;
            }
        }
    }
    ldap_unbind(ld);
}

TEST(Results, ModsFreeReleasesStringsAndBervals)
{
    auto **mods = static_cast<LDAPMod **>(zldap::mem_calloc(3, sizeof(LDAPMod *)));
    for (int i = 0; i < 2; i++) {
        mods[i] = static_cast<LDAPMod *>(zldap::mem_calloc(1, sizeof(LDAPMod)));
        mods[i]->mod_type = zldap::mem_strdup("cn");
        mods[i]->mod_values = static_cast<char **>(zldap::mem_calloc(2, sizeof(char *)));
    }
    mods[0]->mod_values[0] = zldap::mem_strdup("x");
    mods[1]->mod_op = LDAP_MOD_BVALUES;
    mods[1]->mod_bvalues[0] = static_cast<struct berval *>(zldap::mem_calloc(1, sizeof(struct berval)));
    mods[1]->mod_bvalues[0]->bv_val = zldap::mem_strdup("bytes");
    zldap::mem_tracking_start(0);
    ldap_mods_free(mods, 1);
    EXPECT_EQ(zldap::mem_tracking_stop().live, -10) << "all ten blocks released";
}

} // namespace
