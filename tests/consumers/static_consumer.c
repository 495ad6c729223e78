/* A C program on the published functions that only the static library
 * offers: an asynchronous search of what the LDAP URL given to it names,
 * collected with ldap_result; prints the number of entries and the code
 * of the final response. */
#include <zor8ldap_api.h>

#include <stdio.h>

int main(int argc, char **argv)
{
    LDAPURLDesc *url = NULL;
    if (argc != 2 || ldap_url_parse(argv[1], &url) != LDAP_SUCCESS)
        return 2;
    LDAP *ld = ldap_init(url->lud_host, url->lud_port);
    LDAPMessage *res = NULL;
    int id = -1, code = -1;
    if (ldap_search_ext(ld, url->lud_dn, url->lud_scope, url->lud_filter, url->lud_attrs, 0, NULL, NULL, NULL, 0,
                        &id) == LDAP_SUCCESS &&
        ldap_result(ld, id, LDAP_MSG_ALL, NULL, &res) > 0)
        ldap_parse_result(ld, res, &code, NULL, NULL, NULL, NULL, 0);
    printf("entries: %d\nresult: %d\n", ldap_count_entries(ld, res), code);
    ldap_msgfree(res);
    ldap_unbind(ld);
    ldap_free_urldesc(url);
    return code == LDAP_SUCCESS ? 0 : 1;
}
