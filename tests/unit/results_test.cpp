// Walking and releasing result chains: counts, entries and references,
// attribute cursors, values, name lengths, and what freeing releases.
#include "engine_fixture.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"
#include "base/memory.h"
#include "results/results.h"

#include <gtest/gtest.h>

#include <string>

using namespace zldap_test;

namespace {

// Answers every request with three entries (the second without
// attributes, the third with a long attribute name), a reference and a
// search result done.
class ChainServer {
public:
    explicit ChainServer(std::string long_name = std::string(400, 'a'))
        : server_([this](ScriptConnection &c) {
              while (auto r = c.Read()) {
                  c.Send(wire::Entry(r->id, "cn=one,o=x", {{"cn", {"one"}}, {"mail", {"a@x", "b@x"}}}));
                  c.Send(wire::Entry(r->id, "cn=two,o=x", {}));
                  c.Send(wire::Entry(r->id, "cn=three,o=x", {{name_, {std::string("bin\0ary", 7)}}}));
                  c.Send(wire::Message(r->id, wire::Seq({wire::Octets("ldap://elsewhere/o=x")}, 0x73)));
                  c.Send(wire::Result(r->id, 0x65, 0));
              }
          }),
          name_(std::move(long_name)), ld_(HandleFor(server_))
    {
    }
    ~ChainServer() { ldap_unbind(ld_); }
    LDAP *ld() { return ld_; }

    // A complete chain, collected in one piece.
    LDAPMessage *Chain()
    {
        int id = 0;
        EXPECT_EQ(SendDelete(ld_, "cn=x", &id), 0);
        LDAPMessage *res = nullptr;
        struct timeval tv {10, 0};
        EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ALL, &tv, &res), LDAP_RES_SEARCH_RESULT);
        return res;
    }

private:
    ScriptServer server_;
    std::string name_;
    LDAP *ld_;
};

TEST(Results, CountsAndWalks)
{
    ChainServer s;
    LDAPMessage *res = s.Chain();
    EXPECT_EQ(ldap_count_entries(s.ld(), res), 3);
    EXPECT_EQ(ldap_count_references(s.ld(), res), 1);
    EXPECT_EQ(ldap_count_messages(s.ld(), res), 5);
    LDAPMessage *ref = ldap_first_reference(s.ld(), res);
    ASSERT_NE(ref, nullptr);
    EXPECT_EQ(ldap_next_reference(s.ld(), ref), nullptr);
    char **urls = nullptr;
    EXPECT_EQ(ldap_parse_reference(s.ld(), ref, &urls, nullptr, 0), 0);
    ASSERT_EQ(ldap_count_values(urls), 1);
    EXPECT_STREQ(urls[0], "ldap://elsewhere/o=x");
    ldap_value_free(urls);
    EXPECT_EQ(ldap_parse_reference(s.ld(), res, &urls, nullptr, 0), LDAP_PARAM_ERROR) << "not a reference";
    EXPECT_EQ(ldap_msgfree(res), LDAP_RES_SEARCH_RESULT) << "a chain reports its last message's type";
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(s.ld())), 0);
}

TEST(Results, AttributesValuesAndTheirCursor)
{
    ChainServer s;
    LDAPMessage *res = s.Chain();
    LDAPMessage *one = ldap_first_entry(s.ld(), res);
    EXPECT_EQ(ldap_count_attributes(s.ld(), one), 2);
    BerElement *cursor = nullptr;
    char *a = ldap_first_attribute(s.ld(), one, &cursor);
    ASSERT_NE(a, nullptr);
    EXPECT_STREQ(a, "cn");
    ldap_memfree(a);
    a = ldap_next_attribute(s.ld(), one, cursor);
    EXPECT_STREQ(a, "mail");
    ldap_memfree(a);
    EXPECT_EQ(ldap_next_attribute(s.ld(), one, cursor), nullptr);
    EXPECT_EQ(ldap_get_errno(s.ld()), 0) << "the end of the attributes is no error";
    ldap_ber_free(cursor, 1);
    char **mail = ldap_get_values(s.ld(), one, "MAIL");
    EXPECT_EQ(ldap_count_values(mail), 2);
    ldap_value_free(mail);
    EXPECT_EQ(ldap_get_values(s.ld(), one, "sn"), nullptr);
    EXPECT_EQ(ldap_get_errno(s.ld()), LDAP_DECODING_ERROR);

    LDAPMessage *two = ldap_next_entry(s.ld(), one);
    cursor = nullptr;
    EXPECT_EQ(ldap_first_attribute(s.ld(), two, &cursor), nullptr);
    EXPECT_EQ(ldap_get_errno(s.ld()), 0);
    EXPECT_NE(cursor, nullptr) << "an entry without attributes still hands out its cursor";
    ldap_ber_free(cursor, 0);

    LDAPMessage *three = ldap_next_entry(s.ld(), two);
    cursor = nullptr;
    a = ldap_first_attribute(s.ld(), three, &cursor);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(std::string(a).size(), 400u) << "a 400-byte name is returned whole";
    struct berval **bin = ldap_get_values_len(s.ld(), three, a);
    ASSERT_EQ(ldap_count_values_len(bin), 1);
    EXPECT_EQ(std::string(bin[0]->bv_val, bin[0]->bv_len), std::string("bin\0ary", 7));
    ldap_value_free_len(bin);
    ldap_memfree(a);
    ldap_ber_free(cursor, 0);
    char *dn = ldap_get_dn(s.ld(), three);
    EXPECT_STREQ(dn, "cn=three,o=x");
    ldap_memfree(dn);
    ldap_msgfree(res);
}

