// server_locate.h - the files a locate call reads when its request names
// none, and the host list ldap_init asks for when an LDAP URL names no
// host.
#ifndef ZLDAP_SERVER_LOCATE_H
#define ZLDAP_SERVER_LOCATE_H

#include "zor8ldap_api.h"

namespace zldap {

// The built-in request: every text and list left to its default, a
// time-out of 10 seconds.
inline constexpr server_request kDefaultServerRequest = {0, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                        nullptr, 0, 10, nullptr, nullptr};

struct LocateFiles {
    const char *resolv_conf; // name servers and domains: "/etc/resolv.conf"
    const char *server_conf; // the configuration (cache) file: "/etc/ldap_server_info.conf"
    const char *user_info;   // the default enetwork domain: NULL, the user's own file
};

// The files in use, the system's unless a test replaced them.
LocateFiles server_locate_files();
// For tests, which must not depend on the machine's files: replaces the
// files of every later call (NULL members: the system's). Not locked; set
// it while no locate call runs.
void server_locate_use_files(const LocateFiles &files);

// The host list of the servers whose suffix lies under dn (NULL: of any
// server), SSL or plain, found with the library's shared request; NULL when
// none is found.
char *server_locate_hosts(const char *dn, bool ssl);

} // namespace zldap

#endif
