#ifndef TARN_CORE_BRIEFQUEUE_H
#define TARN_CORE_BRIEFQUEUE_H

#include "core/ActiveThreads.h"
#include "tarnadapterframe/TarnLock.h"

// The queue's header does not include what its locking needs.
#include <ace/Condition_Thread_Mutex.h>
#include <ace/Null_Mutex.h>
#include <ace/Thread_Mutex.h>

#include <ace/Message_Queue.h>

#include <cerrno>

/// ACE's queue for many threads that put and take all the time: its lock is held for moments only, and the operations here
/// look at it a few times before they wait for it. Everything else is ACE's, also how its other operations lock; but a
/// notification strategy is not told.
template <class TIME_POLICY = ACE_System_Time_Policy>
class BriefQueue : public ACE_Message_Queue<ACE_MT_SYNCH, TIME_POLICY>
{
    using Base = ACE_Message_Queue<ACE_MT_SYNCH, TIME_POLICY>;

public:
    using Base::Base;

    int enqueue(ACE_Message_Block* pBlock, ACE_Time_Value* pTimeout = nullptr) override
    {
        const Guard guard(this->lock_);
        if (!this->IsActive())
            return -1;
        if (this->is_full_i())
            ActiveThreads::NoteBlocked();
        return this->wait_not_full_cond(pTimeout) != -1 ? this->enqueue_i(pBlock) : -1;
    }

    /// The same, for so long at most; the clock is asked only when the queue is full.
    int EnqueueWithin(ACE_Message_Block* pBlock, const ACE_Time_Value& longest)
    {
        const Guard guard(this->lock_);
        if (!this->IsActive())
            return -1;
        if (this->is_full_i())
        {
            ActiveThreads::NoteBlocked();
            ACE_Time_Value deadline = this->gettimeofday() + longest;
            if (this->wait_not_full_cond(&deadline) == -1)
                return -1;
        }
        return this->enqueue_i(pBlock);
    }

    int dequeue(ACE_Message_Block*& pBlock, ACE_Time_Value* pTimeout = nullptr) override
    {
        const Guard guard(this->lock_);
        return this->IsActive() && this->wait_not_empty_cond(pTimeout) != -1 ? this->dequeue_head_i(pBlock)
                                                                             : -1;
    }

    /// Takes the first block out if there is one; does not wait for one.
    /// @param pLast  set to whether no other is behind it; may be null
    /// @return null: there is none
    ACE_Message_Block* TakeFirst(bool* pLast = nullptr)
    {
        const Guard guard(this->lock_);
        ACE_Message_Block* pBlock = nullptr;
        if (this->is_empty_i() || this->dequeue_head_i(pBlock) == -1)
            return nullptr;
        if (pLast != nullptr)
            *pLast = this->is_empty_i();
        return pBlock;
    }

    /// Puts a block that has been taken out back before all others, however full the queue is by now.
    void PutBack(ACE_Message_Block* pBlock)
    {
        const Guard guard(this->lock_);
        this->enqueue_head_i(pBlock);
    }

private:
    /// False, with the error, when the queue has been deactivated.
    bool IsActive()
    {
        if (this->state_ != ACE_Message_Queue_Base::DEACTIVATED)
            return true;
        errno = ESHUTDOWN;
        return false;
    }

    class Guard
    {
    public:
        explicit Guard(ACE_Thread_Mutex& mutex)
            : m_Mutex(mutex)
        {
            TarnAcquireSoon(m_Mutex);
        }
        ~Guard() { m_Mutex.release(); }
        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;

    private:
        ACE_Thread_Mutex& m_Mutex;
    };
};

#endif
