#include "core/BriefQueue.h"
#include "core/CorrelationHold.h"
#include "core/JoinedBlock.h"
#include "tarnadapterframe/TarnLock.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

// Without the analysis, which knows no recursive locks.
int Acquire(TarnRecursiveThreadMutex& mutex) TARN_NO_THREAD_SAFETY_ANALYSIS
{
    return mutex.acquire();
}

int Release(TarnRecursiveThreadMutex& mutex) TARN_NO_THREAD_SAFETY_ANALYSIS
{
    return mutex.release();
}

bool IsFree(TarnRecursiveThreadMutex& mutex)
{
    bool bFree = false;
    std::thread([&] {
        bFree = mutex.tryacquire() == 0;
        if (bFree)
            mutex.ACE_Recursive_Thread_Mutex::release();
    }).join();
    return bFree;
}

TEST(RecursiveMutex, IsFreeWhenItHasBeenReleasedAsOftenAsTaken)
{
    TarnRecursiveThreadMutex mutex;
    for (int iRound = 0; iRound < 2; ++iRound)
    {
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(Acquire(mutex), 0);
        for (int i = 0; i < 3; ++i)
        {
            EXPECT_FALSE(IsFree(mutex));
            EXPECT_EQ(Release(mutex), 0);
        }
        EXPECT_TRUE(IsFree(mutex));
    }
}

TEST(BriefQueue, WhatIsPutBackComesFirstAlsoWhenTheQueueIsFull)
{
    const ACE_Time_Value noWait(ACE_Time_Value::zero);
    BriefQueue<> queue(10, 10);
    ACE_Message_Block* const pFirst = NewJoinedBlock(10);
    ACE_Message_Block* const pSecond = NewJoinedBlock(10);
    ASSERT_NE(queue.EnqueueWithin(pFirst, noWait), -1);
    bool bLast = false;
    ASSERT_EQ(queue.TakeFirst(&bLast), pFirst);
    EXPECT_TRUE(bLast);
    ASSERT_NE(queue.EnqueueWithin(pSecond, noWait), -1);
    ASSERT_EQ(queue.EnqueueWithin(pFirst, noWait), -1);
    queue.PutBack(pFirst);
    EXPECT_EQ(queue.TakeFirst(&bLast), pFirst);
    EXPECT_FALSE(bLast);
    pFirst->release();
    EXPECT_EQ(queue.TakeFirst(), pSecond);
    EXPECT_EQ(queue.TakeFirst(), nullptr);
    pSecond->release();
}

TEST(CorrelationHold, WhatIsPutOffIsDoneOnceWhenTheLastHoldEnds)
{
    int nDone = 0;
    const auto count = [](void* pDone) { ++*static_cast<int*>(pDone); };
    EXPECT_FALSE(CorrelationHold::PutOff(count, &nDone)) << "nothing is held";
    CorrelationHold::Begin();
    CorrelationHold::Begin();
    int nPutOff = 0;
    while (nPutOff < 100 && CorrelationHold::PutOff(count, &nDone))
        ++nPutOff;
    EXPECT_GT(nPutOff, 0);
    EXPECT_LT(nPutOff, 100) << "there is a bound";
    CorrelationHold::End();
    EXPECT_EQ(nDone, 0);
    CorrelationHold::End();
    EXPECT_EQ(nDone, nPutOff);
    CorrelationHold::Begin();
    CorrelationHold::End();
    EXPECT_EQ(nDone, nPutOff);
    EXPECT_FALSE(CorrelationHold::PutOff(count, &nDone));
}

} // namespace
