// ldap_referrals_encode.cpp - the initial request written again for the
// server a referral names: a new message id, the URL's DN (and, for a
// search, its scope and filter), everything else as the caller sent it,
// and its controls except paged results, whose cookie means nothing to
// another server.
#include "engine/ldap_referrals.h"

#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "proto/element_fits.h"
#include "proto/filter.h"
#include "proto/ldap_controls.h"

#include <cstring>

namespace {

constexpr char kPagedResultsOid[] = "1.2.840.113556.1.4.319";
constexpr uint32_t kNewSuperiorTag = 0x80;

const char *scope_name(int scope)
{
    switch (scope) {
    case -1:
        return "NONE";
    case LDAP_SCOPE_BASE:
        return "BASE";
    case LDAP_SCOPE_ONELEVEL:
        return "ONE";
    case LDAP_SCOPE_SUBTREE:
        return "SUB";
    default:
        return "invalid scope";
    }
}

ber_tag_t tag(int value) { return static_cast<ber_tag_t>(value); }

int encoded(int printf_rc) { return printf_rc == 0 ? LDAP_SUCCESS : LDAP_ENCODING_ERROR; }

// The next element of `in`, header and all, byte for byte.
int copy_element(BerElement *in, BerElement *out)
{
    ber_tag_t item_tag;
    ber_len_t len;
    char *start = in->ber_ptr;
    if (!zldap::element_fits(in, in->ber_end, &item_tag, &len) || fber_skip_element(in) != 0)
        return LDAP_DECODING_ERROR;
    return fber_write(out, start, static_cast<ber_len_t>(in->ber_ptr - start)) < 0 ? LDAP_ENCODING_ERROR
                                                                                    : LDAP_SUCCESS;
}

// A search keeps its limits and attributes; the URL's scope and filter
// replace the initial ones when it has them.
int encode_search(BerElement *in, BerElement *out, int id, const LDAPURLDesc *desc)
{
    int scope = 0, deref = 0, size = 0, time = 0, types_only = 0;
    if (fber_scanf(in, "eiiii", &scope, &deref, &size, &time, &types_only) == LBER_DEFAULT)
        return LDAP_DECODING_ERROR;
    if (desc->lud_scope != -1)
        scope = desc->lud_scope;
    if (fber_printf(out, "{it{seeiib", id, tag(0x63), desc->lud_dn, scope, deref, size, time, types_only) != 0)
        return LDAP_ENCODING_ERROR;
    int rc = LDAP_SUCCESS;
    if (!desc->lud_filter)
        rc = copy_element(in, out);
    else if (fber_skip_element(in) != 0)
        rc = LDAP_DECODING_ERROR;
    else if (put_filter(out, desc->lud_filter, 0) != 0)
        rc = LDAP_ENCODING_ERROR;
    char **attrs = nullptr;
    if (rc == LDAP_SUCCESS && fber_scanf(in, "{v}", &attrs) == LBER_DEFAULT)
        rc = LDAP_DECODING_ERROR;
    if (rc == LDAP_SUCCESS)
        rc = encoded(fber_printf(out, "{v}}", attrs));
    for (char **a = attrs; a && *a; a++)
        zldap::mem_free(*a);
    zldap::mem_free(attrs);
    return rc;
}

// A modify DN keeps its new RDN, its delete-old-RDN flag and, when it has
// one, its new superior.
int encode_modify_dn(BerElement *in, BerElement *out, int id, const char *dn)
{
    char *new_rdn = nullptr;
    char *new_superior = nullptr;
    int delete_old = 0;
    uint32_t superior_tag = 0;
    int rc = LDAP_SUCCESS;
    if (fber_scanf(in, "ai", &new_rdn, &delete_old) == LBER_DEFAULT)
        rc = LDAP_DECODING_ERROR;
    else if (fber_peek_tag(in, nullptr) == kNewSuperiorTag &&
             fber_scanf(in, "ta", &superior_tag, &new_superior) == LBER_DEFAULT)
        rc = LDAP_DECODING_ERROR;
    else if (fber_printf(out, "{it{ssb", id, tag(0x6C), dn, new_rdn, delete_old) != 0 ||
             (new_superior && fber_printf(out, "ts", tag(superior_tag), new_superior) != 0) ||
             fber_printf(out, "}") != 0)
        rc = LDAP_ENCODING_ERROR;
    zldap::mem_free(new_rdn);
    zldap::mem_free(new_superior);
    return rc;
}

// Modify, add and compare: what follows the DN goes along unchanged.
int encode_with_copied_rest(BerElement *in, BerElement *out, int id, int op, const char *dn)
{
    if (fber_printf(out, "{it{s", id, tag(op), dn) != 0)
        return LDAP_ENCODING_ERROR;
    int rc = copy_element(in, out);
    return rc != LDAP_SUCCESS ? rc : encoded(fber_printf(out, "}"));
}

int encode_operation(BerElement *in, BerElement *out, int id, int op, const LDAPURLDesc *desc)
{
    switch (op) {
    case 0x4A:
        return encoded(fber_printf(out, "{its", id, tag(op), desc->lud_dn));
    case 0x63:
        return encode_search(in, out, id, desc);
    case 0x66:
    case 0x68:
    case 0x6E:
        return encode_with_copied_rest(in, out, id, op, desc->lud_dn);
    case 0x6C:
        return encode_modify_dn(in, out, id, desc->lud_dn);
    default:
        LDAP_TRACE(TRC_ERROR, "re_encode_request: Uknown request to encode, tag = %d\n", op);
        return LDAP_OTHER;
    }
}

// The initial request's controls but paged results, and the end of the
// message. 0, or the code.
int copy_request_controls(BerElement *in, BerElement *out)
{
    LDAPControl **ctrls = nullptr;
    int rc = get_ctrls_from_ber(in, &ctrls);
    if (rc != LDAP_SUCCESS)
        return rc;
    for (LDAPControl **c = ctrls; c && *c; c++) {
        if ((*c)->ldctl_oid && std::strcmp((*c)->ldctl_oid, kPagedResultsOid) == 0) {
            if (ldap_remove_control(*c, &ctrls, 1) != LDAP_SUCCESS)
                rc = LDAP_ENCODING_ERROR;
            break;
        }
    }
    if (rc == LDAP_SUCCESS && (put_ctrls_into_ber(out, ctrls) != 0 || fber_printf(out, "}") != 0))
        rc = LDAP_ENCODING_ERROR;
    ldap_controls_free(ctrls);
    return rc;
}

} // namespace

