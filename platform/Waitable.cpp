#include "platform/Waitable.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>

/// Notes a waiter with all the objects that it waits for, for its own lifetime; with the lock held at both ends.
class Waitable::Registration
{
public:
    Registration(const std::vector<std::shared_ptr<Waitable>>& objects, Waiter& waiter)
        : m_Objects(objects)
        , m_Waiter(waiter)
    {
        for (const auto& pObject : m_Objects)
            pObject->m_Waiters.reserve(pObject->m_Waiters.size() + 1);
        for (const auto& pObject : m_Objects)
            pObject->m_Waiters.push_back(&m_Waiter);
    }
    ~Registration()
    {
        for (const auto& pObject : m_Objects)
        {
            auto& waiters = pObject->m_Waiters;
            waiters.erase(std::find(waiters.begin(), waiters.end(), &m_Waiter));
        }
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

private:
    const std::vector<std::shared_ptr<Waitable>>& m_Objects;
    Waiter& m_Waiter;
};

std::mutex& Waitable::Mutex()
{
    static auto& mutex = *new std::mutex; // threads may outlive the statics
    return mutex;
}

void Waitable::Wake()
{
    for (Waiter* pWaiter : m_Waiters)
        pWaiter->woken.notify_one();
}

void Waitable::Signal()
{
    const std::lock_guard<std::mutex> guard(Mutex());
    m_bSignalled = true;
    Wake();
}

void Waitable::Reset()
{
    const std::lock_guard<std::mutex> guard(Mutex());
    m_bSignalled = false;
}

bool Waitable::IsSignalled() const
{
    const std::lock_guard<std::mutex> guard(Mutex());
    return m_bSignalled;
}

void Waitable::OnClosed()
{
    const std::lock_guard<std::mutex> guard(Mutex());
    m_bClosed = true;
    Wake();
}

/// With the lock held. @return WAIT_TIMEOUT when nothing has happened
DWORD Waitable::Look(const std::vector<std::shared_ptr<Waitable>>& objects)
{
    for (std::size_t i = 0; i < objects.size(); ++i)
    {
        Waitable& object = *objects[i];
        if (object.m_bClosed)
        {
            FailWith(EBADF);
            return WAIT_FAILED;
        }
        if (!object.m_bSignalled)
            continue;
        object.m_bSignalled = object.m_bManualReset;
        return WAIT_OBJECT_0 + static_cast<DWORD>(i);
    }
    return WAIT_TIMEOUT;
}

DWORD Waitable::WaitForAny(const std::vector<std::shared_ptr<Waitable>>& objects, DWORD dwMilliseconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(dwMilliseconds);
    std::unique_lock<std::mutex> lock(Mutex());
    DWORD dwSeen = Look(objects);
    if (dwSeen != WAIT_TIMEOUT || dwMilliseconds == 0)
        return dwSeen;
    Waiter waiter;
    const Registration registration(objects, waiter);
    while ((dwSeen = Look(objects)) == WAIT_TIMEOUT)
    {
        if (dwMilliseconds == INFINITE)
            waiter.woken.wait(lock);
        else if (waiter.woken.wait_until(lock, deadline) == std::cv_status::timeout)
            return Look(objects);
    }
    return dwSeen;
}

HANDLE CreateEventA(void* /*pAttributes*/, BOOL bManualReset, BOOL bInitialState, const char* /*pszName*/)
{
    class Event : public Waitable
    {
        using Waitable::Waitable;
    };
    try
    {
        return AddKernelObject(std::make_shared<Event>(bManualReset != FALSE, bInitialState != FALSE));
    }
    catch (const std::bad_alloc&)
    {
        FailWith(ENOMEM);
        return nullptr;
    }
}

BOOL SetEvent(HANDLE hEvent)
{
    const auto pEvent = FindKernelObjectOf<Waitable>(hEvent);
    if (pEvent == nullptr)
        return FALSE;
    pEvent->Signal();
    return TRUE;
}

BOOL ResetEvent(HANDLE hEvent)
{
    const auto pEvent = FindKernelObjectOf<Waitable>(hEvent);
    if (pEvent == nullptr)
        return FALSE;
    pEvent->Reset();
    return TRUE;
}

DWORD WaitForMultipleObjects(DWORD dwCount, const HANDLE* pHandles, BOOL bWaitAll, DWORD dwMilliseconds)
{
    if (bWaitAll != FALSE || dwCount == 0 || dwCount > MAXIMUM_WAIT_OBJECTS)
    {
        FailWith(EINVAL);
        return WAIT_FAILED;
    }
    try
    {
        std::vector<std::shared_ptr<Waitable>> objects(dwCount);
        for (DWORD i = 0; i < dwCount; ++i)
        {
            objects[i] = FindKernelObjectOf<Waitable>(pHandles[i]);
            if (objects[i] == nullptr)
                return WAIT_FAILED;
        }
        return Waitable::WaitForAny(objects, dwMilliseconds);
    }
    catch (const std::bad_alloc&)
    {
        FailWith(ENOMEM);
        return WAIT_FAILED;
    }
}

DWORD WaitForSingleObject(HANDLE handle, DWORD dwMilliseconds)
{
    return WaitForMultipleObjects(1, &handle, FALSE, dwMilliseconds);
}
