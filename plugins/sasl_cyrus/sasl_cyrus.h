// sasl_cyrus.h - the pieces of the SASL plug-in over Cyrus SASL's client
// library: the credentials a bind gives, the answers to Cyrus's prompts,
// and the result codes Cyrus's failures become.
//
// A bind through the plug-in takes its password from the bind's
// credentials and its identities from the bind's name: a name without "="
// is the authentication id; otherwise it is lines of "authcid=<id>",
// "authzid=<id>" and "realm=<realm>", each optional (an authorisation id
// such as "dn:uid=bob,ou=people,dc=example,dc=com" keeps its "=" and ",").
// What the bind does not give, Cyrus finds as usual: the login name as the
// authentication id, no authorisation id, the realm the server offers.
#ifndef ZLDAP_SASL_CYRUS_H
#define ZLDAP_SASL_CYRUS_H

#include "zor8ldap_plugin.h"

#include <sasl/sasl.h>

namespace sasl_cyrus {

// Trace categories of the library's log.
constexpr unsigned int kTraceFlow = 0xC8010000;
constexpr unsigned int kTraceError = 0xC8110000;

// The credentials of one bind; a NULL member was not given.
struct Credentials {
    char *names; // copy of the bind name that the identities point into
    const char *authcid;
    const char *authzid;
    const char *realm;
    const struct berval *password;
};

// Reads the identities from the bind name (NULL: none). 0, 89 for a line
// that names none of them, 90. Release with release_credentials either way.
int read_credentials(LDAPPluginBlock *pb, const char *name, const struct berval *password, Credentials *out);
void release_credentials(Credentials *credentials);

// Cyrus's callbacks list for a connection: every credential is answered
// through prompts, the authentication id only when the bind gives one (so
// that Cyrus falls back to the login name).
const sasl_callback_t *prompted_callbacks(const Credentials &credentials);

// Fills in Cyrus's prompts from the credentials. 0, or 89 when a password
// is asked for and the bind gave none (the prompt then has an empty one).
int answer_prompts(LDAPPluginBlock *pb, const char *mechanism, const Credentials &credentials,
                   sasl_interact_t *prompts);

// Gives Cyrus locks for the threads a process binds on; before Cyrus is set up.
void use_thread_locks();

// The result code for a Cyrus failure, after a trace line that names the
// call, the mechanism and Cyrus's own account of it (conn may be NULL).
int cyrus_failure(LDAPPluginBlock *pb, sasl_conn_t *conn, const char *call, const char *mechanism, int result);

} // namespace sasl_cyrus

#endif
