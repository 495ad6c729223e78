// xlate_threads_test.cpp - many threads make the process's first
// translations at once: each converter is opened exactly once, under the
// translation lock, and every thread gets whole, correct results.
#include "test_util.h"

#include "xlate/ldap_charset.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using Xlate = int (*)(char *, unsigned int *, char *, size_t *);

TEST(XlateThreads, ConvertersOpenOnceAtFirstUse)
{
    // Three directions, three converters; a converter's opening shows as its trace line.
    const std::tuple<Xlate, std::string, std::string> cases[] = {
        {ldap_xlate_local_to_utf8, "M\xFC", "M\xC3\xBC"}, {ldap_xlate_utf8_to_local, "M\xC3\xBC", "M\xFC"},
        {ldap_xlate_local_to_unicode, "M\xFC", std::string("\0M\0\xFC", 4)}};
    zldap_test::TraceCapture trace(0x0008);
    ASSERT_EQ(ldap_set_iconv_local_codepage("ISO8859-1"), 0);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; i++) { // threads start on different directions so that openings race
                const auto &[xlate, in, expected] = cases[(t + i) % 3];
                char out[8];
                unsigned int inlen = static_cast<unsigned int>(in.size());
                size_t room = sizeof out;
                int rc = xlate(const_cast<char *>(in.data()), &inlen, out, &room);
                wrong += rc != 0 || std::string(out, sizeof out - room) != expected;
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
    int opened = 0;
    for (const std::string &line : zldap_test::SplitLines(trace.text()))
        opened += line.find("ldap_iconv_open(") != std::string::npos && line.find("successful") != std::string::npos;
    EXPECT_EQ(opened, 3);
}

} // namespace
