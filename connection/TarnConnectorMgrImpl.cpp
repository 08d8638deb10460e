#include "connection/TarnConnectorMgrImpl.h"

#include "asyncio/TEAsyncIOMgrImpl.h"
#include "connection/ConnectionPin.h"
#include "connection/TarnConnectorImpl.h"
#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/TarnConnector.h"

#include <ace/Guard_T.h>
#include <ace/Object_Manager.h>

#include <new>

namespace {

std::atomic<TarnConnectorMgrImpl*> g_pConnectorMgr{nullptr};
// Held while a facade's thread, which the manager does not wait for, uses it, so that it cannot go meanwhile. Comes
// before the queue mutex and the rubbish lock.
std::mutex g_UseMutex;

} // namespace

TarnConnectorMgr* TarnConnectorMgr::Instance()
{
    if (g_pConnectorMgr.load(std::memory_order_acquire) == nullptr)
    {
        ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, *ACE_Static_Object_Lock::instance(), nullptr);
        if (g_pConnectorMgr.load(std::memory_order_relaxed) == nullptr)
            g_pConnectorMgr.store(WithMemory("TarnConnectorMgr::Instance",
                                             static_cast<TarnConnectorMgrImpl*>(nullptr),
                                             [] { return new TarnConnectorMgrImpl; }),
                                  std::memory_order_release);
    }
    return g_pConnectorMgr.load(std::memory_order_acquire);
}

void TarnConnectorMgr::Destroy()
{
    TarnConnectorMgr* pManager = Instance();
    if (pManager == nullptr)
        return;
    pManager->StopConnectThreads();
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, *ACE_Static_Object_Lock::instance());
    delete g_pConnectorMgr.load();
}

TarnConnectorMgrImpl* TarnConnectorMgrImpl::Existing()
{
    return g_pConnectorMgr.load(std::memory_order_acquire);
}

TarnConnectorMgrImpl::TarnConnectorMgrImpl()
    : m_pConnectQueque(new (std::nothrow) MAPCONNECTTARGET)
    , m_pConnectQuequeMutex(new (std::nothrow) TarnThreadMutex)
    , pMutex(new (std::nothrow) ACE_Thread_Mutex)
    , m_SyncQueEmpty(pMutex != nullptr ? new (std::nothrow) ACE_Condition<ACE_Thread_Mutex>(*pMutex)
                                       : nullptr)
{
    if (m_pConnectQueque == nullptr)
        TarnAdapterTrace(0, "TarnConnectorMgrImpl() error,failed to new MAPCONNECTTARGET\n", false, false);
    if (m_pConnectQuequeMutex == nullptr)
        TarnAdapterTrace(0, "TarnConnectorMgrImpl() error,failed to new m_pConnectQuequeMutex\n", false,
                         false);
    if (pMutex == nullptr)
        TarnAdapterTrace(0, "TarnConnectorMgrImpl() error,failed to new pMutex\n", false, false);
    else if (m_SyncQueEmpty == nullptr)
        TarnAdapterTrace(0, "TarnConnectorMgrImpl() error,failed to new m_SyncQueEmpty\n", false, false);
}

TarnConnectorMgrImpl::~TarnConnectorMgrImpl()
{
    {
        // Whoever retires a connection from now on deletes it.
        const std::lock_guard<std::mutex> guard(g_UseMutex);
        g_pConnectorMgr.store(nullptr, std::memory_order_release);
    }
    {
        std::unique_lock<std::mutex> lock(m_ThreadMutex);
        while (!m_ThreadLeft.wait_for(lock, std::chrono::seconds(1),
                                      [this] { return m_nConnectThreads + m_nLeaving == 0; }))
            TarnAdapterFrmtTrace(1, "~TarnConnectorMgrImpl ,waiting connecting thread Quit. \n");
    }
    clearConnectQueue(); // what was queued too late
    m_SyncQueEmpty.reset();
    pMutex.reset();
    {
        const TarnWriteGuard guard(m_RegistryLock);
        for (const auto& [key, registration] : m_mapConnector)
            TarnAdapterFrmtTrace(
                1, "While ~TarnConnectorMgrImpl ,target is not Unregisted! groupid = %d,targetId = 0x%x \n",
                key.iGroupID, key.ulTargetID);
        m_mapConnector.clear();
    }
    std::list<TarnConnectorImpl*> retired;
    {
        const TarnWriteGuard guard(m_RubbishLock);
        retired.swap(m_lstRubbish);
    }
    for (TarnConnectorImpl* pConnector : retired)
    {
        pConnector->ForgetReferences();
        delete pConnector;
    }
}

