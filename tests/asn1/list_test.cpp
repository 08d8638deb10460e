#include "asn1/Asn1Test.h"

#include <future>
#include <list>
#include <map>
#include <memory>

namespace {

constexpr int NOT_ANSWERED = -8888;

class Lists : public Asn1Test
{
protected:
    /// A list of requests; the adapter's result for each is its own, 0 where there is none.
    std::list<MsgContext> MakeList(int nRequests, std::map<int, int> results = {})
    {
        std::list<MsgContext> lstMessages;
        m_Results.clear();
        for (int i = 0; i < nRequests; ++i)
        {
            m_Requests.push_back(std::make_unique<Request>(PROTOCOL));
            lstMessages.push_back({m_Requests.back().get(), &m_Results, nullptr, nullptr, this});
            if (results.count(i) != 0)
                m_Results[m_Requests.back().get()] = results[i];
        }
        sending.onHandle = [this](TEMessage* pMessage) {
            const auto it = m_Results.find(pMessage);
            return it != m_Results.end() ? it->second : 0;
        };
        sending.onSent = [this](const TEMessageUnit& unit) { m_Sent.push_back(unit); };
        return lstMessages;
    }

    void TearDown() override
    {
        m_Requests.clear();
        Asn1Test::TearDown();
    }

    /// Waits on another thread, which has begun to when this returns.
    std::future<int> WaitAside(int nTimeOut, std::list<MsgContext>& lstOut)
    {
        host.ClearLines();
        auto waiting = std::async(std::launch::async,
                                  [this, nTimeOut, &lstOut] { return help.Waiting(nTimeOut, lstOut); });
        EXPECT_TRUE(WaitUntil([&] { return host.CountContaining(3, "PSyncHelp::Waiting begin") == 1; }));
        return waiting;
    }

    int Send(const std::list<MsgContext>& lstMessages)
    {
        return help.AsyncSendAsn1MessageList(lstMessages, nullptr, nullptr, nullptr, nullptr);
    }

    static std::vector<int> Results(const std::list<MsgContext>& lstMessages)
    {
        std::vector<int> results;
        for (const MsgContext& context : lstMessages)
            results.push_back(context.pAsn1Msg->GetResult());
        return results;
    }

    using Ints = std::vector<int>;