TEST(Results, A401ByteNameIsRefused)
{
    ChainServer s(std::string(401, 'b'));
    LDAPMessage *res = s.Chain();
    LDAPMessage *three = ldap_next_entry(s.ld(), ldap_next_entry(s.ld(), ldap_first_entry(s.ld(), res)));
    BerElement *cursor = nullptr;
    EXPECT_EQ(ldap_first_attribute(s.ld(), three, &cursor), nullptr);
    EXPECT_EQ(ldap_get_errno(s.ld()), LDAP_DECODING_ERROR);
    EXPECT_EQ(cursor, nullptr) << "a failed first read takes the cursor back";
    ldap_msgfree(res);
}

TEST(Results, MessagesHandedOutAloneAreFreedAlone)
{
    ChainServer s;
    int id = 0;
    ASSERT_EQ(SendDelete(s.ld(), "cn=x", &id), 0);
    struct timeval tv {10, 0};
    int types[5] = {};
    for (int &type : types) {
        LDAPMessage *msg = nullptr;
        type = ldap_result(s.ld(), id, LDAP_MSG_ONE, &tv, &msg);
        EXPECT_EQ(ldap_count_messages(s.ld(), msg), 1);
        EXPECT_EQ(ldap_msgfree(msg), type) << "released alone, with its own type";
    }
    EXPECT_EQ(types[4], LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(ldap_msg_table_outstanding(TableOf(s.ld())), 0) << "the last release gives the row back";
}

TEST(Results, NullsAndForeignHandles)
{
    EXPECT_EQ(ldap_msgfree(nullptr), 0);
    EXPECT_EQ(ldap_count_values(nullptr), 0);
    EXPECT_EQ(ldap_count_values_len(nullptr), 0);
    ldap_value_free(nullptr);
    ldap_value_free_len(nullptr);
    ldap_memfree(nullptr);
    ldap_ber_free(nullptr, 1);
    ldap_mods_free(nullptr, 1);
    EXPECT_EQ(ldap_count_entries(nullptr, nullptr), -1);
    EXPECT_EQ(ldap_first_entry(nullptr, nullptr), nullptr);
    EXPECT_EQ(ldap_get_dn(nullptr, nullptr), nullptr);
    LDAP *ld = ldap_init("localhost", 0);
    EXPECT_EQ(ldap_get_dn(ld, nullptr), nullptr);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    ldap_unbind(ld);
}

TEST(Results, ModsFreeReleasesStringsAndBervals)
{
    // The sanitizer build proves that nothing is left.
    auto **mods = static_cast<LDAPMod **>(zldap::mem_calloc(3, sizeof(LDAPMod *)));
    mods[0] = static_cast<LDAPMod *>(zldap::mem_calloc(1, sizeof(LDAPMod)));
    mods[0]->mod_op = LDAP_MOD_ADD;
    mods[0]->mod_type = zldap::mem_strdup("cn");
    mods[0]->mod_values = static_cast<char **>(zldap::mem_calloc(2, sizeof(char *)));
    mods[0]->mod_values[0] = zldap::mem_strdup("x");
    mods[1] = static_cast<LDAPMod *>(zldap::mem_calloc(1, sizeof(LDAPMod)));
    mods[1]->mod_op = LDAP_MOD_REPLACE | LDAP_MOD_BVALUES;
    mods[1]->mod_type = zldap::mem_strdup("photo");
    mods[1]->mod_bvalues = static_cast<struct berval **>(zldap::mem_calloc(2, sizeof(struct berval *)));
    mods[1]->mod_bvalues[0] = static_cast<struct berval *>(zldap::mem_calloc(1, sizeof(struct berval)));
    mods[1]->mod_bvalues[0]->bv_val = zldap::mem_strdup("bytes");
    mods[1]->mod_bvalues[0]->bv_len = 5;
    zldap::mem_tracking_start(0);
    ldap_mods_free(mods, 1);
    EXPECT_EQ(zldap::mem_tracking_stop().live, -10) << "all ten blocks released";
}

} // namespace
