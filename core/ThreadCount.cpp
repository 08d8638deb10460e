#include "core/ThreadCount.h"

ThreadCount::Inside::Inside(ThreadCount& count)
    : m_Count(count)
{
    m_Count.m_ThreadsLeft.Enter();
    const std::lock_guard<std::mutex> guard(m_Count.m_Mutex);
    ++m_Count.m_nInside;
}

ThreadCount::Inside::~Inside()
{
    // Notified with the lock held: the counter may be gone as soon as it is released.
    const std::lock_guard<std::mutex> guard(m_Count.m_Mutex);
    --m_Count.m_nInside;
    m_Count.m_Left.notify_all();
}

int ThreadCount::Get() const
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    return m_nInside;
}

bool ThreadCount::WaitForNone(std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Left.wait_for(lock, timeout, [this] { return m_nInside == 0; });
}

void ThreadStart::Announce()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    ++m_nAnnounced;
    m_Changed.notify_all();
}

void ThreadStart::WaitFor(int nThreads)
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_Changed.wait(lock, [&] { return m_nAnnounced >= nThreads; });
}
