// ldif.h - LDIF (RFC 2849) for the command-line tools: writing entries
// with base64 for unsafe values and folded lines, and reading change
// records.
#ifndef ZLDAP_TOOLS_LDIF_H
#define ZLDAP_TOOLS_LDIF_H

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ldif {

using Values = std::vector<std::string>;
using Attributes = std::vector<std::pair<std::string, Values>>;

// Whether a value can be written as it is ("attr: value") rather than in
// base64 ("attr:: ...").
bool is_safe_string(const std::string &value);
std::string base64_encode(const std::string &bytes);
// False for text that is not base64 (characters outside the alphabet,
// misplaced padding, a length no encoder makes). Blanks are skipped.
bool base64_decode(const std::string &text, std::string *bytes);
// The width ldapsearch folds lines at; 0 stands for no folding.
constexpr size_t kDefaultWidth = 78;
constexpr size_t kNoFolding = 0;

// One "name: value" or "name:: base64" line ("name:" for an empty value),
// folded so that no line is longer than width.
std::string line(const std::string &name, const std::string &value, size_t width = kDefaultWidth);
// "name:< url", folded the same way.
std::string url_line(const std::string &name, const std::string &url, size_t width = kDefaultWidth);
// An entry: its dn line and attribute lines (an attribute without values,
// as a search for types only returns them, as "name:"), then a blank line.
std::string entry(const std::string &dn, const Attributes &attributes, size_t width = kDefaultWidth);

struct Modification {
    std::string op; // "add", "delete" or "replace"
    std::string type;
    Values values;
};

struct Control {
    std::string oid;
    bool critical = false;
    std::optional<std::string> value;
};

struct ChangeRecord {
    int line = 0;                 // where its dn line is
    std::string dn;
    std::vector<Control> controls;
    std::string changetype;       // "add", "delete", "modify" or "modrdn"
    Attributes attributes;        // add
    std::vector<Modification> modifications; // modify
    std::string newrdn;           // modrdn
    bool deleteoldrdn = false;    // modrdn
    std::optional<std::string> newsuperior; // modrdn
    int newsuperior_line = 0;
};

// Reads the bytes behind a "file://" URL's path; false when it can't.
using FileReader = std::function<bool(const std::string &path, std::string *bytes)>;

// Reads every change record of an LDIF text; values given as "attr:< URL"
// are read through read_file. A record without a changetype line is an
// add when plain_records_add is set, else a modify (as ldapmodify reads
// it without -a). False with *error set (and the line number in it) when
// the text is malformed or asks for something else than a file URL.
bool read_changes(const std::string &text, const FileReader &read_file, std::vector<ChangeRecord> *records,
                  std::string *error, bool plain_records_add = true);

} // namespace ldif

#endif
