/*
 * zor8ldap.h - the public interface of libzor8ldap_64.so: the exported
 * zor_ family, the published record types and every published constant
 * (result codes, option numbers, scopes, message types).
 */
#ifndef ZOR8LDAP_H
#define ZOR8LDAP_H

#include <stddef.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------ */
/* BER basics                                                          */
/* ------------------------------------------------------------------ */

typedef unsigned long ber_tag_t; /* 64 bits */
typedef unsigned long ber_len_t; /* 64 bits */

/* The all-ones tag: "no tag given" in an element, failure as a result. */
#define LBER_DEFAULT ((ber_tag_t)-1)
#define LBER_ERROR   ((ber_tag_t)-1)

/* A length and its bytes. Values made by the codec carry a NUL after
 * bv_len that the length does not count. */
struct berval {
    ber_len_t bv_len;
    char *bv_val;
};

typedef struct berelement BerElement;

/* ------------------------------------------------------------------ */
/* Opaque session and message records                                  */
/* ------------------------------------------------------------------ */

typedef struct ldap LDAP;
typedef struct ldapmsg LDAPMessage;

/* ------------------------------------------------------------------ */
/* Published records                                                   */
/* ------------------------------------------------------------------ */

typedef struct ldapcontrol {
    char *ldctl_oid;
    struct berval ldctl_value; /* bv_val NULL when the control has none */
    int ldctl_iscritical;
} LDAPControl;

#define LDAP_MOD_ADD     0x00
#define LDAP_MOD_DELETE  0x01
#define LDAP_MOD_REPLACE 0x02
#define LDAP_MOD_BVALUES 0x80

typedef struct ldapmod {
    int mod_op;
    char *mod_type;
    union {
        char **modv_strvals;
        struct berval **modv_bvals;
    } mod_vals;
} LDAPMod;
#define mod_values  mod_vals.modv_strvals
#define mod_bvalues mod_vals.modv_bvals

typedef struct ldap_url_desc {
    char *lud_scheme;
    char *lud_host;
    int lud_port;
    char *lud_dn;
    char **lud_attrs;
    int lud_scope;
    char *lud_filter;
    char *lud_string;
} LDAPURLDesc;

/* Option 20. */
#define LDAP_API_INFO_VERSION 1
typedef struct ldapapiinfo {
    int ldapai_info_version;
    int ldapai_api_version;
    int ldapai_protocol_version;
    char **ldapai_extensions;
    char *ldapai_vendor_name;
    int ldapai_vendor_version;
} LDAPAPIInfo;

/* Option 21. */
#define LDAP_FEATURE_INFO_VERSION 1
typedef struct ldap_apifeature_info {
    int ldapaif_info_version;
    char *ldapaif_name;
    int ldapaif_version;
} LDAPAPIFeatureInfo;

/* Referral rebind procedure (option 9). */
typedef int (*LDAP_REBIND_PROC)(LDAP *ld, char **dnp, char **passwdp,
                                int *authmethodp, int freeit);

/* ------------------------------------------------------------------ */
/* Protocol constants                                                  */
/* ------------------------------------------------------------------ */

#define LDAP_PORT  389
#define LDAPS_PORT 636

#define LDAP_VERSION2 2
#define LDAP_VERSION3 3

#define LDAP_SCOPE_BASE     0
#define LDAP_SCOPE_ONELEVEL 1
#define LDAP_SCOPE_SUBTREE  2

#define LDAP_DEREF_NEVER     0
#define LDAP_DEREF_SEARCHING 1
#define LDAP_DEREF_FINDING   2
#define LDAP_DEREF_ALWAYS    3

#define LDAP_AUTH_NONE   0x00
#define LDAP_AUTH_SIMPLE 0x80
#define LDAP_AUTH_SASL   0xA3

#define LDAP_RES_BIND             0x61
#define LDAP_RES_SEARCH_ENTRY     0x64
#define LDAP_RES_SEARCH_RESULT    0x65
#define LDAP_RES_MODIFY           0x67
#define LDAP_RES_ADD              0x69
#define LDAP_RES_DELETE           0x6B
#define LDAP_RES_MODRDN           0x6D
#define LDAP_RES_COMPARE          0x6F
#define LDAP_RES_SEARCH_REFERENCE 0x73
#define LDAP_RES_EXTENDED         0x78
#define LDAP_RES_ANY              (-1)

#define LDAP_MSG_ONE      0
#define LDAP_MSG_ALL      1
#define LDAP_MSG_RECEIVED 2

/* ------------------------------------------------------------------ */
/* Options                                                             */
/* ------------------------------------------------------------------ */

