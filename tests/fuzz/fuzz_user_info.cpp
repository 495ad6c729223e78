// fuzz_user_info.cpp - arbitrary bytes as a user information file (either
// layout), every password item of what parses opened with a key, and the
// bytes themselves opened as a protected blob.
#include "dns/user_info.h"

#include "base/memory.h"

#include <cstdint>
#include <cstring>

namespace {

void Open(const uint8_t *blob, size_t length)
{
    char *data = nullptr;
    int data_length = 0;
    if (zldap::user_info_recover("key", blob, length, &data, &data_length) == 0 &&
        (!data || data_length < 0 || data[data_length] != '\0'))
        __builtin_trap(); // results always end in a zero byte
    zldap::mem_free(data);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    zldap::UserInfoRecord *records = nullptr;
    if (zldap::user_info_parse(data, size, &records) == 0)
        for (const zldap::UserInfoRecord *r = records; r; r = r->next)
            if (r->items[LDAP_USER_INFO_PASSWORD - 1].data)
                Open(r->items[LDAP_USER_INFO_PASSWORD - 1].data, r->items[LDAP_USER_INFO_PASSWORD - 1].length);
    zldap::user_info_free(records);
    Open(data, size);
    return 0;
}
