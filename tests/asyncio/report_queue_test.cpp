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
    static constexpr int THROWS = -99;

    explicit Report(int iCommands)
        : m_iCommands(iCommands)
    {}
    int GetCommandCount() override
    {
        if (m_iCommands == THROWS)
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
    Entry(TEMessage* pMessage, int iStop)
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
        // The queue would release the blocks, which are the test's.
        ACE_Message_Block* pBlock = nullptr;
        while (!queue.is_empty())
            queue.ACE_Message_Queue<ACE_MT_SYNCH>::dequeue_head(pBlock);
    }

    /// A block with a report of so many commands.
    ACE_Message_Block* NewReport(int iCommands)
    {
        m_reports.push_back(std::make_unique<Report>(iCommands));
        return NewEntry(m_reports.back().get(), 0);
    }
    ACE_Message_Block* NewEntry(TEMessage* pMessage, int iStop)
    {
        m_entries.push_back(std::make_unique<Entry>(pMessage, iStop));
        return &m_entries.back()->block;
    }

    ACE_Message_Block* Take()
    {
        ACE_Message_Block* pBlock = nullptr;
        EXPECT_NE(queue.dequeue(pBlock), -1);
        return pBlock;
    }

private:
    std::vector<std::unique_ptr<Report>> m_reports;
    std::vector<std::unique_ptr<Entry>> m_entries;

protected:
    ACE_Message_Block m_Empty;
    Report_Message_Queue queue;
};

TEST_F(ReportQueue, CommandsAreCountedWhileTheirMessagesAreQueued)
{
    ACE_Message_Block* pThree = NewReport(3);
    ACE_Message_Block* pNone = NewReport(0);
    EXPECT_EQ(queue.enqueue(pThree), 1);
    EXPECT_EQ(queue.enqueue(pNone), 2);
    EXPECT_EQ(queue.GetCmdCount(), 3);
    EXPECT_EQ(queue.message_bytes(), 16U) << "each entry counts its block size";
    EXPECT_EQ(Take(), pThree) << "first in, first out";
    EXPECT_EQ(queue.GetCmdCount(), 0);
    EXPECT_EQ(Take(), pNone);
}

TEST_F(ReportQueue, StopEntryGoesFirstAndCountsNothing)
{
    ACE_Message_Block* pStop = NewEntry(nullptr, 1);
    queue.enqueue(NewReport(3));
    EXPECT_EQ(queue.enqueue_head(pStop), 2);
    EXPECT_EQ(Take(), pStop);
    EXPECT_EQ(queue.GetCmdCount(), 3);
}

TEST_F(ReportQueue, MessagesWithAnImpossibleCountAreNotQueued)
{
    constexpr int iMost = std::numeric_limits<int>::max();
    EXPECT_EQ(queue.enqueue(NewReport(-1)), -1);
    EXPECT_EQ(queue.enqueue(NewReport(iMost)), 1);
    EXPECT_EQ(queue.enqueue(NewReport(1)), -1) << "the sum would overflow";
    EXPECT_EQ(host.Count(1, "Error: Report_Message_Queue::IncCmdCount() return -1\n"), 2);
    EXPECT_EQ(queue.GetCmdCount(), iMost);
    EXPECT_EQ(queue.enqueue(NewReport(Report::THROWS)), 2) << "a message that cannot tell counts as none";
    EXPECT_EQ(queue.message_count(), 2U);
    EXPECT_EQ(queue.enqueue(nullptr), -1);
}

TEST_F(ReportQueue, CountFallsToZeroAtMost)
{
    queue.enqueue(NewReport(3));
    EXPECT_EQ(queue.RelCmdCount(1), 2);
    EXPECT_EQ(queue.RelCmdCount(-1), -1);
    Take();
    EXPECT_EQ(host.Count(1, "Error: Report_Message_Queue::RelCmdCount() return -1\n"), 1);
    EXPECT_EQ(queue.GetCmdCount(), 0);
    EXPECT_EQ(queue.IncCmdCount(-1), -1);
    EXPECT_EQ(queue.IncCmdCount(4), 4);
}

TEST_F(ReportQueue, BlockWithoutEntryGivesAnErrorAndTheBlock)
{
    EXPECT_EQ(queue.enqueue(&m_Empty), 1);
    ACE_Message_Block* pBlock = nullptr;
    EXPECT_EQ(queue.dequeue(pBlock), -1);
    EXPECT_EQ(pBlock, &m_Empty);
}

TEST_F(ReportQueue, TakesTwoThousandEntriesThenMakesItsProducersWait)
{
    for (int i = 0; i < 2048; ++i)
        ASSERT_EQ(queue.enqueue(NewReport(0)), i + 1);
    ACE_Time_Value now = ACE_OS::gettimeofday();
    EXPECT_EQ(queue.enqueue(NewReport(0), &now), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
}

TEST_F(ReportQueue, CountIsExactUnderThreads)
{
    constexpr int iPairs = 4;
    const int iEach = StressRounds(3000);
    std::vector<ACE_Message_Block*> blocks;
    for (int i = 0; i < iPairs * iEach; ++i)
        blocks.push_back(NewReport(i % 5));
    RunTogether(2 * iPairs, [&](int iThread) {
        for (int i = 0; i < iEach; ++i)
        {
            if (iThread < iPairs)
                queue.enqueue(blocks[static_cast<std::size_t>(iThread * iEach + i)]);
            else
                Take();
        }
    });
    EXPECT_TRUE(queue.is_empty());
    EXPECT_EQ(queue.GetCmdCount(), 0);
    EXPECT_TRUE(host.Lines().empty());
}
