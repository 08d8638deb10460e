#include "connection/TESerialSendReactor.h"
#include "connection/TarnSerialConnectorImpl.h"
#include "support/ConnectionTest.h"
#include "support/Process.h"
#include "support/SerialLine.h"
#include "support/TestAdapters.h"
#include "support/Threads.h"

#include <array>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <thread>

namespace {

std::vector<void*> LineParameters(const std::string& strPort, int& iBaud)
{
    return {const_cast<char*>(strPort.c_str()), &iBaud};
}

/// A connector over a serial line.
class LineConnector : public TestConnector
{
public:
    explicit LineConnector(unsigned long ulTargetID, const std::string& strPort = "", int iBaud = 9600)
        : TestConnector(ulTargetID, 0, SERIAL_TYPE)
    {
        if (!strPort.empty())
        {
            EXPECT_EQ(ReachLine(strPort, iBaud), 0);
        }
    }
    int ReachLine(const std::string& strPort, int iBaud)
    {
        std::vector<void*> parameters = LineParameters(strPort, iBaud);
        return InitCommuPara(parameters);
    }
    TarnSerialConnectorImpl& Serial() { return static_cast<TarnSerialConnectorImpl&>(*Impl()); }
    int SendBytes(const std::string& strBytes)
    {
        return SendToOutBuffer(strBytes.data(), static_cast<int>(strBytes.size()));
    }
};

/// A started library whose frames are counted by their serials.
class Serial : public ConnectionTest
{
protected:
    void SetUp() override
    {
        ConnectionTest::SetUp();
        host.SetCfg("bEnableSerialCom", "1");
        host.SetCfg("nAppProcessThreadNum", "1"); // answers stay in order
    }
    void StartCounting()
    {
        Start();
        pAdapter->onAnswer = [this](FrameMessage& message) {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            m_Answers.push_back(message.ulSerial);
        };
    }
    std::vector<std::uint32_t> Answers()
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        return m_Answers;
    }
    bool HasAnswers(const std::vector<std::uint32_t>& answers)
    {
        return WaitUntil([&] { return Answers() == answers; });
    }

private:
    std::mutex m_Mutex;
    std::vector<std::uint32_t> m_Answers;
};

} // namespace

TEST_F(Serial, ParametersAreTakenReportedAndRefused)
{
    Start();
    LineConnector connector(1, "/dev/ttyS77", 19200);
    const auto reported = [&connector] {
        ECommuProtocolType eType = UNKOWN_TYPE;
        unsigned long ulIP = 1;
        unsigned long ulNumber = 1;
        unsigned short usPort = 1;
        std::string texts[3] = {"x", "x", "x"};
        EXPECT_TRUE(connector.GetCommuPara(eType, ulIP, usPort, texts[0], texts[1], texts[2], ulNumber));
        EXPECT_EQ(eType, SERIAL_TYPE);
        EXPECT_EQ(ulIP + usPort + texts[0].size() + texts[1].size(), 0U);
        return texts[2] + "@" + std::to_string(ulNumber);
    };
    EXPECT_EQ(reported(), "/dev/ttyS77@19200");
    int iBaud = 50;
    char szOther[] = "other";
    std::vector<void*> wrong = {szOther};
    EXPECT_EQ(connector.InitCommuPara(wrong), -1);
    wrong = {szOther, &iBaud, szOther};
    EXPECT_EQ(connector.InitCommuPara(wrong), -1);
    EXPECT_EQ(
        host.Count(1, "TarnSerialConnectorImpl::InitCommuPara fail, input para vctParas's size(3) != 2.\n"),
        1);
    wrong = {szOther, nullptr};
    EXPECT_EQ(connector.InitCommuPara(wrong), -1);
    EXPECT_EQ(host.Count(0, "TarnSerialConnectorImpl::InitCommuPara, Baudrate error!"), 1);
    EXPECT_EQ(reported(), "/dev/ttyS77@19200");
    std::vector<void*> sameName = {nullptr, &iBaud};
    EXPECT_EQ(connector.InitCommuPara(sameName), 0);
    EXPECT_EQ(reported(), "/dev/ttyS77@50");
    EXPECT_EQ(connector.GetSocketStream(), nullptr);
    EXPECT_EQ(connector.Serial().AddAndSendData(nullptr, 1), -1);
    EXPECT_EQ(host.Count(2, "TarnSerialConnectorImpl::AddAndSendData fail, input para pData=NULL\n"), 1);
}

