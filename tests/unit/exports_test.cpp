// The shared object's boundary: exactly the exported family, each name at
// version zor8, nothing else visible, and zorldap_loaded_from.
#include "test_util.h"
#include "zor8ldap.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <limits.h>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <unistd.h>

namespace {

const char *const kLibrary = ZLDAP_SHARED_OBJECT;

std::string CommandOutput(const std::string &command)
{
    std::string out;
    std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe)
        return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, pipe.get())) > 0)
        out.append(buf, n);
    return out;
}

const std::set<std::string> kExported = {
    "zor_ldap_init", "zor_ldap_msgfree", "zor_ldap_err2string", "zor_ldap_set_option", "zor_ldap_simple_bind_s",
    "zor_ldap_unbind", "zor_ldap_search_st", "zor_ldap_url_search_st", "zor_ldap_url_parse", "zor_ldap_free_urldesc",
    "zor_ldap_count_entries", "zor_ldap_add_s", "zor_ldap_delete_s", "zor_ldap_modify_s", "zor_ldap_modrdn_s",
    "zor_ldap_first_entry", "zor_ldap_next_entry", "zor_ldap_get_dn", "zor_ldap_memfree", "zor_ldap_first_attribute",
    "zor_ldap_next_attribute", "zor_ldap_get_values_len", "zor_ldap_value_free_len", "zor_ldap_get_errno",
    "zor_ldap_ber_free", "zorldap_loaded_from", "zorldap_Copyright", "zorldap_SCCSInfo",
};

TEST(SymbolTable, ExactlyTheFamilyIsDefinedAtVersionZor8)
{
    std::string table = CommandOutput(std::string("readelf -W --dyn-syms ") + kLibrary);
    ASSERT_FALSE(table.empty()) << "readelf failed";
    std::regex row(R"(^\s*\d+:\s+([0-9a-f]+)\s+(\d+)\s+(\w+)\s+(\w+)\s+(\w+)\s+(\w+)\s+(\S+)\s*$)");
    std::set<std::string> defined;
    bool saw_version_symbol = false;
    for (const std::string &line : zldap_test::SplitLines(table)) {
        std::smatch m;
        if (!std::regex_match(line, m, row) || m[6] == "UND")
            continue;
        std::string name = m[7];
        if (name == "zor8") {
            EXPECT_EQ(m[6], "ABS");
            EXPECT_EQ(std::stoull(m[1], nullptr, 16), 0u);
            saw_version_symbol = true;
            continue;
        }
        EXPECT_EQ(m[4], "GLOBAL") << name;
        size_t at = name.find("@@zor8");
        ASSERT_NE(at, std::string::npos) << name << " is not bound to zor8";
        EXPECT_EQ(at + 6, name.size()) << name;
        defined.insert(name.substr(0, at));
    }
    EXPECT_TRUE(saw_version_symbol);
    EXPECT_EQ(defined, kExported);
}

TEST(SymbolTable, SonameRunpathAndVersionNodes)
{
    std::string dynamic = CommandOutput(std::string("readelf -d ") + kLibrary);
    EXPECT_NE(dynamic.find("Library soname: [libzor8ldap_64.so]"), std::string::npos) << dynamic;
    EXPECT_NE(dynamic.find("[$ORIGIN]"), std::string::npos) << dynamic;
    std::string versions = CommandOutput(std::string("readelf -V ") + kLibrary);
    EXPECT_TRUE(std::regex_search(versions, std::regex(R"(Flags: BASE\s+Index: 1\s+Cnt: 1\s+Name: libzor8ldap_64\.so)")));
    EXPECT_TRUE(std::regex_search(versions, std::regex(R"(Index: 2\s+Cnt: 1\s+Name: zor8)")));
}

TEST(SharedObject, OnlyTheZor8VersionsResolveAndReachTheLibrary)
{
    void *handle = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    EXPECT_EQ(dlvsym(handle, "zor_ldap_init", "zor7"), nullptr);
    EXPECT_EQ(dlvsym(handle, "zor_ldap_init", "libzor8ldap_64.so"), nullptr);
    EXPECT_NE(dlsym(handle, "zor_ldap_init"), nullptr) << "the default version is zor8";
    for (const char *hidden : {"ldap_init", "ldap_unbind", "ldap_set_option_direct", "_Z9ldap_initPKci"})
        EXPECT_EQ(dlsym(handle, hidden), nullptr) << hidden;
    auto *copyright = static_cast<const char *>(dlvsym(handle, "zorldap_Copyright", "zor8"));
    auto *sccs = static_cast<const char *>(dlvsym(handle, "zorldap_SCCSInfo", "zor8"));
    ASSERT_TRUE(copyright && sccs);
    EXPECT_EQ(std::strlen(copyright) + 1, 231u);
    EXPECT_EQ(std::strlen(sccs) + 1, 885u);

    auto init = reinterpret_cast<LDAP *(*)(const char *, int)>(dlvsym(handle, "zor_ldap_init", "zor8"));
    auto unbind = reinterpret_cast<int (*)(LDAP *)>(dlvsym(handle, "zor_ldap_unbind", "zor8"));
    auto get_errno = reinterpret_cast<int (*)(LDAP *)>(dlvsym(handle, "zor_ldap_get_errno", "zor8"));
    auto set_option = reinterpret_cast<int (*)(LDAP *, int, const void *)>(dlvsym(handle, "zor_ldap_set_option", "zor8"));
    auto text = reinterpret_cast<char *(*)(int)>(dlvsym(handle, "zor_ldap_err2string", "zor8"));
    ASSERT_TRUE(init && unbind && get_errno && set_option && text);
    EXPECT_STREQ(text(LDAP_NO_SUCH_OBJECT), "No such object");
    LDAP *ld = init("localhost", 389);
    int four = 4;
    EXPECT_EQ(set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &four), LDAP_PARAM_ERROR);
    EXPECT_EQ(get_errno(ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(unbind(ld), 0);
    dlclose(handle);
}

TEST(LoadedFrom, ReportsTheResolvedFileBehindALink)
{
    zldap_test::TempDir dir;
    std::string link = dir.file("libalias.so");
    ASSERT_EQ(symlink(kLibrary, link.c_str()), 0);
    void *handle = dlopen(link.c_str(), RTLD_NOW | RTLD_LOCAL);
    auto loaded_from = reinterpret_cast<char *(*)()>(dlvsym(handle, "zorldap_loaded_from", "zor8"));
    ASSERT_NE(loaded_from, nullptr);
    char expected[PATH_MAX];
    ASSERT_NE(realpath(kLibrary, expected), nullptr);
    char *first = loaded_from(), *second = loaded_from();
    EXPECT_STREQ(first, expected);
    EXPECT_STREQ(second, expected);
    EXPECT_NE(first, second) << "each call returns its own allocation";
    std::free(first);
    std::free(second);
    dlclose(handle);
}

} // namespace
