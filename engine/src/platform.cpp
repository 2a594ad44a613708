#include "platform.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/resource.h>
#include <unistd.h>
#endif

namespace lumicrest
{

uint64_t physicalMemory()
{
#if defined(_WIN32)
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof(status);
    return GlobalMemoryStatusEx(&status) ? static_cast<uint64_t>(status.ullTotalPhys) : 0;
#else
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGE_SIZE);
    return pages > 0 && pageSize > 0 ? static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize) : 0;
#endif
}

uint64_t addressSpaceLimit()
{
#if defined(_WIN32)
    return 0;
#else
    struct rlimit limit;
    if (getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return 0;
    return static_cast<uint64_t>(limit.rlim_cur);
#endif
}

} // namespace lumicrest
