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
/// stand by. One of these, the sentinel, looks every few milliseconds while something is done. When all active threads have been
/// busy ever since its last look, and wait in their turns or compute for long, it becomes active itself. A thread that waits
/// for another one inside its turn says so, and is replaced at once. An active thread whose turns are brief stands by when the
/// turns of another active one are, too; but for a while after the sentinel has found that more are needed nobody does.
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
        std::chrono::steady_clock::time_point m_tJudged; // the first one that is judged next began
        std::chrono::nanoseconds m_ProcessorJudged{};
        unsigned m_uTimed = 0;

        // Guarded by the threads' mutex.
        std::atomic<bool> m_bActive{false}; // changed within it; nobody else makes an active one stand by
        bool m_bGetsAlong = false; // its last turns that were judged were brief, and it has not blocked since
        unsigned m_uTurnsSeen = 0;
        unsigned m_uIdlesSeen = 0;
        std::chrono::nanoseconds m_ProcessorSeen{};
        unsigned m_uTurnsChecked = 0;
        std::condition_variable m_Wake;
        Member* m_pNext = nullptr;
    };

    /// Before the calling thread looks for work: waits until it is to be active. A thread that is no member goes on at once.
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

    /// From now on all members are active: the loop is going to end. Any thread.
    void ActivateAll();

    /// The calling thread, if it is a member, has found nothing to do and waits.
    static void NoteIdle();
    /// The calling thread, if it is a member, is going to wait inside its turn for what another one does.
    static void NoteBlocked();

    /// Nothing has been done for a while, and nobody looks until something is.
    bool IsCalm() const { return m_bCalm; }

private:
    using Clock = std::chrono::steady_clock;
    using Lock = std::unique_lock<std::mutex>;
    struct Seen
    {
        bool bTurns = false; // some were begun
        bool bNeeded = true; // another thread: the turns of all active ones are long
    };

    void Enter(Member& member);
    void Leave(Member& member);
    void Settle(Member& member);
    void Rouse();
    void ReplaceBlocked(Member& member);

    // With the mutex held.
    bool IsSurplus(Member& member);
    void StandBy(Member& member, Lock& lock);
    void Activate(Member& member);
    void ActivateOne();
    void SetSentinel(Member* pMember);
    Member* FindStandingBy();
    void Look();
    Seen SeeActive(Clock::duration passed);
    bool IsAnyBusy() const;

    std::mutex m_Mutex;
    Member* m_pMembers = nullptr;     // guarded by it, as what follows
    Member* m_pSentinel = nullptr;    // one that stands by, if any does
    Clock::time_point m_tLook;        // the sentinel's last look
    bool m_bEnding = false;           // all are active for good
    Clock::time_point m_tKeep;        // until then nobody stands by
    Clock::duration m_Keep{};         // for so long since the sentinel has become active last
    std::atomic<int> m_nActive{0};    // changed within the mutex
    std::atomic<bool> m_bCalm{false}; // the sentinel does not look; changed within the mutex
};

#endif
