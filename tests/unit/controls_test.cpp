// Controls: their wire form in requests and responses, malformed response
// controls, list handling (create, add, remove, merge, free), the
// client-control rule, the bind response controls kept on the default
// connection, the proxy DN prefix and the controls of a search entry.
#include "ber_test_support.h"
#include "core/ldap_error.h"
#include "message/ldap_message.h"
#include "proto/ldap_controls.h"
#include "session/ldap_init.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

using namespace zldap_test;

Bytes Controls(std::initializer_list<Bytes> members) { return Tlv(0xA0, Join(members)); }
Bytes Control(std::initializer_list<Bytes> items) { return Tlv(0x30, Join(items)); }
Bytes Str(const std::string &s) { return Tlv(0x04, Text(s)); }
Bytes Boolean(bool value) { return {0x01, 0x01, static_cast<unsigned char>(value ? 0xFF : 0x00)}; }

// A list as text: "oid", "!" when critical, "=value" when it has one;
// "-" for no list at all.
std::string Describe(LDAPControl **list)
{
    std::string text = list ? "" : "-";
    for (LDAPControl **c = list; c && *c; c++) {
        text += (c == list ? "" : " ") + std::string((*c)->ldctl_oid) + ((*c)->ldctl_iscritical ? "!" : "");
        if ((*c)->ldctl_value.bv_val)
            text += "=" + std::string((*c)->ldctl_value.bv_val, (*c)->ldctl_value.bv_len);
    }
    return text;
}

// A control list the test owns, made with the library's own functions.
struct OwnedList {
    LDAPControl **list = nullptr;
    ~OwnedList() { ldap_controls_free(list); }
    void Add(const char *oid, const std::string &value = "", int critical = 0)
    {
        ASSERT_EQ(ldap_add_control(oid, value.size(), value.data(), critical, &list), LDAP_SUCCESS);
    }
};

// Writes a list into a new element and returns the bytes.
Bytes Put(LDAPControl **ctrls, int expected_rc = LDAP_SUCCESS)
{
    BerPtr ber(fber_alloc());
    EXPECT_EQ(put_ctrls_into_ber(ber.get(), ctrls), expected_rc);
    return Written(ber.get());
}

TEST(PutControls, WritesExactBytesOrNothing)
{
    char binary[] = {'a', '\0', 'b'};
    LDAPControl plain{const_cast<char *>("1.2.3"), {0, nullptr}, 0};
    LDAPControl critical{const_cast<char *>("1.2.3"), {3, binary}, 5};
    // A present value of length 0 is written as an empty OCTET STRING.
    LDAPControl empty_value{const_cast<char *>("1.4"), {0, const_cast<char *>("")}, 0};
    LDAPControl no_oid{nullptr, {0, nullptr}, 0};
    LDAPControl huge{const_cast<char *>("1.2.4"), {0x80000000ul, const_cast<char *>("x")}, 0};
    LDAPControl *one[] = {&plain, nullptr}, *two[] = {&critical, &empty_value, nullptr}, *none[] = {nullptr};
    LDAPControl *without_oid[] = {&plain, &no_oid, nullptr}, *too_long[] = {&plain, &huge, nullptr};
    EXPECT_EQ(ToHex(Put(one)), "A0 84 00 00 00 10 30 84 00 00 00 0A 04 05 31 2E 32 2E 33 01 01 00");
    EXPECT_EQ(ToHex(Put(two)), "A0 84 00 00 00 25 "
                               "30 84 00 00 00 0F 04 05 31 2E 32 2E 33 01 01 FF 04 03 61 00 62 "
                               "30 84 00 00 00 0A 04 03 31 2E 34 01 01 00 04 00");
    EXPECT_EQ(ToHex(Put(nullptr)), "");
    EXPECT_EQ(ToHex(Put(none)), "");
    EXPECT_EQ(ToHex(Put(without_oid, LDAP_ENCODING_ERROR)), "");
    EXPECT_EQ(ToHex(Put(too_long, LDAP_ENCODING_ERROR)), "");
}

