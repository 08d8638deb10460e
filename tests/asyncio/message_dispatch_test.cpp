#include "asyncio/TEAsyncIOMgrImpl.h"
#include "core/TEMessageTimer.h"
#include "support/ConnectionTest.h"
#include "support/DescriptorHog.h"
#include "support/Threads.h"

#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace {

/// A message whose handling and number of commands are the test's.
class Work : public TestMessage
{
public:
    explicit Work(std::function<void()> handle, int iCommands = 0)
        : m_Handle(std::move(handle))
        , m_iCommands(iCommands)
    {}
    int GetCommandCount() override { return m_iCommands; }
    int HandleMessage() override
    {
        if (m_Handle)
            m_Handle();
        return 0;
    }

private:
    const std::function<void()> m_Handle;
    const int m_iCommands;
};

class MessageDispatch : public ConnectionTest
{
protected:
    static TEAsyncIOMgr& AsyncIO() { return *TEAsyncIOMgr::Instance(); }

    /// Keeps the report thread busy until LetReportsGo.
    void HoldReports()
    {
        EXPECT_EQ(AsyncIO().AddTERptMessageData(new Work([this] {
            m_Held.set_value();
            m_GoOn.get_future().wait();
        })),
                  0);
        m_Held.get_future().wait();
    }
    void LetReportsGo() { m_GoOn.set_value(); }

    std::atomic<int> nHandled{0};

private:
    std::promise<void> m_Held;
    std::promise<void> m_GoOn;
};

constexpr int QUEUE_ENTRIES = 2048;

TEST_F(MessageDispatch, MessagesAreHandledAndDeletedOnceWhateverTheyDo)
{
    constexpr int MESSAGES = 500;
    Start();
    std::mutex mutex;
    std::vector<int> order;
    std::set<int> responseThreads;
    RunTogether(2, [&](int iKind) {
        for (int i = 0; i < MESSAGES; ++i)
        {
            if (iKind == 0)
                EXPECT_EQ(AsyncIO().AddTERptMessageData(new Work([&, i] {
                    const std::lock_guard<std::mutex> guard(mutex);
                    order.push_back(i);
                    if (i % 10 == 0)
                        throw std::runtime_error("a report");
                })),
                          0);
            else
                EXPECT_EQ(AsyncIO().AddResponse(std::make_unique<Work>([&] { ++nHandled; })), 0);
        }
    });
    EXPECT_TRUE(WaitUntil([] { return Work::Alive() == 0; }));
    EXPECT_EQ(nHandled, MESSAGES);
    ASSERT_EQ(order.size(), static_cast<std::size_t>(MESSAGES));
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_EQ(host.CountContaining(1, "HandleMessage of TestMessage, exception: a report") +
                  host.CountContaining(1, "Work, exception: a report"),
              MESSAGES / 10);
}

// Threads are woken one after the other, but for as long as there are messages: handlers that wait for each other meet.
TEST_F(MessageDispatch, HandlersThatBlockLeaveTheOtherMessagesToOtherThreads)
{
    constexpr int THREADS = 4;
    Start();
    for (int iRound = 1; iRound <= StressRounds(200); ++iRound)
    {
        std::atomic<int> nInside{0};
        std::atomic<int> nMet{0};
        const auto meet = [&] {
            ++nInside;
            if (WaitUntil([&] { return nInside == THREADS; }))
                ++nMet;
        };
        for (int i = 0; i < THREADS; ++i)
            EXPECT_EQ(AsyncIO().AddResponse(std::make_unique<Work>(meet)), 0);
        ASSERT_TRUE(WaitUntil([&] { return Work::Alive() == 0; }));
        ASSERT_EQ(nMet, THREADS) << iRound;
    }
}

