// ldif_read.cpp - reading LDIF change records: the dn, control and
// changetype lines, and the add, delete, modify and modrdn bodies. Keywords
// are matched without regard to case, as RFC 2849's grammar has them.
#include "ldif_lines.h"

#include <algorithm>

namespace ldif {

namespace {

using lines::equal_ignoring_case;
using lines::Line;

// Reads one record's lines; every refusal names the line it is about.
class RecordReader {
public:
    RecordReader(const std::vector<Line> &lines, const FileReader &read_file, bool plain_records_add,
                 std::string *error)
        : lines_(lines), read_file_(read_file), plain_records_add_(plain_records_add), error_(*error)
    {
    }

    bool Read(ChangeRecord *record)
    {
        const Line &dn = lines_.front();
        record->line = dn.number;
        if (!equal_ignoring_case(dn.name, "dn"))
            return Fail(dn, "a record must start with dn:");
        if (!Text(dn, &record->dn))
            return false;
        for (; next_ < lines_.size() && equal_ignoring_case(lines_[next_].name, "control"); next_++) {
            if (!ReadControl(lines_[next_], &record->controls.emplace_back()))
                return false;
        }
        if (next_ == lines_.size() || !equal_ignoring_case(lines_[next_].name, "changetype")) {
            record->changetype = plain_records_add_ ? "add" : "modify";
            implicit_modify_ = !plain_records_add_;
            if (!record->controls.empty())
                return Fail(lines_[next_ - 1], "control lines must be followed by a changetype line");
            return plain_records_add_ ? ReadAdd(record) : ReadModify(record);
        }
        const Line &type = lines_[next_++];
        for (const char *known : {"add", "delete", "modify", "modrdn", "moddn"})
            if (type.form == Line::Form::kText && equal_ignoring_case(type.value, known))
                record->changetype = known;
        if (record->changetype == "add")
            return ReadAdd(record);
        if (record->changetype == "delete")
            return next_ == lines_.size() || Fail(lines_[next_], "a delete record takes nothing after changetype");
        if (record->changetype == "modify")
            return ReadModify(record);
        if (!record->changetype.empty())
            return ReadModrdn(record);
        return Fail(type, "unknown changetype \"" + type.value + "\"");
    }

private:
    bool Fail(const Line &line, const std::string &what)
    {
        error_ = lines::at(line.number, what);
        return false;
    }

    // Names, RDNs and superiors: text or base64, never a URL.
    bool Text(const Line &line, std::string *out)
    {
        if (line.form == Line::Form::kUrl)
            return Fail(line, line.name + " can't be read from a URL");
        *out = line.value;
        return true;
    }

    bool Value(const Line &line, std::string *out) { return lines::value_bytes(line, read_file_, out, &error_); }

    // Keyword lines out of place mean a missing blank line or a misordered
    // record, never an attribute of that name.
    bool Misplaced(const Line &line)
    {
        if (line.form == Line::Form::kSeparator)
            return Fail(line, "\"-\" ends a modification and belongs in modify records only");
        if (equal_ignoring_case(line.name, "dn"))
            return Fail(line, "a dn line inside a record (records are separated by a blank line)");
        if (equal_ignoring_case(line.name, "changetype") || equal_ignoring_case(line.name, "control"))
            return Fail(line, line.name + " lines go right after the dn line");
        return true;
    }

    // "control: OID [true|false] [value]".
    bool ReadControl(const Line &line, Control *control)
    {
        if (line.form != Line::Form::kText)
            return Fail(line, "a control line is written as text");
        const std::string &text = line.value;
        size_t end = text.find_first_of(" :");
        control->oid = text.substr(0, end);
        if (!lines::is_numeric_oid(control->oid))
            return Fail(line, "a control needs a numeric OID, not \"" + control->oid + "\"");
        size_t at = text.find_first_not_of(' ', end);
        if (at != std::string::npos && text[at] != ':') {
            size_t word_end = text.find_first_of(" :", at);
            std::string word = text.substr(at, word_end == std::string::npos ? word_end : word_end - at);
            if (!equal_ignoring_case(word, "true") && !equal_ignoring_case(word, "false"))
                return Fail(line, "a control's criticality is true or false, not \"" + word + "\"");
            control->critical = equal_ignoring_case(word, "true");
            at = word_end == std::string::npos ? word_end : text.find_first_not_of(' ', word_end);
        }
        if (at == std::string::npos)
            return true;
        if (text[at] != ':')
            return Fail(line, "unexpected text after the control's criticality");
        Line value{line.number, "control", Line::Form::kText, ""};
        std::string bytes;
        if (!lines::parse_line_value(text.substr(at + 1), &value, &error_) || !Value(value, &bytes))
            return false;
        control->value = std::move(bytes);
        return true;
    }

