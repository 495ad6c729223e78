// test_util.cpp - shared helpers of the unit tests.
#include "test_util.h"

#include "base/trace.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zldap_test {

TempDir::TempDir()
{
    char pattern[] = "/tmp/zldap-test-XXXXXX";
    if (!mkdtemp(pattern))
        throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

bool InFreshProcess() { return !GTEST_FLAG_GET(internal_run_death_test).empty(); }

std::string SharedTestPath(const std::string &name)
{
    pid_t owner = InFreshProcess() ? getppid() : getpid();
    return "/tmp/zldap-" + name + "-" + std::to_string(owner);
}

std::vector<std::string> SplitLines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

ScopedEnv::ScopedEnv(const char *name, std::optional<std::string> value) : name_(name)
{
    if (const char *old = std::getenv(name))
        saved_ = old;
    if (value)
        setenv(name, value->c_str(), 1);
    else
        unsetenv(name);
}

ScopedEnv::~ScopedEnv()
{
    if (saved_)
        setenv(name_.c_str(), saved_->c_str(), 1);
    else
        unsetenv(name_.c_str());
}

TraceCapture::TraceCapture(unsigned level) : saved_level_(zldap::trace_level())
{
    zldap::set_trace_file(dir_.file("trace.log").c_str());
    zldap::set_trace_level(level);
}

TraceCapture::~TraceCapture()
{
    zldap::set_trace_level(saved_level_);
    zldap::set_trace_file("stderr");
}

std::string TraceCapture::text() const { return ReadFile(dir_.file("trace.log")); }

} // namespace zldap_test
