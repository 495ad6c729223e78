// zldapsearch - searches a directory and prints the entries as LDIF. Built
// on the exported zor_ functions (and the SASL bind, see CMakeLists.txt).
#include "ldif.h"
#include "session.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *kProgram = "zldapsearch";

int usage()
{
    std::fprintf(stderr,
                 "usage: zldapsearch [-H ldap://host:port | -h host -p port] [-D binddn -w password]\n"
                 "                   [-Y mechanism [-U authcid] [-X authzid] [-R realm] [-w password]]\n"
                 "                   -b base [-s base|one|sub] [-z sizelimit] [-l timelimit]\n"
                 "                   [-t timeout] [-o nettimeout=seconds] filter [attribute ...]\n");
    return LDAP_PARAM_ERROR;
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

// Exits with the result code of the search (or of what failed before it).
int main(int argc, char **argv)
{
    tool::SessionOptions session;
    std::string base, error;
    int scope = LDAP_SCOPE_SUBTREE, sizelimit = 0, timelimit = 0;
    long number = 0;
    std::string letters = std::string(tool::kSessionLetters) + "b:s:z:l:";
    for (int opt; (opt = getopt(argc, argv, letters.c_str())) != -1;) {
        switch (opt) {
        case 'b': base = optarg; break;
        case 's':
            if (std::strcmp(optarg, "base") == 0)
                scope = LDAP_SCOPE_BASE;
            else if (std::strcmp(optarg, "one") == 0)
                scope = LDAP_SCOPE_ONELEVEL;
            else if (std::strcmp(optarg, "sub") == 0)
                scope = LDAP_SCOPE_SUBTREE;
            else
                return usage();
            break;
        case 'z':
        case 'l':
            if (!tool::parse_number(std::string("-") + static_cast<char>(opt), optarg, 0, INT_MAX, &number, &error))
                return tool::complain(kProgram, error, LDAP_PARAM_ERROR);
            (opt == 'z' ? sizelimit : timelimit) = static_cast<int>(number);
            break;
        default:
            if (int rc = tool::take_session_option(opt, optarg, &session, &error); rc != LDAP_SUCCESS)
                return error.empty() ? usage() : tool::complain(kProgram, error, rc);
        }
    }
    if (optind >= argc)
        return usage();
    const char *filter = argv[optind];
    std::vector<char *> attrs(argv + optind + 1, argv + argc);
    attrs.push_back(nullptr);

    if (!session.url.empty() && base.empty()) {
        LDAPURLDesc *desc = nullptr;
        if (zor_ldap_url_parse(session.url.c_str(), &desc) == 0 && desc->lud_dn)
            base = desc->lud_dn;
        zor_ldap_free_urldesc(desc);
    }
    int rc = LDAP_SUCCESS;
    LDAP *ld = tool::open_session(kProgram, session, &rc);
    if (!ld)
        return rc;
    rc = zor_ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &sizelimit);
    if (rc == 0)
        rc = zor_ldap_set_option(ld, LDAP_OPT_TIMELIMIT, &timelimit);
    // The search bounds its own wait; its connect, when no bind made it,
    // is bounded by the session's connect time-out.
    struct timeval tv {session.timeout, 0};
    LDAPMessage *res = nullptr;
    if (rc == 0)
        rc = zor_ldap_search_st(ld, base.c_str(), scope, filter, attrs.data(), 0, session.timeout > 0 ? &tv : nullptr,
                                &res);
    for (LDAPMessage *e = zor_ldap_first_entry(ld, res); e; e = zor_ldap_next_entry(ld, e)) {
        char *dn = zor_ldap_get_dn(ld, e);
        std::fputs(ldif::entry(dn ? dn : "", read_attributes(ld, e)).c_str(), stdout);
        zor_ldap_memfree(dn);
    }
    zor_ldap_msgfree(res);
    std::fflush(stdout);
    if (rc != 0)
        tool::report(kProgram, "search", rc);
    zor_ldap_unbind(ld);
    return rc;
}
