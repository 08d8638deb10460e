#include "asyncio/TEAsyncIOMgrImpl.h"
#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "core/LogArguments.h"
#include "core/Settings.h"
#include "platform/tarnplatform.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/tarnbaseutil.h"

#include <ace/OS_NS_sys_time.h>

#include <new>
#include <utility>

bool TarnConnectorMgrImpl::WaitConnectTarget(TarnConnectorImpl* pConnector, int nAttempts)
{
    if (pConnector == nullptr || nAttempts < 1)
    {
        TarnAdapterFrmtTrace(
            1,
            "TarnConnectorMgrImpl::WaitConnectTarget error, input para pConnectorImpl= 0x%x, "
            "iWaitConnectCount = %d\n",
            Low32(pConnector), nAttempts);
        return false;
    }
    const int iConnTimeOut = pConnector->GetConnTimeOut();
    int nFailed = 0;
    const bool bDone = TryConnectTarget(pConnector, nAttempts, nFailed);
    pConnector->SetConnTimeOut(iConnTimeOut);
    if (!bDone)
        TarnAdapterFrmtTrace(
            1, "Wait for connecting the Target (GRPID:%d,TARGETID:0x%x) %d times, but failed.\n",
            pConnector->GetGroupID(), pConnector->GetTargetID(), nFailed);
    return bDone;
}

/// @param nFailed  counts the attempts that fail
/// @return true when one has succeeded, or none was made because the connection is not to be open
bool TarnConnectorMgrImpl::TryConnectTarget(TarnConnectorImpl* pConnector, int nAttempts, int& nFailed)
{
    constexpr int ATTEMPT_SECONDS = 4;
    constexpr DWORD PAUSE_MS = 1000;
    while (nFailed < nAttempts)
    {
        pConnector->SetConnTimeOut(ATTEMPT_SECONDS);
        TarnAdapterFrmtTrace(1, "... Wait for connecting the Target 0x%x ... ...\n",
                             pConnector->GetTargetID());
        if (pConnector->IsUnwanted())
        {
            TarnAdapterFrmtTrace(1, "EXIT_CONNECT FLAG = true,before connect;\n");
            pConnector->SetDisconnectedIfConnected();
            return nFailed == 0;
        }
        if (pConnector->ConnectQueued() == 0)
        {
            FinishOpened(pConnector);
            return true;
        }
        ++nFailed;
        if (pConnector->IsUnwanted())
        {
            pConnector->SetDisconnectedIfConnected();
            return false;
        }
        // The stop waits for this thread if it is one of the library's.
        if (m_bStopping || TarnAppIsExit())
            return false;
        Sleep(PAUSE_MS);
    }
    return false;
}

/// After a successful attempt: serves the connection, unless it is not to be open any more.
void TarnConnectorMgrImpl::FinishOpened(TarnConnectorImpl* pConnector)
{
    pConnector->SetConnectCount(0);
    if (pConnector->IsUnwanted())
        CloseForRequest(pConnector);
    else if (Serve(pConnector))
        return;
    RenewRequest(pConnector);
}

/// Has an open connection served and announced, once for each opening.
/// @return false: it has been closed in between
bool TarnConnectorMgrImpl::Serve(TarnConnectorImpl* pConnector)
{
    const std::uint32_t ulSession = pConnector->ClaimOpened();
    if (ulSession == 0)
        return pConnector->OpenSession() != 0;
    TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing();
    const int iRegistered = pAsyncIOMgr != nullptr ? pAsyncIOMgr->RegisterSession(pConnector, ulSession) : -1;
    pConnector->PostOpened();
    if (iRegistered != 0)
        pConnector->BreakUnserved(ulSession);
    return true;
}

int TarnConnectorMgrImpl::RequestConnect(int iGroupId, unsigned long ulTargetID)
{
    const auto ulTarget = static_cast<std::uint32_t>(ulTargetID);
    TarnConnectorImpl* pConnector = GetConnectorImplByID(iGroupId, ulTarget);
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(1,
                             "TarnConnectorMgrImpl::RequestConnect error, pConnectorImpl=null, groupID = %d, "
                             "targetID = 0x%x \n",
                             iGroupId, ulTarget);
        return -1;
    }
    const int iResult = RequestConnect(pConnector);
    ReleaseConnectorImplDecRef(pConnector);
    return iResult;
}

