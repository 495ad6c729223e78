// engine_fixture.cpp - helpers for the message engine's tests.
#include "engine_fixture.h"

#include "conn/ldap_connect.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_init.h"

namespace zldap_test {

LDAP *HandleFor(const ScriptServer &server) { return ldap_init(server.host().c_str(), 0); }

int SendDelete(LDAP *ld, const std::string &dn, int *id, LDAPControl **controls)
{
    auto encode = [&](BerElement *ber) {
        return fber_printf(ber, "ts", static_cast<ber_tag_t>(0x4A), dn.c_str()) == 0 ? LDAP_SUCCESS
                                                                                   : LDAP_ENCODING_ERROR;
    };
    zldap::RequestPlan plan{"SendDelete: NULL server connection\n", 0x4A, controls, encode};
    return zldap::send_request(ld, nullptr, plan, id);
}

ldap_msg_table *TableOf(LDAP *ld) { return get_default_connection(ld)->lconn_msgtable; }

void ReleaseRow(LDAP *ld, int id) { ldap_msg_table_release_msgid(TableOf(ld), id); }

} // namespace zldap_test
