#include "core/ActiveThreads.h"

#include <pthread.h>
#include <time.h>

#include <algorithm>

namespace {

// Whoever waits in its turn without saying so is replaced at the second look at the latest. It is longer than the scheduler
// usually keeps a thread waiting that could run.
constexpr auto NEXT_LOOK = std::chrono::milliseconds(4);
// Turns that take a processor for so long on average are worth another thread.
constexpr auto LONG_TURN = std::chrono::microseconds(100);
// And so are turns that last so long on average, waiting included.
constexpr auto LONG_WAIT = std::chrono::microseconds(1000);
// A thread that has a processor for a smaller part of its turns than one in so many waits in them.
constexpr int WAITING_PART = 8;
// While several threads are active each judges so many of its turns together at least, and so long.
constexpr unsigned TURNS_JUDGED = 8;
constexpr auto JUDGED_TIME = NEXT_LOOK;
// For so long nobody stands by after the sentinel has become active; twice as long each time that this has been too short.
constexpr auto SHORTEST_KEEP = std::chrono::milliseconds(20);
constexpr auto LONGEST_KEEP = std::chrono::seconds(2);
constexpr auto KEEP_FORGOTTEN = std::chrono::seconds(1);

thread_local ActiveThreads::Member* t_pMember = nullptr;

/// Of turns that a thread has begun: whether they compute for long, or wait.
bool AreLong(unsigned uTurns, std::chrono::nanoseconds processor, std::chrono::nanoseconds passed)
{
    return processor > (uTurns + 1) * LONG_TURN || passed > (uTurns + 1) * LONG_WAIT ||
           processor * WAITING_PART < passed;
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

/// Whether the turns that have been timed were brief; others are judged next.
bool ActiveThreads::Member::JudgeTurns()
{
    const std::chrono::nanoseconds processor = ProcessorTime() - m_ProcessorJudged;
    const bool bBrief = !AreLong(m_uTimed, processor, m_Busy);
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
    if (m_Threads.m_nActive == 1)
    {
        m_tTurn = {};
        m_uTimed = 0;
        return;
    }
    m_tTurn = Clock::now();
    if (m_uTimed != 0)
        return;
    m_tJudged = m_tTurn;
    m_ProcessorJudged = ProcessorTime();
    m_Busy = {};
}

void ActiveThreads::Member::EndTurn()
{
    m_bBusy.store(false, std::memory_order_release);
    if (m_tTurn == Clock::time_point())
        return;
    m_Busy += Clock::now() - m_tTurn;
    ++m_uTimed;
}

// Inside another turn it is none: that one goes on.
ActiveThreads::Turn::Turn()
    : m_pMember(t_pMember != nullptr && !t_pMember->m_bBusy ? t_pMember : nullptr)
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
    const bool bJudge =
        pMember->m_uTimed >= TURNS_JUDGED && pMember->m_tTurn - pMember->m_tJudged >= JUDGED_TIME;
    if (!pMember->m_bActive || (bJudge && threads.m_nActive > 1))
        threads.Settle(*pMember);
}

void ActiveThreads::NoteIdle()
{
    Member* pMember = t_pMember;
    if (pMember != nullptr && !pMember->m_bBusy)
        pMember->m_uIdles.store(pMember->m_uIdles.load(std::memory_order_relaxed) + 1,
                                std::memory_order_relaxed);
}

void ActiveThreads::NoteBlocked()
{
    Member* pMember = t_pMember;
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
    if (m_nActive == 0 || m_bEnding)
        Activate(member);
}

void ActiveThreads::ActivateAll()
{
    const Lock lock(m_Mutex);
    m_bEnding = true;
    while (Member* pMember = FindStandingBy())
        Activate(*pMember);
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
        member.m_bGetsAlong = member.JudgeTurns();
        if (!member.m_bGetsAlong || m_bEnding || Clock::now() < m_tKeep || !IsSurplus(member))
            return;
        member.m_bGetsAlong = false;
        member.m_bActive = false;
        --m_nActive;
    }
    StandBy(member, lock);
}

