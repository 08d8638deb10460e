#include "asyncio/MessageBlock.h"
#include "asyncio/Report_Message_Queue.h"
#include "asyncio/TEAsyncIOMgrImpl.h"
#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "tarnadapterframe/TEMessage.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/tarnbaseutil.h"

#include <memory>

namespace {

/// Has a message handled and deletes it, also when its handling ends the thread.
void HandleAndDelete(TEMessage* pMessage)
{
    struct Deleter
    {
        void operator()(TEMessage* pDone) const
        {
            CallApplication("destructor", typeid(*pDone), [pDone] { delete pDone; });
        }
    };
    const std::unique_ptr<TEMessage, Deleter> pOwned(pMessage);
    CallApplication("HandleMessage", typeid(*pMessage), [pMessage] { pMessage->HandleMessage(); });
}

} // namespace

ACE_THR_FUNC_RETURN TEAsyncIOMgrImpl::AppHandleRspMessageLoop(void* pManager)
{
    if (pManager == nullptr)
        TarnAdapterFrmtTrace(0, "TEAsyncIOMgrImpl::AppHandleRspMessageLoop error, input para p=null\n");
    else
        static_cast<TEAsyncIOMgrImpl*>(pManager)->RunRspMessageLoop();
    return {};
}

void TEAsyncIOMgrImpl::RunRspMessageLoop()
{
    TarnAdapterFrmtTrace(3, "Thread Handling response message is 0x%x. \n", Low32(ACE_Thread::self()));
    ACE_Message_Queue<ACE_MT_SYNCH>* pQueue = m_pRspMsgQueue;
    if (pQueue == nullptr)
    {
        TarnAdapterFrmtTrace(
            1, "TEAsyncIOMgrImpl::AppHandleRspMessageLoop error,pAsyncIOMgr->m_pRspMsgQueue is NULL\n");
        m_ThreadStart.Announce();
        return;
    }
    const ThreadCount::Inside inside(m_AppThreads);
    m_ThreadStart.Announce();
    const ActiveThreads::Member member(m_ActiveResponses);
    HandleMessages(*pQueue);
}

ACE_THR_FUNC_RETURN TEAsyncIOMgrImpl::AppHandleRptMessageLoop(void* pManager)
{
    if (pManager == nullptr)
        TarnAdapterFrmtTrace(0, "TEAsyncIOMgrImpl::AppHandleRptMessageLoop, input para p=null\n");
    else
        static_cast<TEAsyncIOMgrImpl*>(pManager)->RunRptMessageLoop();
    return {};
}

void TEAsyncIOMgrImpl::RunRptMessageLoop()
{
    TarnAdapterFrmtTrace(3, "Thread Handling report message is 0x%x. \n", Low32(ACE_Thread::self()));
    const ThreadCount::Inside inside(m_AppThreads);
    m_ThreadStart.Announce();
    if (Report_Message_Queue* pQueue = m_pRptMsgQueue)
        HandleMessages(*pQueue);
}

/// Until a stop entry comes, or the application is exiting.
void TEAsyncIOMgrImpl::HandleMessages(ACE_Message_Queue<ACE_MT_SYNCH>& queue)
{
    for (;;)
    {
        ActiveThreads::AwaitTurn();
        if (TarnAppIsExit())
            return;
        ACE_Message_Block* pBlock = nullptr;
        if (queue.dequeue(pBlock) == -1 && pBlock == nullptr)
            continue;
        const CQxHandleMessage* pEntry = EntryOf(*pBlock);
        const bool bStop = pEntry != nullptr && pEntry->iStop == 1;
        TEMessage* pMessage = pEntry != nullptr ? pEntry->pMessage : nullptr;
        FreeEntryBlock(pBlock);
        if (bStop)
            return;
        const ActiveThreads::Turn turn;
        if (pMessage != nullptr)
            HandleAndDelete(pMessage);
    }
}
