// zldapsearch - searches a directory and prints the entries as LDIF, with
// the options and output styles of ldapsearch. Built on the published
// interface of the static library (see CMakeLists.txt).
#include "filter_check.h"
#include "search_output.h"
#include "session.h"
#include "zor8ldap_api.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *kProgram = "zldapsearch";
constexpr const char *kDefaultFilter = "(objectclass=*)";

const char kUsage[] =
    "usage: zldapsearch [options] [filter [attribute ...]]\n"
    "  filter     an RFC 4515 filter, one complete item; without one (objectclass=*)\n"
    "  attribute  the attributes to return (1.1 none, * all user, + all operational)\n"
    "Search options:\n"
    "  -b basedn  base of the search (default: the -H URL's DN, else the empty DN)\n"
    "  -s scope   base, one or sub (default)\n"
    "  -a deref   never (default), always, search or find\n"
    "  -A         attribute names only, no values\n"
    "  -z limit   size limit in entries, or none; -l limit  time limit in seconds, or none\n"
    "  -L         LDIF version 1 with comments; -LL without comments; -LLL without the version\n"
    "  -t         write non-printable values to files (-tt: all values), in /tmp or -T dir\n"
    "  -E [!]ext[=param]  search controls: pr=<size>[/noprompt] (paged results, every page\n"
    "             fetched), sss=[-]<attr>[:<rule OID>][/...] (server-side sort), and the -e ones\n"
    "  -f file    one search per line of file, each line put in place of the first %s of\n"
    "             the filter (or being the filter when none is given)\n";

struct Search {
    std::string base;
    int scope = LDAP_SCOPE_SUBTREE;
    std::vector<char *> attrs; // NULL-terminated
    int attrsonly = 0;
    int sizelimit = 0;
    int seconds = 0;           // the bound of the wait for each page, 0 for none
    const tool::ControlRequest *paging = nullptr;
};

// The entry's attributes and values as the walk hands them out.
ldif::Attributes read_attributes(LDAP *ld, LDAPMessage *entry)
{
    ldif::Attributes attributes;
    BerElement *cursor = nullptr;
    for (char *name = ldap_first_attribute(ld, entry, &cursor); name; name = ldap_next_attribute(ld, entry, cursor)) {
        ldif::Values values;
        struct berval **vals = ldap_get_values_len(ld, entry, name);
        for (int i = 0; vals && vals[i]; i++)
            values.emplace_back(vals[i]->bv_val, vals[i]->bv_len);
        ldap_value_free_len(vals);
        attributes.emplace_back(name, std::move(values));
        ldap_memfree(name);
    }
    ldap_ber_free(cursor, 0);
    return attributes;
}

// Prints one page's chain; the result's code, texts and controls go to
// *result and *controls.
int print_chain(LDAP *ld, LDAPMessage *chain, tool::SearchOutput *output, tool::SearchResult *result,
                LDAPControl ***controls)
{
    std::string error;
    for (LDAPMessage *m = ldap_first_message(ld, chain); m; m = ldap_next_message(ld, m)) {
        int type = ldap_msgtype(m);
        if (type == LDAP_RES_SEARCH_ENTRY) {
            char *dn = ldap_get_dn(ld, m);
            bool written = output->Entry(dn ? dn : "", read_attributes(ld, m), &error);
            ldap_memfree(dn);
            if (!written)
                return tool::complain(kProgram, error, LDAP_LOCAL_ERROR);
        } else if (type == LDAP_RES_SEARCH_REFERENCE) {
            char **refs = nullptr;
            ldap_parse_reference(ld, m, &refs, nullptr, 0);
            output->Reference(std::vector<std::string>(refs, refs + (refs ? ldap_count_values(refs) : 0)));
            ldap_value_free(refs);
        } else if (type == LDAP_RES_SEARCH_RESULT) {
            char *matched = nullptr, *text = nullptr;
            result->msgid = ldap_msgid(m);
            int rc = ldap_parse_result(ld, m, &result->code, &matched, &text, nullptr, controls, 0);
            result->matched = matched ? matched : "";
            result->text = text ? text : "";
            ldap_memfree(matched);
            ldap_memfree(text);
            if (rc != LDAP_SUCCESS)
                result->code = rc;
        }
    }
    return LDAP_SUCCESS;
}

