// exports.cpp - the exported family: forwarders named zor_ plus the
// published function name, each handing its arguments unchanged to the
// library's own function; zorldap_loaded_from; the two read-only data
// objects. Everything here is bound to the symbol version zor8 by the
// version script.
#include "zor8ldap_api.h"

#include "base/version.h"

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
    "@(#) Product release: " ZLDAP_VERSION_TEXT " (sdk " ZLDAP_VERSION_DIGITS ", protocol 300, ssl 300)\n"
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
// The dots pad the block to its published size: a version text of another
// length needs as many dots fewer or more.
static_assert(sizeof(zorldap_SCCSInfo) == 885);

ZLDAP_EXPORT LDAP *zor_ldap_init(const char *host, int port) { return ldap_init(host, port); }

ZLDAP_EXPORT int zor_ldap_msgfree(LDAPMessage *res) { return ldap_msgfree(res); }

ZLDAP_EXPORT char *zor_ldap_err2string(int err) { return ldap_err2string(err); }

ZLDAP_EXPORT int zor_ldap_set_option(LDAP *ld, int option, const void *invalue)
{
    return ldap_set_option(ld, option, invalue);
}

ZLDAP_EXPORT int zor_ldap_simple_bind_s(LDAP *ld, const char *dn, const char *passwd)
{
    return ldap_simple_bind_s(ld, dn, passwd);
}

ZLDAP_EXPORT int zor_ldap_unbind(LDAP *ld) { return ldap_unbind(ld); }

// The search only reads the attribute list (zor8ldap_attrs is const for
// C++ callers), so handing it on without its const is safe.
ZLDAP_EXPORT int zor_ldap_search_st(LDAP *ld, const char *base, int scope, const char *filter,
                                    zor8ldap_attrs attrs, int attrsonly, struct timeval *timeout, LDAPMessage **res)
{
    return ldap_search_st(ld, base, scope, filter, const_cast<char **>(attrs), attrsonly, timeout, res);
}

ZLDAP_EXPORT int zor_ldap_url_parse(const char *url, LDAPURLDesc **ludpp) { return ldap_url_parse(url, ludpp); }

ZLDAP_EXPORT void zor_ldap_free_urldesc(LDAPURLDesc *ludp) { ldap_free_urldesc(ludp); }

ZLDAP_EXPORT int zor_ldap_count_entries(LDAP *ld, LDAPMessage *res) { return ldap_count_entries(ld, res); }

ZLDAP_EXPORT int zor_ldap_add_s(LDAP *ld, const char *dn, LDAPMod **attrs) { return ldap_add_s(ld, dn, attrs); }

ZLDAP_EXPORT int zor_ldap_delete_s(LDAP *ld, const char *dn) { return ldap_delete_s(ld, dn); }

ZLDAP_EXPORT int zor_ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods) { return ldap_modify_s(ld, dn, mods); }

ZLDAP_EXPORT int zor_ldap_modrdn_s(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn)
{
    return ldap_modrdn_s(ld, dn, newrdn, deleteoldrdn);
}

ZLDAP_EXPORT LDAPMessage *zor_ldap_first_entry(LDAP *ld, LDAPMessage *res) { return ldap_first_entry(ld, res); }

ZLDAP_EXPORT LDAPMessage *zor_ldap_next_entry(LDAP *ld, LDAPMessage *entry) { return ldap_next_entry(ld, entry); }

ZLDAP_EXPORT char *zor_ldap_get_dn(LDAP *ld, LDAPMessage *entry) { return ldap_get_dn(ld, entry); }

ZLDAP_EXPORT void zor_ldap_memfree(void *p) { ldap_memfree(p); }

ZLDAP_EXPORT char *zor_ldap_first_attribute(LDAP *ld, LDAPMessage *entry, BerElement **ber)
{
    return ldap_first_attribute(ld, entry, ber);
}

ZLDAP_EXPORT char *zor_ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *ber)
{
    return ldap_next_attribute(ld, entry, ber);
}

ZLDAP_EXPORT struct berval **zor_ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *attr)
{
    return ldap_get_values_len(ld, entry, attr);
}

ZLDAP_EXPORT void zor_ldap_value_free_len(struct berval **values) { ldap_value_free_len(values); }

ZLDAP_EXPORT int zor_ldap_get_errno(LDAP *ld) { return ldap_get_errno(ld); }

ZLDAP_EXPORT void zor_ldap_ber_free(BerElement *ber, int freebuf) { ldap_ber_free(ber, freebuf); }

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
