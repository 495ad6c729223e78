// Diagnostics and environment: the trace level from the environment, the
// line prefix rule, the trace file, time-stamp shapes and the hex dump
// layout, byte for byte; the serialised environment accessors.
#include "base/environment.h"
#include "base/memory.h"
#include "base/trace.h"
#include "fresh_process.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <regex>

using zldap_test::ScopedEnv;
using zldap_test::SplitLines;
using zldap_test::TraceCapture;

namespace {

TEST(TraceLevel, IsReadOncePerProcess)
{
    const std::pair<const char *, uint32_t> cases[] = {{"65535", 65535}, {"32768", 32768}, {"-1", 0xFFFFFFFFu},
                                                       {"verbose", 0}, {"12x", 0}, {"", 0}, {"0x10", 0}};
    for (const auto &[value, level] : cases) {
        ZLDAP_IN_FRESH_PROCESS({
            setenv("LDAP_DEBUG", value, 1);
            zldap::trace_setup();
            EXPECT_EQ(zldap::trace_level(), level) << value;
            setenv("LDAP_DEBUG", "1", 1);
            zldap::trace_setup();
            EXPECT_EQ(zldap::trace_level(), level) << "a second set-up reread LDAP_DEBUG";
        });
    }
}

// Lines of up to five characters carry no prefix; LDAP_DEBUG_TIME turns
// stamps off only when it is "FALSE".
TEST(TraceLines, PrefixesAndStamps)
{
    ZLDAP_IN_FRESH_PROCESS({
        setenv("ZEPT_TIMESTAMP_FORMAT", "Legacy", 1);
        setenv("LDAP_DEBUG_TIME", "false", 1);
        zldap::trace_setup();
        TraceCapture stamped(0xFFFF);
        zldap::trace_print(TRC_API, "\n");
        zldap::trace_print(TRC_API, "%s", "abc\n");
        zldap::trace_print(TRC_API, "12345");
        zldap::trace_print(TRC_API, "\n");
        zldap::trace_print(TRC_API, "long line %d\n", 42);
        std::vector<std::string> lines = SplitLines(stamped.text());
        ASSERT_EQ(lines.size(), 4u);
        EXPECT_EQ(lines[0] + "|" + lines[1] + "|" + lines[2], "|abc|12345");
        EXPECT_TRUE(std::regex_match(lines[3], std::regex(R"(\d{3}:\d\d:\d\d:\d\d T-?\d+ long line 42)"))) << lines[3];
        setenv("LDAP_DEBUG_TIME", "FALSE", 1);
        zldap::trace_setup();
        TraceCapture plain(0xFFFF);
        zldap::trace_print(TRC_API, "plain line\n");
        EXPECT_TRUE(std::regex_match(SplitLines(plain.text()).at(0), std::regex(R"(T-?\d+ plain line)")));
    });
}

TEST(TraceFile, IsAppendedToOrFallsBackToStandardError)
{
    std::string path = zldap_test::SharedTestPath("append-trace.log");
    if (!zldap_test::InFreshProcess())
        std::remove(path.c_str());
    for (const char *line : {"first line\n", "second line\n", "to standard error\n"}) {
        ZLDAP_IN_FRESH_PROCESS({
            bool unopenable = line[0] == 't';
            setenv("LDAP_DEBUG_FILE", unopenable ? "/nonexistent-dir/trace.log" : path.c_str(), 1);
            setenv("LDAP_DEBUG", "1", 1);
            testing::internal::CaptureStderr();
            zldap::trace_setup();
            zldap::trace_print(TRC_API, "%s", line);
            EXPECT_EQ(testing::internal::GetCapturedStderr().find(line) != std::string::npos, unopenable);
        });
    }
    std::string text = zldap_test::ReadFile(path);
    EXPECT_LT(text.find("first line"), text.find("second line"));
    EXPECT_NE(text.find("second line"), std::string::npos);
    std::remove(path.c_str());
}

using F = zldap::TimestampFormat;
constexpr time_t kNoon = 1402315385; // 2014-06-09T12:03:05Z
constexpr const char *kCet = "CET-1CEST,M3.5.0,M10.5.0/3";

TEST(TraceTimestamp, EveryFormatHasItsDocumentedShape)
{
    const struct {
        const char *tz, *format;
        time_t seconds;
        const char *expected;
    } cases[] = {
        {"UTC0", "", kNoon, "2014-06-09T12:03:05.123456+0:00"},
        {kCet, "Default", kNoon, "2014-06-09T14:03:05.123456+2:00"},
        {"EST10", "whatever", kNoon, "2014-06-09T02:03:05.123456-10:00"},
        {"IST-5:30", "", kNoon, "2014-06-09T17:33:05.123456+5:30"},
        {"JST-9", "", 1402356600, "2014-06-10T08:30:00.123456+9:00"},
        {"EST10", "", 1402275600, "2014-06-08T15:00:00.123456-10:00"},
        {kCet, "utc", kNoon, "2014-06-09T12:03:05.123456Z"},
        {kCet, "gt", kNoon, "20140609120305.123456Z"},
        {kCet, "GeneralizedTime", kNoon, "20140609120305.123456Z"},
        {kCet, "EPOCH", kNoon, "1402315385.123456"},
        {kCet, "audit", kNoon, "2014-06-09-14:03:05.123+2:00DST"},
        {"JST-9", "Audit", kNoon, "2014-06-09-21:03:05.123+9:00"},
        {kCet, "legacy", kNoon, "159:12:03:05"},
    };
    for (const auto &c : cases) {
        ScopedEnv tz("TZ", c.tz);
        tzset();
        char buf[33];
        struct timeval tv {c.seconds, 123456};
        EXPECT_EQ(zldap::format_timestamp(buf, sizeof buf, zldap::parse_timestamp_format(c.format), tv),
                  std::string(c.expected).size());
        EXPECT_STREQ(buf, c.expected) << c.tz << " " << c.format;
    }
    EXPECT_EQ(zldap::parse_timestamp_format(nullptr), F::Local);
    char small[10] = "garbage";
    EXPECT_EQ(zldap::format_timestamp(small, sizeof small, F::Local, timeval{kNoon, 0}), 0u);
    EXPECT_STREQ(small, "");
}

// The dump's lines without their "T<thread>:\t" prefix.
std::vector<std::string> DumpLines(const void *data, long length, const char *title)
{
    TraceCapture capture(0);
    zldap::trace_dump(data, length, title);
    std::vector<std::string> lines;
    for (const std::string &line : SplitLines(capture.text())) {
        std::smatch m;
        EXPECT_TRUE(std::regex_match(line, m, std::regex(R"(T-?\d+:\t(.*))"))) << line;
        lines.push_back(m[1]);
    }
    return lines;
}

const std::string kBorder = "+---------------------------------------------------------+";

TEST(TraceDump, LayoutByteForByte)
{
    unsigned char data[20];
    for (int i = 0; i < 20; i++)
        data[i] = static_cast<unsigned char>(0x41 + i);
    data[3] = 0x5E; // '^' is shown as a dot
    data[4] = 0x00;
    data[5] = 0x7F;
    char address[9];
    std::snprintf(address, sizeof address, "%08X", static_cast<unsigned>(reinterpret_cast<uintptr_t>(data) & 0xFFFFFFFFu));
    std::vector<std::string> expected = {
        kBorder,
        "|" + std::string(25, ' ') + "Request" + std::string(25, ' ') + "|",
        kBorder,
        std::string("|OSet| Address = ") + address + "  Length = 0014 |     ASCII      |",
        kBorder,
        "|0000|4142435E 007F4748 494A4B4C 4D4E4F50|ABC...GHIJKLMNOP|",
        "|0010|51525354" + std::string(27, ' ') + "|QRST" + std::string(12, ' ') + "|",
        kBorder,
    };
    EXPECT_EQ(DumpLines(data, 20, "Request"), expected);
    // A length with bit 15 set, no data or no length show the frame only;
    // a long title is cut to the frame.
    std::vector<std::string> lines = DumpLines(data, 0x8000, nullptr);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_NE(lines[1].find("Length = 8000"), std::string::npos);
    EXPECT_EQ(DumpLines(nullptr, 16, "").size(), 4u);
    EXPECT_EQ(DumpLines(data, 0, nullptr).size(), 4u);
    EXPECT_EQ(DumpLines(nullptr, 0, std::string(80, 'x').c_str()).at(1), "|" + std::string(57, 'x') + "|");
}

TEST(Environment, CopiesAndPresence)
{
    ScopedEnv env("ZLDAP_TEST_VAR", "abc");
    char *copy = ldap_getenv("ZLDAP_TEST_VAR");
    EXPECT_STREQ(copy, "abc");
    EXPECT_NE(copy, std::getenv("ZLDAP_TEST_VAR")) << "a copy of its own";
    zldap::mem_free(copy);
    EXPECT_EQ(ldap_chkenv("ZLDAP_TEST_VAR"), 4) << "the value with its terminator";
    ScopedEnv empty("ZLDAP_TEST_VAR", "");
    EXPECT_EQ(ldap_chkenv("ZLDAP_TEST_VAR"), 1);
    ScopedEnv unset("ZLDAP_TEST_VAR", std::nullopt);
    EXPECT_EQ(ldap_getenv("ZLDAP_TEST_VAR"), nullptr);
    EXPECT_EQ(ldap_chkenv("ZLDAP_TEST_VAR"), 0);
    EXPECT_EQ(ldap_getenv(""), nullptr);
    EXPECT_EQ(ldap_getenv(nullptr), nullptr);
    EXPECT_EQ(ldap_chkenv(nullptr), 0);
    EXPECT_EQ(ldap_putenv(nullptr), 0);
}

TEST(Environment, ListElementsAreWholeElements)
{
    const struct {
        const char *list, *value;
        bool present;
    } cases[] = {
        {"/opt/a:/opt/b", "/opt/b", true}, {"/OPT/A:/opt/b", "/opt/a", true}, // letter case ignored
        {"\\opt\\a:/opt/b", "/opt/a", true}, {"/opt/a", "\\OPT\\A", true},     // backslash reads as slash
        {"/opt/a /x", "/opt/a", true},                                          // white space ends an element
        {"/opt/ab:/opt/a", "/opt/a", false},                                    // the first occurrence runs on
        {"x/opt/a:/y", "/opt/a", false},                                        // not at an element start
        {"x/opt/a:/opt/a", "/opt/a", true}, {"", "/opt/a", false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(ldap_env_list_contains(c.list, c.value, ':'), c.present) << c.value << " in " << c.list;
}

TEST(Environment, ChangeEnvVarPrependsAppendsOrLeavesAListedValue)
{
    ScopedEnv env("ZLDAP_TEST_PATH", std::nullopt);
    const struct {
        int mode;
        char separator;
        const char *value, *result;
    } steps[] = {{0, ':', "/first", "/first"}, {1, ':', "/last", "/first:/last"}, {0, ':', "/front", "/front:/first:/last"},
                 {0, ':', "\\FIRST", "/front:/first:/last"}, {1, ';', "/x", "/front:/first:/last;/x"}};
    for (const auto &s : steps) {
        EXPECT_EQ(ldap_change_env_var(s.mode, "ZLDAP_TEST_PATH", s.separator, s.value), 0);
        EXPECT_STREQ(std::getenv("ZLDAP_TEST_PATH"), s.result);
    }
    EXPECT_EQ(ldap_change_env_var(0, "", ':', "x"), 89);
    EXPECT_EQ(ldap_change_env_var(0, "ZLDAP_TEST_PATH", ':', nullptr), 89);
}

} // namespace
