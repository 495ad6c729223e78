// zldapmodrdn - gives entries a new RDN (and, with -s, a new superior),
// from the command line or from pairs of lines of -f file or standard
// input, as ldapmodrdn does.
#include "session.h"
#include "zor8ldap_api.h"

#include <cstdio>
#include <unistd.h>

namespace {

constexpr const char *kProgram = "zldapmodrdn";
constexpr char kUsage[] = "usage: zldapmodrdn [options] [-r] [-s newsuperior] [dn newrdn]\n"
                          "  renames dn to newrdn, or each pair of lines (dn, then newrdn) of -f file or\n"
                          "  standard input\n"
                          "  -r         remove the old RDN's values from the entry\n"
                          "  -s newsup  move the entry under newsup as well\n";

} // namespace

// Exits with the result code of the last rename that failed, or 0.
int main(int argc, char **argv)
{
    tool::SessionOptions session{.program = kProgram};
    int delete_old = 0;
    std::string superior;
    bool has_superior = false;
    auto take = [&](int opt, const char *arg, std::string *) {
        if (opt == 'r')
            delete_old = 1;
        else
            superior = arg, has_superior = true;
        return true;
    };
    if (int rc = tool::read_command_line(argc, argv, kUsage, "rs:", take, &session); rc >= 0)
        return rc;
    std::vector<std::string> operands;
    std::string error;
    if (!tool::read_operands(argc, argv, session, &operands, &error))
        return tool::complain(kProgram, error, LDAP_PARAM_ERROR);
    if (operands.empty() || operands.size() % 2 != 0)
        return tool::complain(kProgram, "expected pairs of a DN and its new RDN", LDAP_PARAM_ERROR);
    int rc = LDAP_SUCCESS;
    tool::ControlList controls;
    LDAP *ld = tool::open_session(session, &controls, &rc);
    if (rc != LDAP_SUCCESS)
        return rc;
    int last_failure = LDAP_SUCCESS;
    for (size_t i = 0; i < operands.size() && (last_failure == LDAP_SUCCESS || session.continuous); i += 2) {
        const std::string &dn = operands[i], &newrdn = operands[i + 1];
        if (session.verbose || session.dry_run)
            std::printf("%smodifying rdn of entry \"%s\" to \"%s\"\n", session.dry_run ? "!" : "", dn.c_str(),
                        newrdn.c_str());
        if (session.dry_run)
            continue;
        tool::Deadline deadline(kProgram, dn, session.call_seconds());
        rc = ldap_rename_s(ld, dn.c_str(), newrdn.c_str(), has_superior ? superior.c_str() : nullptr, delete_old,
                           controls.Array(), nullptr);
        if ((rc = tool::report_result(ld, "ldap_rename", rc)) != LDAP_SUCCESS)
            last_failure = rc;
    }
    ldap_unbind(ld);
    return last_failure;
}
