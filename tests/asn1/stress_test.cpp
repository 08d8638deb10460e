#include "asn1/Asn1Test.h"
#include "core/TEMessageTimer.h"

#include <chrono>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

namespace {

/// Answers come on two threads, at once or a little later, while their waiters time out, are cancelled, give up,
/// and destroy the messages.
class Asn1Stress : public Asn1Test
{
protected:
    void SetUp() override
    {
        Asn1Test::SetUp();
        sending.onSent = [this](const TEMessageUnit& unit) {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            m_Sent.push_back(unit);
        };
        for (std::thread& answerer : m_Answerers)
            answerer = std::thread([this] {
                while (!m_bEnd)
                    AnswerOne();
            });
    }
    void TearDown() override
    {
        EndAnswers();
        Asn1Test::TearDown();
    }
    void EndAnswers()
    {
        m_bEnd = true;
        for (std::thread& answerer : m_Answerers)
            if (answerer.joinable())
                answerer.join();
    }

    void AnswerOne()
    {
        TEMessageUnit unit;
        {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            if (m_Sent.empty())
                return;
            unit = m_Sent.front();
            m_Sent.pop_front();
        }
        nAnswered += Answer(unit) ? 1 : 0;
    }

    std::atomic<int> nAnswered{0};

private:
    std::mutex m_Mutex;
    std::deque<TEMessageUnit> m_Sent;
    std::atomic<bool> m_bEnd{false};
    std::thread m_Answerers[2];
};

TEST_F(Asn1Stress, AnAnswerBesideATimeOutACancelAndTheEndOfTheMessage)
{
    int nOk = 0;
    for (int i = 0; i < StressRounds(3000); ++i)
    {
        auto pRequest = std::make_unique<Request>(PROTOCOL);
        std::thread canceller;
        if (i % 3 == 1)
            canceller = std::thread([&] { pRequest->CancelSyncHandle(); });
        const int iResult = pRequest->SyncHandleMessage(i % 3 == 0 ? 0 : 5);
        EXPECT_TRUE(iResult == 0 || iResult == ADAPTER_ERR_TIMEOUT) << iResult;
        nOk += iResult == 0 ? 1 : 0;
        EXPECT_TRUE(i % 3 != 2 || iResult == 0);
        if (canceller.joinable())
            canceller.join();
    }
    EndAnswers(); // a waiter has its answer before the answering thread has counted it
    EXPECT_GE(nAnswered, nOk);
}

TEST_F(Asn1Stress, AnAnswerBesideTheExpiryOfAnAsynchronousOne)
{
    static std::atomic<int> s_nCalled;
    s_nCalled = 0;
    std::atomic<bool> bEnd{false};
    std::thread ticker([&] {
        TEMessageTimer timer;
        while (!bEnd)
            timer.handle_timeout(ACE_Time_Value::zero, nullptr);
    });
    // On a busy machine the ticker may have all processors for a while: who answers gets its turn, too.
    const auto tLimit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    const int nRounds = StressRounds(5000);
    for (int i = 0; i < nRounds || (nAnswered == 0 && std::chrono::steady_clock::now() < tLimit); ++i)
    {
        auto* pRequest = new Request(PROTOCOL);
        pRequest->SetTimeOut(i % 4 * 5);
        new AsynCallBack(
            pRequest,
            [](TEMessage* pMessage, void*, void*) {
                EXPECT_EQ(pMessage->GetType(), RESPONSE_MESSAGE);
                return s_nCalled++;
            },
            nullptr, nullptr);
        EXPECT_EQ(pRequest->HandleMessage(), 0);
    }
    EXPECT_TRUE(WaitUntil([] { return Request::Alive() == 0; }));
    bEnd = true;
    ticker.join();
    EndAnswers(); // a message may be gone before the answering thread has counted it
    EXPECT_EQ(s_nCalled, nAnswered);
    EXPECT_GT(nAnswered, 0);
}

TEST_F(Asn1Stress, AnswersBesideTheEndOfAList)
{
    constexpr int LIST = 5;
    for (int i = 0; i < StressRounds(1500); ++i)
    {
        PSyncHelp help;
        std::list<MsgContext> lstMessages;
        for (int iMessage = 0; iMessage < LIST; ++iMessage)
            lstMessages.push_back({new Request(PROTOCOL), nullptr, nullptr, nullptr, nullptr});
        EXPECT_EQ(help.AsyncSendAsn1MessageList(lstMessages, nullptr, nullptr, nullptr, nullptr), 0);
        if (i % 3 == 0)
        {
            EXPECT_EQ(help.ClearAsn1Msg(), 0);
            continue;
        }
        std::list<MsgContext> lstOut;
        const int iResult = help.Waiting(i % 3 == 1 ? 0 : 60, lstOut);
        EXPECT_TRUE(iResult == 0 || i % 3 == 1) << iResult;
        EXPECT_EQ(lstOut.size(), static_cast<std::size_t>(LIST));
        for (const MsgContext& context : lstOut)
            delete context.pAsn1Msg;
    }
}

TEST_F(Asn1Stress, TheLibraryStopsBesideWaitsOfAllKinds)
{
    EndAnswers(); // who routes answers uses the manager, which goes
    for (int i = 0; i < StressRounds(100); ++i)
    {
        ASSERT_EQ(tarnadapter::Init(), 0);
        host.ClearLines();
        std::vector<std::thread> waiters;
        for (int iWaiter = 0; iWaiter < 4; ++iWaiter)
            waiters.emplace_back([&, iWaiter] {
                Request request(PROTOCOL);
                if (iWaiter % 2 == 0)
                {
                    EXPECT_EQ(request.SyncHandleMessage(100'000), ADAPTER_ERR_TIMEOUT);
                    return;
                }
                PSyncHelp help;
                std::list<MsgContext> lstOut;
                EXPECT_EQ(help.AsynSendAsn1Message(&request, nullptr, nullptr, nullptr, nullptr), 0);
                EXPECT_EQ(help.Waiting(100'000, lstOut), 1);
            });
        EXPECT_TRUE(WaitUntil([&] {
            return host.CountContaining(1, "BEGIN") == 2 &&
                   host.CountContaining(3, "PSyncHelp::Waiting begin") == 2;
        }));
        tarnadapter::Fini();
        for (std::thread& waiter : waiters)
            waiter.join();
    }
}

} // namespace
