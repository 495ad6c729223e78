// exports.cpp - the exported family: forwarders named zor_ plus the
// published function name, each handing its arguments unchanged to the
// library's own function; zorldap_loaded_from; the two read-only data
// objects. Everything here is bound to the symbol version zor8 by the
// version script.
#include "zor8ldap.h"

#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_options.h"
#include "ldap_unbind.h"

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <limits.h>

#define ZLDAP_EXPORT __attribute__((visibility("default")))

extern "C" {

ZLDAP_EXPORT extern const char zorldap_Copyright[] =
    "Copyright (c) 2026 Orniva Systems Corp. All rights reserved. libzor8ldap_64.so is an LDAP version 3 client library. Use, copying and distribution are governed by the licence that came with this software; no other rights are given.";
static_assert(sizeof(zorldap_Copyright) == 231);

ZLDAP_EXPORT extern const char zorldap_SCCSInfo[] =
    "@(#) libzor8ldap_64.so  LDAP version 3 client library\n"
    "@(#) Product release: 6.3.1 (sdk 631, protocol 300, ssl 300)\n"
    "@(#) Platform: Linux x86_64, 64-bit, glibc 2.17 or later\n"
    "@(#) Symbol version node: zor8\n"
    "@(#) Components: session and options, BER codec, socket buffer,\n"
    "@(#)   connection establishment, message engine, operations,\n"
    "@(#)   result navigation and parsing, DN parser, LDAP URLs,\n"
    "@(#)   referral chasing, URL search, secure transport over the\n"
    "@(#)   Zorlib toolkit, StartTLS, DNS server location, code-set\n"
    "@(#)   translation, user information file, control builders,\n"
    "@(#)   trace log and environment accessors.\n"
    "@(#) Threads: sessions may be shared by any number of threads;\n"
    "@(#)   the library starts no threads of its own.\n"
    "@(#) Build: C++20, hidden visibility, run-time search path $ORIGIN\n"
    "@(#) Copyright (c) 2026 Orniva Systems Corp.\n"
    "@(#) End of version block...............\n";
static_assert(sizeof(zorldap_SCCSInfo) == 885);

ZLDAP_EXPORT LDAP *zor_ldap_init(const char *host, int port) { return ldap_init(host, port); }

ZLDAP_EXPORT char *zor_ldap_err2string(int err) { return ldap_err2string(err); }

ZLDAP_EXPORT int zor_ldap_set_option(LDAP *ld, int option, const void *invalue)
{
    return ldap_set_option(ld, option, invalue);
}

ZLDAP_EXPORT int zor_ldap_unbind(LDAP *ld) { return ldap_unbind(ld); }

ZLDAP_EXPORT int zor_ldap_get_errno(LDAP *ld) { return ldap_get_errno(ld); }

// The canonical name of the file this library was loaded from, in a
// malloc'ed string the caller releases with free.
ZLDAP_EXPORT char *zorldap_loaded_from(void)
{
    Dl_info info;
    if (dladdr(reinterpret_cast<void *>(&zorldap_loaded_from), &info) == 0 || !info.dli_fname)
        return nullptr;
    char name[4096];
    char canonical[4096];
    std::strncpy(name, info.dli_fname, sizeof name - 1);
    name[sizeof name - 1] = '\0';
    if (!realpath(name, canonical))
        return nullptr;
    size_t len = std::strlen(canonical);
    // Plain malloc: the caller releases the result with the standard free.
    char *result = static_cast<char *>(std::malloc(len + 1));
    if (result)
        std::memcpy(result, canonical, len + 1);
    return result;
}

} // extern "C"
