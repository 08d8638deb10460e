#include "connection/SerialSession.h"
#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "core/LibraryThread.h"
#include "core/LogArguments.h"
#include "core/Settings.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/tarnbaseutil.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_sys_time.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr int MAX_EMPTY_PASSES = 3;
constexpr auto PAUSE = std::chrono::milliseconds(2000);
const ACE_Time_Value WORK_WAIT(10, 0);

constexpr const char* ERASE_ERROR = "eraseConnectTarget error, group = 0x%x target = 0x%x .\n";
constexpr const char* ERASE_ERROR_GIVING_UP = "eraseConnectTarget error, group = 0x%x target = 0x%x .";

thread_local bool t_bConnectThread = false;

} // namespace

/// Starts a connect thread unless there are as many as there may be.
void TarnConnectorMgrImpl::EnsureConnectThread()
{
    const std::lock_guard<std::mutex> guard(m_ThreadMutex);
    if (m_nConnectThreads >= Settings().nConnectThreadNum || m_bExit || m_bStopping || TarnAppIsExit())
        return;
    if (!SpawnDetached(&TarnConnectorMgrImpl::ConnectThreadProc, this, ThreadSignals::ALL_BLOCKED))
    {
        TarnAdapterFrmtTrace(1, "EnqueueReadyConnQueue,spawn thread error,errno = %d!\n", errno);
        return;
    }
    ++m_nConnectThreads;
    TarnAdapterFrmtTrace(1, "spawn a thread to connect ne ok.threadnum = %d\n", m_nConnectThreads);
}

ACE_THR_FUNC_RETURN TarnConnectorMgrImpl::ConnectThreadProc(void* pManager)
{
    const std::uint32_t ulThreadId = Low32(ACE_Thread::self());
    TarnAdapterFrmtTrace(1, "into a new thread(thrid = 0x%x) to connect target\n", ulThreadId);
    if (pManager == nullptr)
        TarnAdapterFrmtTrace(1, " leave this new connect thread , pConnectMgr is NULL.this thread is 0x%x\n",
                             ulThreadId);
    else
        static_cast<TarnConnectorMgrImpl*>(pManager)->RunConnectThread();
    return {};
}

void TarnConnectorMgrImpl::RunConnectThread()
{
    // Also when a hook ends the thread, it is counted out.
    struct Leaving
    {
        TarnConnectorMgrImpl& manager;
        ~Leaving() { manager.LeaveConnectThread(); }
    };
    m_ThreadsLeft.Enter();
    t_bConnectThread = true;
    const Leaving leaving{*this};
    for (int nEmptyPasses = 0; nEmptyPasses < MAX_EMPTY_PASSES && !m_bExit;)
        nEmptyPasses = ConnectOnePass() ? 0 : nEmptyPasses + 1;
}

void TarnConnectorMgrImpl::LeaveConnectThread()
{
    TarnAdapterFrmtTrace(1, " leave this new connect thread , this thread is 0x%x\n",
                         Low32(ACE_Thread::self()));
    // A record that was queued while this thread counted, but did not look any more, needs another one. Asked
    // before: the manager may be gone as soon as the thread is counted out. Whoever queues a record afterwards
    // finds the count lowered.
    {
        const std::lock_guard<std::mutex> guard(m_ThreadMutex);
        --m_nConnectThreads;
        ++m_nLeaving;
    }
    if (!m_bExit && FreeRecords() > 0)
        EnsureConnectThread();
    const std::lock_guard<std::mutex> guard(m_ThreadMutex);
    --m_nLeaving;
    m_ThreadLeft.notify_all();
}

/// @return false when there was nothing to do
bool TarnConnectorMgrImpl::ConnectOnePass()
{
    const std::uint64_t uWorkSeen = m_Work.Get();
    const std::uint64_t uPausesSeen = m_PauseOver.Get();
    const ACE_Time_Value deadline = ACE_OS::gettimeofday() + WORK_WAIT;
    ConnectTargetKey key{};
    CConnectorImplInfo* pInfo = nullptr;
    if (getConnectTarget(key, pInfo, deadline) == -1)
    {
        if (!m_bExit)
            m_Work.WaitBeyond(uWorkSeen, PAUSE);
        return false;
    }
    if (pInfo == nullptr)
        TarnAdapterFrmtTrace(1, "when dequeue pData is NULL\n");
    else if (pInfo->pConnector == nullptr)
        TarnAdapterFrmtTrace(1, "when dequeue pConnectorImpl is NULL\n");
    else
    {
        TarnConnectorImpl* pConnector = pInfo->pConnector;
        UseConnectorImplAndIncRef(pConnector);
        ServeTarget(key, *pInfo, uPausesSeen);
        ReleaseConnectorImplDecRef(pConnector);
        m_RecordFreed.Raise();
    }
    return true;
}

/// Does for a record that this thread holds what is to be done now. The record may be gone afterwards.
void TarnConnectorMgrImpl::ServeTarget(const ConnectTargetKey& key, CConnectorImplInfo& info,
                                       std::uint64_t uPausesSeen)
{
    TarnConnectorImpl& connector = *info.pConnector;
    if (connector.IsUnwanted() || m_bExit)
        AbandonTarget(key, info);
    else if (PauseUntilDue(info, uPausesSeen))
        ReleaseRecord(info, false);
    else if (connector.ConnectQueued() == 0)
        AfterSuccess(key, info);
    else
        AfterFailure(key, info);
}

