#include "asyncio/Report_Message_Queue.h"

#include "asyncio/CQxHandleMessage.h"
#include "core/ApplicationCall.h"
#include "tarnadapterframe/TEMessage.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <ace/Message_Block.h>

#include <limits>

namespace {

// The message in a block, or null.
TEMessage* MessageOf(const ACE_Message_Block* pBlock)
{
    if (pBlock == nullptr || pBlock->base() == nullptr)
        return nullptr;
    return reinterpret_cast<const CQxHandleMessage*>(pBlock->base())->pMessage;
}

// A message that cannot tell counts as none.
int CommandsOf(TEMessage& message)
{
    int iCommands = 0;
    CallApplication("GetCommandCount", typeid(message), [&] { iCommands = message.GetCommandCount(); });
    return iCommands;
}

} // namespace

Report_Message_Queue::~Report_Message_Queue() = default;

int Report_Message_Queue::enqueue(ACE_Message_Block* pBlock, ACE_Time_Value* pTimeout)
{
    TEMessage* pMessage = MessageOf(pBlock);
    if (pMessage != nullptr && IncCmdCount(CommandsOf(*pMessage)) < 0)
    {
        TarnAdapterFrmtTrace(1, "Error: Report_Message_Queue::IncCmdCount() return -1\n");
        return -1;
    }
    return ACE_Message_Queue<ACE_MT_SYNCH>::enqueue(pBlock, pTimeout);
}

int Report_Message_Queue::dequeue(ACE_Message_Block*& pBlock, ACE_Time_Value* pTimeout)
{
    const int iResult = ACE_Message_Queue<ACE_MT_SYNCH>::dequeue(pBlock, pTimeout);
    if (iResult == -1)
        return -1;
    if (pBlock == nullptr || pBlock->base() == nullptr)
        return -1;
    TEMessage* pMessage = MessageOf(pBlock);
    if (pMessage != nullptr && RelCmdCount(CommandsOf(*pMessage)) < 0)
        TarnAdapterFrmtTrace(1, "Error: Report_Message_Queue::RelCmdCount() return -1\n");
    return iResult;
}

int Report_Message_Queue::IncCmdCount(int iCommands)
{
    if (iCommands < 0)
        return -1;
    const TarnGuard guard(m_CmdCountLock);
    if (iCommands > std::numeric_limits<int>::max() - m_iCmdCount)
        return -1;
    m_iCmdCount += iCommands;
    return m_iCmdCount;
}

int Report_Message_Queue::RelCmdCount(int iCommands)
{
    if (iCommands < 0)
        return -1;
    const TarnGuard guard(m_CmdCountLock);
    if (iCommands > m_iCmdCount)
    {
        m_iCmdCount = 0;
        return -1;
    }
    m_iCmdCount -= iCommands;
    return m_iCmdCount;
}

int Report_Message_Queue::GetCmdCount()
{
    const TarnGuard guard(m_CmdCountLock);
    return m_iCmdCount;
}
