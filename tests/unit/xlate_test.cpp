// xlate_test.cpp - translation between local code pages and UTF-8 (and
// UCS-2) through the platform's real converters: round trips, what
// characters without a place in the target give, server bytes that are
// no UTF-8, and the settings that choose the code page and the route.
#include "fresh_process.h"

#include "base/memory.h"
#include "xlate/ldap_charset.h"
#include "xlate/ldap_charset_internal.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>

namespace {

// "code:bytes" of a public translation into `room` bytes (three times the
// input by default) followed by guard bytes that must survive.
std::string Buffers(int (*xlate)(char *, unsigned int *, char *, size_t *), const std::string &in, size_t room = 0)
{
    room = room ? room : 3 * in.size();
    std::string buf(room + 8, '#');
    unsigned int inlen = static_cast<unsigned int>(in.size());
    size_t outlen = room;
    int rc = xlate(const_cast<char *>(in.data()), &inlen, buf.data(), &outlen);
    EXPECT_EQ(buf.substr(room), std::string(8, '#')) << "written past the output space";
    return std::to_string(rc) + ":" + buf.substr(0, room - outlen);
}

// The codec's form: the buffer is replaced on success (a NUL after the
// bytes), kept on failure.
std::string Replace(int (*xlate)(char **, ber_len_t *, int), const std::string &in)
{
    char *buf = static_cast<char *>(zldap::mem_malloc(in.size() + 1));
    std::memcpy(buf, in.data(), in.size());
    ber_len_t len = in.size();
    int rc = xlate(&buf, &len, 1);
    std::string out(buf, len);
    EXPECT_TRUE(rc == 0 ? buf[len] == '\0' : out == in);
    zldap::mem_free(buf);
    return std::to_string(rc) + ":" + (rc == 0 ? out : "");
}

// Every translation of one text between the local code page, UTF-8 and
// UCS-2, each way: "ok" or the first one that differs.
std::function<std::string()> Trip(std::string local, std::string utf8, std::string ucs2)
{
    return [=] {
        const std::pair<std::string, std::string> got[] = {
            {Replace(xlate_local_to_utf8, local), utf8}, {Replace(xlate_utf8_to_local, utf8), local},
            {Buffers(ldap_xlate_local_to_utf8, local), utf8}, {Buffers(ldap_xlate_unicode_to_local, ucs2), local},
            {Buffers(ldap_xlate_local_to_unicode, local), ucs2}};
        for (const auto &[result, wanted] : got)
            if (result != "0:" + wanted)
                return result + " instead of " + wanted;
        return std::string("ok");
    };
}

// A long text whose characters straddle the pieces it is converted in.
std::string Long(const char *character)
{
    std::string text = "a";
    for (int i = 0; i < 2501; i++)
        text += character;
    return text;
}

// The setting ("NAME=value", for a process of its own), the code page
// (a charset name of the library's table or a code page name), what runs and
// what it gives. NULL: no setting, no code page set.
using Row = std::tuple<const char *, const char *, std::function<std::string()>, std::string>;

// LDAP_XLATE_OUTPUT_OVERFLOW, _INPUT_TRUNCATED, _BAD_CHARACTER and _NO_MAPPING.
const std::string kFull = "160:", kCut = "161:", kBad = "162:", kNoMap = "163:";
const char *kL1 = "ISO8859-1";

const Row kRows[] = {
    {nullptr, "ISO-8859-1", Trip("M\xFCller", "M\xC3\xBCller", std::string("\0M\0\xFC\0l\0l\0e\0r", 12)), "ok"},
    {nullptr, "ORN-1252", Trip("\x80\x93", "\xE2\x82\xAC\xE2\x80\x9C", "\x20\xAC\x20\x1C"), "ok"},
    {nullptr, "EUC-JP", Trip(Long("\xC6\xFC"), Long("\xE6\x97\xA5"), Long("\x65\xE5").replace(0, 1, "\0a", 2)), "ok"},
    // Unusable input, missing characters and full outputs: what stays is what went before.
    {nullptr, kL1, [] { return Buffers(ldap_xlate_utf8_to_local, "a\xE6\x97\xA5"); }, kNoMap + "a"},
    {nullptr, kL1, [] { return Buffers(ldap_xlate_utf8_to_local, "a\xC3("); }, kBad + "a"},
    {nullptr, kL1, [] { return Buffers(ldap_xlate_utf8_to_local, "ab\xE6\x97"); }, kCut + "ab"},
    {nullptr, "UTF-8", [] { return Buffers(ldap_xlate_local_to_unicode, "\xF0\x9F\x98\x80"); }, kNoMap},
    {nullptr, kL1, [] { return Buffers(ldap_xlate_unicode_to_local, std::string("\0M\0", 3)); }, kCut + "M"},
    {nullptr, kL1, [] { return Buffers(ldap_xlate_unicode_to_local, std::string("\xD8\0\xDC\0", 4)); }, kBad},
    {nullptr, "NO-SUCH-CODEPAGE", [] { return Buffers(ldap_xlate_local_to_utf8, "a"); }, "82:"},
    {nullptr, kL1, [] { return Buffers(ldap_xlate_local_to_utf8, "M\xFCller", 2); }, kFull + "M"},
    {nullptr, kL1, [] { return Buffers(ldap_xlate_local_to_utf8, "M\xFCller", 7); }, "0:M\xC3\xBCller"},
    // The setters refuse what they cannot use and keep what they had.
    {nullptr, nullptr, [] {
         std::string out = std::to_string(ldap_set_locale("no_SUCH.LOCALE")) + std::to_string(ldap_set_locale("C"));
         for (const char *bad : {"iso-8859-1", "ORN999", static_cast<const char *>(nullptr)})
             out += " " + std::to_string(ldap_set_iconv_local_charset(bad));
         return out + " " + std::to_string(ldap_set_iconv_local_codepage("")) + " " + zldap::charset::local_codepage();
     },
     "820 89 89 89 89 ANSI_X3.4-1968"},
    // Settings read from the environment choose the code page and the route.
    {"LDAP_CODEPAGE=ISO885915", nullptr, [] { return Replace(xlate_local_to_utf8, "\xA4"); }, "0:\xE2\x82\xAC"},
    {"LDAP_USE_UNICODE=yes", "TIS-620", [] { return Replace(xlate_local_to_utf8, "\xA1"); }, "0:\xE0\xB8\x81"},
    {"LDAP_USE_UNICODE=y", "EUC-JP", [] { return Replace(xlate_utf8_to_local, "\xE6\x97\xA5"); }, "0:\xC6\xFC"},
    {"LDAP_USE_UNICODE=Y", "GB18030", [] { return Replace(xlate_utf8_to_local, "\xF0\x9F\x98\x80"); }, kNoMap},
    {"LDAP_USE_UNICODE=Y", "GB18030", [] { return Replace(xlate_utf8_to_local, "a\xE0\x80\xAF"); }, kBad},
    {"LDAP_USE_UNICODE=Y", "GB18030", [] { return Replace(xlate_utf8_to_local, "a\xE6\x97"); }, kCut},
    {"LDAP_BACKSLASH=yes", "Shift-JIS", [] { return Replace(xlate_local_to_utf8, "C:\\x~"); }, "0:C:\\x~"},
};

void Check(const Row &row)
{
    const auto &[setting, codepage, run, result] = row;
    if (codepage && ldap_set_iconv_local_charset(codepage) != 0) {
        ASSERT_EQ(ldap_set_iconv_local_codepage(codepage), 0) << codepage;
    }
    EXPECT_EQ(run(), result) << (setting ? setting : "") << " " << (codepage ? codepage : "");
}

// The rows with a setting first, each in a process of its own (which runs
// this test up to its row); then the others in this process, one after the
// other: each change of code page reopens the converters.
TEST(Translation, RoundTripsUnusableInputAndSettings)
{
    for (const Row &row : kRows)
        if (std::get<0>(row))
            ZLDAP_IN_FRESH_PROCESS(unsetenv("LDAP_CODEPAGE"); putenv(const_cast<char *>(std::get<0>(row))); Check(row));
    for (const Row &row : kRows)
        if (!std::get<0>(row))
            Check(row);
}

} // namespace
