// request_values.h - values of extended requests. The published builders
// are declared (C linkage) in zor8ldap_api.h; this adds the library's own.
#ifndef ZLDAP_REQUEST_VALUES_H
#define ZLDAP_REQUEST_VALUES_H

#include "zor8ldap_api.h"

// The value of a transaction id request: the id's text (without its NUL).
// A new berval, or NULL when the id is NULL or memory runs out.
struct berval *createTransIDReqVal(const char *tran_id);

#endif
