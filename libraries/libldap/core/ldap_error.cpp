// ldap_error.cpp - result code texts, password-policy texts and each
// thread's last error on a handle (code, matched DN, text, secure reason).
#include "core/ldap_error.h"

#include "base/fast_tls.h"
#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "core/ldap_init_guard.h"

#include <atomic>
#include <cstdio>

#define LDAP_MODULE "libraries/libldap/ldap_error"

namespace {

struct CodeText {
    int code;
    const char *text;
};

constexpr CodeText kResultTexts[] = {
    {0x00, "Success"},
    {0x01, "Operations error"},
    {0x02, "Protocol error"},
    {0x03, "Timelimit exceeded"},
    {0x04, "Sizelimit exceeded"},
    {0x05, "Compare false"},
    {0x06, "Compare true"},
    {0x07, "Strong authentication not supported"},
    {0x08, "Strong authentication required"},
    {0x09, "Partial results and referral received"},
    {0x0A, "Referral returned"},
    {0x0B, "Administration limit exceeded"},
    {0x0C, "Critical extension not supported"},
    {0x0D, "Confidentiality is required"},
    {0x0E, "SASL Bind in progress"},
    {0x10, "No such attribute"},
    {0x11, "Undefined attribute type"},
    {0x12, "Inappropriate matching"},
    {0x13, "Constraint violation"},
    {0x14, "Type or value exists"},
    {0x15, "Invalid syntax"},
    {0x20, "No such object"},
    {0x21, "Alias problem"},
    {0x22, "Invalid DN syntax"},
    {0x23, "Object is a leaf"},
    {0x24, "Alias dereferencing problem"},
    {0x30, "Inappropriate authentication"},
    {0x31, "Invalid credentials"},
    {0x32, "Insufficient access"},
    {0x33, "DSA is busy"},
    {0x34, "DSA is unavailable"},
    {0x35, "DSA is unwilling to perform"},
    {0x36, "Loop detected"},
    {0x3C, "Sort control missing"},
    {0x3D, "Index range error"},
    {0x40, "Naming violation"},
    {0x41, "Object class violation"},
    {0x42, "Operation not allowed on nonleaf"},
    {0x43, "Operation not allowed on RDN"},
    {0x44, "Already exists"},
    {0x45, "Cannot modify object class"},
    {0x46, "Results too large"},
    {0x47, "Affects multiple DSAS"},
    {0x50, "Unknown error"},
    {0x51, "Can't contact LDAP server"},
    {0x52, "Local error"},
    {0x53, "Encoding error"},
    {0x54, "Decoding error"},
    {0x55, "Timed out"},
    {0x56, "Unknown authentication method"},
    {0x57, "Bad search filter"},
    {0x58, "User cancelled operation"},
    {0x59, "Bad parameter to an ldap routine"},
    {0x5A, "Out of memory"},
    {0x5B, "Connection error"},
    {0x5C, "Not Supported"},
    {0x5D, "Control not found"},
    {0x5E, "No results returned"},
    {0x5F, "More result to return"},
    {0x60, "URL doesn't begin with ldap://"},
    {0x61, "URL has no DN (required)"},
    {0x62, "URL scope string is invalid"},
    {0x63, "can't allocate memory space"},
    {0x64, "Client loop"},
    {0x65, "Referral limit exceeded"},
    {0x70, "ldap_ssl_client_init successfully called previously in this process."},
    {0x71, "SSL initialization call failed"},
    {0x72, "Call ldap_ssl_client_init before attempting to use an ssl connection"},
    {0x73, "An invalid ssl parameter was previously specified."},
    {0x74, "Failed to connect to ssl server."},
    {0x75, "Failed to identify the maximum SSL encryption level for this host."},
    {0x76, "The SSL library cannot be loaded."},
    {0x77, "SSL Keyring file not found"},
    {0x78, "SSL password not specified"},
    {0x7A, "The assertion filter evalues to false or undefined"},
    {0x80, "No explicit owner found"},
    {0x81, "Could not obtain lock"},
    {0x85, "LDAP servers found"},
    {0x86, "Truncated DNS results"},
    {0x87, "Invalid DNS data"},
    {0x88, "Can't resolve system domain or nameserver"},
    {0x89, "DNS Configuration file error"},
    {0xA0, "Output buffer overflow"},
    {0xA1, "Input buffer truncated"},
    {0xA2, "Unusable input character"},
    {0xA3, "No codeset point to map to"},
    {0xB0, "NT Registry file not found"},
    {0xB1, "Cannot open NT Registry"},
    {0xB2, "Cannot find NT Registry entry"},
    {0xC0, "Plugin configuration file not opened"},
    {0xC1, "Plugin library not loaded"},
    {0xC2, "Plugin function not resolved"},
    {0xC3, "Plugin library not initialized"},
    {0xC4, "Plugin function could not bind"},
    {0xD0, "gss_init_sec_context failed"},
};

// The two texts with %ld are formats for the caller's number.
constexpr CodeText kPasswordPolicyTexts[] = {
    {0, "Success"},
    {1, "Warning, time before expiration is %ld"},
    {2, "Warning, %ld grace logins remain"},
    {3, "Error, Password has expired"},
    {4, "Error, Account is locked"},
    {5, "Error, Password must be changed after reset"},
    {6, "Error, Password may not be modified"},
    {7, "Error, Must supply old password"},
    {8, "Error, Invalid password syntax"},
    {9, "Error, Password too short"},
    {10, "Error, Password too young"},
    {11, "Error, Password in History"},
};

template <size_t N> char *lookup_text(const CodeText (&table)[N], int code)
{
    for (const CodeText &entry : table)
        if (entry.code == code)
            return const_cast<char *>(entry.text);
    return const_cast<char *>("Unknown error");
}

// Caller holds ld_error_mutex.
ldap_error_record *find_record(LDAP *ld)
{
    pthread_t self = pthread_self();
    for (ldap_error_record *r = ld->ld_errors; r; r = r->next)
        if (pthread_equal(r->thread, self))
            return r;
    return nullptr;
}

// Each thread remembers its record on the handle it used last, so that the
// hot path neither walks the list nor takes ld_error_mutex. A record is
// only ever touched by its own thread until the handle is released, and
// records are added but never removed before that; the cache is valid
// while no handle has been released since it was filled (g_release_epoch),
// which also covers a new handle allocated at a released one's address.
std::atomic<uint64_t> g_release_epoch{0};

struct CachedRecord {
    const LDAP *ld;
    uint64_t epoch;
    ldap_error_record *record; // NULL: this thread has none on ld
};
ZLDAP_FAST_TLS thread_local CachedRecord t_cached{nullptr, 0, nullptr};

inline bool cached(const LDAP *ld, ldap_error_record **record)
{
    if (t_cached.ld != ld || t_cached.epoch != g_release_epoch.load(std::memory_order_acquire))
        return false;
    *record = t_cached.record;
    return true;
}

// The calling thread's record, or NULL when it has none; false when the
// lock cannot be taken.
bool lookup_record(LDAP *ld, ldap_error_record **record)
{
    if (cached(ld, record))
        return true;
    uint64_t epoch = g_release_epoch.load(std::memory_order_acquire);
    LDAP_MUTEX_GUARD(guard, &ld->ld_error_mutex);
    if (!guard.locked())
        return false;
    *record = find_record(ld);
    t_cached = {ld, epoch, *record};
    return true;
}

// The calling thread's record, made when it has none; NULL when memory
// runs out or the lock cannot be taken (*code says which).
ldap_error_record *record_for_update(LDAP *ld, int *code)
{
    ldap_error_record *r = nullptr;
    if (cached(ld, &r) && r)
        return r;
    uint64_t epoch = g_release_epoch.load(std::memory_order_acquire);
    LDAP_MUTEX_GUARD(guard, &ld->ld_error_mutex);
    if (!guard.locked()) {
        *code = LDAP_LOCK_ERROR;
        return nullptr;
    }
    r = find_record(ld);
    if (!r) {
        r = static_cast<ldap_error_record *>(zldap::mem_calloc(1, sizeof *r));
        if (!r) {
            *code = LDAP_NO_MEMORY;
            return nullptr;
        }
        r->thread = pthread_self();
        r->next = ld->ld_errors;
        ld->ld_errors = r;
    }
    t_cached = {ld, epoch, r};
    return r;
}

char g_empty_text[1];

void release_text(char *text)
{
    if (text != g_empty_text)
        zldap::mem_free(text);
}

// Copies an optional text; false only when a present text could not be copied.
bool copy_optional(const char *text, char **out)
{
    *out = text ? zldap::mem_strdup(text) : nullptr;
    return !text || *out;
}

// Makes the texts (allocated through the seam, or NULL) and the code the
// thread's error; the texts are freed when no record can be had.
int store_error(LDAP *ld, int code, char *matched, char *text)
{
    int rc = LDAP_NO_MEMORY;
    ldap_error_record *r = record_for_update(ld, &rc);
    if (!r) {
        release_text(matched);
        release_text(text);
        return rc;
    }
    release_text(r->ld_matched);
    release_text(r->ld_error);
    r->ld_matched = matched;
    r->ld_error = text;
    r->ld_errno = code;
    return LDAP_SUCCESS;
}

} // namespace

