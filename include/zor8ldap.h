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

/* zor_ldap_set_option(ld, option, value) sets an option of the handle ld,
 * or with ld NULL of the process-wide defaults (which handles made later do
 * not copy); ldap_get_option (zor8ldap_api.h) reads one. How set takes the
 * value, as marked after each option:
 *   int *   a pointer to an int on a version-3 handle (the default, and the
 *           defaults record); on a version-2 handle the number itself, cast
 *           to a pointer. LDAP_OPT_PROTOCOL_VERSION takes an int * always.
 *   on/off  the value itself, LDAP_OPT_ON or LDAP_OPT_OFF.
 *   other   the pointer itself (string, array, record, function).
 * Get always takes a pointer to where the value goes: an int for int and
 * on/off options, else the type named. What get hands out is a new copy
 * that the caller releases: strings with ldap_memfree, control arrays with
 * ldap_controls_free, the struct timeval with free. A number not listed,
 * a value out of range and a set of a read-only option (or a get of a
 * write-only one) give LDAP_PARAM_ERROR (89). Defaults after zor_ldap_init
 * in brackets. */
#define LDAP_OPT_SIZELIMIT             0   /* int *: most entries a search returns, 0 no limit [0] */
#define LDAP_OPT_TIMELIMIT             1   /* int *: seconds a search may take, 0 no limit [0] */
#define LDAP_OPT_REFERRALS             2   /* on/off: chase referrals [on] */
#define LDAP_OPT_DEREF                 3   /* int *: LDAP_DEREF_NEVER to LDAP_DEREF_ALWAYS [never] */
#define LDAP_OPT_RESTART               4   /* int *: 1 or 0, stored and reported only [0] */
#define LDAP_OPT_HOP_LIMIT             5   /* int *: most referral hops a request follows [10] */
#define LDAP_OPT_TRACE_LEVEL           6   /* int *: trace mask 0 to 0xFFFF, process-wide (as LDAP_DEBUG) */
/* const char *: a cipher list for SSL V3 and TLS 1.0, checked
 * (LDAP_SECURE_BAD_PARAM when invalid); get: char **, 89 when none is set. */
#define LDAP_OPT_CIPHER_SPECS          7
#define LDAP_OPT_SECURE_TIMEOUT        8   /* int *: secure session time-out, 0 to 86400 s [0] */
#define LDAP_OPT_REBIND_PROC           9   /* LDAP_REBIND_PROC; get: LDAP_REBIND_PROC * [NULL] */
/* Read-only, int *: 1 when the calling thread's connection is secure (CLEAR:
 * when it is not); without a secure connection the int is left as it was. */
#define LDAP_OPT_SECURE_IN_USE         10
#define LDAP_OPT_CLEAR_IN_USE          11
#define LDAP_OPT_PROTOCOL_VERSION      17  /* int * always: LDAP_VERSION2 or LDAP_VERSION3 [3] */
/* LDAPControl **: a NULL-terminated list, copied; NULL removes it. The
 * server controls are sent with every operation that is given none; a
 * critical client control refuses the list with 12. Get: LDAPControl ***,
 * a new copy (ldap_controls_free) or NULL. */
#define LDAP_OPT_SERVER_CONTROLS       18
#define LDAP_OPT_CLIENT_CONTROLS       19
/* Read-only, LDAPAPIInfo * with ldapai_info_version LDAP_API_INFO_VERSION
 * (else 89, and the version written into it); the extensions array and the
 * vendor name are new (ldap_value_free, ldap_memfree). */
#define LDAP_OPT_API_INFO              20
/* Read-only, LDAPAPIFeatureInfo * with ldapaif_info_version
 * LDAP_FEATURE_INFO_VERSION and a name: its version, 0 when unknown. */
#define LDAP_OPT_API_FEATURE_INFO      21
#define LDAP_OPT_HOST_NAME             48  /* read-only, char **: the hosts tried, or NULL */
#define LDAP_OPT_ERROR_NUMBER          49  /* read-only, int *: the calling thread's last result code */
#define LDAP_OPT_ERROR_STRING          50  /* read-only, char **: its error text, or NULL */
#define LDAP_OPT_SECURE_REASON         51  /* read-only, int *: its reason code of a secure failure */
#define LDAP_OPT_SPARE_FLAG            52  /* on/off, stored and reported only [off] */
#define LDAP_OPT_HOP_LIMIT_ALT         53  /* int *: the same setting as LDAP_OPT_HOP_LIMIT */
#define LDAP_OPT_GSS_OPTION            54  /* int *: 2 or 3, for a GSSAPI bind plug-in [0] */
#define LDAP_OPT_GSS_RESULT            55  /* read-only, int *: what that plug-in reported [0] */
/* Read-only, char **: the server certificate's two alternative names; the
 * secure environment's cipher, key database and client certificate label.
 * Refused (89) without a secure connection or environment. */
