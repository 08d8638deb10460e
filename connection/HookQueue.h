#ifndef TARN_CONNECTION_HOOKQUEUE_H
#define TARN_CONNECTION_HOOKQUEUE_H

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

    /// Keeps the place of an OPENED that is going to be posted by PostOpened: a break that another thread sees
    /// first comes after it.
    void ReserveOpened();
    void PostOpened();

    /// Posts a break.
    void Post(HookEvent eEvent);

private:
    struct Entry
    {
        HookEvent eEvent;
        bool bReady;
    };

    void Deliver(std::unique_lock<std::mutex>& lock);

    const std::function<void(HookEvent)> m_Deliver;
    std::mutex m_Mutex; // a leaf
    // Guarded by m_Mutex.
    std::deque<Entry> m_Entries;
    bool m_bDelivering = false;
};

#endif
