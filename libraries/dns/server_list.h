// server_list.h - lists of server_info records: making and freeing
// records, keeping a list in priority order, and the weighted draw that
// orders the servers of one priority.
#ifndef ZLDAP_SERVER_LIST_H
#define ZLDAP_SERVER_LIST_H

#include "zor8ldap_api.h"

namespace zldap {

// A record with copies of the texts, no suffix, vendor or info, and
// neither replica nor security flag; NULL when memory runs out.
server_info *server_info_new(const char *host, int port, unsigned priority, unsigned weight, const char *service,
                             const char *domain);
// A new record with copies of every field of server but its links; NULL
// when memory runs out.
server_info *server_info_copy(const server_info *server);
// Frees the record and its texts.
void server_info_free(server_info *server);
void server_list_free(server_info *list);

// Puts the record after every record of lower or equal priority.
void server_list_insert(server_info **list, server_info *server);
// Unlinks the record from the list (it is not freed).
void server_list_unlink(server_info **list, server_info *server);
// Moves every record of *from to the end of *to.
void server_list_append(server_info **to, server_info **from);

// Reorders each run of equal priority by a weighted random draw: heavier
// servers tend to come first, servers of weight 0 come last. Each run's
// draws start from seed (the current time in seconds, except in tests).
void server_list_order_by_weight(server_info **list, unsigned seed);

} // namespace zldap

#endif
