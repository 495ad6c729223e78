// server_list.cpp - server_info records and their doubly linked lists.
#include "dns/server_list.h"

#include "base/memory.h"

#include <utility>

namespace zldap {

server_info *server_info_new(const char *host, int port, unsigned priority, unsigned weight, const char *service,
                             const char *domain)
{
    auto *server = static_cast<server_info *>(mem_calloc(1, sizeof(server_info)));
    if (!server)
        return nullptr;
    server->host = mem_strdup(host);
    server->service = mem_strdup(service);
    server->domain = mem_strdup(domain);
    if (!server->host || !server->service || !server->domain) {
        server_info_free(server);
        return nullptr;
    }
    server->port = port;
    server->priority = static_cast<unsigned short>(priority);
    server->weight = static_cast<unsigned short>(weight);
    return server;
}

server_info *server_info_copy(const server_info *server)
{
    server_info *copy = server_info_new(server->host, server->port, server->priority, server->weight,
                                        server->service, server->domain);
    if (!copy)
        return nullptr;
    copy->replica = server->replica;
    copy->sec_flag = server->sec_flag;
    for (auto [from, to] : {std::pair{server->suffix, &copy->suffix}, std::pair{server->vendor, &copy->vendor},
                            std::pair{server->info, &copy->info}})
        if (from && !(*to = mem_strdup(from))) {
            server_info_free(copy);
            return nullptr;
        }
    return copy;
}

void server_info_free(server_info *server)
{
    if (!server)
        return;
    mem_free(server->host);
    mem_free(server->suffix);
    mem_free(server->service);
    mem_free(server->domain);
    mem_free(server->vendor);
    mem_free(server->info);
    mem_free(server);
}

void server_list_free(server_info *list)
{
    while (list) {
        server_info *next = list->next;
        server_info_free(list);
        list = next;
    }
}

void server_list_insert(server_info **list, server_info *server)
{
    server_info *prev = nullptr;
    server_info *at = *list;
    while (at && at->priority <= server->priority) {
        prev = at;
        at = at->next;
    }
    server->prev = prev;
    server->next = at;
    if (at)
        at->prev = server;
    if (prev)
        prev->next = server;
    else
        *list = server;
}

void server_list_unlink(server_info **list, server_info *server)
{
    if (server->prev)
        server->prev->next = server->next;
    else
        *list = server->next;
    if (server->next)
        server->next->prev = server->prev;
    server->prev = server->next = nullptr;
}

void server_list_append(server_info **to, server_info **from)
{
    if (!*from)
        return;
    server_info *tail = *to;
    while (tail && tail->next)
        tail = tail->next;
    (*from)->prev = tail;
    if (tail)
        tail->next = *from;
    else
        *to = *from;
    *from = nullptr;
}

} // namespace zldap
