#include "platform/tarnplatform.h"

#include <ctime>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

thread_local DWORD t_dwThreadId = 0; // 0: not asked for yet

// The only thread of a child process has another id than the one that it continues.
[[maybe_unused]] const int g_iForkHandler = pthread_atfork(nullptr, nullptr, [] { t_dwThreadId = 0; });

} // namespace

DWORD GetTickCount()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<DWORD>(now.tv_sec) * 1000 + static_cast<DWORD>(now.tv_nsec / 1'000'000);
}

DWORD GetCurrentThreadId()
{
    // The system call costs more than all the rest of queuing a block.
    if (t_dwThreadId == 0)
        t_dwThreadId = static_cast<DWORD>(syscall(SYS_gettid));
    return t_dwThreadId;
}