// What follows a response's operation: Controls read, no Controls (no
// list at all), or malformed Controls refused with 84 and no list, also
// when earlier controls had been read. Nothing leaks either way.
TEST(GetControls, ReadsWhatIsThereAndRefusesWhatIsMalformed)
{
    const Bytes good = Control({Str("1.2.3"), Boolean(true), Str("abc")});
    Bytes cut = Controls({good});
    cut.pop_back();
    const int bad = LDAP_DECODING_ERROR;
    const struct {
        const char *name;
        Bytes bytes;
        const char *expected;
        int rc = LDAP_SUCCESS;
    } cases[] = {
        {"all three items", Controls({good}), "1.2.3!=abc"},
        // Optional items left out or not, in a list that grows; an empty
        // value is still a value.
        {"optional items", Controls({Control({Str("1.1")}), Control({Str("1.1"), Boolean(false)}),
                                     Control({Str("1.1"), Hex("01 01 01")}), Control({Str("1.1"), Str("v")}),
                                     Control({Str("1.1"), Str("")})}), "1.1 1.1 1.1! 1.1=v 1.1="},
        {"a stray octet ends the list", Controls({Control({Str("1.1")}), Hex("00")}), "1.1"},
        {"a multi-octet tag ends the list", Controls({Control({Str("1.1")}), Hex("1F 00")}), "1.1"},
        {"nothing left", {}, "-"},
        {"one octet left", Hex("A0"), "-"},
        {"another element follows", Hex("30 03 04 01 31"), "-"},
        {"empty Controls", Hex("A0 00"), "-"},
        {"empty Controls, long form", Hex("A0 84 00 00 00 00"), "-"},
        {"criticality after the value", Controls({Control({Str("1.2.3"), Str("v"), Boolean(true)})}), "-", bad},
        {"a second value", Controls({Control({Str("1.2.3"), Str("a"), Str("b")})}), "-", bad},
        {"criticality twice", Controls({Control({Str("1.2.3"), Boolean(true), Boolean(false)})}), "-", bad},
        {"an INTEGER inside a control", Controls({Control({Str("1.2.3"), Hex("02 01 05")})}), "-", bad},
        {"a context tag inside a control", Controls({Control({Str("1.2.3"), Hex("80 01 78")})}), "-", bad},
        {"a multi-octet tag inside a control", Controls({Control({Str("1.2.3"), Hex("1F 01 00")})}), "-", bad},
        {"a stray octet inside a control", Controls({Control({Str("1.2.3"), Hex("00")})}), "-", bad},
        {"the type missing", Controls({Control({Boolean(true), Str("v")})}), "-", bad},
        {"an empty control", Controls({Hex("30 00")}), "-", bad},
        {"an empty type", Controls({Control({Str("")})}), "-", bad},
        {"a type holding a NUL", Controls({Control({Tlv(0x04, Hex("31 00 32"))})}), "-", bad},
        {"a member that is not a SEQUENCE", Controls({Str("1.2.3")}), "-", bad},
        {"criticality of two octets", Controls({Control({Str("1.2.3"), Hex("01 02 FF FF")})}), "-", bad},
        {"criticality without contents", Controls({Control({Str("1.2.3"), Hex("01 00")})}), "-", bad},
        {"the type running past its control", Controls({Hex("30 03 04 05 31 2E 32 2E 33")}), "-", bad},
        {"an item running past its control", Controls({Hex("30 08 04 05 31 2E 32 2E 33 01 01 FF")}), "-", bad},
        {"a control running past the Controls", Hex("A0 07 30 09 04 05 31 2E 32 2E 33 01 01 FF"), "-", bad},
        {"a truncated control", Hex("A0 0B 30 09 04 05 31 2E 32 2E 33 01 01"), "-", bad},
        {"Controls running past the data", cut, "-", bad},
        {"a good control, then a broken one", Controls({good, good, Control({Boolean(true)})}), "-", bad},
    };
    TraceCapture trace(0xFFFF); // each control read is traced, its value dumped
    for (const auto &c : cases) {
        LDAPControl *sentinel = nullptr;
        LDAPControl **out = &sentinel;
        zldap::mem_tracking_start(0);
        BerPtr ber = ExactReader(c.bytes);
        EXPECT_EQ(get_ctrls_from_ber(ber.get(), &out), c.rc) << c.name;
        EXPECT_EQ(Describe(out), c.expected) << c.name;
        EXPECT_TRUE(!out || ber->ber_ptr == ber->ber_end) << c.name << ": the Controls are consumed";
        for (LDAPControl **ctrl = out; ctrl && *ctrl; ctrl++)
            EXPECT_EQ(!(*ctrl)->ldctl_value.bv_val || !(*ctrl)->ldctl_value.bv_val[(*ctrl)->ldctl_value.bv_len], true)
                << c.name << ": values read carry a NUL after their length";
        ldap_controls_free(out);
        ber.reset();
        EXPECT_EQ(zldap::mem_tracking_stop().live, 0) << c.name;
    }
    BerPtr ber = ExactReader(Controls({good}));
    EXPECT_EQ(get_ctrls_from_ber(ber.get(), nullptr), LDAP_SUCCESS);
    EXPECT_EQ(ber->ber_ptr, ber->ber_buf) << "nothing is read without an out pointer";
}

