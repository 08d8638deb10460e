#include "support/ConnectionTest.h"
#include "support/RoadAdapter.h"
#include "support/Threads.h"

#include <list>
#include <map>
#include <memory>
#include <mutex>

namespace {

class Road : public HostTest
{
protected:
    static constexpr int ELEMENTS = 20;

    void SetUp() override
    {
        host.SetCfg("bEnableAdapterLog", "0");
        host.SetCfg("nConnectSleep", "0");
        ASSERT_EQ(tarnadapter::Init(), 0);
        auto* pProtocol = new RoadProtocol;
        ASSERT_EQ(TEAdapterManager::Instance()->RegisterProtocolAdapter(ROAD_PROTOCOL, pProtocol, true), 0);
        m_pMessageAdapter = std::make_unique<RoadMessageAdapter>(pProtocol);
        Question::s_Adapters = {m_pMessageAdapter.get()};
        Answer::s_nLate = 0;
        Answer::s_nReports = 0;
        for (int i = 0; i < ELEMENTS; ++i)
        {
            elements.push_back(std::make_unique<Element>());
            m_Connectors.push_back(
                std::make_unique<TestConnector>(static_cast<unsigned long>(i), elements.back()->Port()));
            m_Connectors.back()->SetAdapterProtocolID(ROAD_PROTOCOL);
            ASSERT_EQ(m_Connectors.back()->Register(), 0);
        }
        for (const auto& pConnector : m_Connectors)
            ASSERT_TRUE(WaitUntil([&] { return pConnector->nOpened == 1; }));
    }
    void TearDown() override
    {
        for (const auto& pConnector : m_Connectors)
            EXPECT_EQ(pConnector->UnRegister(), 0);
        tarnadapter::Fini();
        Question::s_Adapters.clear();
        HostTest::TearDown();
        EXPECT_EQ(Question::s_nAlive, 0);
    }

    std::vector<std::unique_ptr<Element>> elements;

private:
    std::unique_ptr<RoadMessageAdapter> m_pMessageAdapter;
    std::vector<std::unique_ptr<TestConnector>> m_Connectors;
};

TEST_F(Road, ManyThreadsAskManyElementsAndWait)
{
    constexpr int THREADS = 16;
    RunTogether(THREADS, [&](int iThread) {
        for (int i = 0; i < StressRounds(100); ++i)
        {
            const int iNe = (iThread + i) % ELEMENTS;
            Question question(iNe, std::to_string(iThread) + "/" + std::to_string(i));
            EXPECT_EQ(question.SyncHandleMessage(30), 0);
            EXPECT_EQ(question.strAnswer, question.strQuestion);
            if (i % 25 == 0)
                elements[static_cast<std::size_t>(iNe)]->SendToAll(Element::Frame(0, "a report among them"));
        }
    });
    EXPECT_EQ(Answer::s_nLate, 0);
    EXPECT_TRUE(WaitUntil([] { return Answer::s_nReports >= THREADS; }));
}

TEST_F(Road, AThousandAreUnderWayAtOnceAndEachIsToldOnce)
{
    constexpr int QUESTIONS = 1000;
    static std::mutex s_Mutex;
    static std::map<int, int> s_Told;
    s_Told.clear();
    for (int i = 0; i < ELEMENTS; ++i) // out of order between the elements
        elements[static_cast<std::size_t>(i)]->Behave(
            {true, true, false, false, (ELEMENTS - i) * 10, i % 3 * 7});
    for (int i = 0; i < QUESTIONS; ++i)
    {
        auto* pQuestion = new Question(i % ELEMENTS, std::to_string(i));
        new AsynCallBack(
            pQuestion,
            [](TEMessage* pMessage, void* pNumber, void*) {
                const auto* pTold = static_cast<Question*>(pMessage);
                EXPECT_EQ(pTold->strAnswer, pTold->strQuestion);
                const std::lock_guard<std::mutex> guard(s_Mutex);
                return ++s_Told[static_cast<int>(reinterpret_cast<std::intptr_t>(pNumber))];
            },
            reinterpret_cast<void*>(static_cast<std::intptr_t>(i)), nullptr);
        EXPECT_EQ(pQuestion->HandleMessage(), 0);
    }
    EXPECT_TRUE(WaitUntil([] { return Question::s_nAlive == 0; }));
    EXPECT_EQ(s_Told.size(), static_cast<std::size_t>(QUESTIONS));
    for (const auto& [iNumber, nTold] : s_Told)
        EXPECT_EQ(nTold, 1) << iNumber;
}

TEST_F(Road, AListBearsWithElementsThatAreSilentOrRefuse)
{
    constexpr int LIST = 200;
    constexpr int SILENT = 3;
    elements[SILENT]->Behave({false});
    std::vector<std::unique_ptr<Question>> questions;
    std::list<MsgContext> lstMessages;
    for (int i = 0; i < LIST; ++i)
    {
        questions.push_back(
            std::make_unique<Question>(i == 77 ? Question::REFUSING_NE : i % ELEMENTS, std::to_string(i)));
        lstMessages.push_back({questions.back().get(), nullptr, nullptr, nullptr, nullptr});
    }
    PSyncHelp help;
    std::list<MsgContext> lstOut;
    EXPECT_EQ(help.AsyncSendAsn1MessageList(lstMessages, nullptr, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(help.Waiting(2, lstOut), 1);
    ASSERT_EQ(lstOut.size(), static_cast<std::size_t>(LIST));
    for (int i = 0; i < LIST; ++i)
    {
        const Question& question = *questions[static_cast<std::size_t>(i)];
        EXPECT_EQ(question.GetResult(), i == 77                  ? -5
                                        : i % ELEMENTS == SILENT ? -8888
                                                                 : Question::ANSWERED)
            << i;
        EXPECT_EQ(question.strAnswer, question.GetResult() == Question::ANSWERED ? question.strQuestion : "");
    }
    // Those that answer only now find nobody.
    elements[SILENT]->Behave({});
    Question late(SILENT, "still there?");
    EXPECT_EQ(late.SyncHandleMessage(30), 0);
    // A list whose first send finds the element broken is not sent at all.
    questions[0] = std::make_unique<Question>(Question::BROKEN_NE, "broken");
    lstMessages.front().pAsn1Msg = questions[0].get();
    EXPECT_EQ(help.AsyncSendAsn1MessageList(lstMessages, nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(questions[0]->GetResult(), -22);
    EXPECT_EQ(help.Waiting(0, lstOut), 1);
}

TEST_F(Road, AnAnswerThatComesLateFindsNobody)
{
    elements[1]->Behave({true, true, false, false, 1500});
    {
        Question question(1, "too slow");
        EXPECT_EQ(question.SyncHandleMessage(1), ADAPTER_ERR_TIMEOUT);
    }
    EXPECT_TRUE(WaitUntil([] { return Answer::s_nLate == 1; }));
}

} // namespace
