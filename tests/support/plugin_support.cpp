// plugin_support.cpp - the test plug-in, loaded by the test program itself
// so that what it recorded can be read back.
#include "plugin_support.h"

#include <dlfcn.h>
#include <fstream>
#include <stdexcept>

namespace zldap_test {

namespace {

// The plug-in as the test program loaded it (the library's own loading of
// the same file finds this copy).
void *PluginSymbol(const char *name)
{
    static void *handle = dlopen(TestPluginPath().c_str(), RTLD_NOW | RTLD_GLOBAL);
    void *symbol = handle ? dlsym(handle, name) : nullptr;
    if (!symbol)
        throw std::runtime_error(std::string("test plug-in: no ") + name);
    return symbol;
}

} // namespace

const std::string &TestPluginPath()
{
    static const std::string path = ZLDAP_TEST_PLUGIN;
    return path;
}

const std::string &TestPluginSlPath()
{
    static const std::string path = TestPluginPath().substr(0, TestPluginPath().rfind('.')) + ".sl";
    return path;
}

TestPluginRecord ReadTestPlugin()
{
    TestPluginRecord record{};
    reinterpret_cast<TestPluginReadFn>(PluginSymbol("test_plugin_read"))(&record);
    return record;
}

void ResetTestPlugin() { reinterpret_cast<TestPluginResetFn>(PluginSymbol("test_plugin_reset"))(); }

TestPluginDescription::TestPluginDescription(const std::string &mechanism, const char *init_func, const char *args,
                                             const std::string &path)
    : mechanism(mechanism), path(path), init_func(init_func ? init_func : ""), args(args ? args : ""),
      has_init(init_func != nullptr), has_args(args != nullptr)
{
}

LDAPPluginInfo TestPluginDescription::info()
{
    return {type.data(), mechanism.data(), path.data(), has_init ? init_func.data() : nullptr,
            has_args ? args.data() : nullptr};
}

ConfFile::ConfFile(const std::string &text) : env_("ORNLDAP_CONF", dir_.path())
{
    std::ofstream(dir_.file("ornldap.conf")) << text;
}

} // namespace zldap_test
