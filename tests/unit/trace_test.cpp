// Trace log: level parsing, the line prefix rule, time-stamp shapes and the
// hex dump layout, byte for byte.
#include "fresh_process.h"
#include "test_util.h"
#include "base/trace.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <regex>

using zldap_test::ReadFile;
using zldap_test::ScopedEnv;
using zldap_test::SplitLines;
using zldap_test::TempDir;
using zldap_test::TraceCapture;

namespace {

TEST(TraceCategories, MasksMapToTheirLevelBits)
{
    EXPECT_EQ(zldap::trace_category_bits(TRC_API), 0x0001u);
    EXPECT_EQ(zldap::trace_category_bits(TRC_CONN), 0x0008u);
    EXPECT_EQ(zldap::trace_category_bits(TRC_XLATE), 0x0009u);
    EXPECT_EQ(zldap::trace_category_bits(TRC_BER), 0x0010u);
    EXPECT_EQ(zldap::trace_category_bits(TRC_MUTEX), 0x0200u);
    EXPECT_EQ(zldap::trace_category_bits(TRC_ERROR), 0x8000u);
    EXPECT_EQ(zldap::trace_category_bits(0xC8120000), 0x9000u);
    EXPECT_EQ(zldap::trace_category_bits(TRC_ANY), 0xFFFFu);
}

TEST(TraceCategories, MasksOutsideTheTableAreNeverWritten)
{
    for (uint32_t mask : {0u, 0xC8000000u, 0xC8140000u, 0xC8010001u, 0xFFFF0000u, 0x00010000u})
        EXPECT_EQ(zldap::trace_category_bits(mask), 0u) << std::hex << mask;
}

struct DebugLevelCase {
    const char *value;
    uint32_t level;
};

void PrintTo(const DebugLevelCase &c, std::ostream *os) { *os << "LDAP_DEBUG=\"" << c.value << "\""; }

class TraceLevelFromEnvironment : public testing::TestWithParam<DebugLevelCase> {};

TEST_P(TraceLevelFromEnvironment, IsReadOncePerProcess)
{
    const DebugLevelCase c = GetParam();
    ZLDAP_IN_FRESH_PROCESS({
        setenv("LDAP_DEBUG", c.value, 1);
        zldap::trace_setup();
        EXPECT_EQ(zldap::trace_level(), c.level);
        setenv("LDAP_DEBUG", "1", 1);
        zldap::trace_setup();
        EXPECT_EQ(zldap::trace_level(), c.level) << "a second set-up reread LDAP_DEBUG";
    });
}

INSTANTIATE_TEST_SUITE_P(Values, TraceLevelFromEnvironment,
                         testing::Values(DebugLevelCase{"65535", 65535}, DebugLevelCase{"1", 1},
                                         DebugLevelCase{"32768", 32768},
                                         DebugLevelCase{"-1", 0xFFFFFFFFu},
                                         DebugLevelCase{"verbose", 0}, DebugLevelCase{"12x", 0},
                                         DebugLevelCase{"", 0}, DebugLevelCase{"0x10", 0}));

TEST(TraceLevel, OneEnablesFlowTranslationAndAnyLevelLines)
{
    zldap::set_trace_level(1);
    EXPECT_TRUE(zldap::trace_enabled(TRC_API));
    EXPECT_TRUE(zldap::trace_enabled(TRC_XLATE));
    EXPECT_TRUE(zldap::trace_enabled(TRC_ANY));
    EXPECT_FALSE(zldap::trace_enabled(TRC_ERROR));
    EXPECT_FALSE(zldap::trace_enabled(TRC_BER));
    zldap::set_trace_level(32768);
    EXPECT_TRUE(zldap::trace_enabled(TRC_ERROR));
    EXPECT_TRUE(zldap::trace_enabled(0xC8120000));
    EXPECT_TRUE(zldap::trace_enabled(TRC_ANY));
    EXPECT_FALSE(zldap::trace_enabled(TRC_API));
    zldap::set_trace_level(0);
}

TEST(TraceNumericTest, AcceptsDigitsAfterAnOptionalPrefix)
{
    EXPECT_TRUE(zldap::trace_level_is_numeric("123"));
    EXPECT_TRUE(zldap::trace_level_is_numeric("-5"));
    EXPECT_TRUE(zldap::trace_level_is_numeric("-"));
    EXPECT_TRUE(zldap::trace_level_is_numeric("0x"));
    EXPECT_TRUE(zldap::trace_level_is_numeric("0x12"));
    EXPECT_FALSE(zldap::trace_level_is_numeric(""));
    EXPECT_FALSE(zldap::trace_level_is_numeric(nullptr));
    EXPECT_FALSE(zldap::trace_level_is_numeric("0xff"));
    EXPECT_FALSE(zldap::trace_level_is_numeric("1 "));
}

TEST(TraceLines, ShortFormatsGetNoPrefix)
{
    ZLDAP_IN_FRESH_PROCESS({
        setenv("ZEPT_TIMESTAMP_FORMAT", "Epoch", 1);
        TraceCapture capture(0xFFFF);
        zldap::trace_print(TRC_API, "\n");
        zldap::trace_print(TRC_API, "%s", "abc\n");
        zldap::trace_print(TRC_API, "12345");
        zldap::trace_print(TRC_API, "\n");
        zldap::trace_print(TRC_API, "long line %d\n", 42);
        std::vector<std::string> lines = SplitLines(capture.text());
        ASSERT_EQ(lines.size(), 4u);
        EXPECT_EQ(lines[0], "");
        EXPECT_EQ(lines[1], "abc");
        EXPECT_EQ(lines[2], "12345");
        EXPECT_TRUE(std::regex_match(lines[3], std::regex(R"(\d{10}\.\d{6} T-?\d+ long line 42)")))
            << lines[3];
    });
}

TEST(TraceLines, LinesOfDisabledCategoriesAreNotWritten)
{
    TraceCapture capture(0x8000);
    zldap::trace_print(TRC_API, "flow line that is off\n");
    zldap::trace_print(TRC_ERROR, "error line that is on\n");
    std::string text = capture.text();
    EXPECT_EQ(text.find("flow line"), std::string::npos);
    EXPECT_NE(text.find("error line that is on"), std::string::npos);
}

TEST(TraceLines, DebugTimeFalseTurnsStampsOffOnlyInUpperCase)
{
    ZLDAP_IN_FRESH_PROCESS({
        setenv("ZEPT_TIMESTAMP_FORMAT", "Legacy", 1);
        setenv("LDAP_DEBUG_TIME", "false", 1);
        zldap::trace_setup();
        {
            TraceCapture capture(0xFFFF);
            zldap::trace_print(TRC_API, "stamped line\n");
            EXPECT_TRUE(std::regex_match(SplitLines(capture.text()).at(0),
                                         std::regex(R"(\d{3}:\d\d:\d\d:\d\d T-?\d+ stamped line)")));
        }
        setenv("LDAP_DEBUG_TIME", "FALSE", 1);
        zldap::trace_setup();
        TraceCapture capture(0xFFFF);
        zldap::trace_print(TRC_API, "plain line\n");
        EXPECT_TRUE(std::regex_match(SplitLines(capture.text()).at(0), std::regex(R"(T-?\d+ plain line)")));
    });
}

TEST(TraceFile, AnUnopenableFileFallsBackToStandardError)
{
    ZLDAP_IN_FRESH_PROCESS({
        setenv("LDAP_DEBUG_FILE", "/nonexistent-dir/trace.log", 1);
        setenv("LDAP_DEBUG", "65535", 1);
        setenv("LDAP_DEBUG_TIME", "FALSE", 1);
        testing::internal::CaptureStderr();
        zldap::trace_setup();
        zldap::trace_print(TRC_ERROR, "to standard error\n");
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find("to standard error"), std::string::npos) << err;
    });
}

