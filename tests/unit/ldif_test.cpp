// LDIF for the tools: safe strings, base64, folding, and change records;
// and the tools' other text: filters and password modify values.
#include "filter_check.h"
#include "ldif.h"
#include "passwd_value.h"

#include <gtest/gtest.h>

#include <map>

namespace {

TEST(Ldif, WritingSafeStringsBase64AndFoldedLines)
{
    for (const char *safe : {"plain text", "", "mid: colon"})
        EXPECT_TRUE(ldif::is_safe_string(safe)) << safe;
    for (const char *unsafe : {" leading", ":colon", "<less", "trailing ", "caf\xC3\xA9", "line\nbreak", "a\tb", "\x7F"})
        EXPECT_FALSE(ldif::is_safe_string(unsafe)) << unsafe;
    std::string v(200, 'v'); // "description: " and 65 bytes, then 77 and 58 after a blank
    EXPECT_EQ(ldif::line("description", v), "description: " + v.substr(0, 65) + "\n " + v.substr(0, 77) + "\n " +
                                                v.substr(0, 58) + "\n");
    EXPECT_EQ(ldif::line("description", v, ldif::kNoFolding), "description: " + v + "\n");
    EXPECT_EQ(ldif::line("dn", "") + ldif::line("cn", "abcdef", 5), "dn:\ncn: a\n bcde\n f\n");
    std::string out;
    const std::string binary("\0\xFF\x10", 3);
    EXPECT_TRUE(ldif::base64_decode(ldif::base64_encode(binary), &out) && out == binary);
    EXPECT_EQ(ldif::base64_encode("ab") + ldif::base64_encode(""), "YWI=");
    for (const char *valid : {"YQ==", "YQ", "YWJj", "YW Jj"})
        EXPECT_TRUE(ldif::base64_decode(valid, &out)) << valid;
    for (const char *invalid : {"ab*c", "YQ=", "Y", "YQ==YQ==", "YQ==="})
        EXPECT_FALSE(ldif::base64_decode(invalid, &out)) << invalid;
}

// Filters the tools refuse before sending, at the position given; and the
// password modify values, whose response is read from the server.
TEST(ToolText, FilterCheckAndPasswordModifyValues)
{
    const std::pair<const char *, size_t> filters[] = {
        {"(cn=a)", 0}, {"cn=a", 0}, {"(&(a=1)(|(b=2)(c=\\29)))  ", 0}, {"(cn=a\\))", 0},
        {"", 1}, {"(cn=a)(cn=b)", 7}, {"(&(cn=a)", 1}, {"(|(a=1)(b=2", 8}, {"cn=a)", 5},
        {"cn=(a", 4}, {"(cn=a))", 7}, {"()", 2}, {"(cn=a) x", 8}};
    for (const auto &[filter, position] : filters) {
        std::string problem;
        EXPECT_EQ(tool::filter_problem(filter, &problem), position) << filter << ": " << problem;
    }
    EXPECT_EQ(tool::passwd_modify_request("u", std::nullopt, std::string(200, 'p')),
              std::string("\x30\x81\xCE\x80\x01u\x82\x81\xC8", 9) + std::string(200, 'p'));
    const std::pair<std::string, std::optional<std::string>> responses[] = {
        {std::string("\x30\x00", 2), std::nullopt}, {std::string("\x30\x04\x80\x02pw", 6), "pw"}};
    for (const auto &[value, generated] : responses) {
        std::optional<std::string> out;
        EXPECT_TRUE(tool::passwd_modify_generated(value, &out) && out == generated);
    }
    for (const std::string &malformed : {std::string(""), std::string("\x30"), std::string("\x30\x05\x80\x02pw", 6),
                                        std::string("\x30\x04\x81\x02pw", 6), std::string("\x30\x84\xFF\xFF\xFF\xFF", 6),
                                        std::string("\x31\x00", 2), std::string("\x30\x03\x80\x02pw", 6)}) {
        std::optional<std::string> out;
        EXPECT_FALSE(tool::passwd_modify_generated(malformed, &out)) << testing::PrintToString(malformed);
    }
}

// Files the "attr:< file:///..." values of the tables below may name.
bool read_test_file(const std::string &path, std::string *bytes)
{
    static const std::map<std::string, std::string> files = {{"/data/one", std::string("bytes\0\n", 7)},
                                                              {"/data/two words", "two"}};
    auto it = files.find(path);
    if (it != files.end())
        *bytes = it->second;
    return it != files.end();
}

std::string joined(const ldif::Values &values)
{
    std::string out;
    for (const std::string &v : values)
        out += (out.empty() ? "" : ",") + v;
    return out;
}

// One line per record, its kind, dn and contents; or "line N: ..." of a refusal.
std::string read(const std::string &text)
{
    std::vector<ldif::ChangeRecord> records;
    std::string out;
    if (!ldif::read_changes(text, read_test_file, &records, &out))
        return out.substr(0, out.find(':'));
    for (const ldif::ChangeRecord &r : records) {
        out += (out.empty() ? "" : "; ") + r.changetype + " " + r.dn;
        for (const ldif::Control &c : r.controls)
            out += " control=" + c.oid + (c.critical ? "!" : "") + (c.value ? "=" + *c.value : "");
        for (const auto &[type, values] : r.attributes)
            out += " " + type + "=" + joined(values);
        for (const ldif::Modification &m : r.modifications)
            out += " " + m.op + ":" + m.type + "=" + joined(m.values);
        if (r.changetype == "modrdn")
            out += " newrdn=" + r.newrdn + (r.deleteoldrdn ? " delete" : " keep");
        if (r.newsuperior)
            out += " newsuperior=" + *r.newsuperior + "@" + std::to_string(r.newsuperior_line);
    }
    return out;
}

const std::pair<const char *, std::string> kChanges[] = {
    {"version: 1\n# a comment\n  folded into it\ndn: cn=a,o=x\nobjectClass: person\ncn: a\nsn: A\nSN: B\n\n"
     "dn: cn=b,o=x\nchangetype: modify\nreplace: description\ndescription: new\n-\n"
     "add: mail\nmail: b@x\nmail: b2@x\n-\ndelete: phone\n-\n\n"
     "dn:: Y249ZSxvPXg=\nchangetype: delete\n\ndn: cn=f,o=x\ndescription: folded\n  value\n",
     "add cn=a,o=x objectClass=person cn=a sn=A,B; modify cn=b,o=x replace:description=new add:mail=b@x,b2@x "
     "delete:phone=; delete cn=e,o=x; add cn=f,o=x description=folded value"},
    {"dn: cn=a\r\ncn: a\r\n", "add cn=a cn=a"},
    // File URLs: the file's bytes, whatever they are.
    {"dn: cn=a\ncn:< file:///data/one\nsn:<file://localhost/data/two%20words\n",
     "add cn=a cn=" + std::string("bytes\0\n", 7) + " sn=two"},
    // Keywords and changetypes in any case.
    {"DN: cn=a\nChangeType: DELETE\n", "delete cn=a"},
    {"Dn: cn=a\nCHANGETYPE: Modify\nREPLACE: description\nDescription: x\n-\nAdd: mail\nmail: m\n",
     "modify cn=a replace:description=x add:mail=m"},
    {"dn: cn=a\nchangetype: MODDN\nNewRDN: cn=b\nDeleteOldRDN: 0\nNewSuperior: o=y\n",
     "modrdn cn=a newrdn=cn=b keep newsuperior=o=y@5"},
    {"dn: cn=a\nchangetype: modrdn\nnewrdn:: Y249Yg==\ndeleteoldrdn: 1\n", "modrdn cn=a newrdn=cn=b delete"},
    {"dn: cn=a\nControl: 1.2.3 TRUE\ncontrol: 1.2.4 false:: eA==\ncontrol: 1.2.5: v\ncontrol: 1.2.6 true:< "
     "file:///data/two%20words\nchangetype: delete\n",
     "delete cn=a control=1.2.3! control=1.2.4=x control=1.2.5=v control=1.2.6!=two"},
    {"dn: cn=a\ncn;lang-en: a\n2.5.4.4: s\n", "add cn=a cn;lang-en=a 2.5.4.4=s"},
    // What cannot be read is refused with its line.
    {"cn: a\n", "line 1"},
    {" leading continuation\n", "line 1"},
    {"version: 2\ndn: a\ncn: a\n", "line 1"},
    {"dn:< file:///data/one\ncn: a\n", "line 1"},
    {"dn: a\n", "line 1"},
    {"dn: a\nnoColonHere\n", "line 2"},
    {"dn: a\nc n: x\n", "line 2"},
    {"dn: a\ncn:: YQ=\n", "line 2"},
    {"dn: a\ndescription: <b>\n", "line 2"},
    {"dn: a\ncn:< http://host/file\n", "line 2"},
    {"dn: a\ncn:< file://otherhost/data/one\n", "line 2"},
    {"dn: a\ncn:< file:///data/missing\n", "line 2"},
    {"dn: a\ncn:< file:///data/one%00\n", "line 2"},
    {"dn: a\nchangetype: rename\n", "line 2"},
    {"dn: a\ncn: a\nchangeType: delete\n", "line 3"},
    {"dn: a\ncn: a\ndn: b\ncn: b\n", "line 3"},
    {"dn: a\ncn: a\n-\n", "line 3"},
    {"dn: a\nchangetype: delete\ncn: x\n", "line 3"},
    {"dn: a\nchangetype: modify\nmail: x\n", "line 3"},
    {"dn: a\nchangetype: modify\nadd: cn\ncn: x\nsn: y\n", "line 5"},
    {"dn: a\nchangetype: modify\nadd:: Y24=\n", "line 3"},
    {"dn: a\nchangetype: modrdn\nnewrdn: cn=b\n", "line 1"},
    {"dn: a\nchangetype: modrdn\nnewrdn: cn=b\ndeleteoldrdn: yes\n", "line 4"},
    {"dn: a\nchangetype: modrdn\nnewrdn: cn=b\nnewrdn: cn=c\ndeleteoldrdn: 1\n", "line 4"},
    {"dn: a\nchangetype: modrdn\nnewrdn:< file:///data/one\ndeleteoldrdn: 1\n", "line 3"},
    {"dn: a\ncontrol: 1.2.3\ncn: x\n", "line 2"},
    {"dn: a\ncontrol: x.y true\nchangetype: delete\n", "line 2"},
    {"dn: a\ncontrol: 1.2.3 maybe\nchangetype: delete\n", "line 2"},
    {"dn: a\nchangetype: delete\ncontrol: 1.2.3\n", "line 3"},
};

TEST(Ldif, ChangeRecordsAsRfc2849WritesThemOrTheLineOfWhatIsWrong)
{
    for (const auto &[text, records] : kChanges)
        EXPECT_EQ(read(text), records) << text;
}

} // namespace
