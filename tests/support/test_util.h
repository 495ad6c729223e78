// test_util.h - small helpers shared by the unit tests: temporary
// directories, reading files, environment save/restore, trace capture.
#ifndef ZLDAP_TEST_UTIL_H
#define ZLDAP_TEST_UTIL_H

#include <optional>
#include <string>
#include <vector>

namespace zldap_test {

// A directory under /tmp removed with its contents on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string ReadFile(const std::string &path);

// A path under /tmp that is the same in a test and in the fresh processes
// it starts (they re-run the test body up to the point of starting).
std::string SharedTestPath(const std::string &name);
// True inside a process started by ZLDAP_IN_FRESH_PROCESS.
bool InFreshProcess();
std::vector<std::string> SplitLines(const std::string &text);

// Sets (or, with nullopt, unsets) a variable for one scope and restores it.
class ScopedEnv {
public:
    ScopedEnv(const char *name, std::optional<std::string> value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    std::string name_;
    std::optional<std::string> saved_;
};

// Sends trace output to a file for one scope at the given level, and
// reads back what was written.
class TraceCapture {
public:
    explicit TraceCapture(unsigned level);
    ~TraceCapture();
    TraceCapture(const TraceCapture &) = delete;
    TraceCapture &operator=(const TraceCapture &) = delete;
    std::string text() const;

private:
    TempDir dir_;
    unsigned saved_level_;
};

} // namespace zldap_test

#endif
