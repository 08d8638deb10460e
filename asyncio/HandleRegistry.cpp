#include "asyncio/TEAsyncIOMgrImpl.h"
#include "asyncio/TEIOReactor.h"
#include "connection/HandlerCall.h"
#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "platform/tarnplatform.h"
#include "tarnadapterframe/AdapterTypes.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <ace/Flag_Manip.h>

#include <cerrno>

int TEAsyncIOMgrImpl::SendToOutBuffer(ACE_HANDLE handle, const char* pData, int iLength)
{
    if (pData == nullptr)
    {
        TarnAdapterFrmtTrace(2, "TEAsyncIOMgrImpl::SendToOutBuffer error, input para pData=null\n");
        return ADAPTER_ERR_NULL_DATA;
    }
    TarnConnectorImpl* pConnector = FindConnectorImpl(handle);
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(2, " Handle:0x%x not registed! \n", handle);
        return ADAPTER_ERR_INVALID_HANDLE;
    }
    const int iResult = pConnector->GetHandle() == ACE_INVALID_HANDLE
                            ? static_cast<int>(ADAPTER_ERR_INVALID_HANDLE)
                            : pConnector->AddAndSendData(pData, iLength);
    TarnConnectorMgrImpl::ReleaseConnectorImplDecRef(pConnector);
    return iResult;
}

TarnConnectorImpl* TEAsyncIOMgrImpl::FindConnectorImpl(ACE_HANDLE handle)
{
    const TarnGuard guard(m_RegistryLock);
    const auto it = m_mapConnector.find(handle);
    if (it == m_mapConnector.end() || it->second == nullptr)
        return nullptr;
    TarnConnectorMgrImpl::UseConnectorImplAndIncRef(it->second);
    return it->second;
}

int TEAsyncIOMgrImpl::RegisterHandle(TarnConnectorImpl* pConnector)
{
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(2, "TEAsyncIOMgrImpl::RegisterHandle, NULL TarnConnectorImpl \n");
        return -1;
    }
    return Register(*pConnector, nullptr);
}

int TEAsyncIOMgrImpl::RegisterSession(TarnConnectorImpl* pConnector, std::uint32_t ulSession)
{
    return Register(*pConnector, &ulSession);
}

int TEAsyncIOMgrImpl::Register(TarnConnectorImpl& connector, const std::uint32_t* pOnlySession)
{
    if (!WaitForOldCalls(connector, pOnlySession))
    {
        TarnAdapterFrmtTrace(1,
                             "TEAsyncIOMgrImpl::RegisterHandle refused, a call of the connection's last "
                             "registration is under way, groupid = %d,targetID = 0x%x\n",
                             connector.GetGroupID(), connector.GetTargetID());
        return ADAPTER_ERR_REACTOR;
    }
    const StopGate::Pass pass(m_RegisterGate);
    if (!pass || connector.IsRetired())
    {
        TarnAdapterFrmtTrace(1,
                             "TEAsyncIOMgrImpl::RegisterHandle refused, %s, groupid = %d,targetID = 0x%x\n",
                             pass ? "the connection is retired" : "the engine is being stopped",
                             connector.GetGroupID(), connector.GetTargetID());
        return ADAPTER_ERR_REACTOR;
    }
    const TarnGuard guard(connector.RegistrationMutex());
    const DescriptorGuard::Use use(connector.Descriptor());
    return RegisterOpenHandle(connector, pOnlySession);
}

/// An old call may still be framing, or inside a hook, when its connection has been opened again. It must have
/// left before the next one begins. A connect thread outside of hooks waits for it as long as the session is open;
/// anybody else for a bounded time: the call may be waiting for room in a queue that the waiting thread should
/// empty, or for a call of the waiting thread's own.
bool TEAsyncIOMgrImpl::WaitForOldCalls(TarnConnectorImpl& connector, const std::uint32_t* pOnlySession)
{
    constexpr auto POLL = std::chrono::milliseconds(1000);
    constexpr int MAX_POLLS = 5;
    const HandlerCall* pOwn = HandlerCall::CurrentOf(connector);
    if (pOwn != nullptr && pOwn->IsInBuffers())
        return false;
    const bool bBounded = pOnlySession == nullptr || !TarnConnectorMgrImpl::IsConnectThread() ||
                          !TarnConnectorMgrImpl::MayWaitForHooks();
    for (int iPoll = 1; !connector.IsServed() && !connector.WaitForOldCalls(POLL); ++iPoll)
    {
        const TarnConnectorMgrImpl* pConnectorMgr = TarnConnectorMgrImpl::Existing();
        if (m_RegisterGate.IsShut() || pConnectorMgr == nullptr)
            return false;
        if (bBounded ? iPoll >= MAX_POLLS : pConnectorMgr->AreThreadsToEnd())
            return false;
        if (pOnlySession != nullptr && connector.OpenSession() != *pOnlySession)
            return false;
        TarnAdapterFrmtTrace(
            3, "TEAsyncIOMgrImpl::RegisterHandle, waiting for a call of the last registration\n");
    }
    return true;
}

