#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <ace/Guard_T.h>

#include <cerrno>

namespace {

bool IsBusy(CConnectorImplInfo& info)
{
    const TarnReadGuard guard(info.lock);
    return info.bBusy;
}

/// The record that a connect thread is going to take, while the queue is looked through: a first request at
/// once, else the retry that has waited longest.
class Candidate
{
public:
    /// @return true when the search is over
    bool Consider(const ConnectTargetKey& key, CConnectorImplInfo& info)
    {
        const TarnWriteGuard guard(info.lock);
        if (info.bBusy)
            return false;
        ++m_nFree;
        if (info.bReconnect && m_pInfo != nullptr && !(info.time < m_Time))
            return false;
        info.bBusy = true;
        if (m_pInfo != nullptr)
            GiveBack();
        m_Key = key;
        m_pInfo = &info;
        m_Time = info.time;
        return !info.bReconnect;
    }

    const ConnectTargetKey& Key() const { return m_Key; }
    CConnectorImplInfo* Info() const { return m_pInfo; }
    /// Records seen that another thread could take.
    bool HasSeenOthers() const { return m_nFree > 1; }

private:
    void GiveBack()
    {
        const TarnWriteGuard guard(m_pInfo->lock);
        if (!m_pInfo->bBusy)
            TarnAdapterFrmtTrace(1, "getConnectTarget inner err\n");
        m_pInfo->bBusy = false;
    }

    ConnectTargetKey m_Key{{-1, 0}, nullptr};
    CConnectorImplInfo* m_pInfo = nullptr;
    ACE_Time_Value m_Time;
    int m_nFree = 0;
};

} // namespace

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
    const int iResult = WithMemory("putConnectTarget", -1, [&] {
        const TarnGuard guard(*m_pConnectQuequeMutex);
        // It may have been queued, and opened, since the caller looked.
        if (pInfo->pConnector->GetState() != STATE_DISCONNECTED ||
            !m_pConnectQueque->emplace(key, pInfo).second)
            return 1;
        pInfo->pConnector->SetState(STATE_CONNECTING);
        return 0;
    });
    if (iResult != 0)
    {
        ReleaseConnectorImplDecRef(pInfo->pConnector);
        return iResult;
    }
    SignalWork();
    m_Work.Raise();
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
    Candidate candidate;
    bool bOthersLeft = false;
    {
        const TarnGuard guard(*m_pConnectQuequeMutex);
        for (auto it = m_pConnectQueque->begin(); it != m_pConnectQueque->end();)
        {
            const auto itThis = it++;
            if (itThis->second == nullptr)
            {
                TarnAdapterFrmtTrace(1, "get NULL CConnectorImplInfo in the map\n");
                m_pConnectQueque->erase(itThis);
            }
            else if (candidate.Consider(itThis->first, *itThis->second))
            {
                bOthersLeft = it != m_pConnectQueque->end();
                break;
            }
        }
    }
    key = candidate.Key();
    pInfo = candidate.Info();
    // One signal wakes one thread, and it may have been for one of those that are left.
    if (pInfo != nullptr && (bOthersLeft || candidate.HasSeenOthers()))
        SignalWork();
    return pInfo != nullptr ? 0 : -1;
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
        if (pInfo != nullptr && IsBusy(*pInfo))
        {
            ++it; // the threads have been resumed meanwhile, and one of them holds it
            continue;
        }
        if (pInfo != nullptr && pInfo->pConnector != nullptr)
        {
            pInfo->pConnector->SetDisconnectedUnlessOpen();
            ReleaseConnectorImplDecRef(pInfo->pConnector);
        }
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
    int nFree = 0;
    const TarnGuard guard(*m_pConnectQuequeMutex);
    for (const auto& [key, pInfo] : *m_pConnectQueque)
    {
        if (pInfo != nullptr && !IsBusy(*pInfo))
            ++nFree;
    }
    return nFree;
}
