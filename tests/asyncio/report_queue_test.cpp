#include "asyncio/CQxHandleMessage.h"
#include "asyncio/Report_Message_Queue.h"
#include "support/TestAdapters.h"
#include "support/TestHost.h"
#include "support/Threads.h"

#include <ace/Message_Block.h>
#include <ace/OS_NS_sys_time.h>

#include <limits>
#include <memory>

namespace {

class Report : public TestMessage
{
public:
    explicit Report(int iCommands)
        : m_iCommands(iCommands)
    {}
    int GetCommandCount() override
    {
        if (m_iCommands == -99)
            throw std::runtime_error("no number");
        return m_iCommands;
    }

private:
    const int m_iCommands;
};

/// A block over an entry of its own, as the I/O manager builds them.
class Entry
{
public:
    explicit Entry(TEMessage* pMessage, int iStop = 0)
        : m_Entry{pMessage, iStop}
        , block(reinterpret_cast<const char*>(&m_Entry), CQxHandleMessage::BLOCK_SIZE)
    {}

private:
    CQxHandleMessage m_Entry;

public:
    ACE_Message_Block block;
};

} // namespace

class ReportQueue : public HostTest
{
protected:
    void TearDown() override
    {
        // The blocks are the tests' own.
        ACE_Message_Block* pBlock = nullptr;
        while (!queue.is_empty())
            queue.ACE_Message_Queue<ACE_MT_SYNCH>::dequeue_head(pBlock);
    }

    ACE_Message_Block* Take()
    {
        ACE_Message_Block* pBlock = nullptr;
        EXPECT_NE(queue.dequeue(pBlock), -1);
        return pBlock;
    }

    Report_Message_Queue queue;
};

TEST_F(ReportQueue, CommandsAreCountedWhileTheirMessagesAreQueued)
{
    Report three(3);
    Report none(0);
    Entry a(&three);
    Entry b(&none);
    EXPECT_EQ(queue.enqueue(&a.block), 1);
    EXPECT_EQ(queue.enqueue(&b.block), 2);
    EXPECT_EQ(queue.GetCmdCount(), 3);
    EXPECT_EQ(queue.message_bytes(), 16U) << "each entry counts its block size";
    EXPECT_EQ(Take(), &a.block) << "first in, first out";
    EXPECT_EQ(queue.GetCmdCount(), 0);
    EXPECT_EQ(Take(), &b.block);
}

TEST_F(ReportQueue, StopEntryGoesFirstAndCountsNothing)
{
    Report three(3);
    Entry report(&three);
    Entry stop(nullptr, 1);
    queue.enqueue(&report.block);
    EXPECT_EQ(queue.enqueue_head(&stop.block), 2);
    EXPECT_EQ(Take(), &stop.block);
    EXPECT_EQ(queue.GetCmdCount(), 3);
}

TEST_F(ReportQueue, MessagesWithAnImpossibleCountAreNotQueued)
{
    Report negative(-1);
    Report many(std::numeric_limits<int>::max());
    Report one(1);
    Report silent(-99);
    Entry a(&negative);
    Entry b(&many);
    Entry c(&one);
    Entry d(&silent);
    EXPECT_EQ(queue.enqueue(&a.block), -1);
    EXPECT_EQ(queue.enqueue(&b.block), 1);
    EXPECT_EQ(queue.enqueue(&c.block), -1) << "the sum would overflow";
    EXPECT_EQ(host.Count(1, "Error: Report_Message_Queue::IncCmdCount() return -1\n"), 2);
    EXPECT_EQ(queue.GetCmdCount(), std::numeric_limits<int>::max());
    EXPECT_EQ(queue.enqueue(&d.block), 2) << "a message that cannot tell counts as none";
    EXPECT_EQ(queue.message_count(), 2U);
    EXPECT_EQ(queue.enqueue(nullptr), -1);
}

TEST_F(ReportQueue, CountFallsToZeroAtMost)
{
    Report three(3);
    Entry entry(&three);
    queue.enqueue(&entry.block);
    EXPECT_EQ(queue.RelCmdCount(1), 2);
    EXPECT_EQ(queue.RelCmdCount(-1), -1);
    EXPECT_EQ(Take(), &entry.block);
    EXPECT_EQ(host.Count(1, "Error: Report_Message_Queue::RelCmdCount() return -1\n"), 1);
    EXPECT_EQ(queue.GetCmdCount(), 0);
    EXPECT_EQ(queue.IncCmdCount(-1), -1);
    EXPECT_EQ(queue.IncCmdCount(4), 4);
}

TEST_F(ReportQueue, BlockWithoutEntryGivesAnErrorAndTheBlock)
{
    ACE_Message_Block empty;
    EXPECT_EQ(queue.enqueue(&empty), 1);
    ACE_Message_Block* pBlock = nullptr;
    EXPECT_EQ(queue.dequeue(pBlock), -1);
    EXPECT_EQ(pBlock, &empty);
}

TEST_F(ReportQueue, TakesTwoThousandEntriesThenMakesItsProducersWait)
{
    std::vector<std::unique_ptr<Entry>> entries;
    for (int i = 0; i < 2048; ++i)
    {
        entries.push_back(std::make_unique<Entry>(nullptr));
        ASSERT_EQ(queue.enqueue(&entries.back()->block), i + 1);
    }
    Entry last(nullptr);
    ACE_Time_Value now = ACE_OS::gettimeofday();
    EXPECT_EQ(queue.enqueue(&last.block, &now), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
}

TEST_F(ReportQueue, CountIsExactUnderThreads)
{
    constexpr int iPairs = 4;
    const int iEach = StressRounds(3000);
    std::vector<std::unique_ptr<Report>> reports;
    std::vector<std::unique_ptr<Entry>> entries;
    for (int i = 0; i < iPairs * iEach; ++i)
    {
        reports.push_back(std::make_unique<Report>(i % 5));
        entries.push_back(std::make_unique<Entry>(reports.back().get()));
    }
    RunTogether(2 * iPairs, [&](int iThread) {
        for (int i = 0; i < iEach; ++i)
        {
            if (iThread < iPairs)
                queue.enqueue(&entries[static_cast<std::size_t>(iThread * iEach + i)]->block);
            else
                Take();
        }
    });
    EXPECT_TRUE(queue.is_empty());
    EXPECT_EQ(queue.GetCmdCount(), 0);
    EXPECT_TRUE(host.Lines().empty());
}
