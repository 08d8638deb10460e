#include "connection/TarnConnectorMgrImpl.h"
#include "connection/TarnTP4ConnectorImpl.h"
#include "platform/Tp4File.h"
#include "support/ConnectionTest.h"
#include "support/Process.h"
#include "support/SocketPair.h"
#include "support/Threads.h"
#include "support/Tp4Line.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

namespace {

const std::string ADDRESS_TEXT = "49000F0102";
const std::string ADDRESS("\x49\x00\x0F\x01\x02", 5);

int Init(TarnConnector& connector, const char* pszAddress, const char* pszTsap)
{
    // The vector's elements are not const, but only read.
    std::vector<void*> parameters = {const_cast<char*>(pszAddress), const_cast<char*>(pszTsap)};
    return connector.InitCommuPara(parameters);
}

std::string Reported(TarnConnector& connector)
{
    ECommuProtocolType eType = UNKOWN_TYPE;
    unsigned long ulIP = 1;
    unsigned short usPort = 1;
    std::string texts[3] = {"1", "2", "3"};
    unsigned long ulNumber = 1;
    EXPECT_TRUE(connector.GetCommuPara(eType, ulIP, usPort, texts[0], texts[1], texts[2], ulNumber));
    EXPECT_EQ(eType, TP4_TYPE);
    EXPECT_EQ(ulIP + usPort + ulNumber, 0U);
    EXPECT_EQ(texts[2], "");
    return texts[0] + '/' + texts[1];
}

class Tp4 : public ConnectionTest
{
protected:
    void StartNoting()
    {
        Start();
        pAdapter->onAnswer = [this](FrameMessage& message) {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            m_Received.push_back(message.strPayload);
        };
    }
    bool HasReceived(const std::string& strPayload)
    {
        return WaitUntil([&] {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            return std::find(m_Received.begin(), m_Received.end(), strPayload) != m_Received.end();
        });
    }
    static bool WaitOpened(TestConnector& connector, int nOpened)
    {
        return WaitUntil(
            [&] { return connector.nOpened >= nOpened && connector.GetConnState() == STATE_CONNECTED; });
    }
    static std::unique_ptr<TestConnector> MakeTp4(unsigned long ulTargetID = 1)
    {
        auto pConnector = std::make_unique<TestConnector>(ulTargetID, 0, TP4_TYPE);
        EXPECT_EQ(Init(*pConnector, ADDRESS_TEXT.c_str(), "snmp"), 0);
        return pConnector;
    }

