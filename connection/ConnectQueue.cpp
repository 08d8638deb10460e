#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <ace/Guard_T.h>

#include <cerrno>

/// @return 0 queued; 1 queued already, or not disconnected any more; -1 null, or no memory
int TarnConnectorMgrImpl::putConnectTarget(const ConnectTargetKey& key, CConnectorImplInfo* pInfo)
{
    if (pInfo == nullptr)
    {
        TarnAdapterFrmtTrace(
            1, "TarnConnectorMgrImpl::putConnectTarget error, input para pConnectImplInfo=null\n");
        return -1;
    }
    UseConnectorImplAndIncRef(pInfo->pConnector);
    bool bFirst = false; // once it is queued, the record may be gone
    const int iResult = WithMemory("putConnectTarget", -1, [&] {
        SETFREETARGET entry;
        {
            const TarnReadGuard guard(pInfo->lock);
            entry.insert(pInfo->AsFree(key));
            bFirst = !pInfo->bReconnect;
        }
        const TarnGuard guard(*m_pConnectQuequeMutex);
        // It may have been queued, and opened, since the caller looked.
        if (pInfo->pConnector->GetState() != STATE_DISCONNECTED ||
            !m_pConnectQueque->emplace(key, pInfo).second)
            return 1;
        m_FreeTargets.merge(entry);
        pInfo->pConnector->SetState(STATE_CONNECTING);
        return 0;
    });
    if (iResult != 0)
    {
        ReleaseConnectorImplDecRef(pInfo->pConnector);
        return iResult;
    }
    SignalWork();
    m_Work.RaiseForOne();
    if (bFirst) // a retry is due later than those that threads pause for
        m_PauseOver.Raise();
    return 0;
}

void TarnConnectorMgrImpl::SignalWork()
{
    ACE_GUARD(ACE_Thread_Mutex, guard, *pMutex);
    m_bQueueHasWork = true;
    m_SyncQueEmpty->signal();
}

/// Waits until there is work, at most until the deadline (absolute; zero: without limit). @return false when the
/// time was over, or the threads are to end
bool TarnConnectorMgrImpl::WaitForWork(const ACE_Time_Value& deadline)
{
    ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, *pMutex, false);
    bool bInTime = true;
    while (!m_bQueueHasWork && !m_bExit && bInTime)
        bInTime = m_SyncQueEmpty->wait(deadline == ACE_Time_Value::zero ? nullptr : &deadline) != -1;
    m_bQueueHasWork = false;
    return bInTime && !m_bExit;
}

int TarnConnectorMgrImpl::getConnectTarget(ConnectTargetKey& key, CConnectorImplInfo*& pInfo,
                                           const ACE_Time_Value& deadline)
{
    key = {{-1, 0}, nullptr};
    pInfo = nullptr;
    if (IsQueueEmpty() && !WaitForWork(deadline))
        return -1;
    // One signal wakes one thread, and it may have been for one of those that are left.
    if (TakeFree(key, pInfo))
        SignalWork();
    return pInfo != nullptr ? 0 : -1;
}

/// Takes the next free record, which is busy then; null when there is none. @return whether others are left
bool TarnConnectorMgrImpl::TakeFree(ConnectTargetKey& key, CConnectorImplInfo*& pInfo)
{
    const TarnGuard guard(*m_pConnectQuequeMutex);
    while (pInfo == nullptr && !m_FreeTargets.empty())
    {
        auto entry = m_FreeTargets.extract(m_FreeTargets.begin());
        key = entry.value().key;
        pInfo = entry.value().pInfo;
        if (pInfo == nullptr)
        {
            TarnAdapterFrmtTrace(1, "get NULL CConnectorImplInfo in the map\n");
            m_pConnectQueque->erase(key);
            continue;
        }
        const TarnWriteGuard recordGuard(pInfo->lock);
        if (pInfo->bBusy)
            TarnAdapterFrmtTrace(1, "getConnectTarget inner err\n");
        pInfo->bBusy = true;
        pInfo->freeEntry = std::move(entry);
    }
    return !m_FreeTargets.empty();
}

int TarnConnectorMgrImpl::eraseConnectTarget(const ConnectTargetKey& key)
{
    {
        const TarnGuard guard(*m_pConnectQuequeMutex);
        if (m_pConnectQueque->erase(key) == 0)
            return -1;
        key.pConnector->SetDisconnectedUnlessOpen();
    }
    ReleaseConnectorImplDecRef(key.pConnector);
    return 0;
}

int TarnConnectorMgrImpl::clearConnectQueue()
{
    if (m_pConnectQueque == nullptr || m_pConnectQuequeMutex == nullptr)
    {
        TarnAdapterFrmtTrace(1,
                             "TarnConnectorMgrImpl::clearConnectQueue error, m_pConnectQuequeMutex = 0x%x, "
                             "m_pConnectQueque = 0x%x\n",
                             Low32(m_pConnectQuequeMutex.get()), Low32(m_pConnectQueque.get()));
        return -1;
    }
    const TarnGuard guard(*m_pConnectQuequeMutex);
    for (auto it = m_pConnectQueque->begin(); it != m_pConnectQueque->end();)
    {
        CConnectorImplInfo* pInfo = it->second;
        {
            const TarnReadGuard recordGuard(pInfo->lock);
            if (pInfo->bBusy)
            {
                ++it; // the threads have been resumed meanwhile, and one of them holds it
                continue;
            }
            m_FreeTargets.erase(pInfo->AsFree(it->first));
        }
        pInfo->pConnector->SetDisconnectedUnlessOpen();
        ReleaseConnectorImplDecRef(pInfo->pConnector);
        delete pInfo;
        it = m_pConnectQueque->erase(it);
    }
    return 0;
}

bool TarnConnectorMgrImpl::IsQueueEmpty()
{
    const TarnGuard guard(*m_pConnectQuequeMutex);
    return m_pConnectQueque->empty();
}

int TarnConnectorMgrImpl::FreeRecords()
{
    const TarnGuard guard(*m_pConnectQuequeMutex);
    return static_cast<int>(m_FreeTargets.size());
}
