#include "asyncio/CQxHandleMessage.h"
#include "asyncio/MessageBlock.h"
#include "asyncio/Report_Message_Queue.h"
#include "asyncio/TEAsyncIOMgrImpl.h"
#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "core/Settings.h"
#include "tarnadapterframe/TEMessage.h"
#include "tarnadapterframe/TarnAdapterTrace.h"
#include "tarnadapterframe/tarnbaseutil.h"

namespace {

void DeleteMessage(TEMessage* pMessage)
{
    CallApplication("destructor", typeid(*pMessage), [pMessage] { delete pMessage; });
}

} // namespace

TEAsyncIOMgrImpl::Handing TEAsyncIOMgrImpl::QueueResponse(TEMessage* pMessage)
{
    if (pMessage == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TEAsyncIOMgrImpl::AddTERspMessageData error, input para pmsg=null\n");
        return Handing::KEPT;
    }
    const StopGate::Pass pass(m_ProducerGate);
    if (!pass || TarnAppIsExit())
        return Handing::KEPT;
    auto* pEntry = new (std::nothrow) CQxHandleMessage{pMessage, 0};
    if (pEntry == nullptr)
    {
        TarnAdapterFrmtTrace(1,
                             "TEAsyncIOMgrImpl::AddTERspMessageData error,failed to new CQxHandleMessage\n");
        return Handing::KEPT;
    }
    ACE_Message_Block* pBlock = MakeEntryBlock(*pEntry);
    if (pBlock == nullptr)
    {
        TarnAdapterFrmtTrace(2,
                             "TEAsyncIOMgrImpl::AddTERspMessageData error,failed to new ACE_Message_Block\n");
        delete pEntry;
        return Handing::KEPT;
    }
    ACE_Message_Queue<ACE_MT_SYNCH>* pQueue = m_pRspMsgQueue;
    if (pQueue == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TEAsyncIOMgrImpl::AddTERspMessageData error,m_pRspMsgQueue is NULL\n");
        FreeEntryBlock(pBlock);
        return Handing::KEPT;
    }
    if (pQueue->enqueue(pBlock) != -1)
        return Handing::QUEUED;
    FreeEntryBlock(pBlock);
    DeleteMessage(pMessage);
    TarnAdapterFrmtTrace(
        1,
        "TEAsyncIOMgrImpl::AddTERspMessageData, m_pRspMsgQueue is full, can't enqueue. Queue "
        "count %d, len %d\n",
        static_cast<int>(pQueue->message_count()), static_cast<int>(pQueue->message_bytes()));
    return Handing::DELETED;
}

TEAsyncIOMgrImpl::Handing TEAsyncIOMgrImpl::QueueReport(TEMessage* pMessage)
{
    if (pMessage == nullptr)
    {
        TarnAdapterFrmtTrace(2, "TEAsyncIOMgrImpl::AddTERptMessageData error, input para pmsg=null\n");
        return Handing::KEPT;
    }
    const StopGate::Pass pass(m_ProducerGate);
    if (!pass || TarnAppIsExit())
    {
        TarnAdapterFrmtTrace(2, "TEAsyncIOMgrImpl::TarnApp is exit\n");
        return Handing::KEPT;
    }
    Report_Message_Queue* pQueue = m_pRptMsgQueue;
    if (Settings().nAppProcessRptMsgThreadNum < 1 || pQueue == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TEAsyncIOMgrImpl::AddTERptMessageData error, no rpt process thread\n");
        return Handing::KEPT;
    }
    if (pQueue->GetCmdCount() >= Settings().nAppProcessRpgMsgLimit)
    {
        TarnAdapterFrmtTrace(2, "Receive too much report message, discard the message of %s.\n",
                             ClassName(*pMessage));
        DeleteMessage(pMessage);
        return Handing::DELETED;
    }
    auto* pEntry = new (std::nothrow) CQxHandleMessage{pMessage, 0};
    if (pEntry == nullptr)
    {
        TarnAdapterFrmtTrace(1,
                             "TEAsyncIOMgrImpl::AddTERptMessageData error, failed to new CQxHandleMessage\n");
        return Handing::KEPT;
    }
    ACE_Message_Block* pBlock = MakeEntryBlock(*pEntry);
    if (pBlock == nullptr)
    {
        TarnAdapterFrmtTrace(
            1, "TEAsyncIOMgrImpl::AddTERptMessageData error, failed to new ACE_Message_Block\n");
        delete pEntry;
        return Handing::KEPT;
    }
    if (pQueue->enqueue(pBlock) != -1)
        return Handing::QUEUED;
    FreeEntryBlock(pBlock);
    DeleteMessage(pMessage);
    TarnAdapterFrmtTrace(
        2,
        "TEAsyncIOMgrImpl::AddTERptMessageData, m_pRptMsgQueue is full, can't enqueue. Queue "
        "count %d, len %d\n",
        static_cast<int>(pQueue->message_count()), static_cast<int>(pQueue->message_bytes()));
    return Handing::DELETED;
}

int TEAsyncIOMgrImpl::AddTERspMessageData(TEMessage* pMessage)
{
    return QueueResponse(pMessage) == Handing::QUEUED ? 0 : -1;
}

int TEAsyncIOMgrImpl::AddTERptMessageData(TEMessage* pMessage)
{
    return QueueReport(pMessage) == Handing::KEPT ? -1 : 0;
}

// There is no other engine.
int TEAsyncIOMgr::AddResponse(std::unique_ptr<TEMessage> pMessage)
{
    const auto eHanding = static_cast<TEAsyncIOMgrImpl*>(this)->QueueResponse(pMessage.get());
    if (eHanding != TEAsyncIOMgrImpl::Handing::KEPT)
        static_cast<void>(pMessage.release()); // somebody else's now
    return eHanding == TEAsyncIOMgrImpl::Handing::QUEUED ? 0 : -1;
}

int TEAsyncIOMgr::AddReport(std::unique_ptr<TEMessage> pMessage)
{
    const auto eHanding = static_cast<TEAsyncIOMgrImpl*>(this)->QueueReport(pMessage.get());
    if (eHanding != TEAsyncIOMgrImpl::Handing::KEPT)
        static_cast<void>(pMessage.release()); // somebody else's now
    return eHanding == TEAsyncIOMgrImpl::Handing::KEPT ? -1 : 0;
}
