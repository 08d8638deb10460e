#include "asyncio/MessageBlock.h"
#include "asyncio/Report_Message_Queue.h"
#include "asyncio/TEAsyncIOMgrImpl.h"
#include "asyncio/TEIOHandlerRecycler.h"
#include "asyncio/TEIOReactor.h"
#include "connection/TESerialSendReactor.h"
#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "core/Settings.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <ace/Reactor.h>

#include <cxxabi.h>
#include <limits>

namespace {

constexpr auto POLL = std::chrono::milliseconds(1000);

using MessageQueue = ACE_Message_Queue<ACE_MT_SYNCH>;

struct QueueTexts
{
    const char* pszNoEntry;
    const char* pszNoBlock;
    const char* pszNoQueue;
    const char* pszFull;
};

/// Puts one stop entry at the head of a queue.
void PutStopEntry(MessageQueue* pQueue, const QueueTexts& texts)
{
    auto* pEntry = new (std::nothrow) CQxHandleMessage{nullptr, 1};
    if (pEntry == nullptr)
    {
        TarnAdapterFrmtTrace(1, "%s", texts.pszNoEntry);
        return;
    }
    ACE_Message_Block* pBlock = MakeEntryBlock(*pEntry);
    if (pBlock == nullptr)
    {
        TarnAdapterFrmtTrace(2, "%s", texts.pszNoBlock);
        delete pEntry;
        return;
    }
    if (pQueue == nullptr)
    {
        FreeEntryBlock(pBlock);
        TarnAdapterFrmtTrace(2, "%s", texts.pszNoQueue);
        return;
    }
    // The head obeys the high-water mark, too, and nobody may be left to make room.
    pQueue->high_water_mark(std::numeric_limits<std::size_t>::max());
    if (pQueue->enqueue_head(pBlock) != -1)
        return;
    FreeEntryBlock(pBlock);
    TarnAdapterFrmtTrace(1, "~TEAsyncIOMgrImpl, %s is full, can't enqueue. Queue count %d, len %d\n",
                         texts.pszFull, static_cast<int>(pQueue->message_count()),
                         static_cast<int>(pQueue->message_bytes()));
}

/// Deletes a queue that nobody uses any more, with the entries in it but not with their messages.
void DeleteQueue(MessageQueue* pQueue)
{
    if (pQueue == nullptr)
        return;
    ACE_Message_Block* pBlock = nullptr;
    ACE_Time_Value noWait(ACE_Time_Value::zero);
    pQueue->activate();
    while (!pQueue->is_empty() && pQueue->dequeue_head(pBlock, &noWait) != -1)
        FreeEntryBlock(pBlock);
    delete pQueue;
}

} // namespace

void TEAsyncIOMgrImpl::Stop()
{
    std::call_once(m_StopOnce, [this] { StopOnce(); });
}

void TEAsyncIOMgrImpl::StopOnce()
{
    if (TarnConnectorMgrImpl* pConnectorMgr = TarnConnectorMgrImpl::Existing())
        pConnectorMgr->BeginStop();
    m_RegisterGate.ShutAndWait();
    DeleteRecycler();
    RemoveAllHandlers();
    // A handler that blocks must not keep the threads that stand by from the end.
    m_ActiveLoops.ActivateAll();
    m_ActiveResponses.ActivateAll();
    EndLoops();
    m_ProducerGate.Shut(); // what is queued behind the stop entries is not handled any more
    try
    {
        PutStopEntries();
    }
    catch (abi::__forced_unwind&)
    {
        throw;
    }
    catch (...)
    {
        TarnAdapterFrmtTrace(1,
                             "TEAsyncIOMgrImpl::~TEAsyncIOMgrImpl: failed, an unknown exception occured\n");
    }
    // Before the threads are waited for: one of them may be waiting for room in a line's queue, which it lets go then.
    if (const auto pReactor = TESerialSendReactor::Existing())
        pReactor->Leave();
    WaitForThreads();
    if (TarnConnectorMgrImpl* pConnectorMgr = TarnConnectorMgrImpl::Existing())
        pConnectorMgr->Stop();
    m_LoopThreads.WaitForEnds();
    m_AppThreads.WaitForEnds();
    m_ProducerGate.ShutAndWait();
    AbandonConnections();
}

void TEAsyncIOMgrImpl::DeleteRecycler()
{
    ACE_Reactor* pReactor = m_pTimerReactor;
    if (pReactor != nullptr && m_pRecycler != nullptr)
        pReactor->cancel_timer(m_pRecycler.get(), 1); // waits for a sweep under way
    m_pRecycler.reset();
}

