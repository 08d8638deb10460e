#include "asyncio/ReadyQueue.h"

#include "core/ActiveThreads.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <new>

namespace {

constexpr ACE_Reactor_Mask READ = ACE_Event_Handler::READ_MASK;
constexpr ACE_Reactor_Mask WRITE = ACE_Event_Handler::WRITE_MASK;

// What the kernel keeps for each descriptor: the handle and its generation. Generation 0 is nobody's: of the two events, and of
// a handle between its adding and its first decision, which is told right after.
constexpr std::uint64_t NO_HANDLE = 0;

// Of a thread's turns each so many-th is for what has been posted before what the kernel announces; the others the other way round.
constexpr unsigned POSTED_TURN = 8;
// The last of so many then waits some tens of milliseconds; beyond that it would be too long for those who wait for room.
constexpr std::size_t MANY_POSTED = 1000;
constexpr unsigned POSTED_TURN_MANY = 2;
// A wait that has taken longer was one.
constexpr auto BRIEF_WAIT = std::chrono::microseconds(20);

std::uint64_t Pack(ACE_HANDLE handle, std::uint32_t ulGeneration)
{
    return std::uint64_t{ulGeneration} << 32U | static_cast<std::uint32_t>(handle);
}

std::uint32_t EventsOf(ACE_Reactor_Mask mask)
{
    std::uint32_t uEvents = EPOLLONESHOT;
    if ((mask & READ) != 0)
        uEvents |= EPOLLIN;
    if ((mask & WRITE) != 0)
        uEvents |= EPOLLOUT;
    return uEvents;
}

/// As with select: a connection that is over may be read, one in error read and written.
ACE_Reactor_Mask MaskOf(std::uint32_t uEvents)
{
    ACE_Reactor_Mask mask = 0;
    if ((uEvents & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0)
        mask |= READ;
    if ((uEvents & (EPOLLOUT | EPOLLERR)) != 0)
        mask |= WRITE;
    return mask;
}

void Signal(int iEvent)
{
    const std::uint64_t uOne = 1;
    static_cast<void>(write(iEvent, &uOne, sizeof(uOne))); // it cannot be full
}

} // namespace

ReadyQueue::ReadyQueue()
    : m_Epoll(epoll_create1(EPOLL_CLOEXEC))
    , m_WakeEvent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    , m_StopEvent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    // Edge-triggered: one thread for each write, and nobody needs to read it.
    epoll_event wake = {EPOLLIN | EPOLLET, {}};
    wake.data.u64 = NO_HANDLE;
    epoll_event stop = {EPOLLIN, {}};
    stop.data.u64 = NO_HANDLE;
    if (epoll_ctl(m_Epoll, EPOLL_CTL_ADD, m_WakeEvent, &wake) == 0 &&
        epoll_ctl(m_Epoll, EPOLL_CTL_ADD, m_StopEvent, &stop) == 0)
        return;
    if (m_Epoll >= 0)
        close(m_Epoll);
    m_Epoll = -1;
}

ReadyQueue::~ReadyQueue()
{
    for (const int iDescriptor : {m_Epoll, m_WakeEvent, m_StopEvent})
        if (iDescriptor >= 0)
            close(iDescriptor);
}

int ReadyQueue::Wait(int iTimeoutMs, Ready& ready)
{
    // While something can be read, what is to be written gathers, and goes out together.
    thread_local unsigned t_uTurns = 0;
    if (++t_uTurns % (m_nPosted > MANY_POSTED ? POSTED_TURN_MANY : POSTED_TURN) == 0 && TakePosted(ready))
        return 1;
    // Whoever posts looks at the number of waiting threads afterwards, and so do they at what is posted.
    ++m_nWaiting;
    const int iWaitMs = m_nPosted != 0 ? 0 : iTimeoutMs;
    // One at a time: whoever waits takes the next one, while this thread may be inside its call for long.
    epoll_event event{};
    const auto tBefore = std::chrono::steady_clock::now();
    const int iReady = epoll_wait(m_Epoll, &event, 1, iWaitMs);
    const int iError = errno;
    if (iWaitMs != 0 && std::chrono::steady_clock::now() - tBefore > BRIEF_WAIT)
        ActiveThreads::NoteIdle();
    --m_nWaiting;
    if (iReady == 1 && event.data.u64 != NO_HANDLE)
    {
        ready = {static_cast<ACE_HANDLE>(event.data.u64 & 0xFFFFFFFFU),
                 static_cast<std::uint32_t>(event.data.u64 >> 32U), MaskOf(event.events), false};
        return 1;
    }
    m_bWaking = false;
    if (TakePosted(ready))
        return 1;
    errno = iError;
    return iReady < 0 ? -1 : 0;
}

