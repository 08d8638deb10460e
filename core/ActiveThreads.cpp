#include "core/ActiveThreads.h"

#include <pthread.h>
#include <time.h>

namespace {

// Whoever waits in its turn without saying so is replaced at the second look at the latest. It is longer than the scheduler
// usually keeps a thread waiting that could run.
constexpr auto NEXT_LOOK = std::chrono::milliseconds(4);
// After so many looks that have seen nothing done, the sentinel looks no more.
constexpr int QUIET_LOOKS = 4;
// Turns that take a processor for so long on average are worth another thread.
constexpr auto LONG_TURN = std::chrono::microseconds(200);
// A thread that has a processor for a smaller part of its turns than one in so many waits in them.
constexpr int WAITING_PART = 8;
// While several threads are active each judges so many of its turns together.
constexpr unsigned TURNS_JUDGED = 8;

thread_local ActiveThreads::Member* t_pMember = nullptr;

bool IsWaiting(std::chrono::nanoseconds processor, std::chrono::nanoseconds passed)
{
    return processor * WAITING_PART < passed;
}

} // namespace

// ---------------------------------------------------------------------------------------------------------
// A thread

ActiveThreads::Member::Member(ActiveThreads& threads)
    : m_Threads(threads)
{
    if (pthread_getcpuclockid(pthread_self(), &m_ProcessorClock) != 0)
        m_ProcessorClock = CLOCK_MONOTONIC;
    m_Threads.Enter(*this);
    t_pMember = this;
}

ActiveThreads::Member::~Member()
{
    t_pMember = nullptr;
    m_Threads.Leave(*this);
}

