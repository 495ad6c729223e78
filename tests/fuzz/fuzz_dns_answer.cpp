// fuzz_dns_answer.cpp - whole DNS messages through the answer reader: the
// header checks, the server records of SRV, TXT and CNAME answers, and
// each server's host strings, once as if asked over UDP with TCP to follow
// and once with truncation accepted. The message lies in a block of
// exactly its size, so any read past its end is caught.
#include "dns/ldapdns.h"

#include "base/memory.h"

#include <cstdint>
#include <cstring>
#include <initializer_list>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    for (int connection_type : {0, 1}) {
        server_request request{};
        request.connection_type = connection_type;
        zldap::DnsQueryState q;
        zldap::dns_state_reset(&q, &request);
        q.buffer = static_cast<uint8_t *>(zldap::mem_malloc(size));
        if (!q.buffer)
            return 0;
        if (size > 0)
            std::memcpy(q.buffer, data, size);
        q.length = size;
        q.service = "ldap";
        q.domain = "example.com";
        if (zldap::dns_read_answer_header(&q) == 0 && zldap::dns_collect_servers(&q) == 0)
            for (server_info *s = q.current; s; s = s->next)
                if (zldap::dns_apply_host_text(&q, s) == 0 && !s->host)
                    __builtin_trap(); // a server always keeps a host
        zldap::dns_state_release(&q);
    }
    return 0;
}