TEST_F(Serial, WhatCannotBeOpenedIsRefusedWithItsReason)
{
    Start();
    SerialLine line;
    LineConnector other(2, line.Port());
    EXPECT_EQ(other.Connect(), 0);
    LineConnector connector(1);
    EXPECT_EQ(connector.Connect(), -1) << "no parameters yet";
    const std::tuple<std::string, int, std::string> cases[] = {
        {"/dev/no such port", 9600, "cannot open port /dev/no such port, errno=2\n"},
        {"/tmp", 9600, "cannot open port /tmp, errno=25\n"},
        {std::string(5000, 'x'), 9600, "xxx, errno=36\n"},
        {line.Port(), 9600, "cannot open port " + line.Port() + ", errno=16\n"},
        {line.Port(), 0, "the baud rate is 0, port " + line.Port()},
        {line.Port(), -5, "the baud rate is -5, port " + line.Port()},
    };
    for (const auto& [strPort, iBaud, strReason] : cases)
    {
        EXPECT_EQ(connector.ReachLine(strPort, iBaud), 0);
        EXPECT_EQ(connector.Connect(), -1);
        EXPECT_EQ(host.CountContaining(1, strReason), 1) << strReason;
        EXPECT_EQ(connector.GetConnState(), STATE_DISCONNECTED);
    }
    SerialLine free;
    EXPECT_EQ(connector.ReachLine(free.Port(), 12345), 0);
    EXPECT_EQ(connector.Connect(), -1);
    EXPECT_EQ(host.CountContaining(1, "cannot set port " + free.Port() + " to 12345 baud, errno=22\n"), 1);
    EXPECT_EQ(connector.ReachLine(free.Port(), 38400), 0);
    EXPECT_EQ(connector.Connect(), 0) << "a failed attempt leaves nothing open";
    EXPECT_EQ(free.Speed(), B38400);
    EXPECT_EQ(connector.Connect(), 0) << "it is open";
    EXPECT_EQ(connector.DisConnect(), 0);
    EXPECT_EQ(connector.DisConnect(), 0);
    EXPECT_EQ(connector.GetConnState(), STATE_DISCONNECTED);
}

TEST_F(Serial, ALineIsServedByTheManagerAsAnyConnection)
{
    StartCounting();
    SerialLine line;
    const std::set<int> before = Threads();
    const int nDescriptors = DescriptorCount();
    LineConnector connector(1, line.Port(), 115200);
    std::atomic<bool> bFound{false};
    pAdapter->onFraming = [&](ACE_HANDLE handle) {
        std::size_t uStale = 1;
        const TarnConnectorGuard framed(TarnConnectorMgr::Instance()->GetFramedConnector(uStale));
        bFound = framed.Get() == &connector && uStale == 0 && handle == connector.Handle();
    };
    EXPECT_EQ(connector.Register(true, 1), 0);
    EXPECT_TRUE(WaitUntil([&] { return connector.nOpened == 1; }));
    EXPECT_EQ(connector.Send(7, "question"), 0);
    EXPECT_EQ(line.Receive(16), Element::Frame(7, "question"));
    // Byte by byte, and several at once, more than a chunk.
    for (const char cByte : Element::Frame(7, "answer"))
        line.Send(std::string(1, cByte));
    line.Send(Element::Frame(8, std::string(200, 'a')) + Element::Frame(9, "") + Element::Frame(10, "b"));
    EXPECT_TRUE(HasAnswers({7, 8, 9, 10}));
    EXPECT_TRUE(bFound);
    EXPECT_EQ(Manager().GetConnectorByHandle(connector.Handle()), &connector);
    Manager().ReleaseConnector(&connector);
    EXPECT_EQ(Manager().RequestDisConnect(TestConnector::GROUP, 1), 0);
    EXPECT_EQ(connector.GetConnState(), STATE_DISCONNECTED);
    EXPECT_TRUE(WaitUntil([&] { return connector.nBroken == 1; }));
    EXPECT_EQ(connector.Send(11, "unheard"), static_cast<int>(ADAPTER_ERR_INVALID_HANDLE));
    EXPECT_TRUE(WaitUntil([&] { return DescriptorCount() == nDescriptors; }));
    EXPECT_EQ(Manager().RequestConnect(TestConnector::GROUP, 1), 0);
    EXPECT_TRUE(WaitUntil([&] { return connector.nOpened == 2; }));
    line.Send(Element::Frame(12, ""));
    EXPECT_TRUE(HasAnswers({7, 8, 9, 10, 12}));
    EXPECT_EQ(connector.UnRegister(), 0);
    Manager().StopConnectThreads();
    EXPECT_TRUE(WaitUntil([&] { return Threads() == before; }));
    EXPECT_EQ(connector.nDisorder + connector.nOverlaps, 0);
}

