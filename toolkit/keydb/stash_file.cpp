// stash_file.cpp - the stash file: a marker line and the password, written
// with mode 0600 and refused when group or others have any access to it.
#include "stash_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zor {

namespace {

constexpr std::string_view kMarker = "ZORSTASH 1\n";
constexpr size_t kMaxStash = 4096;

} // namespace

std::string stash_file_name(const std::string &database)
{
    size_t dot = database.rfind('.');
    if (dot == std::string::npos)
        return database + ".sth";
    return database.substr(0, dot + 1) + "sth";
}

KdbStatus read_stash_file(const std::string &path, std::string &password)
{
    // The mode is checked on the descriptor that is then read, so the file
    // checked is the file read.
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return errno == ENOENT ? KdbStatus::missing_file : KdbStatus::io_error;
    struct stat st;
    KdbStatus status = KdbStatus::ok;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        status = KdbStatus::io_error;
    else if ((st.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        status = KdbStatus::loose_permissions;
    char buffer[kMaxStash + 1];
    ssize_t n = status == KdbStatus::ok ? read(fd, buffer, sizeof buffer) : 0;
    close(fd);
    if (status != KdbStatus::ok)
        return status;
    std::string_view contents(buffer, n > 0 ? static_cast<size_t>(n) : 0);
    if (n < 0)
        return KdbStatus::io_error;
    if (contents.size() > kMaxStash || contents.substr(0, kMarker.size()) != kMarker)
        return KdbStatus::bad_format;
    password.assign(contents.substr(kMarker.size()));
    return KdbStatus::ok;
}

KdbStatus write_stash_file(const std::string &path, const std::string &password)
{
    if (password.size() + kMarker.size() > kMaxStash)
        return KdbStatus::bad_format;
    return replace_file(path, std::string(kMarker) + password, 0600);
}

} // namespace zor
