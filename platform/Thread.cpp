#include "platform/tarnplatform.h"

#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

DWORD GetTickCount()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<DWORD>(now.tv_sec) * 1000 + static_cast<DWORD>(now.tv_nsec / 1'000'000);
}

DWORD GetCurrentThreadId()
{
    // The system call costs more than all the rest of queuing a block.
    static thread_local const auto s_dwId = static_cast<DWORD>(syscall(SYS_gettid));
    return s_dwId;
}
