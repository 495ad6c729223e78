// engine_fixture.h - a handle connected to a scripted server, and small
// helpers to send requests through the request skeleton and to release
// what the message engine hands out.
#ifndef ZLDAP_TEST_ENGINE_FIXTURE_H
#define ZLDAP_TEST_ENGINE_FIXTURE_H

#include "engine/ldap_request.h"
#include "engine/ldap_result.h"
#include "script_server.h"

#include <memory>
#include <string>

namespace zldap_test {

// A handle whose host list names the scripted server.
LDAP *HandleFor(const ScriptServer &server);

// Sends a delete request for `dn` through the request skeleton; 0 with *id set.
int SendDelete(LDAP *ld, const std::string &dn, int *id, LDAPControl **controls = nullptr);

// The table of the handle's default connection.
ldap_msg_table *TableOf(LDAP *ld);

// Releases the row of a request whose results the test has looked at.
void ReleaseRow(LDAP *ld, int id);

} // namespace zldap_test

#endif
