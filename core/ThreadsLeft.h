#ifndef TARN_CORE_THREADSLEFT_H
#define TARN_CORE_THREADSLEFT_H

#include <memory>

/// Lets the owner of detached threads wait until each has run to its very end.
///
/// A thread that has left its body still runs ACE's clean-up of thread-specific storage, which takes ACE's
/// own locks. A process that exits meanwhile destroys these locks under it, and a host that unloads the
/// library takes its code away. So an owner that has counted its threads out of their bodies waits here for
/// the rest, which lasts microseconds.
class ThreadsLeft
{
public:
    ThreadsLeft();
    ~ThreadsLeft();
    ThreadsLeft(const ThreadsLeft&) = delete;
    ThreadsLeft& operator=(const ThreadsLeft&) = delete;

    /// Counts the calling thread in; it counts itself out at its end. Call it first in the thread's body.
    void Enter();

    /// Waits until every thread that has entered has ended. Not to be called by one of them.
    void WaitUntilNone();

private:
    struct State;
    // Shared with the threads, the last of which may still be leaving it when the owner goes.
    const std::shared_ptr<State> m_pState;
};

#endif
