// pwdpolicy_response.cpp - the value of an effective password policy
// response: the policy's attributes with their values, and the DNs of the
// entries the policy was put together from.
#include "zor8ldap_api.h"

#include "base/memory.h"
#include "base/trace.h"
#include "ber/lber.h"
#include "proto/control_codec.h"

#include <cstring>

namespace {

// Room for this many attributes; the array has one more slot for its NULL.
constexpr int kMaxAttrs = 23;

void free_strings(char **values)
{
    for (char **v = values; v && *v; v++)
        zldap::mem_free(*v);
    zldap::mem_free(values);
}

int fail(int rc, LDAPPwdPolicyAttr **attrs, char **dns, const char *text)
{
    LDAP_TRACE(TRC_ERROR, "%s", text);
    ldap_free_effective_pwdpolicy_response(attrs, dns);
    return rc;
}

} // namespace

int ldap_parse_effective_pwdpolicy_response(const char *oidres, struct berval *result, LDAPPwdPolicyAttr ***attrs,
                                            char ***dns)
{
    if (attrs)
        *attrs = nullptr;
    if (dns)
        *dns = nullptr;
    // A response of another name is not one this parser can read.
    if (!oidres || !result || !result->bv_val || !attrs || !dns ||
        std::strcmp(oidres, LDAP_EXOP_EFFECTIVE_PWDPOLICY) != 0) {
        LDAP_TRACE(TRC_ERROR,
                   "ldap_parse_effective_pwdpolicy_response: Param error - oidres(%p), result(%p), attrs(%p), DNs(%p)\n",
                   static_cast<const void *>(oidres), static_cast<void *>(result), static_cast<void *>(attrs),
                   static_cast<void *>(dns));
        return LDAP_PARAM_ERROR;
    }
    static constexpr char kMalloc[] = "ldap_parse_effective_pwdpolicy_response: Malloc failed\n";
    static constexpr char kScanf[] = "ldap_parse_effective_pwdpolicy_response: fber_scanf failed\n";
    zldap::BerOwner ber(fber_init2(result));
    auto **list = static_cast<LDAPPwdPolicyAttr **>(zldap::mem_calloc(kMaxAttrs + 1, sizeof(LDAPPwdPolicyAttr *)));
    if (!ber || !list)
        return fail(LDAP_NO_MEMORY, list, nullptr, kMalloc);
    if (fber_scanf(ber.get(), "{") == LBER_DEFAULT)
        return fail(LDAP_DECODING_ERROR, list, nullptr, kScanf);

    ber_tag_t tag = fber_peek_tag(ber.get(), nullptr);
    for (int n = 0; tag == 0x30; n++) {
        if (n == kMaxAttrs)
            return fail(LDAP_DECODING_ERROR, list, nullptr,
                        "ldap_parse_effective_pwdpolicy_response: too many attrs received.\n");
        list[n] = static_cast<LDAPPwdPolicyAttr *>(zldap::mem_calloc(1, sizeof(LDAPPwdPolicyAttr)));
        if (!list[n])
            return fail(LDAP_NO_MEMORY, list, nullptr, kMalloc);
        if (fber_scanf(ber.get(), "{a[v]}", &list[n]->pa_attr, &list[n]->pa_values) == LBER_DEFAULT)
            return fail(LDAP_DECODING_ERROR, list, nullptr, kScanf);
        tag = fber_peek_tag(ber.get(), nullptr);
    }
    char **sources = nullptr;
    if (tag == 0x80 && fber_scanf(ber.get(), "[v]", &sources) == LBER_DEFAULT)
        return fail(LDAP_DECODING_ERROR, list, sources, kScanf);
    *attrs = list;
    *dns = sources;
    return LDAP_SUCCESS;
}

void ldap_free_effective_pwdpolicy_response(LDAPPwdPolicyAttr **attrs, char **dns)
{
    for (LDAPPwdPolicyAttr **a = attrs; a && *a; a++) {
        zldap::mem_free((*a)->pa_attr);
        free_strings((*a)->pa_values);
        zldap::mem_free(*a);
    }
    zldap::mem_free(attrs);
    free_strings(dns);
}