TEST(TraceFile, TheEnvironmentFileIsAppendedTo)
{
    std::string path = zldap_test::SharedTestPath("append-trace.log");
    if (!zldap_test::InFreshProcess())
        std::remove(path.c_str());
    ZLDAP_IN_FRESH_PROCESS({
        setenv("LDAP_DEBUG_FILE", path.c_str(), 1);
        setenv("LDAP_DEBUG", "1", 1);
        zldap::trace_setup();
        zldap::trace_print(TRC_API, "first line\n");
    });
    ZLDAP_IN_FRESH_PROCESS({
        setenv("LDAP_DEBUG_FILE", path.c_str(), 1);
        setenv("LDAP_DEBUG", "1", 1);
        zldap::trace_setup();
        zldap::trace_print(TRC_API, "second line\n");
    });
    std::string text = ReadFile(path);
    std::remove(path.c_str());
    ASSERT_NE(text.find("first line"), std::string::npos);
    EXPECT_LT(text.find("first line"), text.find("second line"));
}

TEST(TraceFile, SetTraceFileRefusesEmptyNames)
{
    EXPECT_EQ(zldap::set_trace_file(nullptr), 22);
    EXPECT_EQ(zldap::set_trace_file(""), 22);
    EXPECT_NE(zldap::set_trace_file("/nonexistent-dir/x.log"), 0);
    EXPECT_EQ(zldap::set_trace_file("stderr"), 0);
}

