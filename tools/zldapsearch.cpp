// zldapsearch - searches a directory and prints the entries as LDIF. Built
// only on the exported functions of libzor8ldap_64.so.
#include "ldif.h"
#include "zor8ldap.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

void usage()
{
    std::fprintf(stderr,
                 "usage: zldapsearch [-H url | -h host -p port] [-D binddn -w password] -b base\n"
                 "                   [-s base|one|sub] [-z sizelimit] [-l timelimit] [-t timeout]\n"
                 "                   filter [attribute ...]\n");
}

int fail(const char *what, int code)
{
    std::fprintf(stderr, "zldapsearch: %s: %s (%d)\n", what, zor_ldap_err2string(code), code);
    return code;
}

// The entry's attributes and values as the walk hands them out.
ldif::Attributes read_attributes(LDAP *ld, LDAPMessage *entry)
{
    ldif::Attributes attributes;
    BerElement *cursor = nullptr;
    for (char *name = zor_ldap_first_attribute(ld, entry, &cursor); name;
         name = zor_ldap_next_attribute(ld, entry, cursor)) {
        ldif::Values values;
        struct berval **vals = zor_ldap_get_values_len(ld, entry, name);
        for (int i = 0; vals && vals[i]; i++)
            values.emplace_back(vals[i]->bv_val, vals[i]->bv_len);
        zor_ldap_value_free_len(vals);
        attributes.emplace_back(name, std::move(values));
        zor_ldap_memfree(name);
    }
    zor_ldap_ber_free(cursor, 0);
    return attributes;
}

} // namespace

int main(int argc, char **argv)
{
    std::string url, host = "localhost", binddn, password, base;
    int port = LDAP_PORT, scope = LDAP_SCOPE_SUBTREE, sizelimit = 0, timelimit = 0, timeout = -1;
    bool have_password = false;
    for (int opt; (opt = getopt(argc, argv, "H:h:p:D:w:b:s:z:l:t:")) != -1;) {
        switch (opt) {
        case 'H': url = optarg; break;
        case 'h': host = optarg; break;
        case 'p': port = std::atoi(optarg); break;
        case 'D': binddn = optarg; break;
        case 'w': password = optarg; have_password = true; break;
        case 'b': base = optarg; break;
        case 's':
            if (std::strcmp(optarg, "base") == 0)
                scope = LDAP_SCOPE_BASE;
            else if (std::strcmp(optarg, "one") == 0)
                scope = LDAP_SCOPE_ONELEVEL;
            else if (std::strcmp(optarg, "sub") == 0)
                scope = LDAP_SCOPE_SUBTREE;
            else {
                usage();
                return LDAP_PARAM_ERROR;
            }
            break;
        case 'z': sizelimit = std::atoi(optarg); break;
        case 'l': timelimit = std::atoi(optarg); break;
        case 't': timeout = std::atoi(optarg); break;
        default: usage(); return LDAP_PARAM_ERROR;
        }
    }
    if (optind >= argc) {
        usage();
        return LDAP_PARAM_ERROR;
    }
    const char *filter = argv[optind];
    std::vector<char *> attrs(argv + optind + 1, argv + argc);
    attrs.push_back(nullptr);

    if (!url.empty() && base.empty()) {
        LDAPURLDesc *desc = nullptr;
        if (zor_ldap_url_parse(url.c_str(), &desc) == 0 && desc->lud_dn)
            base = desc->lud_dn;
        zor_ldap_free_urldesc(desc);
    }
    LDAP *ld = url.empty() ? zor_ldap_init(host.c_str(), port) : zor_ldap_init(url.c_str(), 0);
    if (!ld) {
        std::fprintf(stderr, "zldapsearch: cannot make a session for %s\n", url.empty() ? host.c_str() : url.c_str());
        return LDAP_PARAM_ERROR;
    }
    int rc = zor_ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &sizelimit);
    if (rc == 0)
        rc = zor_ldap_set_option(ld, LDAP_OPT_TIMELIMIT, &timelimit);
    if (rc == 0 && !binddn.empty())
        rc = zor_ldap_simple_bind_s(ld, binddn.c_str(), have_password ? password.c_str() : "");
    if (rc != 0) {
        rc = fail("bind", rc);
        zor_ldap_unbind(ld);
        return rc;
    }
    struct timeval tv {timeout, 0};
    LDAPMessage *res = nullptr;
    rc = zor_ldap_search_st(ld, base.c_str(), scope, filter, attrs.data(), 0, timeout >= 0 ? &tv : nullptr, &res);
    for (LDAPMessage *e = zor_ldap_first_entry(ld, res); e; e = zor_ldap_next_entry(ld, e)) {
        char *dn = zor_ldap_get_dn(ld, e);
        std::fputs(ldif::entry(dn ? dn : "", read_attributes(ld, e)).c_str(), stdout);
        zor_ldap_memfree(dn);
    }
    zor_ldap_msgfree(res);
    std::fflush(stdout);
    if (rc != 0)
        rc = fail("search", rc);
    zor_ldap_unbind(ld);
    return rc;
}
