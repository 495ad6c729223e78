// password_input.cpp - password files and the terminal prompt without echo.
#include "password_input.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace tool {

bool read_password_file(const char *program, const std::string &path, std::string *password, std::string *error)
{
    errno = 0;
    std::FILE *file = std::fopen(path.c_str(), "rb");
    struct stat status {};
    if (!file || fstat(fileno(file), &status) != 0 || !S_ISREG(status.st_mode)) {
        *error = "cannot read the password file " + path + (errno ? std::string(": ") + std::strerror(errno) : "");
        if (file)
            std::fclose(file);
        return false;
    }
    if (status.st_mode & (S_IRWXG | S_IRWXO))
        std::fprintf(stderr, "%s: warning: the password file %s is readable or writable by others\n", program,
                     path.c_str());
    password->clear();
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, file)) > 0;)
        password->append(buffer, n);
    bool read = !std::ferror(file);
    std::fclose(file);
    if (!read)
        *error = "cannot read the password file " + path;
    return read;
}

bool prompt_password(std::string *password, std::string *error)
{
    int tty = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    struct termios saved {};
    if (tty < 0 || tcgetattr(tty, &saved) != 0) {
        *error = "-W needs a terminal to ask for the password on (use -y file or -w password)";
        if (tty >= 0)
            close(tty);
        return false;
    }
    const char prompt[] = "Enter LDAP Password: ";
    ssize_t written = write(tty, prompt, sizeof prompt - 1);
    struct termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(tty, TCSAFLUSH, &quiet);
    password->clear();
    char c = 0;
    while (read(tty, &c, 1) == 1 && c != '\n')
        password->push_back(c);
    tcsetattr(tty, TCSAFLUSH, &saved);
    written = write(tty, "\n", 1);
    (void)written;
    close(tty);
    return true;
}

} // namespace tool
