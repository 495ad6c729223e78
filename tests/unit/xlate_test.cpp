// xlate_test.cpp - translation between local code pages and UTF-8 (and
// UCS-2) through the platform's real converters: round trips, what
// characters without a place in the target give, server bytes that are
// no UTF-8, the process settings that choose the code page, and where the
// codec and the filter encoder translate or leave bytes alone.
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

namespace {

using zldap_test::BerPtr;
using zldap_test::Hex;
using zldap_test::ToHex;
using zldap_test::Written;

using Xlate = int (*)(char *, unsigned int *, char *, size_t *);

struct Out {
    int rc;
    std::string bytes;
};

// Runs a public translation into `room` bytes followed by guard bytes that
// must survive.
Out Buffers(Xlate xlate, const std::string &in, size_t room)
{
    std::string buf(room + 8, '#');
    unsigned int inlen = static_cast<unsigned int>(in.size());
    size_t outlen = room;
    int rc = xlate(const_cast<char *>(in.data()), &inlen, buf.data(), &outlen);
    EXPECT_EQ(buf.substr(room), std::string(8, '#')) << "written past the output space";
    return {rc, buf.substr(0, room - outlen)};
}

// The codec's form: the buffer is replaced on success and left alone on failure.
Out Replace(int (*xlate)(char **, ber_len_t *, int), const std::string &in)
{
    char *buf = static_cast<char *>(zldap::mem_malloc(in.size() + 1));
    std::memcpy(buf, in.data(), in.size());
    ber_len_t len = in.size();
    int rc = xlate(&buf, &len, 1);
    Out out{rc, std::string(buf, len)};
    if (rc == 0)
        EXPECT_EQ(buf[len], '\0');
    else
        EXPECT_EQ(out.bytes, in) << "a failed translation changed the caller's buffer";
    zldap::mem_free(buf);
    return out;
}

void UseCodepage(const char *codepage) { ASSERT_EQ(ldap_set_iconv_local_codepage(codepage), 0) << codepage; }

struct RoundTrip {
    const char *charset; // a name of the library's charset table, or a code page name
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
        if (ldap_set_iconv_local_charset(row.charset) != 0)
            UseCodepage(row.charset);
        EXPECT_EQ(Replace(xlate_local_to_utf8, row.local).bytes, row.utf8);
        EXPECT_EQ(Replace(xlate_utf8_to_local, row.utf8).bytes, row.local);
        EXPECT_EQ(Buffers(ldap_xlate_local_to_utf8, row.local, 64).bytes, row.utf8);
        EXPECT_EQ(Buffers(ldap_xlate_utf8_to_local, row.utf8, 64).bytes, row.local);
        EXPECT_EQ(Buffers(ldap_xlate_local_to_unicode, row.local, 64).bytes, row.ucs2);
        EXPECT_EQ(Buffers(ldap_xlate_unicode_to_local, row.ucs2, 64).bytes, row.local);
    }
}

struct Failure {
    const char *codepage;
    Xlate xlate;
    std::string in;
    int rc;
};

const Failure kFailures[] = {
    {"ISO8859-1", ldap_xlate_utf8_to_local, "a\xE6\x97\xA5", LDAP_XLATE_NO_MAPPING},
    {"ISO8859-1", ldap_xlate_utf8_to_local, "a\xC3(", LDAP_XLATE_BAD_CHARACTER},
    {"ISO8859-1", ldap_xlate_utf8_to_local, "a\xFF", LDAP_XLATE_BAD_CHARACTER},
    {"ISO8859-1", ldap_xlate_utf8_to_local, "ab\xE6\x97", LDAP_XLATE_INPUT_TRUNCATED},
    {"UTF-8", ldap_xlate_local_to_utf8, "\xC0\xAF", LDAP_XLATE_BAD_CHARACTER},
    {"EUCJP", ldap_xlate_local_to_utf8, "\xC6", LDAP_XLATE_INPUT_TRUNCATED},
    {"SJIS", ldap_xlate_local_to_utf8, "\x80", LDAP_XLATE_BAD_CHARACTER},
    {"UTF-8", ldap_xlate_local_to_unicode, "\xF0\x9F\x98\x80", LDAP_XLATE_NO_MAPPING},
    {"ISO8859-1", ldap_xlate_unicode_to_local, std::string("\0M\0", 3), LDAP_XLATE_INPUT_TRUNCATED},
    {"ISO8859-1", ldap_xlate_unicode_to_local, "\x65\xE5", LDAP_XLATE_NO_MAPPING},
    {"ISO8859-1", ldap_xlate_unicode_to_local, std::string("\xD8\0\xDC\0", 4), LDAP_XLATE_BAD_CHARACTER},
    {"NO-SUCH-CODEPAGE", ldap_xlate_local_to_utf8, "a", LDAP_LOCAL_ERROR},
};