TEST(ControlLists, CreateCopiesTypeAndValueOrRefuses)
{
    char bytes[] = {'v', '\0', 'w'};
    LDAPControl *ctrl = nullptr;
    ASSERT_EQ(ldap_create_control("1.2.3", 3, bytes, 1, &ctrl), LDAP_SUCCESS);
    bytes[0] = 'X';
    EXPECT_EQ(std::string(ctrl->ldctl_value.bv_val, 4), std::string("v\0w\0", 4)) << "a NUL follows the value";
    EXPECT_EQ(std::string(ctrl->ldctl_oid) + std::to_string(ctrl->ldctl_iscritical), "1.2.31");
    ldap_control_free(ctrl);

    ctrl = reinterpret_cast<LDAPControl *>(1);
    EXPECT_EQ(ldap_create_control(nullptr, 0, nullptr, 0, &ctrl), LDAP_PARAM_ERROR);
    EXPECT_EQ(ctrl, nullptr);
    EXPECT_EQ(ldap_create_control("1.2.3", 4, nullptr, 0, &ctrl), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_create_control("1.2.3", 0x80000000ul, "x", 0, &ctrl), LDAP_PARAM_ERROR);
}

// Adding appends to a new array; merging moves the input's controls to
// the front; removing takes out every occurrence and frees the control
// only when asked. Refusals, and merges of nothing, change nothing.
TEST(ControlLists, AddMergeRemoveAndFree)
{
    OwnedList owned;
    owned.Add("1.1");
    LDAPControl **input = nullptr, **again = static_cast<LDAPControl **>(zldap::mem_calloc(2, sizeof(LDAPControl *)));
    ASSERT_EQ(ldap_add_control("X1", 0, nullptr, 0, &input), 0);
    ASSERT_EQ(ldap_add_control("X2", 1, "v", 1, &input), 0);
    LDAPControl *x1 = input[0], *x2 = input[1];
    ASSERT_EQ(ldap_merge_control_lists(&owned.list, input), LDAP_SUCCESS);
    EXPECT_EQ(Describe(owned.list), "X1 X2!=v 1.1");
    EXPECT_EQ(owned.list[0], x1) << "the controls themselves move";
    again[0] = x1;
    ASSERT_EQ(ldap_merge_control_lists(&owned.list, again), LDAP_SUCCESS);

    LDAPControl **before = owned.list;
    LDAPControl *empty[] = {nullptr}, stranger{};
    EXPECT_EQ(ldap_add_control("1.3", 2, nullptr, 0, &owned.list), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_merge_control_lists(&owned.list, nullptr), LDAP_SUCCESS);
    EXPECT_EQ(ldap_merge_control_lists(&owned.list, empty), LDAP_SUCCESS);
    EXPECT_EQ(ldap_remove_control(&stranger, &owned.list, 1), LDAP_PARAM_ERROR);
    EXPECT_EQ(owned.list, before);

    ASSERT_EQ(ldap_remove_control(x1, &owned.list, 1), LDAP_SUCCESS);
    ASSERT_EQ(ldap_remove_control(x2, &owned.list, 0), LDAP_SUCCESS);
    EXPECT_EQ(Describe(owned.list), "1.1");
    ldap_control_free(x2); // kept: still the caller's
    ASSERT_EQ(ldap_remove_control(owned.list[0], &owned.list, 1), LDAP_SUCCESS);
    EXPECT_EQ(Describe(owned.list), "") << "an empty array, which is a list too";
    owned.Add("1.9");
    EXPECT_EQ(Describe(owned.list), "1.9");
    // Freeing an empty list releases only the array.
    LDAPControl *last = owned.list[0];
    ldap_free_empty_control_list(&owned.list);
    EXPECT_EQ(owned.list, nullptr);
    ldap_control_free(last);
}

TEST(ProxyDnPrefix, AddsThePrefixOnlyWhenMissing)
{
    const char *const cases[][2] = {
        {"cn=x", "dn:cn=x"}, {"DN:cn=x", "DN:cn=x"}, {"dN:cn=x", "dN:cn=x"},          {"dn:", "dn:"},
        {"", "dn:"},         {"dn", "dn:dn"},        {"dn=x,o=y", "dn:dn=x,o=y"}, {"u:someone", "dn:u:someone"},
    };
    for (const auto &c : cases) {
        char *out = nullptr;
        ASSERT_EQ(ldap_proxy_dn_prefix(&out, c[0]), LDAP_SUCCESS);
        EXPECT_STREQ(out, c[1]);
        zldap::mem_free(out);
    }
}

