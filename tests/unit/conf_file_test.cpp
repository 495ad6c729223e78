// The configuration file (lines as records, where it is looked for, when
// it is read) and the loader layer with its plug-in library name rule.
#include "base/ldap_load.h"
#include "base/memory.h"
#include "config/conf_file.h"
#include "plugin_support.h"

#include <gtest/gtest.h>

#include <memory>

using namespace zldap_test;

namespace {

struct List {
    ~List() { ldap_conf_list_clear(&list); }
    // Each record as "type|subtype|name|library|init|args;", "-" for an absent field.
    std::string Records() const
    {
        std::string out;
        for (const ldap_conf_record *r = list.first; r; r = r->next) {
            const char *fields[] = {r->type, r->subtype, r->name, r->library, r->init_func, r->args};
            for (int i = 0; i < 6; i++)
                out += std::string(fields[i] ? fields[i] : "-") + (i == 5 ? ";" : "|");
        }
        return out;
    }
    ldap_conf_list list{};
};

TEST(ConfFile, AcceptedLinesBecomeRecords)
{
    // The 512-byte buffer takes 511 bytes of a line; the rest arrives as a line of its own.
    const std::string x(511 - 23, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"# plugin sasl A lib\n", ""},
        {"  # sasl A lib\n", "#|sasl|A|lib|-|-;"}, // blanks before "#" make it a token
        {"plugin sasl A\n\n   \n\t\r\n", ""},      // too few fields, empty lines
        {"plugin sasl A lib init -x  1 y\n", "plugin|sasl|A|lib|init|-x  1 y;"},
        {"plugin sasl A lib init a b\tc\n", "plugin|sasl|A|lib|init|a b;"}, // arguments end at a tab
        {"plugin\tsasl\tA\tlib\tinit\r\n", "plugin|sasl|A|lib|init|-;"},
        {"plugin sasl B lib\nplugin sasl A lib", "plugin|sasl|B|lib|-|-;plugin|sasl|A|lib|-|-;"},
        {"plugin sasl A lib init " + x + "plugin sasl B lib2\n", "plugin|sasl|A|lib|init|" + x + ";plugin|sasl|B|lib2|-|-;"},
        {std::string("plugin sasl A lib\0 init\n", 24), "plugin|sasl|A|lib|-|-;"},
    };
    for (const auto &[text, records] : cases) {
        std::string copy = text;
        std::unique_ptr<FILE, decltype(&fclose)> file(fmemopen(copy.data(), copy.size(), "r"), fclose);
        List l;
        EXPECT_EQ(ldap_process_conf_data(file.get(), &l.list), LDAP_SUCCESS);
        EXPECT_EQ(l.Records(), records) << text;
    }
}

// No test machine has the installation directories: ORNLDAP_CONF decides.
TEST(ConfFile, IsReadOnceFoundWhereOrnldapConfPoints)
{
    ConfFile conf("");
    std::string path = conf.dir() + "/ornldap.conf";
    std::remove(path.c_str());
    List l;
    EXPECT_EQ(ldap_locate_conf_file(), nullptr);
    EXPECT_EQ(ldap_read_conf_file(&l.list), LDAP_PLUGIN_CONF_NOT_OPENED);
    EXPECT_EQ(ldap_read_conf_file(&l.list), LDAP_PLUGIN_CONF_NOT_OPENED) << "tried again";
    std::ofstream(path) << "plugin sasl A lib\n";
    std::unique_ptr<char, decltype(&zldap::mem_free)> located(ldap_locate_conf_file(), zldap::mem_free);
    EXPECT_STREQ(located.get(), path.c_str());
    EXPECT_EQ(ldap_read_conf_file(&l.list), LDAP_SUCCESS);
    std::ofstream(path, std::ios::app) << "plugin sasl B lib\n";
    EXPECT_EQ(ldap_read_conf_file(&l.list), LDAP_SUCCESS);
    EXPECT_EQ(l.Records(), "plugin|sasl|A|lib|-|-;");
    EXPECT_NE(ldap_conf_find(&l.list, "plugin", "sasl", "A"), nullptr);
    EXPECT_EQ(ldap_conf_find(&l.list, "plugin", "sasl", "a"), nullptr);
}

TEST(Loader, OpensPluginPathsEndingInDotSo)
{
    const std::pair<const char *, const char *> names[] = {
        {"/usr/lib/sasl/libgss.sl", "/usr/lib/sasl/libgss.so"}, {"/usr/lib/sasl/libgss", "/usr/lib/sasl/libgss.so"},
        {"libgss.so", "libgss.so"}, {"/opt/v1.2/lib/libgss", "/opt/v1.so"}, // the last dot anywhere
    };
    for (const auto &[path, file] : names) {
        std::unique_ptr<char, decltype(&zldap::mem_free)> name(ldap_dl_file_name(path), zldap::mem_free);
        EXPECT_STREQ(name.get(), file);
    }
    EXPECT_EQ(ldap_dlopen("/nonexistent/lib.so", 0), nullptr);
    ldap_dl *dl = ldap_dlopen(kTestPlugin.c_str(), 0);
    EXPECT_NE(ldap_dlsym(dl, "test_plugin_init"), nullptr);
    EXPECT_EQ(ldap_dlsym(dl, "no_such_function"), nullptr);
    EXPECT_EQ(ldap_dlsym(dl, nullptr), nullptr);
    EXPECT_EQ(ldap_dlclose(dl), LDAP_SUCCESS);
    EXPECT_EQ(ldap_dlclose(nullptr), LDAP_OTHER);
}

} // namespace
