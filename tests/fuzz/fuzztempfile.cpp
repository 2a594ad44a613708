#include "fuzztempfile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

namespace
{

[[noreturn]] void die(const std::string& what)
{
    std::fprintf(stderr, "fuzz temp file: %s: %s\n", what.c_str(), std::strerror(errno));
    std::abort();
}

} // namespace

std::string CFuzzTempFile::scratchFolder()
{
    if (access("/dev/shm", W_OK | X_OK) == 0)
        return "/dev/shm";
    std::error_code error;
    const std::filesystem::path folder = std::filesystem::temp_directory_path(error);
    return error ? std::string("/tmp") : folder.string();
}

CFuzzTempFile::CFuzzTempFile(const std::string& tag)
{
    std::string pattern = scratchFolder() + "/quorvex-fuzz-" + tag + "-XXXXXX";
    const int fd = mkstemp(pattern.data());
    if (fd < 0)
        die("cannot create " + pattern);
    close(fd);
    m_path = pattern;
}

CFuzzTempFile::~CFuzzTempFile()
{
    unlink(m_path.c_str());
}

void CFuzzTempFile::write(const uint8_t* data, size_t size)
{
    // O_TRUNC on the same inode: no new directory entry per input.
    const int fd = open(m_path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0)
        die("cannot open " + m_path);
    size_t done = 0;
    while (done < size)
    {
        const ssize_t n = ::write(fd, data + done, size - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            die("cannot write " + m_path);
        done += static_cast<size_t>(n);
    }
    if (close(fd) != 0)
        die("cannot close " + m_path);
}
