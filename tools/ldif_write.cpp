// ldif_write.cpp - writing LDIF as ldapsearch writes it: values that are
// not printable ASCII in base64, lines folded at a width or not at all.
#include "ldif.h"

namespace ldif {

namespace {

// Every line, continuations included, is at most width bytes long; a
// continuation starts with one blank.
std::string fold(const std::string &text, size_t width)
{
    if (width < 2 || text.size() <= width)
        return text + "\n";
    std::string out = text.substr(0, width) + "\n";
    for (size_t at = width; at < text.size(); at += width - 1)
        out += " " + text.substr(at, width - 1) + "\n";
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
    // Control characters (a tab too) and DEL would be lost or misread by
    // whatever reads the text next.
    for (unsigned char c : value)
        if (c < 0x20 || c > 0x7E)
            return false;
    return true;
}

std::string line(const std::string &name, const std::string &value, size_t width)
{
    if (value.empty())
        return fold(name + ":", width);
    if (is_safe_string(value))
        return fold(name + ": " + value, width);
    return fold(name + ":: " + base64_encode(value), width);
}

std::string url_line(const std::string &name, const std::string &url, size_t width)
{
    return fold(name + ":< " + url, width);
}

std::string entry(const std::string &dn, const Attributes &attributes, size_t width)
{
    std::string out = line("dn", dn, width);
    for (const auto &[name, values] : attributes) {
        if (values.empty())
            out += line(name, "", width);
        for (const std::string &value : values)
            out += line(name, value, width);
    }
    return out + "\n";
}

} // namespace ldif
