// ldap_init_conn.cpp - creating and releasing connection records: the host
// list, the message table and the three locks of one server connection.
#include "conn/ldap_connect.h"

#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"
#include "core/plugin_block.h"
#include "message/ldap_table.h"
#include "proto/ldap_controls.h"
#include "tls/ldap_ssl_connect.h"

#define LDAP_MODULE "libraries/libldap/ldap_init"

LDAPConn *ldap_lc_init(const char *hosts, int port, int table_rows)
{
    LDAPConn *lc = static_cast<LDAPConn *>(zldap::mem_calloc(1, sizeof(LDAPConn)));
    if (!lc)
        return nullptr;
    lc->lconn_sb.sd = -1;
    lc->lconn_msgtable = ldap_msg_table_init(static_cast<uint32_t>(table_rows));
    if (!lc->lconn_msgtable) {
        zldap::mem_free(lc);
        return nullptr;
    }
    lc->lconn_msgtable->connection = lc;
    lc->lconn_hosts = zldap::mem_strdup(hosts ? hosts : "localhost");
    lc->lconn_port = static_cast<uint16_t>(port);
    lc->lconn_state = 0;
    if (!lc->lconn_hosts) {
        ldap_lc_free(lc);
        return nullptr;
    }
    struct {
        pthread_mutex_t *mutex;
        uint32_t bit;
    } const locks[] = {{&lc->lconn_read_mutex, LC_LOCK_READ},
                       {&lc->lconn_write_mutex, LC_LOCK_WRITE},
                       {&lc->lconn_ctrls_mutex, LC_LOCK_CTRLS}};
    for (const auto &lock : locks) {
        int rc = LDAP_MUTEX_INIT(lock.mutex);
        if (rc != 0) {
            LDAP_TRACE(TRC_ERROR,
                       "ldap_lc_init: failed to initialize mutex rc = %d - File %s line %d\n", rc,
                       LDAP_MODULE, __LINE__);
            ldap_lc_free(lc);
            return nullptr;
        }
        lc->lconn_locks_made |= lock.bit;
    }
    return lc;
}

void ldap_lc_free(LDAPConn *lc)
{
    while (lc) {
        LDAPConn *next = lc->lconn_next;
        zldap::mem_free(lc->lconn_hosts);
        zldap::mem_free(lc->lconn_peer);
        if (lc->lconn_connected == 1) {
            if (lc->lconn_sb.secure)
                ssl_close_direct(&lc->lconn_sb);
            close_connection_sd(&lc->lconn_sb);
        }
        ldap_msg_table_free(lc->lconn_msgtable);
        ldap_controls_free(lc->lconn_ctrls);
        ldap_plugin_block_free(lc->lconn_plugin_block);
        pthread_mutex_t *locks[] = {&lc->lconn_read_mutex, &lc->lconn_write_mutex,
                                    &lc->lconn_ctrls_mutex};
        uint32_t bits[] = {LC_LOCK_READ, LC_LOCK_WRITE, LC_LOCK_CTRLS};
        for (int i = 0; i < 3; i++) {
            if (!(lc->lconn_locks_made & bits[i]))
                continue;
            int rc = pthread_mutex_destroy(locks[i]);
            if (rc != 0)
                LDAP_TRACE(TRC_ERROR,
                           "ldap_ld_free: Error in pthread_mutex_destroy File %s, Line %d, errno %d\n",
                           LDAP_MODULE, __LINE__, rc);
        }
        zldap::mem_free(lc);
        lc = next;
    }
}
