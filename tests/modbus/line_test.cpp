#include "ModbusAdapter.h"
#include "support/SerialLine.h"
#include "support/TestHost.h"

#include <atomic>
#include <filesystem>
#include <future>
#include <memory>

namespace {

using std::chrono::milliseconds;

std::string WithCrc(std::string strFrame)
{
    const std::uint16_t uCrc =
        ModbusCrc(reinterpret_cast<const std::uint8_t*>(strFrame.data()), strFrame.size());
    return strFrame + static_cast<char>(uCrc & 0xFFU) + static_cast<char>(uCrc >> 8U);
}

ModbusRequest Reading(int iUnit, int iAddress)
{
    return {iUnit, ModbusFunction::READ_HOLDING, iAddress, 1, {}};
}

std::string Answer(int iUnit, int iValue)
{
    return WithCrc(
        {static_cast<char>(iUnit), 3, 2, static_cast<char>(iValue >> 8), static_cast<char>(iValue)});
}

/// A line, whose devices the test plays.
class ModbusLines : public HostTest
{
protected:
    void Open(milliseconds responseTime, const std::string& strPort)
    {
        host.SetCfg("bEnableSerialCom", "1");
        host.SetCfg("nConnectSleep", "0");
        ASSERT_EQ(tarnadapter::Init(), 0);
        auto* pProtocol = new ModbusProtocol;
        ASSERT_EQ(TEAdapterManager::Instance()->RegisterProtocolAdapter(MODBUS_PROTOCOL, pProtocol, true), 0);
        ModbusMessageAdapter::Instance().Use(pProtocol);
        ModbusTimer::Instance().Start();
        pLine = std::make_unique<ModbusLine>(1, strPort, 115200, responseTime);
        ASSERT_EQ(TarnConnectorMgr::Instance()->RegisterConnector(pLine.get(), true, 1), 0);
        ASSERT_EQ(pLine->GetConnState(), STATE_CONNECTED);
    }
    void TearDown() override
    {
        TarnConnectorMgr::Instance()->UnRegisterConnector(ModbusLine::GROUP, 1);
        ModbusTimer::Instance().Stop();
        tarnadapter::Fini();
        pLine.reset();
        HostTest::TearDown();
    }
    /// Sends a request with a blocking wait, on a thread of its own. @return what was read, or the negative result
    static std::future<int> Ask(const ModbusRequest& request)
    {
        return std::async(std::launch::async, [request] {
            ModbusMessage message(1, request);
            const int iSent = message.SyncHandleMessage(60);
            const int iResult = iSent != 0 ? iSent : message.GetResult();
            return iResult != 0 ? -iResult : message.Values().at(0);
        });
    }

    SerialLine line;
    std::unique_ptr<ModbusLine> pLine;
};

} // namespace

TEST_F(ModbusLines, OneRequestIsUnderWayAtATimeAndTheOthersFollowInOrder)
{
    Open(milliseconds(30'000), line.Port());
    static std::atomic<int> s_nRead;
    static std::atomic<int> s_nSum;
    for (int i = 0; i < 5; ++i)
    {
        auto* pMessage = new ModbusMessage(1, Reading(1 + i % 2, i));
        new AsynCallBack(
            pMessage,
            [](TEMessage* pAnswered, void*, void*) {
                s_nSum += static_cast<ModbusMessage*>(pAnswered)->Values().at(0);
                return s_nRead++;
            },
            nullptr, nullptr);
        EXPECT_EQ(pMessage->HandleMessage(), 0);
    }
    for (int i = 0; i < 5; ++i)
    {
        EXPECT_EQ(line.Receive(8), ModbusEncode(Reading(1 + i % 2, i)));
        for (const char cByte : Answer(1 + i % 2, 100 + i)) // byte by byte
            line.Send(std::string(1, cByte));
    }
    EXPECT_TRUE(WaitUntil([] { return s_nRead == 5; }));
    EXPECT_EQ(s_nSum, 100 + 101 + 102 + 103 + 104);
}

TEST_F(ModbusLines, SilenceIsTimeoutAndTheLineGoesOn)
{
    Open(milliseconds(200), line.Port());
    auto silent = Ask(Reading(1, 7));
    EXPECT_EQ(line.Receive(8), ModbusEncode(Reading(1, 7)));
    auto waiting = Ask(Reading(2, 8));
    EXPECT_EQ(silent.get(), -ADAPTER_ERR_TIMEOUT);
    EXPECT_EQ(line.Receive(8), ModbusEncode(Reading(2, 8)));
    line.Send(Answer(1, 1) + Answer(2, 42)); // the first one is too late
    EXPECT_EQ(waiting.get(), 42);
    EXPECT_EQ(pLine->Unexpected(), 1);
    EXPECT_EQ(pLine->Silences(), 0);
}

TEST_F(ModbusLines, GarbageIsDiscardedAndTheNextRequestIsAnswered)
{
    Open(milliseconds(300), line.Port());
    auto disturbed = Ask(Reading(1, 7));
    EXPECT_EQ(line.Receive(8), ModbusEncode(Reading(1, 7)));
    std::string strAnswer = Answer(1, 5);
    strAnswer[3] = 'x';
    line.Send("noise" + strAnswer);
    EXPECT_EQ(disturbed.get(), -ADAPTER_ERR_TIMEOUT);
    auto next = Ask(Reading(1, 7));
    EXPECT_EQ(line.Receive(8), ModbusEncode(Reading(1, 7)));
    line.Send(Answer(1, 6));
    EXPECT_EQ(next.get(), 6);
}

TEST_F(ModbusLines, ALineThatWasGoneIsFoundAgain)
{
    const std::string strLink = ::testing::TempDir() + "tarn_modbus_" + std::to_string(getpid());
    std::filesystem::remove(strLink);
    std::filesystem::create_symlink(line.Port(), strLink);
    Open(milliseconds(100), strLink);
    line.Remove();
    line.Open();
    std::filesystem::remove(strLink);
    std::filesystem::create_symlink(line.Port(), strLink);
    // Silent until the line has been opened again; then the device answers.
    EXPECT_TRUE(WaitUntil([&] {
        auto asked = Ask(Reading(1, 7));
        WaitUntil(
            [&] { return line.IsSentTo() || asked.wait_for(milliseconds(0)) == std::future_status::ready; });
        if (line.IsSentTo())
        {
            line.Receive(8);
            line.Send(Answer(1, 9));
        }
        return asked.get() == 9;
    }));
    std::filesystem::remove(strLink);
}
