// ldap_bind_plugin.cpp - a synchronous SASL bind handed to the plug-in
// registered (or configured) for its mechanism. The plug-in's bind function
// gets a parameter block with the bind's parameters; the block stays on the
// connection so that the plug-in's close function sees it again when the
// handle is released.
#include "ops/ldap_bind.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "config/plugin_registry.h"
#include "conn/ldap_connect.h"
#include "core/ldap_error.h"
#include "core/plugin_block.h"

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <strings.h>

#define LDAP_MODULE "libraries/libldap/ldap_bind"

namespace {

struct KeyValue {
    unsigned int key;
    const void *value;
};

// Makes pb the connection's block, once the plug-in is done with it: a
// bind running at the same time on the connection may replace it. The block
// it replaces is shown to its close function, if the plug-in set one, and
// released. Should the lock fail, pb itself goes that way.
void attach_block(LDAP *ld, LDAPConn *lc, LDAPPluginBlock *pb)
{
    LDAPPluginBlock *gone = pb;
    {
        LDAP_MUTEX_GUARD(guard, &ld->ld_mutex);
        if (guard.locked()) {
            gone = lc->lconn_plugin_block;
            lc->lconn_plugin_block = pb;
        }
    }
    if (LDAPPluginFunc close = gone ? ldap_plugin_block_func(gone, LDAP_PLUGIN_CLOSE_FN) : nullptr)
        close(gone);
    ldap_plugin_block_free(gone);
}

// The connection's host list becomes the handle's, which is what the
// plug-in is given as its host. Opening the connection reads the list
// under the write lock. 0, 90 or 129.
int use_handle_hosts(LDAP *ld, LDAPConn *lc)
{
    if (!lc->lconn_hosts || !ld->ld_defhost || std::strcmp(lc->lconn_hosts, ld->ld_defhost) == 0)
        return LDAP_SUCCESS;
    char *hosts = zldap::mem_strdup(ld->ld_defhost);
    if (!hosts)
        return LDAP_NO_MEMORY;
    LDAP_MUTEX_GUARD(guard, &lc->lconn_write_mutex);
    if (!guard.locked()) {
        zldap::mem_free(hosts);
        return LDAP_LOCK_ERROR;
    }
    zldap::mem_free(lc->lconn_hosts);
    lc->lconn_hosts = hosts;
    return LDAP_SUCCESS;
}

int set_all(LDAPPluginBlock *pb, std::initializer_list<KeyValue> values)
{
    for (const KeyValue &v : values)
        if (ldap_plugin_block_set(pb, v.key, const_cast<void *>(v.value)) != 0)
            return LDAP_NO_MEMORY;
    return LDAP_SUCCESS;
}

// Fills a block with the bind's parameters and calls the bind function.
int call_bind_function(LDAP *ld, LDAPPluginBlock *pb, const char *dn, const char *mechanism,
                       const struct berval *cred, LDAPControl **serverctrls, LDAPControl **clientctrls,
                       const ldap_plugin_use &use)
{
    const void *argc = reinterpret_cast<const void *>(static_cast<intptr_t>(use.argc));
    int rc = LDAP_SUCCESS;
    if (strcasecmp(mechanism, "GSSAPI") == 0) {
        if (use.init(pb) != 0)
            return LDAP_PLUGIN_NOT_INITIALIZED;
        const void *gss_option = reinterpret_cast<const void *>(static_cast<uintptr_t>(ld->ld_gss_option));
        rc = set_all(pb, {{LDAP_PLUGIN_LD, ld}, {LDAP_PLUGIN_TYPE, use.type}, {LDAP_PLUGIN_ARGC, argc},
                          {LDAP_PLUGIN_ARGV, use.argv}, {LDAP_PLUGIN_MECHANISM, mechanism},
                          {LDAP_PLUGIN_CREDENTIALS, cred}, {LDAP_PLUGIN_SERVER_CONTROLS, serverctrls},
                          {LDAP_PLUGIN_CLIENT_CONTROLS, clientctrls}, {LDAP_PLUGIN_HOST, ld->ld_defhost},
                          {LDAP_PLUGIN_GSS_OPTION, gss_option}, {LDAP_PLUGIN_GSS_RESULT, &ld->ld_gss_result}});
    } else {
        rc = set_all(pb, {{LDAP_PLUGIN_LD, ld}, {LDAP_PLUGIN_TYPE, use.type}, {LDAP_PLUGIN_ARGC, argc},
                          {LDAP_PLUGIN_ARGV, use.argv}, {LDAP_PLUGIN_BIND_DN, dn}, {LDAP_PLUGIN_MECHANISM, mechanism},
                          {LDAP_PLUGIN_CREDENTIALS, cred}, {LDAP_PLUGIN_SERVER_CONTROLS, serverctrls},
                          {LDAP_PLUGIN_CLIENT_CONTROLS, clientctrls}, {LDAP_PLUGIN_HOST, ld->ld_defhost}});
    }
    return rc != LDAP_SUCCESS ? rc : use.bind(pb);
}

// Runs the bind function with a new block that the calling thread's default
// connection then keeps.
int run_bind_function(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                      LDAPControl **serverctrls, LDAPControl **clientctrls, const ldap_plugin_use &use)
{
    LDAPConn *lc = get_default_connection(ld);
    if (!lc)
        return LDAP_LOCK_ERROR;
    LDAPPluginBlock *pb = ldap_plugin_block_new();
    if (!pb)
        return LDAP_NO_MEMORY;
    pb->pb_sasl_bind_s = ldap_sasl_bind_s_direct;
    pb->pb_bvfree = ber_bvfree;
    int rc = use_handle_hosts(ld, lc);
    if (rc == LDAP_SUCCESS)
        rc = call_bind_function(ld, pb, dn, mechanism, cred, serverctrls, clientctrls, use);
    attach_block(ld, lc, pb);
    return rc;
}

} // namespace

int ldap_sasl_bind_call_plugin(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                               LDAPControl **serverctrls, LDAPControl **clientctrls, struct berval **,
                               int async, int *msgidp)
{
    LDAP_TRACE(TRC_API, "ldap_sasl_bind_call_plugin \n");
    ldap_plugin_use use;
    int rc = ldap_plugin_acquire("plugin", "sasl", mechanism, &use);
    if (rc != LDAP_SUCCESS)
        return rc;
    if (!use.bind) {
        LDAP_TRACE(TRC_ERROR, "ldap_sasl_bind_call_plugin: %s bind function not defined in plugin\n",
                   async ? "Asynchronous" : "Synchronous");
        ldap_plugin_use_release(&use);
        return LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
    }
    rc = run_bind_function(ld, dn, mechanism, cred, serverctrls, clientctrls, use);
    // Asynchronously the bind function answers with the message id.
    if (async && rc >= 0) {
        *msgidp = rc;
        rc = LDAP_SUCCESS;
    }
    ldap_plugin_use_release(&use);
    // A plug-in that bound through the library left the server's matched
    // DN and text with the same code: they stay.
    if (ldap_get_errno_direct(ld) != rc)
        ldap_set_error_direct(ld, rc, nullptr, nullptr);
    return rc;
}
