// Extended operations against a real slapd: Who am I? after anonymous and
// simple binds, a password changed by the password modify operation, and
// an unknown request name. (Abandon against slapd: exop_threads_test.)
#include "ber_test_support.h"
#include "slapd_fixture.h"
#include "zor8ldap_api.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace zldap_test;

namespace {

constexpr const char *kUser = "uid=user001,ou=people,dc=example,dc=com";

// "code name value" of what ldap_extended_operation_s handed out.
std::string Extended(LDAP *ld, const char *oid, struct berval *value = nullptr)
{
    char *name = nullptr;
    struct berval *data = nullptr;
    int rc = ldap_extended_operation_s(ld, oid, value, nullptr, nullptr, &name, &data);
    std::string out = std::to_string(rc) + " " + (name ? name : "-") + " " +
                      (data ? std::string(data->bv_val, data->bv_len) : "-");
    ldap_memfree(name);
    ber_bvfree(data);
    return out;
}

// A password modify request, whose value holds the user [0], the old [1]
// and the new password [2], each optional: its code.
int ChangePassword(LDAP *ld, const std::vector<Bytes> &fields)
{
    Bytes value = Seq(fields);
    struct berval bv {value.size(), reinterpret_cast<char *>(value.data())};
    return ldap_extended_operation_s(ld, "1.3.6.1.4.1.4203.1.11.1", &bv, nullptr, nullptr, nullptr, nullptr);
}

TEST(Exop, WhoAmIPasswordModifyAndAnUnknownName)
{
    ZLDAP_REQUIRE_SLAPD(SharedSlapd());
    LDAP *ld = ldap_init(SharedSlapd().host().c_str(), 0);
    const char *who = "1.3.6.1.4.1.4203.1.11.3";
    ASSERT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0);
    EXPECT_EQ(Extended(ld, who), "0 - ");
    ASSERT_EQ(ldap_simple_bind_s(ld, Slapd::kRootDn, Slapd::kRootPassword), 0);
    EXPECT_EQ(Extended(ld, who), std::string("0 - dn:") + Slapd::kRootDn);
    EXPECT_EQ(Extended(ld, "1.2.3.4.5.6.7"), "2 - -") << "a protocol error; nothing handed out";
    ASSERT_EQ(ChangePassword(ld, {Octets(kUser, 0x80), Octets("first", 0x82)}), 0);
    ASSERT_EQ(ldap_simple_bind_s(ld, kUser, "first"), 0);
    ASSERT_EQ(ChangePassword(ld, {Octets("first", 0x81), Octets("second", 0x82)}), 0) << "the user changes their own";
    EXPECT_EQ(ldap_simple_bind_s(ld, kUser, "first"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(ldap_simple_bind_s(ld, kUser, "second"), 0);
    EXPECT_EQ(Extended(ld, who), std::string("0 - dn:") + kUser);
    ldap_unbind(ld);
}

} // namespace