/// Pauses, for a bounded time, when the record's next attempt is not due yet. @return true when it was not
bool TarnConnectorMgrImpl::PauseUntilDue(CConnectorImplInfo& info, std::uint64_t uPausesSeen)
{
    ACE_Time_Value due;
    {
        const TarnReadGuard guard(info.lock);
        if (!info.bReconnect)
            return false;
        due = info.time + ACE_Time_Value(Settings().nConnectSleep);
        // A time that lies in the future is left from before a change of the clock.
        if (ACE_OS::gettimeofday() < info.time)
            return false;
    }
    const ACE_Time_Value now = ACE_OS::gettimeofday();
    if (!(now < due))
        return false;
    m_PauseOver.WaitBeyond(uPausesSeen, std::min(PAUSE, std::chrono::milliseconds((due - now).msec() + 1)));
    return true;
}

void TarnConnectorMgrImpl::ReleaseRecord(CConnectorImplInfo& info, bool bTriedNow)
{
    const TarnGuard queueGuard(*m_pConnectQuequeMutex);
    const TarnWriteGuard guard(info.lock);
    info.bBusy = false;
    if (bTriedNow)
    {
        info.time = ACE_OS::gettimeofday();
        info.bReconnect = true;
        info.freeEntry.value() = info.AsFree(info.freeEntry.value().key);
    }
    m_FreeTargets.insert(std::move(info.freeEntry));
}

/// Takes the record that this thread holds out of the queue and deletes it.
bool TarnConnectorMgrImpl::RemoveRecord(const ConnectTargetKey& key, CConnectorImplInfo& info,
                                        const char* pszMissing)
{
    if (eraseConnectTarget(key) == 0)
    {
        delete &info;
        return true;
    }
    TarnAdapterFrmtTrace(1, pszMissing == ERASE_ERROR ? ERASE_ERROR : ERASE_ERROR_GIVING_UP,
                         static_cast<unsigned>(key.connection.iGroupID), key.connection.ulTargetID);
    return false;
}

void TarnConnectorMgrImpl::AbandonTarget(const ConnectTargetKey& key, CConnectorImplInfo& info)
{
    if (RemoveRecord(key, info, ERASE_ERROR))
        RenewRequest(key.pConnector);
}

void TarnConnectorMgrImpl::AfterSuccess(const ConnectTargetKey& key, CConnectorImplInfo& info)
{
    RemoveRecord(key, info, ERASE_ERROR);
    FinishOpened(key.pConnector);
}

void TarnConnectorMgrImpl::AfterFailure(const ConnectTargetKey& key, CConnectorImplInfo& info)
{
    TarnConnectorImpl& connector = *key.pConnector;
    connector.IncConnectCount();
    const int iMaxCount = connector.GetMaxConnectCount();
    const bool bSpent = iMaxCount != 0 && connector.GetConnectCount() >= iMaxCount;
    // Read once: a request to connect may clear it any time, and counts on the record or on being made up for.
    const bool bUnwanted = connector.IsUnwanted();
    if (!bSpent && !bUnwanted && !m_bExit && !Settings().bNoNeReconnect)
    {
        ReleaseRecord(info, true);
        return;
    }
    if (RemoveRecord(key, info, ERASE_ERROR_GIVING_UP) && bUnwanted)
        RenewRequest(&connector);
}

bool TarnConnectorMgrImpl::IsConnectThread()
{
    return t_bConnectThread;
}

void TarnConnectorMgrImpl::BeginStop()
{
    m_bStopping = true;
    EndConnectThreads();
}

void TarnConnectorMgrImpl::EndConnectThreads()
{
    m_bExit = true;
    m_Work.Raise();
    m_PauseOver.Raise();
    ACE_GUARD(ACE_Thread_Mutex, guard, *pMutex);
    m_SyncQueEmpty->broadcast();
}

int TarnConnectorMgrImpl::StopConnectThreads()
{
    if (t_bConnectThread)
    {
        TarnAdapterFrmtTrace(
            1, "TarnConnectorMgrImpl::StopConnectThreads refused, called on a connect thread\n");
        return -1;
    }
    constexpr auto POLL = std::chrono::seconds(1);
    EndConnectThreads();
    std::unique_lock<std::mutex> lock(m_ThreadMutex);
    while (!m_ThreadLeft.wait_for(lock, POLL, [this] { return m_nConnectThreads + m_nLeaving == 0; }))
    {
        TarnAdapterFrmtTrace(3, "TarnConnectorMgrImpl::StopConnectThreads, waiting for %d connect threads\n",
                             m_nConnectThreads + m_nLeaving);
        lock.unlock();
        EndConnectThreads(); // somebody may have resumed them meanwhile
        lock.lock();
    }
    lock.unlock();
    clearConnectQueue();
    return 0;
}

void TarnConnectorMgrImpl::Stop()
{
    BeginStop();
    StopConnectThreads();
    m_ThreadsLeft.WaitUntilNone();
    SerialSession::EndAllWatches(); // nobody opens a line any more
}

int TarnConnectorMgrImpl::ResumeConnectThreads()
{
    if (m_bStopping)
    {
        TarnAdapterFrmtTrace(
            1, "TarnConnectorMgrImpl::ResumeConnectThreads refused, the engine is being stopped\n");
        return -1;
    }
    m_bExit = false;
    for (int nFree = FreeRecords(); nFree > 0; --nFree)
        EnsureConnectThread();
    return 0;
}
