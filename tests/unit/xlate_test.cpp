// xlate_test.cpp - translation between local code pages and UTF-8 (and
// UCS-2) through the platform's real converters: round trips, what
// characters without a place in the target give, server bytes that are
// no UTF-8, the settings that choose the code page and the route, and
// where the codec and the filter encoder translate or leave bytes alone.
#include "ber_test_support.h"
#include "fresh_process.h"

#include "base/memory.h"
#include "proto/filter.h"
#include "xlate/ldap_charset.h"
#include "xlate/ldap_charset_internal.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

namespace {

using zldap_test::BerPtr;
using zldap_test::ToHex;
using zldap_test::Written;

using Xlate = int (*)(char *, unsigned int *, char *, size_t *);

struct Out {
    int rc;
    std::string bytes;
};

// A public translation into `room` bytes followed by guard bytes that must survive.
Out Buffers(Xlate xlate, const std::string &in, size_t room = 64)
{
    std::string buf(room + 8, '#');
    unsigned int inlen = static_cast<unsigned int>(in.size());
    size_t outlen = room;
    int rc = xlate(const_cast<char *>(in.data()), &inlen, buf.data(), &outlen);
    EXPECT_EQ(buf.substr(room), std::string(8, '#')) << "written past the output space";
    return {rc, buf.substr(0, room - outlen)};
}

// The codec's form: the buffer is replaced on success, kept on failure.
Out Replace(int (*xlate)(char **, ber_len_t *, int), const std::string &in)
{
    char *buf = static_cast<char *>(zldap::mem_malloc(in.size() + 1));
    std::memcpy(buf, in.data(), in.size());
    ber_len_t len = in.size();
    int rc = xlate(&buf, &len, 1);
    Out out{rc, std::string(buf, len)};
    EXPECT_TRUE(rc == 0 ? buf[len] == '\0' : out.bytes == in);
    zldap::mem_free(buf);
    return out;
}

// A charset name of the library's table, or else a code page name.
void Use(const char *name)
{
    if (ldap_set_iconv_local_charset(name) != 0) {
        ASSERT_EQ(ldap_set_iconv_local_codepage(name), 0) << name;
    }
}

struct RoundTrip {
    const char *charset;
    std::string local, utf8, ucs2;
};

const RoundTrip kRoundTrips[] = {
    {"ISO-8859-1", "M\xFCller", "M\xC3\xBCller", std::string("\0M\0\xFC\0l\0l\0e\0r", 12)},
    {"ISO-8859-15", "\xA4\xBD", "\xE2\x82\xAC\xC5\x93", "\x20\xAC\x01\x53"},
    {"ORN-1252", "\x80\x93", "\xE2\x82\xAC\xE2\x80\x9C", "\x20\xAC\x20\x1C"},
    {"ORN437", "\x81", "\xC3\xBC", std::string("\0\xFC", 2)},
    {"EUC-JP", "\xC6\xFC\xCB\xDC", "\xE6\x97\xA5\xE6\x9C\xAC", "\x65\xE5\x67\x2C"},
    {"Shift-JIS", "\x93\xFA\x96\x7B", "\xE6\x97\xA5\xE6\x9C\xAC", "\x65\xE5\x67\x2C"},
    {"KSC", "\xB0\xA1", "\xEA\xB0\x80", std::string("\xAC\0", 2)},
    {"GB18030", "\xD6\xD0\x81\x30\x81\x30", "\xE4\xB8\xAD\xC2\x80", std::string("\x4E\x2D\0\x80", 4)},
    {"UTF-8", "\xE6\x97\xA5", "\xE6\x97\xA5", "\x65\xE5"},
};

TEST(Translation, RoundTripsThroughRealCodePages)
{
    for (const RoundTrip &row : kRoundTrips) {
        SCOPED_TRACE(row.charset);
        Use(row.charset);
        EXPECT_EQ(Replace(xlate_local_to_utf8, row.local).bytes, row.utf8);
        EXPECT_EQ(Replace(xlate_utf8_to_local, row.utf8).bytes, row.local);
        EXPECT_EQ(Buffers(ldap_xlate_local_to_utf8, row.local).bytes, row.utf8);
        EXPECT_EQ(Buffers(ldap_xlate_utf8_to_local, row.utf8).bytes, row.local);
        EXPECT_EQ(Buffers(ldap_xlate_local_to_unicode, row.local).bytes, row.ucs2);
        EXPECT_EQ(Buffers(ldap_xlate_unicode_to_local, row.ucs2).bytes, row.local);
    }
}

struct Failure {
    const char *codepage;
    Xlate xlate;
    std::string in;
    int rc;
    size_t room;
    const char *written; // what stays in the output, when it matters
};

const Failure kFailures[] = {
    {"ISO8859-1", ldap_xlate_utf8_to_local, "a\xE6\x97\xA5", LDAP_XLATE_NO_MAPPING, 64, "a"},
    {"ISO8859-1", ldap_xlate_utf8_to_local, "a\xC3(", LDAP_XLATE_BAD_CHARACTER, 64, "a"},
    {"ISO8859-1", ldap_xlate_utf8_to_local, "a\xFF", LDAP_XLATE_BAD_CHARACTER, 64, nullptr},
    {"ISO8859-1", ldap_xlate_utf8_to_local, "ab\xE6\x97", LDAP_XLATE_INPUT_TRUNCATED, 64, "ab"},
    {"UTF-8", ldap_xlate_local_to_utf8, "\xC0\xAF", LDAP_XLATE_BAD_CHARACTER, 64, nullptr},
    {"EUCJP", ldap_xlate_local_to_utf8, "\xC6", LDAP_XLATE_INPUT_TRUNCATED, 64, nullptr},
    {"SJIS", ldap_xlate_local_to_utf8, "\x80", LDAP_XLATE_BAD_CHARACTER, 64, nullptr},
    {"UTF-8", ldap_xlate_local_to_unicode, "\xF0\x9F\x98\x80", LDAP_XLATE_NO_MAPPING, 64, nullptr},
    {"ISO8859-1", ldap_xlate_unicode_to_local, std::string("\0M\0", 3), LDAP_XLATE_INPUT_TRUNCATED, 64, "M"},
    {"ISO8859-1", ldap_xlate_unicode_to_local, "\x65\xE5", LDAP_XLATE_NO_MAPPING, 64, nullptr},
    {"ISO8859-1", ldap_xlate_unicode_to_local, std::string("\xD8\0\xDC\0", 4), LDAP_XLATE_BAD_CHARACTER, 64, nullptr},
    {"NO-SUCH-CODEPAGE", ldap_xlate_local_to_utf8, "a", LDAP_LOCAL_ERROR, 64, nullptr},
    // A full output stops after the last whole character.
    {"ISO8859-1", ldap_xlate_local_to_utf8, "M\xFCller", LDAP_XLATE_OUTPUT_OVERFLOW, 0, ""},
    {"ISO8859-1", ldap_xlate_local_to_utf8, "M\xFCller", LDAP_XLATE_OUTPUT_OVERFLOW, 2, "M"},
    {"ISO8859-1", ldap_xlate_local_to_utf8, "M\xFCller", LDAP_XLATE_OUTPUT_OVERFLOW, 6, "M\xC3\xBClle"},
};

TEST(Translation, UnusableInputMissingCharactersAndFullOutputs)
{
    for (const Failure &row : kFailures) {
        SCOPED_TRACE(ToHex(zldap_test::Bytes(row.in.begin(), row.in.end())) + " in " + row.codepage);
        Use(row.codepage);
        Out out = Buffers(row.xlate, row.in, row.room);
        EXPECT_EQ(out.rc, row.rc);
        if (row.written) {
            EXPECT_EQ(out.bytes, row.written);
        }
    }
    Use("ISO8859-1");
    EXPECT_EQ(Replace(xlate_utf8_to_local, "\xE6\x97\xA5").rc, LDAP_XLATE_NO_MAPPING);
    EXPECT_EQ(Buffers(ldap_xlate_local_to_utf8, "M\xFCller", 7).rc, 0);
}

TEST(Translation, LongInputWhoseCharactersStraddleThePieces)
{
    Use("EUCJP");
    std::string local = "a", utf8 = "a";
    for (int i = 0; i < 2501; i++) {
        local += "\xC6\xFC";
        utf8 += "\xE6\x97\xA5";
    }
    EXPECT_EQ(Replace(xlate_local_to_utf8, local).bytes, utf8);
    EXPECT_EQ(Replace(xlate_utf8_to_local, utf8).bytes, local);
}

TEST(Translation, WrapperAndMissingArguments)
{
    Use("ISO8859-1");
    char *result = nullptr;
    ASSERT_EQ(ldap_xlate_local_to_utf8_wrp("M\xFCller", &result), 0);
    EXPECT_STREQ(result, "M\xC3\xBCller");
    zldap::mem_free(result);
    EXPECT_EQ(ldap_xlate_local_to_utf8_wrp(nullptr, &result), LDAP_OPERATIONS_ERROR);
    Use("UTF-8");
    EXPECT_EQ(ldap_xlate_local_to_utf8_wrp("\xFF", &result), LDAP_XLATE_BAD_CHARACTER);
    EXPECT_EQ(result, nullptr);
    char out[8];
    unsigned int one = 1;
    size_t room = sizeof out;
    for (Xlate xlate : {ldap_xlate_local_to_utf8, ldap_xlate_unicode_to_local})
        EXPECT_EQ(xlate(nullptr, &one, out, &room), LDAP_PARAM_ERROR);
    EXPECT_EQ(xlate_local_to_utf8(nullptr, nullptr, 1), LDAP_PARAM_ERROR);
}

TEST(CodePage, SettersAndCharsetNames)
{
    using zldap::charset::local_codepage;
    EXPECT_EQ(ldap_set_locale("no_SUCH.LOCALE"), LDAP_LOCAL_ERROR);
    ASSERT_EQ(ldap_set_locale("C"), 0);
    EXPECT_STREQ(local_codepage(), "ANSI_X3.4-1968");
    EXPECT_EQ(Replace(xlate_utf8_to_local, "\xC3\xBC").rc, LDAP_XLATE_NO_MAPPING);
    EXPECT_EQ(ldap_set_iconv_local_charset("ORN437"), 0);
    EXPECT_STREQ(local_codepage(), "437");
    for (const char *bad : {"iso-8859-1", "ORN999", static_cast<const char *>(nullptr)})
        EXPECT_EQ(ldap_set_iconv_local_charset(bad), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_set_iconv_local_codepage(""), LDAP_PARAM_ERROR);
    EXPECT_STREQ(local_codepage(), "437");
    // Each change reopens the converters: 0xA4 is a currency sign, then the euro.
    Use("ISO8859-1");
    EXPECT_EQ(Replace(xlate_local_to_utf8, "\xA4").bytes, "\xC2\xA4");
    Use("ISO885915");
    EXPECT_EQ(Replace(xlate_local_to_utf8, "\xA4").bytes, "\xE2\x82\xAC");
}

// Settings read from the environment, each in a process of its own.
struct EnvCase {
    const char *variable, *value, *codepage; // codepage NULL: none set
    int (*xlate)(char **, ber_len_t *, int);
    std::string in;
    int rc;
    std::string out;
};

const EnvCase kEnvCases[] = {
    {"LDAP_CODEPAGE", "ISO885915", nullptr, xlate_local_to_utf8, "\xA4", 0, "\xE2\x82\xAC"},
    {"LC_ALL", "C.UTF-8", nullptr, xlate_utf8_to_local, "\xC3\xBC", 0, "\xC3\xBC"},
    {"LDAP_USE_UNICODE", "yes", "ISO-8859-1", xlate_local_to_utf8, "M\xFC", 0, "M\xC3\xBC"},
    {"LDAP_USE_UNICODE", "yes", "TIS-620", xlate_local_to_utf8, "\xA1", 0, "\xE0\xB8\x81"},
    {"LDAP_USE_UNICODE", "y", "EUC-JP", xlate_utf8_to_local, "\xE6\x97\xA5", 0, "\xC6\xFC"},
    {"LDAP_USE_UNICODE", "Y", "GB18030", xlate_utf8_to_local, "\xF0\x9F\x98\x80", LDAP_XLATE_NO_MAPPING, ""},
    {"LDAP_USE_UNICODE", "Y", "GB18030", xlate_utf8_to_local, "a\xE0\x80\xAF", LDAP_XLATE_BAD_CHARACTER, ""},
    {"LDAP_USE_UNICODE", "Y", "GB18030", xlate_utf8_to_local, "a\xE6\x97", LDAP_XLATE_INPUT_TRUNCATED, ""},
    {"LDAP_USE_UNICODE", "no", "GB18030", xlate_utf8_to_local, "\xF0\x9F\x98\x80", 0, "\x94\x39\xFC\x36"},
    {"LDAP_BACKSLASH", "yes", "Shift-JIS", xlate_local_to_utf8, "C:\\x~", 0, "C:\\x~"},
    {"LDAP_BACKSLASH", "no", "Shift-JIS", xlate_local_to_utf8, "C:\\x~", 0, "C:\xC2\xA5x\xE2\x80\xBE"},
};

TEST(CodePage, EnvironmentChoosesCodePageAndRoute)
{
    for (const EnvCase &row : kEnvCases) {
        ZLDAP_IN_FRESH_PROCESS({
            SCOPED_TRACE(std::string(row.variable) + "=" + row.value);
            unsetenv("LDAP_CODEPAGE");
            setenv(row.variable, row.value, 1);
            if (row.codepage)
                Use(row.codepage);
            Out out = Replace(row.xlate, row.in);
            EXPECT_EQ(out.rc, row.rc);
            if (row.rc == 0) {
                EXPECT_EQ(out.bytes, row.out);
            }
        });
    }
}

// The first translation of a process settles locale and code page and
// opens its converter; running out of memory anywhere on the way fails it
// cleanly, and a later call starts over.
TEST(CodePage, FirstUseSurvivesEachFailingAllocation)
{
    ZLDAP_IN_FRESH_PROCESS({
        setenv("LDAP_CODEPAGE", "ISO88591", 1);
        for (long n = 1; n < 100; n++) {
            char *buf = zldap::mem_strdup("M\xFC");
            ber_len_t len = 2;
            zldap::mem_tracking_start(n);
            int rc = xlate_local_to_utf8(&buf, &len, 1);
            zldap::mem_tracking_stop();
            std::string bytes(buf, len);
            zldap::mem_free(buf);
            EXPECT_EQ(bytes, rc == 0 ? "M\xC3\xBC" : "M\xFC");
            if (rc == 0)
                break;
            EXPECT_TRUE(rc == LDAP_NO_MEMORY || rc == LDAP_LOCAL_ERROR) << n << ": " << rc;
        }
    });
}

// An element as new_ldap_ber makes it for a handle with these settings.
BerPtr Element(BerPtr ber, int32_t version, uint32_t no_xlate)
{
    ber->ber_version = static_cast<int32_t *>(zldap::mem_malloc(sizeof(int32_t)));
    ber->ber_no_xlate = static_cast<uint32_t *>(zldap::mem_malloc(sizeof(uint32_t)));
    *ber->ber_version = version;
    *ber->ber_no_xlate = no_xlate;
    return ber;
}

// Strings of version 3 elements are translated unless translation is off
// or legacy mode is on; the filter encoder looks at the setting only.
void ExpectCodecTranslation(bool legacy)
{
    Use("ISO8859-1");
    for (auto [version, no_xlate] : {std::pair{3, 0u}, std::pair{2, 0u}, std::pair{3, 1u}}) {
        SCOPED_TRACE(testing::Message() << "version " << version << " no_xlate " << no_xlate);
        bool translated = version == 3 && !no_xlate && !legacy;
        BerPtr writer = Element(BerPtr(fber_alloc()), version, no_xlate);
        ASSERT_EQ(fber_printf(writer.get(), "s", "M\xFC"), 0);
        EXPECT_EQ(ToHex(Written(writer.get())), translated ? "04 03 4D C3 BC" : "04 02 4D FC");
        BerPtr reader = Element(zldap_test::ExactReader(zldap_test::Hex("04 03 4D C3 BC")), version, no_xlate);
        char *value = nullptr;
        ASSERT_NE(fber_scanf(reader.get(), "a", &value), LBER_DEFAULT);
        EXPECT_STREQ(value, translated ? "M\xFC" : "M\xC3\xBC");
        zldap::mem_free(value);
        BerPtr filter = Element(BerPtr(fber_alloc()), version, no_xlate);
        ASSERT_EQ(put_filter(filter.get(), "(cn=M\xFC)", 0), 0);
        EXPECT_EQ(ToHex(Written(filter.get())), no_xlate ? "A3 84 00 00 00 08 04 02 63 6E 04 02 4D FC"
                                                         : "A3 84 00 00 00 09 04 02 63 6E 04 03 4D C3 BC");
    }
    // A value the local code page cannot hold fails the item.
    BerPtr reader = Element(zldap_test::ExactReader(zldap_test::Hex("04 03 E6 97 A5")), 3, 0);
    char *value = nullptr;
    EXPECT_EQ(fber_scanf(reader.get(), "a", &value) == LBER_DEFAULT, !legacy);
    zldap::mem_free(value);
}

TEST(Codec, TranslatesStringsOfVersion3ElementsOnly) { ExpectCodecTranslation(false); }

TEST(Codec, LegacyModeWritesAndReadsBytesUnchanged)
{
    ZLDAP_IN_FRESH_PROCESS({
        setenv("LDAP_LEGACY_UTF8_XLATE_MODE", "1", 1);
        ExpectCodecTranslation(true);
    });
}

} // namespace