#define LDAP_OPT_PEER_ALT_NAME_1       56
#define LDAP_OPT_PEER_ALT_NAME_2       57
#define LDAP_OPT_SECURE_CIPHER_IN_USE  64
#define LDAP_OPT_SECURE_KEY_DATABASE   65
#define LDAP_OPT_SECURE_CLIENT_LABEL   66
#define LDAP_OPT_SECURE_SESSION        69  /* read-only, int *: as LDAP_OPT_SECURE_IN_USE */
/* const struct timeval *: bounds each connect, copied; NULL removes it.
 * Get: struct timeval **, a new copy (free) or NULL [NULL: no bound]. */
#define LDAP_OPT_CONNECT_TIMEOUT       70
#define LDAP_OPT_SECURE_PROTOCOLS      152 /* write-only, const char *: protocol names, copied; NULL clears */
/* const char *: a cipher list for TLS 1.2, copied unchecked; NULL
 * clears. Get: char **, 89 when none is set. */
#define LDAP_OPT_CIPHER_SPECS_TLS12    153
/* on/off: on passes strings to and from the server unchanged; off
 * translates them between the local code page and UTF-8 [on]. */
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

/* Each zor_ function is the published function of the same name without
 * the prefix (declared in zor8ldap_api.h, whose ldap_ names the comments
 * here use where no zor_ form exists), called with the same arguments.
 * Those that take a handle refuse NULL, a released one or one being
 * unbound: result codes give LDAP_PARAM_ERROR (89), pointers NULL, counts
 * -1. When a function returns NULL or -1 the reason is the calling
 * thread's last error on the handle (zor_ldap_get_errno). Everything
 * handed out belongs to the caller, who releases it with the function
 * named; release functions accept NULL. Any number of threads may share a
 * handle. */

/* A NULL-terminated list of attribute names, which the library only reads.
 * C keeps the published char **; C++ takes const char *const *, so that a
 * list of string literals needs no cast. Both pass one pointer to the same
 * function. */
#ifdef __cplusplus
typedef const char *const *zor8ldap_attrs;
#else
typedef char **zor8ldap_attrs;
#endif

/* A new handle (release with zor_ldap_unbind), or NULL. host: a host name
 * or address, a blank-separated list of them, each with an optional
 * ":port", or an ldap:// or ldaps:// URL; a URL without a host
 * ("ldap:///dc=example,dc=com") takes the servers under its DN found
 * through DNS service records and the server cache file. NULL names this
 * machine. port: for hosts without one, 0 to 65535 (0: 389). Nothing is
 * sent until the first operation. */
LDAP *zor_ldap_init(const char *host, int port);
/* Releases a result chain, or a message handed out alone; returns its (last)
 * message type, 0 when nothing was released. */
int zor_ldap_msgfree(LDAPMessage *res);
/* The text of a result code, "Unknown error" for codes without one; a
 * constant, never NULL, not to be released. */
char *zor_ldap_err2string(int err);
/* Sets an option of ld, or of the process-wide defaults for NULL; the
 * value's type is given with each LDAP_OPT_ above. 0 or a result code. */
int zor_ldap_set_option(LDAP *ld, int option, const void *invalue);
/* Binds with a DN and password (NULL for both: anonymously) and waits
 * without limit. The server's result code, or the library's. */
int zor_ldap_simple_bind_s(LDAP *ld, const char *dn, const char *passwd);
/* Waits for the handle's running operations, closes its connections and
 * releases it and everything it owns; no unbind request is sent. 0, 89 or
 * 129 (LDAP_LOCK_ERROR). Not to be called from inside an operation on ld. */
int zor_ldap_unbind(LDAP *ld);
/* Searches base (NULL: the empty DN) with a scope (LDAP_SCOPE_), a filter
 * and the attributes named (NULL: all; attrsonly non-zero: names without
 * values), under the handle's size and time limits, and waits for the whole
 * result: timeout NULL waits without limit, an all-zero one polls once.
 * The search's result code; *res receives the chain, also with a server's
 * failure code (release it with zor_ldap_msgfree), and is NULL when none
 * came: after LDAP_TIMEOUT (85) the request goes on at the server and its
 * answer is thrown away when it arrives. */
