// fuzz_tool_text.cpp - arbitrary bytes through the tools' filter check and
// their reader of password modify responses: neither crashes nor reads
// outside its input, and a refused filter names a position inside it.
#include "filter_check.h"
#include "passwd_value.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    std::string problem;
    if (tool::filter_problem(text, &problem) > text.size() + 1)
        __builtin_trap();
    std::optional<std::string> generated;
    if (tool::passwd_modify_generated(text, &generated) && generated && generated->size() >= text.size())
        __builtin_trap();
    return 0;
}
