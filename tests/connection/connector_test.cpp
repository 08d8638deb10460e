#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "connection/TcpSocket.h"
#include "support/ConnectionTest.h"
#include "support/SocketPair.h"
#include "support/Threads.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

class Connector : public ConnectionTest
{};

TEST_F(Connector, WithoutTransportEveryOperationHasItsFallback)
{
    TarnConnector connector;
    ECommuProtocolType eType = TCP_TYPE;
    unsigned long ulIP = 0;
    unsigned short usPort = 0;
    std::string strText;
    unsigned long ulNumber = 0;
    std::vector<void*> parameters;
    EXPECT_EQ(connector.GetTarnConnectorImpl(), nullptr);
    EXPECT_EQ(connector.GetConnState(), STATE_DISCONNECTED);
    EXPECT_EQ(connector.SetConnState(STATE_CONNECTED), -1);
    EXPECT_EQ(reinterpret_cast<std::intptr_t>(connector.GetHandle()), -1);
    EXPECT_EQ(connector.SetHandle(nullptr), -1);
    EXPECT_EQ(host.Lines().size(), 0U);
    EXPECT_EQ(connector.GetTargetID(), 0U);
    EXPECT_EQ(connector.SetTargetID(1), -1);
    EXPECT_EQ(connector.SetAdapterProtocolID(1), -1);
    EXPECT_EQ(connector.SetControlFlag(1), -1);
    EXPECT_EQ(connector.GetControlFlag(), -1);
    EXPECT_FALSE(connector.IsControlParaTrue(1));
    EXPECT_EQ(connector.SetConnTimeOut(1), -1);
    EXPECT_EQ(connector.SetMaxConnectCount(1), -1);
    EXPECT_EQ(connector.SetGroupID(1), -1);
    EXPECT_EQ(connector.GetGroupID(), -1);
    EXPECT_EQ(connector.InitCommuPara(parameters), -1);
    EXPECT_EQ(connector.GetSocketStream(), nullptr);
    EXPECT_EQ(connector.GetCommuProtType(), UNKOWN_TYPE);
    EXPECT_FALSE(connector.GetCommuPara(eType, ulIP, usPort, strText, strText, strText, ulNumber));
    EXPECT_EQ(connector.Connect(), -1);
    EXPECT_EQ(connector.DisConnect(), -1);
    const char* const expected[] = {
        "TarnConnector::GetTargetID error, m_pImpl=null\n",
        "TarnConnector::SetTargetID error, m_pImpl=null\n",
        "TarnConnector::SetAdapterProtocolType error, m_pImpl=null\n",
        "TarnConnector::SetControlFlag error, m_pImpl=null\n",
        "TarnConnector::GetControlFlag, m_pImpl is NULL, maybe have not init commuprotocoltype \n",
        "TarnConnector::GetControlFlag, m_pImpl is NULL, maybe have not init commuprotocoltype \n",
        "TarnConnector::SetConnTimeOut error, m_pImpl=null\n",
        "TarnConnector::SetMaxConnectCount error, m_pImpl=null\n",
        "TarnConnector::SetGroupID error, m_pImpl=null\n",
        "TarnConnector::GetGroupID error, m_pImpl=null\n",
        "TarnConnector::InitCommuPara, m_pImpl is NULL, maybe have not init commuprotocoltype \n",
        "TarnConnector::GetSocketStream, m_pImpl is NULL, maybe have not init commuprotocoltype \n",
        "TarnConnector::GetCommuProtType, m_pImpl is NULL, maybe have not init commuprotocoltype \n",
        "TarnConnector::InitCommuPara, m_pImpl is NULL, maybe have not init commuprotocoltype \n",
        "TarnConnector::Connect, m_pImpl is NULL, maybe have not init commuprotocoltype \n",
        "TarnConnector::DisConnect, m_pImpl is NULL, maybe have not init commuprotocoltype \n",
    };
    const std::vector<LogLine> lines = host.Lines();
    ASSERT_EQ(lines.size(), std::size(expected));
    for (std::size_t i = 0; i < lines.size(); ++i)
    {
        EXPECT_EQ(lines[i].strText, expected[i]);
        EXPECT_EQ(lines[i].iLevel, 1);
    }
}

TEST_F(Connector, TheTypeIsChosenAndDroppedAtAnyTime)
{
    TarnConnector connector(TCP_TYPE);
    EXPECT_EQ(connector.GetCommuProtType(), TCP_TYPE);
    EXPECT_EQ(connector.GetControlFlag(), 7);
    EXPECT_TRUE(connector.IsControlParaTrue(AUTO_CONNECT));
    EXPECT_FALSE(connector.IsControlParaTrue(EXIT_CONNECT));
    connector.SetTargetID(0xFFFFFFFF);
    EXPECT_EQ(connector.GetTargetID(), 0xFFFFFFFFU);
    EXPECT_EQ(connector.InitCommuProtocolType(static_cast<ECommuProtocolType>(5)), -1);
    EXPECT_EQ(host.Count(1, "Init Commutype para Commu Protocol error !\n"), 1);
    EXPECT_EQ(connector.GetTarnConnectorImpl(), nullptr);
    EXPECT_EQ(connector.InitCommuProtocolType(TCP_TYPE), 0);
    EXPECT_EQ(connector.GetTargetID(), 0U); // the settings went with the old transport
    EXPECT_EQ(connector.InitCommuProtocolType(UNKOWN_TYPE), -1);
    EXPECT_EQ(host.Count(1, "Init Commutype para error,UNKOWN_TYPE!\n"), 1);
    EXPECT_EQ(connector.GetTarnConnectorImpl(), nullptr);
    const TarnConnector unknown(static_cast<ECommuProtocolType>(6));
    EXPECT_EQ(host.CountContaining(1, "new "), 0);
}

