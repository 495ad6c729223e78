// Controls: their wire form in requests and responses, malformed response
// controls, list handling (create, add, remove, merge, free), the
// client-control rule, the bind response controls kept on the default
// connection, the proxy DN prefix and the controls of a search entry,
// with every allocation of the allocating paths failed in turn.
#include "alloc_faults.h"
#include "ber_test_support.h"
#include "proto/ldap_controls.h"
#include "core/ldap_error.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_init.h"
#include "message/ldap_message.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"
#include "base/memory.h"
#include "test_util.h"
#include "base/trace.h"

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace {

using zldap_test::BerPtr;
using zldap_test::Bytes;
using zldap_test::ExactReader;
using zldap_test::Hex;
using zldap_test::ToHex;
using zldap_test::Written;

// ---------------------------------------------------------------------
// Building blocks

Bytes Text(const std::string &s) { return Bytes(s.begin(), s.end()); }

// One element with a definite length: the short form up to 127, else 0x84.
Bytes Tlv(unsigned tag, const Bytes &contents)
{
    Bytes out{static_cast<unsigned char>(tag)};
    size_t n = contents.size();
    if (n < 128) {
        out.push_back(static_cast<unsigned char>(n));
    } else {
        out.push_back(0x84);
        for (int shift = 24; shift >= 0; shift -= 8)
            out.push_back(static_cast<unsigned char>(n >> shift));
    }
    out.insert(out.end(), contents.begin(), contents.end());
    return out;
}

Bytes Join(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes Controls(std::initializer_list<Bytes> members) { return Tlv(0xA0, Join(members)); }
Bytes Control(std::initializer_list<Bytes> items) { return Tlv(0x30, Join(items)); }
Bytes Oid(const std::string &oid) { return Tlv(0x04, Text(oid)); }
Bytes Value(const std::string &value) { return Tlv(0x04, Text(value)); }
Bytes Boolean(bool value) { return {0x01, 0x01, static_cast<unsigned char>(value ? 0xFF : 0x00)}; }

std::string ValueOf(const LDAPControl *ctrl)
{
    return std::string(ctrl->ldctl_value.bv_val, ctrl->ldctl_value.bv_len);
}

// A control list the test owns: arrays and controls made with the
// library's own functions, released on destruction.
struct OwnedList {
    LDAPControl **list = nullptr;
    OwnedList() = default;
    OwnedList(const OwnedList &) = delete;
    OwnedList &operator=(const OwnedList &) = delete;
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

// Reads controls from exactly these bytes; the element is checked to end
// at its data when the read succeeds.
int Get(const Bytes &bytes, LDAPControl ***out)
{
    BerPtr ber = ExactReader(bytes);
    int rc = get_ctrls_from_ber(ber.get(), out);
    if (rc == LDAP_SUCCESS && *out) {
        EXPECT_EQ(ber->ber_ptr, ber->ber_end) << "the Controls are consumed";
    }
    return rc;
}

// ---------------------------------------------------------------------
// Writing

TEST(PutControls, OneControlWithoutValueHasTheExpectedBytes)
{
    LDAPControl ctrl{const_cast<char *>("1.2.3"), {0, nullptr}, 0};
    LDAPControl *list[] = {&ctrl, nullptr};
    EXPECT_EQ(ToHex(Put(list)), "A0 84 00 00 00 10 30 84 00 00 00 0A 04 05 31 2E 32 2E 33 01 01 00");
}

TEST(PutControls, CriticalityAndValuesAreWritten)
{
    char binary[] = {'a', '\0', 'b'};
    LDAPControl critical{const_cast<char *>("1.2.3"), {3, binary}, 5};
    // A present value of length 0 is written as an empty OCTET STRING.
    LDAPControl empty_value{const_cast<char *>("1.4"), {0, const_cast<char *>("")}, 0};
    LDAPControl *list[] = {&critical, &empty_value, nullptr};
    EXPECT_EQ(ToHex(Put(list)), "A0 84 00 00 00 25 "
                                "30 84 00 00 00 0F 04 05 31 2E 32 2E 33 01 01 FF 04 03 61 00 62 "
                                "30 84 00 00 00 0A 04 03 31 2E 34 01 01 00 04 00");
}

TEST(PutControls, EmptyListsWriteNothing)
{
    LDAPControl *empty[] = {nullptr};
    EXPECT_EQ(ToHex(Put(nullptr)), "");
    EXPECT_EQ(ToHex(Put(empty)), "");
    EXPECT_EQ(put_ctrls_into_ber(nullptr, empty), LDAP_SUCCESS);
}

TEST(PutControls, UnencodableListsAreRefusedBeforeAnythingIsWritten)
{
    LDAPControl good{const_cast<char *>("1.2.3"), {0, nullptr}, 0};
    LDAPControl no_oid{nullptr, {0, nullptr}, 0};
    LDAPControl huge{const_cast<char *>("1.2.4"), {0x80000000ul, const_cast<char *>("x")}, 0};
    LDAPControl *without_oid[] = {&good, &no_oid, nullptr};
    LDAPControl *too_long[] = {&good, &huge, nullptr};
    LDAPControl *fine[] = {&good, nullptr};
    EXPECT_EQ(ToHex(Put(without_oid, LDAP_ENCODING_ERROR)), "");
    EXPECT_EQ(ToHex(Put(too_long, LDAP_ENCODING_ERROR)), "");
    EXPECT_EQ(put_ctrls_into_ber(nullptr, fine), LDAP_ENCODING_ERROR);
}

TEST(PutControls, GrowingTheElementSurvivesEveryAllocationFailure)
{
    OwnedList given;
    given.Add("1.2.840.113556.1.4.319", std::string(300, 'v'), 1);
    given.Add("1.2.3");
    Bytes expected = Put(given.list);
    // An element without an inline buffer must grow for every item.
    zldap_test::ExpectEachAllocationFailure({[&] {
                                                 BerElement *ber = fber_alloc_t(0);
                                                 if (!ber)
                                                     return LDAP_ENCODING_ERROR;
                                                 int rc = put_ctrls_into_ber(ber, given.list);
                                                 if (rc == LDAP_SUCCESS) {
                                                     EXPECT_EQ(Written(ber), expected);
                                                 }
                                                 fber_free(ber);
                                                 return rc;
                                             },
                                             LDAP_ENCODING_ERROR, nullptr});
}

// ---------------------------------------------------------------------
// Reading

TEST(GetControls, WrittenListsReadBack)
{
    OwnedList given;
    given.Add("1.2.3", "", 0);
    given.Add("1.2.840.113556.1.4.319", std::string("\x30\x05\x02\x01\x0A\x04\x00", 7), 1);
    given.Add("2.16.840.1.113730.3.4.2", std::string(200, 'z'), 0);
    LDAPControl **out = nullptr;
    ASSERT_EQ(Get(Put(given.list), &out), LDAP_SUCCESS);
    ASSERT_EQ(ldap_count_controls(out), 3);
    EXPECT_STREQ(out[0]->ldctl_oid, "1.2.3");
    EXPECT_EQ(out[0]->ldctl_iscritical, 0);
    EXPECT_EQ(out[0]->ldctl_value.bv_val, nullptr);
    EXPECT_EQ(out[0]->ldctl_value.bv_len, 0u);
    EXPECT_STREQ(out[1]->ldctl_oid, "1.2.840.113556.1.4.319");
    EXPECT_NE(out[1]->ldctl_iscritical, 0);
    EXPECT_EQ(ValueOf(out[1]), std::string("\x30\x05\x02\x01\x0A\x04\x00", 7));
    EXPECT_EQ(out[1]->ldctl_value.bv_val[7], '\0') << "values read carry a NUL after their length";
    EXPECT_EQ(ValueOf(out[2]), std::string(200, 'z'));
    ldap_controls_free(out);
}

TEST(GetControls, CriticalControlWithValueFromTheShortForm)
{
    LDAPControl **out = nullptr;
    ASSERT_EQ(Get(Controls({Control({Oid("1.2.3"), Boolean(true), Value("abc")})}), &out), LDAP_SUCCESS);
    ASSERT_EQ(ldap_count_controls(out), 1);
    EXPECT_STREQ(out[0]->ldctl_oid, "1.2.3");
    EXPECT_NE(out[0]->ldctl_iscritical, 0);
    EXPECT_EQ(out[0]->ldctl_value.bv_len, 3u);
    EXPECT_EQ(ValueOf(out[0]), "abc");
    ldap_controls_free(out);
}

TEST(GetControls, OptionalItemsMayBeLeftOut)
{
    struct {
        const char *name;
        Bytes control;
        int critical;
        const char *value; // NULL: no value
    } const cases[] = {
        {"type only", Control({Oid("1.1")}), 0, nullptr},
        {"criticality FALSE", Control({Oid("1.1"), Boolean(false)}), 0, nullptr},
        {"criticality TRUE", Control({Oid("1.1"), Boolean(true)}), 1, nullptr},
        {"criticality 0x01", Control({Oid("1.1"), Hex("01 01 01")}), 1, nullptr},
        {"value only", Control({Oid("1.1"), Value("v")}), 0, "v"},
        {"empty value", Control({Oid("1.1"), Value("")}), 0, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        LDAPControl **out = nullptr;
        ASSERT_EQ(Get(Tlv(0xA0, c.control), &out), LDAP_SUCCESS);
        ASSERT_EQ(ldap_count_controls(out), 1);
        EXPECT_STREQ(out[0]->ldctl_oid, "1.1");
        EXPECT_EQ(out[0]->ldctl_iscritical != 0, c.critical != 0);
        if (c.value) {
            ASSERT_NE(out[0]->ldctl_value.bv_val, nullptr) << "an empty value is still a value";
            EXPECT_EQ(ValueOf(out[0]), c.value);
        } else {
            EXPECT_EQ(out[0]->ldctl_value.bv_val, nullptr);
        }
        ldap_controls_free(out);
    }
}

TEST(GetControls, NoControlsGiveNoList)
{
    struct {
        const char *name;
        Bytes bytes;
    } const cases[] = {
        {"nothing left", {}},
        {"one octet left", Hex("A0")},
        {"another element follows", Hex("30 03 04 01 31")},
        {"empty Controls", Hex("A0 00")},
        {"empty Controls, long form", Hex("A0 84 00 00 00 00")},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        LDAPControl *sentinel = nullptr;
        LDAPControl **out = &sentinel;
        EXPECT_EQ(Get(c.bytes, &out), LDAP_SUCCESS);
        EXPECT_EQ(out, nullptr);
    }
    BerPtr ber = ExactReader(Controls({Control({Oid("1.1")})}));
    EXPECT_EQ(get_ctrls_from_ber(ber.get(), nullptr), LDAP_SUCCESS);
    EXPECT_EQ(ber->ber_ptr, ber->ber_buf) << "nothing is read without an out pointer";
    LDAPControl **out = nullptr;
    EXPECT_EQ(get_ctrls_from_ber(nullptr, &out), LDAP_SUCCESS);
    EXPECT_EQ(out, nullptr);
}

TEST(GetControls, TheListEndsWhereNoFurtherTagCanBeRead)
{
    struct {
        const char *name;
        Bytes bytes;
    } const cases[] = {
        {"one stray octet", Controls({Control({Oid("1.1")}), Hex("00")})},
        {"a multi-octet tag", Controls({Control({Oid("1.1")}), Hex("1F 00")})},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        LDAPControl **out = nullptr;
        ASSERT_EQ(Get(c.bytes, &out), LDAP_SUCCESS);
        ASSERT_EQ(ldap_count_controls(out), 1);
        EXPECT_STREQ(out[0]->ldctl_oid, "1.1");
        ldap_controls_free(out);
    }
}

TEST(GetControls, ManyControlsGrowTheList)
{
    Bytes members;
    for (int i = 0; i < 100; i++)
        members = Join({members, Control({Oid("1.2." + std::to_string(i)), Boolean(i % 2)})});
    LDAPControl **out = nullptr;
    ASSERT_EQ(Get(Tlv(0xA0, members), &out), LDAP_SUCCESS);
    ASSERT_EQ(ldap_count_controls(out), 100);
    EXPECT_STREQ(out[99]->ldctl_oid, "1.2.99");
    EXPECT_NE(out[99]->ldctl_iscritical, 0);
    ldap_controls_free(out);
}

// Every kind of malformed Controls is refused with 84, leaves the out list
// NULL and leaks nothing, also when earlier controls had been read.
TEST(GetControls, MalformedControlsAreRefused)
{
    const Bytes good = Control({Oid("1.2.3"), Boolean(true), Value("abc")});
    Bytes cut = Controls({good});
    cut.pop_back();
    struct {
        const char *name;
        Bytes bytes;
    } const cases[] = {
        {"criticality after the value", Controls({Control({Oid("1.2.3"), Value("v"), Boolean(true)})})},
        {"a second value", Controls({Control({Oid("1.2.3"), Value("a"), Value("b")})})},
        {"criticality twice", Controls({Control({Oid("1.2.3"), Boolean(true), Boolean(false)})})},
        {"an INTEGER inside a control", Controls({Control({Oid("1.2.3"), Hex("02 01 05")})})},
        {"a context tag inside a control", Controls({Control({Oid("1.2.3"), Hex("80 01 78")})})},
        {"a multi-octet tag inside a control", Controls({Control({Oid("1.2.3"), Hex("1F 01 00")})})},
        {"a stray octet inside a control", Controls({Control({Oid("1.2.3"), Hex("00")})})},
        {"the type missing", Controls({Control({Boolean(true), Value("v")})})},
        {"an empty control", Controls({Hex("30 00")})},
        {"an empty type", Controls({Control({Value("")})})},
        {"a type holding a NUL", Controls({Control({Tlv(0x04, Hex("31 00 32"))})})},
        {"a member that is not a SEQUENCE", Controls({Oid("1.2.3")})},
        {"criticality of two octets", Controls({Control({Oid("1.2.3"), Hex("01 02 FF FF")})})},
        {"criticality without contents", Controls({Control({Oid("1.2.3"), Hex("01 00")})})},
        {"the type running past its control", Controls({Hex("30 03 04 05 31 2E 32 2E 33")})},
        {"an item running past its control", Controls({Hex("30 08 04 05 31 2E 32 2E 33 01 01 FF")})},
        {"a control running past the Controls", Hex("A0 07 30 09 04 05 31 2E 32 2E 33 01 01 FF")},
        {"a truncated control", Hex("A0 0B 30 09 04 05 31 2E 32 2E 33 01 01")},
        {"Controls running past the data", cut},
        {"a good control, then a broken one", Controls({good, good, Control({Boolean(true)})})},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        LDAPControl *sentinel = nullptr;
        LDAPControl **out = &sentinel;
        zldap::mem_tracking_start(0);
        int rc = Get(c.bytes, &out);
        zldap::AllocCounters counters = zldap::mem_tracking_stop();
        EXPECT_EQ(rc, LDAP_DECODING_ERROR) << ToHex(c.bytes);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(counters.live, 0) << "blocks leaked";
        ldap_controls_free(out);
    }
}

TEST(GetControls, ReadingSurvivesEveryAllocationFailure)
{
    Bytes bytes = Controls({Control({Oid("1.2.3"), Boolean(true), Value("abc")}), Control({Oid("1.4")}),
                            Control({Oid("1.5"), Value("")}), Control({Oid("1.6"), Value("x")}),
                            Control({Oid("1.7"), Boolean(false)})});
    BerPtr ber = ExactReader(bytes);
    long allocations = zldap_test::ExpectEachAllocationFailure({[&] {
                                                                    ber->ber_ptr = ber->ber_buf;
                                                                    LDAPControl **out = nullptr;
                                                                    int rc = get_ctrls_from_ber(ber.get(), &out);
                                                                    EXPECT_EQ(rc == 0, out != nullptr);
                                                                    if (rc == 0) {
                                                                        EXPECT_EQ(ldap_count_controls(out), 5);
                                                                    }
                                                                    ldap_controls_free(out);
                                                                    return rc;
                                                                },
                                                                LDAP_NO_MEMORY, nullptr});
    EXPECT_GE(allocations, 12) << "array, record, type and value of each control";
}

TEST(GetControls, TracesEachControl)
{
    zldap_test::TraceCapture capture(0xFFFF);
    LDAPControl **out = nullptr;
    ASSERT_EQ(Get(Controls({Control({Oid("1.2.3"), Boolean(true), Value("abc")}), Control({Oid("1.4")})}), &out),
              0);
    ldap_controls_free(out);
    int bad = Get(Controls({Control({Boolean(true)})}), &out);
    EXPECT_EQ(bad, LDAP_DECODING_ERROR);
    std::string text = capture.text();
    EXPECT_NE(text.find("get_ctrls_from_ber: Control OID = 1.2.3, critical = Yes, value follows"),
              std::string::npos);
    EXPECT_NE(text.find("get_ctrls_from_ber: Control OID = 1.4, critical = No, value follows"),
              std::string::npos);
    EXPECT_NE(text.find("get_ctrls_from_ber: control value is NULL. "), std::string::npos);
    EXPECT_NE(text.find(" 2 controls returned"), std::string::npos);
    EXPECT_NE(text.find("get_ctrls_from_ber: Error decoding a control OID"), std::string::npos);
    EXPECT_NE(text.find("get_ctrls_from_ber: return(84), ctrls=(nil), 0 controls returned"), std::string::npos);
}

// ---------------------------------------------------------------------
// Lists

TEST(ControlLists, CreateCopiesTypeAndValue)
{
    char bytes[] = {'v', '\0', 'w'};
    LDAPControl *ctrl = nullptr;
    ASSERT_EQ(ldap_create_control("1.2.3", 3, bytes, 1, &ctrl), LDAP_SUCCESS);
    bytes[0] = 'X';
    EXPECT_STREQ(ctrl->ldctl_oid, "1.2.3");
    EXPECT_EQ(ctrl->ldctl_iscritical, 1);
    ASSERT_EQ(ctrl->ldctl_value.bv_len, 3u);
    EXPECT_EQ(ValueOf(ctrl), std::string("v\0w", 3));
    EXPECT_EQ(ctrl->ldctl_value.bv_val[3], '\0') << "a NUL follows the value";
    ldap_control_free(ctrl);

    ASSERT_EQ(ldap_create_control("1.2.4", 0, "ignored", 0, &ctrl), LDAP_SUCCESS);
    EXPECT_EQ(ctrl->ldctl_value.bv_val, nullptr) << "length 0 makes no value";
    EXPECT_EQ(ctrl->ldctl_value.bv_len, 0u);
    ldap_control_free(ctrl);
}

TEST(ControlLists, CreateRefusesBadArguments)
{
    LDAPControl *ctrl = reinterpret_cast<LDAPControl *>(1);
    EXPECT_EQ(ldap_create_control(nullptr, 0, nullptr, 0, &ctrl), LDAP_PARAM_ERROR);
    EXPECT_EQ(ctrl, nullptr);
    EXPECT_EQ(ldap_create_control("1.2.3", 0, nullptr, 0, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_create_control("1.2.3", 4, nullptr, 0, &ctrl), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_create_control("1.2.3", 0x80000000ul, "x", 0, &ctrl), LDAP_PARAM_ERROR);
    EXPECT_EQ(ctrl, nullptr);
}

TEST(ControlLists, AddAppendsToNewArrays)
{
    LDAPControl **list = nullptr;
    ASSERT_EQ(ldap_add_control("1.1", 0, nullptr, 0, &list), LDAP_SUCCESS);
    ASSERT_EQ(ldap_add_control("1.2", 2, "ab", 1, &list), LDAP_SUCCESS);
    ASSERT_EQ(ldap_count_controls(list), 2);
    EXPECT_STREQ(list[0]->ldctl_oid, "1.1");
    EXPECT_STREQ(list[1]->ldctl_oid, "1.2");
    EXPECT_EQ(ValueOf(list[1]), "ab");

    LDAPControl **before = list;
    LDAPControl *first = list[0];
    EXPECT_EQ(ldap_add_control("1.3", 2, nullptr, 0, &list), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_add_control(nullptr, 0, nullptr, 0, &list), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_add_control("1.3", 0, nullptr, 0, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(list, before);
    EXPECT_EQ(list[0], first);
    EXPECT_EQ(ldap_count_controls(list), 2);

    // An empty array is a list too.
    LDAPControl **empty = static_cast<LDAPControl **>(zldap::mem_calloc(1, sizeof(LDAPControl *)));
    ASSERT_EQ(ldap_add_control("1.9", 0, nullptr, 0, &empty), LDAP_SUCCESS);
    EXPECT_EQ(ldap_count_controls(empty), 1);
    ldap_controls_free(empty);
    ldap_controls_free(list);
}

TEST(ControlLists, RemoveTakesTheControlOut)
{
    OwnedList owned;
    owned.Add("1.1");
    owned.Add("1.2");
    owned.Add("1.3");
    LDAPControl *middle = owned.list[1];
    LDAPControl *last = owned.list[2];

    // Kept: the caller still owns the control.
    ASSERT_EQ(ldap_remove_control(middle, &owned.list, 0), LDAP_SUCCESS);
    ASSERT_EQ(ldap_count_controls(owned.list), 2);
    EXPECT_STREQ(owned.list[0]->ldctl_oid, "1.1");
    EXPECT_STREQ(owned.list[1]->ldctl_oid, "1.3");
    EXPECT_STREQ(middle->ldctl_oid, "1.2");

    // Not in the list: refused, nothing changes, nothing is freed.
    LDAPControl **before = owned.list;
    EXPECT_EQ(ldap_remove_control(middle, &owned.list, 1), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_remove_control(nullptr, &owned.list, 1), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_remove_control(middle, nullptr, 1), LDAP_PARAM_ERROR);
    EXPECT_EQ(owned.list, before);
    ldap_control_free(middle);

    ASSERT_EQ(ldap_remove_control(last, &owned.list, 1), LDAP_SUCCESS);
    ASSERT_EQ(ldap_remove_control(owned.list[0], &owned.list, 1), LDAP_SUCCESS);
    ASSERT_NE(owned.list, nullptr);
    EXPECT_EQ(ldap_count_controls(owned.list), 0);
}

TEST(ControlLists, RemoveTakesOutEveryOccurrence)
{
    OwnedList owned;
    owned.Add("1.1");
    owned.Add("1.2");
    LDAPControl *twice = owned.list[0];
    LDAPControl **doubled = static_cast<LDAPControl **>(zldap::mem_calloc(4, sizeof(LDAPControl *)));
    doubled[0] = twice;
    doubled[1] = owned.list[1];
    doubled[2] = twice;
    zldap::mem_free(owned.list);
    owned.list = doubled;
    ASSERT_EQ(ldap_remove_control(twice, &owned.list, 1), LDAP_SUCCESS);
    ASSERT_EQ(ldap_count_controls(owned.list), 1);
    EXPECT_STREQ(owned.list[0]->ldctl_oid, "1.2");
}

TEST(ControlLists, MergePutsTheInputFirst)
{
    OwnedList dest;
    dest.Add("Y1");
    LDAPControl **input = nullptr;
    ASSERT_EQ(ldap_add_control("X1", 0, nullptr, 0, &input), 0);
    ASSERT_EQ(ldap_add_control("X2", 1, "v", 1, &input), 0);
    LDAPControl *x1 = input[0];
    LDAPControl *y1 = dest.list[0];
    ASSERT_EQ(ldap_merge_control_lists(&dest.list, input), LDAP_SUCCESS);
    ASSERT_EQ(ldap_count_controls(dest.list), 3);
    EXPECT_STREQ(dest.list[0]->ldctl_oid, "X1");
    EXPECT_STREQ(dest.list[1]->ldctl_oid, "X2");
    EXPECT_STREQ(dest.list[2]->ldctl_oid, "Y1");
    EXPECT_EQ(dest.list[0], x1) << "the controls themselves move";
    EXPECT_EQ(dest.list[2], y1);
}

TEST(ControlLists, MergeIntoNothingAndOfNothing)
{
    OwnedList dest;
    LDAPControl **input = nullptr;
    ASSERT_EQ(ldap_add_control("X1", 0, nullptr, 0, &input), 0);
    ASSERT_EQ(ldap_merge_control_lists(&dest.list, input), LDAP_SUCCESS);
    ASSERT_EQ(ldap_count_controls(dest.list), 1);
    EXPECT_STREQ(dest.list[0]->ldctl_oid, "X1");

    LDAPControl **before = dest.list;
    LDAPControl *empty[] = {nullptr};
    EXPECT_EQ(ldap_merge_control_lists(&dest.list, nullptr), LDAP_SUCCESS);
    EXPECT_EQ(ldap_merge_control_lists(&dest.list, empty), LDAP_SUCCESS);
    EXPECT_EQ(ldap_merge_control_lists(nullptr, before), LDAP_SUCCESS);
    EXPECT_EQ(dest.list, before) << "nothing changes";
}

TEST(ControlLists, FreeEmptyListReleasesOnlyTheArray)
{
    LDAPControl *ctrl = nullptr;
    ASSERT_EQ(ldap_create_control("1.1", 0, nullptr, 0, &ctrl), 0);
    LDAPControl **list = static_cast<LDAPControl **>(zldap::mem_calloc(2, sizeof(LDAPControl *)));
    list[0] = ctrl;
    ldap_free_empty_control_list(&list);
    EXPECT_EQ(list, nullptr);
    EXPECT_STREQ(ctrl->ldctl_oid, "1.1") << "the control is still the caller's";
    ldap_control_free(ctrl);

    zldap_test::TraceCapture capture(0xFFFF);
    ldap_free_empty_control_list(&list);
    ldap_free_empty_control_list(nullptr);
    EXPECT_NE(capture.text().find("ldap_free_empty_control_list: called with NULL free, skipping ctrl("),
              std::string::npos);
}

TEST(ControlLists, ListOperationsSurviveEveryAllocationFailure)
{
    zldap_test::ExpectEachAllocationFailure({[] {
                                                 LDAPControl *ctrl = nullptr;
                                                 int rc = ldap_create_control("1.2.3", 3, "abc", 1, &ctrl);
                                                 EXPECT_EQ(rc == 0, ctrl != nullptr);
                                                 ldap_control_free(ctrl);
                                                 return rc;
                                             },
                                             LDAP_NO_MEMORY, nullptr});

    // Building, merging and removing: on failure the lists built so far
    // stay whole and are released by the scenario.
    zldap_test::ExpectEachAllocationFailure({[] {
                                                 LDAPControl **dest = nullptr, **input = nullptr;
                                                 int rc = ldap_add_control("Y1", 1, "y", 0, &dest);
                                                 if (rc == 0)
                                                     rc = ldap_add_control("X1", 0, nullptr, 0, &input);
                                                 if (rc == 0)
                                                     rc = ldap_add_control("X2", 2, "xx", 1, &input);
                                                 if (rc == 0) {
                                                     rc = ldap_merge_control_lists(&dest, input);
                                                     if (rc == 0)
                                                         input = nullptr;
                                                 }
                                                 if (rc == 0) {
                                                     LDAPControl *x2 = dest[1];
                                                     rc = ldap_remove_control(x2, &dest, 1);
                                                     EXPECT_EQ(ldap_count_controls(dest), rc == 0 ? 2 : 3);
                                                 }
                                                 ldap_controls_free(dest);
                                                 ldap_controls_free(input);
                                                 return rc;
                                             },
                                             LDAP_NO_MEMORY, nullptr});
}

// ---------------------------------------------------------------------
// Handle-level operations

class Session : public testing::Test {
protected:
    void SetUp() override
    {
        ld = ldap_init("localhost", 389);
        ASSERT_NE(ld, nullptr);
    }
    void TearDown() override { EXPECT_EQ(ldap_unbind(ld), 0); }

    LDAP *ld = nullptr;
};

class ClientControlRule : public Session {};

TEST_F(ClientControlRule, CriticalClientControlRefusesBeforeAnythingElse)
{
    OwnedList defaults, client;
    defaults.Add("1.1");
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, defaults.list), 0);
    client.Add("2.1", "", 0);
    client.Add("2.2", "", 1);
    LDAPControl **server = nullptr;
    int copied = 7;
    EXPECT_EQ(ldap_check_client_controls(ld, &server, client.list, &copied), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_EQ(server, nullptr) << "no default controls were copied";
    EXPECT_EQ(copied, 0);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
}

TEST_F(ClientControlRule, DefaultServerControlsAreCopiedWhenNoneAreGiven)
{
    OwnedList defaults, client;
    defaults.Add("1.1", "v", 1);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, defaults.list), 0);
    client.Add("2.1"); // not critical: ignored
    LDAPControl **server = nullptr;
    int copied = 0;
    ASSERT_EQ(ldap_check_client_controls(ld, &server, client.list, &copied), LDAP_SUCCESS);
    EXPECT_EQ(copied, 1);
    ASSERT_EQ(ldap_count_controls(server), 1);
    EXPECT_NE(server[0], defaults.list[0]);
    EXPECT_STREQ(server[0]->ldctl_oid, "1.1");
    // What an operation then writes: the defaults.
    Bytes sent = Put(server);
    EXPECT_EQ(sent, Put(defaults.list));
    ldap_controls_free(server);
}

TEST_F(ClientControlRule, GivenListsAreUsedAsTheyAre)
{
    OwnedList defaults, given;
    defaults.Add("1.1");
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, defaults.list), 0);
    given.Add("3.1");

    LDAPControl **server = given.list;
    int copied = 1;
    ASSERT_EQ(ldap_check_client_controls(ld, &server, nullptr, &copied), LDAP_SUCCESS);
    EXPECT_EQ(server, given.list);
    EXPECT_EQ(copied, 0);

    // An explicitly empty list sends no controls at all.
    LDAPControl *empty[] = {nullptr};
    server = empty;
    ASSERT_EQ(ldap_check_client_controls(ld, &server, nullptr, &copied), LDAP_SUCCESS);
    EXPECT_EQ(server, empty);
    EXPECT_EQ(copied, 0);
    EXPECT_EQ(ToHex(Put(server)), "");
}

TEST_F(ClientControlRule, WithoutDefaultsNothingIsSent)
{
    LDAPControl **server = nullptr;
    int copied = 0;
    ASSERT_EQ(ldap_check_client_controls(ld, &server, nullptr, &copied), LDAP_SUCCESS);
    EXPECT_EQ(server, nullptr);
    EXPECT_EQ(ToHex(Put(server)), "");
    ldap_controls_free(server);
}

TEST_F(ClientControlRule, RefusesBadArguments)
{
    LDAPControl **server = nullptr;
    int copied = 0;
    EXPECT_EQ(ldap_check_client_controls(nullptr, &server, nullptr, &copied), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_check_client_controls(ld, nullptr, nullptr, &copied), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_check_client_controls(ld, &server, nullptr, nullptr), LDAP_PARAM_ERROR);
}

TEST_F(ClientControlRule, CopyingTheDefaultsSurvivesEveryAllocationFailure)
{
    ldap_set_error_direct(ld, LDAP_OTHER, nullptr, nullptr);
    OwnedList defaults;
    defaults.Add("1.1", "v", 1);
    defaults.Add("1.2");
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, defaults.list), 0);
    zldap_test::ExpectEachAllocationFailure({[&] {
                                                 LDAPControl **server = nullptr;
                                                 int copied = 0;
                                                 int rc = ldap_check_client_controls(ld, &server, nullptr, &copied);
                                                 EXPECT_EQ(copied != 0, rc == 0);
                                                 if (!copied) {
                                                     EXPECT_EQ(server, nullptr);
                                                 }
                                                 ldap_controls_free(server);
                                                 return rc;
                                             },
                                             LDAP_NO_MEMORY, nullptr});
}

