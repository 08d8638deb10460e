#include "support/ConnectionTest.h"
#include "support/Threads.h"

#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

// An application written against the exported headers: requests are frames of Element's, their serials the sink
// messages', and each NE id is a connector's target id.
namespace {

constexpr std::uint32_t PROTOCOL = 78;
constexpr int ANSWERED = 7;
constexpr int REFUSING_NE = 900;
constexpr int BROKEN_NE = 901;

/// What is sent for a request.
class Sink : public TEMessage
{
public:
    explicit Sink(TarnProtocolAdapter* pAdapter)
        : TEMessage(pAdapter)
    {
        RequireSerial();
    }
    TEMessageAdapter* GetMessageAdapter() override { return nullptr; }
};

class Question : public TarnAsn1Message, public Counted<Question>
{
public:
    static std::vector<TEMessageAdapter*> s_Adapters;

    Question(int iNe, std::string strText)
        : strQuestion(std::move(strText))
    {
        TarnAsn1Target target(iNe);
        target.SetProtocolID(PROTOCOL);
        SetTargetId(target);
    }
    std::vector<TEMessageAdapter*>* GetMessageAdapterVec() override { return &s_Adapters; }

    const std::string strQuestion;
    std::string strAnswer;
};
std::vector<TEMessageAdapter*> Question::s_Adapters;

/// Routes an element's answer to the question, on a response thread.
class Answer : public TEMessage
{
public:
    Answer(TarnProtocolAdapter* pAdapter, std::uint32_t ulSerial, std::string strText)
        : TEMessage(pAdapter, RESPONSE_MESSAGE)
        , m_strText(std::move(strText))
    {
        m_ulSerial = ulSerial;
    }
    TEMessageAdapter* GetMessageAdapter() override { return nullptr; }
    int HandleMessage() override
    {
        TEAdapterManager* pManager = TEAdapterManager::Instance();
        Question* pSource = nullptr;
        bool bFound = false;
        pManager->AcquireMsgMapMtx();
        const auto sink = pManager->FindSrcMsgUnit({m_ulSerial, PROTOCOL}, bFound);
        if (bFound)
        {
            const auto record = pManager->FindSrcMsgInfo(sink->second, bFound);
            pSource = bFound ? static_cast<Question*>(record->second.pSource) : nullptr;
        }
        s_nLate += pSource == nullptr ? 1 : 0;
        bool bAsync = false;
        if (pSource != nullptr)
        {
            pManager->UnRegisterSourceMessage(pSource);
            bAsync = pSource->GetSyncFlag() == ASYNC_MESSAGE;
            pSource->strAnswer = m_strText;
            pSource->SetResult(ANSWERED);
            pSource->SetType(RESPONSE_MESSAGE);
            if (!bAsync)
                pSource->HandleMessage();
        }
        pManager->ReleaseMsgMapMtx();
        if (bAsync)
            pSource->HandleMessage();
        return 0;
    }

