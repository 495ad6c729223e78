// fresh_process.h - runs a test body in a newly started copy of the test
// program, for behaviour that the library settles once per process (the
// trace environment, the legacy translation flag).
#ifndef ZLDAP_TEST_FRESH_PROCESS_H
#define ZLDAP_TEST_FRESH_PROCESS_H

#include <gtest/gtest.h>

// The body reports success by returning normally; any failed ASSERT or
// EXPECT inside it, or a crash, fails the test.
#define ZLDAP_IN_FRESH_PROCESS(...)                                                                \
    do {                                                                                           \
        GTEST_FLAG_SET(death_test_style, "threadsafe");                                            \
        auto zldap_fresh_body = [&] { __VA_ARGS__; };                                              \
        EXPECT_EXIT(                                                                               \
            {                                                                                      \
                zldap_fresh_body();                                                                \
                std::exit(::testing::Test::HasFailure() ? 1 : 0);                                  \
            },                                                                                     \
            ::testing::ExitedWithCode(0), "");                                                     \
    } while (0)

#endif
