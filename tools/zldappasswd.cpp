// zldappasswd - changes a password with the password modify extended
// operation, as ldappasswd does: the user's (or the bound identity's)
// password becomes -s newpassword, or one the server generates and this
// prints as "New password: ...".
#include "passwd_value.h"
#include "password_input.h"
#include "session.h"
#include "zor8ldap_api.h"

#include <cstdio>
#include <unistd.h>

namespace {

constexpr const char *kProgram = "zldappasswd";
constexpr char kUsage[] = "usage: zldappasswd [options] [-a oldpw | -t oldpwfile] [-s newpw | -T newpwfile] [user]\n"
                          "  sets the password of user (a DN; default: the bound identity)\n"
                          "  -a oldpw, -t file   the old password, or a file holding it\n"
                          "  -s newpw, -T file   the new password, or a file holding it; without one\n"
                          "                      the server generates one, which is printed\n";

} // namespace

// Exits with the result code of the operation.
int main(int argc, char **argv)
{
    tool::SessionOptions session{.program = kProgram};
    std::optional<std::string> user, old_password, new_password;
    auto take = [&](int opt, const char *arg, std::string *error) {
        auto &target = opt == 'a' || opt == 't' ? old_password : new_password;
        target.emplace(opt == 'a' || opt == 's' ? arg : "");
        return opt == 'a' || opt == 's' || tool::read_password_file(kProgram, arg, &*target, error);
    };
    if (int rc = tool::read_command_line(argc, argv, kUsage, "a:t:s:T:", take, &session); rc >= 0)
        return rc;
    if (argc - optind > 1)
        return tool::usage_error(kUsage);
    if (optind < argc)
        user = argv[optind];
    int rc = LDAP_SUCCESS;
    tool::ControlList controls;
    LDAP *ld = tool::open_session(session, &controls, &rc);
    if (!ld)
        return rc;
    std::string request = tool::passwd_modify_request(user, old_password, new_password);
    struct berval value {request.size(), request.data()};
    char *oid = nullptr;
    struct berval *response = nullptr;
    {
        tool::Deadline deadline(kProgram, "password modify", session.call_seconds());
        rc = ldap_extended_operation_s(ld, tool::kPasswdModifyOid, &value, controls.Array(), nullptr, &oid,
                                       &response);
    }
    std::optional<std::string> generated;
    if (tool::report_result(ld, "ldap_extended_operation", rc) == LDAP_SUCCESS && response &&
        !tool::passwd_modify_generated(std::string(response->bv_val, response->bv_len), &generated))
        rc = tool::report(kProgram, "the server's answer", LDAP_DECODING_ERROR);
    if (generated)
        std::printf("New password: %s\n", generated->c_str());
    ldap_memfree(oid);
    ber_bvfree(response);
    ldap_unbind(ld);
    return rc;
}
