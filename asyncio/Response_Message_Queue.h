#ifndef TARN_ASYNCIO_RESPONSE_MESSAGE_QUEUE_H
#define TARN_ASYNCIO_RESPONSE_MESSAGE_QUEUE_H

#include "core/BriefQueue.h"

/// The response queue: ACE's queue, which wakes one of the waiting threads at a time.
///
/// ACE's own signals for each block. When blocks come by the dozen and a few threads take them, nearly every one of
/// those signals wakes a thread that finds the queue empty again, and costs more than all the rest. Here whoever is
/// woken wakes the next one when it finds more than one block, so that threads are woken as long as there is work for
/// them: no block waits while a thread does, unless one is on its way.
class Response_Message_Queue : public BriefQueue<>
{
public:
    using BriefQueue::BriefQueue;

protected:
    // ACE's extension points; called with the queue's lock held.
    int wait_not_empty_cond(ACE_Time_Value* pTimeout) override;
    int signal_dequeue_waiters() override;

private:
    class Waiting;

    // Guarded by the queue's lock.
    int m_nWaiting = 0;     // threads in wait_not_empty_cond
    bool m_bWaking = false; // one of them has been signalled and has not run yet
};

#endif