// One search, page after page with -E pr; the server's result code, or
// the library's code of what failed on this side.
int run_search(LDAP *ld, const Search &search, const std::string &filter, tool::ControlList *controls,
               tool::SearchOutput *output)
{
    struct berval *cookie = nullptr;
    int rc = LDAP_SUCCESS;
    do {
        if (search.paging) {
            LDAPControl *page = nullptr;
            rc = ldap_create_page_control(ld, tool::page_size(*search.paging), cookie,
                                          search.paging->critical ? 'T' : 'F', &page);
            if (rc != LDAP_SUCCESS)
                break;
            controls->Put(page);
        }
        ber_bvfree(cookie);
        cookie = nullptr;
        int msgid = -1;
        rc = ldap_search_ext(ld, search.base.c_str(), search.scope, filter.c_str(),
                             const_cast<char **>(search.attrs.data()), search.attrsonly, controls->Array(), nullptr,
                             nullptr, search.sizelimit, &msgid);
        LDAPMessage *chain = nullptr;
        struct timeval wait {search.seconds, 0};
        int type = rc == LDAP_SUCCESS ? ldap_result(ld, msgid, 1, search.seconds > 0 ? &wait : nullptr, &chain) : 0;
        if (rc == LDAP_SUCCESS)
            rc = type == 0 ? LDAP_TIMEOUT : type < 0 ? ldap_get_errno(ld) : LDAP_SUCCESS;
        if (rc != LDAP_SUCCESS) {
            ldap_msgfree(chain);
            return tool::report(kProgram, "search", rc);
        }
        tool::SearchResult result;
        LDAPControl **response = nullptr;
        rc = print_chain(ld, chain, output, &result, &response);
        ldap_msgfree(chain);
        if (rc == LDAP_SUCCESS) {
            output->Result(result);
            rc = result.code;
        }
        unsigned long estimate = 0;
        if (rc == LDAP_SUCCESS && search.paging && response &&
            ldap_parse_page_control(ld, response, &estimate, &cookie) == LDAP_SUCCESS)
            output->PageCookie(cookie ? std::string(cookie->bv_val, cookie->bv_len) : "");
        ldap_controls_free(response);
    } while (rc == LDAP_SUCCESS && cookie && cookie->bv_len > 0);
    ber_bvfree(cookie);
    return rc;
}

bool read_scope(const char *text, int *scope, std::string *name)
{
    const std::pair<const char *, std::pair<int, const char *>> scopes[] = {
        {"base", {LDAP_SCOPE_BASE, "baseObject"}}, {"one", {LDAP_SCOPE_ONELEVEL, "oneLevel"}},
        {"sub", {LDAP_SCOPE_SUBTREE, "subtree"}}};
    for (const auto &[key, value] : scopes)
        if (std::strcmp(text, key) == 0)
            std::tie(*scope, *name) = std::pair<int, std::string>(value.first, value.second);
    return !name->empty();
}

bool read_deref(const char *text, int *deref)
{
    const std::pair<const char *, int> kinds[] = {{"never", LDAP_DEREF_NEVER}, {"always", LDAP_DEREF_ALWAYS},
                                                  {"search", LDAP_DEREF_SEARCHING}, {"find", LDAP_DEREF_FINDING}};
    for (const auto &[key, value] : kinds)
        if (std::strcmp(text, key) == 0)
            return (*deref = value, true);
    return false;
}

// The filters to run: the one given, or with -f one per line of the file
// in place of the pattern's first %s. Each is checked before any is sent.
int make_filters(const std::string &pattern, const std::string &file, std::vector<std::string> *filters)
{
    if (file.empty()) {
        filters->push_back(pattern);
    } else {
        std::ifstream in(file);
        if (!in)
            return tool::complain(kProgram, "cannot read " + file, LDAP_PARAM_ERROR);
        size_t at = pattern.find("%s");
        for (std::string line; std::getline(in, line);)
            filters->push_back(at == std::string::npos ? pattern : pattern.substr(0, at) + line + pattern.substr(at + 2));
    }
    for (const std::string &filter : *filters) {
        std::string problem;
        if (size_t at = tool::filter_problem(filter, &problem))
            return tool::complain(kProgram, "filter \"" + filter + "\": position " + std::to_string(at) + ": " + problem,
                                  LDAP_FILTER_ERROR);
    }
    return LDAP_SUCCESS;
}

} // namespace

