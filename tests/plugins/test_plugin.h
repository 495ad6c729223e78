// test_plugin.h - what the test plug-in recorded, as the tests read it back.
// Its init functions: test_plugin_init and ldap_plugin_init set key 301;
// test_plugin_init_slow does so after 20 ms (overlapping calls would show);
// test_plugin_init_no_bind sets nothing, test_plugin_init_null_bind sets
// 301 to NULL, test_plugin_init_fails returns 1. Its bind function obeys
// the configured arguments: "send" binds through the library and returns
// its code, "return=N" returns N, "close" sets key 302, "gss=N" writes N
// where key 310 points; otherwise it returns 0.
#ifndef ZLDAP_TEST_PLUGIN_H
#define ZLDAP_TEST_PLUGIN_H

#include <cstdint>

struct TestPluginRecord {
    int inits, most_inits_at_once, binds, closes;
    unsigned init_keys[4], keys[16]; // the last init's and bind's block keys, in order
    int init_key_count, key_count;
    intptr_t argc;
    char args[128]; // the last bind's argument vector joined by "|"
    char host[64];
    const void *ld;
};

#endif