TEST_F(MessageDispatch, WithoutThreadsMessagesStayTheirCallers)
{
    host.SetCfg("nAppProcessThreadNum", "0");
    host.SetCfg("nAppProcessRptMsgThreadNum", "0");
    Start();
    Work work({});
    EXPECT_EQ(AsyncIO().AddTERspMessageData(nullptr), -1);
    EXPECT_EQ(host.Count(1, "TEAsyncIOMgrImpl::AddTERspMessageData error, input para pmsg=null\n"), 1);
    EXPECT_EQ(AsyncIO().AddTERptMessageData(nullptr), -1);
    EXPECT_EQ(host.Count(2, "TEAsyncIOMgrImpl::AddTERptMessageData error, input para pmsg=null\n"), 1);
    EXPECT_EQ(AsyncIO().AddTERspMessageData(&work), -1);
    EXPECT_EQ(host.Count(1, "TEAsyncIOMgrImpl::AddTERspMessageData error,m_pRspMsgQueue is NULL\n"), 1);
    EXPECT_EQ(AsyncIO().AddTERptMessageData(&work), -1);
    EXPECT_EQ(host.Count(1, "TEAsyncIOMgrImpl::AddTERptMessageData error, no rpt process thread\n"), 1);
    // Unless they are handed over for good.
    EXPECT_EQ(AsyncIO().AddResponse(std::make_unique<Work>([] {})), -1);
    EXPECT_EQ(AsyncIO().AddReport(std::make_unique<Work>([] {})), -1);
    EXPECT_EQ(AsyncIO().AddResponse(nullptr), -1);
    EXPECT_EQ(Work::Alive(), 1);
}

TEST_F(MessageDispatch, WhileTheApplicationExitsMessagesStayTheirCallers)
{
    Start();
    Work work({});
    host.SetAppExit(true);
    host.ClearLines();
    EXPECT_EQ(AsyncIO().AddTERspMessageData(&work), -1);
    EXPECT_TRUE(host.Lines().empty());
    EXPECT_EQ(AsyncIO().AddTERptMessageData(&work), -1);
    EXPECT_EQ(host.Count(2, "TEAsyncIOMgrImpl::TarnApp is exit\n"), 1);
}

TEST_F(MessageDispatch, AFloodOfReportsIsDiscardedByItsCommands)
{
    host.SetCfg("nAppProcessRpgMsgLimit", "10");
    Start();
    HoldReports();
    const auto report = [&](int iCommands) {
        EXPECT_EQ(AsyncIO().AddReport(std::make_unique<Work>([this] { ++nHandled; }, iCommands)), 0);
    };
    const int nBefore = Work::Alive();
    for (int i = 0; i < 50; ++i)
        report(0); // they count for nothing
    for (int i = 0; i < 4; ++i)
        report(3);
    EXPECT_EQ(Work::Alive(), nBefore + 54);
    report(3);
    report(0);
    EXPECT_EQ(Work::Alive(), nBefore + 54);
    EXPECT_EQ(host.Count(2, "Receive too much report message, discard the message of TestMessage.\n"), 2);
    LetReportsGo();
    EXPECT_TRUE(WaitUntil([] { return Work::Alive() == 0; }));
    EXPECT_EQ(nHandled, 54);
    report(3);
    EXPECT_TRUE(WaitUntil([&] { return nHandled == 55; }));
}

TEST_F(MessageDispatch, AFullQueueHoldsItsProducersAndLosesNothing)
{
    Start();
    HoldReports();
    const auto report = [&] { return AsyncIO().AddTERptMessageData(new Work([this] { ++nHandled; })); };
    for (int i = 0; i < QUEUE_ENTRIES; ++i)
        ASSERT_EQ(report(), 0);
    auto late = std::async(std::launch::async, [&] {
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(report(), 0);
    });
    EXPECT_TRUE(WaitUntil([] { return Work::Alive() == QUEUE_ENTRIES + 2; }));
    LetReportsGo();
    late.get();
    EXPECT_TRUE(WaitUntil([&] { return nHandled == QUEUE_ENTRIES + 100; }));
}

TEST_F(MessageDispatch, AStopLetsWaitingProducersGoAndLeavesWhatIsQueued)
{
    Start();
    HoldReports();
    std::vector<std::unique_ptr<Work>> queued;
    for (int i = 0; i < QUEUE_ENTRIES; ++i)
    {
        queued.push_back(std::make_unique<Work>([this] { ++nHandled; }));
        ASSERT_EQ(AsyncIO().AddTERptMessageData(queued.back().get()), 0);
    }
    TEAsyncIOMgr& asyncIO = AsyncIO();
    auto late =
        std::async(std::launch::async, [&] { return asyncIO.AddReport(std::make_unique<Work>([] {})); });
    EXPECT_TRUE(WaitUntil([] { return Work::Alive() == QUEUE_ENTRIES + 2; }));
    auto insistent = std::async(std::launch::async, [&] {
        auto pWork = std::make_unique<Work>([] {});
        while (asyncIO.AddTERptMessageData(pWork.get()) == 0)
        {
            static_cast<void>(pWork.release()); // deleted
            pWork = std::make_unique<Work>([] {});
        }
    });
    EXPECT_TRUE(WaitUntil([] { return Work::Alive() == QUEUE_ENTRIES + 3; }));
    auto stopped = std::async(std::launch::async, [] { tarnadapter::Fini(); });
    EXPECT_TRUE(WaitUntil(
        [&] { return host.Count(3, "~TEAsyncIOMgrImpl, waiting for 1 application threads to quit\n") > 0; }));
    EXPECT_EQ(late.get(), 0); // it does not wait for a handler that takes long
    LetReportsGo();
    stopped.get();
    insistent.get();
    EXPECT_GE(host.CountContaining(2, "AddTERptMessageData, m_pRptMsgQueue is full, can't enqueue."), 2);
    EXPECT_EQ(nHandled, 0);
    EXPECT_EQ(Work::Alive(), QUEUE_ENTRIES);
}