char *ldap_err2string(int err)
{
    LDAP_TRACE(TRC_API, "ldap_err2string: err(%d)\n", err);
    return lookup_text(kResultTexts, err);
}

char *ldap_pwdpolicy_err2string(int err)
{
    LDAP_TRACE(TRC_API, "ldap_pwdpolicy_err2string\n");
    return lookup_text(kPasswordPolicyTexts, err);
}

namespace {

// All but the usual case of ldap_set_error_direct, out of line so that the
// usual case saves no registers.
__attribute__((noinline)) int set_error_slowly(LDAP *ld, int code, const char *matched, const char *text)
{
    ldap_error_record *r = nullptr;
    if (!matched && !text && cached(ld, &r) && r) {
        release_text(r->ld_matched);
        release_text(r->ld_error);
        r->ld_matched = r->ld_error = nullptr;
        r->ld_errno = code;
        return LDAP_SUCCESS;
    }
    if (code == LDAP_SUCCESS && !matched && !text) {
        if (!lookup_record(ld, &r))
            return LDAP_LOCK_ERROR;
        if (!r)
            return LDAP_SUCCESS;
    }
    char *matched_copy = nullptr;
    char *text_copy = nullptr;
    if (copy_optional(matched, &matched_copy) && copy_optional(text, &text_copy))
        return store_error(ld, code, matched_copy, text_copy);
    zldap::mem_free(matched_copy);
    zldap::mem_free(text_copy);
    return LDAP_NO_MEMORY;
}

} // namespace

