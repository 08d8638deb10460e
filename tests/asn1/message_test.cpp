#include "asn1/Asn1Test.h"
#include "asn1/SyncCon.h"
#include "core/SyncWaits.h"

#include <future>
#include <memory>
#include <thread>

namespace {

constexpr int NOT_SET = -518181818;

class Asn1Messages : public Asn1Test
{
protected:
    /// Brings the answer on a thread of its own.
    void AnswerLater(int iResult)
    {
        sending.onSent = [this, iResult](const TEMessageUnit& unit) {
            m_Answering = std::async(std::launch::async, [unit, iResult] { Answer(unit, iResult); });
        };
    }

    std::future<void> m_Answering;
};

TEST_F(Asn1Messages, AFreshOneIsAnUnaddressedAsynchronousCommand)
{
    TarnAsn1Message message;
    EXPECT_EQ(message.ProtocolInstance(), TarnAsn1ProtocolAdapter::Instance());
    EXPECT_NE(message.GetMessageSerial(), 0U);
    EXPECT_EQ(TarnAsn1Message().GetMessageSerial(), message.GetMessageSerial() + 1);
    EXPECT_EQ(message.GetType(), COMMAND_MESSAGE);
    EXPECT_EQ(message.GetTimeOut(), 60);
    EXPECT_EQ(message.GetResult(), NOT_SET);
    EXPECT_EQ(message.GetSyncFlag(), ASYNC_MESSAGE);
    EXPECT_EQ(message.GetCommandCount(), 0);
    EXPECT_EQ(message.GetMessageAdapterVec(), nullptr);
    EXPECT_EQ(message.GetMessageAdapter(), nullptr);
    EXPECT_EQ(host.Lines().size(), 0U);
    TarnTarget& target = message.GetTargetId();
    EXPECT_EQ(target.GetNeId(), 0xFFFFFFFFUL);
    EXPECT_EQ(&message.GetTargetId(), &target);
    EXPECT_EQ(host.Count(0, "TarnAsn1Message::GetTargetId,m_pTargetId is NULL"), 1);
    message.SetType(static_cast<EAdapterMessageType>(3));
    EXPECT_EQ(message.HandleMessage(), 0x10000011);
    EXPECT_EQ(host.Count(1, "Messsage type error : 3 \n"), 1);
}

TEST_F(Asn1Messages, ACopyOwnsItsTargetAndNothingThatIsRegistered)
{
    Request original(PROTOCOL);
    original.SetResult(7);
    original.SetSyncFlag(SYNC_MESSAGE);
    AnswerLater(1);
    EXPECT_EQ(original.SyncHandleMessage(5), 0);
    {
        Request copy(original);
        EXPECT_NE(&copy.GetTargetId(), &original.GetTargetId());
        EXPECT_EQ(copy.GetTargetId().GetRuntimeClass(), &TarnAsn1Target::classTarnAsn1Target);
        EXPECT_EQ(copy.GetMessageSerial(), original.GetMessageSerial());
        EXPECT_EQ(copy.GetSyncFlag(), SYNC_MESSAGE);
        copy.SetResult(8);
        copy = original;
        copy = static_cast<const Request&>(copy);
        EXPECT_EQ(copy.GetResult(), original.GetResult());
        copy.SetSyncFlag(ASYNC_MESSAGE);
        new AsynCallBack(&original, nullptr, nullptr, nullptr);
        Manager().RegisterPrivateMessage(&original, &sending, nullptr, 60);
    }
    EXPECT_TRUE(TarnAsyncMessageReceiver::Instance()->HaveRegisterAsyncMsgCallBack(&original));
    EXPECT_TRUE(IsAnnounced(original));
    original.SetSyncFlag(ASYNC_MESSAGE); // its destructor removes both
    auto pAnnounced = std::make_unique<Request>(PROTOCOL);
    const TEMessageUnit unit = UnitOf(*pAnnounced);
    Manager().RegisterPrivateMessage(pAnnounced.get(), &sending, nullptr, 60);
    pAnnounced.reset();
    EXPECT_FALSE(Answer(unit));
}

TEST_F(Asn1Messages, TheFirstAdapterThatReachesTheTargetAndCanTranslateIsChosen)
{
    Request request(PROTOCOL);
    TestAdapter other(21);
    SendingAdapter elsewhere(&other);
    SendingAdapter incapable(&sink);
    incapable.bCanTranslate = false;
    auto pGone = std::make_unique<TestAdapter>(PROTOCOL);
    SendingAdapter orphaned(pGone.get());
    SendingAdapter sinkless(nullptr);
    pGone.reset();
    SendingAdapter second(&sink);
    Request::s_Adapters = {nullptr, &sinkless, &orphaned, &elsewhere, &incapable, &sending, &second};
    EXPECT_EQ(request.GetMessageAdapter(), &sending);
    request.GetTargetId().SetProtocolID(21);
    EXPECT_EQ(request.GetMessageAdapter(), &elsewhere);
    request.GetTargetId().SetProtocolID(22);
    EXPECT_EQ(request.GetMessageAdapter(), nullptr);
    request.SetSyncFlag(PSYNC_MESSAGE);
    EXPECT_EQ(request.HandleMessage(), 0x10000002);
    EXPECT_EQ(host.Count(1, "TarnAsn1Message::HandleCommand,no message adapter!\n"), 1);
}

TEST_F(Asn1Messages, ACommandThatGetsNoAnswerIsReleasedIfItIsAsynchronous)
{
    const auto send = [this](int iResult, EMessageSyncFlag eSyncFlag) {
        sending.onHandle = [iResult](TEMessage*) { return iResult; };
        auto* pRequest = new Request(PROTOCOL);
        pRequest->SetSyncFlag(eSyncFlag);
        new AsynCallBack(
            pRequest, [](TEMessage*, void*, void*) -> int { throw 1; }, nullptr, nullptr);
        const unsigned long ulSerial = pRequest->GetMessageSerial();
        EXPECT_EQ(pRequest->HandleMessage(), iResult);
        const bool bReleased = Request::Alive() == 0;
        EXPECT_EQ(TarnAsyncMessageReceiver::Instance()->GetResponseMessage(ulSerial),
                  bReleased ? nullptr : pRequest);
        if (!bReleased)
        {
            TarnAsyncMessageReceiver::Instance()->UnRegisterMessage(pRequest);
            delete pRequest;
        }
        return bReleased;
    };
    for (const int iResult : {1, -5, -6, -22})
    {
        EXPECT_TRUE(send(iResult, ASYNC_MESSAGE)) << iResult;
        EXPECT_FALSE(send(iResult, SYNC_MESSAGE)) << iResult;
        EXPECT_FALSE(send(iResult, PSYNC_MESSAGE)) << iResult;
    }
    EXPECT_FALSE(send(0, ASYNC_MESSAGE));
    sending.onHandle = [](TEMessage*) -> int { throw std::runtime_error("adapter"); };
    EXPECT_EQ((new Request(PROTOCOL))->HandleMessage(), -1);
    Request::s_Adapters.clear();
    EXPECT_EQ((new Request(PROTOCOL))->HandleMessage(), 0x10000002);
}

TEST_F(Asn1Messages, ASynchronousWaitEndsWithTheAnswer)
{
    Request request(PROTOCOL);
    for (int i = 1; i <= 3; ++i) // what it waits on serves again
    {
        AnswerLater(i);
        EXPECT_EQ(request.SyncHandleMessage(60), 0);
        EXPECT_EQ(request.GetResult(), i);
        EXPECT_FALSE(IsAnnounced(request));
    }
    sending.onSent = [](const TEMessageUnit& unit) { Answer(unit, 9); }; // before it waits
    EXPECT_EQ(request.SyncHandleMessage(60), 0);
    EXPECT_EQ(request.GetResult(), 9);
    EXPECT_EQ(host.Count(1, "TarnAsn1Message - Request Sync Wait BEGIN...\n"), 4);
    EXPECT_EQ(host.Count(1, "#####Request SyncHandleMessage() iCurtimeout:1. nRealTimeout:60.\n"), 4);
    EXPECT_EQ(host.Count(1, "TarnAsn1Message - Request Sync Wait OK...\n"), 4);
    // Nothing is waited for where no answer comes.
    for (const auto& [iResult, iReturned] : {std::pair{1, 0}, {-6, 0}, {-5, -5}, {-22, -22}})
    {
        sending.onHandle = [iHandled = iResult](TEMessage*) { return iHandled; };
        EXPECT_EQ(request.SyncHandleMessage(60), iReturned);
    }
    EXPECT_EQ(host.Count(1, "TarnAsn1Message - Request Sync Wait BEGIN...\n"), 4);
}

TEST_F(Asn1Messages, ATimeThatIsOverForgetsTheMessage)
{
    host.SetCfg("nNECmdTimeoutRate", "2"); // halves
    ASSERT_EQ(tarnadapter::Init(), 0);
    Request request(PROTOCOL);
    sending.onSent = [](const TEMessageUnit& unit) { Answer(unit); };
    for (const int nTimeOut : {0, -7})
    {
        EXPECT_EQ(request.SyncHandleMessage(nTimeOut), 0x10000001); // also with the answer there
        EXPECT_FALSE(IsAnnounced(request));
    }
    sending.onSent = {};
    EXPECT_EQ(request.SyncHandleMessage(1), 0x10000001);
    EXPECT_FALSE(IsAnnounced(request));
    EXPECT_EQ(host.Count(1, "#####Request SyncHandleMessage() iCurtimeout:0. nRealTimeout:0.\n"), 1);
    EXPECT_EQ(host.Count(1, "#####Request SyncHandleMessage() iCurtimeout:0. nRealTimeout:-7.\n"), 1);
    EXPECT_EQ(host.Count(1, "#####Request SyncHandleMessage() iCurtimeout:1. nRealTimeout:1.\n"), 1);
    EXPECT_EQ(host.Count(1, "Request SyncHandleMessage() TIMEOUT\n"), 3);
    // Changed while it waits.
    sending.onSent = [&](const TEMessageUnit&) {
        m_Answering = std::async(std::launch::async, [&] {
            EXPECT_TRUE(WaitUntil([&] { return host.CountContaining(1, "BEGIN") == 4; }));
            request.SetTimeOut(2);
        });
    };
    EXPECT_EQ(request.SyncHandleMessage(100'000), 0x10000001);
    EXPECT_EQ(host.CountContaining(1, "nRealTimeout:1.\n"), 2);
}

TEST_F(Asn1Messages, AWaitIsCancelledByAnotherThreadOrTheHostsExit)
{
    Request request(PROTOCOL);
    request.CancelSyncHandle();
    EXPECT_EQ(host.Count(1, "m_SyncCon is NULL , MSG:Request"), 1);
    sending.onSent = [&](const TEMessageUnit&) {
        m_Answering = std::async(std::launch::async, [&] { request.CancelSyncHandle(); });
    };
    EXPECT_EQ(request.SyncHandleMessage(60), 0x10000001);
    EXPECT_FALSE(IsAnnounced(request));
    EXPECT_EQ(host.Count(1, "TarnAsn1Message - Request Sync have been canceled....\n"), 1);
    sending.onSent = [](const TEMessageUnit&) { s_bExit = true; };
    EXPECT_EQ(request.SyncHandleMessage(60), 0x10000001);
    EXPECT_EQ(host.Count(1, "Request SyncHandleMessage() TIMEOUT\n"), 1);
    EXPECT_FALSE(IsAnnounced(request));
    m_Answering.get();
}

TEST_F(Asn1Messages, AWakeUpThatNothingCausedEndsNoWait)
{
    const char* pszFailed = nullptr;
    const SyncCon::Ptr pSyncCon = SyncCon::Create(pszFailed);
    std::atomic<bool> bEnd{false};
    std::thread waker([&] {
        while (!bEnd)
            pSyncCon->Change([](SyncCon&) {});
    });
    const auto tStart = std::chrono::steady_clock::now();
    const SyncCon::Outcome outcome = pSyncCon->Wait([] { return 2; }, [&] { return pSyncCon->iFlag != 0; });
    const auto waited = std::chrono::steady_clock::now() - tStart;
    bEnd = true;
    waker.join();
    EXPECT_FALSE(outcome.bSignalled);
    EXPECT_EQ(outcome.iTicks, 2);
    EXPECT_GE(waited, std::chrono::milliseconds(1990));
}

// The undefined-behaviour sanitizer takes the end of a thread, which is no object, for a reference to one.
#if !defined(__SANITIZE_ADDRESS__)
TEST_F(Asn1Messages, AThreadThatEndsInsideLeavesNothingBehind)
{
    sending.onSent = [](const TEMessageUnit&) { pthread_exit(nullptr); };
    Request request(PROTOCOL);
    std::thread([&] { request.SyncHandleMessage(60); }).join();
    EXPECT_FALSE(IsAnnounced(request));
    // A callback's message goes as if it had returned.
    TEMessageUnit unit;
    sending.onSent = [&](const TEMessageUnit& sent) { unit = sent; };
    auto* pTold = new Request(PROTOCOL);
    new AsynCallBack(
        pTold, [](TEMessage*, void*, void*) -> int { pthread_exit(nullptr); }, nullptr, nullptr);
    EXPECT_EQ(pTold->HandleMessage(), 0);
    std::thread([&] { Answer(unit); }).join();
    EXPECT_EQ(Request::Alive(), 1);
    EXPECT_EQ(TarnAsyncMessageReceiver::Instance()->GetResponseMessage(unit.ulSerial), nullptr);
}
#endif

TEST_F(Asn1Messages, TheAnswerOfAnAsynchronousOneGoesToItsCallBack)
{
    static std::vector<std::pair<TEMessage*, int>> s_Called;
    s_Called.clear();
    auto* pFirst = new Request(PROTOCOL);
    auto* pSecond = new Request(PROTOCOL);
    auto* pUncalled = new Request(PROTOCOL);
    static int s_iData = 5;
    new AsynCallBack(
        pFirst,
        [](TEMessage* pMessage, void* pUser1, void* pUser2) {
            s_Called.emplace_back(pMessage, *static_cast<int*>(pUser2));
            // The next one is sent inside.
            auto* pNext = static_cast<Request*>(pUser1);
            new AsynCallBack(
                pNext,
                [](TEMessage* pInner, void*, void*) -> int {
                    s_Called.emplace_back(pInner, 6);
                    throw std::runtime_error("callback");
                },
                nullptr, nullptr);
            return pNext->HandleMessage();
        },
        pSecond, &s_iData);
    auto* pRefused = new AsynCallBack(pFirst, nullptr, nullptr, nullptr);
    EXPECT_EQ(host.Count(1, "TarnAsyncMessageReceiver RegisterMessage error,msg alredy exist"), 1);
    delete pRefused;
    std::vector<TEMessageUnit> sent;
    sending.onSent = [&](const TEMessageUnit& unit) { sent.push_back(unit); };
    EXPECT_EQ(pFirst->HandleMessage(), 0);
    EXPECT_EQ(TarnAsyncMessageReceiver::Instance()->GetResponseMessage(pFirst->GetMessageSerial()), pFirst);
    EXPECT_EQ(pUncalled->HandleMessage(), 0);
    EXPECT_TRUE(Answer(sent[0]));
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_TRUE(Answer(sent[2]));
    EXPECT_TRUE(Answer(sent[1]));
    EXPECT_FALSE(Answer(sent[1]));
    EXPECT_EQ(s_Called, (std::vector<std::pair<TEMessage*, int>>{{pFirst, 5}, {pSecond, 6}}));
    EXPECT_EQ(Request::Alive(), 0);
    EXPECT_EQ(TarnAsyncMessageReceiver::Instance()->GetResponseMessage(sent[0].ulSerial), nullptr);
}

TEST_F(Asn1Messages, BadRegistrationsOfCallBacksAreRefused)
{
    AsynCallBack none(nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(host.Count(1, "TarnAsyncMessageReceiver RegisterMessage error"), 1);
    EXPECT_EQ(none.GetMessage(), nullptr);
    EXPECT_EQ(none(nullptr, nullptr, nullptr), 0);
    TarnAsyncMessageReceiver& receiver = *TarnAsyncMessageReceiver::Instance();
    AsynCallBack* pCallBack = &none;
    EXPECT_FALSE(receiver.HaveRegisterAsyncMsgCallBack(nullptr));
    EXPECT_FALSE(receiver.HaveRegisterAsyncMsgCallBack(nullptr, pCallBack));
    EXPECT_EQ(host.Count(2, "HaveRegisterAsyncMsgCallBack input para is NULL"), 1);
    EXPECT_EQ(host.Count(1, "HaveRegisterAsyncMsgCallBack error , input para is NULL"), 1);
    Request request;
    EXPECT_FALSE(receiver.HaveRegisterAsyncMsgCallBack(&request, pCallBack));
    EXPECT_EQ(pCallBack, &none);
    auto* pOwn = new AsynCallBack(&request, nullptr, nullptr, nullptr);
    EXPECT_TRUE(receiver.HaveRegisterAsyncMsgCallBack(&request, pCallBack));
    EXPECT_EQ(pCallBack, pOwn);
    receiver.UnRegisterMessage(&request);
    EXPECT_FALSE(receiver.HaveRegisterAsyncMsgCallBack(&request));
    new AsynCallBack(&request, nullptr, nullptr, nullptr);
    TarnAsyncMessageReceiver::Destroy(); // frees what is left
}

TEST_F(Asn1Messages, TheBuiltInAdapterCancelsAndHandlesAsn1MessagesOnly)
{
    TarnProtocolAdapter& builtIn = *TarnAsn1ProtocolAdapter::Instance();
    TestMessage other;
    Request request(PROTOCOL);
    EXPECT_EQ(builtIn.CancelMessage(nullptr), -1);
    EXPECT_EQ(builtIn.HandleMessage(nullptr), -1);
    EXPECT_EQ(builtIn.CancelMessage(&other), -1);
    EXPECT_EQ(builtIn.HandleMessage(&other), -1);
    for (const char* pszText : {"TarnAsn1ProtocolAdapter::CancelMessage,NULL ==pMessage\n",
                                "TarnAsn1ProtocolAdapter::HandleMessage,NULL ==pMessage\n",
                                "TarnAsn1ProtocolAdapter::CancelMessage, not a TarnAsn1Message\n",
                                "TarnAsn1ProtocolAdapter::HandleMessage, not a TarnAsn1Message\n"})
        EXPECT_EQ(host.Count(1, pszText), 1) << pszText;
    request.SetSyncFlag(SYNC_MESSAGE);
    EXPECT_EQ(builtIn.HandleMessage(&request), 0);
    EXPECT_TRUE(IsAnnounced(request));
    EXPECT_EQ(builtIn.CancelMessage(&request), 0);
    EXPECT_FALSE(IsAnnounced(request));
}

TEST_F(Asn1Messages, TheLibraryStopsBesideWaitsAndServesAnewAfterwards)
{
    for (int iRound = 0; iRound < 3; ++iRound)
    {
        ASSERT_EQ(tarnadapter::Init(), 0);
        EXPECT_EQ(Manager().GetProtocolAdapter(1), TarnAsn1ProtocolAdapter::Instance());
        Request request(PROTOCOL);
        AnswerLater(1);
        EXPECT_EQ(request.SyncHandleMessage(60), 0);
        sending.onSent = {};
        host.ClearLines();
        auto waiting = std::async(std::launch::async, [&] { return request.SyncHandleMessage(100'000); });
        EXPECT_TRUE(WaitUntil([&] { return host.CountContaining(1, "BEGIN") == 1; }));
        tarnadapter::Fini();
        EXPECT_EQ(waiting.get(), 0x10000001);
    }
}

} // namespace