TEST_F(MessageDispatch, AStopLetsATickGoThatWaitsForRoom)
{
    Start();
    HoldReports();
    std::vector<std::unique_ptr<Work>> queued;
    for (int i = 0; i < QUEUE_ENTRIES; ++i)
    {
        queued.push_back(std::make_unique<Work>([] {}));
        ASSERT_EQ(AsyncIO().AddTERptMessageData(queued.back().get()), 0);
    }
    TestMessageAdapter adapter;
    TEAsyncIOMgr& asyncIO = AsyncIO();
    // However the stop finds it: waiting for room, or not there yet, and refused.
    adapter.onError = [&](TEMessage*, void*, EAdapterError) {
        asyncIO.AddReport(std::make_unique<Work>([] {}));
    };
    TEAdapterManager::Instance()->RegisterPrivateMessage(new TestMessage(pAdapter, ASYNC_MESSAGE, 0),
                                                         &adapter, nullptr, 0);
    TEMessageTimer timer;
    auto tick = std::async(std::launch::async, [&] { timer.handle_timeout(ACE_Time_Value::zero, nullptr); });
    ASSERT_TRUE(WaitUntil([] { return Work::Alive() == QUEUE_ENTRIES + 3; }));
    host.SetAppExit(true); // nobody takes reports any more
    LetReportsGo();
    tarnadapter::Fini();
    tick.get();
    EXPECT_EQ(Work::Alive(), QUEUE_ENTRIES);
}

TEST_F(MessageDispatch, WithoutIOThreadsConnectionsAreNotServed)
{
    host.SetCfg("nAsyncIOThreadNum", "0");
    Start();
    pAdapter->onAnswer = [&](FrameMessage&) { ++nHandled; };
    const auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitUntil([&] { return pConnector->nOpened == 1; }));
    EXPECT_EQ(pConnector->Send(1, "into the queue"), 0);
    element.SendToAll(Element::Frame(2, "unread"));
    element.DropAll(false);
    EXPECT_EQ(pConnector->GetConnState(), STATE_CONNECTED);
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(nHandled, 0);
    EXPECT_EQ(element.Requests(), 0);
}

TEST_F(MessageDispatch, AnEngineThatGetsNoDescriptorsSaysSo)
{
    ASSERT_EQ(tarnadapter::Init(), 0);
    {
        const DescriptorHog hog(1100);
        ASSERT_GT(hog.Highest(), 1024);
        EXPECT_EQ(TEAdapterManager::Instance()->RegisterProtocolAdapter(
                      TestConnector::PROTOCOL, new FrameAdapter(TestConnector::PROTOCOL), true),
                  0);
    }
    EXPECT_EQ(host.Count(0, "TEAsyncIOMgrImpl::Init, failed to new TEIOReactor"), 1);
    EXPECT_EQ(host.Count(0, "TEAsyncIOMgrImpl::Init, failed to new ACE_Reactor"), 1);
    EXPECT_EQ(host.CountContaining(1, "quit because of NULL ACE_Reactor* \n"), 4);
    EXPECT_EQ(TEAsyncIOMgrImpl::Existing()->Init(), 0); // once is enough
    EXPECT_EQ(host.CountContaining(1, "quit because of NULL ACE_Reactor* \n"), 4);
    const auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    EXPECT_TRUE(WaitUntil([&] { return pConnector->nBroken >= 2; })); // refused and tried again
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(pConnector->nDisorder, 0);
    Work work({});
    EXPECT_EQ(AsyncIO().AddTERspMessageData(new Work([this] { ++nHandled; })), 0);
    EXPECT_TRUE(WaitUntil([&] { return nHandled == 1; }));
}

} // namespace
