// xlate_threads_test.cpp - many threads make the process's first
// translations at once: each converter is opened exactly once, under the
// translation lock, and every thread gets whole, correct results.
#include "test_util.h"

#include "base/memory.h"
#include "xlate/ldap_charset.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string Translate(int (*xlate)(char **, ber_len_t *, int), const std::string &in)
{
    char *buf = zldap::mem_strdup(in.c_str());
    ber_len_t len = in.size();
    std::string out = xlate(&buf, &len, 1) == 0 ? std::string(buf, len) : "failed";
    zldap::mem_free(buf);
    return out;
}

TEST(XlateThreads, ConvertersOpenOnceAtFirstUse)
{
    // The trace's open lines are how a converter's opening shows.
    zldap_test::TraceCapture trace(0x0008);
    ASSERT_EQ(ldap_set_iconv_local_codepage("ISO8859-1"), 0);
    constexpr int kThreads = 8;
    std::latch start(kThreads);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < 50; i++) {
                // Threads start on different directions so that openings race.
                if ((t + i) % 3 == 0 && Translate(xlate_local_to_utf8, "M\xFCller") != "M\xC3\xBCller")
                    wrong++;
                if ((t + i) % 3 == 1 && Translate(xlate_utf8_to_local, "M\xC3\xBCller") != "M\xFCller")
                    wrong++;
                char in[] = "\xFC", out[4];
                unsigned int inlen = 1;
                size_t outlen = sizeof out;
                if ((t + i) % 3 == 2 && (ldap_xlate_local_to_unicode(in, &inlen, out, &outlen) != 0 ||
                                         std::string(out, sizeof out - outlen) != std::string("\0\xFC", 2)))
                    wrong++;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);

    std::string text = trace.text();
    int opened = 0;
    for (const std::string &line : zldap_test::SplitLines(text))
        opened += line.find("ldap_iconv_open(") != std::string::npos && line.find("successful") != std::string::npos;
    EXPECT_EQ(opened, 3) << text;
}

} // namespace