    bool ReadAdd(ChangeRecord *record)
    {
        for (; next_ < lines_.size(); next_++) {
            const Line &line = lines_[next_];
            std::string value;
            if (!Misplaced(line) || !Value(line, &value))
                return false;
            // Values of one attribute go together wherever they stand.
            auto same = [&](const auto &attribute) { return equal_ignoring_case(attribute.first, line.name.c_str()); };
            auto it = std::find_if(record->attributes.begin(), record->attributes.end(), same);
            if (it == record->attributes.end())
                record->attributes.push_back({line.name, {std::move(value)}});
            else
                it->second.push_back(std::move(value));
        }
        return !record->attributes.empty() || Fail(lines_.front(), "an add record needs attributes");
    }

    bool ReadModrdn(ChangeRecord *record)
    {
        record->changetype = "modrdn";
        const Line *newrdn = nullptr, *deleteoldrdn = nullptr, *newsuperior = nullptr;
        for (; next_ < lines_.size(); next_++) {
            const Line &line = lines_[next_];
            const Line **slot = equal_ignoring_case(line.name, "newrdn")         ? &newrdn
                                : equal_ignoring_case(line.name, "deleteoldrdn") ? &deleteoldrdn
                                : equal_ignoring_case(line.name, "newsuperior")  ? &newsuperior
                                                                                 : nullptr;
            if (!slot)
                return Misplaced(line) && Fail(line, "unexpected " + line.name + " in a modrdn record");
            if (*slot)
                return Fail(line, line.name + " given twice");
            *slot = &line;
        }
        if (!newrdn || !deleteoldrdn)
            return Fail(lines_.front(), "a modrdn record needs newrdn and deleteoldrdn");
        std::string flag;
        if (!Text(*newrdn, &record->newrdn) || !Text(*deleteoldrdn, &flag))
            return false;
        if (flag != "0" && flag != "1")
            return Fail(*deleteoldrdn, "deleteoldrdn is 0 or 1");
        record->deleteoldrdn = flag == "1";
        if (newsuperior) {
            record->newsuperior_line = newsuperior->number;
            if (!Text(*newsuperior, &record->newsuperior.emplace()))
                return false;
        }
        return true;
    }

    bool ReadModify(ChangeRecord *record)
    {
        while (next_ < lines_.size()) {
            const Line &head = lines_[next_++];
            Modification mod;
            for (const char *op : {"add", "delete", "replace"})
                if (equal_ignoring_case(head.name, op))
                    mod.op = op;
            if (mod.op.empty())
                return Misplaced(head) && Fail(head, std::string("expected add:, delete: or replace:") +
                                                         (implicit_modify_ ? " (a record without changetype is an add with -a)" : ""));
            if (head.form != Line::Form::kText || !lines::is_attribute_description(head.value))
                return Fail(head, mod.op + ": needs an attribute name");
            mod.type = head.value;
            for (; next_ < lines_.size() && lines_[next_].form != Line::Form::kSeparator; next_++) {
                const Line &line = lines_[next_];
                if (!equal_ignoring_case(line.name, mod.type.c_str()))
                    return Fail(line, "expected a value of " + mod.type + " or \"-\"");
                if (!Value(line, &mod.values.emplace_back()))
                    return false;
            }
            next_++; // the "-"
            record->modifications.push_back(std::move(mod));
        }
        return true;
    }

    const std::vector<Line> &lines_;
    const FileReader &read_file_;
    bool plain_records_add_;
    bool implicit_modify_ = false;
    std::string &error_;
    size_t next_ = 1;
};

} // namespace

bool read_changes(const std::string &text, const FileReader &read_file, std::vector<ChangeRecord> *records,
                  std::string *error, bool plain_records_add)
{
    std::vector<std::vector<Line>> raw;
    if (!lines::split_records(text, &raw, error))
        return false;
    for (const auto &record_lines : raw) {
        ChangeRecord record;
        if (!RecordReader(record_lines, read_file, plain_records_add, error).Read(&record))
            return false;
        records->push_back(std::move(record));
    }
    return true;
}

} // namespace ldif