    static inline std::atomic<int> s_nLate{0}; ///< answers that nobody waits for
    static inline std::atomic<int> s_nReports{0};

private:
    const std::string m_strText;
};

class RoadProtocol : public TarnProtocolAdapter
{
public:
    RoadProtocol()
        : TarnProtocolAdapter(PROTOCOL)
    {}
    int CheckMessageValid(void* /*pHandle*/, std::vector<unsigned char>& data) override
    {
        const auto number = [&data](std::size_t u) {
            return std::uint32_t{data[u]} << 24U | std::uint32_t{data[u + 1]} << 16U |
                   std::uint32_t{data[u + 2]} << 8U | std::uint32_t{data[u + 3]};
        };
        if (data.size() < 8 || data.size() < number(0) + 4)
            return 0;
        const std::size_t uLength = number(0) + 4;
        const std::uint32_t ulSerial = number(4);
        if (ulSerial == 0)
        {
            ++Answer::s_nReports;
            return static_cast<int>(uLength);
        }
        auto* pAnswer =
            new Answer(this, ulSerial,
                       std::string(data.begin() + 8, data.begin() + static_cast<std::ptrdiff_t>(uLength)));
        if (TEAsyncIOMgr::Instance()->AddTERspMessageData(pAnswer) != 0)
            delete pAnswer;
        return static_cast<int>(uLength);
    }
};

class RoadMessageAdapter : public TEMessageAdapter
{
public:
    explicit RoadMessageAdapter(TarnProtocolAdapter* pSink)
        : TEMessageAdapter(TarnAsn1ProtocolAdapter::Instance(), pSink)
    {}
    bool CanTranslate(TEMessage* /*pMessage*/) override { return true; }
    int HandleMessage(TEMessage* pMessage) override
    {
        auto* pQuestion = static_cast<Question*>(pMessage);
        const auto ulNe = pQuestion->GetTargetId().GetNeId();
        if (ulNe == REFUSING_NE || ulNe == BROKEN_NE)
            return ulNe == REFUSING_NE ? -5 : -22;
        Sink sink(SinkProtocolInstance());
        const std::string strFrame = Element::Frame(sink.GetMessageSerial(), pQuestion->strQuestion);
        TEAdapterManager* pManager = TEAdapterManager::Instance();
        pManager->AcquireMsgMapMtx();
        RegisterPrivateMessage(pQuestion, this, nullptr, pQuestion->GetTimeOut());
        RegisterMessage(pQuestion, &sink);
        pManager->ReleaseMsgMapMtx();
        TarnConnectorMgr* pConnectors = TarnConnectorMgr::Instance();
        TarnConnector* pConnector = pConnectors->GetConnectorByID(TestConnector::GROUP, ulNe);
        const auto handle =
            pConnector != nullptr
                ? static_cast<ACE_HANDLE>(reinterpret_cast<std::intptr_t>(pConnector->GetHandle()))
                : ACE_INVALID_HANDLE;
        pConnectors->ReleaseConnector(pConnector);
        if (TEAsyncIOMgr::Instance()->SendToOutBuffer(handle, strFrame.data(),
                                                      static_cast<int>(strFrame.size())) == 0)
            return 0;
        pManager->UnRegisterSourceMessage(pQuestion);
        return -1;
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
        ASSERT_EQ(tarnadapter::Init(), 0);
        auto* pProtocol = new RoadProtocol;
        ASSERT_EQ(TEAdapterManager::Instance()->RegisterProtocolAdapter(PROTOCOL, pProtocol, true), 0);
        m_pMessageAdapter = std::make_unique<RoadMessageAdapter>(pProtocol);
        Question::s_Adapters = {m_pMessageAdapter.get()};
        Answer::s_nLate = 0;
        Answer::s_nReports = 0;
        for (int i = 0; i < ELEMENTS; ++i)
        {
            elements.push_back(std::make_unique<Element>());
            m_Connectors.push_back(
                std::make_unique<TestConnector>(static_cast<unsigned long>(i), elements.back()->Port()));
            m_Connectors.back()->SetAdapterProtocolID(PROTOCOL);
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
        EXPECT_EQ(Question::Alive(), 0);
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
    EXPECT_TRUE(WaitUntil([] { return Question::Alive() == 0; }));
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
            std::make_unique<Question>(i == 77 ? REFUSING_NE : i % ELEMENTS, std::to_string(i)));
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
        EXPECT_EQ(question.GetResult(), i == 77 ? -5 : i % ELEMENTS == SILENT ? -8888 : ANSWERED) << i;
        EXPECT_EQ(question.strAnswer, question.GetResult() == ANSWERED ? question.strQuestion : "");
    }
    // Those that answer only now find nobody.
    elements[SILENT]->Behave({});
    Question late(SILENT, "still there?");
    EXPECT_EQ(late.SyncHandleMessage(30), 0);
    // A list whose first send finds the element broken is not sent at all.
    questions[0] = std::make_unique<Question>(BROKEN_NE, "broken");
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
