#ifndef TARN_ASYNCIO_REPORT_MESSAGE_QUEUE_H
#define TARN_ASYNCIO_REPORT_MESSAGE_QUEUE_H

#include "tarnadapterframe/TarnLock.h"

// The queue's header does not include what its locking needs.
#include <ace/Condition_Thread_Mutex.h>
#include <ace/Null_Mutex.h>
#include <ace/Thread_Mutex.h>

#include <ace/Message_Queue.h>

/// The report queue: counts the commands of the messages in it, so that a flood of reports can be discarded
/// by their number. Its blocks are built over a CQxHandleMessage each and own neither that nor the message.
///
/// Every operation may be called from any thread. The count's lock and the queue's own are never held
/// together.
class Report_Message_Queue : public ACE_Message_Queue<ACE_MT_SYNCH>
{
public:
    ~Report_Message_Queue() override;

    /// Raises the command count by the message's commands, then queues the block behind the others. While the
    /// queue is full the caller waits, at most until timeout (absolute; null: without limit). A failure to
    /// queue does not lower the count again.
    /// @return the number of blocks queued, -1 on failure: the block stays its caller's
    int enqueue(ACE_Message_Block* pBlock, ACE_Time_Value* pTimeout = nullptr) override;

    /// Takes the first block out, waiting for one, and lowers the command count by its message's commands.
    /// @return the number of blocks left, -1 on failure or for a block without entry
    int dequeue(ACE_Message_Block*& pBlock, ACE_Time_Value* pTimeout = nullptr) override;

    /// Adds to or takes from the command count. @return the new count; -1 for a negative number or when the
    /// count would overflow, which leaves it, or fall below 0, which sets it to 0
    int IncCmdCount(int iCommands) TARN_EXCLUDES(m_CmdCountLock);
    int RelCmdCount(int iCommands) TARN_EXCLUDES(m_CmdCountLock);
    int GetCmdCount() TARN_EXCLUDES(m_CmdCountLock);

private:
    TarnThreadMutex m_CmdCountLock;
    int m_iCmdCount TARN_GUARDED_BY(m_CmdCountLock) = 0;
};

#endif