class BindControls : public Session {};

TEST_F(BindControls, StoredCopiesAreHandedOutAsCopies)
{
    LDAPControl **out = nullptr;
    ASSERT_EQ(ldap_get_bind_controls(ld, &out), LDAP_SUCCESS);
    EXPECT_EQ(out, nullptr) << "no bind yet";

    OwnedList response;
    response.Add("1.3.6.1.4.1.42.2.27.8.5.1", std::string("\x30\x00", 2), 0);
    ASSERT_EQ(ldap_store_bind_controls(ld, response.list), LDAP_SUCCESS);
    EXPECT_NE(ld->ld_defconn->lconn_ctrls, response.list) << "the connection keeps its own copy";

    ASSERT_EQ(ldap_get_bind_controls(ld, &out), LDAP_SUCCESS);
    ASSERT_EQ(ldap_count_controls(out), 1);
    EXPECT_NE(out[0], ld->ld_defconn->lconn_ctrls[0]);
    EXPECT_STREQ(out[0]->ldctl_oid, "1.3.6.1.4.1.42.2.27.8.5.1");
    EXPECT_EQ(ValueOf(out[0]), std::string("\x30\x00", 2));
    ldap_controls_free(out);

    // The next bind replaces them; one without controls clears them.
    OwnedList next;
    next.Add("1.9");
    next.Add("1.8");
    ASSERT_EQ(ldap_store_bind_controls(ld, next.list), LDAP_SUCCESS);
    ASSERT_EQ(ldap_get_bind_controls(ld, &out), LDAP_SUCCESS);
    EXPECT_EQ(ldap_count_controls(out), 2);
    ldap_controls_free(out);
    ASSERT_EQ(ldap_store_bind_controls(ld, nullptr), LDAP_SUCCESS);
    out = response.list;
    ASSERT_EQ(ldap_get_bind_controls(ld, &out), LDAP_SUCCESS);
    EXPECT_EQ(out, nullptr);

    // Left stored at unbind: released with the connection.
    ASSERT_EQ(ldap_store_bind_controls(ld, next.list), LDAP_SUCCESS);
}