int ldap_set_error_direct(LDAP *ld, int code, const char *matched, const char *text)
{
    if (!ld)
        return LDAP_PARAM_ERROR;
    // The usual case: a code without texts for a thread that is known, most
    // often a success on top of a success. A thread without a record reads
    // as success with no texts, so a plain success needs no record.
    ldap_error_record *r;
    if (!matched && !text && cached(ld, &r) &&
        (r ? !r->ld_matched && !r->ld_error : code == LDAP_SUCCESS)) {
        if (r)
            r->ld_errno = code;
        return LDAP_SUCCESS;
    }
    return set_error_slowly(ld, code, matched, text);
}

int ldap_set_error_taking(LDAP *ld, int code, char *matched, char *text)
{
    if (!ld || (!matched && !text)) {
        release_text(matched);
        release_text(text);
        return ldap_set_error_direct(ld, code, nullptr, nullptr);
    }
    return store_error(ld, code, matched, text);
}

char *ldap_empty_text() { return g_empty_text; }

int ldap_fail(LDAP *ld, int code)
{
    ldap_set_error_direct(ld, code, nullptr, nullptr);
    return code;
}

int ldap_set_ext_error_direct(LDAP *ld, int reason)
{
    if (!ld)
        return LDAP_PARAM_ERROR;
    ldap_error_record *r = nullptr;
    if (!lookup_record(ld, &r))
        return LDAP_LOCK_ERROR;
    if (reason == 0 && !r)
        return LDAP_SUCCESS;
    int rc = LDAP_NO_MEMORY;
    if (!r && !(r = record_for_update(ld, &rc)))
        return rc;
    r->ld_ext_error = reason;
    return LDAP_SUCCESS;
}

