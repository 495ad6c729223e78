// ldif_lines.cpp - the line level of the LDIF reader: logical lines, the
// three value forms and file URLs.
#include "ldif_lines.h"

#include <cctype>

namespace ldif::lines {

namespace {

bool is_alpha(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_keychar(char c) { return is_alpha(c) || is_digit(c) || c == '-'; }

std::string trim_left(const std::string &s)
{
    size_t i = s.find_first_not_of(' ');
    return i == std::string::npos ? std::string() : s.substr(i);
}

int hex_value(char c)
{
    if (is_digit(c))
        return c - '0';
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// The path of a "file://" URL, percent-decoded; false for anything else,
// including other hosts than this machine and an encoded NUL.
bool file_url_path(const std::string &url, std::string *path)
{
    const std::string scheme = "file://";
    if (url.size() < scheme.size() || !equal_ignoring_case(url.substr(0, scheme.size()), scheme.c_str()))
        return false;
    std::string rest = url.substr(scheme.size());
    size_t slash = rest.find('/');
    if (slash == std::string::npos)
        return false;
    std::string authority = rest.substr(0, slash);
    if (!authority.empty() && !equal_ignoring_case(authority, "localhost"))
        return false;
    path->clear();
    for (size_t i = slash; i < rest.size(); i++) {
        char c = rest[i];
        if (c == '?' || c == '#')
            return false;
        if (c != '%') {
            path->push_back(c);
            continue;
        }
        int high = i + 2 < rest.size() ? hex_value(rest[i + 1]) : -1;
        int low = high >= 0 ? hex_value(rest[i + 2]) : -1;
        if (low < 0 || (high == 0 && low == 0))
            return false;
        path->push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return true;
}

bool parse_line(int number, const std::string &text, Line *line, std::string *error)
{
    line->number = number;
    if (text == "-") {
        line->form = Line::Form::kSeparator;
        line->name = "-";
        return true;
    }
    size_t colon = text.find(':');
    if (colon == std::string::npos) {
        *error = at(number, "expected \"name: value\"");
        return false;
    }
    line->name = text.substr(0, colon);
    if (!is_attribute_description(line->name)) {
        *error = at(number, "bad attribute name \"" + line->name + "\"");
        return false;
    }
    return parse_line_value(text.substr(colon + 1), line, error);
}

// Joins continuation lines (a leading blank) to the line they continue.
bool unfold(const std::string &text, std::vector<std::pair<int, std::string>> *logical, std::string *error)
{
    int number = 0;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        std::string raw = text.substr(start, end - start);
        start = end + 1;
        number++;
        if (!raw.empty() && raw.back() == '\r')
            raw.pop_back();
        if (!raw.empty() && raw.front() == ' ') {
            if (logical->empty() || logical->back().second.empty()) {
                *error = at(number, "a continuation line (starting with a blank) with no line to continue");
                return false;
            }
            logical->back().second += raw.substr(1);
            continue;
        }
        logical->emplace_back(number, raw);
    }
    return true;
}

} // namespace

std::string at(int number, const std::string &what) { return "line " + std::to_string(number) + ": " + what; }

bool equal_ignoring_case(const std::string &a, const char *b)
{
    size_t i = 0;
    for (; i < a.size() && b[i]; i++)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return i == a.size() && !b[i];
}

bool is_numeric_oid(const std::string &text)
{
    bool digit_before = false;
    for (char c : text) {
        if (c == '.' && digit_before)
            digit_before = false;
        else if (is_digit(c))
            digit_before = true;
        else
            return false;
    }
    return digit_before;
}

bool is_attribute_description(const std::string &name)
{
    size_t semicolon = name.find(';');
    std::string type = name.substr(0, semicolon);
    bool keystring = !type.empty() && is_alpha(type[0]);
    for (char c : type)
        keystring = keystring && is_keychar(c);
    if (!keystring && !is_numeric_oid(type))
        return false;
    while (semicolon != std::string::npos) {
        size_t next = name.find(';', semicolon + 1);
        std::string option = name.substr(semicolon + 1, next == std::string::npos ? next : next - semicolon - 1);
        if (option.empty())
            return false;
        for (char c : option)
            if (!is_keychar(c))
                return false;
        semicolon = next;
    }
    return true;
}

bool parse_line_value(const std::string &rest, Line *line, std::string *error)
{
    if (!rest.empty() && rest[0] == ':') {
        line->form = Line::Form::kBase64;
        if (base64_decode(trim_left(rest.substr(1)), &line->value))
            return true;
        *error = at(line->number, "bad base64 value");
        return false;
    }
    if (!rest.empty() && rest[0] == '<') {
        line->form = Line::Form::kUrl;
        line->value = trim_left(rest.substr(1));
        return true;
    }
    line->form = Line::Form::kText;
    line->value = trim_left(rest);
    // Such a value is neither a base64 value nor a URL as written; storing
    // it as text would store something the writer most likely didn't mean.
    if (!line->value.empty() && (line->value[0] == ':' || line->value[0] == '<')) {
        *error = at(line->number, "a value starting with ':' or '<' must be given in base64 (\"::\"), "
                                  "a file URL is written \":< file:///path\"");
        return false;
    }
    return true;
}

bool value_bytes(const Line &line, const FileReader &read_file, std::string *bytes, std::string *error)
{
    if (line.form != Line::Form::kUrl) {
        *bytes = line.value;
        return true;
    }
    std::string path;
    if (!file_url_path(line.value, &path)) {
        *error = at(line.number, "only file:// URLs of this machine can be read, not \"" + line.value + "\"");
        return false;
    }
    if (!read_file(path, bytes)) {
        *error = at(line.number, "cannot read " + path);
        return false;
    }
    return true;
}

bool split_records(const std::string &text, std::vector<std::vector<Line>> *records, std::string *error)
{
    std::vector<std::pair<int, std::string>> logical;
    if (!unfold(text, &logical, error))
        return false;
    std::vector<Line> current;
    bool first_line = true;
    for (const auto &[number, l] : logical) {
        if (l.empty()) {
            if (!current.empty())
                records->push_back(std::move(current));
            current.clear();
            continue;
        }
        if (l.front() == '#')
            continue;
        Line parsed;
        if (!parse_line(number, l, &parsed, error))
            return false;
        bool version = first_line && equal_ignoring_case(parsed.name, "version");
        first_line = false;
        if (!version) {
            current.push_back(std::move(parsed));
            continue;
        }
        if (parsed.form != Line::Form::kText || parsed.value != "1") {
            *error = at(number, "only LDIF version 1 can be read");
            return false;
        }
    }
    if (!current.empty())
        records->push_back(std::move(current));
    return true;
}

} // namespace ldif::lines
