#include "support/ConnectionTest.h"
#include "support/Living.h"
#include "support/RoadAdapter.h"
#include "support/Threads.h"

#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

namespace {

class LivingQuestion : public Question, public Living<LivingQuestion>
{
public:
    using Question::Question;
};

class LivingAnswer : public Answer, public Living<LivingAnswer>
{
public:
    using Answer::Answer;
};

class LivingProtocol : public RoadProtocol
{
    Answer* NewAnswer(std::uint32_t ulSerial, std::string strText) override
    {
        return new LivingAnswer(this, ulSerial, std::move(strText));
    }
};

class Road : public HostTest
{
protected:
    static constexpr int ELEMENTS = 20;

    void SetUp() override
    {
        host.SetCfg("bEnableAdapterLog", "0");
        host.SetCfg("nConnectSleep", "0");
        Answer::s_nLate = 0;
        Answer::s_nReports = 0;
        for (int i = 0; i < ELEMENTS; ++i)
            elements.push_back(std::make_unique<Element>());
        Start();
    }
    void TearDown() override
    {
        for (const auto& pConnector : m_Connectors)
            EXPECT_EQ(pConnector->UnRegister(), 0);
        Stop();
        HostTest::TearDown();
        EXPECT_EQ(Question::s_nAlive, 0);
    }