    const Tp4Folder folder;

private:
    std::mutex m_Mutex;
    std::vector<std::string> m_Received; // guarded by m_Mutex
};

TEST_F(Tp4, ParametersAreCheckedAndReported)
{
    TestConnector connector(1, 0, TP4_TYPE);
    EXPECT_EQ(connector.GetCommuProtType(), TP4_TYPE);
    EXPECT_EQ(Reported(connector), "/");
    const std::string strLongest(80, 'a');
    char szText[] = "00";
    for (std::vector<void*> parameters : {std::vector<void*>{}, {szText}, {szText, szText, szText}})
        EXPECT_EQ(connector.InitCommuPara(parameters), -1);
    EXPECT_EQ(host.Count(1, "TarnTP4ConnectorImpl::Init vctParas's size is incorrect.\n"), 3);
    EXPECT_EQ(Init(connector, strLongest.c_str(), "exactly fifteen"), 0);
    EXPECT_EQ(Reported(connector), strLongest + "/exactly fifteen");
    host.ClearLines();
    for (const std::string& strWrong :
         {std::string("123"), strLongest + "00", std::string("4g"), std::string("0x"), std::string("-1"),
          std::string(" 1"), std::string(100'001, '0')})
        EXPECT_EQ(Init(connector, strWrong.c_str(), "new"), -1) << strWrong;
    EXPECT_EQ(host.Lines().size(), 7U);
    EXPECT_EQ(host.Count(1, "TarnTP4ConnectorImpl::Init vctParas's TP4Address is invalid.\n"), 7);
    EXPECT_EQ(Init(connector, nullptr, "new"), -1);
    EXPECT_EQ(host.CountContaining(1, "get_sap, input para error, s = 0x0, p_len = 0x"), 1);
    EXPECT_EQ(Reported(connector), strLongest + "/exactly fifteen");
    // The address is taken before the selector is looked at.
    EXPECT_EQ(Init(connector, "49000f", "now it's sixteen"), -1);
    EXPECT_EQ(Init(connector, "49000f", nullptr), -1);
    EXPECT_EQ(host.Count(1, "TarnTP4ConnectorImpl::Init vctParas's TP4TSAP is invalid.\n"), 2);
    EXPECT_EQ(Reported(connector), "49000f/exactly fifteen");
    EXPECT_EQ(Init(connector, "", ""), 0);
    EXPECT_EQ(Reported(connector), "/");
    connector.Impl()->SetCommuProtType(TCP_TYPE);
    ECommuProtocolType eType = UNKOWN_TYPE;
    unsigned long ulNumber = 0;
    unsigned short usPort = 0;
    std::string strText;
    EXPECT_FALSE(connector.GetCommuPara(eType, ulNumber, usPort, strText, strText, strText, ulNumber));
}

TEST_F(Tp4, HexDigitsBecomeBytes)
{
    std::uint32_t ulLength = 7;
    unsigned char bytes[] = {9, 9, 9, 9};
    EXPECT_TRUE(TarnTP4ConnectorImpl::get_sap("49000F", 3, &ulLength, bytes));
    EXPECT_EQ(ulLength, 3U);
    EXPECT_EQ(std::string(bytes, bytes + 4), std::string("\x49\x00\x0F\x09", 4));
    for (const char* pszWrong : {"1", "0102030405", "0g", "12 3"})
        EXPECT_FALSE(TarnTP4ConnectorImpl::get_sap(pszWrong, 4, &ulLength, bytes)) << pszWrong;
    EXPECT_EQ(ulLength, 3U);
    EXPECT_TRUE(host.Lines().empty());
    EXPECT_TRUE(TarnTP4ConnectorImpl::get_sap("", 0, &ulLength, bytes));
    EXPECT_EQ(ulLength, 0U);
    EXPECT_FALSE(TarnTP4ConnectorImpl::get_sap("00", 1, nullptr, bytes));
    EXPECT_FALSE(TarnTP4ConnectorImpl::get_sap("00", 1, &ulLength, nullptr));
    EXPECT_FALSE(TarnTP4ConnectorImpl::get_sap(nullptr, 1, &ulLength, bytes));
    EXPECT_EQ(host.CountContaining(1, "get_sap, input para error, s = 0x"), 3);
}

TEST_F(Tp4, TheSocketAddressHasTheProvidersLayout)
{
    TarnTP4ConnectorImpl::TransportAddress address;
    address.ulAddressLength = 20;
    std::memset(address.address, 0xAB, 20);
    address.address[1] = 0;
    address.ulTsapLength = 2;
    std::strcpy(address.szTsap, "ne");
    const SOCKADDR_TP socketAddress = TarnTP4ConnectorImpl::SocketAddress(address);
    const auto* pBytes = reinterpret_cast<const char*>(&socketAddress);
    const std::string strExpected =
        std::string("\x07\0\0\0\x16\0\x02\0ne\xAB\0", 12) + std::string(18, '\xAB');
    EXPECT_EQ(std::string(pBytes, strExpected.size()), strExpected);
    EXPECT_EQ(sizeof(socketAddress), 72U);
}

TEST_F(Tp4, ItsOwnerOpensAndClosesIt)
{
    const auto pRoad = std::make_unique<Tp4Road>("snmp", ADDRESS, element.Port());
    const int nDescriptors = DescriptorCount();
    auto pConnector = MakeTp4(0x2A);
    EXPECT_EQ(pConnector->Connect(), 0);
    EXPECT_EQ(host.Count(1, "Before Connect,GRPID = 1,TargetID = 0x2a\n"), 1);
    EXPECT_EQ(host.Count(1, "Connectted Target,Group = 1,(TARGETID= 0x2a) ok!\n"), 1);
    EXPECT_EQ(pConnector->GetConnState(), STATE_CONNECTED);
    EXPECT_EQ(fcntl(pConnector->Handle(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_TRUE(WaitUntil([&] { return element.Accepted() == 1; }));
    // An attempt that has waited for its turn leaves it open, its owner opens it anew.
    EXPECT_EQ(pConnector->Impl()->ConnectQueued(), 0);
    host.ClearLines();
    EXPECT_EQ(pConnector->Connect(), 0);
    EXPECT_EQ(host.Lines().at(0).strText, "Before Connect,GRPID = 1,TargetID = 0x2a\n");
    EXPECT_EQ(host.Lines().at(1).strText,
              "TarnTP4Connector::Connect the socket is opened, so close it first! Group "
              "= 1,TARGETID = 0x2a.\n");
    EXPECT_EQ(host.Lines().size(), 3U);
    EXPECT_TRUE(WaitUntil([&] { return element.Accepted() == 2 && element.Open() == 1; }));
    host.ClearLines();
    EXPECT_EQ(pConnector->DisConnect(), 0);
    EXPECT_TRUE(host.Lines().empty());
    EXPECT_EQ(pConnector->GetConnState(), STATE_DISCONNECTED);
    EXPECT_EQ(pConnector->Impl()->GetHandle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(pConnector->DisConnect(), 0);
    EXPECT_EQ(
        host.Count(1, "TarnTP4Connector::DisConnect, the socket broken already!Group = 1,TARGETID = 0x2a.\n"),
        1);
    EXPECT_EQ(pConnector->Impl()->ConnectQueued(), 0);
    EXPECT_TRUE(WaitUntil([&] { return element.Accepted() == 3 && element.Open() == 1; }));
    // What is still open when it is destroyed is closed with it.
    host.ClearLines();
    pConnector.reset();
    EXPECT_TRUE(host.Lines().empty());
    EXPECT_TRUE(WaitUntil([&] { return element.Open() == 0 && DescriptorCount() == nDescriptors; }));
}

TEST_F(Tp4, AnAttemptFailsForAReasonThatIsTold)
{
    const auto pConnector = MakeTp4();
    const int nDescriptors = DescriptorCount();
    pConnector->SetConnState(STATE_CONNECTING);
    errno = 0;
    EXPECT_EQ(pConnector->Connect(), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(host.Count(1, "After Connect, connect fail, Group = 1 ,TARGETID = 0x1,errno is: 111 \n"), 1);
    EXPECT_EQ(pConnector->GetConnState(), STATE_CONNECTING);
    {
        // Reopening fails: it is closed now, and does not pass for connected.
        const Tp4Peer peer("snmp", ADDRESS);
        EXPECT_EQ(pConnector->Connect(), 0);
    }
    EXPECT_EQ(pConnector->Connect(), -1);
    EXPECT_EQ(pConnector->GetConnState(), STATE_DISCONNECTED);
    setenv("TARN_TP4_DIR", "/nonexistent", 1);
    EXPECT_EQ(pConnector->Connect(), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    EXPECT_EQ(
        host.Count(
            1, "TarnTP4Connector::Connect Create the socket failed,Group = 1,TARGETID = 0x1,errno is 97.\n"),
        1);
    EXPECT_EQ(pConnector->Impl()->GetHandle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(DescriptorCount(), nDescriptors);
}

TEST_F(Tp4, SingleCallsTellWhatTheyCameTo)
{
    const SocketPair pair;
    TarnTP4ConnectorImpl connection(nullptr);
    char bytes[8] = {};
    EXPECT_EQ(connection.SendData(nullptr, 1), -1);
    EXPECT_EQ(connection.RecvData(nullptr, 1), -1);
    EXPECT_TRUE(host.Lines().empty());
    connection.set_handle(fcntl(pair.iNear, F_DUPFD_CLOEXEC, 0));
    EXPECT_EQ(connection.RecvData(bytes, 8), 0);
    pair.Send("abc");
    EXPECT_EQ(connection.RecvData(bytes, 8), 3);
    const std::string strMuch(10'000'000, 'm');
    const int iSent = connection.SendData(strMuch.data(), 10'000'000);
    EXPECT_GT(iSent, 0);
    EXPECT_LT(iSent, 10'000'000);
    EXPECT_EQ(connection.SendData(strMuch.data(), 10), 0);
    EXPECT_EQ(pair.Receive(static_cast<std::size_t>(iSent)).size(), static_cast<std::size_t>(iSent));
    shutdown(pair.iFar, SHUT_RDWR);
    errno = 0;
    EXPECT_EQ(connection.RecvData(bytes, 8), -1);
    EXPECT_EQ(host.CountContaining(1, " Port close ; errno : "), 1);
    EXPECT_EQ(connection.SendData("x", 1), -1);
    char szLine[100] = {};
    std::snprintf(szLine, sizeof(szLine),
                  "TarnTP4ConnectorImpl(handle:0x%x) SendData error number is :32 when write -1\n",
                  static_cast<unsigned>(connection.GetHandle()));
    EXPECT_EQ(host.Count(1, szLine), 1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(connection.DisConnect(), 0);
    EXPECT_EQ(connection.RecvData(bytes, 8), -1);
    EXPECT_EQ(host.Count(1, " recv : -1 errno : 9 \n"), 1);
}

TEST_F(Tp4, ABrokenConnectionIsReopenedAndAnswersOfAnySize)
{
    StartNoting();
    const Tp4Road road("snmp", ADDRESS, element.Port());
    const auto pConnector = MakeTp4();
    ASSERT_EQ(pConnector->Register(), 0);
    for (int i = 1; i <= 6; ++i)
    {
        ASSERT_TRUE(WaitOpened(*pConnector, i)) << i;
        for (const std::size_t uSize : {1U, 1016U, 20'000U, 1'000'000U})
        {
            const std::string strPayload(uSize + static_cast<std::size_t>(i), static_cast<char>('a' + i));
            EXPECT_EQ(pConnector->Send(1, strPayload), 0);
            ASSERT_TRUE(HasReceived(strPayload)) << uSize;
        }
        element.DropAll(i % 2 == 0);
        ASSERT_TRUE(WaitUntil([&] { return pConnector->nBroken == i; })) << i;
    }
    ASSERT_TRUE(WaitOpened(*pConnector, 7));
    // Opened anew by its owner, it is his to have served again.
    EXPECT_TRUE(
        WaitUntil([&] { return element.Accepted() == 7; })); // the relay is there later than the connection
    EXPECT_EQ(pConnector->Connect(), 0);
    EXPECT_TRUE(WaitUntil([&] { return element.Accepted() == 8 && element.Open() == 1; }));
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_TRUE(WaitUntil([&] { return element.Open() == 0; }));
    EXPECT_EQ(pConnector->nDisorder, 0);
}

/// What the peer has sent before it went is framed, although it has left our bytes unread.
TEST_F(Tp4, APeerThatClosesWithBytesUnreadHasItsAnswerFramed)
{
    StartNoting();
    const Tp4Peer peer("snmp", ADDRESS);
    const auto pConnector = MakeTp4();
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitOpened(*pConnector, 1));
    const int iPeer = peer.Accept();
    EXPECT_EQ(pConnector->Send(1, "unread"), 0);
    char byte = 0;
    EXPECT_TRUE(WaitUntil([&] { return recv(iPeer, &byte, 1, MSG_PEEK) == 1; }));
    const std::string strPayload(20'000, 'p');
    const std::string strFrame = Element::Frame(1, strPayload);
    EXPECT_EQ(send(iPeer, strFrame.data(), strFrame.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(strFrame.size()));
    close(iPeer);
    EXPECT_TRUE(HasReceived(strPayload));
    EXPECT_TRUE(WaitUntil([&] { return host.Count(1, " recv : -1 errno : 104 \n") == 1; }));
    EXPECT_TRUE(WaitOpened(*pConnector, 2));
    EXPECT_EQ(pConnector->UnRegister(), 0);
}

TEST_F(Tp4, AttemptsAreRepeatedUntilSomebodyListens)
{
    StartNoting();
    const int nDescriptors = DescriptorCount();
    const auto pConnector = MakeTp4();
    ASSERT_EQ(pConnector->Register(), 0);
    EXPECT_TRUE(WaitUntil([&] { return host.CountContaining(1, "After Connect, connect fail") >= 20; }));
    EXPECT_LE(DescriptorCount(), nDescriptors + 1); // one attempt may be under way
    {
        const Tp4Road road("snmp", ADDRESS, element.Port());
        ASSERT_TRUE(WaitOpened(*pConnector, 1));
        EXPECT_EQ(pConnector->Send(1, "at last"), 0);
        EXPECT_TRUE(HasReceived("at last"));
    }
    // More than once, if an attempt has still found the listener.
    EXPECT_TRUE(WaitUntil([&] { return pConnector->nBroken >= 1; }));
    EXPECT_EQ(pConnector->UnRegister(), 0);
    // The element's, too; the threads that have been started may still have had one open at first.
    EXPECT_TRUE(WaitUntil([&] { return DescriptorCount() <= nDescriptors; }));
}

TEST_F(Tp4, AddressesOfAnyBytesLeadToTheirOwnElements)
{
    StartNoting();
    const char* pszOddTsap = "a\"b/c d\\e*f?g<h";
    const std::string strDigits = "00" + std::string(76, 'F') + "00";
    const std::string strBytes = '\0' + std::string(38, '\xFF') + '\0';
    const Element second;
    const Tp4Road toEmpty("", "", element.Port());
    const Tp4Road toOdd(pszOddTsap, strBytes, second.Port());
    TestConnector empty(1, 0, TP4_TYPE);
    TestConnector odd(2, 0, TP4_TYPE);
    ASSERT_EQ(Init(empty, "", ""), 0);
    ASSERT_EQ(Init(odd, strDigits.c_str(), pszOddTsap), 0);
    ASSERT_EQ(empty.Register(true, 1), 0);
    ASSERT_EQ(odd.Register(true, 1), 0);
    EXPECT_EQ(empty.Send(1, "to the empty address"), 0);
    EXPECT_EQ(odd.Send(2, "to the odd address"), 0);
    EXPECT_TRUE(HasReceived("to the empty address") && HasReceived("to the odd address"));
    EXPECT_EQ(element.Requests(), 1);
    EXPECT_EQ(second.Requests(), 1);
    EXPECT_EQ(empty.UnRegister(), 0);
    EXPECT_EQ(odd.UnRegister(), 0);
}

/// Another program behind the address, that hands the stream on in pieces of seven bytes.
TEST_F(Tp4, AnIndependentListenerIsReachedAsWell)
{
    StartNoting();
    const std::string strPath = folder.Path() + '/' + Tp4FileName("snmp", ADDRESS);
    const Process socat({"socat", "-b", "7", "UNIX-LISTEN:" + strPath + ",fork",
                         "TCP:127.0.0.1:" + std::to_string(element.Port()) + ",nodelay"});
    const auto pConnector = MakeTp4();
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitOpened(*pConnector, 1));
    const std::string strPayload(20'000, 's');
    EXPECT_EQ(pConnector->Send(1, strPayload), 0);
    EXPECT_TRUE(HasReceived(strPayload));
    element.DropAll(false);
    ASSERT_TRUE(WaitOpened(*pConnector, 2));
    EXPECT_EQ(pConnector->Send(2, "again"), 0);
    EXPECT_TRUE(HasReceived("again"));
    EXPECT_EQ(pConnector->UnRegister(), 0);
}

} // namespace
