#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "support/ConnectionTest.h"

#include <cstdio>

namespace {

/// Connections to an element that refuses, and one connect thread.
class ConnectQueue : public ConnectionTest
{
protected:
    void SetUp() override
    {
        ConnectionTest::SetUp();
        host.SetCfg("nConnectThreadNum", "1");
        element.StopListening();
    }

    /// Queues a connection for its first attempt.
    void Queue(unsigned long ulTargetID)
    {
        m_Connectors.push_back(MakeConnector(ulTargetID));
        EXPECT_EQ(m_Connectors.back()->Register(), 0);
    }

    void UnRegisterAll()
    {
        for (const auto& pConnector : m_Connectors)
            EXPECT_EQ(pConnector->UnRegister(), 0);
        m_Connectors.clear();
    }

    /// Whom the attempts so far have tried to reach, in their order.
    std::vector<unsigned long> Tried() const
    {
        std::vector<unsigned long> targets;
        unsigned long ulTargetID = 0;
        for (const LogLine& line : host.Lines())
            if (std::sscanf(line.strText.c_str(), "Before Connect,GRPID=1,TargetID = 0x%lx\n", &ulTargetID) ==
                1)
                targets.push_back(ulTargetID);
        return targets;
    }

private:
    std::vector<std::unique_ptr<TestConnector>> m_Connectors;
};

TEST_F(ConnectQueue, FirstAttemptsComeByKeyAndRetriesByTheirAge)
{
    host.StepIn("TARGETID = 0x5, errno", [&] {
        for (const unsigned long ulTargetID : {9UL, 3UL, 7UL})
            Queue(ulTargetID);
    });
    Start();
    Queue(5);
    ASSERT_TRUE(WaitUntil([&] { return Tried().size() >= 12; }));
    std::vector<unsigned long> tried = Tried();
    tried.resize(12);
    EXPECT_EQ(tried, (std::vector<unsigned long>{5, 3, 7, 9, 5, 3, 7, 9, 5, 3, 7, 9}));
    UnRegisterAll();
}

TEST_F(ConnectQueue, WhoEndsAttemptsIsNotHeldUpByTheirPauses)
{
    constexpr int ROUNDS = 5;
    host.SetCfg("nConnectSleep", "30");
    Start();
    const auto tBegin = std::chrono::steady_clock::now();
    for (int i = 1; i <= ROUNDS; ++i)
    {
        Queue(1);
        ASSERT_TRUE(WaitUntil([&] { return host.CountContaining(1, "connect fail, ") == i; }));
        UnRegisterAll();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - tBegin, std::chrono::seconds(5));
}

TEST_F(ConnectQueue, AFirstRequestEndsThePauses)
{
    host.SetCfg("nConnectSleep", "30");
    Start();
    Queue(1);
    ASSERT_TRUE(WaitUntil([&] { return host.CountContaining(1, "connect fail, ") == 1; }));
    constexpr int FIRST = 10;
    const auto tBegin = std::chrono::steady_clock::now();
    for (int i = 0; i < FIRST; ++i)
    {
        Queue(static_cast<unsigned long>(2 + i));
        ASSERT_TRUE(WaitUntil([&] { return host.CountContaining(1, "connect fail, ") == 2 + i; }));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - tBegin, std::chrono::seconds(5));
    UnRegisterAll();
}

TEST_F(ConnectQueue, ARecordThatIsTakenOutIsNotTriedAnyMore)
{
    host.SetCfg("nConnectSleep", "30");
    host.StepIn("TARGETID = 0x5, errno", [&] {
        for (const unsigned long ulTargetID : {6UL, 7UL, 8UL})
            Queue(ulTargetID);
        EXPECT_EQ(Manager().RequestDisConnect(1, 7), 0);
    });
    Start();
    Queue(5);
    ASSERT_TRUE(WaitUntil([&] { return host.CountContaining(1, "connect fail, ") == 3; }));
    EXPECT_EQ(Tried(), (std::vector<unsigned long>{5, 6, 8}));
    EXPECT_EQ(Manager().RequestConnect(1, 7), 0);
    ASSERT_TRUE(WaitUntil([&] { return host.CountContaining(1, "connect fail, ") == 4; }));
    EXPECT_EQ(Tried(), (std::vector<unsigned long>{5, 6, 8, 7}));
    EXPECT_EQ(Manager().StopConnectThreads(), 0); // forgets them
    EXPECT_EQ(Manager().RequestConnect(1, 6), 0);
    EXPECT_EQ(Manager().ResumeConnectThreads(), 0);
    ASSERT_TRUE(WaitUntil([&] { return host.CountContaining(1, "connect fail, ") == 5; }));
    EXPECT_EQ(Tried(), (std::vector<unsigned long>{5, 6, 8, 7, 6}));
    UnRegisterAll();
}

} // namespace
