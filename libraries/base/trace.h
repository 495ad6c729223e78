// trace.h - the trace log: category masks, the level test, line printing,
// time stamps and hex dumps.
#ifndef ZLDAP_TRACE_H
#define ZLDAP_TRACE_H

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <sys/time.h>

// Category masks: every trace line names one of them.
inline constexpr uint32_t TRC_API = 0xC8010000;   // API flow, entry and exit
inline constexpr uint32_t TRC_CONN = 0xC8040000;  // connections, secure transport
inline constexpr uint32_t TRC_XLATE = 0xC8050000; // code-set translation
inline constexpr uint32_t TRC_BER = 0xC8060000;   // BER element traffic
inline constexpr uint32_t TRC_MUTEX = 0xC80B0000; // mutex creation
inline constexpr uint32_t TRC_DN = 0xC80D0000;    // DN parsing
inline constexpr uint32_t TRC_ERROR = 0xC8110000; // errors and failures
inline constexpr uint32_t TRC_ANY = 0xC8130000;   // shown at any level

namespace zldap {

// Level bits of the masks 0xC8010000 .. 0xC8130000, in steps of 0x10000.
inline constexpr uint32_t kTraceCategoryBits[19] = {
    0x0001, 0x0002, 0x0004, 0x0008, 0x0009, 0x0010, 0x0020, 0x0040, 0x0080, 0x0100,
    0x0200, 0x0400, 0x0800, 0x1000, 0x2000, 0x4000, 0x8000, 0x9000, 0xFFFF};

extern std::atomic<uint32_t> g_trace_level;

constexpr uint32_t trace_category_bits(uint32_t mask)
{
    uint32_t index = (mask - 0xC8010000u) >> 16;
    if ((mask & 0xFFFFu) != 0 || mask < 0xC8010000u || index >= 19)
        return 0;
    return kTraceCategoryBits[index];
}

// The trace test: is a line of this category written now?
inline bool trace_enabled(uint32_t mask)
{
    return (trace_category_bits(mask) & g_trace_level.load(std::memory_order_relaxed)) != 0;
}

// No trace line of any category is written now.
inline bool tracing_off()
{
    return g_trace_level.load(std::memory_order_relaxed) == 0;
}

void trace_print(uint32_t mask, const char *format, ...) __attribute__((format(printf, 2, 3)));
void trace_vprint(uint32_t mask, const char *format, va_list args) __attribute__((format(printf, 2, 0)));

// Written regardless of the level: callers test their category first.
void trace_dump(const void *address, long length, const char *title);

// Reads the trace environment once per process and LDAP_DEBUG_TIME every time.
void trace_setup();

uint32_t trace_level();
void set_trace_level(uint32_t level);

// Closes the current trace file; "stderr" selects standard error, any other
// name is opened for appending. 0, or an errno value (22 for a bad name).
int set_trace_file(const char *name);

// Time-stamp formats, chosen once from ZEPT_TIMESTAMP_FORMAT.
enum class TimestampFormat { Local, Utc, General, Epoch, Audit, Legacy };
TimestampFormat parse_timestamp_format(const char *value);
// Writes the stamp for tv into buf; writes nothing (buf[0] = 0 when size > 0)
// when it does not fit. Returns the length written.
size_t format_timestamp(char *buf, size_t size, TimestampFormat format, const struct timeval &tv);
// Accepts LDAP_DEBUG values: not empty; an optional "-" or "0x", then digits only.
bool trace_level_is_numeric(const char *value);

} // namespace zldap

// Arguments are evaluated only when the line's category is on.
#define LDAP_TRACE(mask, ...)                                                                      \
    do {                                                                                           \
        if (zldap::trace_enabled(mask))                                                            \
            zldap::trace_print((mask), __VA_ARGS__);                                               \
    } while (0)

// Spells an absent string the way each message wants it.
inline const char *trace_str(const char *s, const char *absent = "(null)") { return s ? s : absent; }

#endif