TEST(Translation, UnusableInputAndMissingCharactersGiveTheirCodes)
{
    for (const Failure &row : kFailures) {
        SCOPED_TRACE(ToHex(zldap_test::Bytes(row.in.begin(), row.in.end())) + " in " + row.codepage);
        UseCodepage(row.codepage);
        EXPECT_EQ(Buffers(row.xlate, row.in, 64).rc, row.rc);
    }
    // The codec's form reports the same and keeps the caller's buffer.
    UseCodepage("ISO8859-1");
    EXPECT_EQ(Replace(xlate_utf8_to_local, "\xE6\x97\xA5").rc, LDAP_XLATE_NO_MAPPING);
    EXPECT_EQ(Replace(xlate_utf8_to_local, "\xC3").rc, LDAP_XLATE_INPUT_TRUNCATED);
}

TEST(Translation, AFullOutputStopsAtTheLastWholeCharacter)
{
    UseCodepage("ISO8859-1");
    for (size_t room : {0, 1, 2, 3, 6})
        EXPECT_EQ(Buffers(ldap_xlate_local_to_utf8, "M\xFCller", room).rc, LDAP_XLATE_OUTPUT_OVERFLOW) << room;
    EXPECT_EQ(Buffers(ldap_xlate_local_to_utf8, "M\xFCller", 2).bytes, "M");
    EXPECT_EQ(Buffers(ldap_xlate_local_to_utf8, "M\xFCller", 3).bytes, "M\xC3\xBC");
    EXPECT_EQ(Buffers(ldap_xlate_local_to_utf8, "M\xFCller", 7).rc, 0);
}

TEST(Translation, LongInputWhoseCharactersStraddleThePieces)
{
    UseCodepage("EUCJP");
    std::string local = "a", utf8 = "a";
    for (int i = 0; i < 2501; i++) {
        local += "\xC6\xFC";
        utf8 += "\xE6\x97\xA5";
    }
    EXPECT_EQ(Replace(xlate_local_to_utf8, local).bytes, utf8);
    EXPECT_EQ(Replace(xlate_utf8_to_local, utf8).bytes, local);
}

TEST(Translation, MissingArguments)
{
    char in[] = "a", out[8];
    unsigned int inlen = 1;
    size_t outlen = sizeof out;
    for (Xlate xlate : {ldap_xlate_local_to_utf8, ldap_xlate_utf8_to_local, ldap_xlate_local_to_unicode,
                        ldap_xlate_unicode_to_local}) {
        EXPECT_EQ(xlate(nullptr, &inlen, out, &outlen), LDAP_PARAM_ERROR);
        EXPECT_EQ(xlate(in, nullptr, out, &outlen), LDAP_PARAM_ERROR);
        EXPECT_EQ(xlate(in, &inlen, nullptr, &outlen), LDAP_PARAM_ERROR);
        EXPECT_EQ(xlate(in, &inlen, out, nullptr), LDAP_PARAM_ERROR);
    }
    char *buf = nullptr;
    ber_len_t len = 1;
    EXPECT_EQ(xlate_local_to_utf8(&buf, &len, 1), LDAP_PARAM_ERROR);
    EXPECT_EQ(xlate_utf8_to_local(nullptr, &len, 1), LDAP_PARAM_ERROR);
}

TEST(Translation, WrapperHandsOutATerminatedCopy)
{
    UseCodepage("ISO8859-1");
    char *result = nullptr;
    EXPECT_EQ(ldap_xlate_local_to_utf8_wrp(nullptr, &result), LDAP_OPERATIONS_ERROR);
    EXPECT_EQ(ldap_xlate_local_to_utf8_wrp("x", nullptr), LDAP_PARAM_ERROR);
    ASSERT_EQ(ldap_xlate_local_to_utf8_wrp("M\xFCller", &result), 0);
    EXPECT_STREQ(result, "M\xC3\xBCller");
    zldap::mem_free(result);
    UseCodepage("UTF-8");
    EXPECT_EQ(ldap_xlate_local_to_utf8_wrp("\xFF", &result), LDAP_XLATE_BAD_CHARACTER);
    EXPECT_EQ(result, nullptr);
}