#define LDAP_OPT_SIZELIMIT             0
#define LDAP_OPT_TIMELIMIT             1
#define LDAP_OPT_REFERRALS             2
#define LDAP_OPT_DEREF                 3
#define LDAP_OPT_RESTART               4
#define LDAP_OPT_HOP_LIMIT             5
#define LDAP_OPT_TRACE_LEVEL           6
#define LDAP_OPT_CIPHER_SPECS          7
#define LDAP_OPT_SECURE_TIMEOUT        8
#define LDAP_OPT_REBIND_PROC           9
#define LDAP_OPT_SECURE_IN_USE         10
#define LDAP_OPT_CLEAR_IN_USE          11
#define LDAP_OPT_PROTOCOL_VERSION      17
#define LDAP_OPT_SERVER_CONTROLS       18
#define LDAP_OPT_CLIENT_CONTROLS       19
#define LDAP_OPT_API_INFO              20
#define LDAP_OPT_API_FEATURE_INFO      21
#define LDAP_OPT_HOST_NAME             48
#define LDAP_OPT_ERROR_NUMBER          49
#define LDAP_OPT_ERROR_STRING          50
#define LDAP_OPT_SECURE_REASON         51
#define LDAP_OPT_SPARE_FLAG            52
#define LDAP_OPT_HOP_LIMIT_ALT         53
#define LDAP_OPT_GSS_OPTION            54
#define LDAP_OPT_GSS_RESULT            55
#define LDAP_OPT_PEER_ALT_NAME_1       56
#define LDAP_OPT_PEER_ALT_NAME_2       57
#define LDAP_OPT_SECURE_CIPHER_IN_USE  64
#define LDAP_OPT_SECURE_KEY_DATABASE   65
#define LDAP_OPT_SECURE_CLIENT_LABEL   66
#define LDAP_OPT_SECURE_SESSION        69
#define LDAP_OPT_CONNECT_TIMEOUT       70
#define LDAP_OPT_SECURE_PROTOCOLS      152
#define LDAP_OPT_CIPHER_SPECS_TLS12    153
#define LDAP_OPT_NO_TRANSLATION        224

#define LDAP_OPT_ON  ((void *)1)
#define LDAP_OPT_OFF ((void *)0)

/* ------------------------------------------------------------------ */
/* Result codes                                                        */
/* ------------------------------------------------------------------ */

#define LDAP_SUCCESS                        0x00
#define LDAP_OPERATIONS_ERROR               0x01
#define LDAP_PROTOCOL_ERROR                 0x02
#define LDAP_TIMELIMIT_EXCEEDED             0x03
#define LDAP_SIZELIMIT_EXCEEDED             0x04
#define LDAP_COMPARE_FALSE                  0x05
#define LDAP_COMPARE_TRUE                   0x06
#define LDAP_STRONG_AUTH_NOT_SUPPORTED      0x07
#define LDAP_STRONG_AUTH_REQUIRED           0x08
#define LDAP_PARTIAL_RESULTS                0x09
#define LDAP_REFERRAL                       0x0A
#define LDAP_ADMINLIMIT_EXCEEDED            0x0B
#define LDAP_UNAVAILABLE_CRITICAL_EXTENSION 0x0C
#define LDAP_CONFIDENTIALITY_REQUIRED       0x0D
#define LDAP_SASL_BIND_IN_PROGRESS          0x0E
#define LDAP_NO_SUCH_ATTRIBUTE              0x10
#define LDAP_UNDEFINED_TYPE                 0x11
#define LDAP_INAPPROPRIATE_MATCHING         0x12
#define LDAP_CONSTRAINT_VIOLATION           0x13
#define LDAP_TYPE_OR_VALUE_EXISTS           0x14
#define LDAP_INVALID_SYNTAX                 0x15
#define LDAP_NO_SUCH_OBJECT                 0x20
#define LDAP_ALIAS_PROBLEM                  0x21
#define LDAP_INVALID_DN_SYNTAX              0x22
#define LDAP_IS_LEAF                        0x23
#define LDAP_ALIAS_DEREF_PROBLEM            0x24
#define LDAP_INAPPROPRIATE_AUTH             0x30
#define LDAP_INVALID_CREDENTIALS            0x31
#define LDAP_INSUFFICIENT_ACCESS            0x32
#define LDAP_BUSY                           0x33
#define LDAP_UNAVAILABLE                    0x34
#define LDAP_UNWILLING_TO_PERFORM           0x35
#define LDAP_LOOP_DETECT                    0x36
#define LDAP_SORT_CONTROL_MISSING           0x3C
#define LDAP_INDEX_RANGE_ERROR              0x3D
#define LDAP_NAMING_VIOLATION               0x40
#define LDAP_OBJECT_CLASS_VIOLATION         0x41
#define LDAP_NOT_ALLOWED_ON_NONLEAF         0x42
#define LDAP_NOT_ALLOWED_ON_RDN             0x43
#define LDAP_ALREADY_EXISTS                 0x44
#define LDAP_NO_OBJECT_CLASS_MODS           0x45
#define LDAP_RESULTS_TOO_LARGE              0x46
#define LDAP_AFFECTS_MULTIPLE_DSAS          0x47
#define LDAP_OTHER                          0x50
#define LDAP_SERVER_DOWN                    0x51
#define LDAP_LOCAL_ERROR                    0x52
#define LDAP_ENCODING_ERROR                 0x53
#define LDAP_DECODING_ERROR                 0x54
#define LDAP_TIMEOUT                        0x55
#define LDAP_AUTH_UNKNOWN                   0x56
#define LDAP_FILTER_ERROR                   0x57
#define LDAP_USER_CANCELLED                 0x58
#define LDAP_PARAM_ERROR                    0x59
#define LDAP_NO_MEMORY                      0x5A
#define LDAP_CONNECT_ERROR                  0x5B
#define LDAP_NOT_SUPPORTED                  0x5C
#define LDAP_CONTROL_NOT_FOUND              0x5D
#define LDAP_NO_RESULTS_RETURNED            0x5E
#define LDAP_MORE_RESULTS_TO_RETURN         0x5F
#define LDAP_URL_NOT_LDAP                   0x60
#define LDAP_URL_NO_DN                      0x61
#define LDAP_URL_BAD_SCOPE                  0x62
#define LDAP_URL_NO_MEMORY                  0x63
#define LDAP_CLIENT_LOOP                    0x64
#define LDAP_REFERRAL_LIMIT_EXCEEDED        0x65
#define LDAP_SECURE_INIT_DONE               0x70
#define LDAP_SECURE_INIT_FAILED             0x71
#define LDAP_SECURE_INIT_MISSING            0x72
#define LDAP_SECURE_BAD_PARAM               0x73
#define LDAP_SECURE_CONNECT_FAILED          0x74
#define LDAP_SECURE_LEVEL_UNKNOWN           0x75
#define LDAP_SECURE_LIB_MISSING             0x76
#define LDAP_SECURE_KEYRING_MISSING         0x77
#define LDAP_SECURE_PASSWORD_MISSING        0x78
#define LDAP_ASSERTION_UNMET                0x7A
#define LDAP_OWNER_NOT_FOUND                0x80
#define LDAP_LOCK_ERROR                     0x81
#define LDAP_DNS_SERVERS_FOUND              0x85
#define LDAP_DNS_TRUNCATED                  0x86
#define LDAP_DNS_BAD_DATA                   0x87
#define LDAP_DNS_NO_DOMAIN                  0x88
#define LDAP_DNS_CONFIG_ERROR               0x89
#define LDAP_XLATE_OUTPUT_OVERFLOW          0xA0
#define LDAP_XLATE_INPUT_TRUNCATED          0xA1
#define LDAP_XLATE_BAD_CHARACTER            0xA2
#define LDAP_XLATE_NO_MAPPING               0xA3
#define LDAP_REGISTRY_FILE_MISSING          0xB0
#define LDAP_REGISTRY_OPEN_FAILED           0xB1
#define LDAP_REGISTRY_ENTRY_MISSING         0xB2
#define LDAP_PLUGIN_CONF_NOT_OPENED         0xC0
#define LDAP_PLUGIN_NOT_LOADED              0xC1
#define LDAP_PLUGIN_FUNC_NOT_RESOLVED       0xC2
#define LDAP_PLUGIN_NOT_INITIALIZED         0xC3
#define LDAP_PLUGIN_COULD_NOT_BIND          0xC4
#define LDAP_GSS_INIT_FAILED                0xD0

