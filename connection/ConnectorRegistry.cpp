#include "asyncio/TEAsyncIOMgrImpl.h"
#include "connection/ConnectionPin.h"
#include "connection/ConnectorUses.h"
#include "connection/HandlerCall.h"
#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "core/ActiveThreads.h"
#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/TarnConnector.h"

#include <optional>
#include <typeinfo>

namespace {

// Hooks that the calling thread is inside of.
thread_local int t_nHookDepth = 0;
// Connectors that it has got and not released.
thread_local int t_nLentDepth = 0;

constexpr auto HOOK_POLL = std::chrono::seconds(1);

/// Guards the counts of hooks under way in all facades, and wakes who waits for the end of uses: a facade that is
/// destroyed waits for its own, when there may be no manager any more. A leaf. Never destroyed.
struct HookCounting
{
    std::mutex mutex;
    std::condition_variable left;
    std::atomic<int> nWaiting{0}; // set before a count is looked at, so that who releases last sees it
};

HookCounting& Hooks()
{
    static auto& counting = *new HookCounting;
    return counting;
}

void LogHookWait(int nHooks, int nLent)
{
    TarnAdapterFrmtTrace(
        3,
        "TarnConnectorMgrImpl::UnRegisterConnector, waiting for a hook to return, or for who has got "
        "the connector, hooks = %d, users = %d\n",
        nHooks, nLent);
}

class HookDepth
{
public:
    HookDepth() { ++t_nHookDepth; }
    ~HookDepth() { --t_nHookDepth; }
    HookDepth(const HookDepth&) = delete;
    HookDepth& operator=(const HookDepth&) = delete;
};

std::uint32_t TargetId(unsigned long ulTargetID)
{
    return static_cast<std::uint32_t>(ulTargetID);
}

} // namespace

/// The use lock is handed out and comes back by ReleaseConnector, which no analysis of one function can follow.
/// Nobody takes it in write mode, so it is had without waiting, and there is no order with other locks.
void TarnConnectorMgrImpl::AcquireUse(TarnConnector& connector)
{
    if (connector.m_UseLock.tryacquire_read() == -1)
        connector.m_UseLock.acquire_read(); // interrupted, at most
}

void TarnConnectorMgrImpl::ReleaseUse(TarnConnector& connector)
{
    connector.m_UseLock.release();
}

/// A connector in use for the call of a hook, and counted, so that its unregistration waits for the call.
class TarnConnectorMgrImpl::HookUse
{
public:
    HookUse(TarnConnectorMgrImpl& manager, const ConnectionKey& key, const TarnConnectorImpl* pOnly)
    {
        const TarnReadGuard guard(manager.m_RegistryLock);
        const auto it = manager.m_mapConnector.find(key);
        if (it == manager.m_mapConnector.end() ||
            (pOnly != nullptr && it->second.pConnector->GetTarnConnectorImpl() != pOnly))
            return;
        m_pConnector = it->second.pConnector;
        m_pUses = m_pConnector->m_pUses;
        AcquireUse(*m_pConnector);
        const std::lock_guard<std::mutex> hookGuard(Hooks().mutex);
        ++m_pUses->nHooks;
    }
    ~HookUse()
    {
        if (m_pConnector == nullptr)
            return;
        ReleaseUse(*m_pConnector);
        const std::lock_guard<std::mutex> hookGuard(Hooks().mutex);
        --m_pUses->nHooks; // once the lock is released the connector may be gone
        Hooks().left.notify_all();
    }
    HookUse(const HookUse&) = delete;
    HookUse& operator=(const HookUse&) = delete;

    TarnConnector* Get() const { return m_pConnector; }

private:
    TarnConnector* m_pConnector = nullptr;
    std::shared_ptr<ConnectorUses> m_pUses;
};

int TarnConnectorMgrImpl::RegisterConnector(TarnConnector* pConnector, bool bWait, int iWaitConnectCount)
{
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(1,
                             "TarnConnectorMgrImpl::RegisterConnector error, input para pConnector=null\n");
        return -1;
    }
    const ConnectionPin pin(*pConnector,
                            "TarnConnectorMgrImpl::RegisterConnector error, pConnectorImpl= null\n");
    if (!pin)
        return -1;
    if (RegistConnectorImpl(pConnector, *pin.Get()) != 0)
        return -1;
    const int iResult = OpenRegistered(pin.Get(), bWait, iWaitConnectCount);
    if (iResult != 0)
        TarnAdapterFrmtTrace(
            2,
            "TarnConnectorMgrImpl::RegisterConnector failed with 0x%x, the key stays registered, "
            "groupId = %d, targetId = 0x%x\n",
            static_cast<unsigned>(iResult), pin->GetGroupID(), pin->GetTargetID());
    return iResult;
}

