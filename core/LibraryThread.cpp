#include "core/LibraryThread.h"

#include <cerrno>
#include <csignal>
#include <pthread.h>

bool SpawnDetached(ACE_THR_FUNC pfnBody, void* pArgument, ThreadSignals eSignals)
{
    // A thread inherits the mask of its creator.
    sigset_t blocked;
    sigset_t before;
    sigfillset(&blocked);
    if (eSignals == ThreadSignals::ALL_BUT_SIGINT_BLOCKED)
        sigdelset(&blocked, SIGINT);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const bool bSpawned = ACE_Thread::spawn(pfnBody, pArgument, THR_DETACHED) != -1;
    const int iError = errno;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = iError;
    return bSpawned;
}
