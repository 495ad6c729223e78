// server_order.cpp - the weighted draw within each priority: a server's
// chance to come next is its weight over the weight still left in its
// run, so that load spreads as the weights say.
#include "dns/server_list.h"

#include "base/trace.h"

#include <cstdlib>

namespace zldap {
namespace {

// Draws the records of one run (first .. before end) into *out in order.
void draw_run(server_info **list, server_info *first, server_info *end, unsigned seed, server_info **out)
{
    unsigned short total = 0;
    int count = 0;
    for (server_info *s = first; s != end; s = s->next, count++)
        total = static_cast<unsigned short>(total + s->weight);
    if (count < 2 || total == 0)
        return;
    while (total > 0) {
        float r = static_cast<float>(rand_r(&seed)) * (1.0f / 2147483648.0f);
        float sum = 0;
        server_info *pick = nullptr;
        for (server_info *s = first; s != end && !pick; s = s->next) {
            if (s->weight == 0)
                continue;
            sum += static_cast<float>(s->weight) / total;
            if (r <= sum)
                pick = s;
        }
        if (!pick)
            continue; // rounding left r above the last sum: draw again
        LDAP_TRACE(TRC_API, "ldapdns: loadBalance select: %d %f %d/%d %s\n", pick->priority, static_cast<double>(r),
                   pick->weight, total, pick->host);
        total = static_cast<unsigned short>(total - pick->weight);
        if (pick == first)
            first = first->next;
        server_list_unlink(list, pick);
        server_list_insert(out, pick);
    }
}

} // namespace

void server_list_order_by_weight(server_info **list, unsigned seed)
{
    server_info *ordered = nullptr;
    while (*list) {
        server_info *first = *list;
        server_info *end = first->next;
        while (end && end->priority == first->priority)
            end = end->next;
        draw_run(list, first, end, seed, &ordered);
        // What is left of the run (all of it, or its servers of weight 0)
        // follows in its order.
        while (*list && *list != end) {
            server_info *s = *list;
            server_list_unlink(list, s);
            server_list_insert(&ordered, s);
        }
    }
    *list = ordered;
}

} // namespace zldap