TEST_F(Serial, BlocksFollowOneAnotherAfterAPauseAndLeftOnesGoFirst)
{
    static std::atomic<LineConnector*> s_pHoldUp;
    StartCounting();
    SerialLine line;
    LineConnector connector(1, line.Port(), 115200);
    EXPECT_EQ(connector.Register(true, 1), 0);
    // The thread is held up in the first block's trace until the others are queued.
    const auto begin = std::chrono::steady_clock::now();
    s_pHoldUp = &connector;
    RegisterTraceHexDataCBFunc([](const char*, int, int iType, std::uint32_t) {
        if (LineConnector* pConnector = s_pHoldUp.exchange(nullptr); iType == 1 && pConnector != nullptr)
        {
            EXPECT_EQ(pConnector->SendBytes("second"), 0);
            EXPECT_EQ(pConnector->SendBytes("third"), 0);
        }
    });
    EXPECT_EQ(connector.SendBytes("first"), 0);
    EXPECT_EQ(line.Receive(16), "firstsecondthird");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(990));
    RegisterTraceHexDataCBFunc(nullptr);
    // A line that takes nothing: what is left over goes out first on the next opening, then the next block.
    const std::string strLarge(200'000, 'l');
    EXPECT_EQ(connector.SendBytes(strLarge + "end"), 0);
    EXPECT_EQ(connector.SendBytes("next"), 0);
    EXPECT_TRUE(WaitUntil([&] { return line.IsSentTo(); }));
    EXPECT_EQ(Manager().RequestDisConnect(TestConnector::GROUP, 1), 0);
    line.Remove();
    line.Open();
    EXPECT_EQ(connector.ReachLine(line.Port(), 115200), 0);
    EXPECT_EQ(Manager().RequestConnect(TestConnector::GROUP, 1), 0);
    std::string strRest = line.Receive(1000);
    while (strRest.find("next") == std::string::npos && strRest.size() < strLarge.size() + 7)
        strRest += line.Receive(1);
    EXPECT_LT(strRest.size(), strLarge.size() + 7) << "nothing was taken by the first line";
    EXPECT_EQ(strRest.find_first_not_of('l'), strRest.size() - 7);
    EXPECT_EQ(strRest.substr(strRest.size() - 7), "endnext");
    EXPECT_EQ(connector.UnRegister(), 0);
}

