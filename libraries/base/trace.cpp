// trace.cpp - the trace log: set-up from the environment, line printing with
// time stamps and thread numbers, and framed hex dumps.
#include "base/trace.h"

#include "base/environment.h"
#include "base/memory.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <strings.h>

namespace zldap {

std::atomic<uint32_t> g_trace_level{0};

namespace {

// Serialises whole lines and whole dumps; taken by nothing that takes another lock.
pthread_mutex_t g_trace_lock = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;
pthread_once_t g_trace_once = PTHREAD_ONCE_INIT;

// Guarded by g_trace_lock once set-up has run.
char *g_trace_file_name = nullptr;
FILE *g_trace_stream = nullptr;
std::atomic<bool> g_timestamps{true};

// Set once, at the first time-stamped line.
pthread_once_t g_format_once = PTHREAD_ONCE_INIT;
TimestampFormat g_format = TimestampFormat::Local;

constexpr size_t kStampSize = 33;

int thread_number() { return static_cast<int>(static_cast<uint32_t>(pthread_self())); }

FILE *current_stream() { return (g_trace_file_name && g_trace_stream) ? g_trace_stream : stderr; }

void read_trace_environment()
{
    char *file = ldap_getenv("LDAP_DEBUG_FILE");
    if (file) {
        FILE *stream = std::fopen(file, "a");
        pthread_mutex_lock(&g_trace_lock);
        g_trace_file_name = file;
        g_trace_stream = stream;
        pthread_mutex_unlock(&g_trace_lock);
    }
    char *level = ldap_getenv("LDAP_DEBUG");
    if (level) {
        uint32_t value = 0;
        if (trace_level_is_numeric(level)) {
            long n = std::atol(level);
            value = n < 0 ? 0xFFFFFFFFu : static_cast<uint32_t>(n);
        }
        g_trace_level.store(value, std::memory_order_relaxed);
        mem_free(level);
    }
}

// Reads ZEPT_TIMESTAMP_FORMAT, before the trace lock is taken, with the
// accessor that writes no line of its own: a line written from here would
// come back into trace_print. A value longer than the buffer is cut; it
// names the same format cut or whole, since the names are shorter and
// "General" is matched by its first seven characters.
void read_timestamp_format()
{
    char value[16];
    bool set = ldap_getenv_untraced("ZEPT_TIMESTAMP_FORMAT", value, sizeof value);
    g_format = parse_timestamp_format(set ? value : nullptr);
}

// Local wall-clock time minus UTC wall-clock time, in minutes; a different
// calendar day counts as one whole day in its direction.
int utc_offset_minutes(const struct tm &local, const struct tm &utc)
{
    int minutes = (local.tm_hour * 60 + local.tm_min) - (utc.tm_hour * 60 + utc.tm_min);
    int local_day = (local.tm_year * 12 + local.tm_mon) * 31 + local.tm_mday;
    int utc_day = (utc.tm_year * 12 + utc.tm_mon) * 31 + utc.tm_mday;
    if (local_day > utc_day)
        minutes += 24 * 60;
    else if (local_day < utc_day)
        minutes -= 24 * 60;
    return minutes;
}

// Appends to buf at *used; false when it does not fit.
bool append(char *buf, size_t size, size_t *used, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
bool append(char *buf, size_t size, size_t *used, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    int n = std::vsnprintf(buf + *used, size - *used, format, args);
    va_end(args);
    if (n < 0 || static_cast<size_t>(n) >= size - *used)
        return false;
    *used += static_cast<size_t>(n);
    return true;
}

bool append_time(char *buf, size_t size, size_t *used, const char *pattern, const struct tm &tm)
{
    size_t n = std::strftime(buf + *used, size - *used, pattern, &tm);
    if (n == 0)
        return false;
    *used += n;
    return true;
}

} // namespace

bool trace_level_is_numeric(const char *value)
{
    if (!value || !*value)
        return false;
    if (*value == '-')
        value++;
    else if (value[0] == '0' && value[1] == 'x')
        value += 2;
    for (; *value; value++)
        if (*value < '0' || *value > '9')
            return false;
    return true;
}

TimestampFormat parse_timestamp_format(const char *value)
{
    if (!value)
        return TimestampFormat::Local;
    if (strcasecmp(value, "UTC") == 0)
        return TimestampFormat::Utc;
    if (strcasecmp(value, "GT") == 0 || strncasecmp(value, "General", 7) == 0)
        return TimestampFormat::General;
    if (strcasecmp(value, "Epoch") == 0)
        return TimestampFormat::Epoch;
    if (strcasecmp(value, "Audit") == 0)
        return TimestampFormat::Audit;
    if (strcasecmp(value, "Legacy") == 0)
        return TimestampFormat::Legacy;
    return TimestampFormat::Local;
}

size_t format_timestamp(char *buf, size_t size, TimestampFormat format, const struct timeval &tv)
{
    if (size == 0)
        return 0;
    time_t seconds = tv.tv_sec;
    unsigned long usec = static_cast<unsigned long>(tv.tv_usec);
    struct tm local {};
    struct tm utc {};
    localtime_r(&seconds, &local);
    gmtime_r(&seconds, &utc);
    size_t used = 0;
    bool ok = false;
    switch (format) {
    case TimestampFormat::Local: {
        int offset = utc_offset_minutes(local, utc);
        ok = append_time(buf, size, &used, "%Y-%m-%dT%H:%M:%S.", local) &&
             append(buf, size, &used, "%06lu", usec) &&
             append(buf, size, &used, "%+02d:%02d", offset / 60, std::abs(offset % 60));
        break;
    }
    case TimestampFormat::Utc:
        ok = append_time(buf, size, &used, "%Y-%m-%dT%H:%M:%S.", utc) &&
             append(buf, size, &used, "%06luZ", usec);
        break;
    case TimestampFormat::General:
        ok = append_time(buf, size, &used, "%Y%m%d%H%M%S.", utc) &&
             append(buf, size, &used, "%06luZ", usec);
        break;
    case TimestampFormat::Epoch:
        ok = append(buf, size, &used, "%010lu.%06lu", static_cast<unsigned long>(seconds), usec);
        break;
    case TimestampFormat::Audit: {
        int offset = utc_offset_minutes(local, utc);
        ok = append_time(buf, size, &used, "%Y-%m-%d-%H:%M:%S.", local) &&
             append(buf, size, &used, "%03lu", usec / 1000) &&
             append(buf, size, &used, "%+02d:%02d%s", offset / 60, std::abs(offset % 60),
                    local.tm_isdst > 0 ? "DST" : "");
        break;
    }
    case TimestampFormat::Legacy:
        ok = append(buf, size, &used, "%.3d:%.2d:%.2d:%.2d", utc.tm_yday, utc.tm_hour, utc.tm_min,
                    utc.tm_sec);
        break;
    }
    if (!ok) {
        buf[0] = '\0';
        return 0;
    }
    return used;
}

void trace_setup()
{
    pthread_once(&g_trace_once, read_trace_environment);
    char *stamps = ldap_getenv("LDAP_DEBUG_TIME");
    if (stamps) {
        if (std::strcmp(stamps, "FALSE") == 0)
            g_timestamps.store(false, std::memory_order_relaxed);
        mem_free(stamps);
    }
}

uint32_t trace_level() { return g_trace_level.load(std::memory_order_relaxed); }

void set_trace_level(uint32_t level) { g_trace_level.store(level, std::memory_order_relaxed); }

void trace_print(uint32_t mask, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    trace_vprint(mask, format, args);
    va_end(args);
}

void trace_vprint(uint32_t mask, const char *format, va_list args)
{
    if (!trace_enabled(mask) || !format)
        return;
    int saved_errno = errno;
    bool prefixed = std::strlen(format) > 5;
    bool stamped = prefixed && g_timestamps.load(std::memory_order_relaxed);
    if (stamped)
        pthread_once(&g_format_once, read_timestamp_format);
    pthread_mutex_lock(&g_trace_lock);
    FILE *out = current_stream();
    if (prefixed) {
        if (stamped) {
            char stamp[kStampSize];
            struct timeval now {};
            gettimeofday(&now, nullptr);
            if (g_format == TimestampFormat::Legacy)
                now.tv_usec = 0;
            format_timestamp(stamp, sizeof stamp, g_format, now);
            std::fprintf(out, "%s ", stamp);
        }
        std::fprintf(out, "T%d ", thread_number());
    }
    std::vfprintf(out, format, args);
    std::fflush(out);
    pthread_mutex_unlock(&g_trace_lock);
    errno = saved_errno;
}

namespace {

constexpr int kDumpWidth = 59;
constexpr int kDumpInner = 57;

void put_dump_line(FILE *out, const char *line)
{
    std::fprintf(out, "T%d:\t%s\n", thread_number(), line);
    std::fflush(out);
}

void put_border(FILE *out)
{
    char line[kDumpWidth + 1];
    line[0] = '+';
    std::memset(line + 1, '-', kDumpInner);
    line[kDumpWidth - 1] = '+';
    line[kDumpWidth] = '\0';
    put_dump_line(out, line);
}

// A blank line with the frame bar at both ends.
void blank_line(char *line)
{
    std::memset(line, ' ', kDumpWidth);
    line[0] = '|';
    line[kDumpWidth - 1] = '|';
    line[kDumpWidth] = '\0';
}

void place(char *line, int column, const char *text)
{
    std::memcpy(line + column, text, std::strlen(text));
}

constexpr char kHex[] = "0123456789ABCDEF";

} // namespace

void trace_dump(const void *address, long length, const char *title)
{
    pthread_mutex_lock(&g_trace_lock);
    FILE *out = current_stream();
    char line[kDumpWidth + 1];
    char field[16];

    if (title && *title) {
        put_border(out);
        blank_line(line);
        size_t len = std::strlen(title);
        if (len > kDumpInner)
            len = kDumpInner;
        std::memcpy(line + (kDumpInner - len) / 2 + 1, title, len);
        put_dump_line(out, line);
    }
    put_border(out);
    blank_line(line);
    place(line, 0, "|OSet|");
    std::snprintf(field, sizeof field, "%08X",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(address) & 0xFFFFFFFFu));
    place(line, 7, "Address = ");
    place(line, 17, field);
    std::snprintf(field, sizeof field, "%04X", static_cast<unsigned>(length & 0xFFFF));
    place(line, 27, "Length = ");
    place(line, 36, field);
    line[41] = '|';
    place(line, 47, "ASCII");
    put_dump_line(out, line);
    put_border(out);

