// Every operation call as a row: the request it puts on the wire (what
// follows the message id, byte for byte), the answer a scripted server
// gives, and the code the call returns. Refusals send nothing. The handle
// of every row has a size limit of 100 and a time limit of 30, so that the
// search rows show where each form takes its limits from.
#include "engine_fixture.h"
#include "core/ldap_error.h"
#include "ops/ldap_bind.h"
#include "ops/search.h"
#include "ops/update.h"
#include "results/results.h"
#include "session/ldap_options.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace zldap_test;
using namespace std::chrono_literals;

namespace {

using Answer = std::function<Bytes(int id)>; // what the server sends back; nothing for silence

struct WireCase {
    const char *name;
    std::function<int(LDAP *)> call;
    std::string request; // hex; empty when nothing may be sent
    Answer answer;
    int code;
    int error = 0; // when set, the thread's error after the call
};

void PrintTo(const WireCase &c, std::ostream *os) { *os << c.name; }

// Where the calls leave their chains and ids.
LDAPMessage *res = nullptr;
int id = 0;

Answer Done(int tag, int code = 0)
{
    return [=](int id) { return wire::Result(id, tag, code); };
}

// One entry and a search result done.
Answer Found(int code, std::chrono::milliseconds delay = {})
{
    return [=](int id) {
        std::this_thread::sleep_for(delay);
        return Concat(wire::Entry(id, "cn=a", {{"cn", {"a"}}}), wire::Result(id, 0x65, code));
    };
}

// What a web server says to bytes it cannot parse; the socket stays open.
Answer HttpError()
{
    return [](int) {
        std::string text = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";
        return Bytes(text.begin(), text.end());
    };
}

Answer BindInProgress(const char *creds)
{
    return [=](int id) {
        return wire::Message(id, [&](BerElement *ber) {
            return fber_printf(ber, "t{essto}", ber_tag_t{0x61}, 14, "", "", ber_tag_t{0x87}, creds,
                               static_cast<int>(strlen(creds)));
        });
    };
}

// The asynchronous forms: the id (read after the call), or the code of a failure.
int IdOr(int rc, const int *id) { return rc ? rc : *id; }

// The code of a search, with its chain released.
int Searched(int rc)
{
    ldap_msgfree(res);
    res = nullptr;
    return rc;
}

// A search request with filter (cn=a) and no attributes; `fields` are its
// length's last byte and everything from the base to attrs-only.
std::string SearchRequest(const std::string &fields)
{
    return "63 84 00 00 00 " + fields + " A3 84 00 00 00 07 04 02 63 6E 04 01 61 30 84 00 00 00 00";
}

// The search forms with base "o=x", filter (cn=a), all attributes, chains released.
std::function<int(LDAP *)> SearchS(int scope)
{
    return [=](LDAP *ld) { return Searched(ldap_search_s(ld, "o=x", scope, "(cn=a)", nullptr, 0, &res)); };
}

std::function<int(LDAP *)> SearchSt(struct timeval *timeout)
{
    return [=](LDAP *ld) { return Searched(ldap_search_st(ld, "o=x", 0, "(cn=a)", nullptr, 0, timeout, &res)); };
}

std::function<int(LDAP *)> SearchExtS(struct timeval *timeout, int sizelimit)
{
    return [=](LDAP *ld) {
        return Searched(
            ldap_search_ext_s(ld, "o=x", 0, "(cn=a)", nullptr, 0, nullptr, nullptr, timeout, sizelimit, &res));
    };
}

LDAPControl critical_control{const_cast<char *>("1.2.3"), {0, nullptr}, 1};
LDAPControl *critical[] = {&critical_control, nullptr};
LDAPControl plain_control{const_cast<char *>("1.2.3"), {0, nullptr}, 0};
LDAPControl *plain[] = {&plain_control, nullptr};
LDAPControl *none[] = {nullptr};
char x[] = "x", bytes[] = {'a', '\0', 'b'};
char *xs[] = {x, nullptr};
struct berval binary {3, bytes};
struct berval *binaries[] = {&binary, nullptr};
LDAPMod replace{LDAP_MOD_REPLACE, const_cast<char *>("description"), {xs}};
LDAPMod add_binary{LDAP_MOD_ADD | LDAP_MOD_BVALUES, const_cast<char *>("photo"), {reinterpret_cast<char **>(binaries)}};
LDAPMod delete_binary{LDAP_MOD_DELETE | LDAP_MOD_BVALUES, const_cast<char *>("photo"),
                      {reinterpret_cast<char **>(binaries)}};
LDAPMod *replaces[] = {&replace, nullptr}, *binary_adds[] = {&add_binary, nullptr}, *binary_deletes[] = {&delete_binary, nullptr};
struct berval a_value {1, const_cast<char *>("a")};
struct timeval ten_s {10, 0}, some_us {0, 300000}, zero {0, 0};

const WireCase kCases[] = {
    // ---- binds
    {"SimpleBind", [](LDAP *ld) { return ldap_simple_bind_s(ld, "cn=a", nullptr); },
     "60 84 00 00 00 0B 02 01 03 04 04 63 6E 3D 61 80 00", Done(0x61), 0},
    {"AnonymousBindAtTheHandlesVersion",
     [](LDAP *ld) {
         int two = 2;
         ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &two);
         return ldap_simple_bind_s(ld, nullptr, nullptr);
     },
     "60 84 00 00 00 07 02 01 02 04 00 80 00", Done(0x61), 0},
    {"AsynchronousBindGivesTheId", [](LDAP *ld) { return ldap_bind(ld, "cn=a", "pw", LDAP_AUTH_SIMPLE); },
     "60 84 00 00 00 0D 02 01 03 04 04 63 6E 3D 61 80 02 70 77", Done(0x61), 1},
    {"ABindToAPeerThatDoesNotSpeakLdapFailsAtOnce",
     [](LDAP *ld) {
         auto start = std::chrono::steady_clock::now();
         int rc = ldap_simple_bind_s(ld, "cn=a", nullptr);
         EXPECT_LT(std::chrono::steady_clock::now() - start, 5s) << "not when the peer gives up";
         return rc;
     },
     "60 84 00 00 00 0B 02 01 03 04 04 63 6E 3D 61 80 00", HttpError(), LDAP_SERVER_DOWN, LDAP_SERVER_DOWN},
    {"OtherBindMethodsAreUnknownToBindS", [](LDAP *ld) { return ldap_bind_s(ld, "cn=a", "pw", 0); }, "", {},
     LDAP_AUTH_UNKNOWN},
    {"OtherBindMethodsAreUnknown", [](LDAP *ld) { return ldap_bind(ld, "cn=a", "pw", LDAP_AUTH_SASL); }, "", {},
     -1, LDAP_AUTH_UNKNOWN},
    {"SaslBindWithoutAPlugInSendsTheRequest",
     [](LDAP *ld) {
         struct berval cred {2, const_cast<char *>("ab")}, *server_cred = nullptr;
         int rc = ldap_sasl_bind_s(ld, "cn=a", "DIGEST-MD5", &cred, nullptr, nullptr, &server_cred);
         EXPECT_EQ(std::string(server_cred ? server_cred->bv_val : ""), "challenge");
         EXPECT_STREQ(ld->ld_bind_dn, "DIGEST-MD5") << "recorded for binds to referral servers";
         ber_bvfree(server_cred);
         return rc;
     },
     "60 84 00 00 00 1F 02 01 03 04 04 63 6E 3D 61 A3 84 00 00 00 10 04 0A 44 49 47 45 53 54 2D 4D 44 35 04 02 61 62",
     BindInProgress("challenge"), LDAP_SASL_BIND_IN_PROGRESS},
    {"SaslExternal",
     [](LDAP *ld) { return ldap_sasl_bind_s(ld, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr); },
     "60 84 00 00 00 15 02 01 03 04 00 A3 84 00 00 00 0A 04 08 45 58 54 45 52 4E 41 4C", Done(0x61), 0},
    {"SaslExternalWithCredentialsIsRefused",
     [](LDAP *ld) { return ldap_sasl_bind_s(ld, nullptr, "external", &a_value, nullptr, nullptr, nullptr); }, "", {},
     LDAP_PARAM_ERROR},
    {"AsynchronousSaslBind",
     [](LDAP *ld) { return IdOr(ldap_sasl_bind(ld, nullptr, "PLAIN", nullptr, nullptr, nullptr, &id), &id); },
     "60 84 00 00 00 12 02 01 03 04 00 A3 84 00 00 00 07 04 05 50 4C 41 49 4E", Done(0x61), 1},
    {"AsynchronousSaslBindNeedsAnIdPointer",
     [](LDAP *ld) { return ldap_sasl_bind(ld, nullptr, "PLAIN", nullptr, nullptr, nullptr, nullptr); }, "", {},
     LDAP_PARAM_ERROR},
    {"SaslBindWithACriticalClientControl",
     [](LDAP *ld) { return ldap_sasl_bind(ld, nullptr, "PLAIN", nullptr, nullptr, critical, &id); }, "", {},
     LDAP_UNAVAILABLE_CRITICAL_EXTENSION},
    // ---- updates
    {"Modify", [](LDAP *ld) { return ldap_modify_s(ld, "cn=a", replaces); },
     "66 84 00 00 00 31 04 04 63 6E 3D 61 30 84 00 00 00 25 30 84 00 00 00 1F 0A 01 02 30 84 00 00 00 16 04 0B 64 65 "
     "73 63 72 69 70 74 69 6F 6E 31 84 00 00 00 03 04 01 78",
     Done(0x67), 0},
    {"ModifyKeepsTheZeroBytesOfBinaryValues", [](LDAP *ld) { return ldap_modify(ld, "cn=a", binary_adds); },
     "66 84 00 00 00 2D 04 04 63 6E 3D 61 30 84 00 00 00 21 30 84 00 00 00 1B 0A 01 00 30 84 00 00 00 12 04 05 70 68 "
     "6F 74 6F 31 84 00 00 00 05 04 03 61 00 62",
     Done(0x67), 1},
    {"AddIgnoresTheOperationCodeButNotTheBinaryFlag", [](LDAP *ld) { return ldap_add_s(ld, "cn=a", binary_deletes); },
     "68 84 00 00 00 24 04 04 63 6E 3D 61 30 84 00 00 00 18 30 84 00 00 00 12 04 05 70 68 6F 74 6F 31 84 00 00 00 05 "
     "04 03 61 00 62",
     Done(0x69), 0},
    {"Delete", [](LDAP *ld) { return ldap_delete(ld, "cn=gone"); }, "4A 07 63 6E 3D 67 6F 6E 65", Done(0x6B), 1},
    {"DeleteWithoutADn", [](LDAP *ld) { return ldap_delete_s(ld, nullptr); }, "", {}, LDAP_PARAM_ERROR},
    {"DefaultServerControlsGoWithARequestWithoutAny",
     [](LDAP *ld) {
         ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, plain);
         return ldap_delete_s(ld, "cn=a");
     },
     "4A 04 63 6E 3D 61 A0 84 00 00 00 10 30 84 00 00 00 0A 04 05 31 2E 32 2E 33 01 01 00", Done(0x6B), 0},
    {"AnExplicitEmptyControlListSendsNone",
     [](LDAP *ld) {
         ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, plain);
         return ldap_delete_ext_s(ld, "cn=b", none, nullptr);
     },
     "4A 04 63 6E 3D 62", Done(0x6B), 0},
    {"ModifyDnDeletingTheOldRdn", [](LDAP *ld) { return ldap_modrdn_s(ld, "cn=a,o=x", "cn=b", 1); },
     "6C 84 00 00 00 13 04 08 63 6E 3D 61 2C 6F 3D 78 04 04 63 6E 3D 62 01 01 FF", Done(0x6D), 0},
    {"RenameUnderANewSuperior",
     [](LDAP *ld) { return IdOr(ldap_rename(ld, "cn=a,o=x", "cn=b", "o=y", 0, nullptr, nullptr, &id), &id); },
     "6C 84 00 00 00 18 04 08 63 6E 3D 61 2C 6F 3D 78 04 04 63 6E 3D 62 01 01 00 80 03 6F 3D 79", Done(0x6D), 1},
    {"ModifyDnWithoutANewRdn", [](LDAP *ld) { return ldap_modrdn_s(ld, "cn=a", nullptr, 0); }, "", {}, -1,
     LDAP_PARAM_ERROR},
    {"CompareTrue", [](LDAP *ld) { return ldap_compare_s(ld, "cn=a", "cn", "a"); },
     "6E 84 00 00 00 13 04 04 63 6E 3D 61 30 84 00 00 00 07 04 02 63 6E 04 01 61", Done(0x6F, 6), 6},
    {"CompareWithoutAValue", [](LDAP *ld) { return ldap_compare(ld, "cn=a", "cn", nullptr); }, "", {}, -1,
     LDAP_PARAM_ERROR},
    {"ModifyWithACriticalClientControl",
     [](LDAP *ld) { return ldap_modify_ext_s(ld, "cn=a", replaces, nullptr, critical); }, "", {},
     LDAP_UNAVAILABLE_CRITICAL_EXTENSION},
    {"RenameWithACriticalClientControl",
     [](LDAP *ld) { return ldap_rename_s(ld, "cn=a", "cn=b", nullptr, 0, nullptr, critical); }, "", {}, -1,
     LDAP_UNAVAILABLE_CRITICAL_EXTENSION},
    // ---- searches: length, base, scope, deref, size limit, time limit, attrs-only
    {"SearchSNeverLimitsTheSize", SearchS(LDAP_SCOPE_SUBTREE),
     SearchRequest("27 04 03 6F 3D 78 0A 01 02 0A 01 00 02 01 00 02 01 1E 01 01 00"), Found(0), 0},
    {"SearchStTakesBothLimitsFromTheHandle", SearchSt(&ten_s),
     SearchRequest("27 04 03 6F 3D 78 0A 01 00 0A 01 00 02 01 64 02 01 1E 01 01 00"), Found(0), 0},
    {"SearchExtSSendsOneSecondForMicroseconds", SearchExtS(&some_us, 5),
     SearchRequest("27 04 03 6F 3D 78 0A 01 00 0A 01 00 02 01 05 02 01 01 01 01 00"), Found(0), 0},
    {"SearchExtSWithoutTimeOutSendsTheHandlesTimeLimit", SearchExtS(nullptr, 5),
     SearchRequest("27 04 03 6F 3D 78 0A 01 00 0A 01 00 02 01 05 02 01 1E 01 01 00"), Found(0), 0},
    {"SearchWithoutBaseOrAttributes",
     [](LDAP *ld) { return Searched(ldap_search_s(ld, nullptr, LDAP_SCOPE_ONELEVEL, "(cn=a)", nullptr, 1, &res)); },
     SearchRequest("24 04 00 0A 01 01 0A 01 00 02 01 00 02 01 1E 01 01 FF"), Found(0), 0},
    {"SearchStWithAZeroTimeOutPollsOnce", SearchSt(&zero),
     SearchRequest("27 04 03 6F 3D 78 0A 01 00 0A 01 00 02 01 64 02 01 1E 01 01 00"), {}, LDAP_TIMEOUT},
    {"SearchExtSWithAZeroTimeOutWaitsWithoutLimit", SearchExtS(&zero, 0),
     SearchRequest("27 04 03 6F 3D 78 0A 01 00 0A 01 00 02 01 00 02 01 00 01 01 00"), Found(0, 200ms), 0},
    {"SearchWithAScopeBeyondSubtree", SearchS(3), "", {}, LDAP_PARAM_ERROR},
    {"SearchWithoutAFilter", [](LDAP *ld) { return ldap_search(ld, "o=x", 0, nullptr, nullptr, 0); }, "", {}, -1,
     LDAP_PARAM_ERROR},
    {"SearchExtWithoutAnIdPointer",
     [](LDAP *ld) { return ldap_search_ext(ld, "o=x", 0, "(cn=a)", nullptr, 0, nullptr, nullptr, nullptr, 0, nullptr); },
     "", {}, LDAP_PARAM_ERROR},
    {"SearchWithACriticalClientControl",
     [](LDAP *ld) { return ldap_search_ext(ld, "o=x", 0, "(cn=a)", nullptr, 0, nullptr, critical, nullptr, 0, &id); },
     "", {}, LDAP_UNAVAILABLE_CRITICAL_EXTENSION},
};

class Wire : public testing::TestWithParam<WireCase> {};

TEST_P(Wire, SendsTheRequestAndReturnsTheAnswersCode)
{
    const WireCase &c = GetParam();
    std::vector<Bytes> requests;
    {
        ScriptServer server([&](ScriptConnection &conn) {
            while (auto r = conn.Read()) {
                if (r->tag == 0x42)
                    continue; // unbind
                requests.push_back(r->op); // read by the test once the server has stopped
                if (c.answer)
                    conn.Send(c.answer(r->id));
            }
        });
        LDAP *ld = HandleFor(server);
        int hundred = 100, thirty = 30;
        ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &hundred);
        ldap_set_option(ld, LDAP_OPT_TIMELIMIT, &thirty);
        EXPECT_EQ(c.call(ld), c.code);
        if (c.error) {
            EXPECT_EQ(ldap_get_errno(ld), c.error);
        }
        ldap_unbind(ld);
    }
    if (c.request.empty()) {
        EXPECT_TRUE(requests.empty()) << "nothing may be sent";
        return;
    }
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(ToHex(requests[0]), c.request);
}

INSTANTIATE_TEST_SUITE_P(Calls, Wire, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<WireCase> &info) { return std::string(info.param.name); });

} // namespace
