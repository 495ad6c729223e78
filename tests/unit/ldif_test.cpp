// LDIF for the tools: safe strings, base64, folding, and change records.
#include "ldif.h"

#include <gtest/gtest.h>

namespace {

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
    std::string out;
    EXPECT_FALSE(ldif::base64_decode("ab*c", &out));
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

TEST(Ldif, ChangeRecordsOfEveryKind)
{
    std::string text = "version: 1\n"
                       "# a comment\n"
                       "dn: cn=a,o=x\nobjectClass: person\ncn: a\nsn: A\nsn: Second\n\n"
                       "dn: cn=b,o=x\nchangetype: modify\nreplace: description\ndescription: new\n-\n"
                       "add: mail\nmail: b@x\nmail: b2@x\n-\ndelete: phone\n-\n\n"
                       "dn: cn=c,o=x\nchangetype: modrdn\nnewrdn: cn=d\ndeleteoldrdn: 1\n\n"
                       "dn:: Y249ZSxvPXg=\nchangetype: delete\n\n"
                       "dn: cn=f,o=x\ndescription: folded\n  value\n";
    std::vector<ldif::ChangeRecord> records;
    std::string error;
    ASSERT_TRUE(ldif::read_changes(text, &records, &error)) << error;
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[0].changetype, "add");
    ASSERT_EQ(records[0].attributes.size(), 3u);
    EXPECT_EQ(records[0].attributes[2].second, (ldif::Values{"A", "Second"}));
    ASSERT_EQ(records[1].modifications.size(), 3u);
    EXPECT_EQ(records[1].modifications[1].values, (ldif::Values{"b@x", "b2@x"}));
    EXPECT_TRUE(records[1].modifications[2].values.empty());
    EXPECT_EQ(records[2].newrdn, "cn=d");
    EXPECT_TRUE(records[2].deleteoldrdn);
    EXPECT_EQ(records[3].dn, "cn=e,o=x");
    EXPECT_EQ(records[3].changetype, "delete");
    EXPECT_EQ(records[4].attributes[0].second[0], "folded value");
}

TEST(Ldif, MalformedRecordsAreRefusedWithTheirLine)
{
    for (const char *text : {"cn: a\n", "dn: a\nchangetype: rename\n", "dn: a\nchangetype: modify\nmail: x\n",
                             "dn: a\nnoColonHere\n", "dn:: !!!\n"}) {
        std::vector<ldif::ChangeRecord> records;
        std::string error;
        EXPECT_FALSE(ldif::read_changes(text, &records, &error)) << text;
        EXPECT_NE(error.find("line"), std::string::npos) << text;
    }
}

} // namespace
