// credentials.cpp - the identities and password of a bind, and Cyrus's
// prompts answered from them.
#include "sasl_cyrus.h"

#include <cstdlib>
#include <cstring>

namespace sasl_cyrus {

namespace {

// A callback without a function tells Cyrus to ask through a prompt.
// Without the first entry, the authentication id's, Cyrus asks its default
// callback instead, which gives the login name.
const sasl_callback_t kPrompted[] = {{SASL_CB_AUTHNAME, nullptr, nullptr}, {SASL_CB_USER, nullptr, nullptr},
                                     {SASL_CB_PASS, nullptr, nullptr},     {SASL_CB_GETREALM, nullptr, nullptr},
                                     {SASL_CB_LIST_END, nullptr, nullptr}};

const char **slot_of(Credentials *c, const char *key)
{
    if (std::strcmp(key, "authcid") == 0)
        return &c->authcid;
    if (std::strcmp(key, "authzid") == 0)
        return &c->authzid;
    return std::strcmp(key, "realm") == 0 ? &c->realm : nullptr;
}

} // namespace

int read_credentials(LDAPPluginBlock *pb, const char *name, const struct berval *password, Credentials *out)
{
    *out = Credentials{};
    out->password = password;
    if (!name || !*name)
        return LDAP_SUCCESS;
    out->names = strdup(name);
    if (!out->names)
        return LDAP_NO_MEMORY;
    if (!std::strchr(out->names, '=')) {
        out->authcid = out->names;
        return LDAP_SUCCESS;
    }
    for (char *line = out->names, *next = nullptr; line; line = next) {
        next = std::strchr(line, '\n');
        if (next)
            *next++ = '\0';
        if (!*line)
            continue;
        char *equals = std::strchr(line, '=');
        if (equals)
            *equals = '\0';
        const char **slot = equals ? slot_of(out, line) : nullptr;
        if (!slot) {
            pb->pb_trace(kTraceError,
                         "sasl_cyrus_bind: Error - bind name line \"%s\" is none of authcid=, authzid=, realm=\n", line);
            return LDAP_PARAM_ERROR;
        }
        *slot = equals + 1;
    }
    return LDAP_SUCCESS;
}

void release_credentials(Credentials *credentials)
{
    std::free(credentials->names);
    *credentials = Credentials{};
}

const sasl_callback_t *prompted_callbacks(const Credentials &credentials)
{
    return credentials.authcid ? kPrompted : kPrompted + 1;
}

int answer_prompts(LDAPPluginBlock *pb, const char *mechanism, const Credentials &credentials,
                   sasl_interact_t *prompts)
{
    int rc = LDAP_SUCCESS;
    for (sasl_interact_t *prompt = prompts; prompt->id != SASL_CB_LIST_END; prompt++) {
        const struct berval *password = credentials.password;
        if (prompt->id == SASL_CB_PASS) {
            if (!password) {
                pb->pb_trace(kTraceError, "sasl_cyrus_bind: Error - %s needs a password and the bind gave none\n",
                             mechanism);
                rc = LDAP_PARAM_ERROR;
            }
            prompt->result = password ? password->bv_val : "";
            prompt->len = password ? static_cast<unsigned>(password->bv_len) : 0;
            continue;
        }
        const char *value = prompt->id == SASL_CB_AUTHNAME   ? credentials.authcid
                            : prompt->id == SASL_CB_USER     ? credentials.authzid
                            : prompt->id == SASL_CB_GETREALM ? credentials.realm
                                                             : nullptr;
        // Else Cyrus's own suggestion, such as the one realm the server offers.
        if (!value)
            value = prompt->defresult ? prompt->defresult : "";
        prompt->result = value;
        prompt->len = static_cast<unsigned>(std::strlen(value));
    }
    return rc;
}

} // namespace sasl_cyrus