// Time stamps for 2014-06-09T12:03:05.123456Z in several zones.
struct StampCase {
    const char *tz;
    zldap::TimestampFormat format;
    time_t seconds;
    const char *expected;
};

void PrintTo(const StampCase &c, std::ostream *os)
{
    *os << "TZ=" << c.tz << " format " << static_cast<int>(c.format) << " at " << c.seconds;
}

class TraceTimestamp : public testing::TestWithParam<StampCase> {};

TEST_P(TraceTimestamp, HasItsDocumentedShape)
{
    const StampCase c = GetParam();
    ScopedEnv tz("TZ", c.tz);
    tzset();
    char buf[33];
    struct timeval tv {c.seconds, 123456};
    size_t n = zldap::format_timestamp(buf, sizeof buf, c.format, tv);
    EXPECT_STREQ(buf, c.expected);
    EXPECT_EQ(n, std::string(c.expected).size());
}

using F = zldap::TimestampFormat;
constexpr time_t kNoon = 1402315385;      // 2014-06-09T12:03:05Z
constexpr time_t kLateEvening = 1402356600; // 2014-06-09T23:30:00Z

INSTANTIATE_TEST_SUITE_P(
    Formats, TraceTimestamp,
    testing::Values(StampCase{"UTC0", F::Local, kNoon, "2014-06-09T12:03:05.123456+0:00"},
                    StampCase{"CET-1CEST,M3.5.0,M10.5.0/3", F::Local, kNoon, "2014-06-09T14:03:05.123456+2:00"},
                    StampCase{"EST10", F::Local, kNoon, "2014-06-09T02:03:05.123456-10:00"},
                    StampCase{"IST-5:30", F::Local, kNoon, "2014-06-09T17:33:05.123456+5:30"},
                    StampCase{"JST-9", F::Local, kLateEvening, "2014-06-10T08:30:00.123456+9:00"},
                    StampCase{"EST10", F::Local, 1402275600, "2014-06-08T15:00:00.123456-10:00"},
                    StampCase{"CET-1CEST,M3.5.0,M10.5.0/3", F::Utc, kNoon, "2014-06-09T12:03:05.123456Z"},
                    StampCase{"CET-1CEST,M3.5.0,M10.5.0/3", F::General, kNoon, "20140609120305.123456Z"},
                    StampCase{"CET-1CEST,M3.5.0,M10.5.0/3", F::Epoch, kNoon, "1402315385.123456"},
                    StampCase{"CET-1CEST,M3.5.0,M10.5.0/3", F::Audit, kNoon, "2014-06-09-14:03:05.123+2:00DST"},
                    StampCase{"JST-9", F::Audit, kNoon, "2014-06-09-21:03:05.123+9:00"},
                    StampCase{"CET-1CEST,M3.5.0,M10.5.0/3", F::Legacy, kNoon, "159:12:03:05"}));

