#include "connection/TESerialSendReactor.h"
#include "connection/TarnSerialConnectorImpl.h"
#include "support/SerialLine.h"
#include "support/TestHost.h"
#include "support/Threads.h"
#include "tarnadapterframe/tarnadapterframe.h"

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

/// A reactor of the test's own, without the library's engine.
class SerialReactor : public HostTest
{
protected:
    void TearDown() override
    {
        TESerialSendReactor::Destroy();
        HostTest::TearDown();
    }
    static TESerialSendReactor& Reactor() { return *TESerialSendReactor::Instance(); }

    /// An open line that the reactor serves.
    static std::unique_ptr<TarnSerialConnectorImpl> Open(const SerialLine& line, int iBaud = 115200)
    {
        auto pConnection = std::make_unique<TarnSerialConnectorImpl>(nullptr);
        std::string strPort = line.Port();
        std::vector<void*> parameters = {strPort.data(), &iBaud};
        EXPECT_EQ(pConnection->InitCommuPara(parameters), 0);
        EXPECT_EQ(pConnection->Connect(), 0);
        return pConnection;
    }
    static int Send(TarnSerialConnectorImpl& connection, const std::string& strBytes)
    {
        return connection.AddAndSendData(strBytes.data(), static_cast<int>(strBytes.size()));
    }
};

} // namespace

TEST_F(SerialReactor, NullsAreRefusedAndADestructionWithoutAStartSaysNothing)
{
    TarnSerialConnectorImpl connection(nullptr);
    EXPECT_EQ(Reactor().RegisterHandle(nullptr), -1);
    EXPECT_EQ(Reactor().UnRegisterHandle(nullptr), -1);
    EXPECT_EQ(Reactor().AddWriteEvent(nullptr), -1);
    for (const char* pszOperation : {"RegisterHandle", "UnRegisterHandle", "AddWriteEvent"})
        EXPECT_EQ(host.Count(1, std::string("TESerialSendReactor::") + pszOperation +
                                    " fail, input para pSerialIOHandle=NULL\n"),
                  1);
    EXPECT_EQ(Reactor().UnRegisterHandle(&connection), -1);
    EXPECT_EQ(Reactor().AddWriteEvent(&connection), -1);
    EXPECT_EQ(Reactor().RegisterHandle(&connection), 0);
    EXPECT_FALSE(Reactor().IsServing(&connection)) << "there is no thread";
    host.ClearLines();
    TESerialSendReactor::Destroy();
    TESerialSendReactor::Destroy();
    EXPECT_TRUE(host.Lines().empty());
    EXPECT_EQ(TESerialSendReactor::Existing(), nullptr);
}

TEST_F(SerialReactor, TheTableTakes62LinesAndFreesThePlacesOfThoseThatLeave)
{
    constexpr std::size_t LINES = 62;
    for (const bool bStarted : {false, true})
    {
        EXPECT_EQ(bStarted ? Reactor().Start() : 0, 0);
        std::vector<std::unique_ptr<TarnSerialConnectorImpl>> connections;
        for (std::size_t i = 0; i <= LINES; ++i)
            connections.push_back(std::make_unique<TarnSerialConnectorImpl>(nullptr));
        for (std::size_t i = 0; i < LINES; ++i)
            EXPECT_EQ(Reactor().RegisterHandle(connections[i].get()), 0);
        host.ClearLines();
        EXPECT_EQ(Reactor().RegisterHandle(connections[LINES].get()), -1);
        EXPECT_EQ(Reactor().AddWriteEvent(connections[LINES].get()), -1);
        EXPECT_TRUE(host.Lines().empty());
        EXPECT_EQ(Reactor().UnRegisterHandle(connections[5].get()), 0);
        EXPECT_EQ(Reactor().AddWriteEvent(connections[5].get()), -1);
        EXPECT_EQ(Reactor().UnRegisterHandle(connections[5].get()), -1);
        EXPECT_TRUE(WaitUntil([&] { return Reactor().RegisterHandle(connections[LINES].get()) == 0; }));
        for (std::size_t i = 0; i <= LINES; ++i)
            EXPECT_EQ(Reactor().UnRegisterHandle(connections[i].get()), i == 5 ? -1 : 0);
    }
}

TEST_F(SerialReactor, WhoRegistersBeforeTheStartIsServedAfterIt)
{
    const std::set<int> before = Threads();
    SerialLine line;
    {
        const auto pConnection = Open(line);
        EXPECT_EQ(Send(*pConnection, "early"), 0);
        EXPECT_EQ(Reactor().Start(), 0);
        EXPECT_EQ(Reactor().Start(), 0) << "it is started";
        EXPECT_EQ(line.Receive(5), "early");
        EXPECT_EQ(Send(*pConnection, "late"), 0);
        EXPECT_EQ(line.Receive(4), "late");
        TESerialSendReactor::Destroy();
        EXPECT_EQ(host.Count(1, "Now serial reactor is to leave.\n"), 1);
        EXPECT_EQ(Send(*pConnection, "unheard"), 0);
        EXPECT_EQ(host.CountContaining(1, "the send reactor is not started"), 1);
    }
    EXPECT_EQ(Threads(), before);
}

TEST_F(SerialReactor, ABlockQueuedBesideTheDrainIsNeverLeftWaiting)
{
    EXPECT_EQ(Reactor().Start(), 0);
    SerialLine line;
    const auto pConnection = Open(line);
    std::string strSent;
    for (int i = 0; i < StressRounds(400); ++i)
    {
        // Each is received before the next one is sent, so that one left waiting would never come.
        const std::string strBlock = std::to_string(i);
        EXPECT_EQ(Send(*pConnection, strBlock), 0);
        ASSERT_EQ(line.Receive(strBlock.size()), strBlock);
    }
}

TEST_F(SerialReactor, RegistrationsBesideRebuildsAndWritesLeaveNothingBehind)
{
    EXPECT_EQ(Reactor().Start(), 0);
    RunTogether(3, [](int) {
        for (int i = 0; i < StressRounds(300); ++i)
        {
            TarnSerialConnectorImpl connection(nullptr);
            const std::string strBlock = "x";
            // Places of those that have left are free again once the thread has come by.
            EXPECT_TRUE(WaitUntil([&] { return Reactor().RegisterHandle(&connection) == 0; }));
            EXPECT_EQ(Send(connection, strBlock), 0);
            EXPECT_EQ(Reactor().UnRegisterHandle(&connection), 0);
        }
    });
}

TEST_F(SerialReactor, WhoSendsOpensOrClosesBesideItsEndFindsItOrNot)
{
    constexpr int USERS = 3;
    std::atomic<int> nUsers{USERS};
    RunTogether(USERS + 1, [&](int i) {
        if (i == 0)
        {
            while (nUsers > 0)
            {
                EXPECT_EQ(Reactor().Start(), 0);
                TESerialSendReactor::Destroy();
            }
            return;
        }
        SerialLine line;
        const auto pConnection = Open(line);
        for (int iRound = 0; iRound < StressRounds(300); ++iRound)
        {
            EXPECT_EQ(Send(*pConnection, "x"), 0);
            if (i == 1)
            {
                EXPECT_EQ(pConnection->DisConnect(), 0);
                EXPECT_EQ(pConnection->Connect(), 0);
            }
        }
        --nUsers;
    });
}
