/*
 * zor8ldap_plugin.h - the interface between the library and the SASL
 * mechanism plug-ins it loads: the parameter block and its keys, the
 * plug-in's functions, and the description of a plug-in that the
 * registration takes and the registry copy hands out.
 *
 * A plug-in library exports an init function (named in the configuration
 * file, "ldap_plugin_init" when none is named). The library calls it with a
 * parameter block holding the plug-in's type (key 101); the init function
 * sets key 301 to its bind function and returns 0. A synchronous SASL bind
 * with the plug-in's mechanism then calls the bind function with a block
 * holding the bind's parameters; it returns 0 or a result code. The bind
 * function may set key 302 to a close function, which is called with the
 * same block when the handle is released.
 *
 * Plug-ins reach the block only through its pb_get and pb_set members, the
 * directory server only through pb_sasl_bind_s (and pb_bvfree for what it
 * hands out) and the trace log only through pb_trace: a plug-in needs no
 * symbol of the library.
 */
#ifndef ZOR8LDAP_PLUGIN_H
#define ZOR8LDAP_PLUGIN_H

#include "zor8ldap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Parameter block keys. Texts, the argument vector, the credentials and
 * the controls belong to the library and stay valid only while the
 * function they are given to runs. */
#define LDAP_PLUGIN_TYPE            101 /* char *: the plug-in's type ("sasl") */
#define LDAP_PLUGIN_ARGV            102 /* char **: the configured arguments, NULL-terminated */
#define LDAP_PLUGIN_ARGC            103 /* intptr_t: the number of arguments, at most 64 */
#define LDAP_PLUGIN_LD              106 /* LDAP *: the handle */
#define LDAP_PLUGIN_HOST            107 /* char *: the handle's host list */
#define LDAP_PLUGIN_BIND_DN         201 /* char *: the bind DN (not for GSSAPI) */
#define LDAP_PLUGIN_CREDENTIALS     202 /* struct berval *: the caller's credentials */
#define LDAP_PLUGIN_MECHANISM       204 /* char *: the SASL mechanism */
#define LDAP_PLUGIN_CLIENT_CONTROLS 205 /* LDAPControl ** */
#define LDAP_PLUGIN_SERVER_CONTROLS 206 /* LDAPControl ** */
#define LDAP_PLUGIN_GSS_OPTION      208 /* uintptr_t: the handle's GSSAPI option (GSSAPI only) */
#define LDAP_PLUGIN_BIND_FN         301 /* LDAPPluginFunc: set by the init function */
#define LDAP_PLUGIN_CLOSE_FN        302 /* LDAPPluginFunc: set by the plug-in, called at release */
#define LDAP_PLUGIN_GSS_RESULT      310 /* uint32_t *: where the plug-in writes its GSSAPI result */

/* The most arguments a plug-in is given. */
#define LDAP_PLUGIN_MAX_ARGS 64
/* The most registry entries a copy of the registry holds. */
#define LDAP_PLUGIN_MAX_ENTRIES 63

typedef struct ldap_plugin_block LDAPPluginBlock;

/* The init, bind and close functions of a plug-in: 0 or a result code. */
typedef int (*LDAPPluginFunc)(LDAPPluginBlock *pb);

/* One (key, value) pair of a block. */
struct ldap_plugin_pair {
    unsigned int pp_key;
    void *pp_value;
};

struct ldap_plugin_block {
    /* 0 with *value set, or -1 when the key is absent. */
    int (*pb_get)(LDAPPluginBlock *pb, unsigned int key, void **value);
    /* Replaces the value of a key that is present, else appends the pair:
     * 0, or -1 when the block can't grow. */
    int (*pb_set)(LDAPPluginBlock *pb, unsigned int key, void *value);
    /* Sends a SASL bind request on the handle's connection with the
     * server controls given and waits for the response: the result code,
     * with the server's credentials in *servercredp when it is not NULL
     * (release them with pb_bvfree). Set in the blocks of binds only. */
    int (*pb_sasl_bind_s)(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                          LDAPControl **serverctrls, struct berval **servercredp);
    /* Releases server credentials that pb_sasl_bind_s handed out; accepts
     * NULL. Set together with pb_sasl_bind_s. */
    void (*pb_bvfree)(struct berval *bv);
    /* Writes one line to the library's trace log when the trace level
     * shows the category mask (0xC8010000 flow, 0xC8110000 errors). */
    void (*pb_trace)(unsigned int mask, const char *format, ...);
    /* The library's own: the pairs in the order their keys were first set. */
    struct ldap_plugin_pair *pb_pairs;
    unsigned int pb_count;
    unsigned int pb_capacity;
};

/* A plug-in as ldap_register_plugin takes it and the registry copy hands
 * it out. */
typedef struct ldap_plugin_info {
    char *lp_type;      /* "sasl" for SASL mechanisms */
    char *lp_name;      /* the mechanism */
    char *lp_path;      /* the library; see ldap_register_plugin for the name rule */
    char *lp_init_func; /* NULL: "ldap_plugin_init" */
    char *lp_args;      /* NULL or the arguments, separated by blanks or tabs */
} LDAPPluginInfo;

#ifdef __cplusplus
}
#endif

#endif