TEST(CodePage, CharsetNamesSettersAndDefaults)
{
    using zldap::charset::local_codepage;
    UseCodepage("ISO8859-1");
    EXPECT_EQ(ldap_set_iconv_local_charset("ORN437"), 0);
    EXPECT_STREQ(local_codepage(), "437");
    for (const char *bad : {"iso-8859-1", "ORN999", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(ldap_set_iconv_local_charset(bad), LDAP_PARAM_ERROR);
        EXPECT_STREQ(local_codepage(), "437");
    }
    EXPECT_EQ(ldap_set_iconv_local_codepage(""), LDAP_PARAM_ERROR);
    EXPECT_STREQ(local_codepage(), "437");

    for (const char *name : {static_cast<const char *>(nullptr), "", "EUCJP"}) {
        char *compliant = ldap_get_iconv_compliant_codepage(name);
        EXPECT_STREQ(compliant, name && *name ? name : "ISO8859-1");
        zldap::mem_free(compliant);
    }
    char *path = ldap_get_default_locale_path();
    EXPECT_STREQ(path, "/usr/lib/nls/loc");
    zldap::mem_free(path);
}

TEST(CodePage, AChangeReopensEveryConverter)
{
    UseCodepage("ISO8859-1");
    EXPECT_EQ(Replace(xlate_local_to_utf8, "\xA4").bytes, "\xC2\xA4");
    EXPECT_EQ(Replace(xlate_utf8_to_local, "\xC2\xA4").bytes, "\xA4");
    UseCodepage("ISO885915");
    EXPECT_EQ(Replace(xlate_local_to_utf8, "\xA4").bytes, "\xE2\x82\xAC");
    EXPECT_EQ(Replace(xlate_utf8_to_local, "\xE2\x82\xAC").bytes, "\xA4");
}

TEST(CodePage, ComesFromTheEnvironmentOrTheLocale)
{
    ZLDAP_IN_FRESH_PROCESS({
        setenv("LDAP_CODEPAGE", "ISO885915", 1);
        EXPECT_EQ(Replace(xlate_local_to_utf8, "\xA4").bytes, "\xE2\x82\xAC");
    });
    ZLDAP_IN_FRESH_PROCESS({
        unsetenv("LDAP_CODEPAGE");
        setenv("LC_ALL", "C.UTF-8", 1);
        EXPECT_EQ(Replace(xlate_utf8_to_local, "\xC3\xBC").bytes, "\xC3\xBC");
        EXPECT_STREQ(zldap::charset::local_codepage(), "UTF-8");
        EXPECT_EQ(ldap_set_locale("no_SUCH.LOCALE"), LDAP_LOCAL_ERROR);
        EXPECT_EQ(ldap_set_locale("C"), 0);
        EXPECT_STREQ(zldap::charset::local_codepage(), "ANSI_X3.4-1968");
        EXPECT_EQ(Replace(xlate_utf8_to_local, "\xC3\xBC").rc, LDAP_XLATE_NO_MAPPING);
    });
}

TEST(CodePage, UnicodeModeGoesThroughUcs2)
{
    ZLDAP_IN_FRESH_PROCESS({
        setenv("LDAP_USE_UNICODE", "yes", 1);
        for (const RoundTrip &row : kRoundTrips) {
            SCOPED_TRACE(row.charset);
            if (ldap_set_iconv_local_charset(row.charset) != 0)
                UseCodepage(row.charset);
            EXPECT_EQ(Replace(xlate_local_to_utf8, row.local).bytes, row.utf8);
            EXPECT_EQ(Replace(xlate_utf8_to_local, row.utf8).bytes, row.local);
        }
        UseCodepage("GB18030");
        EXPECT_EQ(Replace(xlate_utf8_to_local, "\xF0\x9F\x98\x80").rc, LDAP_XLATE_NO_MAPPING);
        EXPECT_EQ(Replace(xlate_utf8_to_local, "a\xE0\x80\xAF").rc, LDAP_XLATE_BAD_CHARACTER);
        EXPECT_EQ(Replace(xlate_utf8_to_local, "a\xE6\x97").rc, LDAP_XLATE_INPUT_TRUNCATED);
        EXPECT_EQ(Buffers(ldap_xlate_local_to_utf8, "\xD6\xD0", 2).rc, LDAP_XLATE_OUTPUT_OVERFLOW);
    });
}

TEST(CodePage, BackslashModeKeepsPathsInShiftJis)
{
    for (const char *backslash : {"yes", "no"}) {
        ZLDAP_IN_FRESH_PROCESS({
            setenv("LDAP_BACKSLASH", backslash, 1);
            UseCodepage("SJIS");
            bool path = std::strcmp(backslash, "yes") == 0;
            EXPECT_EQ(Replace(xlate_local_to_utf8, "C:\\x~").bytes, path ? "C:\\x~" : "C:\xC2\xA5x\xE2\x80\xBE");
            EXPECT_EQ(Replace(xlate_utf8_to_local, "\xE6\x97\xA5").bytes, "\x93\xFA");
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
            if (rc == 0) {
                EXPECT_EQ(bytes, "M\xC3\xBC");
                break;
            }
            EXPECT_TRUE(rc == LDAP_NO_MEMORY || rc == LDAP_LOCAL_ERROR) << n << ": " << rc;
            EXPECT_EQ(bytes, "M\xFC");
        }
    });
}

// An element as new_ldap_ber makes it for a handle of this version and
// translation setting.
void Settle(BerElement *ber, int32_t version, uint32_t no_xlate)
{
    ber->ber_version = static_cast<int32_t *>(zldap::mem_malloc(sizeof(int32_t)));
    ber->ber_no_xlate = static_cast<uint32_t *>(zldap::mem_malloc(sizeof(uint32_t)));
    *ber->ber_version = version;
    *ber->ber_no_xlate = no_xlate;
}

struct CodecCase {
    int32_t version;
    uint32_t no_xlate;
    bool translated;
};

const CodecCase kCodecCases[] = {{3, 0, true}, {2, 0, false}, {3, 1, false}};

void ExpectCodecTranslation(bool legacy)
{
    UseCodepage("ISO8859-1");
    for (const CodecCase &c : kCodecCases) {
        SCOPED_TRACE(testing::Message() << "version " << c.version << " no_xlate " << c.no_xlate);
        bool translated = c.translated && !legacy;
        BerPtr writer(fber_alloc());
        Settle(writer.get(), c.version, c.no_xlate);
        ASSERT_EQ(fber_printf(writer.get(), "s", "M\xFC"), 0);
        EXPECT_EQ(ToHex(Written(writer.get())), translated ? "04 03 4D C3 BC" : "04 02 4D FC");

        BerPtr reader = zldap_test::ExactReader(Hex("04 03 4D C3 BC"));
        Settle(reader.get(), c.version, c.no_xlate);
        char *value = nullptr;
        ASSERT_NE(fber_scanf(reader.get(), "a", &value), LBER_DEFAULT);
        EXPECT_STREQ(value, translated ? "M\xFC" : "M\xC3\xBC");
        zldap::mem_free(value);

        // The filter encoder follows the element's setting, not its version.
        BerPtr filter(fber_alloc());
        Settle(filter.get(), c.version, c.no_xlate);
        ASSERT_EQ(put_filter(filter.get(), "(cn=M\xFC)", 0), 0);
        EXPECT_EQ(ToHex(Written(filter.get())),
                  c.no_xlate ? "A3 84 00 00 00 08 04 02 63 6E 04 02 4D FC"
                              : "A3 84 00 00 00 09 04 02 63 6E 04 03 4D C3 BC");
    }
    // A value the local code page cannot hold fails the item.
    BerPtr reader = zldap_test::ExactReader(Hex("04 03 E6 97 A5"));
    Settle(reader.get(), 3, 0);
    char *value = nullptr;
    EXPECT_EQ(fber_scanf(reader.get(), "a", &value) == LBER_DEFAULT, !legacy);
    zldap::mem_free(value);
}

TEST(Codec, TranslatesStringsOfVersion3ElementsOnly)
{
    ExpectCodecTranslation(false);
}

TEST(Codec, LegacyModeWritesAndReadsBytesUnchanged)
{
    ZLDAP_IN_FRESH_PROCESS({
        setenv("LDAP_LEGACY_UTF8_XLATE_MODE", "1", 1);
        ExpectCodecTranslation(true);
    });
}

} // namespace
