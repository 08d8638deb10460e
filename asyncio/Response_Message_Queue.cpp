#include "asyncio/Response_Message_Queue.h"

#include "core/ActiveThreads.h"

#include <cerrno>

/// Counts a thread that waits, also when it is ended in its wait.
class Response_Message_Queue::Waiting
{
public:
    explicit Waiting(Response_Message_Queue& queue)
        : m_Queue(queue)
    {
        ++m_Queue.m_nWaiting;
    }
    ~Waiting()
    {
        --m_Queue.m_nWaiting;
        m_Queue.m_bWaking = false; // whoever was meant: this one looks, and wakes the next if there is more
    }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

private:
    Response_Message_Queue& m_Queue;
};

int Response_Message_Queue::wait_not_empty_cond(ACE_Time_Value* pTimeout)
{
    while (is_empty_i())
    {
        const Waiting waiting(*this);
        ActiveThreads::NoteIdle();
        const int iWaited = not_empty_cond_.wait(pTimeout);
        const int iError = errno;
        if (iWaited == -1 || state_ != ACE_Message_Queue_Base::ACTIVATED)
        {
            errno = iWaited != -1 ? ESHUTDOWN : iError == ETIME ? EWOULDBLOCK : iError;
            return -1;
        }
    }
    return cur_count_ > 1 ? signal_dequeue_waiters() : 0;
}

int Response_Message_Queue::signal_dequeue_waiters()
{
    if (m_nWaiting == 0 || m_bWaking)
        return 0;
    m_bWaking = true;
    return not_empty_cond_.signal();
}
