// pwdpolicy_response.h - reading the password-policy response control that
// may come with a bind or an update result.
#ifndef ZLDAP_PWDPOLICY_RESPONSE_H
#define ZLDAP_PWDPOLICY_RESPONSE_H

#include "zor8ldap.h"

extern "C" {

// Reads every password-policy control ("1.3.6.1.4.1.42.2.27.8.5.1") of the
// list into three numbers: *controlerr 0 (none) or the error's value plus 3
// (the numbering of ldap_pwdpolicy_err2string), *controlwarn the warning
// kind (0 none, 1 time before expiration, 2 grace logins remaining) and
// *controlres the warning's number. 0; 84 for a malformed control, with all
// three outputs 0; 90; 89 when an argument is NULL.
int ldap_parse_pwdpolicy_response(LDAPControl **serverControls, int *controlerr, int *controlwarn,
                                  int *controlres);
}

#endif
