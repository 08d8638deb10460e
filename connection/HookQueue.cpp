#include "connection/HookQueue.h"

#include <utility>

HookQueue::HookQueue(std::function<void(HookEvent)> deliver)
    : m_Deliver(std::move(deliver))
{}

void HookQueue::ReserveOpened()
{
    const std::lock_guard<std::mutex> guard(m_Mutex);
    m_Entries.push_back({HookEvent::OPENED, false});
}

void HookQueue::PostOpened()
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    for (Entry& entry : m_Entries)
    {
        if (entry.bReady)
            continue;
        entry.bReady = true;
        break;
    }
    Deliver(lock);
}

void HookQueue::Post(HookEvent eEvent)
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_Entries.push_back({eEvent, true});
    Deliver(lock);
}

void HookQueue::Deliver(std::unique_lock<std::mutex>& lock)
{
    if (m_bDelivering)
        return;
    // Also when a hook ends its thread, the next event finds a deliverer.
    struct Delivering
    {
        HookQueue& queue;
        std::unique_lock<std::mutex>& lock;
        ~Delivering()
        {
            if (!lock.owns_lock())
                lock.lock();
            queue.m_bDelivering = false;
        }
    };
    m_bDelivering = true;
    const Delivering delivering{*this, lock};
    while (!m_Entries.empty() && m_Entries.front().bReady)
    {
        const HookEvent eEvent = m_Entries.front().eEvent;
        m_Entries.pop_front();
        lock.unlock();
        m_Deliver(eEvent);
        lock.lock();
    }
}
