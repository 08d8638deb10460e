#include "asn1/SyncCon.h"

#include "core/ActiveThreads.h"
#include "core/CorrelationHold.h"
#include "core/SyncWaits.h"
#include "tarnadapterframe/tarntaskmgr.h"

#include <ace/Guard_T.h>
#include <ace/Monotonic_Time_Policy.h>

#include <new>

namespace {

bool IsStopping()
{
    return SyncWaits::Instance().IsShut();
}

} // namespace

SyncCon::Ptr SyncCon::Create(const char*& pszFailed)
{
    pszFailed = "ACE_Thread_Mutex";
    Ptr pSyncCon(new (std::nothrow) SyncCon);
    if (pSyncCon == nullptr)
        return nullptr;
    pSyncCon->m_pMutex.reset(new (std::nothrow) ACE_Thread_Mutex);
    if (pSyncCon->m_pMutex == nullptr)
        return nullptr;
    pszFailed = "ACE_Condition";
    const ACE_Condition_Attributes_T<ACE_Monotonic_Time_Policy> steady;
    pSyncCon->m_pCondition.reset(new (std::nothrow)
                                     ACE_Condition<ACE_Thread_Mutex>(*pSyncCon->m_pMutex, steady));
    if (pSyncCon->m_pCondition == nullptr)
        return nullptr;
    return pSyncCon;
}

void SyncCon::Release()
{
    if (--m_nUsers == 0)
        delete this;
}

void SyncCon::Wake()
{
    Change([](SyncCon&) {});
}

void SyncCon::Change(const std::function<void(SyncCon&)>& change)
{
    // The waiting thread, which may be done with this as soon as the mutex is released, is woken when it can have that:
    // otherwise it would mostly have to wait once more.
    ++m_nUsers;
    Ptr kept(this);
    {
        ACE_GUARD(ACE_Thread_Mutex, guard, *m_pMutex);
        change(*this);
    }
    if (CorrelationHold::PutOff(&SignalAndRelease, this))
        static_cast<void>(kept.release());
    else
        m_pCondition->signal();
}

void SyncCon::SignalAndRelease(void* pSyncCon)
{
    const Ptr kept(static_cast<SyncCon*>(pSyncCon));
    kept->m_pCondition->signal();
}

SyncCon::Outcome SyncCon::Wait(const std::function<int()>& timeOut, const std::function<bool()>& isDone)
{
    Outcome outcome = {false, 0, 0, 0};
    const auto now = ACE_Monotonic_Time_Policy()();
    const ACE_Time_Value start(now.sec(), now.usec());
    // The host is asked without the mutex, which whoever brings an answer takes with the correlation lock held.
    while (!outcome.bSignalled && !TarnIsExit())
    {
        ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, *m_pMutex, outcome);
        if (IsStopping())
            break;
        outcome.nRealTimeout = timeOut();
        if (outcome.iTicks >= outcome.nRealTimeout)
            break;
        ++outcome.iTicks;
        const ACE_Time_Value deadline = start + ACE_Time_Value(outcome.iTicks);
        // A wake-up that nothing caused goes on waiting for the same tick.
        int iWait = 0;
        if (outcome.iTicks == 1 && !isDone())
            ActiveThreads::NoteBlocked();
        while (!isDone() && !IsStopping() && iWait != -1)
            iWait = m_pCondition->wait(&deadline);
        outcome.bSignalled = isDone();
        outcome.iFlag = iFlag;
    }
    return outcome;
}
