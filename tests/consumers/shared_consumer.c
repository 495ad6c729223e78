/* A C program on the exported family of the installed shared object:
 * searches what the LDAP URL given to it names and prints where the
 * library was loaded from, each entry's DN and the result code. */
#include <zor8ldap.h>

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv)
{
    LDAPURLDesc *url = NULL;
    if (argc != 2 || zor_ldap_url_parse(argv[1], &url) != LDAP_SUCCESS)
        return 2;
    char *from = zorldap_loaded_from();
    printf("loaded from %s\n", from ? from : "(unknown)");
    free(from);
    LDAP *ld = zor_ldap_init(url->lud_host, url->lud_port);
    LDAPMessage *res = NULL;
    int rc = zor_ldap_search_st(ld, url->lud_dn, url->lud_scope, url->lud_filter, url->lud_attrs, 0, NULL, &res);
    for (LDAPMessage *entry = zor_ldap_first_entry(ld, res); entry; entry = zor_ldap_next_entry(ld, entry)) {
        char *dn = zor_ldap_get_dn(ld, entry);
        printf("dn: %s\n", dn ? dn : "(none)");
        zor_ldap_memfree(dn);
    }
    printf("result: %d\n", rc);
    zor_ldap_msgfree(res);
    zor_ldap_unbind(ld);
    zor_ldap_free_urldesc(url);
    return rc == LDAP_SUCCESS ? 0 : 1;
}