int TarnConnectorMgrImpl::RequestConnect(TarnConnectorImpl* pConnector)
{
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(1,
                             "TarnConnectorMgrImpl::RequestConnect error, input para pConnectorImpl=null\n");
        return -1;
    }
    if (pConnector->IsLeaving())
    {
        TarnAdapterFrmtTrace(
            1,
            "TarnConnectorMgrImpl::RequestConnect refused, the connector is being unregistered, "
            "groupID = %d, targetID = 0x%x\n",
            pConnector->GetGroupID(), pConnector->GetTargetID());
        return -1;
    }
    pConnector->ChangeControlFlag(0, EXIT_CONNECT);
    if (!pConnector->IsControlParaTrue(AUTO_CONNECT))
        return -1;
    const auto isOpenOrQueued = [pConnector] {
        const EConnectState eState = pConnector->GetState();
        return eState == STATE_CONNECTED || eState == STATE_CONNECTING;
    };
    if (isOpenOrQueued() || EnqueueReadyConnQueue(pConnector, false) >= 0)
        return 0;
    return isOpenOrQueued() ? 0 : -1; // another thread may have been faster
}

/// A request to connect that came while the connection was being closed, abandoned or cancelled found nothing
/// to do; it is made up for once the state is plain.
void TarnConnectorMgrImpl::RenewRequest(TarnConnectorImpl* pConnector)
{
    if (pConnector->IsControlParaTrue(AUTO_CONNECT) && !pConnector->IsUnwanted())
        EnqueueReadyConnQueue(pConnector, false);
}

int TarnConnectorMgrImpl::EnqueueReadyConnQueue(TarnConnectorImpl* pConnector, bool bReconnect)
{
    if (Settings().bNoNeReconnect && bReconnect)
        return 0;
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(
            1, "TarnConnectorMgrImpl::EnqueueReadyConnQueue error, input para pConnectorImpl=null\n");
        return -1;
    }
    if (!pConnector->IsControlParaTrue(AUTO_CONNECT) || pConnector->IsUnwanted())
        return -1;
    if (pConnector->GetState() != STATE_DISCONNECTED)
        return -1;
    auto* pInfo = new (std::nothrow) CConnectorImplInfo(pConnector, ACE_OS::gettimeofday(), bReconnect);
    if (pInfo == nullptr)
    {
        TarnAdapterFrmtTrace(1, "new CConnectorImplInfo error \n");
        return -1;
    }
    const int iPut = putConnectTarget(KeyOf(*pConnector), pInfo);
    if (iPut != 0)
    {
        delete pInfo;
        return iPut > 0 ? 0 : -1;
    }
    EnsureConnectThread();
    return 0;
}

int TarnConnectorMgrImpl::RequestDisConnect(int iGroupId, unsigned long ulTargetID)
{
    const auto ulTarget = static_cast<std::uint32_t>(ulTargetID);
    TarnConnectorImpl* pConnector = GetConnectorImplByID(iGroupId, ulTarget);
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(
            1,
            "TarnConnectorMgrImpl::RequestDisConnect error, pConnectorImpl=null, groupID = %d, "
            "targetID = 0x%x \n",
            iGroupId, ulTarget);
        return -1;
    }
    const int iResult = RequestDisConnect(pConnector);
    ReleaseConnectorImplDecRef(pConnector);
    return iResult;
}

int TarnConnectorMgrImpl::RequestDisConnect(TarnConnectorImpl* pConnector)
{
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(
            1, "TarnConnectorMgrImpl::RequestDisConnect error, input para pConnectorImpl=null\n");
        return -1;
    }
    pConnector->ChangeControlFlag(EXIT_CONNECT, 0);
    return CloseWhile(pConnector, &TarnConnectorImpl::IsUnwanted);
}

/// Closes a connection, or ends the attempts to open it, as long as that is wanted.
int TarnConnectorMgrImpl::CloseWhile(TarnConnectorImpl* pConnector,
                                     bool (TarnConnectorImpl::*pfnWanted)() const)
{
    constexpr auto RECORD_WAIT = std::chrono::milliseconds(1000);
    TarnAdapterFrmtTrace(1, "TarnConnectorMgrImpl::RequestDisConnect begin, groupID=%d, targetID=%d\n",
                         pConnector->GetGroupID(), AsInt(pConnector->GetTargetID()));
    if (TEAsyncIOMgrImpl::Existing() == nullptr)
        return -1;
    bool bGoOn = true;
    bool bAsked = false;
    // Ends also when a later request to connect has cleared the flag.
    while (bGoOn && (pConnector->*pfnWanted)())
    {
        const std::uint64_t uFreed = m_RecordFreed.Get();
        const EConnectState eState = pConnector->GetState();
        bGoOn = eState == STATE_CONNECTING;
        if (eState == STATE_CONNECTED)
        {
            CloseForRequest(pConnector);
            bGoOn =
                pConnector->GetState() == STATE_CONNECTING; // opened while it was queued, and queued still
            continue;
        }
        if (!bGoOn)
            break;
        const int iCancelled = CancelRequestConnect(pConnector);
        // Who pauses until the record is due lets go of it at once; asked more often, all would during an attempt.
        if (iCancelled == -1 && !std::exchange(bAsked, true))
            m_PauseOver.Raise();
        if (iCancelled == -1)
            m_RecordFreed.WaitBeyond(uFreed, RECORD_WAIT);
        bGoOn = iCancelled != -2;
    }
    RenewRequest(pConnector);
    TarnAdapterFrmtTrace(1, "TarnConnectorMgrImpl::RequestDisConnect end, groupID=%d, targetID=%d\n",
                         pConnector->GetGroupID(), AsInt(pConnector->GetTargetID()));
    return 0;
}

