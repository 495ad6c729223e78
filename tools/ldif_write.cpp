// ldif_write.cpp - writing LDIF: safe strings and folded lines.
#include "ldif.h"

namespace ldif {

namespace {

constexpr size_t kLineWidth = 76;

// Continuation lines start with one space.
std::string fold(const std::string &text)
{
    if (text.size() <= kLineWidth)
        return text + "\n";
    std::string out = text.substr(0, kLineWidth) + "\n";
    for (size_t at = kLineWidth; at < text.size(); at += kLineWidth - 1)
        out += " " + text.substr(at, kLineWidth - 1) + "\n";
    return out;
}

} // namespace

bool is_safe_string(const std::string &value)
{
    if (value.empty())
        return true;
    unsigned char first = static_cast<unsigned char>(value.front());
    if (first == ' ' || first == ':' || first == '<' || value.back() == ' ')
        return false;
    for (unsigned char c : value)
        if (c == 0 || c == '\n' || c == '\r' || c > 127)
            return false;
    return true;
}

std::string line(const std::string &name, const std::string &value)
{
    if (is_safe_string(value))
        return fold(name + ": " + value);
    return fold(name + ":: " + base64_encode(value));
}

std::string entry(const std::string &dn, const Attributes &attributes)
{
    std::string out = line("dn", dn);
    for (const auto &[name, values] : attributes)
        for (const std::string &value : values)
            out += line(name, value);
    return out + "\n";
}

} // namespace ldif
