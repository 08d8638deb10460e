#include "connection/TarnConnectorImpl.h"
#include "support/ConnectionTest.h"
#include "support/Relay.h"
#include "support/Tunnel.h"
#include "tls/SealingPeer.h"
#include "tls/TlsServer.h"

#include <cstdlib>
#include <mutex>

namespace {

class TlsConnections : public ConnectionTest
{
protected:
    void SetUp() override
    {
        ConnectionTest::SetUp();
        EXPECT_EQ(option.set_authorities(authority.File().c_str(), nullptr), 0);
        Start();
        pAdapter->onAnswer = [this](FrameMessage& message) { Note(message); };
        pAdapter->onReport = [this](FrameMessage& message) { Note(message); };
    }
    void TearDown() override
    {
        connector.UnRegister();
        ConnectionTest::TearDown();
    }

    void Note(FrameMessage& message)
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        m_Received.push_back(message.strPayload);
    }
    bool HasReceived(const std::string& strPayload)
    {
        return WaitUntil([&] {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            return std::find(m_Received.begin(), m_Received.end(), strPayload) != m_Received.end();
        });
    }
    /// So many, which begin with their numbers from 1 on.
    bool HasReceived(int nFrames)
    {
        return WaitUntil([&] {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            for (std::size_t u = 0; u < m_Received.size(); ++u)
                EXPECT_EQ(std::atoi(m_Received[u].c_str()), static_cast<int>(u + 1));
            return static_cast<int>(m_Received.size()) == nFrames;
        });
    }
    bool Open(std::uint16_t usPort)
    {
        return connector.Reach(usPort, option) == 0 && connector.Register() == 0 &&
               WaitUntil([&] { return connector.Impl()->IsServed(); });
    }
    /// Has an element answer requests of sizes at which records and reads end together.
    void ExpectAnswers()
    {
        for (const std::size_t uSize : {1U, 1016U, 16376U, 16377U, 100'000U})
        {
            const std::string strPayload(uSize, static_cast<char>('a' + uSize % 26));
            EXPECT_EQ(connector.Send(1, strPayload), 0);
            EXPECT_TRUE(HasReceived(strPayload)) << uSize;
        }
    }

    const Authority authority{"Test authority"};
    TARN_SSL_Option option;
    TestConnector connector{1, 0, TCP_SSL_TYPE};

private:
    std::mutex m_Mutex;
    std::vector<std::string> m_Received; // guarded by m_Mutex
};

TEST_F(TlsConnections, ParametersAreCheckedAndReported)
{
    std::uint32_t ulIP = 0x7F000001;
    std::uint16_t usPort = 4711;
    option.set_port_adapt(true);
    option.set_session_timeout(77);
    std::vector<void*> parameters = {&ulIP, &usPort};
    EXPECT_EQ(connector.InitCommuPara(parameters), -1);
    EXPECT_EQ(host.Count(1, "TarnTCPSSLConnectorImpl::InitCommuPara(), error, vctParas.size(2) error\n"), 1);
    parameters = {nullptr, &usPort, &option};
    EXPECT_EQ(connector.InitCommuPara(parameters), -2);
    EXPECT_EQ(host.Count(1, "TarnTCPSSLConnectorImpl::InitCommuPara(), ulIP is NULL\n"), 1);
    parameters = {&ulIP, nullptr, &option};
    EXPECT_EQ(connector.InitCommuPara(parameters), -2);
    EXPECT_EQ(host.Count(1, "TarnTCPSSLConnectorImpl::InitCommuPara(), usPort is NULL\n"), 1);
    parameters = {&ulIP, &usPort, nullptr};
    EXPECT_EQ(connector.InitCommuPara(parameters), -2);
    EXPECT_EQ(
        host.Count(3, "TarnTCPSSLConnectorImpl::InitCommuPara connect address(0x7f000001,4711)(TWO_PARAM)\n"),
        1);
    EXPECT_EQ(host.Count(1, "TarnTCPSSLConnectorImpl::InitCommuPara(), third Param is NULL\n"), 1);
    ECommuProtocolType eType = UNKOWN_TYPE;
    unsigned long ulReportedIP = 0;
    unsigned short usReportedPort = 0;
    std::string texts[3];
    unsigned long ulNumber = 1;
    EXPECT_TRUE(
        connector.GetCommuPara(eType, ulReportedIP, usReportedPort, texts[0], texts[1], texts[2], ulNumber));
    EXPECT_EQ(eType, TCP_SSL_TYPE);
    EXPECT_EQ(usReportedPort, 4711) << "kept, although the option was missing";
    parameters = {&ulIP, &usPort, &option, nullptr};
    EXPECT_EQ(connector.InitCommuPara(parameters), 0);
    EXPECT_EQ(host.Count(1, "TarnAdapter option info: \n\tenable_auth_peer=true\n\tenable_port_adapt=true\n"
                            "\tenable_ssl=true\n\tenable_session_reuse=true\n\tsession_timeout=77\n"
                            "\tversion=TLSv1.2\n\tcipherlist=DEFAULT\n\n"),
              1);
    const void* pStream = connector.GetSocketStream();
    EXPECT_EQ(host.Count(1, "TarnTCPSSLConnectorImpl::GetSocketStream\n"), 1);
    ASSERT_NE(pStream, nullptr);
    EXPECT_EQ(static_cast<const TARN_SOCK_Stream*>(pStream)->get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(connector.Impl()->SendData(nullptr, 1), -1);
    EXPECT_EQ(connector.Impl()->RecvData(nullptr, 1), -1);
    EXPECT_EQ(host.Count(1, "TarnTCPSSLConnectorImpl::RecvData fail, input para pBuf=NULL\n"), 1);
}

TEST_F(TlsConnections, AConnectionIsServedBreaksAndComesBack)
{
    const Tunnel tunnel(authority, {element.Port()});
    ASSERT_TRUE(Open(tunnel.PortTo(element.Port())));
    EXPECT_EQ(host.Count(1, "SSL connect:Before Connect,GRPID=1,TargetID = 0x1\n"), 1);
    EXPECT_EQ(host.Count(1, "SSL connect: Connectted Target,Group = 1,(ID= 0x1) ok!\n"), 1);
    ExpectAnswers();
    for (const bool bReset : {false, true})
    {
        // An answer says that the tunnel's other half is there, too.
        const std::string strPayload = bReset ? "before a reset" : "before an end";
        EXPECT_EQ(connector.Send(1, strPayload), 0);
        ASSERT_TRUE(HasReceived(strPayload));
        const int nOpened = connector.nOpened;
        element.DropAll(bReset);
        ASSERT_TRUE(WaitUntil([&] { return connector.nOpened > nOpened; }));
        EXPECT_EQ(connector.nDisorder, 0);
    }
    EXPECT_GE(host.CountContaining(1, "SSL Port close ; errno : ") +
                  host.CountContaining(1, "SSL recv: -1, errno="),
              2);
    ExpectAnswers();
    EXPECT_EQ(connector.UnRegister(), 0);
    EXPECT_GE(host.CountContaining(1, "Close SSL Connect,Group=1,(ID=0x1),IP=127.0.0.1:"), 1);
    EXPECT_TRUE(WaitUntil([&] { return element.Open() == 0; }));
}

TEST_F(TlsConnections, AStreamInSevenBytePiecesAndOneThatIsPlain)
{
    const Authority::Issued issued = authority.Issue({});
    const std::uint16_t usPort = FreePort();
    const Process tlsElement({"socat",
                              "OPENSSL-LISTEN:" + std::to_string(usPort) +
                                  ",bind=127.0.0.1,reuseaddr,fork,cert=" + issued.strCertificate +
                                  ",key=" + issued.strKey + ",verify=0,nodelay",
                              "TCP:127.0.0.1:" + std::to_string(element.Port()) + ",nodelay"});
    ASSERT_TRUE(IsListenedOn(usPort));
    const Relay relay(usPort);
    ASSERT_TRUE(Open(relay.Port()));
    ExpectAnswers();
    EXPECT_EQ(connector.nBroken, 0);
    EXPECT_EQ(connector.UnRegister(), 0);

    option.set_ssl(false);
    ASSERT_TRUE(Open(element.Port()));
    ExpectAnswers();
}

TEST_F(TlsConnections, ARefusedClientCertificateIsAFailedAttempt)
{
    const Authority stranger("Another authority");
    const Authority::Issued foreign = stranger.Issue({"manager", ""});
    const TlsServer server(authority.Issue({}),
                           {"-tls1_3", "-Verify", "2", "-verify_return_error", "-CAfile", authority.File()});
    EXPECT_EQ(option.set_certificate(foreign.strCertificate.c_str(), foreign.strKey.c_str()), 0);
    connector.SetMaxConnectCount(2);
    ASSERT_EQ(connector.Reach(server.Port(), option), 0);
    ASSERT_EQ(connector.Register(), 0);
    EXPECT_TRUE(WaitUntil([&] {
        return host.Count(
                   1, "SSL connect: After Connect, connect fail, Group = 1 ,TARGETID = 0x1, errno=71\n") == 2;
    }));
    EXPECT_TRUE(WaitUntil([&] { return connector.GetConnState() == STATE_DISCONNECTED; }));
    EXPECT_EQ(connector.nOpened, 0);
    EXPECT_EQ(host.CountContaining(1, "the peer refuses, with the alert: "), 2);
}

TEST_F(TlsConnections, WhatAPeerSaysAtOnceIsHeard)
{
    // The peer hands out no tickets, so its first words are read in the handshake.
    const Authority::Issued own = authority.Issue({"manager", ""});
    const TlsServer server(authority.Issue({}),
                           {"-tls1_3", "-num_tickets", "0", "-Verify", "2", "-CAfile", authority.File()});
    EXPECT_EQ(option.set_certificate(own.strCertificate.c_str(), own.strKey.c_str()), 0);
    server.process.Write(Element::Frame(0, "welcome"));
    ASSERT_TRUE(Open(server.Port()));
    EXPECT_TRUE(HasReceived("welcome"));
}

TEST_F(TlsConnections, TheEndIsSeenBehindTheLastBytes)
{
    const TlsServer server(authority.Issue({}), {"-naccept", "1"});
    ASSERT_TRUE(Open(server.Port()));
    server.process.Write(Element::Frame(0, "last words"));
    EXPECT_TRUE(HasReceived("last words"));
    server.process.Write("q\n");
    EXPECT_TRUE(WaitUntil([&] { return connector.nBroken == 1; }));
}

TEST_F(TlsConnections, WhatComesTogetherIsFramedToTheLastByteAndTheEnd)
{
    constexpr std::size_t FRAME_HEAD = 8;
    SealingPeer peer(authority.Issue({}));
    ASSERT_TRUE(Open(peer.Port()));
    std::string strSealed;
    int nFrames = 0;
    const auto frame = [&](std::size_t uSize) {
        std::string strPayload = std::to_string(++nFrames);
        strPayload.resize(std::max(strPayload.size(), uSize - FRAME_HEAD), '.');
        return Element::Frame(0, strPayload);
    };
    const auto seal = [&](const std::string& strStream, std::size_t uRecord) {
        for (std::size_t uAt = 0; uAt < strStream.size(); uAt += uRecord)
            strSealed += peer.Seal(strStream.substr(uAt, uRecord));
    };
    // Each is followed by nothing that would be announced, until it has been framed.
    for (const std::size_t uRecord : {10'000U, 16384U, 1024U, 72U, 1000U})
    {
        std::string strStream;
        while (strStream.size() < 20'000)
            strStream += frame(1000);
        seal(strStream, uRecord);
        peer.Send(strSealed);
        strSealed.clear();
        EXPECT_TRUE(HasReceived(nFrames)) << uRecord;
    }
    for (std::size_t uSize = 10; uSize < 300; ++uSize)
        seal(frame(uSize), uSize);
    for (const std::size_t uSize : {1024U, 16384U, 16383U, 40'000U, 1024U})
        seal(frame(uSize), 5000);
    strSealed += peer.SealEnd();
    peer.Send(strSealed);
    EXPECT_TRUE(HasReceived(nFrames));
    EXPECT_TRUE(WaitUntil([&] { return connector.nBroken == 1; }));
}

} // namespace
