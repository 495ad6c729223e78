// server_conf_write.cpp - ldap_server_cache_save: a list of servers written
// as a configuration file that later locate calls read instead of asking
// DNS, until its expiry time.
#include "dns/server_locate.h"

#include "base/trace.h"
#include "zor8ldap_api.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/stat.h>

namespace {

constexpr const char *kHeader[] = {
    "# LDAP configuration file.",
    "# The following line hold the files expiration time, which is",
    "# a UNIX time_t value (time in seconds since January 1, 1970",
    "# UTC). A value of 0 indicates that the file will not expire.",
};
constexpr const char *kFormat[] = {
    "# Each of the following lines in this file represents a known",
    "# LDAP server. The lines have the following format:",
    "#\tservice domain host priority weight port replica sec_flag \"suffix\" \"vendor\" \"info\"",
    "# where:",
    "#\tservice = service_key[.enetwork_domain]",
    "# Only service, domain and host are required",
};

// Creates every missing directory on the way to the file. 0 or 82.
int make_directories(const char *path)
{
    char directory[PATH_MAX];
    size_t length = std::strlen(path);
    if (length >= sizeof directory)
        return LDAP_LOCAL_ERROR;
    for (const char *slash = std::strchr(path + 1, '/'); slash; slash = std::strchr(slash + 1, '/')) {
        size_t n = static_cast<size_t>(slash - path);
        std::memcpy(directory, path, n);
        directory[n] = '\0';
        if (mkdir(directory, 0755) != 0 && errno != EEXIST) {
            LDAP_TRACE(TRC_ERROR, "ldapdns: Error creating configuration file path %s: rc = %d\n", directory, errno);
            return LDAP_LOCAL_ERROR;
        }
    }
    return LDAP_SUCCESS;
}

// A blank and the text in double quotes, its quotes and backslashes
// escaped; "" for no text.
void write_text(FILE *file, const char *text)
{
    std::fputs(" \"", file);
    for (const char *c = text ? text : ""; *c; c++) {
        if (*c == '"' || *c == '\\')
            std::fputc('\\', file);
        std::fputc(*c, file);
    }
    std::fputc('"', file);
}

} // namespace

int ldap_server_cache_save(const char *path, unsigned long time_to_live, server_info *list)
{
    zldap::trace_setup();
    if (!path)
        path = zldap::server_locate_files().server_conf;
    LDAP_TRACE(TRC_API, "ldap_server_cache_save(%s, %lu, %p)\n", path, time_to_live, static_cast<void *>(list));
    int rc = make_directories(path);
    FILE *file = rc == LDAP_SUCCESS ? std::fopen(path, "we") : nullptr;
    if (!file) {
        if (rc == LDAP_SUCCESS)
            LDAP_TRACE(TRC_ERROR, "ldapdns: Error opening configuration file %s: rc = %d\n", path, errno);
        return LDAP_LOCAL_ERROR;
    }
    unsigned long expiry = time_to_live ? static_cast<unsigned long>(time(nullptr)) + time_to_live : 0;
    for (const char *line : kHeader)
        std::fprintf(file, "%s\n", line);
    std::fprintf(file, "%lu\n", expiry);
    for (const char *line : kFormat)
        std::fprintf(file, "%s\n", line);
    for (const server_info *s = list; s; s = s->next) {
        std::fprintf(file, "%s %s %s %d %d %d %d %d", s->service, s->domain, s->host, s->priority, s->weight, s->port,
                     s->replica, s->sec_flag);
        write_text(file, s->suffix);
        write_text(file, s->vendor);
        write_text(file, s->info);
        std::fputc('\n', file);
    }
    bool written = !std::ferror(file);
    if (std::fclose(file) != 0 || !written) {
        LDAP_TRACE(TRC_ERROR, "ldapdns: Error writing configuration file %s: rc = %d\n", path, errno);
        return LDAP_LOCAL_ERROR;
    }
    return LDAP_SUCCESS;
}
