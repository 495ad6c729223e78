// ldapdns.h - the DNS side of server location: which domains and name
// servers to use, a connection to one name server, queries and their
// answers, service records turned into server_info records, each server's
// own text record, and the DN suffix filter. Part of one locate call at a
// time: a DnsQueryState is never shared between threads.
#ifndef ZLDAP_LDAPDNS_H
#define ZLDAP_LDAPDNS_H

#include "zor8ldap_api.h"

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>

namespace zldap {

enum class DnsTransport { Udp, Tcp };

// The state of one locate call.
struct DnsQueryState {
    // Taken from the request.
    int connection_type;
    int connection_timeout;
    const char *dn_filter;
    // The open name server connection, or sd -1.
    int sd;
    DnsTransport transport;
    struct sockaddr_storage server;
    socklen_t server_length;
    // The last message received, and where its answers start.
    uint8_t *buffer;
    size_t length;
    uint16_t next_id; // the id of the next query; the last one sent is next_id - 1
    int rcode;
    int truncated; // truncated answers accepted (not retried over TCP)
    int answer_count;
    size_t answer_offset;
    // The lookup under way.
    const char *domain;
    const char *service;
    const char *protocol;
    char *query_name;
    server_info *current;
    server_info *results; // accumulated over the lookups of the call
};

// Clears the state for a new call (no socket, id 0, empty lists) and takes
// the request's transport, time-out and DN filter.
void dns_state_reset(DnsQueryState *q, const server_request *request);
// Closes the socket and frees the buffer, the query name and both lists.
void dns_state_release(DnsQueryState *q);
void dns_close(DnsQueryState *q);

// The name servers and domains of a call, NULL-terminated lists of owned texts.
struct DnsSearchLists {
    char **name_servers;
    char **domains;
};
// From the request, LOCALDOMAIN, the resolver file at resolv_conf and the
// host name (host_name NULL: the system's). 0, 90 or 136.
int dns_settle_search_lists(const server_request *request, const char *resolv_conf, const char *host_name,
                            DnsSearchLists *lists);
void dns_search_lists_free(DnsSearchLists *lists);

// Opens a socket to the name server ("address" or "address#port").
// 0, 82 or 91.
int dns_connect(DnsQueryState *q, const char *name_server, DnsTransport transport);

// Sends a query of type 255 or 16 for name and receives its answer into
// the state: 0; -1 for a non-zero response code; 134 for a truncated
// answer that is to be asked again over TCP; 135, 91 or 90.
int dns_query(DnsQueryState *q, const char *name, int type);

// Checks the header of the message in the buffer (its id already
// matched) and finds its answers: 0, -1, 134 or 135.
int dns_read_answer_header(DnsQueryState *q);
// Turns the answers into server records in q->current, by priority: SRV
// records, else TXT, else CNAME. 0, 133 when there are none, 135 or 90.
int dns_collect_servers(DnsQueryState *q);
// Applies the key:value strings of the host's text records in the
// buffer to server. 0, 135 or 90.
int dns_apply_host_text(DnsQueryState *q, server_info *server);

// Looks up service.protocol.domain at the name server (connecting first
// when no socket is open) and moves the servers found, each with its
// host information, filtered and ordered, onto q->results. 0, -1, 82,
// 90, 91, 133, 134 or 135.
int dns_lookup_service(DnsQueryState *q, const char *service, const char *protocol, const char *domain,
                       const char *name_server, DnsTransport transport);

// Whether a server with this suffix lies under the DN filter.
bool dns_suffix_matches(const char *filter, const char *suffix);

} // namespace zldap

#endif