int TarnConnectorMgrImpl::UseConnectorImplAndIncRef(TarnConnectorImpl* pConnector)
{
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(1, "UseConnectorImplAndIncRef error, NULL TarnConnectorImpl*");
        return -1;
    }
    pConnector->IncRef();
    return 0;
}

int TarnConnectorMgrImpl::ReleaseConnectorImplDecRef(TarnConnectorImpl* pConnector)
{
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(1, "ReleaseConnectorImplDecRef error, NULL TarnConnectorImpl*");
        return -1;
    }
    pConnector->DecRef();
    return 0;
}

void TarnConnectorMgrImpl::SetClosed(TarnConnectorImpl& connector)
{
    const std::lock_guard<std::mutex> useGuard(g_UseMutex);
    TarnConnectorMgrImpl* pManager = Existing();
    if (pManager == nullptr)
    {
        connector.SetState(STATE_DISCONNECTED);
        return;
    }
    const TarnGuard guard(*pManager->m_pConnectQuequeMutex);
    const bool bQueued = pManager->m_pConnectQueque->count(KeyOf(connector)) != 0;
    connector.SetState(bQueued ? STATE_CONNECTING : STATE_DISCONNECTED);
}

ConnectTargetKey TarnConnectorMgrImpl::KeyOf(TarnConnectorImpl& connector)
{
    return {{connector.GetGroupID(), connector.GetTargetID()}, &connector};
}

void TarnConnectorMgrImpl::RetireConnection(TarnConnectorImpl* pConnector)
{
    if (pConnector == nullptr)
        return;
    {
        const std::lock_guard<std::mutex> guard(g_UseMutex);
        if (TarnConnectorMgrImpl* pManager = Existing())
        {
            pManager->AddRubbishTarnConnectorImpl(pConnector);
            return;
        }
    }
    // Nobody is left who could give a reference back.
    pConnector->ForgetReferences();
    delete pConnector;
}

int TarnConnectorMgrImpl::AddRubbishTarnConnectorImpl(TarnConnectorImpl* pConnector)
{
    if (pConnector == nullptr)
    {
        TarnAdapterFrmtTrace(
            1, "TarnConnectorMgrImpl::AddRubbishTarnConnectorImpl error, input para pConnectorImpl=null\n");
        return -1;
    }
    if (!pConnector->Retire())
        return 0; // listed already
    std::list<TarnConnectorImpl*> entry;
    if (WithMemory("AddRubbishTarnConnectorImpl", -1, [&] {
            entry.push_back(pConnector);
            return 0;
        }) != 0)
        return 0; // never deleted, which loses less than deleting it in use
    const TarnWriteGuard guard(m_RubbishLock);
    m_lstRubbish.splice(m_lstRubbish.end(), entry);
    return 0;
}

void TarnConnectorMgrImpl::SweepRubbish()
{
    std::vector<TarnConnectorImpl*> retired;
    {
        const TarnReadGuard guard(m_RubbishLock);
        retired.assign(m_lstRubbish.begin(), m_lstRubbish.end());
    }
    // Only the sweep takes entries off the list, and there is one sweep at a time.
    for (TarnConnectorImpl* pConnector : retired)
        CloseRetired(pConnector);
    std::list<TarnConnectorImpl*> unused;
    {
        const TarnWriteGuard guard(m_RubbishLock);
        for (auto it = m_lstRubbish.begin(); it != m_lstRubbish.end();)
        {
            const auto itThis = it++;
            if ((*itThis)->IsUnused())
                unused.splice(unused.end(), m_lstRubbish, itThis);
            else
                (*itThis)->DumpRefThreadInfo();
        }
    }
    for (TarnConnectorImpl* pConnector : unused)
        delete pConnector;
}

/// A connection may be retired while it is open, served or queued: its facade was destroyed, or took another
/// transport.
void TarnConnectorMgrImpl::CloseRetired(TarnConnectorImpl* pConnector)
{
    if (pConnector->GetState() == STATE_CONNECTING)
        CancelRequestConnect(pConnector);
    if (pConnector->IsRegistered())
        if (TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing())
            pAsyncIOMgr->UnregisterHandle(pConnector);
    const std::uint32_t ulSession = pConnector->OpenSession();
    if (ulSession != 0)
        pConnector->CloseSession(ulSession);
}
