// fuzz_ldif.cpp - arbitrary text through the tools' LDIF reader: it never
// crashes, never reads outside its input (strings are bounds-checked in
// this build), and every refusal names its line.
#include "ldif.h"

#include <cstdint>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    // File URLs stand for one fixed file here: the fuzzer must not read
    // the machine's files.
    auto read_file = [](const std::string &path, std::string *bytes) {
        *bytes = path;
        return path.size() % 2 == 0;
    };
    std::vector<ldif::ChangeRecord> records;
    std::string error;
    if (!ldif::read_changes(text, read_file, &records, &error)) {
        if (error.rfind("line ", 0) != 0)
            __builtin_trap();
        return 0;
    }
    for (const ldif::ChangeRecord &r : records)
        if (r.line < 1 || r.changetype.empty())
            __builtin_trap();
    return 0;
}
