// plugin_support.h - the test plug-in (tests/plugins) as the tests use it:
// its file, what it recorded, its registration, and a configuration file.
#ifndef ZLDAP_TEST_PLUGIN_SUPPORT_H
#define ZLDAP_TEST_PLUGIN_SUPPORT_H

#include "test_plugin.h"
#include "test_util.h"
#include "zor8ldap_api.h"

#include <dlfcn.h>
#include <fstream>
#include <string>

namespace zldap_test {

// The plug-in's file; the library opens the ".sl" form of the name as it.
inline const std::string kTestPlugin = ZLDAP_TEST_PLUGIN;
inline const std::string kTestPluginSl = kTestPlugin.substr(0, kTestPlugin.size() - 3) + ".sl";

// What the plug-in recorded since the last call (loading it here again
// finds the library's copy).
inline TestPluginRecord TakeTestPluginRecord()
{
    static void *take = dlsym(dlopen(kTestPlugin.c_str(), RTLD_NOW | RTLD_GLOBAL), "test_plugin_take");
    TestPluginRecord record{};
    reinterpret_cast<void (*)(TestPluginRecord *)>(take)(&record);
    return record;
}

inline int RegisterTestPlugin(std::string mechanism, std::string init, std::string args, std::string path = kTestPluginSl)
{
    std::string type = "sasl";
    LDAPPluginInfo info{type.data(), mechanism.data(), path.data(), init.empty() ? nullptr : init.data(), args.data()};
    return ldap_register_plugin(&info);
}

// ornldap.conf with this text, in a directory that ORNLDAP_CONF names while the object lives.
class ConfFile {
public:
    explicit ConfFile(const std::string &text) { std::ofstream(dir_.file("ornldap.conf")) << text; }
    const std::string &dir() const { return dir_.path(); }

private:
    TempDir dir_;
    ScopedEnv env_{"ORNLDAP_CONF", dir_.path()};
};

} // namespace zldap_test

#endif
