// The one place where the photo readers meet the operating system's file API.

#include "imageio_internal.h"

#include <cerrno>
#include <cstring>

#if defined(_WIN32)
#include <sys/stat.h>
#include <sys/types.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace lumicrest
{
namespace io
{

OpenOutcome openRegularFile(const std::string& path, std::FILE*& file, uint64_t& size, std::string& error)
{
    file = nullptr;
    size = 0;
#if defined(_WIN32)
    // No FIFOs in the file system here; devices are refused by the type check.
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f)
    {
        const int err = errno;
        error = std::strerror(err);
        return err == ENOMEM ? OpenOutcome::OutOfMemory : OpenOutcome::CannotOpen;
    }
    struct _stat64 st;
    if (_fstat64(_fileno(f), &st) != 0 || (st.st_mode & _S_IFMT) != _S_IFREG)
    {
        std::fclose(f);
        error = "not a regular file";
        return OpenOutcome::NotRegular;
    }
#else
    // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer
    // forever. It is cleared again once the file is known to be regular.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
    {
        const int err = errno;
        error = std::strerror(err);
        return err == ENOMEM ? OpenOutcome::OutOfMemory : OpenOutcome::CannotOpen;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0)
    {
        error = std::string("cannot stat: ") + std::strerror(errno);
        ::close(fd);
        return OpenOutcome::CannotOpen;
    }
    if (!S_ISREG(st.st_mode))
    {
        ::close(fd);
        error = "not a regular file";
        return OpenOutcome::NotRegular;
    }
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0)
    {
        error = std::string("cannot configure: ") + std::strerror(errno);
        ::close(fd);
        return OpenOutcome::CannotOpen;
    }
    std::FILE* f = ::fdopen(fd, "rb");
    if (!f)
    {
        const int err = errno;
        ::close(fd);
        error = std::strerror(err);
        return err == ENOMEM ? OpenOutcome::OutOfMemory : OpenOutcome::CannotOpen;
    }
#endif
    file = f;
    size = st.st_size > 0 ? static_cast<uint64_t>(st.st_size) : 0;
    return OpenOutcome::Opened;
}

} // namespace io
} // namespace lumicrest
