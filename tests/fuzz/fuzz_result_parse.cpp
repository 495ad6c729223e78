// fuzz_result_parse.cpp - reads arbitrary bytes as a response's element
// after its message id (the protocol operation, then controls) through
// ldap_parse_result, ldap_parse_sasl_bind_result and the extended result
// parser, and as a control value through the password-policy parser. Codes
// stay among the documented ones, a failed parse hands nothing out, a
// parse of a copy can be repeated and an extended parse cannot. Read as a
// search entry, its values are found alike by the header lookup and by the
// format-driven walk (which runs while BER traffic is traced).
#include "ber_test_support.h"
#include "base/trace.h"
#include "core/ldap_error.h"
#include "message/ldap_message.h"
#include "proto/ldap_controls.h"
#include "zor8ldap_api.h"
#include "results/parse_result.h"
#include "results/results.h"
#include "session/ldap_init.h"

#include <cstdint>
#include <string>

using zldap_test::BerPtr;
using zldap_test::ExactReader;

namespace {

void Check(bool condition)
{
    if (!condition)
        __builtin_trap();
}

// A message as the reading path files it: typed by the operation's tag, or
// by the type a parser wants.
LDAPMessage *Message(LDAP *ld, const uint8_t *data, size_t size, int type = 0)
{
    BerPtr ber = ExactReader(data, size);
    if (!ber)
        return nullptr;
    LDAPMessage *msg = ldap_alloc_msg(ld->ld_defconn);
    if (!msg)
        return nullptr;
    msg->msg_id = 1;
    msg->msg_type = type ? type : static_cast<int32_t>(fber_peek_tag(ber.get(), nullptr));
    msg->msg_ber = ber.release();
    return msg;
}

void ParseResult(LDAP *ld, const uint8_t *data, size_t size)
{
    LDAPMessage *msg = Message(ld, data, size);
    if (!msg)
        return;
    int first = 0;
    for (int pass = 0; pass < 2; pass++) {
        int code = 0;
        char *matched = nullptr, *text = nullptr;
        char **refs = nullptr;
        LDAPControl **ctrls = nullptr;
        int rc = ldap_parse_result(ld, msg, &code, &matched, &text, &refs, &ctrls, 0);
        Check(rc == LDAP_SUCCESS || rc == LDAP_OPERATIONS_ERROR || rc == LDAP_DECODING_ERROR ||
              rc == LDAP_NO_MEMORY);
        Check(rc == LDAP_SUCCESS ? matched && text : !matched && !text && !refs && !ctrls);
        Check(pass == 0 || rc == first);
        first = rc;
        ldap_memfree(matched);
        ldap_memfree(text);
        ldap_value_free(refs);
        ldap_controls_free(ctrls);
    }
    free_msg(msg, 0);
}

void ParseSaslBindResult(LDAP *ld, const uint8_t *data, size_t size)
{
    LDAPMessage *msg = Message(ld, data, size, LDAP_RES_BIND);
    if (!msg)
        return;
    struct berval *creds = nullptr;
    int rc = ldap_parse_sasl_bind_result(ld, msg, &creds, 0);
    // Any code can come from the server itself; the thread's error tells it.
    Check(ldap_get_errno(ld) == rc);
    ber_bvfree(creds);
    free_msg(msg, 0);
}

void ParseExtendedResult(LDAP *ld, const uint8_t *data, size_t size)
{
    LDAPMessage *msg = Message(ld, data, size, LDAP_RES_EXTENDED);
    if (!msg)
        return;
    char *oid = nullptr;
    struct berval *value = nullptr;
    LDAPControl **ctrls = nullptr;
    int rc = ldap_parse_extended_result_ext(ld, msg, &oid, &value, &ctrls, 0);
    Check(rc == LDAP_SUCCESS || (!oid && !value && !ctrls));
    Check(msg->msg_ber->ber_ptr == msg->msg_ber->ber_end);
    Check(ldap_parse_extended_result(ld, msg, nullptr, nullptr, 0) == -1);
    ldap_memfree(oid);
    ber_bvfree(value);
    ldap_controls_free(ctrls);
    free_msg(msg, 0);
}

void ParsePolicyControl(const uint8_t *data, size_t size)
{
    LDAPControl control{const_cast<char *>("1.3.6.1.4.1.42.2.27.8.5.1"),
                        {size, reinterpret_cast<char *>(const_cast<uint8_t *>(data))}, 0};
    LDAPControl *list[] = {&control, nullptr};
    int error = -1, kind = -1, value = -1;
    int rc = ldap_parse_pwdpolicy_response(list, &error, &kind, &value);
    Check(rc == LDAP_SUCCESS || rc == LDAP_DECODING_ERROR || rc == LDAP_NO_MEMORY);
    Check(kind >= 0 && kind <= 2);
    Check(rc == LDAP_SUCCESS || (error == 0 && kind == 0 && value == 0));
}

// The values of attr with or without tracing, as bytes, and the error.
std::string ValuesOf(LDAP *ld, LDAPMessage *entry, const char *attr, uint32_t trace_level)
{
    zldap::set_trace_level(trace_level);
    struct berval **values = ldap_get_values_len(ld, entry, attr);
    zldap::set_trace_level(0);
    std::string out;
    for (int i = 0; values && values[i]; i++)
        out.append(values[i]->bv_val, values[i]->bv_len).push_back('\0');
    ldap_value_free_len(values);
    return out + std::to_string(ldap_get_errno(ld));
}

void LookUpValues(LDAP *ld, const uint8_t *data, size_t size)
{
    LDAPMessage *entry = Message(ld, data, size, LDAP_RES_SEARCH_ENTRY);
    if (!entry)
        return;
    // Each name as the cursor hands it out (the lookup then starts where
    // the cursor marked it), and a name it may never hand out.
    BerElement *cursor = nullptr;
    for (char *a = ldap_first_attribute(ld, entry, &cursor); a; a = ldap_next_attribute(ld, entry, cursor)) {
        Check(ValuesOf(ld, entry, a, 0) == ValuesOf(ld, entry, a, 0xFFFF));
        ldap_memfree(a);
    }
    Check(ValuesOf(ld, entry, "objectClass", 0) == ValuesOf(ld, entry, "objectClass", 0xFFFF));
    ldap_ber_free(cursor, 0);
    free_msg(entry, 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static LDAP *ld = ldap_init("localhost", 0);
    static int traced_nowhere = zldap::set_trace_file("/dev/null");
    (void)traced_nowhere;
    ParseResult(ld, data, size);
    ParseSaslBindResult(ld, data, size);
    ParseExtendedResult(ld, data, size);
    ParsePolicyControl(data, size);
    LookUpValues(ld, data, size);
    return 0;
}