int TarnConnectorMgrImpl::RegistConnectorImpl(TarnConnector* pConnector, TarnConnectorImpl& connection)
{
    const int iGroupId = connection.GetGroupID();
    const std::uint32_t ulTargetID = connection.GetTargetID();
    if (iGroupId < 0)
    {
        TarnAdapterFrmtTrace(1, "RegistConnectorImpl error, iGroupId = %d,iTargetID = 0x%x \n", iGroupId,
                             ulTargetID);
        return -1;
    }
    return WithMemory("RegisterConnector", -1, [&] {
        const TarnWriteGuard guard(m_RegistryLock);
        const bool bNew =
            m_mapConnector
                .emplace(ConnectionKey{iGroupId, ulTargetID}, Registration{pConnector, ++m_uRegistrations})
                .second;
        if (bNew)
            connection.SetLeaving(false); // before anybody can find it and unregister it again
        TarnAdapterFrmtTrace(
            1,
            bNew ? "RegistConnectorImpl success, groupId = %d, targetId = 0x%x \n"
                 : "RegistConnectorImpl failed , regist again!, groupId = %d, targetId = 0x%x \n",
            iGroupId, ulTargetID);
        return bNew ? 0 : -1;
    });
}

/// Opens a connection, or has it opened, that has just been registered; or serves one that is open.
int TarnConnectorMgrImpl::OpenRegistered(TarnConnectorImpl* pConnector, bool bWait, int iWaitConnectCount)
{
    if (!pConnector->IsControlParaTrue(AUTO_CONNECT))
    {
        TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing();
        const int iResult = pAsyncIOMgr != nullptr ? pAsyncIOMgr->RegisterHandle(pConnector) : -1;
        if (iResult != 0 || !pConnector->IsLeaving())
            return iResult;
        pAsyncIOMgr->UnregisterIfLeaving(*pConnector); // unregistered meanwhile
        return -1;
    }
    if (!bWait && pConnector->OpenSession() != 0)
        TarnAdapterFrmtTrace(
            2,
            "TarnConnectorMgrImpl::RegisterConnector, the connection is open already and not served, "
            "groupId = %d, targetId = 0x%x\n",
            pConnector->GetGroupID(), pConnector->GetTargetID());
    if (!bWait)
        return RequestConnect(pConnector);
    if (WaitConnectTarget(pConnector, iWaitConnectCount))
        return 0;
    return EnqueueReadyConnQueue(pConnector, true);
}

int TarnConnectorMgrImpl::UnRegisterConnector(int iGroupId, unsigned long ulTargetID)
{
    const ConnectionKey key{iGroupId, TargetId(ulTargetID)};
    if (iGroupId < 0)
    {
        TarnAdapterFrmtTrace(
            1, "TarnConnectorMgrImpl::UnRegisterConnector, para error, iGroupId = %d, iTargetID = 0x%x\n",
            iGroupId, key.ulTargetID);
        return -1;
    }
    constexpr const char* NOT_FOUND =
        "UnRegisterConnector failed ! cannot find TarnConnectorImpl, groupId = %d, TargetId = 0x%x\n";
    Registration registration{};
    std::shared_ptr<ConnectorUses> pUses;
    std::optional<ConnectionPin> pin;
    {
        const TarnReadGuard guard(m_RegistryLock);
        const auto it = m_mapConnector.find(key);
        if (it == m_mapConnector.end())
        {
            TarnAdapterFrmtTrace(1, NOT_FOUND, iGroupId, key.ulTargetID);
            return -1;
        }
        registration = it->second;
        pUses = registration.pConnector->m_pUses;
        pin.emplace(*registration.pConnector, nullptr);
        if (*pin)
        {
            // Within the lock: whoever registers it again takes both back.
            (*pin)->SetLeaving(true);
            if ((*pin)->IsControlParaTrue(AUTO_CONNECT))
                (*pin)->ChangeControlFlag(EXIT_CONNECT, 0);
        }
    }
    if (!*pin)
    {
        TarnAdapterFrmtTrace(1,
                             "UnRegisterConnector failed ! find TarnConnectorImpl,but is NULL, groupId = %d, "
                             "TargetId = 0x%x\n",
                             iGroupId, key.ulTargetID);
        return -1;
    }
    if ((*pin)->IsControlParaTrue(AUTO_CONNECT))
        CloseWhile(pin->Get(), &TarnConnectorImpl::IsLeaving);
    else if (TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing())
        pAsyncIOMgr->UnregisterIfLeaving(*pin->Get());
    // What has happened is told as long as the connector can be found.
    while (MayWaitForHooks() && !(*pin)->WaitForHooks(HOOK_POLL))
        LogHookWait(1, 0);
    if (!RemoveConnector(key, registration.uNumber)) // another thread has been faster
        TarnAdapterFrmtTrace(1, NOT_FOUND, iGroupId, key.ulTargetID);
    WaitForUses(*pUses);
    TarnAdapterFrmtTrace(1, "UnRegisterConnector sucess ! groupId = %d, TargetId = 0x%x\n", iGroupId,
                         key.ulTargetID);
    return 0;
}

