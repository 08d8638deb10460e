#include "asyncio/AsyncIOLife.h"

#include "asyncio/Report_Message_Queue.h"
#include "asyncio/Response_Message_Queue.h"
#include "asyncio/TEAsyncIOMgrImpl.h"
#include "asyncio/TEIOHandlerRecycler.h"
#include "asyncio/TEIOReactor.h"
#include "connection/SerialSession.h"
#include "connection/TESerialSendReactor.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "core/ApplicationCall.h"
#include "core/ReactorDescriptors.h"
#include "core/ReactorLoop.h"
#include "core/Settings.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <ace/Guard_T.h>
#include <ace/Message_Block.h>
#include <ace/Object_Manager.h>
#include <ace/Reactor.h>

#include <new>

namespace {

std::atomic<TEAsyncIOMgrImpl*> g_pAsyncIOMgr{nullptr};

} // namespace

int StartAsyncIO()
{
    // It is always the implementation; the interface has no start.
    auto* pAsyncIOMgr = static_cast<TEAsyncIOMgrImpl*>(TEAsyncIOMgr::Instance());
    return pAsyncIOMgr != nullptr ? pAsyncIOMgr->Init() : -1;
}

void StopAsyncIO()
{
    if (TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing())
        pAsyncIOMgr->Stop();
    else if (TarnConnectorMgrImpl* pConnectorMgr = TarnConnectorMgrImpl::Existing())
        pConnectorMgr->Stop();
    SerialSession::EndAllWatches(); // also of lines that were opened without a manager
}

void DestroyAsyncIO()
{
    TEAsyncIOMgr::Destroy();
    if (TarnConnectorMgrImpl::Existing() != nullptr)
        TarnConnectorMgr::Destroy(); // there was no engine
}

TEAsyncIOMgr* TEAsyncIOMgr::Instance()
{
    if (g_pAsyncIOMgr.load(std::memory_order_acquire) == nullptr)
    {
        ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, *ACE_Static_Object_Lock::instance(), nullptr);
        if (g_pAsyncIOMgr.load(std::memory_order_relaxed) == nullptr)
            g_pAsyncIOMgr.store(WithMemory("TEAsyncIOMgr::Instance", static_cast<TEAsyncIOMgrImpl*>(nullptr),
                                           [] { return new TEAsyncIOMgrImpl; }),
                                std::memory_order_release);
    }
    return g_pAsyncIOMgr.load(std::memory_order_acquire);
}

void TEAsyncIOMgr::Destroy()
{
    // The threads are waited for before the lock is taken: one of them may be the first to use some singleton.
    if (TEAsyncIOMgrImpl* pRunning = TEAsyncIOMgrImpl::Existing())
        pRunning->Stop();
    ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, *ACE_Static_Object_Lock::instance());
    TEAsyncIOMgrImpl* pAsyncIOMgr = TEAsyncIOMgrImpl::Existing();
    if (pAsyncIOMgr == nullptr)
        return;
    delete pAsyncIOMgr;
    g_pAsyncIOMgr.store(nullptr, std::memory_order_release);
}

TEAsyncIOMgrImpl* TEAsyncIOMgrImpl::Existing()
{
    return g_pAsyncIOMgr.load(std::memory_order_acquire);
}

TEAsyncIOMgrImpl::TEAsyncIOMgrImpl() = default;

int TEAsyncIOMgrImpl::Init()
{
    // Whoever comes second finds it complete. None of the threads started here asks for it before.
    std::call_once(m_InitOnce, [this] { InitOnce(); });
    return 0;
}

void TEAsyncIOMgrImpl::InitOnce()
{
    // What is created on first use under ACE's static lock is created before there are threads: the stop may
    // hold that lock while it waits for them.
    TarnConnectorMgr::Instance();
    const ACE_Message_Block firstBlock;

    CreateIOReactor();
    CreateTimerReactor();
    ScheduleRecycler();
    SpawnLoopThreads();
    CreateResponseQueue();
    CreateReportQueue();
    StartSerialSending();
    m_ThreadStart.WaitFor(m_nSpawned);
}

void TEAsyncIOMgrImpl::CreateIOReactor()
{
    TEIOReactor* pReactorImpl = ReactorDescriptorsAvailable() ? new (std::nothrow) TEIOReactor : nullptr;
    if (pReactorImpl == nullptr || pReactorImpl->initialized() == 0)
    {
        delete pReactorImpl;
        TarnAdapterFrmtTrace(0, "TEAsyncIOMgrImpl::Init, failed to new TEIOReactor");
        return;
    }
    m_pReactorImpl = pReactorImpl;
    m_pReactor = new (std::nothrow) ACE_Reactor(pReactorImpl, false);
    if (m_pReactor == nullptr)
        TarnAdapterFrmtTrace(0, "TEAsyncIOMgrImpl::Init, failed to new ACE_Reactor");
}

