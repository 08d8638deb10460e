#ifndef TARN_CORE_THREADCOUNT_H
#define TARN_CORE_THREADCOUNT_H

#include "core/ThreadsLeft.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

/// Counts the running threads of one kind. A thread holds an Inside from its first statement to its last; its
/// spawner and the stop wait for the count. Its lock is a leaf.
class ThreadCount
{
public:
    ThreadCount() = default;
    ThreadCount(const ThreadCount&) = delete;
    ThreadCount& operator=(const ThreadCount&) = delete;

    /// Counts the calling thread in for its own lifetime.
    class Inside
    {
    public:
        explicit Inside(ThreadCount& count);
        ~Inside();
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;

    private:
        ThreadCount& m_Count;
    };

    int Get() const;
    /// Waits until nobody is inside, at most for timeout. @return true when nobody is
    bool WaitForNone(std::chrono::milliseconds timeout) const;

    /// Waits until every thread that was inside has run to its very end, see ThreadsLeft. Call it when nobody
    /// is inside.
    void WaitForEnds() { m_ThreadsLeft.WaitUntilNone(); }

private:
    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Left;
    int m_nInside = 0; // guarded by m_Mutex
    ThreadsLeft m_ThreadsLeft;
};

/// Lets a spawner wait until its threads have counted themselves in, or ended without: before that a stop
/// would not know that it must wait for them. Must outlive the threads' start.
class ThreadStart
{
public:
    ThreadStart() = default;
    ThreadStart(const ThreadStart&) = delete;
    ThreadStart& operator=(const ThreadStart&) = delete;

    void Announce(); ///< called by a thread, once
    void WaitFor(int nThreads);

private:
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    int m_nAnnounced = 0; // guarded by m_Mutex
};

#endif
