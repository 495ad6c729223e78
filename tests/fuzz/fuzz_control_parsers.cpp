// fuzz_control_parsers.cpp - feeds arbitrary bytes as the value of every
// response control the library parses (and as an effective password policy
// response). Each parser returns one of its documented codes, hands out
// nothing when it fails, and a paged-results answer it accepts survives
// being built into a request and read back.
#include "ber_test_support.h"
#include "core/ldap_error.h"
#include "zor8ldap_api.h"
#include "proto/ldap_controls.h"
#include "session/ldap_init.h"

#include <cstdint>
#include <cstring>
#include <initializer_list>

namespace {

void Check(bool condition)
{
    if (!condition)
        __builtin_trap();
}

bool OneOf(int rc, std::initializer_list<int> codes)
{
    for (int c : codes)
        if (rc == c)
            return true;
    return false;
}

// Every parser may fail to decode or run out of memory.
bool Documented(int rc) { return OneOf(rc, {LDAP_SUCCESS, LDAP_DECODING_ERROR, LDAP_NO_MEMORY}); }

LDAP *Handle()
{
    static LDAP *ld = ldap_init("localhost", 389);
    return ld;
}

// A list of an unrelated control and the control under test.
struct List {
    LDAPControl *ctrls[3];
    LDAPControl other{const_cast<char *>("1.2.3"), {0, nullptr}, 0};
    LDAPControl under_test;

    List(const char *oid, const struct berval &value) : under_test{const_cast<char *>(oid), value, 0}
    {
        ctrls[0] = &other;
        ctrls[1] = &under_test;
        ctrls[2] = nullptr;
    }
};

void Page(LDAP *ld, const struct berval &value)
{
    List list("1.2.840.113556.1.4.319", value);
    unsigned long size = 0;
    struct berval *cookie = nullptr;
    int rc = ldap_parse_page_control(ld, list.ctrls, &size, &cookie);
    Check(Documented(rc));
    Check(rc == LDAP_SUCCESS || cookie == nullptr);
    // Sizes above the largest INTEGER the request can carry come back
    // differently; the rest must survive the round trip.
    if (rc != LDAP_SUCCESS || size > INT32_MAX) {
        ber_bvfree(cookie);
        return;
    }
    LDAPControl *request = nullptr;
    Check(ldap_create_page_control(ld, size, cookie, 'T', &request) == LDAP_SUCCESS);
    LDAPControl *again[] = {request, nullptr};
    unsigned long size_again = 0;
    struct berval *cookie_again = nullptr;
    Check(ldap_parse_page_control(ld, again, &size_again, &cookie_again) == LDAP_SUCCESS);
    Check(size_again == size);
    size_t len = cookie ? cookie->bv_len : 0;
    Check(cookie_again && cookie_again->bv_len == len);
    Check(len == 0 || std::memcmp(cookie_again->bv_val, cookie->bv_val, len) == 0);
    ber_bvfree(cookie_again);
    ldap_control_free(request);
    ber_bvfree(cookie);
}

void Sort(LDAP *ld, const struct berval &value)
{
    List list("1.2.840.113556.1.4.474", value);
    unsigned long result = 0;
    char *attribute = nullptr;
    int rc = ldap_parse_sort_control(ld, list.ctrls, &result, &attribute);
    Check(Documented(rc));
    Check(rc == LDAP_SUCCESS || attribute == nullptr);
    Check(ldap_get_errno(ld) == rc);
    zldap::mem_free(attribute);
}

void EntryChange(LDAP *ld, const struct berval &value)
{
    List list("2.16.840.1.113730.3.4.7", value);
    int type = 0, has_number = -1, number = -1;
    char *previous = nullptr;
    int rc = ldap_parse_entrychange_control(ld, list.ctrls, &type, &previous, &has_number, &number);
    Check(Documented(rc));
    Check(rc == LDAP_SUCCESS || previous == nullptr);
    if (rc == LDAP_SUCCESS)
        Check((has_number == 1 && number > 0) || (has_number == 0 && number == 0));
    zldap::mem_free(previous);
}

void Vlv(LDAP *ld, const struct berval &value)
{
    List list("2.16.840.1.113730.3.4.10", value);
    unsigned long position = 0, count = 0;
    int result = 0;
    struct berval *context = nullptr;
    int rc = ldap_parse_vlv_control(ld, list.ctrls, &position, &count, &context, &result);
    Check(Documented(rc));
    Check(rc == LDAP_SUCCESS || context == nullptr);
    ber_bvfree(context);
}

void LimitValues(LDAP *ld, const struct berval &value)
{
    List list("1.3.18.0.2.10.30", value);
    LDAPLimitNumValuesResponse *response = nullptr;
    int rc = ldap_parse_limit_num_values_response(ld, list.ctrls, &response);
    Check(Documented(rc));
    Check((rc == LDAP_SUCCESS) == (response != nullptr));
    if (response)
        Check(response->lnvr_dn != nullptr);
    ldap_free_limit_num_values_response(response);
}

void PwdPolicy(struct berval &value)
{
    LDAPPwdPolicyAttr **attrs = nullptr;
    char **dns = nullptr;
    int rc = ldap_parse_effective_pwdpolicy_response("1.3.18.0.2.12.77", &value, &attrs, &dns);
    Check(Documented(rc));
    Check(rc == LDAP_SUCCESS || (attrs == nullptr && dns == nullptr));
    int count = 0;
    for (LDAPPwdPolicyAttr **a = attrs; a && *a; a++, count++)
        Check((*a)->pa_attr != nullptr);
    Check(count <= 23);
    ldap_free_effective_pwdpolicy_response(attrs, dns);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    LDAP *ld = Handle();
    Check(ld != nullptr);
    // A heap copy of exactly the input, so that any read past it is seen.
    char *bytes = static_cast<char *>(zldap::mem_malloc(size ? size : 1));
    Check(bytes != nullptr);
    if (size)
        std::memcpy(bytes, data, size);
    struct berval value = {size, bytes};
    Page(ld, value);
    Sort(ld, value);
    EntryChange(ld, value);
    Vlv(ld, value);
    LimitValues(ld, value);
    PwdPolicy(value);
    zldap::mem_free(bytes);
    return 0;
}