/// Whether another active thread gets along, and waits for work or has got on since this was asked last.
bool ActiveThreads::IsSurplus(Member& member)
{
    bool bSurplus = false;
    for (Member* pOther = m_pMembers; pOther != nullptr; pOther = pOther->m_pNext)
    {
        if (pOther == &member || !pOther->m_bActive || !pOther->m_bGetsAlong)
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
    const Seen seen = SeeActive(tNow - m_tLook);
    m_tLook = tNow;
    if (seen.bNeeded)
    {
        m_Keep = tNow - m_tKeep < KEEP_FORGOTTEN ? std::min<Clock::duration>(2 * m_Keep, LONGEST_KEEP)
                                                 : SHORTEST_KEEP;
        m_tKeep = tNow + m_Keep;
        for (Member* pMember = m_pMembers; pMember != nullptr; pMember = pMember->m_pNext)
            pMember->m_bGetsAlong = false;
        Activate(*m_pSentinel);
        return;
    }
    if (seen.bTurns || IsAnyBusy())
        return;
    m_bCalm = true;
    if (IsAnyBusy()) // and may have looked before
        m_bCalm = false;
}

/// What the active threads have done since this was asked last.
ActiveThreads::Seen ActiveThreads::SeeActive(Clock::duration passed)
{
    Seen seen;
    for (Member* pMember = m_pMembers; pMember != nullptr; pMember = pMember->m_pNext)
    {
        if (!pMember->m_bActive)
            continue;
        const unsigned uTurns = pMember->m_uTurns;
        const unsigned uIdles = pMember->m_uIdles;
        const std::chrono::nanoseconds processor = pMember->ProcessorTime();
        const bool bIdle = !pMember->m_bBusy || uIdles != pMember->m_uIdlesSeen;
        seen.bTurns = seen.bTurns || uTurns != pMember->m_uTurnsSeen;
        seen.bNeeded = seen.bNeeded && !bIdle &&
                       AreLong(uTurns - pMember->m_uTurnsSeen, processor - pMember->m_ProcessorSeen, passed);
        pMember->m_uTurnsSeen = uTurns;
        pMember->m_uIdlesSeen = uIdles;
        pMember->m_ProcessorSeen = processor;
    }
    return seen;
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
    if (pMember == nullptr)
        return;
    m_tLook = Clock::now();
    SeeActive({});
    pMember->m_Wake.notify_one();
}

void ActiveThreads::Activate(Member& member)
{
    member.m_bActive = true;
    member.m_uTurnsSeen = member.m_uTurns;
    member.m_uIdlesSeen = member.m_uIdles;
    member.m_ProcessorSeen = member.ProcessorTime();
    ++m_nActive;
    member.m_Wake.notify_one();
    if (m_pSentinel == &member)
        SetSentinel(FindStandingBy());
}

/// Not the sentinel, if there is another one. Null: none does.
ActiveThreads::Member* ActiveThreads::FindStandingBy()
{
    Member* pFound = nullptr;
    for (Member* pMember = m_pMembers; pMember != nullptr; pMember = pMember->m_pNext)
        if (!pMember->m_bActive && (pFound == nullptr || pFound == m_pSentinel))
            pFound = pMember;
    return pFound;
}

void ActiveThreads::ActivateOne()
{
    if (Member* pMember = FindStandingBy())
        Activate(*pMember);
}

void ActiveThreads::ReplaceBlocked(Member& member)
{
    const Lock lock(m_Mutex);
    member.m_bGetsAlong = false;
    for (const Member* pOther = m_pMembers; pOther != nullptr; pOther = pOther->m_pNext)
        if (pOther != &member && pOther->m_bActive && !pOther->m_bBusy)
            return; // looks for work
    ActivateOne();
}
