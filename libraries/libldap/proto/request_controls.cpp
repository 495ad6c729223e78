// request_controls.cpp - request controls encoded with the BER encoder:
// persistent search, assertion, virtual list view, value limits, and the
// controls that carry no value.
#include "zor8ldap_api.h"

#include "base/memory.h"
#include "base/trace.h"
#include "ber/lber.h"
#include "proto/control_codec.h"
#include "proto/filter.h"
#include "proto/ldap_controls.h"

#include <climits>
#include <cstdint>

namespace {

int critical(int flag) { return flag != 0 ? 1 : 0; }

bool known_change_types(int types)
{
    return types == LDAP_CHANGETYPE_ADD || types == LDAP_CHANGETYPE_DELETE || types == LDAP_CHANGETYPE_MODIFY ||
           types == LDAP_CHANGETYPE_MODDN || types == LDAP_CHANGETYPE_ANY;
}

// An optional value's bytes: a value without bytes is written empty.
const char *bytes_of(const struct berval *bv) { return bv->bv_val ? bv->bv_val : ""; }
int length_of(const struct berval *bv) { return bv->bv_val ? static_cast<int>(bv->bv_len) : 0; }
bool fits_int(const struct berval *bv) { return !bv || !bv->bv_val || bv->bv_len <= INT_MAX; }

int vlv_failed(int step)
{
    LDAP_TRACE(TRC_ERROR, "ldap_create_vlv_control: failed in fber_printf - %d\n", step);
    return LDAP_ENCODING_ERROR;
}

int valueless_control(LDAP *ld, bool need_handle, const char *oid, int iscritical, LDAPControl **ctrlp)
{
    if (ctrlp)
        *ctrlp = nullptr;
    if (!ctrlp || (need_handle && !ld))
        return LDAP_PARAM_ERROR;
    return ldap_create_control(oid, 0, nullptr, iscritical, ctrlp);
}

} // namespace

int ldap_create_persistentsearch_control(LDAP *ld, int changetypes, int changesonly, int return_echg_ctls,
                                         int iscritical, LDAPControl **ctrlp)
{
    if (ctrlp)
        *ctrlp = nullptr;
    if (!ld || !ctrlp || !known_change_types(changetypes) || (changesonly != 0 && changesonly != 1))
        return LDAP_PARAM_ERROR;
    zldap::BerOwner ber(fber_alloc());
    if (!ber)
        return LDAP_NO_MEMORY;
    if (fber_printf(ber.get(), "{iii}", changetypes, changesonly, return_echg_ctls) != 0)
        return LDAP_ENCODING_ERROR;
    return zldap::control_from_ber(ber.get(), LDAP_CONTROL_PERSISTENTSEARCH, critical(iscritical), ctrlp);
}

int ldap_create_assertion_control(LDAP *ld, const char *filter, int iscritical, LDAPControl **ctrlp)
{
    LDAP_TRACE(TRC_API, "ldap_create_assertion_control ld(%p), filter(%s), isCritical(%d), controlp(%p)\n",
               static_cast<void *>(ld), trace_str(filter), iscritical, static_cast<void *>(ctrlp));
    if (ctrlp)
        *ctrlp = nullptr;
    if (!filter || !ctrlp)
        return LDAP_PARAM_ERROR;
    zldap::BerOwner ber(fber_alloc());
    if (!ber)
        return LDAP_NO_MEMORY;
    // The filter goes on the wire as the caller wrote it, untranslated.
    ber->ber_no_xlate = static_cast<uint32_t *>(zldap::mem_malloc(sizeof(uint32_t)));
    if (!ber->ber_no_xlate)
        return LDAP_NO_MEMORY;
    *ber->ber_no_xlate = 1;
    if (put_filter(ber.get(), filter, 0) != 0)
        return LDAP_FILTER_ERROR;
    return zldap::control_from_ber(ber.get(), LDAP_CONTROL_ASSERTION, critical(iscritical), ctrlp);
}