/// What the thread has had of a processor.
std::chrono::nanoseconds ActiveThreads::Member::ProcessorTime() const
{
    timespec time{};
    clock_gettime(m_ProcessorClock, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// Begins a new judgement of the thread's turns. @return whether those since the last one were brief
bool ActiveThreads::Member::JudgeTurns()
{
    const std::chrono::nanoseconds now = ProcessorTime();
    const std::chrono::nanoseconds processor = now - m_ProcessorJudged;
    const bool bBrief = m_uTimed != 0 && processor < m_uTimed * LONG_TURN && !IsWaiting(processor, m_Busy);
    m_ProcessorJudged = now;
    m_Busy = {};
    m_uTimed = 0;
    return bBrief;
}

void ActiveThreads::Member::BeginTurn()
{
    m_uTurns.store(m_uTurns.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    // The sentinel sets m_bCalm and then looks whether anybody is busy.
    m_bBusy = true;
    if (m_Threads.m_bCalm)
        m_Threads.Rouse();
    m_tTurn = m_Threads.m_nActive > 1 ? Clock::now() : Clock::time_point();
}

void ActiveThreads::Member::EndTurn()
{
    m_bBusy.store(false, std::memory_order_release);
    if (m_tTurn == Clock::time_point())
        return;
    m_Busy += Clock::now() - m_tTurn;
    ++m_uTimed;
}

ActiveThreads::Turn::Turn()
    : m_pMember(t_pMember)
{
    if (m_pMember != nullptr)
        m_pMember->BeginTurn();
}

ActiveThreads::Turn::~Turn()
{
    if (m_pMember != nullptr)
        m_pMember->EndTurn();
}

void ActiveThreads::AwaitTurn()
{
    Member* pMember = t_pMember;
    if (pMember == nullptr)
        return;
    ActiveThreads& threads = pMember->m_Threads;
    if (!pMember->m_bActive || (pMember->m_uTimed >= TURNS_JUDGED && threads.m_nActive > 1))
        threads.Settle(*pMember);
}

void ActiveThreads::NoteIdle()
{
    if (Member* pMember = t_pMember)
        pMember->m_uIdles.store(pMember->m_uIdles.load(std::memory_order_relaxed) + 1,
                                std::memory_order_relaxed);
}

void ActiveThreads::NoteBlocked()
{
    const Member* pMember = t_pMember;
    if (pMember != nullptr && pMember->m_bBusy)
        pMember->m_Threads.ReplaceBlocked(*pMember);
}

// ---------------------------------------------------------------------------------------------------------
// All of them

void ActiveThreads::Enter(Member& member)
{
    const Lock lock(m_Mutex);
    member.m_pNext = m_pMembers;
    m_pMembers = &member;
    if (m_nActive == 0)
        Activate(member);
}

void ActiveThreads::Leave(Member& member)
{
    const Lock lock(m_Mutex);
    Member** ppMember = &m_pMembers;
    while (*ppMember != &member)
        ppMember = &(*ppMember)->m_pNext;
    *ppMember = member.m_pNext;
    if (m_pSentinel == &member)
        SetSentinel(FindStandingBy());
    if (!member.m_bActive)
        return;
    --m_nActive;
    ActivateOne();
}

/// Has a thread that is not needed any more, or not yet, stand by.
void ActiveThreads::Settle(Member& member)
{
    Lock lock(m_Mutex);
    if (member.m_bActive)
    {
        if (!member.JudgeTurns() || !IsSurplus(member))
            return;
        member.m_bActive = false;
        --m_nActive;
    }
    StandBy(member, lock);
}

/// Whether another active thread waits for work, or has got on since this was asked last.
bool ActiveThreads::IsSurplus(Member& member)
{
    bool bSurplus = false;
    for (Member* pOther = m_pMembers; pOther != nullptr; pOther = pOther->m_pNext)
    {
        if (pOther == &member || !pOther->m_bActive)
            continue;
        const unsigned uTurns = pOther->m_uTurns;
        if (!pOther->m_bBusy || uTurns != pOther->m_uTurnsChecked)
            bSurplus = true;
        pOther->m_uTurnsChecked = uTurns;
    }
    return bSurplus;
}

void ActiveThreads::StandBy(Member& member, Lock& lock)
{
    if (m_pSentinel == nullptr && !member.m_bActive)
        SetSentinel(&member);
    while (!member.m_bActive)
    {
        if (m_pSentinel != &member || m_bCalm)
            member.m_Wake.wait(lock);
        else if (member.m_Wake.wait_until(lock, m_tLook + NEXT_LOOK) == std::cv_status::timeout &&
                 m_pSentinel == &member)
            Look();
    }
}

/// The sentinel's.
void ActiveThreads::Look()
{
    const Clock::time_point tNow = Clock::now();
    unsigned uTurns = 0;
    std::chrono::nanoseconds processor{};
    bool bIdle = false;
    for (Member* pMember = m_pMembers; pMember != nullptr; pMember = pMember->m_pNext)
    {
        if (!pMember->m_bActive)
            continue;
        const unsigned uTurnsNow = pMember->m_uTurns;
        const unsigned uIdlesNow = pMember->m_uIdles;
        const std::chrono::nanoseconds processorNow = pMember->ProcessorTime();
        uTurns += uTurnsNow - pMember->m_uTurnsSeen;
        processor += processorNow - pMember->m_ProcessorSeen;
        bIdle = bIdle || !pMember->m_bBusy || uIdlesNow != pMember->m_uIdlesSeen;
        pMember->m_uTurnsSeen = uTurnsNow;
        pMember->m_uIdlesSeen = uIdlesNow;
        pMember->m_ProcessorSeen = processorNow;
    }
    const Clock::duration passed = tNow - m_tLook;
    m_tLook = tNow;
    if (!bIdle && (processor > (uTurns + 1) * LONG_TURN || IsWaiting(processor, passed * m_nActive.load())))
    {
        Activate(*m_pSentinel);
        return;
    }
    m_nQuiet = uTurns == 0 ? m_nQuiet + 1 : 0;
    if (m_nQuiet < QUIET_LOOKS)
        return;
    m_bCalm = true;
    if (IsAnyBusy()) // and may have looked before
        m_bCalm = false;
}

bool ActiveThreads::IsAnyBusy() const
{
    for (const Member* pMember = m_pMembers; pMember != nullptr; pMember = pMember->m_pNext)
        if (pMember->m_bBusy)
            return true;
    return false;
}

/// Something is done again.
void ActiveThreads::Rouse()
{
    const Lock lock(m_Mutex);
    if (m_bCalm)
        SetSentinel(m_pSentinel);
}

/// @param pMember  one that stands by, or null
void ActiveThreads::SetSentinel(Member* pMember)
{
    m_pSentinel = pMember;
    m_bCalm = false;
    m_nQuiet = 0;
    m_tLook = Clock::now();
    if (pMember != nullptr)
        pMember->m_Wake.notify_one();
}

void ActiveThreads::Activate(Member& member)
{
    member.m_bActive = true;
    ++m_nActive;
    member.m_Wake.notify_one();
    if (m_pSentinel == &member)
        SetSentinel(FindStandingBy());
}

ActiveThreads::Member* ActiveThreads::FindStandingBy()
{
    for (Member* pMember = m_pMembers; pMember != nullptr; pMember = pMember->m_pNext)
        if (!pMember->m_bActive)
            return pMember;
    return nullptr;
}

void ActiveThreads::ActivateOne()
{
    if (Member* pMember = FindStandingBy())
        Activate(*pMember);
}

void ActiveThreads::ReplaceBlocked(const Member& member)
{
    const Lock lock(m_Mutex);
    for (const Member* pOther = m_pMembers; pOther != nullptr; pOther = pOther->m_pNext)
        if (pOther != &member && pOther->m_bActive && !pOther->m_bBusy)
            return; // looks for work
    ActivateOne();
}
