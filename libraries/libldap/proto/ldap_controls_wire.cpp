// ldap_controls_wire.cpp - controls on the wire: writing a list as the
// Controls that follow a request's protocol operation, and reading the
// Controls that follow a response's.
//
//   Controls ::= [0] SEQUENCE OF Control                      tag 0xA0
//   Control  ::= SEQUENCE { controlType   OCTET STRING,
//                           criticality   BOOLEAN DEFAULT FALSE,
//                           controlValue  OCTET STRING OPTIONAL }
#include "proto/ldap_controls.h"

#include "base/memory.h"
#include "base/trace.h"
#include "ber/lber.h"
#include "proto/element_fits.h"

#include <climits>
#include <cstring>

#define LDAP_MODULE "libraries/libldap/ldap_controls"

namespace {

constexpr ber_tag_t kTagControls = 0xA0;
constexpr ber_tag_t kTagSequence = 0x30;
constexpr ber_tag_t kTagBoolean = 0x01;
constexpr ber_tag_t kTagOctetString = 0x04;

// Writes nothing when a control cannot be encoded, so that a refused list
// leaves no half-written Controls behind.
bool encodable(LDAPControl **ctrls)
{
    for (LDAPControl **c = ctrls; *c; c++) {
        if (!(*c)->ldctl_oid)
            return false;
        if ((*c)->ldctl_value.bv_val && (*c)->ldctl_value.bv_len > static_cast<ber_len_t>(INT_MAX))
            return false;
    }
    return true;
}

int put_one_control(BerElement *ber, const LDAPControl *ctrl)
{
    if (fber_printf(ber, "{sb", ctrl->ldctl_oid, ctrl->ldctl_iscritical) != 0)
        return -1;
    if (ctrl->ldctl_value.bv_val &&
        fber_printf(ber, "o", ctrl->ldctl_value.bv_val, static_cast<int>(ctrl->ldctl_value.bv_len)) != 0)
        return -1;
    return fber_printf(ber, "}");
}

// The list being read, released as a whole whatever fails.
struct ControlsBuilder {
    LDAPControl **list = nullptr;
    size_t count = 0;
    size_t capacity = 0; // slots, the terminator's included

    ~ControlsBuilder() { ldap_controls_free(list); }

    // Room for one more control and the terminator. New slots are NULL, so
    // the list stays terminated at every point.
    bool grow()
    {
        if (count + 2 <= capacity)
            return true;
        size_t wanted = capacity < 4 ? 4 : capacity * 2;
        auto **bigger = static_cast<LDAPControl **>(zldap::mem_realloc(list, wanted * sizeof(LDAPControl *)));
        if (!bigger)
            return false;
        std::memset(bigger + capacity, 0, (wanted - capacity) * sizeof(LDAPControl *));
        list = bigger;
        capacity = wanted;
        return true;
    }

    LDAPControl **release()
    {
        LDAPControl **out = list;
        list = nullptr;
        return out;
    }
};

using zldap::element_fits;

void trace_control(const LDAPControl *ctrl)
{
    if (!zldap::trace_enabled(TRC_API))
        return;
    zldap::trace_print(TRC_API, "get_ctrls_from_ber: Control OID = %s, critical = %s, value follows\n",
                       ctrl->ldctl_oid, ctrl->ldctl_iscritical ? "Yes" : "No");
    if (ctrl->ldctl_value.bv_val)
        zldap::trace_dump(ctrl->ldctl_value.bv_val, static_cast<long>(ctrl->ldctl_value.bv_len),
                          "control value");
    else
        zldap::trace_print(TRC_API, "get_ctrls_from_ber: control value is NULL. \n");
}

// Reads one Control ending no later than controls_end into ctrl.
// LDAP_SUCCESS, LDAP_DECODING_ERROR or LDAP_NO_MEMORY.
int get_one_control(BerElement *ber, const char *controls_end, LDAPControl *ctrl)
{
    ber_tag_t tag;
    ber_len_t len;
    if (!element_fits(ber, controls_end, &tag, &len) || tag != kTagSequence) {
        LDAP_TRACE(TRC_ERROR, "get_ctrls_from_ber: Error decoding a control OID\n");
        return LDAP_DECODING_ERROR;
    }
    fber_get_tag(ber, &len);
    const char *control_end = ber->ber_ptr + len;

    // The control type comes first; it is never empty and, being a dotted
    // OID, holds no NUL that would cut the string short.
    const char *oid_bytes = nullptr;
    if (!element_fits(ber, control_end, &tag, &len, &oid_bytes) || tag != kTagOctetString || len == 0 ||
        std::memchr(oid_bytes, 0, len)) {
        LDAP_TRACE(TRC_ERROR, "get_ctrls_from_ber: Error decoding a control OID\n");
        return LDAP_DECODING_ERROR;
    }
    // With the header checked, only memory can fail the read.
    if (fber_scanf(ber, "a", &ctrl->ldctl_oid) == LBER_DEFAULT) {
        LDAP_TRACE(TRC_ERROR, "get_ctrls_from_ber: No memory for the control OID\n");
        return LDAP_NO_MEMORY;
    }

    // Criticality, then value, each at most once and in that order.
    bool seen_criticality = false;
    bool seen_value = false;
    while (ber->ber_ptr < control_end) {
        if (!element_fits(ber, control_end, &tag, &len)) {
            LDAP_TRACE(TRC_ERROR, "get_ctrls_from_ber: truncated control %s\n", ctrl->ldctl_oid);
            return LDAP_DECODING_ERROR;
        }
        if (tag == kTagBoolean && !seen_criticality && !seen_value && len == 1) {
            int critical = 0;
            if (fber_scanf(ber, "b", &critical) == LBER_DEFAULT)
                return LDAP_DECODING_ERROR;
            ctrl->ldctl_iscritical = critical != 0 ? 1 : 0;
            seen_criticality = true;
        } else if (tag == kTagOctetString && !seen_value) {
            if (fber_scanf(ber, "o", &ctrl->ldctl_value) == LBER_DEFAULT) {
                LDAP_TRACE(TRC_ERROR, "get_ctrls_from_ber: No memory for the control value\n");
                ctrl->ldctl_value.bv_len = 0;
                return LDAP_NO_MEMORY;
            }
            seen_value = true;
        } else {
            LDAP_TRACE(TRC_ERROR, "get_ctrls_from_ber: unexpected tag 0x%lx in control %s\n",
                       static_cast<unsigned long>(tag), ctrl->ldctl_oid);
            return LDAP_DECODING_ERROR;
        }
    }
    trace_control(ctrl);
    return LDAP_SUCCESS;
}

int finish_get(LDAPControl ***ctrls, LDAPControl **list, int rc, int count)
{
    if (ctrls)
        *ctrls = list;
    LDAP_TRACE(rc == LDAP_SUCCESS ? TRC_API : TRC_ERROR,
               "get_ctrls_from_ber: return(%d), ctrls=%p, %d controls returned\n", rc,
               static_cast<void *>(list), count);
    return rc;
}

} // namespace

