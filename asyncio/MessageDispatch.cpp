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

int TEAsyncIOMgrImpl::AddTERspMessageData(TEMessage* pMessage)
{
    if (pMessage == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TEAsyncIOMgrImpl::AddTERspMessageData error, input para pmsg=null\n");
        return -1;
    }
    const StopGate::Pass pass(m_ProducerGate);
    if (!pass || TarnAppIsExit())
        return -1;
    auto* pEntry = new (std::nothrow) CQxHandleMessage{pMessage, 0};
    if (pEntry == nullptr)
    {
        TarnAdapterFrmtTrace(1,
                             "TEAsyncIOMgrImpl::AddTERspMessageData error,failed to new CQxHandleMessage\n");
        return -1;
    }
    ACE_Message_Block* pBlock = MakeEntryBlock(*pEntry);
    if (pBlock == nullptr)
    {
        TarnAdapterFrmtTrace(2,
                             "TEAsyncIOMgrImpl::AddTERspMessageData error,failed to new ACE_Message_Block\n");
        delete pEntry;
        return -1;
    }
    ACE_Message_Queue<ACE_MT_SYNCH>* pQueue = m_pRspMsgQueue;
    if (pQueue == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TEAsyncIOMgrImpl::AddTERspMessageData error,m_pRspMsgQueue is NULL\n");
        FreeEntryBlock(pBlock);
        return -1;
    }
    if (pQueue->enqueue(pBlock) != -1)
        return 0;
    FreeEntryBlock(pBlock);
    DeleteMessage(pMessage);
    TarnAdapterFrmtTrace(
        1,
        "TEAsyncIOMgrImpl::AddTERspMessageData, m_pRspMsgQueue is full, can't enqueue. Queue "
        "count %d, len %d\n",
        static_cast<int>(pQueue->message_count()), static_cast<int>(pQueue->message_bytes()));
    return -1;
}

int TEAsyncIOMgrImpl::AddTERptMessageData(TEMessage* pMessage)
{
    if (pMessage == nullptr)
    {
        TarnAdapterFrmtTrace(2, "TEAsyncIOMgrImpl::AddTERptMessageData error, input para pmsg=null\n");
        return -1;
    }
    const StopGate::Pass pass(m_ProducerGate);
    if (!pass || TarnAppIsExit())
    {
        TarnAdapterFrmtTrace(2, "TEAsyncIOMgrImpl::TarnApp is exit\n");
        return -1;
    }
    Report_Message_Queue* pQueue = m_pRptMsgQueue;
    if (Settings().nAppProcessRptMsgThreadNum < 1 || pQueue == nullptr)
    {
        TarnAdapterFrmtTrace(1, "TEAsyncIOMgrImpl::AddTERptMessageData error, no rpt process thread\n");
        return -1;
    }
    if (pQueue->GetCmdCount() >= Settings().nAppProcessRpgMsgLimit)
    {
        TarnAdapterFrmtTrace(2, "Receive too much report message, discard the message of %s.\n",
                             ClassName(*pMessage));
        DeleteMessage(pMessage);
        return 0;
    }
    auto* pEntry = new (std::nothrow) CQxHandleMessage{pMessage, 0};
    if (pEntry == nullptr)
    {
        TarnAdapterFrmtTrace(1,
                             "TEAsyncIOMgrImpl::AddTERptMessageData error, failed to new CQxHandleMessage\n");
        return -1;
    }
    ACE_Message_Block* pBlock = MakeEntryBlock(*pEntry);
    if (pBlock == nullptr)
    {
        TarnAdapterFrmtTrace(
            1, "TEAsyncIOMgrImpl::AddTERptMessageData error, failed to new ACE_Message_Block\n");
        delete pEntry;
        return -1;
    }
    if (pQueue->enqueue(pBlock) != -1)
        return 0;
    FreeEntryBlock(pBlock);
    DeleteMessage(pMessage);
    TarnAdapterFrmtTrace(
        2,
        "TEAsyncIOMgrImpl::AddTERptMessageData, m_pRptMsgQueue is full, can't enqueue. Queue "
        "count %d, len %d\n",
        static_cast<int>(pQueue->message_count()), static_cast<int>(pQueue->message_bytes()));
    return 0;
}
