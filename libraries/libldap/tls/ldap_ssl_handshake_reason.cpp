// ldap_ssl_handshake_reason.cpp - why the calling thread's latest secure
// handshake failed. A failed handshake reports 116 as the result and, for
// ldaps connections, as option 51; the toolkit's own reason (an expired or
// untrusted certificate, no common protocol) was only traced. Programs that
// must tell their user why read it here. Handshakes run in the caller's
// thread, so a per-thread value needs no lock and is never another
// thread's.
#include "tls/ldap_ssl_handshake_reason.h"

#include "net/zorlib.h"
#include "zor8ldap_api.h"

namespace {

thread_local int t_handshake_reason = 0;

} // namespace

void note_handshake_reason(int reason) { t_handshake_reason = reason; }

int ldap_ssl_get_handshake_reason(const char **text)
{
    if (text)
        *text = zorErrorText(t_handshake_reason);
    return t_handshake_reason;
}
