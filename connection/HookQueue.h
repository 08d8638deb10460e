#ifndef TARN_CONNECTION_HOOKQUEUE_H
#define TARN_CONNECTION_HOOKQUEUE_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

/// What a connection's owner is told.
enum class HookEvent
{
    OPENED,           ///< OnConnectOK
    BROKEN,           ///< OnSockBreak
    BROKEN_RECONNECT, ///< OnSockBreak, and the connection is to be opened again
};

/// Delivers one connection's events one at a time and in their order, without making anybody wait: a thread
/// that brings an event while another is delivering leaves it to that one. An event that a hook brings about
/// is delivered after the hook has returned, so hooks do not nest.
class HookQueue
{
public:
    /// @param deliver  calls the hook of an event, with no lock held
    explicit HookQueue(std::function<void(HookEvent)> deliver);
    HookQueue(const HookQueue&) = delete;
    HookQueue& operator=(const HookQueue&) = delete;

    /// Keep the place of an event that is going to be posted: what another thread posts first, but reserves
    /// later, comes after it. @return false without memory (logged): there will be nothing to deliver
    bool ReserveOpened();
    bool ReserveBroken();

    /// Post the event reserved longest, if there is one. @param eEvent  BROKEN or BROKEN_RECONNECT
    void PostOpened();
    void PostBroken(HookEvent eEvent);

    /// Waits until nothing is reserved, waiting or being delivered. Not to be called inside a hook, nor by a
    /// thread that has reserved an event. @return false when the time was over first
    bool WaitUntilDelivered(std::chrono::milliseconds timeout);

private:
    struct Entry
    {
        HookEvent eEvent;
        bool bReady;
    };

    bool Reserve(HookEvent eEvent);
    void Post(HookEvent eReserved, HookEvent eEvent);
    void Deliver(std::unique_lock<std::mutex>& lock);

    const std::function<void(HookEvent)> m_Deliver;
    std::mutex m_Mutex; // a leaf
    std::condition_variable m_Delivered;
    // Guarded by m_Mutex.
    std::deque<Entry> m_Entries;
    bool m_bDelivering = false;
};

#endif