bool ReadyQueue::Post(const Ready& ready)
{
    try
    {
        const std::lock_guard<std::mutex> guard(m_PostedMutex);
        m_Posted.push_back(ready);
        m_nPosted = m_Posted.size();
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
    WakeForPosted();
    return true;
}

/// One at a time: it wakes the next one when it finds more. Once m_bWaking is set the event is pending, until a thread that
/// comes out of the wait without a handle clears it and looks.
void ReadyQueue::WakeForPosted()
{
    if (IsSleeping() && !m_bWaking.exchange(true))
        Signal(m_WakeEvent);
}

bool ReadyQueue::TakePosted(Ready& ready)
{
    if (m_nPosted == 0)
        return false;
    {
        const std::lock_guard<std::mutex> guard(m_PostedMutex);
        if (m_Posted.empty())
            return false;
        ready = m_Posted.front();
        m_Posted.pop_front();
        m_nPosted = m_Posted.size();
    }
    if (m_nPosted != 0)
        WakeForPosted();
    return true;
}

void ReadyQueue::Wake()
{
    Signal(m_WakeEvent);
}

void ReadyQueue::Stop()
{
    Signal(m_StopEvent);
}

int ReadyQueue::Control(int iOperation, ACE_HANDLE handle, std::uint32_t ulGeneration, ACE_Reactor_Mask mask)
{
    epoll_event event = {EventsOf(mask), {}};
    event.data.u64 = Pack(handle, ulGeneration);
    return epoll_ctl(m_Epoll, iOperation, handle, &event);
}

ReadyQueue::Record* ReadyQueue::Find(ACE_HANDLE handle)
{
    const auto uIndex = static_cast<std::size_t>(handle);
    return uIndex < m_Records.size() ? &m_Records[uIndex] : nullptr;
}

std::uint32_t ReadyQueue::Generation(ACE_HANDLE handle) const
{
    const auto uIndex = static_cast<std::size_t>(handle);
    return uIndex < m_Records.size() ? m_Records[uIndex].ulGeneration : 0;
}

int ReadyQueue::Add(ACE_HANDLE handle, ACE_Reactor_Mask mask)
{
    // The kernel is asked first: it knows which descriptors there are, so that only these have records. It may know it
    // still, since a descriptor's duplicate outlives its closing.
    if (Control(EPOLL_CTL_ADD, handle, 0, 0) != 0 && errno != EEXIST)
        return -1;
    try
    {
        while (Find(handle) == nullptr)
            m_Records.emplace_back();
    }
    catch (const std::bad_alloc&)
    {
        Control(EPOLL_CTL_DEL, handle, 0, 0);
        errno = ENOMEM;
        return -1;
    }
    Record& record = *Find(handle);
    if (++record.ulGeneration == 0)
        record.ulGeneration = 1;
    return Tell(Decide(handle, mask));
}

void ReadyQueue::Remove(ACE_HANDLE handle)
{
    Record* pRecord = Find(handle);
    if (pRecord == nullptr)
        return;
    const std::lock_guard<std::mutex> guard(pRecord->mutex);
    pRecord->uTold = ++pRecord->uDecided;
    pRecord->askedFor = 0;
    Control(EPOLL_CTL_DEL, handle, 0, 0); // fails for one that has been closed
}

ReadyQueue::Decision ReadyQueue::Decide(ACE_HANDLE handle, ACE_Reactor_Mask mask)
{
    Record* pRecord = Find(handle);
    if (pRecord == nullptr)
        return {};
    pRecord->askedFor = mask;
    return {handle, pRecord->ulGeneration, mask, ++pRecord->uDecided, pRecord};
}

ReadyQueue::Decision ReadyQueue::DecideIfNew(ACE_HANDLE handle, ACE_Reactor_Mask mask)
{
    const Record* pRecord = Find(handle);
    return pRecord == nullptr || pRecord->askedFor == mask ? Decision{} : Decide(handle, mask);
}

void ReadyQueue::NoteAnnounced(const Ready& ready)
{
    Record* pRecord = Find(ready.handle);
    if (!ready.bPosted && pRecord != nullptr && pRecord->ulGeneration == ready.ulGeneration)
        pRecord->askedFor = 0;
}

int ReadyQueue::Tell(const Decision& decision)
{
    if (decision.pRecord == nullptr)
        return 0;
    const std::lock_guard<std::mutex> guard(decision.pRecord->mutex);
    if (decision.uNumber < decision.pRecord->uTold)
        return 0;
    decision.pRecord->uTold = decision.uNumber;
    return Control(EPOLL_CTL_MOD, decision.handle, decision.ulGeneration, decision.mask);
}
