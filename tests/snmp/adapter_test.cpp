#include "SnmpAdapter.h"
#include "support/Listener.h"
#include "support/TestHost.h"

#include <poll.h>

#include <list>
#include <map>
#include <memory>
#include <mutex>

namespace {

constexpr int DEADLINE_MS = 30'000;

/// An element that says what the test makes it say.
class SpokenElement
{
public:
    SpokenElement() = default;
    ~SpokenElement() { Drop(); }
    SpokenElement(const SpokenElement&) = delete;
    SpokenElement& operator=(const SpokenElement&) = delete;

    std::uint16_t Port() const { return m_Listener.Port(); }
    void Accept() { m_iSocket = m_Listener.Accept(); }
    void Drop()
    {
        if (m_iSocket >= 0)
            close(m_iSocket);
        m_iSocket = -1;
    }

    void Say(const std::string& strBytes) const
    {
        EXPECT_EQ(send(m_iSocket, strBytes.data(), strBytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(strBytes.size()));
    }

    /// The next message that it is sent; an empty one when the connection is closed.
    SnmpPacket Hear()
    {
        int iLength = 0;
        while ((iLength = SnmpFrameLength(reinterpret_cast<const std::uint8_t*>(m_strHeard.data()),
                                          m_strHeard.size())) == 0)
        {
            char bytes[1024];
            pollfd event = {m_iSocket, POLLIN, 0};
            const ssize_t iReceived =
                poll(&event, 1, DEADLINE_MS) == 1 ? recv(m_iSocket, bytes, sizeof(bytes), 0) : -1;
            if (iReceived <= 0)
                return {};
            m_strHeard.append(bytes, static_cast<std::size_t>(iReceived));
        }
        const SnmpPacket packet = SnmpDecode(reinterpret_cast<const std::uint8_t*>(m_strHeard.data()),
                                             static_cast<std::size_t>(iLength));
        m_strHeard.erase(0, static_cast<std::size_t>(iLength));
        return packet;
    }

    static std::string Answer(SnmpPacket question, const std::string& strText)
    {
        question.ePdu = SnmpPdu::RESPONSE;
        for (SnmpVarBind& binding : question.bindings)
            binding.value = *SnmpValue::FromText('s', strText);
        return SnmpEncode(question);
    }

private:
    const Listener m_Listener;
    int m_iSocket = -1;
    std::string m_strHeard;
};

/// The started framework with two connected elements, 1 and 2.
class SnmpAdapter : public HostTest, public SnmpListener
{
protected:
    static constexpr int ELEMENTS = 2;

    void SetUp() override
    {
        host.SetCfg("nConnectSleep", "0");
        ASSERT_EQ(tarnadapter::Init(), 0);
        auto* pProtocol = new SnmpProtocol;
        ASSERT_EQ(TEAdapterManager::Instance()->RegisterProtocolAdapter(SNMP_PROTOCOL, pProtocol, true), 0);
        SnmpMessageAdapter::Instance().Use(pProtocol, this);
        for (int iNeId = 1; iNeId <= ELEMENTS; ++iNeId)
        {
            const SnmpAddress address = {TCP_TYPE, 0x7F000001, Spoken(iNeId).Port(), {}, {}, {}};
            m_Elements.push_back(std::make_unique<SnmpElement>(iNeId, address, "public", *this));
            ASSERT_EQ(TarnConnectorMgr::Instance()->RegisterConnector(m_Elements.back().get(), false, 0), 0);
            Spoken(iNeId).Accept();
        }
        ASSERT_TRUE(WaitUntil([this] { return Told("connected 1") == 1 && Told("connected 2") == 1; }));
    }
    void TearDown() override
    {
        for (const auto& pElement : m_Elements)
            TarnConnectorMgr::Instance()->UnRegisterConnector(SnmpElement::GROUP, pElement->GetTargetID());
        tarnadapter::Fini();
        HostTest::TearDown();
    }

    SpokenElement& Spoken(int iNeId) { return m_Spoken[static_cast<std::size_t>(iNeId - 1)]; }

    /// Sends a question whose result is told to the test.
    void Ask(int iNeId, int nTimeOut = 60) { AskBy<SnmpGet>(iNeId, nTimeOut); }
    template <class Question>
    void AskBy(int iNeId, int nTimeOut)
    {
        auto* pQuestion = new Question(iNeId, {*SnmpOid::FromText("1.3.6.1")});
        pQuestion->SetTimeOut(nTimeOut);
        new AsynCallBack(pQuestion, &SnmpAdapter::OnAnswer, this, nullptr);
        EXPECT_EQ(pQuestion->HandleMessage(), 0);
    }
    /// What has come to the test: "connected N", "broken N", "result R: VALUE", "notified N".
    int Told(const std::string& strWhat)
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        return m_Told[strWhat];
    }
    bool WaitTold(const std::string& strWhat)
    {
        return WaitUntil([&] { return Told(strWhat) >= 1; });
    }

