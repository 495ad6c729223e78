// zldapwhoami - asks the server who the session is bound as (the "Who am
// I?" extended operation) and prints the answer as ldapwhoami does:
// "dn:...", "u:...", or "anonymous".
#include "passwd_value.h"
#include "session.h"
#include "zor8ldap_api.h"

#include <cstdio>
#include <unistd.h>

namespace {

constexpr const char *kProgram = "zldapwhoami";
constexpr char kUsage[] = "usage: zldapwhoami [options]\n"
                          "  prints the authorization identity the server gives the bound session\n";

} // namespace

int main(int argc, char **argv)
{
    tool::SessionOptions session{.program = kProgram};
    if (int rc = tool::read_command_line(argc, argv, kUsage, &session); rc >= 0)
        return rc;
    if (optind < argc)
        return tool::usage_error(kUsage);
    int rc = LDAP_SUCCESS;
    tool::ControlList controls;
    LDAP *ld = tool::open_session(session, &controls, &rc);
    if (!ld)
        return rc;
    char *oid = nullptr;
    struct berval *identity = nullptr;
    {
        tool::Deadline deadline(kProgram, "Who am I?", session.call_seconds());
        rc = ldap_extended_operation_s(ld, tool::kWhoAmIOid, nullptr, controls.Array(), nullptr, &oid, &identity);
    }
    if (tool::report_result(ld, "ldap_extended_operation", rc) == LDAP_SUCCESS)
        std::printf("%s\n", identity && identity->bv_len > 0 ? std::string(identity->bv_val, identity->bv_len).c_str()
                                                             : "anonymous");
    ldap_memfree(oid);
    ber_bvfree(identity);
    ldap_unbind(ld);
    return rc;
}