    int count = (length & 0x8000) ? 0 : static_cast<int16_t>(length & 0xFFFF);
    const unsigned char *bytes = static_cast<const unsigned char *>(address);
    if (!bytes)
        count = 0;
    for (int offset = 0; offset < count; offset += 16) {
        blank_line(line);
        line[5] = '|';
        line[41] = '|';
        std::snprintf(field, sizeof field, "%04X", static_cast<unsigned>(offset & 0xFFFF));
        place(line, 1, field);
        for (int i = 0; i < 16 && offset + i < count; i++) {
            unsigned char c = bytes[offset + i];
            int column = 6 + i * 2 + i / 4;
            line[column] = kHex[c >> 4];
            line[column + 1] = kHex[c & 0xF];
            line[42 + i] = (c >= 32 && c <= 126 && c != '^') ? static_cast<char>(c) : '.';
        }
        put_dump_line(out, line);
    }
    put_border(out);
    pthread_mutex_unlock(&g_trace_lock);
}

int set_trace_file(const char *name)
{
    if (!name || !*name)
        return EINVAL;
    int rc = 0;
    pthread_mutex_lock(&g_trace_lock);
    if (g_trace_stream)
        std::fclose(g_trace_stream);
    g_trace_stream = nullptr;
    mem_free(g_trace_file_name);
    g_trace_file_name = nullptr;
    if (std::strcmp(name, "stderr") != 0) {
        errno = 0;
        g_trace_stream = std::fopen(name, "a");
        if (!g_trace_stream) {
            rc = errno ? errno : EINVAL;
        } else {
            g_trace_file_name = mem_strdup(name);
            if (!g_trace_file_name) {
                std::fclose(g_trace_stream);
                g_trace_stream = nullptr;
                rc = ENOMEM;
            }
        }
    }
    pthread_mutex_unlock(&g_trace_lock);
    return rc;
}

} // namespace zldap