class Session : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(ld = ldap_init("localhost", 389), nullptr); }
    void TearDown() override { EXPECT_EQ(ldap_unbind(ld), 0); }
    LDAP *ld = nullptr;
};

// What operations send (the defaults when they give no list) is checked
// on the wire elsewhere; here, that a critical client control refuses
// before any default is copied, and records why.
TEST_F(Session, CriticalClientControlRefusesBeforeAnythingElse)
{
    OwnedList defaults, client;
    defaults.Add("1.1", "v", 1);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, defaults.list), 0);
    client.Add("2.1", "", 0);
    client.Add("2.2", "", 1);
    LDAPControl **server = nullptr;
    int copied = 7;
    EXPECT_EQ(ldap_check_client_controls(ld, &server, client.list, &copied), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_EQ(server, nullptr);
    EXPECT_EQ(copied, 0);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
}

// The connection keeps its own copy of the last bind's controls and hands
// out copies; the next bind replaces them, one without controls clears
// them. Left stored at unbind: released with the connection. (A failed
// copy clearing them is a row of the allocation sweep.)
TEST_F(Session, BindControlsAreStoredAndHandedOutAsCopies)
{
    LDAPControl **out = nullptr;
    OwnedList first, next;
    first.Add("1.3.6.1.4.1.42.2.27.8.5.1", std::string("\x30\x00", 2), 0);
    next.Add("1.9");
    next.Add("1.8");
    for (LDAPControl **response : {first.list, next.list, static_cast<LDAPControl **>(nullptr), next.list}) {
        ASSERT_EQ(ldap_store_bind_controls(ld, response), LDAP_SUCCESS);
        ASSERT_EQ(ldap_get_bind_controls(ld, &out), LDAP_SUCCESS);
        EXPECT_EQ(Describe(out), Describe(response));
        EXPECT_TRUE(!out || out[0] != ld->ld_defconn->lconn_ctrls[0]);
        ldap_controls_free(out);
    }
}

// An entry's controls follow its protocol operation; reading them moves
// neither the entry's position nor answers differently by guarded form,
// and the handle records the outcome.
TEST_F(Session, EntryControls)
{
    const Bytes entry = Tlv(0x64, Join({Str("cn=Babs"), Tlv(0x30, Tlv(0x30, Join({Str("cn"), Tlv(0x31, Str("B"))})))}));
    const Bytes sent = Controls({Control({Str("2.16.840.1.113730.3.4.7"), Str("{change}")}),
                                 Control({Str("1.2.3"), Boolean(true), Str("")})});
    const struct {
        const char *name;
        Bytes operation, after;
        int rc;
        const char *expected;
    } cases[] = {
        {"controls", entry, sent, 0, "2.16.840.1.113730.3.4.7={change} 1.2.3!="},
        {"no controls", entry, {}, 0, "-"},
        {"not an entry", Tlv(0x65, Hex("0A 01 00 04 00 04 00")), sent, LDAP_PARAM_ERROR, "-"},
        {"an entry cut short", Bytes(entry.begin(), entry.end() - 3), {}, LDAP_DECODING_ERROR, "-"},
        {"nothing at all", {}, {}, LDAP_DECODING_ERROR, "-"},
        {"a control without a type", entry, Controls({Control({Boolean(true)})}), LDAP_DECODING_ERROR, "-"},
    };
    for (const auto &c : cases) {
        std::unique_ptr<LDAPMessage, void (*)(LDAPMessage *)> msg(ldap_alloc_msg(ld->ld_defconn),
                                                                  [](LDAPMessage *m) { free_msg(m, 0); });
        // The message type is the operation's tag, as the reading path sets it.
        msg->msg_type = c.operation.empty() ? LDAP_RES_SEARCH_ENTRY : c.operation[0];
        // Positioned past the message id, as the reading path leaves it.
        msg->msg_ber = ExactReader(Join({c.operation, c.after})).release();
        char *position = msg->msg_ber->ber_ptr;
        for (auto get : {ldap_get_entry_controls, ldap_get_entry_controls_np}) {
            LDAPControl *sentinel = nullptr;
            LDAPControl **out = &sentinel;
            EXPECT_EQ(get(ld, msg.get(), &out), c.rc) << c.name;
            EXPECT_EQ(Describe(out), c.expected) << c.name;
            EXPECT_EQ(ldap_get_errno(ld), c.rc) << c.name;
            EXPECT_EQ(msg->msg_ber->ber_ptr, position) << c.name;
            ldap_controls_free(out);
        }
    }
}

} // namespace
