// plugin_support.h - the test plug-in (tests/plugins) as the tests use it:
// its file, what it recorded, descriptions of it for the registration, and
// a configuration file naming it.
#ifndef ZLDAP_TEST_PLUGIN_SUPPORT_H
#define ZLDAP_TEST_PLUGIN_SUPPORT_H

#include "test_plugin.h"
#include "test_util.h"
#include "zor8ldap_api.h"

#include <string>

namespace zldap_test {

// The plug-in's library file, and the same path ending in ".sl", which the
// library opens as the former.
const std::string &TestPluginPath();
const std::string &TestPluginSlPath();

// What the plug-in recorded since the last reset.
TestPluginRecord ReadTestPlugin();
void ResetTestPlugin();

// An "sasl" description of the test plug-in for the mechanism; the texts
// are kept by the description.
struct TestPluginDescription {
    TestPluginDescription(const std::string &mechanism, const char *init_func, const char *args,
                          const std::string &path = TestPluginSlPath());
    LDAPPluginInfo info();
    std::string type = "sasl", mechanism, path, init_func, args;
    bool has_init, has_args;
};

// Writes ornldap.conf with these lines into a directory of its own and
// points ORNLDAP_CONF at that directory for the object's lifetime.
class ConfFile {
public:
    explicit ConfFile(const std::string &text);
    const std::string &dir() const { return dir_.path(); }

private:
    TempDir dir_;
    ScopedEnv env_;
};

} // namespace zldap_test

#endif
