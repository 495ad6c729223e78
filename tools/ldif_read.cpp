// ldif_read.cpp - reading LDIF change records: unfolding, base64 values,
// and the add, delete, modify and modrdn forms.
#include "ldif.h"

#include <cctype>
#include <sstream>

namespace ldif {

namespace {

struct Line {
    int number;
    std::string name;
    std::string value;
};

int base64_value(char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    return c == '+' ? 62 : c == '/' ? 63 : -1;
}

std::string trim_left(const std::string &s)
{
    size_t i = 0;
    while (i < s.size() && s[i] == ' ')
        i++;
    return s.substr(i);
}

// Splits the text into records of unfolded "name: value" lines; comments
// and the version line are dropped.
bool split_records(const std::string &text, std::vector<std::vector<Line>> *records, std::string *error)
{
    std::istringstream in(text);
    std::vector<Line> current;
    std::string raw;
    int number = 0;
    std::vector<std::pair<int, std::string>> logical;
    while (std::getline(in, raw)) {
        number++;
        if (!raw.empty() && raw.back() == '\r')
            raw.pop_back();
        if (!raw.empty() && raw.front() == ' ' && !logical.empty() && !logical.back().second.empty()) {
            logical.back().second += raw.substr(1);
            continue;
        }
        logical.emplace_back(number, raw);
    }
    for (const auto &[n, l] : logical) {
        if (l.empty()) {
            if (!current.empty())
                records->push_back(std::move(current));
            current.clear();
            continue;
        }
        if (l.front() == '#')
            continue;
        if (l == "-") {
            current.push_back({n, "-", ""});
            continue;
        }
        size_t colon = l.find(':');
        if (colon == std::string::npos || colon == 0) {
            *error = "line " + std::to_string(n) + ": no attribute name";
            return false;
        }
        Line parsed{n, l.substr(0, colon), ""};
        if (colon + 1 < l.size() && l[colon + 1] == ':') {
            if (!base64_decode(trim_left(l.substr(colon + 2)), &parsed.value)) {
                *error = "line " + std::to_string(n) + ": bad base64 value";
                return false;
            }
        } else {
            parsed.value = trim_left(l.substr(colon + 1));
        }
        if (parsed.name == "version" && records->empty() && current.empty())
            continue;
        current.push_back(std::move(parsed));
    }
    if (!current.empty())
        records->push_back(std::move(current));
    return true;
}

bool parse_record(const std::vector<Line> &lines, ChangeRecord *record, std::string *error)
{
    auto fail = [&](const Line &l, const std::string &what) {
        *error = "line " + std::to_string(l.number) + ": " + what;
        return false;
    };
    if (lines.front().name != "dn")
        return fail(lines.front(), "a record must start with dn:");
    record->dn = lines.front().value;
    size_t i = 1;
    record->changetype = "add";
    if (i < lines.size() && lines[i].name == "changetype")
        record->changetype = lines[i++].value;
    if (record->changetype == "add") {
        for (; i < lines.size(); i++) {
            const Line &l = lines[i];
            if (!record->attributes.empty() && record->attributes.back().first == l.name)
                record->attributes.back().second.push_back(l.value);
            else
                record->attributes.push_back({l.name, {l.value}});
        }
        return !record->attributes.empty() || fail(lines.front(), "an add needs attributes");
    }
    if (record->changetype == "delete")
        return i == lines.size() || fail(lines[i], "a delete takes nothing more");
    if (record->changetype == "modrdn" || record->changetype == "moddn") {
        record->changetype = "modrdn";
        for (; i < lines.size(); i++) {
            if (lines[i].name == "newrdn")
                record->newrdn = lines[i].value;
            else if (lines[i].name == "deleteoldrdn")
                record->deleteoldrdn = lines[i].value == "1";
            else
                return fail(lines[i], "unexpected " + lines[i].name);
        }
        return !record->newrdn.empty() || fail(lines.front(), "modrdn needs newrdn");
    }
    if (record->changetype != "modify")
        return fail(lines[1], "unknown changetype " + record->changetype);
    while (i < lines.size()) {
        const Line &head = lines[i++];
        if (head.name != "add" && head.name != "delete" && head.name != "replace")
            return fail(head, "expected add, delete or replace");
        Modification mod{head.name, head.value, {}};
        for (; i < lines.size() && lines[i].name != "-"; i++) {
            if (lines[i].name != mod.type)
                return fail(lines[i], "value for another attribute than " + mod.type);
            mod.values.push_back(lines[i].value);
        }
        i++; // the "-"
        record->modifications.push_back(std::move(mod));
    }
    return true;
}

} // namespace

bool base64_decode(const std::string &text, std::string *bytes)
{
    bytes->clear();
    unsigned buffer = 0;
    int bits = 0;
    for (char c : text) {
        if (c == '=')
            break;
        if (std::isspace(static_cast<unsigned char>(c)))
            continue;
        int v = base64_value(c);
        if (v < 0)
            return false;
        buffer = (buffer << 6) | static_cast<unsigned>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes->push_back(static_cast<char>((buffer >> bits) & 0xFF));
        }
    }
    return true;
}

bool read_changes(const std::string &text, std::vector<ChangeRecord> *records, std::string *error)
{
    std::vector<std::vector<Line>> raw;
    if (!split_records(text, &raw, error))
        return false;
    for (const auto &lines : raw) {
        ChangeRecord record;
        if (!parse_record(lines, &record, error))
            return false;
        records->push_back(std::move(record));
    }
    return true;
}

} // namespace ldif
