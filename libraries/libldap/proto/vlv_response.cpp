// vlv_response.cpp - the virtual list view response control: the target's
// position, the content count, the result and the context ID to send back.
#include "zor8ldap_api.h"

#include "base/memory.h"
#include "ber/lber.h"
#include "proto/control_codec.h"

int ldap_parse_vlv_control(LDAP *ld, LDAPControl **ctrls, unsigned long *target_posp, unsigned long *list_countp,
                           struct berval **contextp, int *errcodep)
{
    if (contextp)
        *contextp = nullptr;
    if (!ld || !ctrls)
        return LDAP_PARAM_ERROR;
    zldap::BerOwner ber;
    int rc = zldap::open_control_value(ctrls, LDAP_CONTROL_VLVRESPONSE, &ber);
    if (rc != LDAP_SUCCESS)
        return rc;
    int position = 0, count = 0, result = 0;
    if (fber_scanf(ber.get(), "{iie", &position, &count, &result) == LBER_DEFAULT)
        return LDAP_DECODING_ERROR;
    struct berval context = {0, nullptr};
    if (fber_peek_tag(ber.get(), nullptr) != LBER_DEFAULT && fber_scanf(ber.get(), "o}", &context) == LBER_DEFAULT) {
        zldap::mem_free(context.bv_val);
        return LDAP_DECODING_ERROR;
    }
    if (contextp && context.bv_val) {
        *contextp = static_cast<struct berval *>(zldap::mem_malloc(sizeof(struct berval)));
        if (!*contextp) {
            zldap::mem_free(context.bv_val);
            return LDAP_NO_MEMORY;
        }
        **contextp = context;
    } else {
        zldap::mem_free(context.bv_val);
    }
    if (target_posp)
        *target_posp = static_cast<unsigned long>(static_cast<unsigned>(position));
    if (list_countp)
        *list_countp = static_cast<unsigned long>(static_cast<unsigned>(count));
    if (errcodep)
        *errcodep = result;
    return LDAP_SUCCESS;
}