BerElement *re_encode_request(LDAP *ld, const BerElement *initial, int id, LDAPURLDesc *desc)
{
    LDAP_TRACE(TRC_ERROR, "re_encode_request: new msgid %d, new dn <%s>, new scope <%s>, new filter <%s>\n", id,
               trace_str(desc->lud_dn, "NONE"), scope_name(desc->lud_scope), trace_str(desc->lud_filter, "NONE"));
    // A copy rewound to the start: the initial element stays as it is.
    BerElement in = *initial;
    fber_reset(&in, 1);
    BerElement *out = new_ldap_ber(ld);
    if (!out)
        return nullptr;
    int old_id = 0;
    uint32_t op = 0;
    char *dn = nullptr;
    int version = 0;
    int rc = LDAP_SUCCESS;
    if (fber_scanf(&in, "{it", &old_id, &op) == LBER_DEFAULT)
        rc = LDAP_DECODING_ERROR;
    else if (op == 0x60 ? fber_scanf(&in, "{ia", &version, &dn) == LBER_DEFAULT
                        : fber_scanf(&in, op == 0x4A ? "a" : "{a", &dn) == LBER_DEFAULT)
        rc = LDAP_DECODING_ERROR;
    // The URL's DN, or the initial one when the URL names none.
    if (rc == LDAP_SUCCESS && !desc->lud_dn) {
        desc->lud_dn = dn;
        dn = nullptr;
    }
    zldap::mem_free(dn);
    if (rc == LDAP_SUCCESS)
        rc = encode_operation(&in, out, id, static_cast<int>(op), desc);
    if (rc == LDAP_SUCCESS)
        rc = copy_request_controls(&in, out);
    if (rc != LDAP_SUCCESS) {
        ldap_fail(ld, rc);
        fber_free(out);
        return nullptr;
    }
    return out;
}
