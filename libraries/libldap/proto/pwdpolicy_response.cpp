// pwdpolicy_response.cpp - the password-policy response control. Its value
// is a SEQUENCE of an optional warning and an optional error, and servers
// write it in more than one form:
//
//   standard  SEQUENCE { warning [0] CHOICE { timeBeforeExpiration [0] INTEGER,
//                                             graceAuthNsRemaining [1] INTEGER } OPTIONAL,
//                        error [1] ENUMERATED OPTIONAL }
//   older     the warning as a primitive-tagged [0] wrapping the tagged choice
//             and its INTEGER; the error as [1] ENUMERATED directly (as the
//             standard says) or wrapped once more around the ENUMERATED.
#include "zor8ldap_api.h"

#include "base/trace.h"
#include "ber/lber.h"

#include <cstring>

namespace {

constexpr const char *kPwdPolicyOid = "1.3.6.1.4.1.42.2.27.8.5.1";
constexpr uint32_t kOlderWarning = 0x80;
constexpr uint32_t kStandardWarning = 0xA0;
constexpr uint32_t kPolicyError = 0x81;
constexpr uint32_t kTimeBeforeExpiration = 0x80;
constexpr uint32_t kGraceLoginsRemaining = 0x81;
// An error of 3 or more needs the two-octet wrapped form to be told from
// the direct one: fewer bytes than this hold the direct form.
constexpr long kWrappedErrorSize = 4;

struct PolicyResult {
    int error = 0;
    int warn_kind = 0;
    int warn_value = 0;
};

void set_warning(PolicyResult &out, uint32_t choice, int value)
{
    out.warn_kind = choice == kTimeBeforeExpiration ? 1 : choice == kGraceLoginsRemaining ? 2 : 0;
    out.warn_value = value;
}

// Errors are numbered from 3 on in the password-policy texts. The sum wraps
// rather than overflows for a hostile value.
int policy_error(int value) { return static_cast<int>(static_cast<unsigned>(value) + 3u); }

bool read_older_warning(BerElement *ber, PolicyResult &out)
{
    LDAP_TRACE(TRC_API, "ldap_parse_pwdpolicy_response: have LDAP_PWDPOLICY_WARNING\n");
    uint32_t choice = 0;
    int value = 0;
    if (fber_scanf(ber, "{") == LBER_DEFAULT || fber_scanf(ber, "t{i", &choice, &value) == LBER_DEFAULT) {
        LDAP_TRACE(TRC_ERROR, "ldap_parse_pwdpolicy_response: bad fber_scanf(s) for LDAP_PWDPOLICY_WARNING\n");
        return false;
    }
    set_warning(out, choice, value);
    return true;
}

// The standard warning, and the error that may follow it.
bool read_standard_warning(BerElement *ber, PolicyResult &out)
{
    LDAP_TRACE(TRC_API, "ldap_parse_pwdpolicy_response: have OPENLDAP_PWDPOLICY_WARNING\n");
    uint32_t choice = 0;
    int value = 0;
    if (fber_scanf(ber, "{") == LBER_DEFAULT || fber_scanf(ber, "ti", &choice, &value) == LBER_DEFAULT) {
        LDAP_TRACE(TRC_ERROR,
                   "ldap_parse_pwdpolicy_response: bad fber_scanf(s) for OPENLDAP_PWDPOLICY_WARNING\n");
        return false;
    }
    set_warning(out, choice, value);
    uint32_t tag = 0;
    int error = 0;
    if (fber_scanf(ber, "ti", &tag, &error) != LBER_DEFAULT && tag == kPolicyError)
        out.error = policy_error(error);
    return true;
}

// The error alone, in whichever form the size suggests first.
bool read_error(BerElement *ber, PolicyResult &out)
{
    LDAP_TRACE(TRC_API, "ldap_parse_pwdpolicy_response: have LDAP_PWDPOLICY_ERROR\n");
    char *start = ber->ber_ptr;
    int error = 0;
    auto direct = [&] {
        ber->ber_ptr = start;
        return fber_scanf(ber, "e}", &error) != LBER_DEFAULT;
    };
    auto wrapped = [&] {
        ber->ber_ptr = start;
        return fber_scanf(ber, "{e}}", &error) != LBER_DEFAULT;
    };
    bool ok;
    if (ber->ber_end - start < kWrappedErrorSize) {
        LDAP_TRACE(TRC_API, "ldap_parse_pwdpolicy_response: LDAP_PWDPOLICY_ERROR (RFC)\n");
        ok = direct() || wrapped();
        if (!ok)
            LDAP_TRACE(TRC_ERROR,
                       "ldap_parse_pwdpolicy_response: both RFC decoding failed and non RFC decoding failed.\n");
    } else {
        LDAP_TRACE(TRC_API, "ldap_parse_pwdpolicy_response: LDAP_PWDPOLICY_ERROR (nonRFC)\n");
        ok = wrapped() || direct();
        if (!ok)
            LDAP_TRACE(TRC_ERROR,
                       "ldap_parse_pwdpolicy_response: both non RFC decoding failed and RFC decoding failed.\n");
    }
    if (ok)
        out.error = policy_error(error);
    return ok;
}

// One control's value. 0, 84 or 90.
int read_policy_value(const struct berval *value, PolicyResult &out)
{
    BerElement *ber = fber_init2(value);
    if (!ber)
        return LDAP_NO_MEMORY;
    bool ok;
    uint32_t first = 0;
    if (fber_scanf(ber, "{t", &first) == LBER_DEFAULT) {
        LDAP_TRACE(TRC_ERROR, "ldap_parse_pwdpolicy_response: Bad fber_scanf for first tag\n");
        ok = false;
    } else if (first == kOlderWarning) {
        ok = read_older_warning(ber, out);
    } else if (first == kStandardWarning) {
        ok = read_standard_warning(ber, out);
    } else if (first == kPolicyError) {
        ok = read_error(ber, out);
    } else {
        ok = true; // nothing this side knows of
    }
    fber_free(ber);
    return ok ? LDAP_SUCCESS : LDAP_DECODING_ERROR;
}

} // namespace

int ldap_parse_pwdpolicy_response(LDAPControl **serverControls, int *controlerr, int *controlwarn, int *controlres)
{
    if (!serverControls || !controlerr || !controlwarn || !controlres) {
        LDAP_TRACE(TRC_ERROR,
                   "ldap_parse_pwdpolicy_response: Bad params serverControls(%p), controlerr(%p), controlwarn(%p), "
                   "controlres(%p)\n",
                   static_cast<void *>(serverControls), static_cast<void *>(controlerr),
                   static_cast<void *>(controlwarn), static_cast<void *>(controlres));
        return LDAP_PARAM_ERROR;
    }
    LDAP_TRACE(TRC_API,
               "ldap_parse_pwdpolicy_response: serverControls(%p) controlerr(%p), controlwarn(%p), controlres(%p)\n",
               static_cast<void *>(serverControls), static_cast<void *>(controlerr), static_cast<void *>(controlwarn),
               static_cast<void *>(controlres));
    PolicyResult out;
    int rc = LDAP_SUCCESS;
    for (LDAPControl **c = serverControls; *c && rc == LDAP_SUCCESS; c++)
        if ((*c)->ldctl_oid && std::strcmp((*c)->ldctl_oid, kPwdPolicyOid) == 0 && (*c)->ldctl_value.bv_val)
            rc = read_policy_value(&(*c)->ldctl_value, out);
    if (rc != LDAP_SUCCESS)
        out = PolicyResult{};
    *controlerr = out.error;
    *controlwarn = out.warn_kind;
    *controlres = out.warn_value;
    return rc;
}
