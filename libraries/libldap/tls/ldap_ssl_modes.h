// ldap_ssl_modes.h - the process-wide FIPS, Suite B and signature-algorithm
// switches, and their settings on an environment being prepared.
#ifndef ZLDAP_LDAP_SSL_MODES_H
#define ZLDAP_LDAP_SSL_MODES_H

#include "net/zorlib.h"

#include <atomic>
#include <cstdint>

// Set without a lock by their public setters, read when an environment is
// prepared: 0 or 1, and 0, 128 or 192.
extern std::atomic<int32_t> g_SSL_FIPS_mode;
extern std::atomic<int32_t> g_SSL_SuiteB_mode;

// Sets the Suite B attributes for the current mode on env; 0, or the
// toolkit's code of the setting that failed (a failed level switch also
// turns Suite B off).
int setSuiteBMode(zor_handle env);
// Sets the signature-algorithm extension on env when one is set; a failure
// is only traced. The caller holds ldap_ssl_mutex.
void setExtnSigalg(zor_handle env);

#endif
