#include "platform/tarnplatform.h"

#include <cerrno>
#include <ctime>

void Sleep(DWORD dwMilliseconds)
{
    constexpr long lNsPerMs = 1'000'000;
    constexpr long lNsPerSecond = 1'000'000'000;

    // To a deadline, not for a duration: a handled signal ends clock_nanosleep early, see clock_nanosleep(2).
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(dwMilliseconds / 1000);
    deadline.tv_nsec += static_cast<long>(dwMilliseconds % 1000) * lNsPerMs;
    if (deadline.tv_nsec >= lNsPerSecond)
    {
        deadline.tv_nsec -= lNsPerSecond;
        ++deadline.tv_sec;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR)
    {}
}
