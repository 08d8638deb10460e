#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "support/ConnectionTest.h"

#include <cstdio>
#include <future>
#include <time.h>

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

    /// Processor time of the connect thread until the connection has been tried so often again, which all that are queued
    /// are meanwhile.
    double SecondsForRounds(unsigned long ulTargetID, int nRounds)
    {
        char szFailed[64];
        std::snprintf(szFailed, sizeof(szFailed), "connect fail, Group = 1 ,TARGETID = 0x%lx, ", ulTargetID);
        const auto pRounds = std::make_shared<Rounds>(Rounds{szFailed, nRounds, 0, {}});
        auto seconds = pRounds->seconds.get_future();
        LookNextTime(pRounds);
        return seconds.get();
    }

private:
    struct Rounds
    {
        const std::string strEnd; // what is logged at the end of one
        int nLeft;
        double begin;
        std::promise<double> seconds;
    };

    void LookNextTime(const std::shared_ptr<Rounds>& pRounds)
    {
        host.StepIn(pRounds->strEnd, [this, pRounds] {
            timespec now{};
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
            const double spent = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
            if (pRounds->begin == 0)
                pRounds->begin = spent;
            if (pRounds->nLeft-- == 0)
                pRounds->seconds.set_value(spent - pRounds->begin);
            else
                LookNextTime(pRounds);
        });
    }

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

TEST_F(ConnectQueue, AnAttemptCostsTheSameHoweverManyAreQueued)
{
    constexpr int FEW = 50;
    constexpr int MANY = 5000;
    Start();
    for (int i = 1; i <= FEW; ++i)
        Queue(static_cast<unsigned long>(i));
    const double few = SecondsForRounds(1, MANY / FEW);
    for (int i = FEW + 1; i <= MANY; ++i)
        Queue(static_cast<unsigned long>(i));
    SecondsForRounds(1, 1); // all are retries then
    const double many = SecondsForRounds(1, 1);
    EXPECT_LT(many, 4 * few);
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
