// zldapdelete - deletes the entries named on the command line, or one per
// line of -f file or standard input, as ldapdelete does.
#include "session.h"
#include "zor8ldap_api.h"

#include <cstdio>
#include <unistd.h>

namespace {

constexpr const char *kProgram = "zldapdelete";
constexpr char kUsage[] = "usage: zldapdelete [options] [dn ...]\n"
                          "  deletes each dn, or those of -f file or standard input, one a line\n";

} // namespace

// Exits with the result code of the last delete that failed, or 0.
int main(int argc, char **argv)
{
    tool::SessionOptions session{.program = kProgram};
    if (int rc = tool::read_command_line(argc, argv, kUsage, &session); rc >= 0)
        return rc;
    std::vector<std::string> dns;
    std::string error;
    if (!tool::read_operands(argc, argv, session, &dns, &error))
        return tool::complain(kProgram, error, LDAP_PARAM_ERROR);
    int rc = LDAP_SUCCESS;
    tool::ControlList controls;
    LDAP *ld = tool::open_session(session, &controls, &rc);
    if (rc != LDAP_SUCCESS)
        return rc;
    int last_failure = LDAP_SUCCESS;
    for (size_t i = 0; i < dns.size() && (last_failure == LDAP_SUCCESS || session.continuous); i++) {
        if (session.verbose || session.dry_run)
            std::printf("%sdeleting entry \"%s\"\n", session.dry_run ? "!" : "", dns[i].c_str());
        if (session.dry_run)
            continue;
        tool::Deadline deadline(kProgram, dns[i], session.call_seconds());
        rc = ldap_delete_ext_s(ld, dns[i].c_str(), controls.Array(), nullptr);
        if ((rc = tool::report_result(ld, "ldap_delete", rc)) != LDAP_SUCCESS)
            last_failure = rc;
    }
    ldap_unbind(ld);
    return last_failure;
}
