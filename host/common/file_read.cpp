#include "file_read.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace druxhost {

namespace {

const char *kindOf(mode_t mode)
{
    if (S_ISDIR(mode))
        return "a folder";
    if (S_ISFIFO(mode))
        return "a FIFO";
    if (S_ISCHR(mode) || S_ISBLK(mode))
        return "a device";
    if (S_ISSOCK(mode))
        return "a socket";
    return "not a plain file";
}

std::string mib(uint64_t bytes) { return std::to_string(bytes >> 20) + " MiB"; }

struct Fd {
    int fd;
    ~Fd() { ::close(fd); }
};

} // namespace

std::string readRegularFile(const std::string &path, uint64_t limit, const char *what)
{
    /* O_NONBLOCK: opening a FIFO for reading must not wait for a writer */
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        throw std::runtime_error(std::string("cannot open it: ") + std::strerror(errno));
    Fd guard{fd};
    struct stat st;
    if (::fstat(fd, &st) != 0)
        throw std::runtime_error(std::string("cannot read it: ") + std::strerror(errno));
    if (!S_ISREG(st.st_mode))
        throw std::runtime_error(std::string("it is ") + kindOf(st.st_mode) + ", not a regular file; name a " +
                                 what + " file");
    const auto tooLarge = [&] {
        return std::runtime_error("it is larger than the " + mib(limit) + (what[0] == 'O' ? " an " : " a ") + what +
                                  " file may have");
    };
    if (static_cast<uint64_t>(st.st_size) > limit)
        throw tooLarge();
    std::string text(static_cast<size_t>(st.st_size), '\0');
    size_t have = 0;
    for (;;) {
        /* a file growing while it is read is read up to the limit */
        if (have == text.size())
            text.resize(have + (size_t(1) << 16));
        const ssize_t n = ::read(fd, &text[have], text.size() - have);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw std::runtime_error(std::string("cannot read it: ") + std::strerror(errno));
        if (n == 0)
            break;
        have += static_cast<size_t>(n);
        if (have > limit)
            throw tooLarge();
    }
    text.resize(have);
    return text;
}

bool makeDirs(const std::string &dir)
{
    std::string part;
    for (size_t i = 0; i <= dir.size(); ++i) {
        if ((i == dir.size() || dir[i] == '/') && !part.empty() && ::mkdir(part.c_str(), 0777) != 0 &&
            errno != EEXIST)
            return false;
        if (i < dir.size())
            part += dir[i];
    }
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0)
        return false;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

} // namespace druxhost
