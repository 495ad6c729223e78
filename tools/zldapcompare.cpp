// zldapcompare - compares an attribute value with an entry's, as
// ldapcompare does: prints TRUE, FALSE or UNDEFINED and exits with 6
// (compare true), 5 (compare false) or the code of the failure.
#include "ldif.h"
#include "session.h"
#include "zor8ldap_api.h"

#include <cstdio>
#include <unistd.h>

namespace {

constexpr const char *kProgram = "zldapcompare";
constexpr char kUsage[] = "usage: zldapcompare [options] dn attr:value | dn attr::base64value\n"
                          "  prints TRUE (exit 6), FALSE (exit 5) or UNDEFINED (the failure's code)\n"
                          "  -z         quiet: print nothing, only the exit status tells\n";

} // namespace

int main(int argc, char **argv)
{
    tool::SessionOptions session{.program = kProgram};
    bool quiet = false;
    auto take = [&](int, const char *, std::string *) { return quiet = true; };
    if (int rc = tool::read_command_line(argc, argv, kUsage, "z", take, &session); rc >= 0)
        return rc;
    if (argc - optind != 2)
        return tool::usage_error(kUsage);
    std::string dn = argv[optind], assertion = argv[optind + 1], value;
    size_t colon = assertion.find(':');
    bool base64 = colon != std::string::npos && assertion.compare(colon, 2, "::") == 0;
    bool good = colon != std::string::npos && colon > 0 &&
                (base64 ? ldif::base64_decode(assertion.substr(colon + 2), &value)
                        : (value = assertion.substr(colon + 1), true));
    if (!good)
        return tool::complain(kProgram, "\"" + assertion + "\": expected attr:value or attr::base64value",
                              LDAP_PARAM_ERROR);
    int rc = LDAP_SUCCESS;
    tool::ControlList controls;
    LDAP *ld = tool::open_session(session, &controls, &rc);
    if (!ld)
        return rc;
    struct berval bv {value.size(), value.data()};
    {
        tool::Deadline deadline(kProgram, dn, session.call_seconds());
        rc = ldap_compare_ext_s(ld, dn.c_str(), assertion.substr(0, colon).c_str(), &bv, controls.Array(), nullptr);
    }
    if (rc == -1)
        rc = ldap_get_errno(ld);
    if (rc != LDAP_COMPARE_TRUE && rc != LDAP_COMPARE_FALSE && !quiet)
        tool::report_result(ld, "Compare Result", rc);
    if (!quiet)
        std::printf("%s\n", rc == LDAP_COMPARE_TRUE ? "TRUE" : rc == LDAP_COMPARE_FALSE ? "FALSE" : "UNDEFINED");
    ldap_unbind(ld);
    return rc;
}