    void OnConnected(int iNeId) override { Tell("connected " + std::to_string(iNeId)); }
    void OnBroken(int iNeId) override { Tell("broken " + std::to_string(iNeId)); }
    bool OnNotification(int iNeId, const SnmpPacket& packet) override
    {
        Tell("notified " + std::to_string(iNeId));
        return packet.bindings.empty() || packet.bindings[0].value.Text() != "\"refuse me\"";
    }

    static const SnmpCounts& Counts() { return SnmpProtocol::s_Counts; }

private:
    void Tell(const std::string& strWhat)
    {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        ++m_Told[strWhat];
    }
    static int OnAnswer(TEMessage* pMessage, void* pTest, void* /*pUnused*/)
    {
        const auto& question = *static_cast<SnmpMessage*>(pMessage);
        const auto& bindings = question.Answer().bindings;
        static_cast<SnmpAdapter*>(pTest)->Tell("result " + std::to_string(question.GetResult()) + ": " +
                                               (bindings.empty() ? "" : bindings[0].value.strBytes));
        return 0;
    }

    SpokenElement m_Spoken[ELEMENTS];
    std::vector<std::unique_ptr<SnmpElement>> m_Elements;
    std::mutex m_Mutex;
    std::map<std::string, int> m_Told; // guarded by m_Mutex
};

TEST_F(SnmpAdapter, AnAnswerReachesTheQuestionThatItBelongsToAndNoOther)
{
    Ask(1);
    Ask(1);
    Ask(2);
    const SnmpPacket first = Spoken(1).Hear();
    const SnmpPacket second = Spoken(1).Hear();
    const SnmpPacket other = Spoken(2).Hear();
    EXPECT_EQ(first.strCommunity, "public");
    SnmpPacket unknown = first;
    unknown.iRequestId = -5;
    Spoken(2).Say(SpokenElement::Answer(first, "stolen"));
    Spoken(1).Say(SpokenElement::Answer(unknown, "never asked"));
    ASSERT_TRUE(WaitUntil([] { return Counts().ulUnexpected == 2; }));
    // In another order, one of them twice, and in one piece.
    const std::string strSecond = SpokenElement::Answer(second, "second");
    Spoken(1).Say(strSecond + strSecond + SpokenElement::Answer(first, "first"));
    Spoken(2).Say(SpokenElement::Answer(other, "other"));
    for (const char* pszText : {"first", "second", "other"})
        EXPECT_TRUE(WaitTold("result 0: " + std::string(pszText))) << pszText;
    EXPECT_TRUE(WaitUntil([] { return Counts().ulUnexpected == 3; }));
    EXPECT_EQ(Counts().ulAnswered, 3U);
}

TEST_F(SnmpAdapter, AnErrorOfTheElementIsTheResult)
{
    Ask(1);
    SnmpPacket answer = Spoken(1).Hear();
    answer.iErrorStatus = 17;
    answer.iErrorIndex = 1;
    Spoken(1).Say(SpokenElement::Answer(answer, "x"));
    EXPECT_TRUE(WaitTold("result 17: x"));
}

TEST_F(SnmpAdapter, AnAnswerToSomethingElseIsNone)
{
    const auto answer = [this](const std::function<void(SnmpPacket&)>& change) {
        Ask(1);
        SnmpPacket packet = Spoken(1).Hear();
        change(packet);
        Spoken(1).Say(SpokenElement::Answer(packet, "x"));
    };
    answer([](SnmpPacket& packet) { packet.bindings[0].name = *SnmpOid::FromText("1.3.6.2"); });
    answer([](SnmpPacket& packet) { packet.bindings.push_back(packet.bindings[0]); });
    answer([](SnmpPacket& packet) { packet.bindings.clear(); });
    const std::string strWrong = "result " + std::to_string(SNMP_WRONG_ANSWER) + ": ";
    EXPECT_TRUE(WaitUntil([&] { return Told(strWrong + "x") == 2 && Told(strWrong) == 1; }));
    // What comes next has another name, as it must.
    AskBy<SnmpGetNext>(1, 60);
    SnmpPacket next = Spoken(1).Hear();
    EXPECT_EQ(next.ePdu, SnmpPdu::GET_NEXT);
    next.bindings[0].name = *SnmpOid::FromText("1.3.6.2");
    Spoken(1).Say(SpokenElement::Answer(next, "next"));
    EXPECT_TRUE(WaitTold("result 0: next"));
}

TEST_F(SnmpAdapter, AQuestionThatNobodyAnswersTellsItsCallback)
{
    Ask(1, 1);
    const SnmpPacket question = Spoken(1).Hear();
    EXPECT_TRUE(WaitTold("result " + std::to_string(ADAPTER_ERR_TIMEOUT) + ": "));
    Spoken(1).Say(SpokenElement::Answer(question, "too late"));
    EXPECT_TRUE(WaitUntil([] { return Counts().ulUnexpected == 1; }));
}

TEST_F(SnmpAdapter, AQuestionThatIsTakenBackIsNobodysAnyMore)
{
    auto* pQuestion = new SnmpGet(1, {*SnmpOid::FromText("1.3.6.1")});
    const std::uint32_t ulSerial = pQuestion->GetMessageSerial();
    ASSERT_EQ(pQuestion->HandleMessage(), 0);
    const SnmpPacket question = Spoken(1).Hear();
    EXPECT_TRUE(SnmpMessage::TakeBack(ulSerial));
    EXPECT_FALSE(SnmpMessage::TakeBack(ulSerial));
    Spoken(1).Say(SpokenElement::Answer(question, "x"));
    EXPECT_TRUE(WaitUntil([] { return Counts().ulUnexpected == 1; }));
    // Nor is one that cannot be sent.
    SnmpGet unsendable(1, {SnmpOid()});
    EXPECT_EQ(unsendable.SyncHandleMessage(30), -1);
    SnmpGet unknown(99, {*SnmpOid::FromText("1.3")});
    EXPECT_EQ(unknown.SyncHandleMessage(30), ADAPTER_ERR_INVALID_HANDLE);
}

TEST_F(SnmpAdapter, HalfAnAnswerBeforeABreakDoesNotSpoilTheNextConnection)
{
    Ask(1);
    const std::string strAnswer = SpokenElement::Answer(Spoken(1).Hear(), std::string(500, 'x'));
    Spoken(1).Say(strAnswer.substr(0, 300));
    Spoken(1).Drop();
    ASSERT_TRUE(WaitTold("broken 1"));
    Spoken(1).Accept();
    ASSERT_TRUE(WaitUntil([this] { return Told("connected 1") == 2; }));
    Ask(1);
    Spoken(1).Say(SpokenElement::Answer(Spoken(1).Hear(), "whole"));
    EXPECT_TRUE(WaitTold("result 0: whole"));
    EXPECT_EQ(Told("broken 1"), 1);
    EXPECT_EQ(Counts().ulMalformed, 0U);
    EXPECT_EQ(Told("broken 2"), 0);
}

TEST_F(SnmpAdapter, WhatCannotBeDecodedIsLeftOutAndTheStreamGoesOn)
{
    Ask(1);
    const SnmpPacket question = Spoken(1).Hear();
    const std::string strGood = SpokenElement::Answer(question, "good");
    std::string strVersion1 = strGood;
    strVersion1[4] = '\0';
    std::string strBadEnd = strGood;
    strBadEnd[strBadEnd.size() - 6] = '\x7F'; // the type of the value
    SnmpPacket asks = question;
    Spoken(1).Say(std::string("\x30\0", 2) + strVersion1 + strBadEnd + SnmpEncode(asks) + strGood);
    EXPECT_TRUE(WaitTold("result 0: good"));
    EXPECT_TRUE(WaitUntil([] { return Counts().ulMalformed == 4; }));
    EXPECT_EQ(Told("broken 1"), 0);
}

TEST_F(SnmpAdapter, WhatIsNoMessageBreaksTheConnectionOfItsElementOnly)
{
    Spoken(1).Say("HTTP/1.1 400 Bad Request\r\n");
    ASSERT_TRUE(WaitTold("broken 1"));
    Spoken(1).Drop();
    Spoken(1).Accept();
    Ask(2);
    Spoken(2).Say(SpokenElement::Answer(Spoken(2).Hear(), "quiet"));
    EXPECT_TRUE(WaitTold("result 0: quiet"));
    EXPECT_EQ(Told("broken 2"), 0);
}

TEST_F(SnmpAdapter, InformsAreAnsweredAndTrapsAreNot)
{
    SnmpPacket inform = {"public", SnmpPdu::INFORM,
                         4711,     0,
                         0,        {{*SnmpOid::FromText("1.3"), *SnmpValue::FromText('s', "refuse me")}}};
    Spoken(2).Say(SnmpEncode(inform));
    inform.bindings[0].value = *SnmpValue::FromText('s', "linkDown");
    SnmpPacket trap = inform;
    trap.ePdu = SnmpPdu::TRAP;
    Spoken(2).Say(SnmpEncode(trap) + SnmpEncode(inform));
    const SnmpPacket answer = Spoken(2).Hear();
    EXPECT_EQ(answer.ePdu, SnmpPdu::RESPONSE);
    EXPECT_EQ(answer.iRequestId, 4711);
    ASSERT_EQ(answer.bindings.size(), 1U);
    EXPECT_EQ(answer.bindings[0].value.strBytes, "linkDown");
    EXPECT_EQ(Told("notified 2"), 3);
    EXPECT_TRUE(WaitUntil([] { return Counts().ulConfirmed == 1; }));
}

} // namespace