int ldap_create_vlv_control(LDAP *ld, LDAPVLVInfo *vlvinfop, LDAPControl **ctrlp)
{
    if (ctrlp)
        *ctrlp = nullptr;
    if (!ld || !vlvinfop || !ctrlp) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_vlv_control: Param error - ld(%p), vlvinfop(%p), ctrlp(%p)\n",
                   static_cast<void *>(ld), static_cast<void *>(vlvinfop), static_cast<void *>(ctrlp));
        return LDAP_PARAM_ERROR;
    }
    const struct berval *target = vlvinfop->ldvlv_attrvalue;
    const struct berval *context = vlvinfop->ldvlv_context;
    // An assertion value selects the target by itself; without one the
    // offset does, and offsets count from 1.
    if (!target && vlvinfop->ldvlv_offset == 0) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_vlv_control: offset=0 not allowed.\n");
        return LDAP_PARAM_ERROR;
    }
    zldap::BerOwner ber(fber_alloc());
    if (!ber) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_vlv_control: Failed to allocate ber.\n");
        return LDAP_NO_MEMORY;
    }
    if (fber_printf(ber.get(), "{ii", vlvinfop->ldvlv_before_count, vlvinfop->ldvlv_after_count) != 0)
        return vlv_failed(1);
    if (target) {
        if (!fits_int(target) ||
            fber_printf(ber.get(), "to", ber_tag_t{0x81}, bytes_of(target), length_of(target)) != 0)
            return vlv_failed(2);
    } else if (fber_printf(ber.get(), "t{ii}", ber_tag_t{0xA0}, vlvinfop->ldvlv_offset, vlvinfop->ldvlv_count) != 0) {
        return vlv_failed(3);
    }
    if (context && (!fits_int(context) || fber_printf(ber.get(), "o", bytes_of(context), length_of(context)) != 0))
        return vlv_failed(4);
    if (fber_printf(ber.get(), "}") != 0)
        return vlv_failed(5);
    int rc = zldap::control_from_ber(ber.get(), LDAP_CONTROL_VLVREQUEST, 1, ctrlp);
    if (rc == LDAP_ENCODING_ERROR)
        LDAP_TRACE(TRC_ERROR, "ldap_create_vlv_control: failed in fber_flatten.\n");
    return rc;
}

int ldap_create_limit_num_values_control(LDAP *ld, int first_limit, int second_limit, int flag, int iscritical,
                                         LDAPControl **ctrlp)
{
    if (ctrlp)
        *ctrlp = nullptr;
    if (!ld || !ctrlp) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_limit_num_values_control: NULL parameter.\n");
        return LDAP_PARAM_ERROR;
    }
    if (first_limit < 0 || second_limit < 0) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_limit_num_values_control: negative value!\n");
        return LDAP_PARAM_ERROR;
    }
    zldap::BerOwner ber(fber_alloc());
    if (!ber) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_limit_num_values_control: failed in fber_alloc.\n");
        return LDAP_NO_MEMORY;
    }
    if (fber_printf(ber.get(), "{iib}", first_limit, second_limit, flag) != 0) {
        LDAP_TRACE(TRC_ERROR, "ldap_create_limit_num_values_control: failed in fber_printf.\n");
        return LDAP_ENCODING_ERROR;
    }
    return zldap::control_from_ber(ber.get(), LDAP_CONTROL_LIMIT_NUM_VALUES, critical(iscritical), ctrlp);
}

int ldap_create_vendor_25_control(LDAP *ld, LDAPControl **ctrlp)
{
    return valueless_control(ld, false, LDAP_CONTROL_VENDOR_25, 1, ctrlp);
}

int ldap_create_vendor_26_control(LDAP *ld, LDAPControl **ctrlp)
{
    return valueless_control(ld, false, LDAP_CONTROL_VENDOR_26, 1, ctrlp);
}

int ldap_create_vendor_33_control(LDAP *ld, int iscritical, LDAPControl **ctrlp)
{
    return valueless_control(ld, true, LDAP_CONTROL_VENDOR_33, critical(iscritical), ctrlp);
}