int put_ctrls_into_ber(BerElement *ber, LDAPControl **ctrls)
{
    LDAP_TRACE(TRC_API, "put_ctrls_into_ber: ctrls=%p\n", static_cast<void *>(ctrls));
    if (ldap_count_controls(ctrls) == 0)
        return LDAP_SUCCESS;

    int rc = LDAP_SUCCESS;
    if (!ber || !encodable(ctrls) || fber_printf(ber, "t{", kTagControls) != 0) {
        rc = LDAP_ENCODING_ERROR;
    } else {
        for (LDAPControl **c = ctrls; *c && rc == LDAP_SUCCESS; c++)
            if (put_one_control(ber, *c) != 0)
                rc = LDAP_ENCODING_ERROR;
        if (rc == LDAP_SUCCESS && fber_printf(ber, "}") != 0)
            rc = LDAP_ENCODING_ERROR;
    }
    LDAP_TRACE(rc == LDAP_SUCCESS ? TRC_API : TRC_ERROR, "put_ctrls_into_ber: return(rc=%d)\n", rc);
    return rc;
}

int get_ctrls_from_ber(BerElement *ber, LDAPControl ***ctrls)
{
    LDAP_TRACE(TRC_API, "get_ctrls_from_ber: ctrls_p=%p\n", static_cast<void *>(ctrls));
    if (!ctrls)
        return finish_get(ctrls, nullptr, LDAP_SUCCESS, 0);
    *ctrls = nullptr;

    // No Controls, or an empty one: no list.
    ber_len_t len = 0;
    if (!ber || fber_peek_tag(ber, &len) != kTagControls || len == 0)
        return finish_get(ctrls, nullptr, LDAP_SUCCESS, 0);
    ber_tag_t tag;
    if (!element_fits(ber, ber->ber_end, &tag, &len)) {
        LDAP_TRACE(TRC_ERROR, "get_ctrls_from_ber: controls run past the end of the message\n");
        return finish_get(ctrls, nullptr, LDAP_DECODING_ERROR, 0);
    }
    fber_get_tag(ber, &len);
    const char *controls_end = ber->ber_ptr + len;

    ControlsBuilder built;
    // The list ends where no further tag can be read; fewer than two octets
    // left inside the Controls hold none.
    while (controls_end - ber->ber_ptr >= 2 && fber_peek_tag(ber, &len) != LBER_DEFAULT) {
        if (!built.grow()) {
            LDAP_TRACE(TRC_ERROR, "get_ctrls_from_ber: No memory to (re)allocate controls array\n");
            return finish_get(ctrls, nullptr, LDAP_NO_MEMORY, 0);
        }
        auto *ctrl = static_cast<LDAPControl *>(zldap::mem_calloc(1, sizeof(LDAPControl)));
        if (!ctrl) {
            LDAP_TRACE(TRC_ERROR, "get_ctrls_from_ber: No memory for LDAPControl structure\n");
            return finish_get(ctrls, nullptr, LDAP_NO_MEMORY, 0);
        }
        built.list[built.count++] = ctrl;
        int rc = get_one_control(ber, controls_end, ctrl);
        if (rc != LDAP_SUCCESS)
            return finish_get(ctrls, nullptr, rc, 0);
    }
    ber->ber_ptr = const_cast<char *>(controls_end);
    int count = static_cast<int>(built.count);
    return finish_get(ctrls, built.release(), LDAP_SUCCESS, count);
}
