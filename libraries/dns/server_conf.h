// server_conf.h - the server configuration file, which is also the cache
// of earlier answers: an expiry time, then one server a line. Read afresh
// by every locate call, written only by ldap_server_cache_save.
#ifndef ZLDAP_SERVER_CONF_H
#define ZLDAP_SERVER_CONF_H

#include "dns/ldapdns.h"

namespace zldap {

// One server line ("service domain host [priority [weight [port [replica
// [sec_flag ["suffix" ["vendor" ["info"]]]]]]]]") as a new record. 0, 90,
// or 137 for a line that is not laid out so.
int server_conf_parse_line(const char *line, server_info **entry);

// The servers of the file at path, in file order, into *entries. 0; 90;
// 137 (traced) for a file that can't be opened, has expired or holds a bad
// line, with no entries.
int server_conf_read(const char *path, server_info **entries);

// Copies the entries of service and domain (in any case) whose suffix lies
// under the request's DN filter into q->current, orders them and moves
// them onto q->results. 0, 133 when none matches, or 90.
int server_conf_lookup(DnsQueryState *q, const server_info *entries, const char *service, const char *domain);

} // namespace zldap

#endif
