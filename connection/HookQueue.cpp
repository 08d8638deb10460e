#include "connection/HookQueue.h"

#include "core/ApplicationCall.h"

#include <utility>

HookQueue::HookQueue(std::function<void(HookEvent)> deliver)
    : m_Deliver(std::move(deliver))
{}

bool HookQueue::ReserveOpened()
{
    return Reserve(HookEvent::OPENED);
}

bool HookQueue::ReserveBroken()
{
    return Reserve(HookEvent::BROKEN);
}

bool HookQueue::Reserve(HookEvent eEvent)
{
    return WithMemory("HookQueue::Reserve", false, [&] {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        m_Entries.push_back({eEvent, false});
        return true;
    });
}

void HookQueue::PostOpened()
{
    Post(HookEvent::OPENED, HookEvent::OPENED);
}

void HookQueue::PostBroken(HookEvent eEvent)
{
    Post(HookEvent::BROKEN, eEvent);
}

void HookQueue::Post(HookEvent eReserved, HookEvent eEvent)
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    for (Entry& entry : m_Entries)
    {
        if (entry.bReady || entry.eEvent != eReserved)
            continue;
        entry = {eEvent, true};
        break;
    }
    Deliver(lock);
}

bool HookQueue::WaitUntilDelivered(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Delivered.wait_for(lock, timeout, [this] { return m_Entries.empty() && !m_bDelivering; });
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
            queue.m_Delivered.notify_all();
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
