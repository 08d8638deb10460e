#ifndef TARN_ASN1_SYNCCON_H
#define TARN_ASN1_SYNCCON_H

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Thread_Mutex.h>

#include <atomic>
#include <functional>
#include <memory>

/// What one thread waits on for an answer, in ticks of a second, and others wake.
///
/// The ticks are measured from one start on a steady clock, so a change of the system's time neither hastens nor
/// delays a wait. The mutex guards what is waited for, and is held but for the wait itself: an event that comes
/// between two ticks is seen at the next look.
class SyncCon
{
public:
    struct Releaser
    {
        void operator()(SyncCon* pSyncCon) const { pSyncCon->Release(); }
    };
    using Ptr = std::unique_ptr<SyncCon, Releaser>;

    /// @param pszFailed  set to what could not be created when null is returned
    static Ptr Create(const char*& pszFailed);
    /// Given up by its owner: deleted, as soon as nobody is inside Change any more, and no wake-up is put off.
    void Release();

    SyncCon(const SyncCon&) = delete;
    SyncCon& operator=(const SyncCon&) = delete;

    /// Changes something under the mutex and wakes the waiting thread; or, when the caller holds the correlation lock, which
    /// that thread wants first of all, has it woken once the lock is given back (or at the end of its tick).
    void Change(const std::function<void(SyncCon&)>& change);
    /// Makes the waiting thread look again at what it waits for.
    void Wake();

    struct Outcome
    {
        bool bSignalled;  ///< isDone has become true
        int iFlag;        ///< as it was then
        int iTicks;       ///< begun
        int nRealTimeout; ///< ticks, as last asked for
    };
    /// Waits until isDone, the time is over, the process is exiting or the library is being stopped. The caller is
    /// in a stay of SyncWaits that calls Wake.
    /// @param timeOut  asked at each tick, for the whole time in ticks; called with the mutex held
    /// @param isDone   asked with the mutex held
    Outcome Wait(const std::function<int()>& timeOut, const std::function<bool()>& isDone);

    // Guarded by the mutex.
    int iFlag = 0; ///< the response has come; all have come
    bool bCancelled = false;

private:
    SyncCon() = default;
    ~SyncCon() = default;
    static void SignalAndRelease(void* pSyncCon);

    std::unique_ptr<ACE_Thread_Mutex> m_pMutex;
    std::unique_ptr<ACE_Condition<ACE_Thread_Mutex>> m_pCondition;
    std::atomic<int> m_nUsers{1}; // its owner, who is inside Change, and wake-ups that are put off
};

#endif