TEST_F(Connector, TheTypeMayChangeWhileTheConnectorIsInUse)
{
    Start();
    const auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    std::atomic<bool> bEnd{false};
    RunTogether(4, [&](int iThread) {
        if (iThread == 0)
        {
            for (int i = 0; i < StressRounds(200); ++i)
            {
                pConnector->Renew(1, element.Port());
                Manager().RequestConnect(TestConnector::GROUP, 1);
                if (i % 10 == 0)
                    TarnConnectorMgrImpl::Existing()->SweepRubbish();
            }
            bEnd = true;
        }
        while (!bEnd)
        {
            pConnector->Send(1, "to whichever");
            pConnector->GetConnState();
            pConnector->IsControlParaTrue(AUTO_CONNECT);
            if (iThread == 1)
                Manager().RequestDisConnect(TestConnector::GROUP, 1);
        }
    });
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_TRUE(WaitUntil([&] {
        TarnConnectorMgrImpl::Existing()->SweepRubbish();
        return element.Open() == 0;
    }));
    EXPECT_EQ(pConnector->nOverlaps, 0);
}

TEST_F(Connector, TheTypeMayChangeInUseAlsoWithoutTheLibrary)
{
    TarnConnector connector(TCP_TYPE);
    std::atomic<bool> bEnd{false};
    RunTogether(3, [&](int iThread) {
        if (iThread == 0)
        {
            for (int i = 0; i < StressRounds(1000); ++i)
                EXPECT_EQ(connector.InitCommuProtocolType(TCP_TYPE), 0);
            bEnd = true;
        }
        ECommuProtocolType eType = UNKOWN_TYPE;
        unsigned long ulNumber = 0;
        unsigned short usPort = 0;
        std::string strText;
        while (!bEnd)
            EXPECT_TRUE(connector.GetCommuPara(eType, ulNumber, usPort, strText, strText, strText, ulNumber));
    });
}