void TEAsyncIOMgrImpl::RemoveAllHandlers()
{
    TEIOReactor* pReactor = m_pReactorImpl;
    if (pReactor == nullptr)
        return;
    const TarnGuard guard(m_RegistryLock);
    for (const auto& [handle, pConnector] : m_mapConnector)
        pReactor->remove_handler(handle, ACE_Event_Handler::READ_MASK | ACE_Event_Handler::WRITE_MASK |
                                             ACE_Event_Handler::DONT_CALL);
}

void TEAsyncIOMgrImpl::EndLoops()
{
    if (ACE_Reactor* pReactor = m_pReactor)
        pReactor->end_reactor_event_loop();
    if (ACE_Reactor* pReactor = m_pTimerReactor)
        pReactor->end_reactor_event_loop();
}

void TEAsyncIOMgrImpl::PutStopEntries()
{
    constexpr QueueTexts RESPONSE = {"~TEAsyncIOMgrImpl, failed to new CQxHandleMessage \n",
                                     "~TEAsyncIOMgrImpl, failed to new ACE_Message_Block \n",
                                     "TEAsyncIOMgrImpl::~TEAsyncIOMgrImpl ,m_pRspMsgQueue is NULL\n",
                                     "m_pRspMsgQueue"};
    constexpr QueueTexts REPORT = {"~TEAsyncIOMgrImpl, failed to new CQxHandleMessage\n",
                                   "~TEAsyncIOMgrImpl, failed to new ACE_Message_Block\n",
                                   "TEAsyncIOMgrImpl::~TEAsyncIOMgrImpl ,m_pRptMsgQueue is NULL\n",
                                   "m_pRptMsgQueue"};
    for (int i = 0; i < m_nRspThreads; ++i)
        PutStopEntry(m_pRspMsgQueue, RESPONSE);
    for (int i = 0; i < m_nRptThreads; ++i)
        PutStopEntry(m_pRptMsgQueue, REPORT);
}

/// I/O threads first. One of them may be waiting for room in a queue whose application threads have gone
/// already.
void TEAsyncIOMgrImpl::WaitForThreads()
{
    LetProducersGo();
    for (int iPoll = 1; !m_LoopThreads.WaitForNone(POLL); ++iPoll)
    {
        TarnAdapterFrmtTrace(3, "~TEAsyncIOMgrImpl, waiting for %d event loop threads to quit\n",
                             m_LoopThreads.Get());
        LetProducersGo();
    }
    while (!m_AppThreads.WaitForNone(POLL))
    {
        TarnAdapterFrmtTrace(3, "~TEAsyncIOMgrImpl, waiting for %d application threads to quit\n",
                             m_AppThreads.Get());
        LetProducersGo();
    }
    LetProducersGo();
}

/// Wakes whoever waits for room in a queue. While there are application threads they must still find their stop
/// entries, so the queues stay open for them; one of them may itself be waiting for room.
void TEAsyncIOMgrImpl::LetProducersGo()
{
    const bool bConsumersGone = m_AppThreads.Get() == 0;
    for (MessageQueue* pQueue : {m_pRspMsgQueue.load(), static_cast<MessageQueue*>(m_pRptMsgQueue.load())})
    {
        if (pQueue == nullptr)
            continue;
        if (bConsumersGone)
            pQueue->deactivate();
        else
            pQueue->pulse();
    }
}

/// The connections stay open and in their facades. The references of the registry and the reactor stay counted,
/// but nobody is left to give them back.
void TEAsyncIOMgrImpl::AbandonConnections()
{
    const TarnGuard guard(m_RegistryLock);
    for (const auto& [handle, pConnector] : m_mapConnector)
    {
        pConnector->AbandonReferences();
        pConnector->SetServed(false);
        pConnector->SetRegistered(false);
    }
    m_mapConnector.clear();
    const std::lock_guard<std::mutex> droppedGuard(m_DroppedMutex);
    for (TarnConnectorImpl* pConnector : m_Dropped)
        TarnConnectorMgrImpl::ReleaseConnectorImplDecRef(pConnector);
    m_Dropped.clear();
}

TEAsyncIOMgrImpl::~TEAsyncIOMgrImpl()
{
    Stop();
    TarnConnectorMgr::Destroy();
    TESerialSendReactor::Destroy();
    delete m_pReactor.load();
    delete m_pReactorImpl.load();
    delete m_pTimerReactor.load();
    DeleteQueue(m_pRptMsgQueue);
    DeleteQueue(m_pRspMsgQueue);
}