void TEAsyncIOMgrImpl::CreateTimerReactor()
{
    m_pTimerReactor = NewTimerReactor();
    if (m_pTimerReactor == nullptr)
        TarnAdapterFrmtTrace(0, "TEAsyncIOMgrImpl::Init, failed to new ACE_Reactor");
}

void TEAsyncIOMgrImpl::ScheduleRecycler()
{
    m_pRecycler.reset(new (std::nothrow) TEIOHandlerRecycler);
    if (m_pRecycler == nullptr)
    {
        TarnAdapterFrmtTrace(0, "TEAsyncIOMgrImpl::Init, failed to new TEIOHandlerRecycler");
        return;
    }
    ACE_Reactor* pReactor = m_pTimerReactor;
    if (pReactor == nullptr ||
        pReactor->schedule_timer(m_pRecycler.get(), nullptr, ACE_Time_Value::zero,
                                 ACE_Time_Value(TEIOHandlerRecycler::INTERVAL_SECONDS, 0)) == -1)
        TarnAdapterFrmtTrace(2, "TEAsyncIOMgrImpl Recycler schedule_timer error! \n");
}

void TEAsyncIOMgrImpl::SpawnLoopThreads()
{
    Spawn(&TEAsyncIOMgrImpl::StartEventLoop, Settings().nAsyncIOThreadNum,
          ThreadSignals::ALL_BUT_SIGINT_BLOCKED,
          "TEAsyncIOMgrImpl::Init,failed to spawn thread,which is to handle io events");
    Spawn(&TEAsyncIOMgrImpl::StartTimerEventLoop, 1, ThreadSignals::ALL_BUT_SIGINT_BLOCKED,
          "TEAsyncIOMgrImpl::Init,failed to spawn thread, which is to handle timer events");
}

/// @return how many were started
int TEAsyncIOMgrImpl::Spawn(ACE_THR_FUNC pfnBody, int nThreads, ThreadSignals eSignals,
                            const char* pszFailure)
{
    int nSpawned = 0;
    for (int i = 0; i < nThreads; ++i)
    {
        if (SpawnDetached(pfnBody, this, eSignals))
            ++nSpawned;
        else
            TarnAdapterFrmtTrace(0, "%s", pszFailure);
    }
    m_nSpawned += nSpawned;
    return nSpawned;
}

void TEAsyncIOMgrImpl::CreateResponseQueue()
{
    constexpr std::size_t BYTES = 10'240'000;
    if (Settings().nAppProcessThreadNum < 1)
        return;
    m_pRspMsgQueue = new (std::nothrow) Response_Message_Queue(BYTES, BYTES);
    if (m_pRspMsgQueue == nullptr)
    {
        TarnAdapterFrmtTrace(0, "TEAsyncIOMgrImpl::Init, failed to new ACE_Message_Queue");
        return;
    }
    m_nRspThreads =
        Spawn(&TEAsyncIOMgrImpl::AppHandleRspMessageLoop, Settings().nAppProcessThreadNum,
              ThreadSignals::ALL_BLOCKED,
              "TEAsyncIOMgrImpl::Init,failed to spawn thread, which is to handle response messages");
}

void TEAsyncIOMgrImpl::CreateReportQueue()
{
    if (Settings().nAppProcessRptMsgThreadNum < 1)
        return;
    m_pRptMsgQueue = new (std::nothrow) Report_Message_Queue;
    if (m_pRptMsgQueue == nullptr)
    {
        TarnAdapterFrmtTrace(0, "TEAsyncIOMgrImpl::Init, failed to new Report_Message_Queue");
        return;
    }
    m_nRptThreads =
        Spawn(&TEAsyncIOMgrImpl::AppHandleRptMessageLoop, Settings().nAppProcessRptMsgThreadNum,
              ThreadSignals::ALL_BLOCKED,
              "TEAsyncIOMgrImpl::Init,failed to spawn thread, which is to handle report messages");
}

void TEAsyncIOMgrImpl::StartSerialSending()
{
    if (!Settings().bEnableSerialCom)
        return;
    TESerialSendReactor* pReactor = TESerialSendReactor::Instance();
    if (pReactor == nullptr || pReactor->Start() != 0)
        TarnAdapterFrmtTrace(0, "TEAsyncIOMgrImpl::Init, failed to start TESerialSendReactor");
}
