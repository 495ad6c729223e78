// ldap_options.h - session options, the global-defaults record and the
// library version record.
#ifndef ZLDAP_LDAP_OPTIONS_H
#define ZLDAP_LDAP_OPTIONS_H

#include "base/version.h"
#include "core/ldap_session.h"
#include "zor8ldap_api.h"

// Unlocked forms for callers that hold ld_mutex. The set form takes the
// value itself: a pointer for strings, arrays, records and functions, the
// pointer-sized number for integers and on/off values.
int ldap_set_option_direct(LDAP *ld, int option, const void *value);
int ldap_get_option_direct(LDAP *ld, int option, void *outvalue);

// ldap_get_option for a caller already inside the operation guard on ld (a
// real handle, not NULL): the same codes and error, under ld_mutex, without
// entering the guard again.
int ldap_get_option_held(LDAP *ld, int option, void *outvalue);

// The handle's numeric options and its referral switch, for a caller
// inside the operation guard, read without ld_mutex: ldap_set_option
// writes each as a single word, so each read sees an old or a new value.
struct NumericOptions {
    int32_t sizelimit;
    int32_t timelimit;
    int32_t deref;
    int32_t hoplimit;
    bool referrals;
};
NumericOptions ldap_numeric_options(const LDAP *ld);

// Whether the handle has default server controls, tested without ld_mutex
// (the list itself is copied out under it).
bool ldap_has_server_controls(const LDAP *ld);

// The process-wide record that options set or read without a handle use;
// NULL when it cannot be made.
LDAP *ldap_global_defaults();

// The library's version record.
inline constexpr int LDAP_LIBRARY_VERSION = ZLDAP_VERSION_NUMBER;
struct ldap_version_record {
    int32_t sdk_version;      // LDAP_LIBRARY_VERSION
    int32_t protocol_version; // 300
    int32_t ssl_version;      // 300
    int32_t security_level;   // 128
    char build_id[65];
    const char *build_date;   // empty: builds record no date
};
// Fills the record when one is given; returns LDAP_LIBRARY_VERSION.
int ldap_get_version(ldap_version_record *record);

#endif
