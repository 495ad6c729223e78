// file_io.cpp - reading a whole file, and replacing one all at once: the
// new contents go to a temporary file in the same directory, are flushed to
// disk and renamed over the old name, so a reader sees the old file or the
// new one, never a part.
#include "key_database.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zor {

namespace {

constexpr off_t kMaxFile = 16 * 1024 * 1024;

bool write_all(int fd, const std::string &data)
{
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

KdbStatus read_whole_file(const std::string &path, std::string &out)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT ? KdbStatus::missing_file : KdbStatus::io_error;
    struct stat st;
    KdbStatus status = KdbStatus::ok;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxFile)
        status = KdbStatus::io_error;
    std::string data;
    char buffer[8192];
    while (status == KdbStatus::ok) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 || data.size() + static_cast<size_t>(n) > static_cast<size_t>(kMaxFile))
            status = KdbStatus::io_error;
        else if (n == 0)
            break;
        else
            data.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    if (status == KdbStatus::ok)
        out = std::move(data);
    return status;
}

KdbStatus replace_file(const std::string &path, const std::string &data, unsigned mode)
{
    std::string temporary = path + ".tmpXXXXXX";
    int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT ? KdbStatus::missing_file : KdbStatus::io_error;
    bool good = fchmod(fd, static_cast<mode_t>(mode)) == 0 && write_all(fd, data) && fsync(fd) == 0;
    good = close(fd) == 0 && good;
    good = good && rename(temporary.c_str(), path.c_str()) == 0;
    if (!good)
        unlink(temporary.c_str());
    return good ? KdbStatus::ok : KdbStatus::io_error;
}

} // namespace zor