TEST_F(BindControls, RefusesBadArguments)
{
    EXPECT_EQ(ldap_get_bind_controls(ld, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    LDAPControl **out = nullptr;
    EXPECT_EQ(ldap_get_bind_controls(nullptr, &out), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_store_bind_controls(nullptr, nullptr), LDAP_PARAM_ERROR);

    // A handle being unbound admits no operation.
    ld->ld_unbind_started = 1;
    EXPECT_EQ(ldap_get_bind_controls(ld, &out), LDAP_PARAM_ERROR);
    ld->ld_unbind_started = 0;
    EXPECT_EQ(ld->ld_op_count, 0u) << "operations are counted out again";
}

TEST_F(BindControls, AFailedStoreLeavesNoControlsOfAnEarlierBind)
{
    OwnedList first, second;
    first.Add("1.1");
    second.Add("1.2");
    ASSERT_EQ(ldap_store_bind_controls(ld, first.list), LDAP_SUCCESS);
    zldap::mem_tracking_start(1);
    int rc = ldap_store_bind_controls(ld, second.list);
    zldap::AllocCounters counters = zldap::mem_tracking_stop();
    EXPECT_EQ(rc, LDAP_NO_MEMORY);
    EXPECT_EQ(counters.live, -3) << "the earlier list (array, control, OID) is released, nothing else";
    EXPECT_EQ(ld->ld_defconn->lconn_ctrls, nullptr);
    LDAPControl **out = first.list;
    ASSERT_EQ(ldap_get_bind_controls(ld, &out), LDAP_SUCCESS);
    EXPECT_EQ(out, nullptr);
}

TEST_F(BindControls, StoringAndReadingSurviveEveryAllocationFailure)
{
    ldap_set_error_direct(ld, LDAP_OTHER, nullptr, nullptr);
    OwnedList response;
    response.Add("1.1", "abc", 1);
    response.Add("1.2");
    zldap_test::ExpectEachAllocationFailure({[&] {
                                                 int rc = ldap_store_bind_controls(ld, response.list);
                                                 EXPECT_EQ(rc == 0, ld->ld_defconn->lconn_ctrls != nullptr)
                                                     << "a failed store keeps no stale controls";
                                                 ldap_store_bind_controls(ld, nullptr);
                                                 return rc;
                                             },
                                             LDAP_NO_MEMORY, nullptr});

    ASSERT_EQ(ldap_store_bind_controls(ld, response.list), 0);
    zldap_test::ExpectEachAllocationFailure({[&] {
                                                 LDAPControl **out = nullptr;
                                                 int rc = ldap_get_bind_controls(ld, &out);
                                                 EXPECT_EQ(rc == 0, out != nullptr);
                                                 ldap_controls_free(out);
                                                 return rc;
                                             },
                                             LDAP_NO_MEMORY, [&] {
                                                 EXPECT_EQ(ldap_count_controls(ld->ld_defconn->lconn_ctrls), 2);
                                             }});
}

TEST(ProxyDnPrefix, AddsThePrefixOnlyWhenMissing)
{
    struct {
        const char *dn;
        const char *expected;
    } const cases[] = {
        {"cn=x", "dn:cn=x"},         {"DN:cn=x", "DN:cn=x"}, {"dN:cn=x", "dN:cn=x"},
        {"dn:", "dn:"},              {"", "dn:"},            {"dn", "dn:dn"},
        {"dn=x,o=y", "dn:dn=x,o=y"}, {"u:someone", "dn:u:someone"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.dn);
        char *out = nullptr;
        ASSERT_EQ(ldap_proxy_dn_prefix(&out, c.dn), LDAP_SUCCESS);
        EXPECT_STREQ(out, c.expected);
        zldap::mem_free(out);
    }
}

TEST(ProxyDnPrefix, RefusesMissingArgumentsAndSurvivesMemoryFailure)
{
    char *out = nullptr;
    EXPECT_EQ(ldap_proxy_dn_prefix(nullptr, "cn=x"), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_proxy_dn_prefix(&out, nullptr), LDAP_PARAM_ERROR);
    for (const char *dn : {"cn=x", "DN:cn=x"}) {
        zldap_test::ExpectEachAllocationFailure({[dn] {
                                                     char *text = nullptr;
                                                     int rc = ldap_proxy_dn_prefix(&text, dn);
                                                     EXPECT_EQ(rc == 0, text != nullptr);
                                                     zldap::mem_free(text);
                                                     return rc;
                                                 },
                                                 LDAP_NO_MEMORY, nullptr});
    }
}

// ---------------------------------------------------------------------
// Entry controls

class EntryControls : public Session {
protected:
    void TearDown() override
    {
        for (LDAPMessage *msg : messages)
            free_msg(msg, 0);
        Session::TearDown();
    }

    // A received message of the given type: message id 7, the protocol
    // operation, then whatever follows it. Its element holds exactly the
    // contents, positioned at the protocol operation as the reading path
    // leaves it.
    LDAPMessage *Message(const Bytes &operation, const Bytes &after, int type = LDAP_RES_SEARCH_ENTRY)
    {
        BerPtr ber = ExactReader(Join({Hex("02 01 07"), operation, after}));
        int id = 0;
        EXPECT_EQ(fber_get_int(ber.get(), &id), 0x02u);
        LDAPMessage *msg = ldap_alloc_msg(ld->ld_defconn);
        msg->msg_id = id;
        msg->msg_type = type;
        msg->msg_ber = ber.release();
        messages.push_back(msg);
        return msg;
    }

    static Bytes Entry()
    {
        return Tlv(0x64, Join({Oid("cn=Babs,dc=example,dc=com"),
                               Tlv(0x30, Tlv(0x30, Join({Oid("cn"), Tlv(0x31, Value("Babs"))})))}));
    }

    std::vector<LDAPMessage *> messages;
};

TEST_F(EntryControls, ControlsAfterTheEntryAreHandedOut)
{
    OwnedList sent;
    sent.Add("2.16.840.1.113730.3.4.7", "{change}", 0);
    sent.Add("1.2.3", "", 1);
    LDAPMessage *entry = Message(Entry(), Put(sent.list));
    char *position = entry->msg_ber->ber_ptr;

    LDAPControl **out = nullptr;
    ASSERT_EQ(ldap_get_entry_controls(ld, entry, &out), LDAP_SUCCESS);
    ASSERT_EQ(ldap_count_controls(out), 2);
    EXPECT_STREQ(out[0]->ldctl_oid, "2.16.840.1.113730.3.4.7");
    EXPECT_EQ(ValueOf(out[0]), "{change}");
    EXPECT_STREQ(out[1]->ldctl_oid, "1.2.3");
    EXPECT_NE(out[1]->ldctl_iscritical, 0);
    EXPECT_EQ(entry->msg_ber->ber_ptr, position) << "the entry's own position is not moved";
    ldap_controls_free(out);

    // Again, and through the other guarded form: the same answer.
    ASSERT_EQ(ldap_get_entry_controls_np(ld, entry, &out), LDAP_SUCCESS);
    EXPECT_EQ(ldap_count_controls(out), 2);
    ldap_controls_free(out);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_SUCCESS);
}

TEST_F(EntryControls, AnEntryWithoutControlsHasNone)
{
    LDAPMessage *entry = Message(Entry(), {});
    LDAPControl *sentinel = nullptr;
    LDAPControl **out = &sentinel;
    ASSERT_EQ(ldap_get_entry_controls(ld, entry, &out), LDAP_SUCCESS);
    EXPECT_EQ(out, nullptr);
}

TEST_F(EntryControls, RefusesWhatIsNotAnEntry)
{
    LDAPMessage *done = Message(Tlv(0x65, Hex("0A 01 00 04 00 04 00")), Controls({Control({Oid("1.1")})}),
                                LDAP_RES_SEARCH_RESULT);
    LDAPMessage *entry = Message(Entry(), {});
    LDAPControl **out = nullptr;
    EXPECT_EQ(ldap_get_entry_controls(ld, done, &out), LDAP_PARAM_ERROR);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_entry_controls(ld, nullptr, &out), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_entry_controls(ld, entry, nullptr), LDAP_PARAM_ERROR);

    // Without an admitted operation the two guarded forms answer differently.
    EXPECT_EQ(ldap_get_entry_controls(nullptr, entry, &out), -1);
    EXPECT_EQ(ldap_get_entry_controls_np(nullptr, entry, &out), LDAP_PARAM_ERROR);
    ld->ld_unbind_started = 1;
    EXPECT_EQ(ldap_get_entry_controls(ld, entry, &out), -1);
    EXPECT_EQ(ldap_get_entry_controls_np(ld, entry, &out), LDAP_PARAM_ERROR);
    ld->ld_unbind_started = 0;
    EXPECT_EQ(ld->ld_op_count, 0u);
}

