// test_plugin.h - what the test plug-in saw, as the tests read it back. The
// plug-in's init functions differ in what they do:
//   test_plugin_init            sets key 301 to the bind function
//   ldap_plugin_init            the same
//   test_plugin_init_slow       the same, after 20 ms, so that overlapping
//                               calls from several threads would show
//   test_plugin_init_no_bind    sets nothing
//   test_plugin_init_null_bind  sets key 301 to NULL
//   test_plugin_init_fails      returns 1
// The bind function takes its orders from the configured arguments:
//   send       binds through the library (pb_sasl_bind_s) and returns its code
//   return=N   returns N
//   close      sets key 302 to the close function
//   gss=N      writes N where key 310 points
// Without "send" or "return=" it returns 0.
#ifndef ZLDAP_TEST_PLUGIN_H
#define ZLDAP_TEST_PLUGIN_H

#include <cstdint>

struct TestPluginRecord {
    int inits;              // init calls
    int most_inits_at_once; // the most init calls that ever ran at the same time
    int binds;
    int closes;
    bool close_saw_a_bind_block; // every close got a block a bind had been given
    unsigned init_keys[4];  // the keys of the last init's block, in order
    int init_key_count;
    unsigned keys[16];      // the keys of the last bind's block, in order
    int key_count;
    char type[16];
    char mechanism[32];
    char dn[32];
    char host[64];
    const void *ld;
    intptr_t argc;
    char args[128];         // the argument vector joined by "|"
    uintptr_t gss_option;
};

// The functions the tests resolve in the loaded plug-in.
using TestPluginReadFn = void (*)(TestPluginRecord *);
using TestPluginResetFn = void (*)();

#endif
