#ifndef TARN_CORE_CORRELATIONHOLD_H
#define TARN_CORE_CORRELATIONHOLD_H

/// What a thread puts off while it holds the correlation lock by TEAdapterManager::AcquireMsgMapMtx: the waking of threads
/// that want this lock first of all, and would have to go to sleep again. All operations are the calling thread's.
class CorrelationHold
{
public:
    /// The lock has been taken, once more perhaps.
    static void Begin();
    /// The lock has been given back as often: does, without it now, what has been put off.
    static void End();

    using Action = void (*)(void* pArgument); // must not throw
    /// @return false: the lock is not held, or too much has been put off already, so that the caller does it now
    static bool PutOff(Action action, void* pArgument);
};

#endif
