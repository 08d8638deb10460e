#include "tarnadapterframe/TEAdapterManager.h"

#include "core/ApplicationCall.h"
#include "core/CorrelationSpares.h"
#include "core/ExistingManager.h"
#include "core/LibraryThread.h"
#include "core/LogArguments.h"
#include "core/ManagerParts.h"
#include "core/MessageAdapterTable.h"
#include "core/ReactorLoop.h"
#include "core/StopGate.h"
#include "core/SyncWaits.h"
#include "core/TEMessageTimer.h"
#include "core/ThreadCount.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <ace/Guard_T.h>
#include <ace/Object_Manager.h>
#include <ace/Reactor.h>

#include <chrono>
#include <new>

std::atomic<TEAdapterManager*> TEAdapterManager::m_pInstance{nullptr};
std::atomic<bool> TEAdapterManager::s_bDestroying{false};
std::atomic<bool> TEAdapterManager::s_bStarted{false};
std::atomic<bool> TEAdapterManager::s_bAsyncIOPending{false};

namespace {

constexpr auto POLL = std::chrono::milliseconds(1000);

} // namespace

TEAdapterManager* TEAdapterManager::Instance()
{
    if (m_pInstance.load(std::memory_order_acquire) == nullptr)
    {
        ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, *ACE_Static_Object_Lock::instance(), nullptr);
        if (m_pInstance.load(std::memory_order_relaxed) == nullptr)
        {
            auto* pManager = WithMemory("TEAdapterManager::Instance", static_cast<TEAdapterManager*>(nullptr),
                                        [] { return new TEAdapterManager; });
            if (pManager != nullptr)
                ExistingManager::Set(pManager); // first, so that whoever destroys it finds it set
            m_pInstance.store(pManager, std::memory_order_release);
        }
    }
    return m_pInstance.load(std::memory_order_acquire);
}

void TEAdapterManager::Destroy()
{
    if (s_bDestroying.exchange(true))
        return;
    struct Destroying
    {
        ~Destroying() { s_bDestroying = false; }
    };
    const Destroying destroying;
    TEAdapterManager* pManager = m_pInstance.load(std::memory_order_acquire);
    if (pManager == nullptr)
        return;
    // Before the lock is taken: a tick or a hook under way may be the first to use some singleton, and so may
    // want it. A tick may also wait for room in a queue, until asynchronous I/O lets it go.
    pManager->m_pStartGate->ShutAndWait();
    pManager->m_pTickGate->Shut();
    SyncWaits::Instance().Shut();
    if (s_bStarted && g_ManagerParts.pfnStopAsyncIO != nullptr)
        g_ManagerParts.pfnStopAsyncIO();
    pManager->m_pTickGate->ShutAndWait();
    SyncWaits::Instance().ShutAndWait();
    ExistingManager::Set(nullptr);
    const std::shared_ptr<ThreadCount> pTimerThreads = pManager->m_pTimerThreads;
    {
        ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, *ACE_Static_Object_Lock::instance());
        // The pointer is cleared last: the timer thread, which is waited for in here, still asks for the
        // manager, and must find it without taking the lock that this thread holds.
        delete pManager;
        m_pInstance.store(nullptr, std::memory_order_release);
    }
    // After it is released: what runs at a thread's end is the application's, too.
    pTimerThreads->WaitForEnds();
}

TEAdapterManager::TEAdapterManager()
    : m_pSpares(std::make_unique<CorrelationSpares>())
    , m_pTimerThreads(std::make_shared<ThreadCount>())
    , m_pStartGate(std::make_unique<StopGate>("TEAdapterManager::Destroy"))
    , m_pTickGate(std::make_unique<StopGate>("TEAdapterManager::Destroy"))
{
    if (g_ManagerParts.pfnBuiltInAdapter == nullptr)
        return;
    m_pBuiltInAdapter = g_ManagerParts.pfnBuiltInAdapter();
    RegisterProtocolAdapter(BUILT_IN_PROTOCOL_ID, m_pBuiltInAdapter, false);
}

TEAdapterManager::~TEAdapterManager()
{
    if (m_pBuiltInAdapter != nullptr)
        UnRegisterProtocolAdapter(BUILT_IN_PROTOCOL_ID);
    if (s_bStarted)
        StopThreads();
    ClearMessageMaps();
    DeleteProtocolAdapters();
    WaitForTimerThread();
    DeleteReactor();
    TarnAdapterFrmtTrace(3, "~TEAdapterManager success!\n");
}

int TEAdapterManager::Init()
{
    if (s_bStarted)
    {
        TarnAdapterTrace(2, "TEAdapterManager::Init ,Init again", true, false);
        return 0;
    }
    if (!DistributeMessageAdapters() || !CreateReactor() || !CreateMessageTimer() || !SpawnTimerThread())
        return -1;
    s_bStarted = true;
    SyncWaits::Instance().Open();
    if (s_bAsyncIOPending)
        StartAsyncIO();
    return 0;
}

