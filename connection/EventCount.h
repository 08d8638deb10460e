#ifndef TARN_CONNECTION_EVENTCOUNT_H
#define TARN_CONNECTION_EVENTCOUNT_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

/// Lets threads pause until something has happened that they have not seen. Take the count before looking at
/// what the events are about: an event that comes after the look ends the pause at once.
class EventCount
{
public:
    std::uint64_t Get()
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        return m_uEvents;
    }

    /// Announces an event to all that pause.
    void Raise()
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        ++m_uEvents;
        m_Raised.notify_all();
    }

    /// Announces an event that is for one: of those that pause already, it is told to one.
    void RaiseForOne()
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        ++m_uEvents;
        m_Raised.notify_one();
    }

    /// Waits until the count is beyond uSeen, at most for timeout.
    void WaitBeyond(std::uint64_t uSeen, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Raised.wait_for(lock, timeout, [&] { return m_uEvents != uSeen; });
    }

private:
    std::mutex m_Mutex; // a leaf
    std::condition_variable m_Raised;
    std::uint64_t m_uEvents = 0; // guarded by m_Mutex
};

#endif
