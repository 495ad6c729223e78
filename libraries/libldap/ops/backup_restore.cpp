// backup_restore.cpp - ldap_backup and ldap_restore: one extended request
// whose value says which of the two the server is to run, and whose
// response value carries that operation's own result code.
#include "zor8ldap_api.h"

#include "base/trace.h"
#include "base/memory.h"
#include "ber/lber.h"
#include "proto/control_codec.h"

#include <cstring>

namespace {

constexpr const char *kBackupRestore = "1.3.18.0.2.12.81";

struct Kind {
    const char *name;  // in the trace lines
    int request;       // the enumerated value of the request
    int initial_result; // what *result says when the server's answer carries none
};

constexpr Kind kBackup{"ldap_backup", 1, 5};
constexpr Kind kRestore{"ldap_restore", 2, 10};

// Reads the operation's result code, the first INTEGER of the response
// value, into *result; on failure *result is left alone.
void decode_backup_restore_result(const struct berval *value, int *result)
{
    if (!value) {
        LDAP_TRACE(TRC_ERROR, "Error - decode_backup_restore_result(): result is NULL\n");
        return;
    }
    zldap::BerOwner ber(fber_init2(value));
    if (!ber) {
        LDAP_TRACE(TRC_ERROR, "Error - decode_backup_restore_result(): fber_init2 failed\n");
        return;
    }
    int code = 0;
    if (fber_scanf(ber.get(), "{i", &code) == LBER_DEFAULT) {
        LDAP_TRACE(TRC_ERROR, "Error - decode_backup_restore_result(): fber_scanf failed\n");
        return;
    }
    LDAP_TRACE(TRC_API, "decode_backup_restore_result(): read operation result code %d\n", code);
    *result = code;
}

// The request value "{e}"; 0, 90 or 80 with the reason traced.
int build_request(const Kind &kind, struct berval **value)
{
    zldap::BerOwner ber(fber_alloc());
    if (!ber) {
        LDAP_TRACE(TRC_ERROR, "Error - %s: fber_alloc() failed\n", kind.name);
        return LDAP_NO_MEMORY;
    }
    LDAP_TRACE(TRC_API, "%s: fber_printf(ber, \"{e}\",%d)\n", kind.name, kind.request);
    if (fber_printf(ber.get(), "{e}", kind.request) != 0) {
        LDAP_TRACE(TRC_ERROR, "%s: fber_printf failed\n", kind.name);
        return LDAP_OTHER;
    }
    if (fber_flatten(ber.get(), value) != 0) {
        LDAP_TRACE(TRC_ERROR, "%s: fber_flatten failed\n", kind.name);
        return LDAP_OTHER;
    }
    return LDAP_SUCCESS;
}

int run(LDAP *ld, const Kind &kind, int *result)
{
    int unwanted = 0;
    if (!result)
        result = &unwanted;
    *result = kind.initial_result;
    struct berval *value = nullptr;
    int rc = build_request(kind, &value);
    if (rc != LDAP_SUCCESS)
        return rc;
    char *name = nullptr;
    struct berval *data = nullptr;
    rc = ldap_extended_operation_s(ld, kBackupRestore, value, nullptr, nullptr, &name, &data);
    if (rc == LDAP_SUCCESS && name && std::strcmp(name, kBackupRestore) == 0)
        decode_backup_restore_result(data, result);
    zldap::mem_free(name);
    ber_bvfree(data);
    ber_bvfree(value);
    return rc;
}

} // namespace

int ldap_backup(LDAP *ld, int *result) { return run(ld, kBackup, result); }

int ldap_restore(LDAP *ld, int *result) { return run(ld, kRestore, result); }