bool TEAdapterManager::CreateReactor()
{
    m_pReactor = NewTimerReactor();
    if (m_pReactor == nullptr)
        TarnAdapterFrmtTrace(0, "TEAdapterManager::Init ,failed to new ACE_Reactor");
    return m_pReactor != nullptr;
}

bool TEAdapterManager::CreateMessageTimer()
{
    m_pMessageTimer = new (std::nothrow) TEMessageTimer;
    if (m_pMessageTimer == nullptr)
    {
        DeleteReactor();
        TarnAdapterFrmtTrace(0, "TEAdapterManager::Init ,failed to new TEMessageTimer");
        return false;
    }
    const ACE_Time_Value tick(TEMessageTimer::TICK_SECONDS);
    if (m_pReactor->schedule_timer(m_pMessageTimer, nullptr, tick, tick) == -1)
    {
        DeleteMessageTimer();
        DeleteReactor();
        TarnAdapterFrmtTrace(1, "schedule_timer error in TEAdapterManager::Init! \n");
        return false;
    }
    return true;
}

bool TEAdapterManager::SpawnTimerThread()
{
    m_TimerThreadStarted.reset();
    if (!SpawnDetached(&TEAdapterManager::StartTimerEventLoop, this, ThreadSignals::ALL_BUT_SIGINT_BLOCKED))
    {
        m_pReactor->cancel_timer(m_pMessageTimer);
        DeleteMessageTimer();
        DeleteReactor();
        TarnAdapterFrmtTrace(
            1, "TEAdapterManager::Init,failed to spawn thread, which is to handle timer events");
        return false;
    }
    // Until the thread has counted itself, a destructor would not know that it must wait for it.
    m_TimerThreadStarted.wait();
    return true;
}

void TEAdapterManager::DeleteMessageTimer()
{
    delete m_pMessageTimer;
    m_pMessageTimer = nullptr;
}

void TEAdapterManager::DeleteReactor()
{
    delete m_pReactor;
    m_pReactor = nullptr;
}

ACE_THR_FUNC_RETURN TEAdapterManager::StartTimerEventLoop(void* p)
{
    if (p == nullptr)
        TarnAdapterFrmtTrace(1, "TEAsyncIOMgrImpl_::StartTimerEventLoop error, input para p=null\n");
    else
        static_cast<TEAdapterManager*>(p)->RunTimerEventLoop();
    return {};
}

void TEAdapterManager::RunTimerEventLoop()
{
    const std::uint32_t ulThreadId = Low32(ACE_Thread::self());
    TarnAdapterFrmtTrace(3, "TEAdapterManager Thread process timer eventLoop is 0x%x. \n", ulThreadId);
    if (m_pReactor == nullptr)
    {
        TarnAdapterFrmtTrace(
            3, "Thread process timer eventLoop is 0x%x. quit because of NULLACE_Reactor  *\n", ulThreadId);
        m_TimerThreadStarted.signal();
        return;
    }
    {
        // Also when the application ends the thread inside a call, the thread is counted out.
        const ThreadCount::Inside inside(*m_pTimerThreads);
        RunReactorLoop(*m_pReactor, [this] { m_TimerThreadStarted.signal(); });
    }
    // The manager may be gone as soon as the count is 0: nothing of it is touched afterwards.
    TarnAdapterFrmtTrace(3, "TEAdapterManager Quit Thread process eventLoop is 0x%x. \n", ulThreadId);
}

void TEAdapterManager::StopThreads()
{
    if (g_ManagerParts.pfnDestroyAsyncIO != nullptr)
        g_ManagerParts.pfnDestroyAsyncIO();
    if (m_pReactor == nullptr)
        TarnAdapterFrmtTrace(0, "TEAdapterManager::~TEAdapterManager, m_pReactor=null ");
    else
        StopMessageTimer();
    s_bStarted = false;
}

void TEAdapterManager::StopMessageTimer()
{
    if (m_pMessageTimer == nullptr)
    {
        TarnAdapterFrmtTrace(0,
                             "TEAdapterManager::~TEAdapterManager, m_pMessageTimer=null before we remove it "
                             "from reactor");
    }
    else
    {
        // Waits for a tick under way, which runs inside the reactor's token, so the timer may be deleted
        // then.
        m_pReactor->cancel_timer(m_pMessageTimer);
        DeleteMessageTimer();
    }
    m_pReactor->end_reactor_event_loop();
}

void TEAdapterManager::ClearMessageMaps()
{
    // Destroyed after the lock is released and out of the members: the destructor of a message that a record
    // owns may come back to the maps.
    MapSinkToSource mapSinkToSource;
    MapMsgInfo mapMsgInfo;
    const TarnGuard guard(m_MsgMapMtx);
    m_mapSinkToSource.swap(mapSinkToSource);
    m_mapMsgInfo.swap(mapMsgInfo);
}

void TEAdapterManager::WaitForTimerThread()
{
    while (m_pTimerThreads->Get() != 0)
    {
        TarnAdapterTrace(3, "~TEAdapterManager,waiting for thread to quit\n", true, true);
        m_pTimerThreads->WaitForNone(POLL);
    }
}
