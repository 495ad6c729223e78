// entry_change_control.cpp - the entry change notification that comes with
// each entry of a persistent search: the kind of change, the previous DN
// of a renamed entry and the change number when the server keeps one.
#include "zor8ldap_api.h"

#include "base/memory.h"
#include "ber/lber.h"
#include "core/ldap_init_guard.h"
#include "proto/control_codec.h"

namespace {

int parse_entrychange(LDAPControl **ctrls, int *chgtypep, char **prevdnp, int *chgnumpresentp, int *chgnump)
{
    if (!ctrls || !chgtypep)
        return LDAP_PARAM_ERROR;
    zldap::BerOwner ber;
    int rc = zldap::open_control_value(ctrls, LDAP_CONTROL_ENTRYCHANGE, &ber);
    if (rc != LDAP_SUCCESS)
        return rc;
    int type = 0;
    if (fber_scanf(ber.get(), "{i", &type) == LBER_DEFAULT)
        return LDAP_DECODING_ERROR;
    // Only a rename names the entry's previous DN.
    if (type == LDAP_CHANGETYPE_MODDN) {
        char *previous = nullptr;
        if (fber_scanf(ber.get(), "a", &previous) == LBER_DEFAULT) {
            zldap::mem_free(previous);
            return LDAP_DECODING_ERROR;
        }
        if (prevdnp)
            *prevdnp = previous;
        else
            zldap::mem_free(previous);
    }
    *chgtypep = type;
    // The change number is optional; a number of 0 or less means none.
    int number = 0;
    bool present = fber_scanf(ber.get(), "i", &number) != LBER_DEFAULT && number > 0;
    if (chgnumpresentp)
        *chgnumpresentp = present ? 1 : 0;
    if (chgnump)
        *chgnump = present ? number : 0;
    return LDAP_SUCCESS;
}

} // namespace

int ldap_parse_entrychange_control(LDAP *ld, LDAPControl **ctrls, int *chgtypep, char **prevdnp, int *chgnumpresentp,
                                   int *chgnump)
{
    if (prevdnp)
        *prevdnp = nullptr;
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return op.code();
    return parse_entrychange(ctrls, chgtypep, prevdnp, chgnumpresentp, chgnump);
}