TEST_F(EntryControls, MalformedEntriesAndControlsAreDecodingErrors)
{
    Bytes truncated_entry = Entry();
    truncated_entry.resize(truncated_entry.size() - 3);
    struct {
        const char *name;
        Bytes operation;
        Bytes after;
    } const cases[] = {
        {"an entry cut short", truncated_entry, {}},
        {"nothing after the message id", {}, {}},
        {"criticality after the value", Entry(), Controls({Control({Oid("1.1"), Value("v"), Boolean(true)})})},
        {"a control without a type", Entry(), Controls({Control({Boolean(true)})})},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        LDAPMessage *entry = Message(c.operation, c.after);
        LDAPControl *sentinel = nullptr;
        LDAPControl **out = &sentinel;
        EXPECT_EQ(ldap_get_entry_controls(ld, entry, &out), LDAP_DECODING_ERROR);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(ldap_get_errno(ld), LDAP_DECODING_ERROR);
    }
}

TEST_F(EntryControls, ReadingSurvivesEveryAllocationFailure)
{
    ldap_set_error_direct(ld, LDAP_OTHER, nullptr, nullptr);
    OwnedList sent;
    sent.Add("1.1", "abc", 1);
    sent.Add("1.2");
    LDAPMessage *entry = Message(Entry(), Put(sent.list));
    zldap_test::ExpectEachAllocationFailure({[&] {
                                                 LDAPControl **out = nullptr;
                                                 int rc = ldap_get_entry_controls(ld, entry, &out);
                                                 EXPECT_EQ(rc == 0, out != nullptr);
                                                 EXPECT_EQ(ldap_get_errno(ld), rc) << "recorded";
                                                 ldap_controls_free(out);
                                                 return rc;
                                             },
                                             LDAP_NO_MEMORY, nullptr});
}

TEST(ControlTraces, WritingAndTheClientRuleAreTraced)
{
    LDAP *ld = ldap_init("localhost", 389);
    ASSERT_NE(ld, nullptr);
    zldap_test::TraceCapture capture(0xFFFF);
    LDAPControl ctrl{const_cast<char *>("1.2.3"), {0, nullptr}, 1};
    LDAPControl *list[] = {&ctrl, nullptr};
    Put(list);
    LDAPControl **server = nullptr;
    int copied = 0;
    EXPECT_EQ(ldap_check_client_controls(ld, &server, list, &copied), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    char *dn = nullptr;
    EXPECT_EQ(ldap_proxy_dn_prefix(&dn, nullptr), LDAP_PARAM_ERROR);
    std::string text = capture.text();
    EXPECT_NE(text.find("put_ctrls_into_ber: ctrls="), std::string::npos);
    EXPECT_NE(text.find("put_ctrls_into_ber: return(rc=0)"), std::string::npos);
    EXPECT_NE(text.find("Critical client controls not supported"), std::string::npos);
    EXPECT_NE(text.find("ldap_proxy_dn_prefix: Bad Parameters passed proxyDN("), std::string::npos);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

} // namespace
