#ifndef TARN_CORE_ACTIVETHREADS_H
#define TARN_CORE_ACTIVETHREADS_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

/// Keeps the number of a loop's threads that look for work as small as the work allows.
///
/// Where each piece of work takes microseconds, a second thread beside the first makes it slower: what both touch goes to and
/// fro between two processors, which costs more than the work. So one thread goes on as long as it gets along, and the others
/// stand by. One of these, the sentinel, looks every TICK. When all active threads are inside their work, have been
/// busy ever since the last look and get on slowly, because the application blocks or works for long, it becomes active itself. A thread that
/// waits for another one inside its work says so, and is replaced at once. An active thread whose turns are brief stands by as
/// soon as another active one goes on without it. While nothing is to be done nobody looks.
///
/// Its mutex is a leaf.
class ActiveThreads
{
public:
    ActiveThreads() = default;
    ActiveThreads(const ActiveThreads&) = delete;
    ActiveThreads& operator=(const ActiveThreads&) = delete;

    /// One thread of the loop, as long as it is in it. An object of that thread's, which has one at a time.
    class Member
    {
    public:
        explicit Member(ActiveThreads& threads);
        ~Member();
        Member(const Member&) = delete;
        Member& operator=(const Member&) = delete;

    private:
        friend class ActiveThreads;
        void BeginTurn();
        void EndTurn();
        std::chrono::nanoseconds ProcessorTime() const;
        bool JudgeTurns();

        ActiveThreads& m_Threads;
        clockid_t m_ProcessorClock;

        // Written by its thread only.
        std::atomic<unsigned> m_uTurns{0}; // begun
        std::atomic<unsigned> m_uIdles{0}; // times that it found nothing to do
        std::atomic<bool> m_bBusy{false};  // inside a turn

        // Its thread's: while it is not the only one that is active.
        std::chrono::steady_clock::time_point m_tTurn;
        std::chrono::nanoseconds m_Busy{};
        std::chrono::nanoseconds m_ProcessorJudged{};
        unsigned m_uTimed = 0;

        // Guarded by the threads' mutex.
        bool m_bActive = false; // read by its thread without it: nobody else makes an active one stand by
        unsigned m_uTurnsSeen = 0;
        unsigned m_uIdlesSeen = 0;
        std::chrono::nanoseconds m_ProcessorSeen{};
        unsigned m_uTurnsChecked = 0;
        std::condition_variable m_Wake;
        Member* m_pNext = nullptr;
    };

    /// Before the calling thread looks for work: waits until it is to be active. Does not wait for a thread that is no member.
    static void AwaitTurn();

    /// The calling thread's work on what it has found, as long as this lives. For a thread that is no member, nothing.
    class Turn
    {
    public:
        Turn();
        ~Turn();
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

    private:
        Member* const m_pMember;
    };

    /// The calling thread, if it is a member, has found nothing to do and waits.
    static void NoteIdle();
    /// The calling thread, if it is a member, is going to wait inside its turn for what another one does.
    static void NoteBlocked();

    /// Nothing has been done for a while, and nobody looks until something is.
    bool IsCalm() const { return m_bCalm; }

private:
    using Clock = std::chrono::steady_clock;
    using Lock = std::unique_lock<std::mutex>;

    void Enter(Member& member);
    void Leave(Member& member);
    void Settle(Member& member);
    void Rouse();
    void ReplaceBlocked(const Member& member);

    // With the mutex held.
    bool IsSurplus(Member& member);
    void StandBy(Member& member, Lock& lock);
    void Activate(Member& member);
    void ActivateOne();
    void SetSentinel(Member* pMember);
    Member* FindStandingBy();
    void Look();
    bool IsAnyBusy() const;

    std::mutex m_Mutex;
    Member* m_pMembers = nullptr;     // guarded by it, as what follows
    Member* m_pSentinel = nullptr;    // one that stands by, if any does
    Clock::time_point m_tLook;        // the sentinel's last look
    int m_nQuiet = 0;                 // looks since something was done
    std::atomic<int> m_nActive{0};    // changed within the mutex
    std::atomic<bool> m_bCalm{false}; // the sentinel does not look; changed within the mutex
};

#endif
