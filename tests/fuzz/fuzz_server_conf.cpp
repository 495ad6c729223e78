// fuzz_server_conf.cpp - arbitrary text as one server line of the
// configuration file: whatever parses has a host, a service and a domain.
#include "dns/server_conf.h"
#include "dns/server_list.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string line(reinterpret_cast<const char *>(data), size);
    server_info *entry = nullptr;
    if (zldap::server_conf_parse_line(line.c_str(), &entry) == 0 && (!entry || !entry->host || !entry->service))
        __builtin_trap();
    zldap::server_info_free(entry);
    return 0;
}
