#ifndef TARN_CORE_LIBRARYTHREAD_H
#define TARN_CORE_LIBRARYTHREAD_H

#include <ace/Thread.h>

/// Signals of a thread of the library. None may run a handler of the host in the middle of its work, or cut a
/// wait short; the loops of reactors leave SIGINT as the creating thread has it.
enum class ThreadSignals
{
    ALL_BLOCKED,
    ALL_BUT_SIGINT_BLOCKED,
};

/// Starts a detached thread with its signals blocked from its first instruction on. @return false: errno tells
bool SpawnDetached(ACE_THR_FUNC pfnBody, void* pArgument, ThreadSignals eSignals);

#endif