    /// Starts the library and connects it to the first elements.
    void Start(int nElements = ELEMENTS)
    {
        ASSERT_EQ(tarnadapter::Init(), 0);
        auto* pProtocol = new LivingProtocol;
        ASSERT_EQ(TEAdapterManager::Instance()->RegisterProtocolAdapter(ROAD_PROTOCOL, pProtocol, true), 0);
        m_pMessageAdapter = std::make_unique<RoadMessageAdapter>(pProtocol);
        Question::s_Adapters = {m_pMessageAdapter.get()};
        for (int i = 0; i < nElements; ++i)
        {
            m_Connectors.push_back(std::make_unique<TestConnector>(
                static_cast<unsigned long>(i), elements[static_cast<std::size_t>(i)]->Port()));
            m_Connectors.back()->SetAdapterProtocolID(ROAD_PROTOCOL);
            ASSERT_EQ(m_Connectors.back()->Register(), 0);
        }
        for (const auto& pConnector : m_Connectors)
            ASSERT_TRUE(WaitUntil([&] { return pConnector->nOpened == 1; }));
    }
    void Stop()
    {
        tarnadapter::Fini();
        Question::s_Adapters.clear();
        m_Connectors.clear();
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

/// Questions whose callbacks, on the response threads, ask the next one, and some of which register again or wait for
/// an answer themselves.
class Chain
{
public:
    /// @param nQuestions  to be asked altogether
    static void Begin(int nQuestions, int nElements)
    {
        s_nElements = nElements;
        s_nToAsk = nQuestions;
        s_nAsked = s_nTold = s_nRefused = s_nBlocked = 0;
    }
    static void Ask()
    {
        const int iNumber = --s_nToAsk;
        if (iNumber < 0)
            return;
        auto* pQuestion = new LivingQuestion(iNumber % s_nElements, std::to_string(iNumber));
        new AsynCallBack(pQuestion, &Told, reinterpret_cast<void*>(static_cast<std::intptr_t>(iNumber)),
                         nullptr);
        ++s_nAsked;
        if (pQuestion->HandleMessage() != 0) // and the question is gone
            ++s_nRefused;
    }

    static inline std::atomic<int> s_nAsked;
    static inline std::atomic<int> s_nTold;
    static inline std::atomic<int> s_nRefused;

private:
    static int Told(TEMessage* pMessage, void* pNumber, void*)
    {
        auto* pQuestion = static_cast<LivingQuestion*>(pMessage);
        const auto iNumber = reinterpret_cast<std::intptr_t>(pNumber);
        EXPECT_EQ(pQuestion->strAnswer, std::to_string(iNumber));
        EXPECT_EQ(pQuestion->GetResult(), Question::ANSWERED);
        pQuestion->SetResult(0); // one that is told twice would be seen
        ++s_nTold;
        if (iNumber % 5 == 0)
            RegisterAgain(*pQuestion);
        if (iNumber % 7 == 0)
            Block(static_cast<int>(iNumber) % s_nElements);
        Ask();
        return 0;
    }

    /// The registry keeps what it has; later the record may be registered anew.
    static void RegisterAgain(LivingQuestion& question)
    {
        auto* pSecond = new AsynCallBack(&question, &Told, nullptr, nullptr);
        AsynCallBack* pKept = nullptr;
        EXPECT_TRUE(TarnAsyncMessageReceiver::Instance()->HaveRegisterAsyncMsgCallBack(&question, pKept));
        EXPECT_NE(pKept, pSecond);
        delete pSecond;
        TarnAsyncMessageReceiver::Instance()->UnRegisterMessage(&question); // its function is running
        new AsynCallBack(&question, &Told, nullptr, nullptr);               // goes with the question
    }

    /// Waits for an answer that another response thread has to bring; never on all of them.
    static void Block(int iNe)
    {
        if (++s_nBlocked <= 2)
        {
            LivingQuestion question(iNe, "inside");
            const int iResult = question.SyncHandleMessage(30);
            EXPECT_TRUE(iResult != 0 || question.strAnswer == "inside");
        }
        --s_nBlocked;
    }

    static inline int s_nElements;
    static inline std::atomic<int> s_nToAsk;
    static inline std::atomic<int> s_nBlocked;
};

TEST_F(Road, CallbacksAskOnRegisterAgainAndBlock)
{
    const int nQuestions = StressRounds(3000);
    Chain::Begin(nQuestions, ELEMENTS);
    for (int i = 0; i < 3 * ELEMENTS; ++i)
        Chain::Ask();
    EXPECT_TRUE(WaitUntil([&] { return Chain::s_nTold == nQuestions && LivingQuestion::Alive() == 0; }));
    EXPECT_EQ(Chain::s_nAsked, nQuestions);
    EXPECT_EQ(Chain::s_nRefused, 0);
    EXPECT_EQ(Answer::s_nLate, 0);
}

TEST_F(Road, TheLibraryStopsAtAnyMomentAndEveryMessageIsAccountedFor)
{
    constexpr int NES = 4;
    constexpr int SILENT = NES - 1;
    elements[SILENT]->Behave({false});
    elements[0]->Behave({true, true, false, false, 1});
    std::minstd_rand random(5);
    Stop();
    int nTold = 0;
    std::size_t uQuestionsLeft = 0;
    std::size_t uAnswersLeft = 0;
    for (int iRound = 0; iRound < StressRounds(100); ++iRound)
    {
        Start(NES);
        Chain::Begin(1'000'000, SILENT); // the others
        std::vector<std::thread> waiters;
        for (int iWaiter = 0; iWaiter < 3; ++iWaiter)
            waiters.emplace_back([iWaiter] {
                int iResult = 0;
                while (iResult == 0)
                {
                    LivingQuestion question(iWaiter, "sync");
                    iResult = question.SyncHandleMessage(1000);
                    // An answer may still come between the end of the wait and that of the message.
                    EXPECT_TRUE(question.strAnswer == "sync" || (iResult != 0 && question.strAnswer.empty()));
                }
                EXPECT_TRUE(iResult == ADAPTER_ERR_TIMEOUT || iResult == -1) << iResult;
            });
        PSyncHelp helps[2];
        for (PSyncHelp& help : helps)
        {
            std::list<MsgContext> lstMessages;
            for (int i = 0; i < NES; ++i)
                lstMessages.push_back({new LivingQuestion(i, "list"), nullptr, nullptr, nullptr, nullptr});
            EXPECT_EQ(help.AsyncSendAsn1MessageList(lstMessages, nullptr, nullptr, nullptr, nullptr), 0);
            waiters.emplace_back([&help] {
                std::list<MsgContext> lstOut;
                EXPECT_EQ(help.Waiting(1000, lstOut), 1); // one is silent
                EXPECT_EQ(lstOut.size(), static_cast<std::size_t>(NES));
                for (const MsgContext& context : lstOut)
                    delete context.pAsn1Msg;
            });
        }
        for (int i = 0; i < 2 * NES; ++i)
            Chain::Ask();
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
        Stop();
        for (std::thread& waiter : waiters)
            waiter.join();
        const auto uLeft = LivingQuestion::DeleteLeft();
        EXPECT_EQ(static_cast<std::size_t>(Chain::s_nAsked - Chain::s_nTold - Chain::s_nRefused), uLeft);
        nTold += Chain::s_nTold;
        uQuestionsLeft += uLeft;
        uAnswersLeft += LivingAnswer::DeleteLeft();
    }
    EXPECT_GT(nTold, 0);
    std::printf("%d told; left by the stops: %zu questions, %zu answers\n", nTold, uQuestionsLeft,
                uAnswersLeft);
    elements[SILENT]->Behave({});
    Start();
}

} // namespace