int zor_ldap_search_st(LDAP *ld, const char *base, int scope, const char *filter, zor8ldap_attrs attrs,
                       int attrsonly, struct timeval *timeout, LDAPMessage **res);
/* Splits an ldap:// or ldaps:// URL into a new *ludpp (release with
 * zor_ldap_free_urldesc), defaults filled in: port 389 or 636, base scope,
 * filter "(objectClass=*)". 0; else LDAP_URL_NOT_LDAP, LDAP_URL_BAD_SCOPE,
 * LDAP_URL_NO_MEMORY or LDAP_INVALID_SYNTAX (a bad port) and *ludpp NULL. */
int zor_ldap_url_parse(const char *url, LDAPURLDesc **ludpp);
void zor_ldap_free_urldesc(LDAPURLDesc *ludp);
/* Searches as an LDAP URL says (base, scope, filter and attributes; the
 * handle's size and time limits), on the URL's server or, without a host,
 * on the handle's, and waits up to timeout (NULL: without limit). 0 with
 * the chain in *res, the search's own result code in its last message;
 * LDAP_TIMEOUT (85), the answer thrown away when it arrives;
 * LDAP_PARAM_ERROR (89) for a malformed URL; else the code that stopped it
 * (LDAP_SERVER_DOWN when the URL's server cannot be reached). */
int zor_ldap_url_search_st(LDAP *ld, const char *url, int attrsonly, struct timeval *timeout, LDAPMessage **res);
/* The number of entries from res to the end of its chain (0 for NULL). */
int zor_ldap_count_entries(LDAP *ld, LDAPMessage *res);
/* Synchronous updates, each waiting without limit for its response: the
 * server's result code, or the library's (89 for a NULL DN or array,
 * nothing sent). An LDAPMod array is NULL-terminated; zor_ldap_add_s looks
 * only at the LDAP_MOD_BVALUES bit of mod_op. */
int zor_ldap_add_s(LDAP *ld, const char *dn, LDAPMod **attrs);
int zor_ldap_delete_s(LDAP *ld, const char *dn);
int zor_ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods);
/* Renames dn to newrdn under the same superior, removing the old RDN's
 * values when deleteoldrdn is non-zero: the server's result code, or -1
 * when it fails before a response (the reason in zor_ldap_get_errno). */
int zor_ldap_modrdn_s(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn);
/* The first entry of a chain (from res on), or the one after entry; NULL
 * when there is none. They point into the chain: release nothing. */
LDAPMessage *zor_ldap_first_entry(LDAP *ld, LDAPMessage *res);
LDAPMessage *zor_ldap_next_entry(LDAP *ld, LDAPMessage *entry);
/* The entry's DN as a new string (release with zor_ldap_memfree), or NULL. */
char *zor_ldap_get_dn(LDAP *ld, LDAPMessage *entry);
/* Releases a string the library handed out. */
void zor_ldap_memfree(void *p);
/* The entry's first attribute name, then each following one, as new strings
 * (zor_ldap_memfree); NULL at the end (error 0) or on failure (the reason
 * in zor_ldap_get_errno). *ber, best set to NULL first, receives a cursor
 * that reads the entry, so it must not outlive the chain; release it with
 * zor_ldap_ber_free once the walk ends, also when the entry had no
 * attributes (a failed zor_ldap_first_attribute leaves none to release). */
char *zor_ldap_first_attribute(LDAP *ld, LDAPMessage *entry, BerElement **ber);
char *zor_ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *ber);
/* The values of the attribute attr (matched in any case) as a new
 * NULL-terminated array (release with zor_ldap_value_free_len), or NULL:
 * error 84 when the entry lacks the attribute. */
struct berval **zor_ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *attr);
void zor_ldap_value_free_len(struct berval **values);
/* The calling thread's last result code on ld; -1 for an unusable handle. */
int zor_ldap_get_errno(LDAP *ld);
/* Releases the cursor only: it never owns the buffer it walks. */
void zor_ldap_ber_free(BerElement *ber, int freebuf);

/* The canonical path of the file the library was loaded from, as a new
 * string (release with free()), or NULL. */
char *zorldap_loaded_from(void);

/* The notice and version texts. */
extern const char zorldap_Copyright[];
extern const char zorldap_SCCSInfo[];

#ifdef __cplusplus
}
#endif

#endif /* ZOR8LDAP_H */