/// @return false when another thread has been faster; the key may be another connector's by now, or registered anew
bool TarnConnectorMgrImpl::RemoveConnector(const ConnectionKey& key, std::uint64_t uNumber)
{
    const TarnWriteGuard guard(m_RegistryLock);
    const auto it = m_mapConnector.find(key);
    if (it == m_mapConnector.end() || it->second.uNumber != uNumber)
        return false;
    m_mapConnector.erase(it);
    return true;
}

/// A thread inside a hook does not wait for hooks: two of them might wait for each other. Nor does one inside
/// a reactor's call, for which a hook may be waiting.
bool TarnConnectorMgrImpl::MayWaitForHooks()
{
    return t_nHookDepth == 0 && HandlerCall::Current() == nullptr;
}

void TarnConnectorMgrImpl::WaitForUses(const TarnConnector& connector)
{
    WaitForUses(*connector.m_pUses);
}

void TarnConnectorMgrImpl::WaitForUses(const ConnectorUses& uses)
{
    if (!MayWaitForHooks())
        return;
    ++Hooks().nWaiting;
    {
        const auto bUnused = [&] { return uses.nHooks == 0 && (t_nLentDepth > 0 || uses.nLent == 0); };
        std::unique_lock<std::mutex> lock(Hooks().mutex);
        if (!bUnused())
            ActiveThreads::NoteBlocked();
        while (!Hooks().left.wait_for(lock, HOOK_POLL, bUnused))
        {
            const int nHooks = uses.nHooks;
            lock.unlock(); // a host's log may take its time
            LogHookWait(nHooks, uses.nLent);
            lock.lock();
        }
    }
    --Hooks().nWaiting;
}

TarnConnector* TarnConnectorMgrImpl::GetConnectorByID(int iGroupId, unsigned long ulTargetID)
{
    const ConnectionKey key{iGroupId, TargetId(ulTargetID)};
    if (iGroupId < 0)
    {
        TarnAdapterFrmtTrace(
            1, "TarnConnectorMgrImpl::GetConnectorByID, para error, iGroupId = %d, iTargetID = 0x%x \n",
            iGroupId, key.ulTargetID);
        return nullptr;
    }
    const TarnReadGuard guard(m_RegistryLock);
    const auto it = m_mapConnector.find(key);
    if (it == m_mapConnector.end())
        return nullptr;
    return Lend(*it->second.pConnector);
}

/// Under the registry lock, so that it is not unregistered meanwhile.
TarnConnector* TarnConnectorMgrImpl::Lend(TarnConnector& connector)
{
    AcquireUse(connector);
    ++connector.m_pUses->nLent;
    ++t_nLentDepth;
    return &connector;
}

TarnConnector* TarnConnectorMgr::GetFramedConnector(std::size_t& uStale)
{
    const HandlerCall* pCall = HandlerCall::Current();
    TarnConnectorMgrImpl* pConnectorMgr = TarnConnectorMgrImpl::Existing();
    if (pCall == nullptr || !pCall->IsInBuffers() || pConnectorMgr == nullptr)
        return nullptr;
    uStale = pCall->Input().Stale();
    return pConnectorMgr->LendFacadeOf(pCall->Connection());
}

TarnConnector* TarnConnectorMgrImpl::LendFacadeOf(TarnConnectorImpl& connection)
{
    const ConnectionKey key{connection.GetGroupID(), connection.GetTargetID()};
    const TarnReadGuard guard(m_RegistryLock);
    const auto it = m_mapConnector.find(key);
    if (it == m_mapConnector.end() || it->second.pConnector->GetTarnConnectorImpl() != &connection)
        return nullptr;
    return Lend(*it->second.pConnector);
}

