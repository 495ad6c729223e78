// fuzz_conf.cpp - arbitrary bytes as a plug-in configuration file: every
// accepted line becomes a record whose four required fields are there and
// whose fields all lie within the record's own line.
#include "config/conf_file.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

bool InLine(const ldap_conf_record *r, const char *field)
{
    return !field || (field >= r->line && field + std::strlen(field) < r->line + sizeof r->line);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    FILE *file = fmemopen(text.data(), text.size() ? text.size() : 1, "r");
    if (!file)
        return 0;
    ldap_conf_list list{};
    ldap_process_conf_data(file, &list);
    fclose(file);
    for (const ldap_conf_record *r = list.first; r; r = r->next) {
        if (!r->type || !r->subtype || !r->name || !r->library)
            __builtin_trap();
        for (const char *field : {r->type, r->subtype, r->name, r->library, r->init_func, r->args})
            if (!InLine(r, field))
                __builtin_trap();
    }
    ldap_conf_list_clear(&list);
    return 0;
}