TEST(TraceTimestampFormat, NamesAreComparedWithoutCase)
{
    EXPECT_EQ(zldap::parse_timestamp_format("utc"), F::Utc);
    EXPECT_EQ(zldap::parse_timestamp_format("gt"), F::General);
    EXPECT_EQ(zldap::parse_timestamp_format("GeneralizedTime"), F::General);
    EXPECT_EQ(zldap::parse_timestamp_format("EPOCH"), F::Epoch);
    EXPECT_EQ(zldap::parse_timestamp_format("audit"), F::Audit);
    EXPECT_EQ(zldap::parse_timestamp_format("legacy"), F::Legacy);
    EXPECT_EQ(zldap::parse_timestamp_format("Default"), F::Local);
    EXPECT_EQ(zldap::parse_timestamp_format("whatever"), F::Local);
    EXPECT_EQ(zldap::parse_timestamp_format(nullptr), F::Local);
}

TEST(TraceTimestampFormat, ATooSmallBufferGetsNothing)
{
    char buf[10] = "garbage";
    struct timeval tv {kNoon, 0};
    EXPECT_EQ(zldap::format_timestamp(buf, sizeof buf, F::Local, tv), 0u);
    EXPECT_STREQ(buf, "");
}

// The dump's lines without their "T<thread>:\t" prefix.
std::vector<std::string> DumpLines(const void *data, long length, const char *title)
{
    TraceCapture capture(0);
    zldap::trace_dump(data, length, title);
    std::vector<std::string> lines;
    std::regex prefix(R"(T-?\d+:\t(.*))");
    for (const std::string &line : SplitLines(capture.text())) {
        std::smatch m;
        EXPECT_TRUE(std::regex_match(line, m, prefix)) << line;
        lines.push_back(m[1]);
    }
    return lines;
}

const std::string kBorder = "+---------------------------------------------------------+";

TEST(TraceDump, TwentyBytesMakeOneFullAndOnePartialLine)
{
    unsigned char data[20];
    for (int i = 0; i < 20; i++)
        data[i] = static_cast<unsigned char>(0x41 + i);
    data[3] = 0x5E; // '^' is shown as a dot
    data[4] = 0x00;
    data[5] = 0x7F;
    std::vector<std::string> lines = DumpLines(data, 20, "Request");
    char address[9];
    std::snprintf(address, sizeof address, "%08X",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(data) & 0xFFFFFFFFu));
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
    EXPECT_EQ(lines, expected);
    for (const std::string &line : lines)
        EXPECT_EQ(line.size(), 59u) << line;
}

TEST(TraceDump, ALengthWithBit15SetShowsTheFrameOnly)
{
    unsigned char data[4] = {1, 2, 3, 4};
    std::vector<std::string> lines = DumpLines(data, 0x8000, nullptr);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], kBorder);
    EXPECT_NE(lines[1].find("Length = 8000"), std::string::npos);
    EXPECT_EQ(lines[2], kBorder);
    EXPECT_EQ(lines[3], kBorder);
}

TEST(TraceDump, NullDataAndEmptyTitleGiveNoDataLines)
{
    EXPECT_EQ(DumpLines(nullptr, 16, "").size(), 4u);
    unsigned char byte = 0;
    EXPECT_EQ(DumpLines(&byte, 0, nullptr).size(), 4u);
}

TEST(TraceDump, LongTitlesAreCutToTheFrame)
{
    std::string title(80, 'x');
    std::vector<std::string> lines = DumpLines(nullptr, 0, title.c_str());
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[1], "|" + std::string(57, 'x') + "|");
}

} // namespace