TEST_F(Connector, AHandleIsTakenAndGivenAsTheStateSays)
{
    const SocketPair pair;
    TestConnector connector(1);
    void* const pHandle = reinterpret_cast<void*>(static_cast<std::intptr_t>(pair.iNear));
    EXPECT_EQ(connector.SetHandle(pHandle), 0);
    EXPECT_EQ(connector.Impl()->GetHandle(), ACE_INVALID_HANDLE); // disconnected
    EXPECT_EQ(connector.SetConnState(STATE_CONNECTING), 0);
    EXPECT_EQ(connector.SetHandle(pHandle), 0);
    EXPECT_EQ(connector.Handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(connector.Impl()->GetHandle(), pair.iNear);
    connector.SetConnState(STATE_CONNECTED);
    EXPECT_EQ(connector.Handle(), pair.iNear);
    EXPECT_EQ(connector.GetSocketStream(), nullptr);
    EXPECT_EQ(host.Count(1, "TarnConnectorImpl::GetSocketStream is NULL \n"), 1);
}

TEST_F(Connector, ParametersOfTcpAreCheckedAndReported)
{
    TestConnector connector(1);
    std::uint32_t ulIP = 0x7F000001;
    std::uint16_t usPort = 4711;
    std::vector<void*> parameters = {&ulIP};
    EXPECT_EQ(connector.InitCommuPara(parameters), -1);
    EXPECT_EQ(host.Count(1, "TarnTCPConnectorImpl::InitCommuPara error, vctParas.size(1) != 2\n"), 1);
    parameters = {&ulIP, &usPort, &usPort};
    EXPECT_EQ(connector.InitCommuPara(parameters), -1);
    parameters = {&ulIP, nullptr};
    EXPECT_EQ(connector.InitCommuPara(parameters), -2);
    parameters = {&ulIP, &usPort};
    EXPECT_EQ(connector.InitCommuPara(parameters), 0);
    ECommuProtocolType eType = UNKOWN_TYPE;
    unsigned long ulReportedIP = 0;
    unsigned short usReportedPort = 0;
    std::string first = "1";
    std::string second = "2";
    std::string third = "3";
    unsigned long ulNumber = 9;
    EXPECT_TRUE(connector.GetCommuPara(eType, ulReportedIP, usReportedPort, first, second, third, ulNumber));
    EXPECT_EQ(eType, TCP_TYPE);
    EXPECT_EQ(ulReportedIP, 0x7F000001U);
    EXPECT_EQ(usReportedPort, 4711);
    EXPECT_EQ(first + second + third, "");
    EXPECT_EQ(ulNumber, 0U);
    connector.Impl()->SetCommuProtType(TP4_TYPE);
    EXPECT_FALSE(connector.GetCommuPara(eType, ulReportedIP, usReportedPort, first, second, third, ulNumber));
}

int Option(ACE_HANDLE handle, int iLevel, int iOption)
{
    int iValue = -1;
    socklen_t uLength = sizeof(iValue);
    EXPECT_EQ(getsockopt(handle, iLevel, iOption, &iValue, &uLength), 0);
    return iValue;
}

TEST_F(Connector, ItsOwnerOpensAndClosesIt)
{
    TestConnector connector(0x2A, element.Port());
    EXPECT_EQ(connector.DisConnect(), 0);
    ASSERT_EQ(connector.Connect(), 0);
    EXPECT_EQ(host.Count(1, "Before Connect,GRPID=1,TargetID = 0x2a\n"), 1);
    EXPECT_EQ(host.Count(1, "Connectted Target,Group = 1,(ID= 0x2a) ok!\n"), 1);
    EXPECT_EQ(connector.GetConnState(), STATE_CONNECTED);
    const ACE_HANDLE handle = connector.Handle();
    EXPECT_EQ(fcntl(handle, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(Option(handle, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(Option(handle, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(Option(handle, IPPROTO_TCP, TCP_KEEPIDLE), 60);
    EXPECT_EQ(Option(handle, IPPROTO_TCP, TCP_KEEPINTVL), 10);
    EXPECT_EQ(Option(handle, IPPROTO_TCP, TCP_KEEPCNT), 3);
    // An open one is left as it is, by as many as want it open.
    RunTogether(4, [&](int) { EXPECT_EQ(connector.Connect(), 0); });
    EXPECT_EQ(connector.Handle(), handle);
    EXPECT_TRUE(WaitUntil([&] { return element.Accepted() == 1; }));
    host.ClearLines();
    RunTogether(4, [&](int) { EXPECT_EQ(connector.DisConnect(), 0); });
    EXPECT_EQ(connector.GetConnState(), STATE_DISCONNECTED);
    EXPECT_EQ(connector.Impl()->GetHandle(), ACE_INVALID_HANDLE);
    const std::string strPort = std::to_string(element.Port());
    EXPECT_GE(
        host.Count(1, "Close Connect,Group=1,(ID=0x2a),IP=127.0.0.1:" + strPort + ",port=" + strPort + "\n"),
        1);
    EXPECT_TRUE(WaitUntil([&] { return element.Open() == 0; }));
    // What is still open when it is destroyed is closed with it.
    {
        TestConnector shortLived(2, element.Port());
        ASSERT_EQ(shortLived.Connect(), 0);
        EXPECT_TRUE(WaitUntil([&] { return element.Open() == 1; }));
    }
    EXPECT_TRUE(WaitUntil([&] { return element.Open() == 0; }));
}

TEST_F(Connector, AFailedAttemptChangesNothing)
{
    const int nDescriptors = DescriptorCount();
    TestConnector connector(1, element.Port());
    connector.SetConnState(STATE_CONNECTING);
    element.StopListening();
    EXPECT_EQ(connector.Connect(), -1);
    EXPECT_EQ(host.Count(1, "After Connect, connect fail, Group = 1 ,TARGETID = 0x1, errno=111\n"), 1);
    EXPECT_EQ(connector.GetConnState(), STATE_CONNECTING);
    EXPECT_EQ(connector.Impl()->GetHandle(), ACE_INVALID_HANDLE);
    element.StartListening();
    connector.SetConnTimeOut(0);
    EXPECT_EQ(connector.Connect(), -1); // no time at all
    EXPECT_EQ(host.Count(1, "After Connect, connect fail, Group = 1 ,TARGETID = 0x1, errno=11\n"), 1);
    {
        const HangingListener hanging;
        connector.Reach(hanging.Port());
        connector.SetConnTimeOut(1);
        EXPECT_EQ(connector.Connect(), -1);
        EXPECT_EQ(host.Count(1, "After Connect, connect fail, Group = 1 ,TARGETID = 0x1, errno=62\n"), 1);
    }
    EXPECT_TRUE(WaitUntil([&] { return element.Open() == 0; }));
    EXPECT_EQ(DescriptorCount(), nDescriptors);
}

/// Loopback gives out its ports in turn, so a connect to a port that nobody listens on can meet itself.
TEST_F(Connector, AConnectionToItselfIsRecognised)
{
    const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const pAddress = reinterpret_cast<sockaddr*>(&address);
    socklen_t uLength = sizeof(address);
    ASSERT_EQ(bind(iSocket, pAddress, uLength), 0);
    ASSERT_EQ(getsockname(iSocket, pAddress, &uLength), 0);
    ASSERT_EQ(connect(iSocket, pAddress, uLength), 0);
    EXPECT_TRUE(IsConnectedToItself(iSocket));
    close(iSocket);
    TestConnector connector(1, element.Port());
    ASSERT_EQ(connector.Connect(), 0);
    EXPECT_FALSE(IsConnectedToItself(connector.Handle()));
}

} // namespace