/// With the connection's descriptor guard held (read).
int TEAsyncIOMgrImpl::RegisterOpenHandle(TarnConnectorImpl& connector, const std::uint32_t* pOnlySession)
{
    const ACE_HANDLE handle = connector.GetHandle();
    if (handle == ACE_INVALID_HANDLE || (pOnlySession != nullptr && !connector.IsSession(*pOnlySession)))
    {
        TarnAdapterFrmtTrace(2, "RegisterHandle handle == null \n");
        return ADAPTER_ERR_INVALID_HANDLE;
    }
    const int iInserted = InsertConnection(handle, connector);
    if (iInserted != 0 || connector.GetCommuProtType() == SERIAL_TYPE)
        return iInserted;
    ACE::set_flags(handle, ACE_NONBLOCK);
    TarnAdapterFrmtTrace(3, "Regist handle = 0x%x,targetID = 0x%x\n", handle, connector.GetTargetID());
    return RegisterInReactor(handle, connector);
}

int TEAsyncIOMgrImpl::InsertConnection(ACE_HANDLE handle, TarnConnectorImpl& connector)
{
    return WithMemory("RegisterHandle", -1, [&] {
        const TarnGuard guard(m_RegistryLock);
        if (!m_mapConnector.emplace(handle, &connector).second)
        {
            TarnAdapterFrmtTrace(2, "when Register handle 0x%x,hanlde is already registed \n", handle);
            return -1;
        }
        TarnConnectorMgrImpl::UseConnectorImplAndIncRef(&connector);
        connector.SetRegistered(true);
        return 0;
    });
}

int TEAsyncIOMgrImpl::RegisterInReactor(ACE_HANDLE handle, TarnConnectorImpl& connector)
{
    // Before the reactor has it: from then on it may be called, break, and be released.
    connector.TakeReactorReference();
    connector.SetServed(true);
    TEIOReactor* pReactor = m_pReactorImpl;
    errno = ENOTSUP;
    const int iResult =
        pReactor == nullptr
            ? -1
            : pReactor->register_handler(handle, &connector,
                                         ACE_Event_Handler::READ_MASK | ACE_Event_Handler::WRITE_MASK);
    if (iResult == 0)
        return 0;
    const int iError = errno;
    connector.SetServed(false);
    connector.ReleaseReactorReference();
    errno = iError;
    return TakeBackRegistration(handle, iResult);
}

int TEAsyncIOMgrImpl::TakeBackRegistration(ACE_HANDLE handle, int iResult)
{
    TarnAdapterFrmtTrace(1, "Register handle err : %d  errno %d\n", iResult, errno);
    const TarnGuard guard(m_RegistryLock);
    const auto it = m_mapConnector.find(handle);
    if (it != m_mapConnector.end())
    {
        TarnConnectorImpl* pConnector = it->second;
        m_mapConnector.erase(it);
        pConnector->SetRegistered(false);
        TarnConnectorMgrImpl::ReleaseConnectorImplDecRef(pConnector);
    }
    else
        TarnAdapterFrmtTrace(1, "when Register handle to reactor failed 0x%x,but handle is not in map \n",
                             handle);
    return ADAPTER_ERR_REACTOR;
}

int TEAsyncIOMgrImpl::UnregisterHandle(TarnConnectorImpl* pConnector)
{
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(2, "TEAsyncIOMgrImpl::UnregisterHandle error, input para pConnectorImpl=null\n");
        return -1;
    }
    const TarnGuard guard(pConnector->RegistrationMutex());
    UnregisterLocked(*pConnector);
    return 0;
}

void TEAsyncIOMgrImpl::UnregisterSession(TarnConnectorImpl* pConnector, std::uint32_t ulSession)
{
    const TarnGuard guard(pConnector->RegistrationMutex());
    if (pConnector->IsSession(ulSession))
        UnregisterLocked(*pConnector);
}

void TEAsyncIOMgrImpl::UnregisterIfLeaving(TarnConnectorImpl& connector)
{
    const TarnGuard guard(connector.RegistrationMutex());
    if (connector.IsLeaving())
        UnregisterLocked(connector);
}

