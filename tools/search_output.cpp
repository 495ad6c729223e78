// search_output.cpp - zldapsearch's output, byte for byte as ldapsearch
// writes it in each -L style.
#include "search_output.h"

#include "zor8ldap.h"

#include <cstdio>
#include <cstdlib>
#include <strings.h>
#include <unistd.h>

namespace tool {

namespace {

void put(const std::string &text) { std::fwrite(text.data(), 1, text.size(), stdout); }

// One RDN's value without its type, and whether the type is dc.
std::string rdn_value(const std::string &rdn, bool *dc)
{
    size_t equals = rdn.find('=');
    *dc = equals == 2 && strncasecmp(rdn.c_str(), "dc", 2) == 0;
    return equals == std::string::npos ? rdn : rdn.substr(equals + 1);
}

} // namespace

std::string friendly_name(const std::string &dn)
{
    std::string out;
    bool previous_dc = false;
    size_t start = 0;
    for (size_t i = 0; i <= dn.size(); i++) {
        if (i < dn.size() && dn[i] == '\\') {
            i++;
            continue;
        }
        if (i < dn.size() && dn[i] != ',')
            continue;
        bool dc = false;
        std::string value = rdn_value(dn.substr(start, i - start), &dc);
        out += out.empty() ? "" : dc && previous_dc ? "." : ", ";
        for (unsigned char c : value) {
            char hex[4];
            std::snprintf(hex, sizeof hex, "\\%02X", c);
            out += c < 0x20 || c > 0x7E ? std::string(hex) : std::string(1, static_cast<char>(c));
        }
        previous_dc = dc;
        start = i + 1;
    }
    return out;
}

void SearchOutput::Header(const std::string &base, const std::string &scope, const std::string &filter,
                          bool pattern, const std::vector<std::string> &attributes)
{
    if (style_.ldif == 1 || style_.ldif == 2)
        put("version: 1\n\n");
    if (style_.ldif > 1)
        return;
    std::string requesting;
    for (const std::string &a : attributes)
        requesting += a + " ";
    put(std::string(style_.ldif == 0 ? "# extended LDIF\n" : "") + "#\n# LDAPv3\n# base <" + base +
        "> with scope " + scope + "\n# filter" + (pattern ? " pattern" : "") + ": " + filter +
        "\n# requesting: " + (requesting.empty() ? "ALL" : requesting) + "\n#\n\n");
}

void SearchOutput::FilterLine(const std::string &filter, bool first)
{
    if (!first)
        put("\n");
    if (style_.ldif < 2)
        put("#\n# filter: " + filter + "\n#\n");
}

std::string SearchOutput::ValueLine(const std::string &name, const std::string &value, std::string *error)
{
    bool to_file = style_.values_to_files > 1 || (style_.values_to_files == 1 && !ldif::is_safe_string(value));
    if (!to_file)
        return ldif::line(name, value, style_.wrap);
    std::string path = style_.file_directory + "/zldapsearch-" + name + "-XXXXXX";
    int fd = mkstemp(path.data());
    bool written = fd >= 0 && write(fd, value.data(), value.size()) == static_cast<ssize_t>(value.size());
    if (fd >= 0)
        close(fd);
    if (!written)
        *error = "cannot write a value to " + path;
    return ldif::url_line(name, "file://" + path, style_.wrap);
}

bool SearchOutput::Entry(const std::string &dn, const ldif::Attributes &attributes, std::string *error)
{
    entries_++;
    std::string out = style_.ldif < 2 ? "# " + friendly_name(dn) + "\n" : "";
    out += ldif::line("dn", dn, style_.wrap);
    for (const auto &[name, values] : attributes) {
        if (values.empty())
            out += ldif::line(name, "", style_.wrap);
        for (const std::string &value : values)
            out += ValueLine(name, value, error);
    }
    put(out + "\n");
    return error->empty();
}

void SearchOutput::Reference(const std::vector<std::string> &urls)
{
    references_++;
    std::string out = style_.ldif < 2 ? "# search reference\n" : "";
    for (const std::string &url : urls)
        out += ldif::line("ref", url, style_.wrap);
    put(out + "\n");
}

void SearchOutput::Result(const SearchResult &result)
{
    std::string out = style_.ldif < 2 ? "# search result\n" : "";
    if (style_.ldif == 0) {
        out += "search: " + std::to_string(result.msgid) + "\nresult: " + std::to_string(result.code) + " " +
               zor_ldap_err2string(result.code) + "\n";
        if (!result.matched.empty())
            out += ldif::line("matchedDN", result.matched, style_.wrap);
        if (!result.text.empty())
            out += ldif::line("text", result.text, style_.wrap);
    } else if (result.code != LDAP_SUCCESS) {
        std::fflush(stdout);
        std::fprintf(stderr, "%s (%d)\n", zor_ldap_err2string(result.code), result.code);
        if (!result.matched.empty())
            std::fprintf(stderr, "Matched DN: %s\n", result.matched.c_str());
        if (!result.text.empty())
            std::fprintf(stderr, "Additional information: %s\n", result.text.c_str());
    }
    if (style_.ldif < 2) {
        out += "\n# numResponses: " + std::to_string(entries_ + references_ + 1) + "\n";
        if (entries_ > 0)
            out += "# numEntries: " + std::to_string(entries_) + "\n";
        if (references_ > 0)
            out += "# numReferences: " + std::to_string(references_) + "\n";
    }
    put(out);
    entries_ = references_ = 0;
}

void SearchOutput::PageCookie(const std::string &cookie)
{
    put("# pagedresults: cookie=" + ldif::base64_encode(cookie) + "\n");
}

} // namespace tool
