// fuzz_server_conf.cpp - arbitrary text as one server line of the
// configuration file.
#include "dns/server_conf.h"
#include "dns/server_list.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    server_info *entry = nullptr;
    zldap::server_conf_parse_line(std::string(reinterpret_cast<const char *>(data), size).c_str(), &entry);
    zldap::server_info_free(entry);
    return 0;
}