/* ------------------------------------------------------------------ */
/* The exported family (symbol version zor8)                           */
/* ------------------------------------------------------------------ */

LDAP *zor_ldap_init(const char *host, int port);
int zor_ldap_msgfree(LDAPMessage *res);
char *zor_ldap_err2string(int err);
int zor_ldap_set_option(LDAP *ld, int option, const void *invalue);
int zor_ldap_simple_bind_s(LDAP *ld, const char *dn, const char *passwd);
int zor_ldap_unbind(LDAP *ld);
int zor_ldap_search_st(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                       int attrsonly, struct timeval *timeout, LDAPMessage **res);
int zor_ldap_url_parse(const char *url, LDAPURLDesc **ludpp);
void zor_ldap_free_urldesc(LDAPURLDesc *ludp);
int zor_ldap_count_entries(LDAP *ld, LDAPMessage *res);
int zor_ldap_add_s(LDAP *ld, const char *dn, LDAPMod **attrs);
int zor_ldap_delete_s(LDAP *ld, const char *dn);
int zor_ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods);
/* Renames with no new superior and no controls; deleteoldrdn as given. */
int zor_ldap_modrdn_s(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn);
LDAPMessage *zor_ldap_first_entry(LDAP *ld, LDAPMessage *res);
LDAPMessage *zor_ldap_next_entry(LDAP *ld, LDAPMessage *entry);
char *zor_ldap_get_dn(LDAP *ld, LDAPMessage *entry);
void zor_ldap_memfree(void *p);
char *zor_ldap_first_attribute(LDAP *ld, LDAPMessage *entry, BerElement **ber);
char *zor_ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *ber);
struct berval **zor_ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *attr);
void zor_ldap_value_free_len(struct berval **values);
int zor_ldap_get_errno(LDAP *ld);
/* Releases the cursor only: it never owns the buffer it walks. */
void zor_ldap_ber_free(BerElement *ber, int freebuf);

/* The file the library was loaded from, canonicalised; release with free(). */
char *zorldap_loaded_from(void);

extern const char zorldap_Copyright[];
extern const char zorldap_SCCSInfo[];

#ifdef __cplusplus
}
#endif

#endif /* ZOR8LDAP_H */
