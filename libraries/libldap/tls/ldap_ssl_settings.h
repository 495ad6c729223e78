// ldap_ssl_settings.h - what both secure set-ups (a new ldaps connection and
// StartTLS on an open plain one) put on a fresh secure socket: the secure
// record, the toolkit generation, the cipher lists and the protocol
// switches named by the session. Each set-up traces these steps in its own
// words, so the trace texts come from the caller.
#ifndef ZLDAP_LDAP_SSL_SETTINGS_H
#define ZLDAP_LDAP_SSL_SETTINGS_H

#include "core/ldap_session.h"
#include "net/zorlib.h"

// The toolkit generation whose protocol and cipher handling is the older one.
inline constexpr int kLegacyToolkit = 7;

// ZORLIB_CLIENT_VERSION as a decimal, 8 when unset.
int zor_toolkit_version();

// A socket buffer's secure record with its lock; NULL when memory runs out.
zor_secure_record *new_secure_record();
void free_secure_record(zor_secure_record *rec);

// Opens a secure socket in the session's environment and gives it to the
// socket buffer, whose bytes read ahead in clear are dropped: they are no
// part of the secure stream. 0, 90, or 114 when the toolkit refuses, traced
// as `trace_prefix` followed by the toolkit call and its code.
int open_secure_socket(LDAP *ld, Sockbuf *sb, const char *trace_prefix);

// The traces of the cipher list steps: `done` texts take the list and the
// code, `failed` texts the code and its text. tls12_announce (may be NULL)
// takes the TLS 1.2 list before it is set.
struct CipherListTraces {
    const char *v3_done, *v3_failed;
    const char *tls10_done, *tls10_failed;
    const char *tls11_done, *tls11_empty, *tls11_failed;
    const char *tls12_announce, *tls12_done, *tls12_failed;
};

// Sets the session's cipher lists on soc: SSL V3 (when v3_list), TLS 1.0
// and the filtered TLS 1.1 list from ld_ssl_cipher, TLS 1.2 from
// ld_ssl_cipher_EX; the legacy toolkit gets neither of the last two. 0 or
// 115.
int set_cipher_lists(LDAP *ld, zor_handle soc, int version, bool v3_list, const CipherListTraces &traces);

// One protocol switch; `done` is traced as it is. 0 or 115.
int set_protocol_switch(zor_handle soc, int id, int value, const char *done, const char *failed);

// Switches SSL V3, TLS 1.0, 1.1 and 1.2 on or off by whether the session's
// protocol text names them, tracing "<prefix>protocol to [NAME]" (and
// " OFF"). 0 or 115.
int set_named_protocols(zor_handle soc, const char *protocols, const char *prefix);

#endif