void TarnConnectorMgrImpl::CloseForRequest(TarnConnectorImpl* pConnector)
{
    const std::uint32_t ulSession = pConnector->OpenSession();
    if (ulSession == 0)
    {
        pConnector->SetDisconnectedIfConnected();
        return;
    }
    // An attempt that has just succeeded, and was not announced before the claim, is not announced any more.
    const bool bAuto = pConnector->IsControlParaTrue(AUTO_CONNECT);
    const BreakClaim eClaim =
        pConnector->ClaimBreak(ulSession, bAuto ? BreakTold::IF_OPENING_WAS : BreakTold::YES);
    TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing();
    if (pAsyncIOMgr != nullptr && pConnector->IsRegistered())
        pAsyncIOMgr->UnregisterSession(pConnector, ulSession); // not one that has been opened meanwhile
    pConnector->CloseSession(ulSession);
    if (eClaim == BreakClaim::TELL)
        pConnector->PostBroken(HookEvent::BROKEN);
}

int TarnConnectorMgrImpl::CancelRequestConnect(TarnConnectorImpl* pConnector)
{
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(
            1, "TarnConnectorMgrImpl::CancelRequestConnect error, input para pConnectorImpl=null\n");
        return -2;
    }
    const int iGroupId = pConnector->GetGroupID();
    const int iTargetID = AsInt(pConnector->GetTargetID());
    TarnAdapterFrmtTrace(1, "TarnConnectorMgrImpl::CancelRequestConnect begin, groupID=%d, targetID=%d\n",
                         iGroupId, iTargetID);
    std::unique_ptr<CConnectorImplInfo> pRemoved;
    {
        const TarnGuard guard(*m_pConnectQuequeMutex);
        const auto it = m_pConnectQueque->find({{iGroupId, pConnector->GetTargetID()}, pConnector});
        if (it == m_pConnectQueque->end())
        {
            TarnAdapterFrmtTrace(1,
                                 "TarnConnectorMgrImpl::CancelRequestConnect findConnectTarget error, "
                                 "groupID=%d, targetID=%d\n",
                                 iGroupId, iTargetID);
            if (pConnector->GetState() != STATE_CONNECTING)
                return 1;
            TarnAdapterFrmtTrace(
                1,
                "TarnConnectorMgrImpl::CancelRequestConnect find ConnectTarget error, state is "
                "Connecting, groupID=%d, targetID=%d\n",
                iGroupId, iTargetID);
            return -2;
        }
        if (it->second == nullptr)
        {
            TarnAdapterFrmtTrace(1,
                                 "TarnConnectorMgrImpl::CancelRequestConnect pConnectImplInfo is NULL, "
                                 "groupID=%d, targetID=%d\n",
                                 iGroupId, iTargetID);
            return 1;
        }
        const TarnWriteGuard recordGuard(it->second->lock);
        if (it->second->bBusy)
        {
            TarnAdapterFrmtTrace(1,
                                 "TarnConnectorMgrImpl::CancelRequestConnect pconnect in connect thread, "
                                 "groupID=%d, targetID=%d\n",
                                 iGroupId, iTargetID);
            return -1;
        }
        TarnAdapterFrmtTrace(1,
                             "TarnConnectorMgrImpl::CancelRequestConnect delete connector from connectqueue, "
                             "groupID=%d, targetID=%d\n",
                             iGroupId, iTargetID);
        m_FreeTargets.erase(it->second->AsFree(it->first));
        it->second->bBusy = true;
        pRemoved.reset(it->second);
        m_pConnectQueque->erase(it);
        pConnector->SetDisconnectedUnlessOpen();
    }
    ReleaseConnectorImplDecRef(pConnector);
    return 0;
}
