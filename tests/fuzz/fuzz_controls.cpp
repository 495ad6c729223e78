// fuzz_controls.cpp - reads arbitrary bytes as the Controls that follow a
// response's protocol operation. Whatever is read is written again and
// must read back to the same controls; the position never leaves the data.
#include "ber_test_support.h"
#include "proto/ldap_controls.h"

#include <cstdint>
#include <cstring>

using zldap_test::BerPtr;
using zldap_test::ExactReader;

namespace {

void Check(bool condition)
{
    if (!condition)
        __builtin_trap();
}

bool SameControl(const LDAPControl *a, const LDAPControl *b)
{
    if (std::strcmp(a->ldctl_oid, b->ldctl_oid) != 0 || (a->ldctl_iscritical != 0) != (b->ldctl_iscritical != 0))
        return false;
    if (!a->ldctl_value.bv_val || !b->ldctl_value.bv_val)
        return !a->ldctl_value.bv_val && !b->ldctl_value.bv_val;
    return a->ldctl_value.bv_len == b->ldctl_value.bv_len &&
           std::memcmp(a->ldctl_value.bv_val, b->ldctl_value.bv_val, a->ldctl_value.bv_len) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    BerPtr ber = ExactReader(data, size);
    if (!ber)
        return 0;
    LDAPControl **ctrls = nullptr;
    int rc = get_ctrls_from_ber(ber.get(), &ctrls);
    Check(rc == LDAP_SUCCESS || rc == LDAP_DECODING_ERROR || rc == LDAP_NO_MEMORY);
    Check(ber->ber_ptr >= ber->ber_buf && ber->ber_ptr <= ber->ber_end);
    Check(rc == LDAP_SUCCESS || ctrls == nullptr);
    if (!ctrls)
        return 0;

    BerPtr out(fber_alloc());
    Check(out != nullptr);
    Check(put_ctrls_into_ber(out.get(), ctrls) == LDAP_SUCCESS);
    fber_reset(out.get(), 1);
    LDAPControl **again = nullptr;
    Check(get_ctrls_from_ber(out.get(), &again) == LDAP_SUCCESS);
    int count = ldap_count_controls(ctrls);
    Check(ldap_count_controls(again) == count);
    for (int i = 0; i < count; i++)
        Check(SameControl(ctrls[i], again[i]));
    Check(out->ber_ptr == out->ber_end);
    ldap_controls_free(again);
    ldap_controls_free(ctrls);
    return 0;
}