    std::vector<TEMessageUnit> m_Sent;
    std::vector<std::unique_ptr<Request>> m_Requests;
    std::map<const TEMessage*, int> m_Results;
    PSyncHelp help;
};

TEST_F(Lists, AWaitEndsWithTheLastAnswer)
{
    std::list<MsgContext> lstOut;
    for (int iRound = 0; iRound < 2; ++iRound) // one exchange after the other
    {
        const auto lstMessages = MakeList(3);
        ASSERT_EQ(Send(lstMessages), 0);
        EXPECT_EQ(lstMessages.front().pAsn1Msg->GetSyncFlag(), PSYNC_MESSAGE);
        auto waiting = WaitAside(60, lstOut);
        for (int i = 0; i < 3; ++i)
        {
            EXPECT_EQ(waiting.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
            EXPECT_TRUE(Answer(m_Sent[m_Sent.size() - 3 + static_cast<std::size_t>(i)], i));
        }
        EXPECT_EQ(waiting.get(), 0);
        EXPECT_EQ(Results(lstOut), (Ints{0, 1, 2}));
        EXPECT_EQ(lstOut.front().pUserData4, this);
        EXPECT_EQ(host.CountContaining(3, "#####PSyncHelp::Waiting iCurtimeout:1. nRealTimeout:60.\n"), 1);
        EXPECT_EQ(help.Waiting(60, lstOut), 0); // empty now
        EXPECT_TRUE(lstOut.empty());
    }
}

TEST_F(Lists, WhatIsAnsweredBeforeTheWaitIsNotWaitedFor)
{
    const auto lstMessages = MakeList(2, {{1, -5}});
    EXPECT_EQ(Send(lstMessages), 1);
    EXPECT_TRUE(Answer(m_Sent[0], 3));
    std::list<MsgContext> lstOut;
    EXPECT_EQ(help.Waiting(60, lstOut), 0);
    EXPECT_EQ(Results(lstOut), (Ints{3, -5}));
    EXPECT_EQ(host.Count(3, "AsyncSendAsn1MessageList : get a error -5.1,1.\n"), 1);
    EXPECT_EQ(host.CountContaining(3, "PSyncHelp::Waiting begin"), 0);
}

TEST_F(Lists, SendsThatFailCountAsAnswered)
{
    std::list<MsgContext> lstOut;
    EXPECT_EQ(Send(MakeList(3, {{0, 1}, {1, -6}, {2, -7}})), -1);
    EXPECT_EQ(help.Waiting(0, lstOut), 1); // the count was taken back
    EXPECT_EQ(Results(lstOut), (Ints{1, -6, -7}));
    // The failed ones, and those of a list that this one replaces, do not make the next one complete.
    EXPECT_EQ(Send(MakeList(2)), 0);
    EXPECT_TRUE(Answer(m_Sent[0], 0));
    EXPECT_EQ(Send(MakeList(3, {{1, -7}})), 1);
    EXPECT_TRUE(Answer(m_Sent[2], 0));
    auto waiting = WaitAside(60, lstOut);
    EXPECT_TRUE(Answer(m_Sent[3], 0));
    EXPECT_EQ(waiting.get(), 0);
    EXPECT_EQ(Results(lstOut), (Ints{0, -7, 0}));
}

TEST_F(Lists, AFailureOfTheConnectionAbandonsTheList)
{
    const auto lstMessages = MakeList(4, {{2, -22}});
    EXPECT_EQ(Send(lstMessages), -1);
    EXPECT_EQ(Results(lstMessages), (Ints{-22, NOT_ANSWERED, NOT_ANSWERED, -518181818}));
    EXPECT_EQ(host.Count(1, "AsyncSendAsn1MessageList : get SNMP_CLASS_TL_FAILED fail.-22\n"), 1);
    ASSERT_EQ(m_Sent.size(), 2U);
    for (const TEMessageUnit& unit : m_Sent)
        EXPECT_FALSE(Answer(unit));
}

TEST_F(Lists, ATimeThatIsOverForgetsAllOfThem)
{
    std::list<MsgContext> lstOut;
    ASSERT_EQ(Send(MakeList(3)), 0);
    EXPECT_TRUE(Answer(m_Sent[1], 4));
    EXPECT_EQ(help.Waiting(0, lstOut), 1);
    EXPECT_EQ(Results(lstOut), (Ints{NOT_ANSWERED, 4, NOT_ANSWERED}));
    EXPECT_FALSE(Answer(m_Sent[0]));
    EXPECT_EQ(host.Count(3, "#####PSyncHelp::Waiting iCurtimeout:0. nRealTimeout:0.\n"), 1);
    // Changed while it waits; and the host's exit.
    ASSERT_EQ(Send(MakeList(1)), 0);
    auto waiting = WaitAside(100'000, lstOut);
    help.SetTimeOut(1);
    EXPECT_EQ(waiting.get(), 1);
    ASSERT_EQ(Send(MakeList(1)), 0);
    s_bExit = true;
    EXPECT_EQ(help.Waiting(100'000, lstOut), 1);
    EXPECT_EQ(lstOut.size(), 1U);
}

TEST_F(Lists, AnEmptyListIsAnsweredAndNothingSentIsNotWaitedFor)
{
    std::list<MsgContext> lstOut = {{}};
    EXPECT_EQ(Send({}), 0);
    EXPECT_EQ(host.Count(1, "AsyncSendAsn1MessageList : msgList is empty.\n"), 1);
    EXPECT_EQ(Send({{}}), -1);
    EXPECT_EQ(host.Count(1, "AsyncSendAsn1MessageList : msgList holds a NULL message.\n"), 1);
    EXPECT_EQ(help.Signal(), 0);
    EXPECT_EQ(help.Waiting(60, lstOut), 0);
    EXPECT_TRUE(lstOut.empty());
    // An answer that belongs to no list.
    bool bAll = false;
    help.ReceiveRespMsg(nullptr, bAll);
    EXPECT_EQ(help.Waiting(60, lstOut), 1);
    EXPECT_EQ(host.Count(1, "PSyncHelp::Waiting , NULL m_SyncCon"), 1);
    EXPECT_FALSE(bAll);
}

TEST_F(Lists, SingleMessagesMakeAnExchange)
{
    std::list<MsgContext> lstOut;
    const auto send = [&](TarnAsn1Message* pMessage, int iResult) {
        sending.onHandle = [iResult](TEMessage*) { return iResult; };
        return help.AsynSendAsn1Message(pMessage, &lstOut, nullptr, nullptr, nullptr);
    };
    sending.onSent = [this](const TEMessageUnit& unit) { m_Sent.push_back(unit); };
    Request pending(PROTOCOL);
    Request completed(PROTOCOL);
    Request failed(PROTOCOL);
    EXPECT_EQ(send(nullptr, 0), -1);
    EXPECT_EQ(send(&pending, 0), 0);
    EXPECT_EQ(send(&completed, -6), 0);
    EXPECT_EQ(send(new Request(PROTOCOL), 1), 0); // and deleted
    EXPECT_EQ(send(&failed, -5), -5);
    EXPECT_EQ(Request::Alive(), 3);
    EXPECT_EQ(help.Waiting(0, lstOut), 1);
    EXPECT_EQ(Results(lstOut), (Ints{0x10000001, 0}));
    EXPECT_EQ(lstOut.back().pUserData1, &lstOut);

    EXPECT_EQ(send(&pending, 0), 0);
    EXPECT_TRUE(Answer(m_Sent.back(), 2));
    EXPECT_EQ(help.Waiting(60, lstOut), 0);
    EXPECT_EQ(Results(lstOut), (Ints{2}));

    // Given up, they are deleted.
    EXPECT_EQ(send(new Request(PROTOCOL), 0), 0);
    EXPECT_EQ(send(new Request(PROTOCOL), -6), 0);
    EXPECT_EQ(help.ClearAsn1Msg(), 0);
    EXPECT_EQ(Request::Alive(), 3);
    EXPECT_FALSE(Answer(m_Sent.back()));
    EXPECT_EQ(help.Waiting(60, lstOut), 0);
}

TEST_F(Lists, AMessageThatThrowsIsOneThatCannotBeSent)
{
    class Troubled : public Request
    {
    public:
        using Request::Request;
        int HandleMessage() override
        {
            Request::HandleMessage(); // announced
            throw std::runtime_error("no");
        }
    };
    Troubled troubled(PROTOCOL);
    auto lstMessages = MakeList(1);
    lstMessages.push_back({&troubled, nullptr, nullptr, nullptr, nullptr});
    EXPECT_EQ(Send(lstMessages), 1);
    EXPECT_TRUE(Answer(m_Sent[0], 3));
    std::list<MsgContext> lstOut;
    EXPECT_EQ(help.Waiting(60, lstOut), 0);
    EXPECT_EQ(Results(lstOut), (Ints{3, -1}));
    EXPECT_EQ(help.AsynSendAsn1Message(&troubled, nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(troubled.SyncHandleMessage(60), -1);
    EXPECT_EQ(TarnAsn1ProtocolAdapter::Instance()->HandleMessage(&troubled), -1);
    EXPECT_EQ(host.CountContaining(1, "HandleMessage"), 4);
    Manager().UnRegisterSourceMessage(&troubled); // the adapter only hands on
}

TEST_F(Lists, AMessageIsCountedOnce)
{
    const auto lstMessages = MakeList(2);
    sending.onSent = [&](const TEMessageUnit& unit) {
        m_Sent.push_back(unit);
        if (m_Sent.size() > 1)
            return;
        EXPECT_TRUE(Answer(unit));
        throw std::runtime_error("after the answer");
    };
    EXPECT_EQ(Send(lstMessages), 1);
    std::list<MsgContext> lstOut;
    EXPECT_EQ(help.Waiting(0, lstOut), 1); // the other is not answered
    EXPECT_EQ(Results(lstOut), (Ints{-1, -8888}));
}

TEST_F(Lists, AStopEndsTheWait)
{
    ASSERT_EQ(tarnadapter::Init(), 0);
    std::list<MsgContext> lstOut;
    ASSERT_EQ(Send(MakeList(3)), 0);
    auto waiting = WaitAside(100'000, lstOut);
    tarnadapter::Fini();
    EXPECT_EQ(waiting.get(), 1);
    EXPECT_EQ(lstOut.size(), 3U);
    // Nor is anything waited for that was sent before the stop.
    ASSERT_EQ(tarnadapter::Init(), 0);
    ASSERT_EQ(Send(MakeList(1)), 0);
    tarnadapter::Fini();
    EXPECT_EQ(help.Waiting(100'000, lstOut), 1);
}

} // namespace