void TEAsyncIOMgrImpl::UnregisterLocked(TarnConnectorImpl& connector)
{
    const DescriptorGuard::Use use(connector.Descriptor());
    const ACE_HANDLE handle = connector.GetHandle();
    connector.SetServed(false);
    const bool bOurs = EraseConnection(handle, connector);
    if (connector.GetCommuProtType() == SERIAL_TYPE || handle == ACE_INVALID_HANDLE || !bOurs)
        return;
    TarnAdapterFrmtTrace(3, "time:%d, begin Unregister handle:0x%x, Target:0x%x.\n", AsInt(GetTickCount()),
                         handle, connector.GetTargetID());
    RemoveFromReactor(handle, connector);
    TarnAdapterFrmtTrace(3, "time:%d, finish Unregister handle:0x%x, handler:0x%x.\n", AsInt(GetTickCount()),
                         handle, Low32(&connector));
}

/// @return false when the handle is registered for another connection, which is none of ours to take out
bool TEAsyncIOMgrImpl::EraseConnection(ACE_HANDLE handle, TarnConnectorImpl& connector)
{
    const TarnGuard guard(m_RegistryLock);
    if (handle == ACE_INVALID_HANDLE)
    {
        TarnAdapterFrmtTrace(2, "TEAsyncIOMgrImpl::UnregisterHandle, invalid handle\n");
        for (auto it = m_mapConnector.begin(); it != m_mapConnector.end(); ++it)
        {
            if (it->second != &connector)
                continue;
            m_mapConnector.erase(it);
            connector.SetRegistered(false);
            TarnAdapterFrmtTrace(
                1,
                "UnregisterHandle, handle = -1,but find handle in the map,,groupid = %d,targetID "
                "= 0x%x \n",
                connector.GetGroupID(), connector.GetTargetID());
            TarnConnectorMgrImpl::ReleaseConnectorImplDecRef(&connector);
            break;
        }
        return true;
    }
    const auto it = m_mapConnector.find(handle);
    if (it != m_mapConnector.end() && it->second == &connector)
    {
        m_mapConnector.erase(it);
        connector.SetRegistered(false);
        TarnConnectorMgrImpl::ReleaseConnectorImplDecRef(&connector);
        return true;
    }
    TarnAdapterFrmtTrace(
        1,
        "UnregisterHandle, cannot find handle in the map,handle = 0x%x,groupid = %d,targetID = "
        "0x%x \n",
        handle, connector.GetGroupID(), connector.GetTargetID());
    return it == m_mapConnector.end();
}

void TEAsyncIOMgrImpl::RemoveFromReactor(ACE_HANDLE handle, TarnConnectorImpl& connector)
{
    TEIOReactor* pReactor = m_pReactorImpl;
    errno = pReactor != nullptr ? ENOENT : ENOTSUP;
    // Without the reference, who is registered under the number is somebody else.
    const int iResult = pReactor != nullptr && connector.IsReferredToByReactor()
                            ? pReactor->remove_handler(handle, ACE_Event_Handler::ALL_EVENTS_MASK)
                            : -1;
    if (iResult != 0)
        TarnAdapterFrmtTrace(1, "UnregisterHandle,remove_handler error,handle = 0x%x,iRet = %d,errno = %d\n",
                             handle, iResult, errno);
    connector.ReleaseReactorReference();
}

void TEAsyncIOMgrImpl::ReportDropped(TarnConnectorImpl& connector)
{
    const bool bNoted = WithMemory("TEAsyncIOMgrImpl::ReportDropped", false, [&] {
        const std::lock_guard<std::mutex> guard(m_DroppedMutex);
        m_Dropped.push_back(&connector);
        TarnConnectorMgrImpl::UseConnectorImplAndIncRef(&connector);
        m_bDropped = true;
        return true;
    });
    if (!bNoted)
        return;
    if (TEIOReactor* pReactor = m_pReactorImpl)
        pReactor->Wake(); // whoever returns comes by BreakDropped
}

void TEAsyncIOMgrImpl::BreakDropped()
{
    if (!m_bDropped)
        return;
    const ActiveThreads::Turn turn;
    std::vector<TarnConnectorImpl*> dropped;
    {
        const std::lock_guard<std::mutex> guard(m_DroppedMutex);
        dropped.swap(m_Dropped);
        m_bDropped = false;
    }
    for (TarnConnectorImpl* pConnector : dropped)
    {
        pConnector->BreakServed();
        TarnConnectorMgrImpl::ReleaseConnectorImplDecRef(pConnector);
    }
}