int ldap_get_errno_direct(LDAP *ld)
{
    if (!ld)
        return LDAP_PARAM_ERROR;
    ldap_error_record *r = nullptr;
    if (!lookup_record(ld, &r))
        return LDAP_LOCK_ERROR;
    return r ? r->ld_errno : LDAP_SUCCESS;
}

int ldap_get_ext_error_direct(LDAP *ld)
{
    if (!ld)
        return LDAP_PARAM_ERROR;
    ldap_error_record *r = nullptr;
    if (!lookup_record(ld, &r))
        return LDAP_LOCK_ERROR;
    return r ? r->ld_ext_error : 0;
}

int ldap_get_error_direct(LDAP *ld, char **matched, char **text)
{
    if (matched)
        *matched = nullptr;
    if (text)
        *text = nullptr;
    if (!ld)
        return LDAP_PARAM_ERROR;
    ldap_error_record *r = nullptr;
    if (!lookup_record(ld, &r))
        return LDAP_LOCK_ERROR;
    if (!r)
        return LDAP_SUCCESS;
    // A copy that cannot be made reads as absent; the code still comes back.
    if (matched && r->ld_matched)
        *matched = zldap::mem_strdup(r->ld_matched);
    if (text && r->ld_error)
        *text = zldap::mem_strdup(r->ld_error);
    return r->ld_errno;
}

int ldap_get_errno(LDAP *ld)
{
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return -1;
    return ldap_get_errno_direct(ld);
}

int ldap_get_ext_error(LDAP *ld)
{
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return -1;
    return ldap_get_ext_error_direct(ld);
}

int ldap_get_error(LDAP *ld, char **matched, char **text)
{
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return -1;
    return ldap_get_error_direct(ld, matched, text);
}

int ldap_set_error(LDAP *ld, int code, const char *matched, const char *text)
{
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return -1;
    return ldap_set_error_direct(ld, code, matched, text);
}

void ldap_perror(LDAP *ld, const char *prefix)
{
    zldap::OperationGuard op(ld, zldap::OnEntry::keep_error);
    if (!op.admitted())
        return;
    char *matched = nullptr;
    char *text = nullptr;
    int code = ldap_get_error_direct(ld, &matched, &text);
    const char *p = prefix ? prefix : "";
    std::fprintf(stderr, "%s: %s\n", p, ldap_err2string(code));
    if (matched && *matched)
        std::fprintf(stderr, "%s: matched: %s\n", p, matched);
    if (text && *text)
        std::fprintf(stderr, "%s: additional info: %s\n", p, text);
    zldap::mem_free(matched);
    zldap::mem_free(text);
    std::fflush(stderr);
}

void ldap_free_error_records(LDAP *ld)
{
    // Every thread's cached record on any handle is looked up afresh from now on.
    g_release_epoch.fetch_add(1, std::memory_order_acq_rel);
    ldap_error_record *r = ld->ld_errors;
    while (r) {
        ldap_error_record *next = r->next;
        release_text(r->ld_matched);
        release_text(r->ld_error);
        zldap::mem_free(r);
        r = next;
    }
    ld->ld_errors = nullptr;
}
