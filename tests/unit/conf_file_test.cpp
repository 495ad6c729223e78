// The configuration file: its lines as records, where it is looked for and
// when it is read; the plug-in library name rule and the loader layer.
#include "base/ldap_load.h"
#include "base/memory.h"
#include "config/conf_file.h"
#include "plugin_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <memory>

using namespace zldap_test;

namespace {

// "type|subtype|name|library|init|args", "-" for an absent field.
std::vector<std::string> Records(const ldap_conf_list &list)
{
    std::vector<std::string> out;
    for (const ldap_conf_record *r = list.first; r; r = r->next) {
        std::string text;
        for (const char *field : {r->type, r->subtype, r->name, r->library, r->init_func, r->args})
            text += (text.empty() ? "" : "|") + std::string(field ? field : "-");
        out.push_back(text);
    }
    return out;
}

struct ListOwner {
    ~ListOwner() { ldap_conf_list_clear(&list); }
    ldap_conf_list list{};
};

struct ParseCase {
    const char *name;
    std::string text;
    std::vector<std::string> records;
};

void PrintTo(const ParseCase &c, std::ostream *os) { *os << c.name; }

// A line of exactly 511 bytes, the most the 512-byte buffer takes at once,
// then a record: the buffer hands the line over in two pieces.
const std::string kFirstPiece = "plugin sasl A lib init " + std::string(511 - 23, 'x');

const ParseCase kParseCases[] = {
    {"CommentLine", "# plugin sasl A lib\n", {}},
    {"BlanksBeforeTheHashMakeItAToken", "  # sasl A lib\n", {"#|sasl|A|lib|-|-"}},
    {"ThreeTokensAreIgnored", "plugin sasl A\n", {}},
    {"EmptyAndBlankLines", "\n   \n\t\r\n", {}},
    {"FourFields", "plugin sasl A /lib/a.sl\n", {"plugin|sasl|A|/lib/a.sl|-|-"}},
    {"InitFunctionAndArguments", "plugin sasl A lib init -x  1 y\n", {"plugin|sasl|A|lib|init|-x  1 y"}},
    {"ArgumentsEndAtATab", "plugin sasl A lib init a b\tc d\n", {"plugin|sasl|A|lib|init|a b"}},
    {"InitFunctionWithoutArguments", "plugin sasl A lib init\n", {"plugin|sasl|A|lib|init|-"}},
    {"TabsSeparateFields", "plugin\tsasl\tA\tlib\tinit\n", {"plugin|sasl|A|lib|init|-"}},
    {"CarriageReturnEndsTheLine", "plugin sasl A lib init args\r\n", {"plugin|sasl|A|lib|init|args"}},
    {"LastLineWithoutNewline", "plugin sasl A lib", {"plugin|sasl|A|lib|-|-"}},
    {"RecordsInFileOrder", "plugin sasl B lib\nplugin sasl A lib\n", {"plugin|sasl|B|lib|-|-", "plugin|sasl|A|lib|-|-"}},
    {"LongLineArrivesInPieces", kFirstPiece + "plugin sasl B lib2\n",
     {"plugin|sasl|A|lib|init|" + std::string(511 - 23, 'x'), "plugin|sasl|B|lib2|-|-"}},
    {"PieceOfALongLineThatIsNoRecord", kFirstPiece + "tail\n", {"plugin|sasl|A|lib|init|" + std::string(511 - 23, 'x')}},
    {"NulByteEndsTheLine", std::string("plugin sasl A lib\0 init\n", 24), {"plugin|sasl|A|lib|-|-"}},
};

class ConfParse : public testing::TestWithParam<ParseCase> {};

TEST_P(ConfParse, AcceptedLinesBecomeRecords)
{
    std::string text = GetParam().text;
    std::unique_ptr<FILE, decltype(&fclose)> file(fmemopen(text.data(), text.size(), "r"), fclose);
    ASSERT_TRUE(file);
    ListOwner owner;
    EXPECT_EQ(ldap_process_conf_data(file.get(), &owner.list), LDAP_SUCCESS);
    EXPECT_EQ(Records(owner.list), GetParam().records);
}

INSTANTIATE_TEST_SUITE_P(Lines, ConfParse, testing::ValuesIn(kParseCases),
                         [](const testing::TestParamInfo<ParseCase> &info) { return std::string(info.param.name); });

// No test machine has the installation directories, so ORNLDAP_CONF alone
// decides whether a file is found.
TEST(ConfFile, IsLookedForInTheDirectoryOrnldapConfNames)
{
    ConfFile conf("plugin sasl A lib\n");
    std::unique_ptr<char, decltype(&zldap::mem_free)> path(ldap_locate_conf_file(), zldap::mem_free);
    ASSERT_TRUE(path);
    EXPECT_EQ(std::string(path.get()), conf.dir() + "/ornldap.conf");

    TempDir empty;
    ScopedEnv elsewhere("ORNLDAP_CONF", empty.path());
    EXPECT_EQ(ldap_locate_conf_file(), nullptr);
    ScopedEnv unset("ORNLDAP_CONF", std::nullopt);
    EXPECT_EQ(ldap_locate_conf_file(), nullptr);
}

TEST(ConfFile, IsReadOnceSuccessfully)
{
    ConfFile conf("plugin sasl A lib\n");
    ListOwner owner;
    EXPECT_EQ(ldap_read_conf_file(&owner.list), LDAP_SUCCESS);
    std::ofstream(conf.dir() + "/ornldap.conf", std::ios::app) << "plugin sasl B lib\n";
    EXPECT_EQ(ldap_read_conf_file(&owner.list), LDAP_SUCCESS);
    EXPECT_EQ(Records(owner.list), std::vector<std::string>{"plugin|sasl|A|lib|-|-"});
    EXPECT_NE(ldap_conf_find(&owner.list, "plugin", "sasl", "A"), nullptr);
    EXPECT_EQ(ldap_conf_find(&owner.list, "plugin", "sasl", "a"), nullptr) << "names are compared exactly";
    EXPECT_EQ(ldap_conf_find(&owner.list, "plugin", "SASL", "A"), nullptr);
}

TEST(ConfFile, AMissingFileGives192UntilOneAppears)
{
    TempDir dir;
    ScopedEnv env("ORNLDAP_CONF", dir.path());
    ListOwner owner;
    EXPECT_EQ(ldap_read_conf_file(&owner.list), LDAP_PLUGIN_CONF_NOT_OPENED);
    EXPECT_EQ(ldap_read_conf_file(&owner.list), LDAP_PLUGIN_CONF_NOT_OPENED);
    std::ofstream(dir.file("ornldap.conf")) << "plugin sasl A lib\n";
    EXPECT_EQ(ldap_read_conf_file(&owner.list), LDAP_SUCCESS);
    EXPECT_EQ(Records(owner.list).size(), 1u);
}

struct NameCase {
    const char *path;
    const char *file;
};

TEST(PluginLibraryName, EndsInDotSo)
{
    const NameCase cases[] = {
        {"/usr/lib/sasl/libgss.sl", "/usr/lib/sasl/libgss.so"},
        {"/usr/lib/sasl/libgss", "/usr/lib/sasl/libgss.so"},
        {"libgss.so", "libgss.so"},
        {"/opt/v1.2/lib/libgss", "/opt/v1.so"}, // the last dot anywhere in the path
        {"", ".so"},
    };
    for (const NameCase &c : cases) {
        std::unique_ptr<char, decltype(&zldap::mem_free)> file(ldap_dl_file_name(c.path), zldap::mem_free);
        EXPECT_STREQ(file.get(), c.file) << c.path;
    }
}

TEST(Loader, OpensResolvesAndCloses)
{
    EXPECT_EQ(ldap_dlopen("/nonexistent/libnothing.so", 0), nullptr);
    ldap_dl *dl = ldap_dlopen(TestPluginPath().c_str(), 0);
    ASSERT_NE(dl, nullptr);
    EXPECT_NE(ldap_dlsym(dl, "test_plugin_init"), nullptr);
    EXPECT_EQ(ldap_dlsym(dl, "no_such_function"), nullptr);
    EXPECT_EQ(ldap_dlsym(dl, nullptr), nullptr);
    EXPECT_EQ(ldap_dlsym(nullptr, "test_plugin_init"), nullptr);
    EXPECT_EQ(ldap_dlclose(dl), LDAP_SUCCESS);
    EXPECT_EQ(ldap_dlclose(nullptr), LDAP_OTHER);
}

TEST(Loader, TracesWhyALibraryCannotBeOpened)
{
    TraceCapture trace(0xFFFF);
    EXPECT_EQ(ldap_dlopen("/nonexistent/libnothing.so", 0), nullptr);
    EXPECT_NE(trace.text().find("dlopen(/nonexistent/libnothing.so,258) failed at "), std::string::npos)
        << trace.text();
    EXPECT_NE(trace.text().find("libraries/libldap/ldap_load with error: /nonexistent/libnothing.so"),
              std::string::npos);
}

} // namespace
