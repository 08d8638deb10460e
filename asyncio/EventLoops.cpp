#include "asyncio/TEAsyncIOMgrImpl.h"
#include "core/LogArguments.h"
#include "core/ReactorLoop.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <ace/Reactor.h>

ACE_THR_FUNC_RETURN TEAsyncIOMgrImpl::StartEventLoop(void* pManager)
{
    if (pManager == nullptr)
        TarnAdapterFrmtTrace(0, "TEAsyncIOMgrImpl::StartEventLoop error, input para p=null\n");
    else
        static_cast<TEAsyncIOMgrImpl*>(pManager)->RunEventLoop();
    return {};
}

void TEAsyncIOMgrImpl::RunEventLoop()
{
    const std::uint32_t ulThreadId = Low32(ACE_Thread::self());
    TarnAdapterFrmtTrace(3, "Thread process io eventLoop is 0x%x. \n", ulThreadId);
    ACE_Reactor* pReactor = m_pReactor;
    if (pReactor == nullptr)
    {
        TarnAdapterFrmtTrace(1, "Thread process io eventLoop is 0x%x. quit because of NULL ACE_Reactor* \n",
                             ulThreadId);
        m_ThreadStart.Announce();
        return;
    }
    const ThreadCount::Inside inside(m_LoopThreads);
    const ActiveThreads::Member member(m_ActiveLoops);
    RunReactorLoop(
        *pReactor, [this] { m_ThreadStart.Announce(); }, [this] { BreakDropped(); });
}

ACE_THR_FUNC_RETURN TEAsyncIOMgrImpl::StartTimerEventLoop(void* pManager)
{
    if (pManager == nullptr)
        TarnAdapterFrmtTrace(0, "TEAsyncIOMgrImpl::StartTimerEventLoop error, input para p=null\n");
    else
        static_cast<TEAsyncIOMgrImpl*>(pManager)->RunTimerEventLoop();
    return {};
}

void TEAsyncIOMgrImpl::RunTimerEventLoop()
{
    const std::uint32_t ulThreadId = Low32(ACE_Thread::self());
    TarnAdapterFrmtTrace(3, "Thread process timer eventLoop is 0x%x. \n", ulThreadId);
    ACE_Reactor* pReactor = m_pTimerReactor;
    if (pReactor == nullptr)
    {
        TarnAdapterFrmtTrace(
            2, "Thread process timer eventLoop is 0x%x. quit because of NULLACE_Reactor  *\n", ulThreadId);
        m_ThreadStart.Announce();
        return;
    }
    const ThreadCount::Inside inside(m_LoopThreads);
    RunReactorLoop(*pReactor, [this] { m_ThreadStart.Announce(); });
}
