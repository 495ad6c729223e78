// Walking result chains where a real server cannot help: references,
// attribute names at the length limit, entries without attributes, and
// what ldap_msgfree and ldap_mods_free release. Ordinary entries and
// values are walked in the integration tests against slapd.
#include "engine_fixture.h"
#include "base/memory.h"
#include "core/ldap_error.h"
#include "results/results.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

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
    ldap_msgfree(c.res);
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
