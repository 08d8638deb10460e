#include "support/ConnectionTest.h"

namespace {

constexpr std::uint32_t LOOPBACK = 0x7F000001;

} // namespace

TestConnector::TestConnector(unsigned long ulTargetID, std::uint16_t usPort, ECommuProtocolType eType)
    : TarnConnector(eType)
{
    Identify(ulTargetID);
    if (usPort != 0)
        Reach(usPort);
}

void TestConnector::Identify(unsigned long ulTargetID)
{
    SetGroupID(GROUP);
    SetTargetID(ulTargetID);
    SetAdapterProtocolID(PROTOCOL);
}

void TestConnector::Renew(unsigned long ulTargetID, std::uint16_t usPort)
{
    EXPECT_EQ(InitCommuProtocolType(TCP_TYPE), 0);
    Identify(ulTargetID);
    Reach(usPort);
}

int TestConnector::Reach(std::uint16_t usPort)
{
    std::uint32_t ulIP = LOOPBACK;
    std::vector<void*> parameters = {&ulIP, &usPort};
    return InitCommuPara(parameters);
}

int TestConnector::Reach(std::uint16_t usPort, TARN_SSL_Option option)
{
    std::uint32_t ulIP = LOOPBACK;
    std::vector<void*> parameters = {&ulIP, &usPort, &option};
    return InitCommuPara(parameters);
}

int TestConnector::Register(bool bWait, int nAttempts)
{
    return TarnConnectorMgr::Instance()->RegisterConnector(this, bWait, nAttempts);
}

int TestConnector::UnRegister()
{
    return TarnConnectorMgr::Instance()->UnRegisterConnector(GROUP, GetTargetID());
}

int TestConnector::Send(std::uint32_t ulSerial, const std::string& strPayload)
{
    const std::string strFrame = Element::Frame(ulSerial, strPayload);
    return SendToOutBuffer(strFrame.data(), static_cast<int>(strFrame.size()));
}

int TestConnector::OnConnectOK()
{
    nOverlaps += m_nInside++ != 0 ? 1 : 0;
    nDisorder += m_bUp.exchange(true) ? 1 : 0;
    ++nOpened;
    if (onOpened)
        onOpened();
    --m_nInside;
    return 0;
}

int TestConnector::OnSockBreak()
{
    nOverlaps += m_nInside++ != 0 ? 1 : 0;
    nDisorder += !m_bUp.exchange(false) ? 1 : 0;
    ++nBroken;
    if (onBroken)
        onBroken();
    --m_nInside;
    return 0;
}

void ConnectionTest::SetUp()
{
    host.SetCfg("bEnableAdapterLog", "0");
    host.SetCfg("nConnectSleep", "0");
}

void ConnectionTest::Start()
{
    ASSERT_EQ(tarnadapter::Init(), 0);
    pAdapter = new FrameAdapter(TestConnector::PROTOCOL);
    ASSERT_EQ(TEAdapterManager::Instance()->RegisterProtocolAdapter(TestConnector::PROTOCOL, pAdapter, true),
              0);
}

void ConnectionTest::TearDown()
{
    tarnadapter::Fini();
    FrameMessage::DeleteLeft();
    HostTest::TearDown();
    EXPECT_EQ(element.BadFrames(), 0);
}

std::unique_ptr<TestConnector> ConnectionTest::MakeConnector(unsigned long ulTargetID)
{
    return std::make_unique<TestConnector>(ulTargetID, element.Port());
}