// Exits with the result code of the last search that failed (0 when none
// did), or of what failed before the searches.
int main(int argc, char **argv)
{
    tool::SessionOptions session{.program = kProgram};
    tool::OutputStyle style;
    Search search;
    std::vector<tool::ControlRequest> search_controls;
    std::string scope_name = "subtree";
    int timelimit = 0, deref = LDAP_DEREF_NEVER;
    auto take = [&](int opt, const char *arg, std::string *error) {
        switch (opt) {
        case 'b': search.base = arg; return true;
        case 's': scope_name.clear(); return read_scope(arg, &search.scope, &scope_name);
        case 'a': return read_deref(arg, &deref);
        case 'A': search.attrsonly = 1; return true;
        case 'z': return tool::parse_limit("-z", arg, &search.sizelimit, error);
        case 'l': return tool::parse_limit("-l", arg, &timelimit, error);
        case 't': style.values_to_files++; return true;
        case 'T': style.file_directory = arg; return true;
        case 'L': style.ldif = std::min(style.ldif + 1, 3); return true;
        default: return tool::parse_control("-E", arg, true, &search_controls.emplace_back(), error);
        }
    };
    if (int rc = tool::read_command_line(argc, argv, kUsage, "b:s:a:Az:l:tT:LE:", take, &session); rc >= 0)
        return rc;
    // ldapsearch's rule: a first argument without "=" is an attribute.
    bool filter_given = optind < argc && std::strchr(argv[optind], '=');
    std::string pattern = filter_given ? argv[optind++] : session.file.empty() ? kDefaultFilter : "%s";
    search.attrs.assign(argv + optind, argv + argc);
    std::vector<std::string> attributes(search.attrs.begin(), search.attrs.end());
    search.attrs.push_back(nullptr);
    std::vector<std::string> filters;
    if (int rc = make_filters(pattern, session.file, &filters); rc != LDAP_SUCCESS)
        return rc;
    for (const tool::ControlRequest &request : search_controls)
        if (request.name == "pr")
            search.paging = &request;
    style.wrap = session.wrap;
    search.seconds = session.timeout;

    if (!session.url.empty() && search.base.empty()) {
        LDAPURLDesc *desc = nullptr;
        if (ldap_url_parse(session.url.c_str(), &desc) == 0 && desc->lud_dn)
            search.base = desc->lud_dn;
        ldap_free_urldesc(desc);
    }
    if (session.verbose)
        for (const std::string &filter : filters)
            std::fprintf(stderr, "filter: %s\n", filter.c_str());
    int rc = LDAP_SUCCESS;
    tool::ControlList controls;
    LDAP *ld = tool::open_session(session, &controls, &rc);
    if (!ld)
        return rc;
    rc = controls.Build(ld, search_controls);
    for (auto [option, value] : {std::pair{LDAP_OPT_TIMELIMIT, &timelimit}, {LDAP_OPT_DEREF, &deref}})
        if (rc == LDAP_SUCCESS)
            rc = ldap_set_option(ld, option, value);
    if (rc != LDAP_SUCCESS) {
        ldap_unbind(ld);
        return tool::report(kProgram, "search controls and options", rc);
    }
    tool::SearchOutput output(style);
    output.Header(search.base, scope_name, pattern, !session.file.empty(), attributes);
    int last_failure = LDAP_SUCCESS;
    for (size_t i = 0; i < filters.size() && (last_failure == LDAP_SUCCESS || session.continuous); i++) {
        if (!session.file.empty())
            output.FilterLine(filters[i], i == 0);
        rc = run_search(ld, search, filters[i], &controls, &output);
        if (rc != LDAP_SUCCESS)
            last_failure = rc;
    }
    std::fflush(stdout);
    ldap_unbind(ld);
    return last_failure;
}
