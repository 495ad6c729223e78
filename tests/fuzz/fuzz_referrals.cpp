// fuzz_referrals.cpp - the referral paths that need no network. The first
// byte picks one (and its top bit an LDAPv2 handle): a response's protocol operation (a search reference or
// a result with its referral list or LDAPv2 text) read as chasing reads
// it, with every URL of the list or text parsed as a referral URL; an
// LDAPv2 error text split into its URLs; or a request re-encoded for the
// URL before it (the two separated by a NUL). A re-encoded request is
// again a message with the new id, and the initial one stays untouched.
#include "ber_test_support.h"
#include "engine/ldap_referrals.h"
#include "proto/url.h"
#include "session/ldap_init.h"

#include <cstdint>
#include <cstring>
#include <string>

using zldap_test::BerPtr;
using zldap_test::ExactReader;

namespace {

void Check(bool condition)
{
    if (!condition)
        __builtin_trap();
}

void ParseAndFree(char **urls)
{
    for (char **u = urls; u && *u; u++) {
        LDAPURLDesc *desc = nullptr;
        Check((ldap_url_parse_internal(*u, &desc) == 0) == (desc != nullptr));
        ldap_free_urldesc(desc);
        zldap::mem_free(*u);
    }
    zldap::mem_free(urls);
}

void SplitV2Text(const std::string &text)
{
    char **urls = nullptr;
    if (v2_referral_urls(text.c_str(), &urls) == 0 && urls)
        Check(urls[0] && std::strlen(urls[0]) > 0);
    ParseAndFree(urls);
}

void ReadResponse(LDAP *ld, const uint8_t *data, size_t size)
{
    BerPtr ber = ExactReader(data, size);
    if (!ber)
        return;
    LDAPMessage msg{};
    msg.msg_id = 1;
    msg.msg_type = static_cast<int32_t>(fber_peek_tag(ber.get(), nullptr));
    msg.msg_ber = ber.get();
    char *before = msg.msg_ber->ber_ptr;
    char **urls = nullptr;
    char *text = nullptr;
    ReferralForm form = read_referral(ld, &msg, &urls, &text);
    Check(msg.msg_ber->ber_ptr == before);
    Check(form == ReferralForm::v3 || !urls);
    Check(form == ReferralForm::v2 || !text);
    ParseAndFree(urls);
    if (text)
        SplitV2Text(text);
    zldap::mem_free(text);
}

void ReEncode(LDAP *ld, const uint8_t *data, size_t size)
{
    const uint8_t *nul = static_cast<const uint8_t *>(std::memchr(data, 0, size));
    if (!nul)
        return;
    std::string url(reinterpret_cast<const char *>(data), nul - data);
    LDAPURLDesc *desc = nullptr;
    if (ldap_url_parse_internal(url.c_str(), &desc) != 0 && ldap_url_parse_internal("ldap://h/", &desc) != 0)
        return;
    // The request as the engine keeps it after writing: written, not rewound.
    BerPtr initial(fber_alloc());
    size_t len = size - (nul - data) - 1;
    if (initial && fber_write(initial.get(), reinterpret_cast<const char *>(nul + 1), len) >= 0) {
        zldap_test::Bytes before = zldap_test::Written(initial.get());
        BerPtr out(re_encode_request(ld, initial.get(), 7, desc));
        Check(zldap_test::Written(initial.get()) == before);
        if (out) {
            fber_reset(out.get(), 1);
            int id = 0;
            Check(fber_scanf(out.get(), "{i", &id) != LBER_DEFAULT && id == 7);
        }
    }
    ldap_free_urldesc(desc);
}

LDAP *Handle(int version)
{
    LDAP *ld = ldap_init("localhost", 0);
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    return ld;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static LDAP *v3 = Handle(LDAP_VERSION3);
    static LDAP *v2 = Handle(LDAP_VERSION2);
    if (size == 0)
        return 0;
    LDAP *ld = data[0] & 0x80 ? v2 : v3; // LDAPv2 texts are read on an LDAPv2 handle only
    switch ((data[0] & 0x7F) % 3) {
    case 0:
        ReadResponse(ld, data + 1, size - 1);
        break;
    case 1:
        SplitV2Text(std::string(reinterpret_cast<const char *>(data + 1), size - 1));
        break;
    default:
        ReEncode(ld, data + 1, size - 1);
        break;
    }
    return 0;
}
