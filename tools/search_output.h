// search_output.h - what zldapsearch prints, in ldapsearch's four styles:
// extended LDIF with comments and result sections (no -L), LDIF version 1
// with comments (-L), without comments (-LL), without the version line
// (-LLL).
#ifndef ZLDAP_TOOLS_SEARCH_OUTPUT_H
#define ZLDAP_TOOLS_SEARCH_OUTPUT_H

#include "ldif.h"

#include <string>
#include <vector>

namespace tool {

// A search's final result as the server sent it.
struct SearchResult {
    int msgid = 0;
    int code = 0;
    std::string matched, text;
};

struct OutputStyle {
    int ldif = 0;                     // the number of -L flags, at most 3
    size_t wrap = ldif::kDefaultWidth;
    int values_to_files = 0;          // -t: 1 non-printable values, 2 (-tt) all
    std::string file_directory = "/tmp"; // -T
};

class SearchOutput {
public:
    explicit SearchOutput(const OutputStyle &style) : style_(style) {}

    // The version line and the comment block before the first search.
    // pattern is true when filter is the -f pattern.
    void Header(const std::string &base, const std::string &scope, const std::string &filter, bool pattern,
                const std::vector<std::string> &attributes);
    // Before each search when -f gives several.
    void FilterLine(const std::string &filter, bool first);
    // False with *error set when a value could not be written to its file.
    bool Entry(const std::string &dn, const ldif::Attributes &attributes, std::string *error);
    void Reference(const std::vector<std::string> &urls);
    // The result section (no -L) or, with -L, the server's texts on stderr
    // for a failure; then the counts of what this search received.
    void Result(const SearchResult &result);
    // The paged-results cookie a page ended with (empty after the last).
    void PageCookie(const std::string &cookie);

private:
    std::string ValueLine(const std::string &name, const std::string &value, std::string *error);

    OutputStyle style_;
    int entries_ = 0, references_ = 0;
};

// The user-friendly form of a DN for the comment above an entry: the
// values only, "dc" components joined by dots ("user001, people,
// example.com"), bytes outside printable ASCII as \XX.
std::string friendly_name(const std::string &dn);

} // namespace tool

#endif
