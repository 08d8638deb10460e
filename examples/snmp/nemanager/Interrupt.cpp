#include "Interrupt.h"

#include <tarnadapterframe/tarnbaseutil.h>
#include <tarnadapterframe/tarntaskmgr.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>

namespace {

std::atomic<bool> g_bCome{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");
int g_iEvent = -1;

void OnSignal(int /*iSignal*/)
{
    const int iError = errno;
    g_bCome = true;
    const std::uint64_t ulOne = 1;
    const ssize_t iWritten = write(g_iEvent, &ulOne, sizeof(ulOne));
    static_cast<void>(iWritten); // it cannot fail, and there is nobody to tell
    errno = iError;
}

} // namespace

void Interrupt::Catch()
{
    g_iEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    struct sigaction action = {};
    action.sa_handler = &OnSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND) | SA_RESTART;
    for (const int iSignal : {SIGINT, SIGTERM})
        sigaction(iSignal, &action, nullptr);
    struct sigaction before = {};
    sigaction(SIGHUP, nullptr, &before);
    if (before.sa_handler != SIG_IGN) // as nohup(1) sets it
        sigaction(SIGHUP, &action, nullptr);
    TarnInstallAppExit(&Interrupt::HasCome);
    TarnInstallExit(&Interrupt::HasCome);
}

bool Interrupt::HasCome()
{
    return g_bCome;
}

void Interrupt::Sleep(std::chrono::milliseconds time)
{
    pollfd event = {g_iEvent, POLLIN, 0};
    poll(&event, 1, static_cast<int>(time.count()));
}