TarnConnector* TarnConnectorMgrImpl::GetConnectorByHandle(ACE_HANDLE handle)
{
    TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing();
    TarnConnectorImpl* pConnector = pAsyncIOMgr != nullptr ? pAsyncIOMgr->FindConnectorImpl(handle) : nullptr;
    if (pConnector == nullptr)
        return nullptr;
    const int iGroupId = pConnector->GetGroupID();
    const std::uint32_t ulTargetID = pConnector->GetTargetID();
    ReleaseConnectorImplDecRef(pConnector);
    return GetConnectorByID(iGroupId, ulTargetID);
}

int TarnConnectorMgrImpl::ReleaseConnector(TarnConnector* pConnector)
{
    if (pConnector == nullptr)
        return 0;
    const std::shared_ptr<ConnectorUses> pUses = pConnector->m_pUses;
    ReleaseUse(*pConnector);
    if (t_nLentDepth > 0) // got on this thread, as it ought to be
        --t_nLentDepth;
    // From here on the connector may be gone.
    if (--pUses->nLent == 0 && Hooks().nWaiting > 0)
    {
        const std::lock_guard<std::mutex> guard(Hooks().mutex);
        Hooks().left.notify_all();
    }
    return 0;
}

TarnConnectorImpl* TarnConnectorMgrImpl::GetConnectorImplByID(int iGroupId, std::uint32_t ulTargetID)
{
    if (iGroupId < 0)
    {
        TarnAdapterFrmtTrace(
            1, "TarnConnectorMgrImpl::GetConnectorImplByID, para error, iGroupId = %d, iTargetID = 0x%x \n",
            iGroupId, ulTargetID);
        return nullptr;
    }
    // All under the registry lock: afterwards the facade may be unregistered and destroyed.
    const TarnReadGuard guard(m_RegistryLock);
    const auto it = m_mapConnector.find({iGroupId, ulTargetID});
    if (it == m_mapConnector.end())
        return nullptr;
    const ConnectionPin pin(*it->second.pConnector, nullptr);
    if (pin)
        UseConnectorImplAndIncRef(pin.Get());
    return pin.Get();
}

bool TarnConnectorMgrImpl::OnSockBreak(int iGroupId, std::uint32_t ulTargetID, int* pResult,
                                       const TarnConnectorImpl* pOnly)
{
    return CallHook({iGroupId, ulTargetID}, pResult, pOnly, "OnSockBreak", &TarnConnector::OnSockBreak);
}

bool TarnConnectorMgrImpl::OnConnectOK(int iGroupId, std::uint32_t ulTargetID, int* pResult,
                                       const TarnConnectorImpl* pOnly)
{
    return CallHook({iGroupId, ulTargetID}, pResult, pOnly, "OnConnectOK", &TarnConnector::OnConnectOK);
}

bool TarnConnectorMgrImpl::CallHook(const ConnectionKey& key, int* pResult, const TarnConnectorImpl* pOnly,
                                    const char* pszOperation, int (TarnConnector::*pfnHook)())
{
    *pResult = -1;
    if (key.iGroupID < 0)
    {
        TarnAdapterFrmtTrace(1, "TarnConnectorMgrImpl::%s, para error, iGroupId = %d, iTargetID = 0x%x \n",
                             pszOperation, key.iGroupID, key.ulTargetID);
        return false;
    }
    const HookUse use(*this, key, pOnly);
    if (use.Get() == nullptr)
        return false;
    TarnConnector& connector = *use.Get();
    const HookDepth depth;
    CallApplication(pszOperation, typeid(connector), [&] { *pResult = (connector.*pfnHook)(); });
    return true;
}

int TarnConnectorMgrImpl::Connect(TarnConnector* pConnector)
{
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnConnectorMgrImpl::Connect error, input para pConnector=null\n");
        return -1;
    }
    int iResult = -1;
    CallApplication("Connect", typeid(*pConnector), [&] { iResult = pConnector->Connect(); });
    return iResult;
}

int TarnConnectorMgrImpl::DisConnect(TarnConnector* pConnector)
{
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TarnConnectorMgrImpl::DisConnect error, input para pConnector=null\n");
        return -1;
    }
    int iResult = -1;
    CallApplication("DisConnect", typeid(*pConnector), [&] { iResult = pConnector->DisConnect(); });
    return iResult;
}
