// recorder.cpp - a stand-in secure-socket toolkit for the tests. Every call
// is appended to a log ("open", "302=43200", "201=/k/db", "get 201", "800",
// "init", "close", ";" after each) that zor_recorder_log returns.
// ZOR_RECORDER_FAIL lists "call=code" items separated by ",": such a call
// returns code, and "call#n=code" does so for its n-th time only. Buffers
// set are kept, so reading one back returns the last value set.
#include "zor_toolkit.h"

#include <cstdlib>
#include <map>
#include <sstream>
#include <string>

namespace {

std::string g_log;
std::map<std::string, int> g_seen;
std::map<int, std::string> g_buffers;
int g_environment;

int record(const std::string &call)
{
    g_log += call + ";";
    std::string nth = call + "#" + std::to_string(++g_seen[call]);
    std::istringstream fail(std::getenv("ZOR_RECORDER_FAIL") ? std::getenv("ZOR_RECORDER_FAIL") : "");
    for (std::string item; std::getline(fail, item, ',');) {
        std::string key = item.substr(0, item.rfind('='));
        if (key == call || key == nth)
            return std::atoi(item.c_str() + key.size() + 1);
    }
    return ZOR_OK;
}

std::string set(int id, const std::string &value) { return std::to_string(id) + "=" + value; }

} // namespace

extern "C" {

const char *zor_recorder_log() { return g_log.c_str(); }
int zor_environment_open(zor_handle *env) { return *env = &g_environment, record("open"); }
int zor_environment_close(zor_handle *) { return record("close"); }
int zor_environment_init(zor_handle) { return record("init"); }
int zor_secure_soc_open(zor_handle, zor_handle *) { return record("soc_open"); }
int zor_secure_soc_init(zor_handle) { return record("soc_init"); }
int zor_secure_soc_close(zor_handle *) { return record("soc_close"); }
int zor_secure_soc_read(zor_handle, char *, int, int *) { return record("read"); }
int zor_secure_soc_write(zor_handle, const char *, int, int *) { return record("write"); }
int zor_attribute_set_buffer(zor_handle, int id, const void *value, int)
{
    int rc = record(set(id, value ? static_cast<const char *>(value) : "(null)"));
    if (rc == ZOR_OK && value)
        g_buffers[id] = static_cast<const char *>(value);
    return rc;
}
int zor_attribute_get_buffer(zor_handle, int id, const char **value, int *length)
{
    auto found = g_buffers.find(id);
    *value = found == g_buffers.end() ? nullptr : found->second.c_str();
    *length = *value ? static_cast<int>(found->second.size()) : 0;
    return record("get " + std::to_string(id));
}
int zor_attribute_set_callback(zor_handle, int id, const void *) { return record(std::to_string(id)); }
int zor_attribute_get_cert_info(zor_handle, int, zor_cert_element **, int *) { return record("cert_info"); }
int zor_attribute_set_numeric_value(zor_handle, int id, int value) { return record(set(id, std::to_string(value))); }
int zor_attribute_get_numeric_value(zor_handle, int, int *) { return record("get_numeric"); }
int zor_attribute_set_enum(zor_handle, int id, int value) { return record(set(id, std::to_string(value))); }
int zor_attribute_get_enum(zor_handle, int, int *) { return record("get_enum"); }
const char *zor_strerror(int) { return "recorded failure"; }
int zor_get_cert_by_label(zor_handle, const char *, void **) { return record("cert_by_label"); }
}
