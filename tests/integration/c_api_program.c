/*
 * c_api_program.c - a C program on the published functions: it takes an
 * LDAP URL, runs the URL's search asynchronously with ldap_search_ext and
 * collects the answers one by one with ldap_result. Compiled as C99 with
 * the public headers alone, it shows that C reaches the static library.
 *
 * Output: one "dn: <dn> (<n> values of <first attribute>)" line per entry,
 * then "entries: <n>" and "result: <code>". Exit status 0 when the search
 * succeeded, 1 when it ended with another result code, 2 on a failed call.
 */
#include "zor8ldap_api.h"

#include <stdio.h>

/* Generous: slapd on loopback answers in milliseconds. */
enum { kWaitSeconds = 30 };

static int failed(LDAP *ld, const char *call, int code)
{
    fprintf(stderr, "%s: %d (%s)\n", call, code, ldap_err2string(code));
    if (ld)
        ldap_unbind(ld);
    return 2;
}

static void print_entry(LDAP *ld, LDAPMessage *entry)
{
    BerElement *cursor = NULL;
    char *dn = ldap_get_dn(ld, entry);
    char *attr = ldap_first_attribute(ld, entry, &cursor);
    struct berval **values = attr ? ldap_get_values_len(ld, entry, attr) : NULL;
    printf("dn: %s (%d values of %s)\n", dn ? dn : "<none>", ldap_count_values_len(values),
           attr ? attr : "<none>");
    ldap_value_free_len(values);
    ldap_memfree(attr);
    ldap_ber_free(cursor, 0);
    ldap_memfree(dn);
}

/* Collects the search's answers one at a time: the result code of its
 * final response, or -1 when ldap_result fails or times out. */
static int collect(LDAP *ld, int msgid, int *entries)
{
    for (;;) {
        struct timeval wait = {kWaitSeconds, 0};
        LDAPMessage *msg = NULL;
        int type = ldap_result(ld, msgid, LDAP_MSG_ONE, &wait, &msg);
        if (type <= 0)
            return -1;
        if (type == LDAP_RES_SEARCH_ENTRY) {
            print_entry(ld, msg);
            ++*entries;
        } else if (type == LDAP_RES_SEARCH_RESULT) {
            return ldap_result2error(ld, msg, 1);
        }
        ldap_msgfree(msg);
    }
}

int main(int argc, char **argv)
{
    LDAPURLDesc *url = NULL;
    LDAP *ld = NULL;
    int version = LDAP_VERSION3;
    int msgid = -1;
    int entries = 0;
    int rc;

    if (argc != 2) {
        fprintf(stderr, "usage: %s ldap://host:port/base?attrs?scope?filter\n", argv[0]);
        return 2;
    }
    rc = ldap_url_parse(argv[1], &url);
    if (rc != LDAP_SUCCESS)
        return failed(NULL, "ldap_url_parse", rc);
    ld = ldap_init(url->lud_host, url->lud_port);
    if (!ld) {
        ldap_free_urldesc(url);
        return failed(NULL, "ldap_init", LDAP_PARAM_ERROR);
    }
    rc = ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (rc == LDAP_SUCCESS)
        rc = ldap_search_ext(ld, url->lud_dn, url->lud_scope, url->lud_filter, url->lud_attrs, 0, NULL, NULL,
                             NULL, 0, &msgid);
    ldap_free_urldesc(url);
    if (rc != LDAP_SUCCESS)
        return failed(ld, "ldap_search_ext", rc);
    rc = collect(ld, msgid, &entries);
    if (rc < 0)
        return failed(ld, "ldap_result", ldap_get_errno(ld));
    printf("entries: %d\nresult: %d\n", entries, rc);
    ldap_unbind(ld);
    return rc == LDAP_SUCCESS ? 0 : 1;
}
