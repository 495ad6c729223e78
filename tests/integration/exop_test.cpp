// Extended operations and abandon against a real slapd: Who am I? after
// anonymous and simple binds, a password changed by the password modify
// operation, an unknown request name, and a long search abandoned halfway.
#include "ber_test_support.h"
#include "engine_fixture.h"
#include "session/ldap_unbind.h"
#include "slapd_fixture.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

using namespace zldap_test;

namespace {

constexpr const char *kWhoAmI = "1.3.6.1.4.1.4203.1.11.3";
constexpr const char *kPasswordModify = "1.3.6.1.4.1.4203.1.11.1";
constexpr const char *kUser = "uid=user001,ou=people,dc=example,dc=com";
constexpr int kBulk = 10000;

// The bulk subtree makes a search that runs long enough to be abandoned.
Slapd &Server()
{
    static Slapd server(SlapdData{200, kBulk});
    return server;
}

class Exop : public testing::Test {
protected:
    void SetUp() override
    {
        ZLDAP_REQUIRE_SLAPD(Server());
        ld = ldap_init(Server().host().c_str(), 0);
        ASSERT_NE(ld, nullptr);
    }
    void TearDown() override
    {
        if (ld)
            ldap_unbind(ld);
    }

    // The authorization identity slapd reports; nullopt when the operation failed.
    std::optional<std::string> WhoAmI()
    {
        char *name = nullptr;
        struct berval *value = nullptr;
        int rc = ldap_extended_operation_s(ld, kWhoAmI, nullptr, nullptr, nullptr, &name, &value);
        std::optional<std::string> id;
        if (rc == 0)
            id = value ? std::string(value->bv_val, value->bv_len) : "";
        ldap_memfree(name);
        ber_bvfree(value);
        return id;
    }

    LDAP *ld = nullptr;
};

TEST_F(Exop, WhoAmIAfterAnonymousAndSimpleBinds)
{
    ASSERT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0);
    EXPECT_EQ(WhoAmI(), "");
    ASSERT_EQ(ldap_simple_bind_s(ld, Slapd::kRootDn, Slapd::kRootPassword), 0);
    EXPECT_EQ(WhoAmI(), std::string("dn:") + Slapd::kRootDn);
}

// A password modify request value: the user, the old and the new password,
// each optional ([0], [1], [2]).
struct berval *PasswordModify(const char *user, const char *old_password, const char *new_password)
{
    BerPtr ber(fber_alloc());
    fber_printf(ber.get(), "{");
    if (user)
        fber_printf(ber.get(), "ts", static_cast<ber_tag_t>(0x80), user);
    if (old_password)
        fber_printf(ber.get(), "ts", static_cast<ber_tag_t>(0x81), old_password);
    fber_printf(ber.get(), "ts}", static_cast<ber_tag_t>(0x82), new_password);
    struct berval *value = nullptr;
    fber_flatten(ber.get(), &value);
    return value;
}

int ChangePassword(LDAP *ld, const char *user, const char *old_password, const char *new_password)
{
    struct berval *value = PasswordModify(user, old_password, new_password);
    int rc = ldap_extended_operation_s(ld, kPasswordModify, value, nullptr, nullptr, nullptr, nullptr);
    ber_bvfree(value);
    return rc;
}

TEST_F(Exop, PasswordModifyChangesWhatTheUserBindsWith)
{
    ASSERT_EQ(ldap_simple_bind_s(ld, Slapd::kRootDn, Slapd::kRootPassword), 0);
    ASSERT_EQ(ChangePassword(ld, kUser, nullptr, "first"), 0);
    ASSERT_EQ(ldap_simple_bind_s(ld, kUser, "first"), 0);
    ASSERT_EQ(ChangePassword(ld, nullptr, "first", "second"), 0) << "the user changes their own";
    EXPECT_EQ(ldap_simple_bind_s(ld, kUser, "first"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(ldap_simple_bind_s(ld, kUser, "second"), 0);
    EXPECT_EQ(WhoAmI(), std::string("dn:") + kUser);
}

TEST_F(Exop, AnUnknownRequestNameIsAProtocolError)
{
    int id = -1;
    ASSERT_EQ(ldap_extended_operation(ld, "1.2.3.4.5.6.7", nullptr, nullptr, nullptr, &id), 0);
    struct timeval tv {30, 0};
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, &tv, &res), LDAP_RES_EXTENDED);
    char *name = nullptr;
    struct berval *value = nullptr;
    EXPECT_EQ(ldap_parse_extended_result(ld, res, &name, &value, 1), LDAP_PROTOCOL_ERROR);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(value, nullptr);
}

TEST_F(Exop, AnAbandonedSearchStopsAndTheConnectionGoesOn)
{
    int search = ldap_search(ld, "ou=bulk,dc=example,dc=com", LDAP_SCOPE_SUBTREE, "(objectClass=person)", nullptr, 0);
    ASSERT_GT(search, 0);
    struct timeval tv {30, 0};
    for (int i = 0; i < 10; i++) {
        LDAPMessage *entry = nullptr;
        ASSERT_EQ(ldap_result(ld, search, LDAP_MSG_ONE, &tv, &entry), LDAP_RES_SEARCH_ENTRY);
        ldap_msgfree(entry);
    }
    ASSERT_EQ(ldap_abandon(ld, search), 0);
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_result(ld, search, LDAP_MSG_ONE, &tv, &res), -1);

    // The next operation reads past whatever slapd sent before it stopped.
    ASSERT_EQ(ldap_search_s(ld, Slapd::kPeople, LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, &res), 0);
    EXPECT_EQ(ldap_count_entries(ld, res), 1);
    ldap_msgfree(res);
    const ldap_msg_row &row = TableOf(ld)->rows[search];
    EXPECT_EQ(row.first_result, nullptr) << "no late entry was kept for the abandoned search";
    EXPECT_TRUE(row.flags & LDAP_ROW_ABANDON);
}

} // namespace