TEST_F(Serial, ALineThatIsNotReadHoldsUpNoOther)
{
    StartCounting();
    SerialLine deaf;
    SerialLine line;
    LineConnector first(1, deaf.Port(), 19200); // a millisecond a byte
    LineConnector second(2, line.Port(), 19200);
    EXPECT_EQ(first.Register(true, 1), 0);
    EXPECT_EQ(second.Register(true, 1), 0);
    // Already after the first write that is cut off by its time the other line has its turn, before the rest.
    static std::atomic<bool> s_bWaiting{false};
    static std::atomic<int> s_nBefore{0};
    RegisterTraceHexDataCBFunc([](const char* pData, int iLength, int iType, std::uint32_t) {
        if (iType == 1 && std::string(pData, static_cast<std::size_t>(iLength)) == "early")
            s_bWaiting = false;
        else if (iType == 1 && s_bWaiting)
            ++s_nBefore;
    });
    host.StepIn("Probable Write Timeout", [&] {
        s_bWaiting = true;
        EXPECT_EQ(second.SendBytes("early"), 0);
    });
    // More than the line takes, which is less than 20,000 bytes: it ends in writes that are not taken in their time.
    std::string strSent;
    for (int i = 0; strSent.size() < 21'000; ++i)
        strSent += std::to_string(i) + ",";
    EXPECT_EQ(first.SendBytes(strSent.substr(0, 12'000)), 0);
    for (std::size_t uBegin = 12'000; uBegin < strSent.size(); uBegin += 1'000)
        EXPECT_EQ(first.SendBytes(strSent.substr(uBegin, 1'000)), 0);
    EXPECT_TRUE(WaitUntil([&] {
        return host.CountContaining(1, "Probable Write Timeout: Total of 0 bytes sent.errno=110") > 0;
    }));
    EXPECT_EQ(second.SendBytes("heard"), 0);
    EXPECT_EQ(line.Receive(10), "earlyheard");
    EXPECT_LE(s_nBefore, 1) << "once, if a block that is queued meanwhile asks for the first line's turn";
    RegisterTraceHexDataCBFunc(nullptr);
    EXPECT_EQ(deaf.Receive(strSent.size()), strSent) << "once it is read again, nothing is missing";
    EXPECT_EQ(first.UnRegister(), 0);
    EXPECT_EQ(second.UnRegister(), 0);
}

TEST_F(Serial, GarbageIsDiscardedAndThePortStaysOpen)
{
    StartCounting();
    SerialLine line;
    LineConnector connector(1, line.Port());
    EXPECT_EQ(connector.Register(true, 1), 0);
    line.Send(std::string(300, '\xff') + "more of it");
    EXPECT_TRUE(WaitUntil([&] {
        return host.CountContaining(1, "TarnSerialConnectorImpl CheckMessageValid: ret = -1 \n") > 0;
    }));
    EXPECT_TRUE(WaitUntil([&] {
        // Whatever is left of the garbage is refused with the next bytes at the latest.
        line.Send(Element::Frame(1, ""));
        return !Answers().empty();
    }));
    // A frame that is announced and never ends.
    line.Send(std::string("\x01\xff\xff\xff", 4));
    const std::string strPiece(65'536, '\0');
    while (host.CountContaining(1, "no message in ") == 0)
        line.Send(strPiece);
    EXPECT_EQ(connector.nBroken, 0);
    EXPECT_EQ(connector.UnRegister(), 0);
}

TEST_F(Serial, AResultBeyondTheBytesEmptiesTheBuffer)
{
    StartCounting();
    SerialLine line;
    LineConnector connector(1, line.Port());
    std::atomic<int> nCalls{0};
    auto* pGreedy = new TestAdapter(78, [&](void*, std::vector<unsigned char>& data) {
        ++nCalls;
        return static_cast<int>(data.size()) + 100;
    });
    EXPECT_EQ(TEAdapterManager::Instance()->RegisterProtocolAdapter(78, pGreedy, false), 0);
    connector.SetAdapterProtocolID(78);
    EXPECT_EQ(connector.Register(true, 1), 0);
    line.Send("x");
    EXPECT_TRUE(WaitUntil([&] { return nCalls == 1; }));
    line.Send("y");
    EXPECT_TRUE(WaitUntil([&] { return nCalls == 2; }));
    EXPECT_EQ(connector.UnRegister(), 0);
}

TEST_F(Serial, ADeviceThatGoesAwayAndComesBackIsFoundByTheNextOpening)
{
    StartCounting();
    SerialLine line;
    const std::string strLink = ::testing::TempDir() + "tarn_line_" + std::to_string(getpid());
    const auto plugIn = [&] {
        std::filesystem::remove(strLink);
        std::filesystem::create_symlink(line.Port(), strLink);
    };
    plugIn();
    LineConnector connector(1, strLink);
    std::atomic<int> nFramings{0};
    pAdapter->onFraming = [&](ACE_HANDLE) { ++nFramings; };
    EXPECT_EQ(connector.Register(true, 1), 0);
    const int nDescriptors = DescriptorCount();
    Manager().StopConnectThreads();
    const std::size_t uThreads = Threads().size();
    Manager().ResumeConnectThreads();
    for (std::uint32_t i = 1; i <= 5; ++i)
    {
        // What has not been read when a pseudo terminal loses its other end is lost.
        const int nBefore = nFramings;
        line.Send(Element::Frame(i, "").substr(0, 8 - i % 2)); // the frame is cut in every second round
        EXPECT_TRUE(WaitUntil([&] { return nFramings > nBefore; }));
        line.Remove();
        EXPECT_TRUE(WaitUntil([&] {
            return host.Count(1, "CommWatchThrdProc, wait comm event error 5.\n") == static_cast<int>(i);
        }));
        EXPECT_EQ(connector.SendBytes("unheard"), 0);
        EXPECT_TRUE(WaitUntil(
            [&] { return host.Count(1, "TEIOHandler::Write, send data error!\n") == static_cast<int>(i); }));
        // Nothing spins on a line that is gone: neither a processor nor the log.
        const std::clock_t begin = std::clock();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
        WaitUntil([&] { return std::chrono::steady_clock::now() > deadline; });
        EXPECT_LT(std::clock() - begin, CLOCKS_PER_SEC / 10);
        EXPECT_EQ(host.Count(1, "CommWatchThrdProc, wait comm event error 5.\n"), static_cast<int>(i));
        line.Open();
        plugIn();
        EXPECT_EQ(Manager().RequestDisConnect(TestConnector::GROUP, 1), 0);
        EXPECT_EQ(Manager().RequestConnect(TestConnector::GROUP, 1), 0);
        EXPECT_TRUE(WaitUntil([&] { return connector.nOpened == static_cast<int>(i) + 1; }));
        EXPECT_EQ(line.Receive(7), "unheard") << "what was not sent goes out first";
        if (i % 2 == 1)
            line.Send(Element::Frame(i, "").substr(7)); // what was received stays
        EXPECT_TRUE(WaitUntil([&] { return Answers().size() == i; }));
    }
    EXPECT_EQ(DescriptorCount(), nDescriptors);
    Manager().StopConnectThreads();
    EXPECT_TRUE(WaitUntil([&] { return Threads().size() == uThreads; }));
    Manager().ResumeConnectThreads();
    EXPECT_EQ(connector.UnRegister(), 0);
    std::filesystem::remove(strLink);
}

TEST_F(Serial, TheAdapterMayCloseTheLineWhileItFrames)
{
    StartCounting();
    SerialLine line;
    LineConnector connector(1, line.Port());
    std::atomic<int> nRefused{0};
    std::atomic<bool> bClose{true};
    pAdapter->onFraming = [&](ACE_HANDLE) {
        if (!bClose.exchange(false))
            return;
        EXPECT_EQ(connector.DisConnect(), 0);
        nRefused += connector.Connect() == -1 ? 1 : 0; // it would wait for itself
    };
    EXPECT_EQ(connector.Register(true, 1), 0);
    line.Send(Element::Frame(1, "") + Element::Frame(2, ""));
    EXPECT_TRUE(WaitUntil([&] { return nRefused == 1; }));
    EXPECT_EQ(connector.Connect(), 0) << "from elsewhere it is waited for";
    line.Send(Element::Frame(3, ""));
    EXPECT_TRUE(HasAnswers({1, 2, 3})) << "what was not framed is kept";
    EXPECT_EQ(connector.DisConnect(), 0);
    EXPECT_EQ(connector.UnRegister(), 0);
}

TEST_F(Serial, SeveralWhoWaitForTheEndOfAClosingOpenTheLineOnce)
{
    StartCounting();
    SerialLine line;
    LineConnector connector(1, line.Port());
    std::atomic<bool> bClose{false};
    std::atomic<bool> bClosed{false};
    pAdapter->onFraming = [&](ACE_HANDLE) {
        if (!bClose.exchange(false))
            return;
        EXPECT_EQ(connector.DisConnect(), 0);
        bClosed = true;
    };
    EXPECT_EQ(connector.Connect(), 0);
    const std::uint32_t ulFirst = connector.Impl()->OpenSession();
    const auto nRounds = static_cast<std::uint32_t>(StressRounds(50));
    for (std::uint32_t i = 1; i <= nRounds; ++i)
    {
        bClosed = false;
        bClose = true;
        line.Send(Element::Frame(i, ""));
        ASSERT_TRUE(WaitUntil([&] { return bClosed.load(); }));
        RunTogether(4, [&](int) { EXPECT_EQ(connector.Connect(), 0); });
        ASSERT_EQ(connector.Impl()->OpenSession(), ulFirst + i) << "one closes what another has opened";
    }
    EXPECT_EQ(connector.DisConnect(), 0);
}

TEST_F(Serial, AnAdapterIsNotDeletedWhileALineThatNobodyHasStoppedIsInside)
{
    // A manager that was never started, so that its end stops no line.
    std::atomic<bool> bInside{false};
    std::atomic<bool> bLeave{false};
    auto* pAdapter78 = new TestAdapter(78, [&](void*, std::vector<unsigned char>&) {
        bInside = true;
        WaitUntil([&] { return bLeave.load(); });
        return 0;
    });
    EXPECT_EQ(TEAdapterManager::Instance()->RegisterProtocolAdapter(78, pAdapter78, false), 0);
    SerialLine line;
    LineConnector connector(1, line.Port());
    connector.SetAdapterProtocolID(78);
    EXPECT_EQ(connector.Connect(), 0);
    line.Send("x");
    EXPECT_TRUE(WaitUntil([&] { return bInside.load(); }));
    std::thread destroyer([] { TEAdapterManager::Destroy(); });
    EXPECT_TRUE(WaitUntil([&] {
        return TestAdapter::Alive() == 0 ||
               host.CountContaining(3, "TEAdapterManager::Destroy, waiting for 1 calls") > 0;
    }));
    EXPECT_EQ(TestAdapter::Alive(), 1);
    bLeave = true;
    destroyer.join();
    EXPECT_EQ(TestAdapter::Alive(), 0);
    EXPECT_EQ(connector.DisConnect(), 0);
}

TEST_F(Serial, WithoutTheSendReactorSendsAreSaidOnceAndLeftQueued)
{
    host.SetCfg("bEnableSerialCom", "0");
    StartCounting();
    SerialLine line;
    LineConnector connector(1, line.Port());
    EXPECT_EQ(connector.Register(true, 1), 0);
    EXPECT_EQ(connector.SendBytes("queued"), 0);
    EXPECT_EQ(connector.SendBytes("queued"), 0);
    EXPECT_EQ(host.CountContaining(1, "the send reactor is not started"), 1);
    line.Send(Element::Frame(1, ""));
    EXPECT_TRUE(HasAnswers({1}));
    // A full queue refuses, since nobody will ever empty it.
    const std::string strLarge(10'240'000, 'x');
    EXPECT_EQ(connector.SendBytes(strLarge), 0);
    EXPECT_EQ(connector.SendBytes("x"), -1);
    EXPECT_EQ(host.Count(1, "TEIOHandler::AddAndSendData: out msg queue is full.\n"), 1);
    EXPECT_EQ(connector.UnRegister(), 0);
}

TEST_F(Serial, AStopEndsAWriteThatIsNotTakenAfterThirtySecondsAndLetsGoWhoWaitsForRoom)
{
    StartCounting();
    SerialLine line; // which nobody reads
    LineConnector connector(1, line.Port());
    EXPECT_EQ(connector.Register(true, 1), 0);
    EXPECT_EQ(connector.SendBytes(std::string(5'000, 'x')), 0);
    EXPECT_EQ(line.Receive(1).empty(), false);
    // One is being written, and one fills the queue from then on.
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(connector.SendBytes(std::string(10'240'000, 'x')), 0);
    // An application thread, which the stop waits for.
    std::atomic<bool> bWaiting{false};
    std::atomic<int> iResult{0};
    pAdapter->onAnswer = [&](FrameMessage&) {
        bWaiting = true;
        iResult = connector.SendBytes("x");
    };
    auto* pMessage = new FrameMessage(pAdapter, pAdapter->onAnswer);
    EXPECT_EQ(TEAsyncIOMgr::Instance()->AddTERspMessageData(pMessage), 0);
    EXPECT_TRUE(WaitUntil([&] { return bWaiting.load(); }));
    const auto begin = std::chrono::steady_clock::now();
    tarnadapter::Fini();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(29));
    EXPECT_EQ(host.Count(1, "Now serial reactor is to leave.\n"), 1);
    EXPECT_EQ(host.Count(1, "Now waitting serial reactor to leave is timeout.\n"), 1);
    EXPECT_EQ(host.CountContaining(1, "the send thread does not end"), 0);
    EXPECT_NE(iResult, 0);
}

TEST_F(Serial, LinesStayOpenOverAStopAndAreOpenedAnewInTheNextLife)
{
    const std::set<int> before = Threads();
    StartCounting();
    SerialLine line;
    LineConnector connector(1, line.Port());
    EXPECT_EQ(connector.Register(true, 1), 0);
    EXPECT_EQ(connector.SendBytes("one"), 0);
    EXPECT_EQ(line.Receive(3), "one");
    tarnadapter::Fini();
    EXPECT_TRUE(WaitUntil([&] { return Threads() == before; }))
        << "a watch thread or the send thread is left";
    EXPECT_EQ(connector.GetConnState(), STATE_CONNECTED);
    StartCounting();
    EXPECT_EQ(connector.Register(true, 1), 0);
    EXPECT_EQ(connector.SendBytes("two"), 0);
    EXPECT_EQ(line.Receive(3), "two");
    line.Send(Element::Frame(1, ""));
    EXPECT_TRUE(HasAnswers({1}));
    EXPECT_EQ(connector.UnRegister(), 0);
}

TEST_F(Serial, ManyLinesAnswerWhileTheyAreClosedAndOpened)
{
    StartCounting();
    constexpr int LINES = 4;
    SerialLine lines[LINES];
    std::vector<std::unique_ptr<LineConnector>> connectors;
    for (int i = 0; i < LINES; ++i)
    {
        connectors.push_back(
            std::make_unique<LineConnector>(static_cast<unsigned long>(i + 1), lines[i].Port(), 115200));
        // Every other one by its facade alone.
        EXPECT_EQ(i % 2 == 0 ? connectors.back()->Register(true, 1) : connectors.back()->Connect(), 0);
    }
    // Devices that send without end, and read.
    std::atomic<bool> bEnd{false};
    std::vector<std::thread> devices;
    for (const SerialLine& line : lines)
        devices.emplace_back([&line, &bEnd] {
            while (!bEnd)
                line.Babble(Element::Frame(1, std::string(100, 'r')));
        });
    RunTogether(LINES, [&](int i) {
        LineConnector& connector = *connectors[static_cast<std::size_t>(i)];
        for (int iRound = 0; iRound < StressRounds(50); ++iRound)
        {
            connector.Serial().AddAndSendData("request", 7);
            if (i % 2 == 0)
            {
                EXPECT_EQ(Manager().RequestDisConnect(TestConnector::GROUP, connector.GetTargetID()), 0);
                EXPECT_EQ(Manager().RequestConnect(TestConnector::GROUP, connector.GetTargetID()), 0);
            }
            else
            {
                EXPECT_EQ(connector.DisConnect(), 0);
                EXPECT_EQ(connector.Connect(), 0);
            }
        }
    });
    const std::size_t uAnswers = Answers().size();
    EXPECT_TRUE(WaitUntil([&] { return Answers().size() > uAnswers; }));
    for (int i = 0; i < LINES; ++i)
        EXPECT_EQ(i % 2 == 0 ? connectors[static_cast<std::size_t>(i)]->UnRegister() : 0, 0);
    bEnd = true;
    for (std::thread& device : devices)
        device.join();
    for (const auto& pConnector : connectors)
        EXPECT_EQ(pConnector->nOverlaps + pConnector->nDisorder, 0);
}
