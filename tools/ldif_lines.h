// ldif_lines.h - the line level of the LDIF reader: unfolding, comments,
// the version line, "name: value" lines with their three value forms, and
// the file URLs behind "name:< URL".
#ifndef ZLDAP_TOOLS_LDIF_LINES_H
#define ZLDAP_TOOLS_LDIF_LINES_H

#include "ldif.h"

#include <string>
#include <vector>

namespace ldif::lines {

struct Line {
    enum class Form { kSeparator, kText, kBase64, kUrl };
    int number = 0;
    std::string name;
    Form form = Form::kText;
    std::string value; // the bytes for text and base64, the URL for kUrl
};

// "line N: what", the form of every error the reader reports.
std::string at(int number, const std::string &what);
bool equal_ignoring_case(const std::string &a, const char *b);
// An attribute type (name or numeric OID) with options: "cn;lang-en".
bool is_attribute_description(const std::string &name);
bool is_numeric_oid(const std::string &text);
// Reads the value part that follows a name's colon (":: base64",
// ":< URL" or ": text", without the first colon) into line.
bool parse_line_value(const std::string &rest, Line *line, std::string *error);
// The bytes a line's value stands for; a URL is read through read_file.
bool value_bytes(const Line &line, const FileReader &read_file, std::string *bytes, std::string *error);
// Splits an LDIF text into records (runs of lines between blank lines),
// unfolded, without comments and without a leading "version: 1".
bool split_records(const std::string &text, std::vector<std::vector<Line>> *records, std::string *error);

} // namespace ldif::lines

#endif
