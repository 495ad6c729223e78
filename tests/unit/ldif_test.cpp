// LDIF for the tools: safe strings, base64, folding, and change records.
#include "ldif.h"

#include <gtest/gtest.h>

#include <map>

namespace {

// Files the "attr:< file:///..." values of the tables below may name.
bool read_test_file(const std::string &path, std::string *bytes)
{
    static const std::map<std::string, std::string> files = {{"/data/one", std::string("bytes\0\n", 7)},
                                                              {"/data/two words", "two"}};
    auto it = files.find(path);
    if (it == files.end())
        return false;
    *bytes = it->second;
    return true;
}

bool read(const std::string &text, std::vector<ldif::ChangeRecord> *records, std::string *error)
{
    return ldif::read_changes(text, read_test_file, records, error);
}

std::string joined(const ldif::Values &values)
{
    std::string out;
    for (const std::string &v : values)
        out += (out.empty() ? "" : ",") + v;
    return out;
}

// One line per record: its kind, dn and contents, for table comparisons.
std::string summary(const std::vector<ldif::ChangeRecord> &records)
{
    std::string out;
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

TEST(Ldif, UnsafeValuesGoInBase64)
{
    struct {
        std::string value;
        bool safe;
    } const cases[] = {{"plain text", true}, {"", true},          {" leading", false}, {":colon", false},
                       {"<less", false},     {"trailing ", false}, {std::string("a\0b", 3), false},
                       {"caf\xC3\xA9", false}, {"line\nbreak", false}, {"mid: colon", true}};
    for (const auto &c : cases)
        EXPECT_EQ(ldif::is_safe_string(c.value), c.safe) << c.value;
    EXPECT_EQ(ldif::line("cn", "x"), "cn: x\n");
    EXPECT_EQ(ldif::line("cn", std::string("a\0b", 3)), "cn:: YQBi\n");
}

TEST(Ldif, Base64RoundTrips)
{
    for (const std::string &bytes : {std::string(""), std::string("a"), std::string("ab"), std::string("abc"),
                                     std::string("\x00\xFF\x10zz", 5)}) {
        std::string back;
        ASSERT_TRUE(ldif::base64_decode(ldif::base64_encode(bytes), &back));
        EXPECT_EQ(back, bytes);
    }
    struct {
        const char *text;
        bool valid;
    } const cases[] = {{"YQ==", true}, {"YQ", true},     {"YWJj", true},      {"YW Jj", true}, {"ab*c", false},
                       {"YQ=", false}, {"Y", false},     {"YQ==YQ==", false}, {"YQ===", false}};
    std::string out;
    for (const auto &c : cases)
        EXPECT_EQ(ldif::base64_decode(c.text, &out), c.valid) << c.text;
}

TEST(Ldif, LongLinesAreFoldedAt76)
{
    std::string value(200, 'v');
    std::string text = ldif::line("description", value);
    size_t start = 0;
    std::string unfolded;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        std::string l = text.substr(start, end - start);
        EXPECT_LE(l.size(), 76u);
        unfolded += start == 0 ? l : l.substr(1);
        if (start != 0) {
            EXPECT_EQ(l.front(), ' ');
        }
    }
    EXPECT_EQ(unfolded, "description: " + value);
}

TEST(Ldif, ChangeRecordsAsRfc2849WritesThem)
{
    struct {
        const char *text;
        std::string records;
    } const cases[] = {
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
    };
    for (const auto &c : cases) {
        std::vector<ldif::ChangeRecord> records;
        std::string error;
        EXPECT_TRUE(read(c.text, &records, &error)) << c.text << error;
        EXPECT_EQ(summary(records), c.records) << c.text;
    }
}

TEST(Ldif, WhatCannotBeReadIsRefusedWithItsLine)
{
    struct {
        const char *text;
        int line;
    } const cases[] = {
        {"cn: a\n", 1},
        {" leading continuation\n", 1},
        {"version: 2\ndn: a\ncn: a\n", 1},
        {"dn:: !!!\n", 1},
        {"dn:< file:///data/one\ncn: a\n", 1},
        {"dn: a\nnoColonHere\n", 2},
        {"dn: a\nc n: x\n", 2},
        {"dn: a\ncn:: YQ=\n", 2},
        {"dn: a\ndescription: <b>\n", 2},
        {"dn: a\ndescription: :x\n", 2},
        {"dn: a\ncn:< http://host/file\n", 2},
        {"dn: a\ncn:< file://otherhost/data/one\n", 2},
        {"dn: a\ncn:< file:///data/missing\n", 2},
        {"dn: a\ncn:< file:///data/one%00\n", 2},
        {"dn: a\nchangetype: rename\n", 2},
        {"dn: a\ncn: a\nchangeType: delete\n", 3},
        {"dn: a\ncn: a\ndn: b\ncn: b\n", 3},
        {"dn: a\ncn: a\n-\n", 3},
        {"dn: a\n", 1},
        {"dn: a\nchangetype: delete\ncn: x\n", 3},
        {"dn: a\nchangetype: modify\nmail: x\n", 3},
        {"dn: a\nchangetype: modify\nadd: cn\ncn: x\nsn: y\n", 5},
        {"dn: a\nchangetype: modify\nadd:: Y24=\n", 3},
        {"dn: a\nchangetype: modrdn\nnewrdn: cn=b\n", 1},
        {"dn: a\nchangetype: modrdn\nnewrdn: cn=b\ndeleteoldrdn: yes\n", 4},
        {"dn: a\nchangetype: modrdn\nnewrdn: cn=b\nnewrdn: cn=c\ndeleteoldrdn: 1\n", 4},
        {"dn: a\nchangetype: modrdn\nnewrdn:< file:///data/one\ndeleteoldrdn: 1\n", 3},
        {"dn: a\nchangetype: modrdn\nnewrdn: cn=b\ndeleteoldrdn: 1\ncn: x\n", 5},
        {"dn: a\ncontrol: 1.2.3\ncn: x\n", 2},
        {"dn: a\ncontrol: x.y true\nchangetype: delete\n", 2},
        {"dn: a\ncontrol: 1.2.3 maybe\nchangetype: delete\n", 2},
        {"dn: a\ncontrol: 1.2.3 true x\nchangetype: delete\n", 2},
        {"dn: a\ncontrol:: MS4yLjM=\nchangetype: delete\n", 2},
        {"dn: a\nchangetype: delete\ncontrol: 1.2.3\n", 3},
    };
    for (const auto &c : cases) {
        std::vector<ldif::ChangeRecord> records;
        std::string error;
        EXPECT_FALSE(read(c.text, &records, &error)) << c.text;
        EXPECT_EQ(error.rfind("line " + std::to_string(c.line) + ": ", 0), 0u) << c.text << " -> " << error;
    }
}

} // namespace
