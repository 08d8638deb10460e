#include "asyncio/TEAsyncIOMgrImpl.h"
#include "asyncio/TEIOReactor.h"
#include "connection/TarnConnectorImpl.h"
#include "connection/TarnConnectorMgrImpl.h"
#include "support/ConnectionTest.h"
#include "support/DescriptorHog.h"
#include "support/Listener.h"
#include "support/Threads.h"

#include <future>
#include <map>
#include <mutex>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using Mgr = TarnConnectorMgrImpl;

class ConnectorMgr : public ConnectionTest
{
protected:
    static Mgr& Impl() { return *Mgr::Existing(); }

    /// Waits until the connector has been opened so often, and is.
    static bool WaitOpened(TestConnector& connector, int nOpened)
    {
        return WaitUntil(
            [&] { return connector.nOpened >= nOpened && connector.GetConnState() == STATE_CONNECTED; });
    }

    /// Sends a request and waits for its answer, which must come over the same connection.
    bool Asks(TestConnector& connector, std::uint32_t ulSerial, const std::string& strMore = {})
    {
        const std::string strPayload = "from " + std::to_string(connector.GetTargetID()) + strMore;
        auto answered = std::make_shared<std::promise<bool>>();
        {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            m_Waiting[ulSerial] = {answered, strPayload, connector.Handle()};
        }
        return connector.Send(ulSerial, strPayload) == 0 &&
               answered->get_future().wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    }

    void StartAsking()
    {
        Start();
        pAdapter->onAnswer = [this](FrameMessage& message) {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            const auto it = m_Waiting.find(message.ulSerial);
            ASSERT_NE(it, m_Waiting.end());
            EXPECT_EQ(message.strPayload, it->second.strPayload);
            EXPECT_EQ(message.handle, it->second.handle);
            it->second.pAnswered->set_value(true);
            m_Waiting.erase(it);
        };
    }

private:
    struct Waiting
    {
        std::shared_ptr<std::promise<bool>> pAnswered;
        std::string strPayload;
        ACE_HANDLE handle = ACE_INVALID_HANDLE;
    };
    std::mutex m_Mutex;
    std::map<std::uint32_t, Waiting> m_Waiting; // guarded by m_Mutex
};

TEST_F(ConnectorMgr, ARegisteredConnectorIsOpenedServedAndClosed)
{
    StartAsking();
    const auto pConnector = MakeConnector(5);
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitOpened(*pConnector, 1));
    EXPECT_TRUE(Asks(*pConnector, 1));
    EXPECT_TRUE(WaitUntil([&] { return pConnector->Impl()->GetRefCount() == 2; }));
    TarnConnector* pFound = Manager().GetConnectorByHandle(pConnector->Handle());
    EXPECT_EQ(pFound, pConnector.get());
    Manager().ReleaseConnector(pFound);
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(pConnector->nBroken, 1);
    EXPECT_EQ(pConnector->GetConnState(), STATE_DISCONNECTED);
    EXPECT_EQ(pConnector->Handle(), ACE_INVALID_HANDLE);
    EXPECT_TRUE(WaitUntil([&] { return pConnector->Impl()->IsUnused(); }));
    EXPECT_TRUE(WaitUntil([&] { return element.Open() == 0; }));
    EXPECT_EQ(Manager().GetConnectorByID(TestConnector::GROUP, 5), nullptr);
}

TEST_F(ConnectorMgr, KeysAreCheckedAndTakenOnce)
{
    Start();
    EXPECT_EQ(Manager().RegisterConnector(nullptr, false, 0), -1);
    EXPECT_EQ(host.Count(1, "TarnConnectorMgrImpl::RegisterConnector error, input para pConnector=null\n"),
              1);
    TarnConnector without;
    EXPECT_EQ(Manager().RegisterConnector(&without, false, 0), -1);
    EXPECT_EQ(host.Count(1, "TarnConnectorMgrImpl::RegisterConnector error, pConnectorImpl= null\n"), 1);
    TestConnector negative(7, element.Port());
    negative.SetGroupID(-1);
    EXPECT_EQ(Manager().RegisterConnector(&negative, false, 0), -1);
    EXPECT_EQ(host.Count(1, "RegistConnectorImpl error, iGroupId = -1,iTargetID = 0x7 \n"), 1);
    EXPECT_EQ(Manager().UnRegisterConnector(-1, 7), -1);
    EXPECT_EQ(Manager().GetConnectorByID(-1, 7), nullptr);
    EXPECT_EQ(Manager().RequestConnect(1, 99), -1);
    EXPECT_EQ(Manager().RequestDisConnect(1, 99), -1);
    EXPECT_EQ(Manager().UnRegisterConnector(1, 99), -1);
    EXPECT_EQ(Manager().ReleaseConnector(nullptr), 0);
    EXPECT_EQ(Manager().Connect(nullptr), -1);
    EXPECT_EQ(Manager().DisConnect(nullptr), -1);

    const auto pFirst = MakeConnector(8);
    const auto pSecond = MakeConnector(8);
    ASSERT_EQ(pFirst->Register(), 0);
    EXPECT_EQ(pSecond->Register(), -1);
    EXPECT_EQ(host.Count(1, "RegistConnectorImpl failed , regist again!, groupId = 1, targetId = 0x8 \n"), 1);
    ASSERT_TRUE(WaitOpened(*pFirst, 1));
    EXPECT_EQ(pSecond->nOpened, 0);
    EXPECT_EQ(pFirst->UnRegister(), 0);
    EXPECT_EQ(pFirst->UnRegister(), -1);
}

TEST_F(ConnectorMgr, WaitingRegistrationTriesOnTheCallersThread)
{
    Start();
    element.StopListening();
    const auto pConnector = MakeConnector(1);
    auto late = std::async(std::launch::async, [&] {
        EXPECT_TRUE(WaitUntil([&] { return host.CountContaining(1, "After Connect, connect fail") > 0; }));
        element.StartListening();
    });
    EXPECT_EQ(pConnector->Register(true, 3), 0);
    EXPECT_EQ(pConnector->nOpened, 1);
    EXPECT_EQ(host.Count(1, "... Wait for connecting the Target 0x1 ... ...\n"), 2);
    EXPECT_EQ(pConnector->Impl()->GetConnTimeOut(), 30);
    // The registry's and the reactor's, once the first call has returned.
    EXPECT_TRUE(WaitUntil([&] { return pConnector->Impl()->GetRefCount() == 2; }));
    EXPECT_EQ(pConnector->UnRegister(), 0);
}

TEST_F(ConnectorMgr, WithoutReconnectingAFailedRegistrationLeavesNothingQueued)
{
    host.SetCfg("bNoNeReconnect", "1");
    Start();
    element.StopListening();
    const auto pConnector = MakeConnector(1);
    EXPECT_EQ(pConnector->Register(true, 1), 0);
    EXPECT_EQ(pConnector->GetConnState(), STATE_DISCONNECTED);
    EXPECT_EQ(host.Count(1, "Wait for connecting the Target (GRPID:1,TARGETID:0x1) 1 times, but failed.\n"),
              1);
    EXPECT_EQ(Impl().EnqueueReadyConnQueue(pConnector->Impl(), true), 0);
    EXPECT_EQ(pConnector->GetConnState(), STATE_DISCONNECTED);
    // A first request is queued all the same, and given up after its first failure.
    EXPECT_EQ(Manager().RequestConnect(1, 1), 0);
    EXPECT_TRUE(WaitUntil([&] { return host.CountContaining(1, "After Connect, connect fail") == 2; }));
    EXPECT_TRUE(WaitUntil([&] { return pConnector->GetConnState() == STATE_DISCONNECTED; }));
    EXPECT_EQ(pConnector->UnRegister(), 0);
}

TEST_F(ConnectorMgr, AttemptsAreRepeatedUntilTheElementListens)
{
    Start();
    element.StopListening();
    const auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    EXPECT_EQ(pConnector->GetConnState(), STATE_CONNECTING);
    EXPECT_EQ(Manager().RequestConnect(1, 1), 0); // queued already
    EXPECT_TRUE(WaitUntil([&] { return host.CountContaining(1, "After Connect, connect fail") >= 3; }));
    element.StartListening();
    EXPECT_TRUE(WaitOpened(*pConnector, 1));
    EXPECT_EQ(pConnector->Impl()->GetConnectCount(), 0);
    EXPECT_EQ(Manager().RequestConnect(1, 1), 0); // open already
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(pConnector->nOpened, 1);
}

TEST_F(ConnectorMgr, TheManagerGivesUpAfterTheGivenNumberOfFailures)
{
    Start();
    element.StopListening();
    const auto pConnector = MakeConnector(1);
    pConnector->SetMaxConnectCount(2);
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitUntil([&] { return pConnector->GetConnState() == STATE_DISCONNECTED; }));
    EXPECT_EQ(host.CountContaining(1, "After Connect, connect fail"), 2);
    EXPECT_EQ(pConnector->Impl()->GetConnectCount(), 2);
    EXPECT_TRUE(WaitUntil([&] { return pConnector->Impl()->IsUnused(); }));
    ASSERT_EQ(Manager().RequestConnect(1, 1), 0); // one more failure is one too many
    ASSERT_TRUE(WaitUntil([&] { return pConnector->GetConnState() == STATE_DISCONNECTED; }));
    EXPECT_EQ(host.CountContaining(1, "After Connect, connect fail"), 3);
    EXPECT_EQ(pConnector->UnRegister(), 0);
}

TEST_F(ConnectorMgr, ABrokenConnectionIsReopenedAndAsked)
{
    StartAsking();
    const auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    for (int i = 1; i <= 6; ++i)
    {
        ASSERT_TRUE(WaitOpened(*pConnector, i)) << i;
        EXPECT_TRUE(Asks(*pConnector, static_cast<std::uint32_t>(i)));
        element.DropAll(i % 2 == 0);
        ASSERT_TRUE(WaitUntil([&] { return pConnector->nBroken == i; })) << i;
    }
    ASSERT_TRUE(WaitOpened(*pConnector, 7));
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(pConnector->nDisorder, 0);
    EXPECT_TRUE(WaitUntil([&] { return pConnector->Impl()->IsUnused(); }));
}

TEST_F(ConnectorMgr, AnElementThatFlapsDisturbsNobody)
{
    StartAsking();
    Element flapping;
    Element::Behaviour behaviour;
    behaviour.iDropAfterMs = 50;
    flapping.Behave(behaviour);
    const auto pSteady = MakeConnector(1);
    TestConnector restless(2, flapping.Port());
    ASSERT_EQ(pSteady->Register(), 0);
    ASSERT_EQ(restless.Register(), 0);
    ASSERT_TRUE(WaitOpened(*pSteady, 1));
    for (std::uint32_t u = 1; restless.nBroken < 10; ++u)
        ASSERT_TRUE(Asks(*pSteady, u));
    EXPECT_EQ(pSteady->nBroken, 0);
    EXPECT_EQ(restless.UnRegister(), 0);
    EXPECT_EQ(restless.nDisorder, 0);
    EXPECT_EQ(pSteady->UnRegister(), 0);
}

TEST_F(ConnectorMgr, RequestsEndAndRenewTheAttempts)
{
    Start();
    const auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitOpened(*pConnector, 1));
    EXPECT_EQ(Manager().RequestDisConnect(1, 1), 0);
    EXPECT_EQ(pConnector->nBroken, 1);
    EXPECT_TRUE(pConnector->IsControlParaTrue(EXIT_CONNECT));
    EXPECT_EQ(Manager().RequestDisConnect(1, 1), 0);
    EXPECT_EQ(pConnector->nBroken, 1);
    EXPECT_EQ(Impl().EnqueueReadyConnQueue(pConnector->Impl(), false), -1);
    EXPECT_EQ(Impl().CancelRequestConnect(pConnector->Impl()), 1);
    EXPECT_EQ(Manager().RequestConnect(1, 1), 0);
    ASSERT_TRUE(WaitOpened(*pConnector, 2));
    // Cancelled between or during attempts.
    element.StopListening();
    element.DropAll(false);
    ASSERT_TRUE(WaitUntil([&] { return pConnector->nBroken == 2; }));
    EXPECT_EQ(Manager().RequestDisConnect(1, 1), 0);
    EXPECT_EQ(pConnector->GetConnState(), STATE_DISCONNECTED);
    EXPECT_TRUE(WaitUntil([&] { return pConnector->Impl()->IsUnused(); }));
    EXPECT_EQ(pConnector->UnRegister(), 0);
}

TEST_F(ConnectorMgr, ARequestThatComesWhileTheConnectionIsBeingClosedIsMadeUpFor)
{
    Start();
    const auto pConnector = MakeConnector(1);
    // An attempt that succeeds too late is closed again.
    host.StepIn("Connectted Target", [&] { pConnector->SetControlFlag(7 | EXIT_CONNECT); });
    host.StepIn("Close Connect", [&] { EXPECT_EQ(Manager().RequestConnect(1, 1), 0); });
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitOpened(*pConnector, 1));
    EXPECT_TRUE(WaitUntil([&] { return element.Accepted() == 2; })); // the element's thread may come later
    EXPECT_EQ(host.CountContaining(1, "UnregisterHandle"), 0);       // it was not served yet
    // A closing that was asked for.
    host.StepIn("Close Connect", [&] { EXPECT_EQ(Manager().RequestConnect(1, 1), 0); });
    EXPECT_EQ(Manager().RequestDisConnect(1, 1), 0);
    EXPECT_TRUE(WaitOpened(*pConnector, 2));
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(pConnector->nDisorder, 0);
}

TEST_F(ConnectorMgr, AnAttemptUnderWayIsWaitedFor)
{
    Start();
    HangingListener hanging;
    TestConnector connector(1, hanging.Port());
    connector.SetConnTimeOut(1);
    ASSERT_EQ(connector.Register(), 0);
    ASSERT_TRUE(WaitUntil([&] { return host.CountContaining(1, "Before Connect") > 0; }));
    auto unregistered = std::async(std::launch::async, [&] { return connector.UnRegister(); });
    // It goes on when somebody else takes the flag back that it has set.
    ASSERT_TRUE(WaitUntil([&] { return connector.IsControlParaTrue(EXIT_CONNECT); }));
    connector.SetControlFlag(7);
    EXPECT_EQ(unregistered.get(), 0);
    EXPECT_EQ(connector.GetConnState(), STATE_DISCONNECTED);
    EXPECT_EQ(host.CountContaining(1, "connect fail, Group = 1 ,TARGETID = 0x1, errno=62\n"), 1);
    EXPECT_TRUE(WaitUntil([&] { return connector.Impl()->IsUnused(); }));
}

TEST_F(ConnectorMgr, StoppedConnectThreadsForgetTheQueueAndResumedOnesGoOn)
{
    Start();
    const auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitOpened(*pConnector, 1));
    element.StopListening();
    element.DropAll(true);
    ASSERT_TRUE(WaitUntil([&] { return pConnector->GetConnState() == STATE_CONNECTING; }));
    EXPECT_EQ(Manager().StopConnectThreads(), 0);
    EXPECT_EQ(pConnector->GetConnState(), STATE_DISCONNECTED);
    element.StartListening();
    EXPECT_EQ(Manager().RequestConnect(1, 1), 0);
    EXPECT_EQ(pConnector->GetConnState(), STATE_CONNECTING);
    HangingListener hanging;
    TestConnector slow(2, hanging.Port());
    TestConnector slowToo(3, hanging.Port());
    for (TestConnector* pSlow : {&slow, &slowToo})
    {
        pSlow->SetConnTimeOut(1);
        EXPECT_EQ(pSlow->Register(), 0);
    }
    host.ClearLines();
    EXPECT_EQ(Manager().ResumeConnectThreads(), 0);
    EXPECT_EQ(host.CountContaining(1, "spawn a thread to connect ne ok"), 3); // one for each that waits
    EXPECT_TRUE(WaitOpened(*pConnector, 2));
    for (TestConnector* pEach : {pConnector.get(), &slow, &slowToo})
        EXPECT_EQ(pEach->UnRegister(), 0);
}

TEST_F(ConnectorMgr, AConnectionThatItsOwnerOpensWhileItIsQueuedStaysOpen)
{
    host.SetCfg("nConnectSleep", "30");
    Start();
    const auto pConnector = MakeConnector(1);
    element.StopListening();
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitUntil([&] { return host.CountContaining(1, "connect fail") == 1; }));
    element.StartListening();
    EXPECT_EQ(pConnector->Connect(), 0);
    EXPECT_EQ(pConnector->DisConnect(), 0);
    EXPECT_EQ(pConnector->GetConnState(), STATE_CONNECTING); // it is still to be tried
    EXPECT_EQ(pConnector->Connect(), 0);
    // Closed on request it is not to be tried any more; asked for again it is, at once.
    EXPECT_EQ(Manager().RequestDisConnect(1, 1), 0);
    EXPECT_EQ(pConnector->GetConnState(), STATE_DISCONNECTED);
    EXPECT_EQ(Manager().RequestConnect(1, 1), 0);
    EXPECT_TRUE(WaitOpened(*pConnector, 1));
    element.StopListening();
    element.DropAll(false);
    EXPECT_TRUE(WaitUntil([&] { return pConnector->GetConnState() == STATE_CONNECTING; }));
    element.StartListening();
    EXPECT_EQ(pConnector->Connect(), 0);
    EXPECT_EQ(Manager().StopConnectThreads(), 0);
    EXPECT_EQ(pConnector->GetConnState(), STATE_CONNECTED);
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(pConnector->GetConnState(), STATE_DISCONNECTED);
    EXPECT_TRUE(WaitUntil([&] { return element.Open() == 0; }));
}

TEST_F(ConnectorMgr, IdleConnectThreadsShareWhatComesAtOnce)
{
    constexpr int THREADS = 8;
    host.SetCfg("nConnectThreadNum", std::to_string(THREADS));
    Start();
    HangingListener hanging;
    std::vector<std::unique_ptr<TestConnector>> quick;
    std::vector<std::unique_ptr<TestConnector>> slow;
    for (int i = 0; i < THREADS; ++i)
    {
        // Each brings a thread, which is idle afterwards.
        quick.push_back(MakeConnector(static_cast<unsigned long>(i)));
        ASSERT_EQ(quick.back()->Register(), 0);
        ASSERT_TRUE(WaitOpened(*quick.back(), 1));
        slow.push_back(std::make_unique<TestConnector>(static_cast<unsigned long>(100 + i), hanging.Port()));
        slow.back()->SetConnTimeOut(2);
        slow.back()->SetMaxConnectCount(1);
    }
    host.ClearLines();
    RunTogether(THREADS, [&](int i) { EXPECT_EQ(slow[static_cast<std::size_t>(i)]->Register(), 0); });
    // None waits for another's attempt to be over.
    EXPECT_TRUE(WaitUntil([&] { return host.CountContaining(1, "Before Connect") >= THREADS; }));
    EXPECT_EQ(host.CountContaining(1, "After Connect, connect fail"), 0);
    for (const auto* pConnectors : {&quick, &slow})
        for (const auto& pConnector : *pConnectors)
            EXPECT_EQ(pConnector->UnRegister(), 0);
}

// Takes as long as a connect thread waits for work.
TEST_F(ConnectorMgr, WhatComesWhileTheLastConnectThreadLeavesIsServed)
{
    host.SetCfg("nConnectThreadNum", "1");
    Start();
    const auto pFirst = MakeConnector(1);
    const auto pLate = MakeConnector(2);
    host.StepIn(" leave this new connect thread", [&] { EXPECT_EQ(pLate->Register(), 0); });
    ASSERT_EQ(pFirst->Register(), 0);
    ASSERT_TRUE(WaitUntil([&] { return pLate->nOpened == 1; }, std::chrono::seconds(80)));
    EXPECT_EQ(pLate->UnRegister(), 0);
    EXPECT_EQ(pFirst->UnRegister(), 0);
}

TEST_F(ConnectorMgr, HooksMayCallAnything)
{
    Start();
    const auto pConnector = MakeConnector(1);
    std::atomic<int> nUnregistered{-2};
    pConnector->onOpened = [&] {
        EXPECT_EQ(Manager().RequestConnect(1, 1), 0);
        EXPECT_EQ(pConnector->Send(9, "early"), 0);
        EXPECT_EQ(Manager().StopConnectThreads(), -1); // it would wait for itself
        if (pConnector->nOpened == 1)
        {
            EXPECT_EQ(Manager().RequestDisConnect(1, 1), 0);
            EXPECT_EQ(pConnector->nBroken, 0); // told after this hook, not inside it
            EXPECT_EQ(Manager().RequestConnect(1, 1), 0);
        }
        else if (pConnector->nOpened == 3)
            nUnregistered = pConnector->UnRegister();
    };
    pConnector->onBroken = [&] { EXPECT_EQ(Manager().RequestConnect(1, 1), 0); };
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitOpened(*pConnector, 2));
    element.DropAll(false);
    ASSERT_TRUE(WaitUntil([&] { return nUnregistered == 0; }));
    EXPECT_TRUE(WaitUntil([&] { return !pConnector->IsInHook(); }));
    EXPECT_EQ(pConnector->nDisorder, 0);
    EXPECT_EQ(pConnector->UnRegister(), -1);
}

TEST_F(ConnectorMgr, AHookThatThrowsIsLogged)
{
    Start();
    const auto pConnector = MakeConnector(1);
    pConnector->onOpened = [] { throw std::runtime_error("opened"); };
    pConnector->onBroken = [] { throw 1; };
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitUntil([&] { return host.CountContaining(1, "exception: opened") == 1; }));
    element.DropAll(false);
    EXPECT_TRUE(WaitUntil([&] { return host.CountContaining(1, "OnConnectOK of TestConnector") >= 2; }));
    EXPECT_GE(host.CountContaining(1, "OnSockBreak of TestConnector, exception: not a std::exception"), 1);
    EXPECT_EQ(pConnector->UnRegister(), 0);
}

TEST_F(ConnectorMgr, UnregisteringWaitsForAHookOnAnotherThread)
{
    Start();
    const auto pConnector = MakeConnector(1);
    std::promise<void> inside;
    std::promise<void> goOn;
    pConnector->onOpened = [&] {
        inside.set_value();
        goOn.get_future().wait();
    };
    ASSERT_EQ(pConnector->Register(), 0);
    inside.get_future().wait();
    auto unregistered = std::async(std::launch::async, [&] { return pConnector->UnRegister(); });
    ASSERT_TRUE(WaitUntil([&] { return host.CountContaining(3, "waiting for a hook to return") > 0; }));
    EXPECT_EQ(unregistered.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    goOn.set_value();
    EXPECT_EQ(unregistered.get(), 0);
}

TEST_F(ConnectorMgr, UnregisteringWaitsForWhoHasGotTheConnector)
{
    Start();
    auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    // Not for the calling thread itself, ...
    TarnConnector* pOwn = Manager().GetConnectorByID(TestConnector::GROUP, 1);
    ASSERT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(Manager().ReleaseConnector(pOwn), 0);
    ASSERT_EQ(pConnector->Register(), 0);
    // ... but for any other; then the connector may be destroyed at once.
    for (int i = 0; i < StressRounds(50); ++i)
    {
        std::promise<void> got;
        std::atomic<bool> bDone{false};
        auto user = std::async(std::launch::async, [&] {
            TarnConnector* pUsed = Manager().GetConnectorByID(TestConnector::GROUP, 1);
            got.set_value();
            if (i == 0)
            {
                EXPECT_TRUE(WaitUntil(
                    [&] { return host.CountContaining(3, "or for who has got the connector") > 0; }));
            }
            for (int j = 0; j < 100; ++j)
                EXPECT_EQ(pUsed->GetTargetID(), 1U);
            bDone = true;
            Manager().ReleaseConnector(pUsed);
        });
        got.get_future().wait();
        EXPECT_EQ(pConnector->UnRegister(), 0);
        EXPECT_TRUE(bDone);
        pConnector = MakeConnector(1);
        ASSERT_EQ(pConnector->Register(), 0);
        user.get();
    }
    EXPECT_EQ(pConnector->UnRegister(), 0);
}

TEST_F(ConnectorMgr, WhatAnEarlierOpeningHasLeftIsToldWhenTheNextIsFramed)
{
    Start();
    const auto pConnector = MakeConnector(1);
    std::mutex mutex;
    std::vector<std::size_t> stale;
    pAdapter->onFraming = [&](ACE_HANDLE) {
        std::size_t uStale = 0;
        const TarnConnectorGuard framed(TarnConnectorMgr::GetFramedConnector(uStale));
        const std::lock_guard<std::mutex> guard(mutex);
        EXPECT_EQ(framed.Get(), pConnector.get());
        stale.push_back(uStale);
    };
    const auto lastStale = [&] {
        const std::lock_guard<std::mutex> guard(mutex);
        return stale.empty() ? -1 : static_cast<int>(stale.back());
    };
    const Listener listener;
    ASSERT_EQ(pConnector->Reach(listener.Port()), 0);
    ASSERT_EQ(pConnector->Register(), 0);
    const auto say = [](int iSocket, const std::string& strBytes) {
        EXPECT_EQ(send(iSocket, strBytes.data(), strBytes.size(), 0), static_cast<ssize_t>(strBytes.size()));
    };
    const std::string strFrame = Element::Frame(7, std::string(90, 'x')); // 98 bytes
    int iSocket = listener.Accept();
    say(iSocket, strFrame.substr(0, 40));
    EXPECT_TRUE(WaitUntil([&] { return lastStale() == 0; }));
    close(iSocket);
    // The rest of it comes over the next connection: 40 bytes are stale until the message that they begin is consumed.
    iSocket = listener.Accept();
    say(iSocket, strFrame.substr(40, 10));
    EXPECT_TRUE(WaitUntil([&] { return lastStale() == 40; }));
    say(iSocket, strFrame.substr(50) + strFrame.substr(0, 20));
    EXPECT_TRUE(WaitUntil([&] { return lastStale() == 0; }));
    close(iSocket);
    // What the adapter refuses is gone, and leaves nothing stale.
    iSocket = listener.Accept();
    say(iSocket, std::string(100, '\xFF'));
    close(iSocket);
    iSocket = listener.Accept();
    EXPECT_TRUE(WaitUntil([&] { return pConnector->nBroken >= 3; }));
    {
        const std::lock_guard<std::mutex> guard(mutex);
        stale.clear();
    }
    say(iSocket, strFrame.substr(0, 5));
    EXPECT_TRUE(WaitUntil([&] { return lastStale() != -1; }));
    EXPECT_EQ(lastStale(), 0);
    close(iSocket);
    std::size_t uStale = 0;
    EXPECT_EQ(TarnConnectorMgr::GetFramedConnector(uStale), nullptr);
    EXPECT_EQ(pConnector->UnRegister(), 0);
}

enum class NextOwner
{
    ANOTHER_FACADE,
    THE_SAME,
    THE_SAME_WITH_ANOTHER_TRANSPORT,
};
class ConnectorMgrKey : public ConnectorMgr, public testing::WithParamInterface<NextOwner>
{};
INSTANTIATE_TEST_SUITE_P(NextOwners, ConnectorMgrKey,
                         testing::Values(NextOwner::ANOTHER_FACADE, NextOwner::THE_SAME,
                                         NextOwner::THE_SAME_WITH_ANOTHER_TRANSPORT));

TEST_P(ConnectorMgrKey, UnregisteringLeavesWhatIsRegisteredMeanwhileAlone)
{
    Start();
    const std::shared_ptr<TestConnector> pFirst = MakeConnector(1);
    const std::shared_ptr<TestConnector> pSecond =
        GetParam() != NextOwner::ANOTHER_FACADE ? pFirst : MakeConnector(1);
    std::promise<void> inside;
    std::promise<void> goOn;
    std::atomic<bool> bFirst{true};
    pFirst->onBroken = [&] {
        if (!bFirst.exchange(false))
            return;
        inside.set_value();
        goOn.get_future().wait();
        EXPECT_EQ(pFirst->UnRegister(), 0);
        if (GetParam() == NextOwner::THE_SAME_WITH_ANOTHER_TRANSPORT)
            pFirst->Renew(1, element.Port());
        EXPECT_EQ(pSecond->Register(), 0);
    };
    ASSERT_EQ(pFirst->Register(), 0);
    ASSERT_TRUE(WaitOpened(*pFirst, 1));
    element.DropAll(false);
    inside.get_future().wait();
    auto unregistered = std::async(std::launch::async, [&] { return pFirst->UnRegister(); });
    ASSERT_TRUE(WaitUntil([&] { return host.CountContaining(3, "waiting for a hook to return") > 0; }));
    goOn.set_value();
    EXPECT_EQ(unregistered.get(), 0);
    EXPECT_TRUE(WaitOpened(*pSecond, pSecond == pFirst ? 2 : 1));
    EXPECT_EQ(pSecond->UnRegister(), 0);
}

TEST_F(ConnectorMgr, ARegistrationThatOvertakesAnUnregistrationIsNotClosedByIt)
{
    Start();
    const auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitOpened(*pConnector, 1));
    host.StepIn("RequestDisConnect begin", [&] {
        EXPECT_EQ(pConnector->UnRegister(), 0);
        EXPECT_EQ(pConnector->Register(), 0);
    });
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_TRUE(WaitOpened(*pConnector, 2));
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(pConnector->nDisorder, 0);
}

TEST_F(ConnectorMgr, AHookThatResumesDoesNotUndoTheStop)
{
    Start();
    const auto pConnector = MakeConnector(1);
    std::atomic<int> iResumed{1};
    pConnector->onBroken = [&] {
        EXPECT_TRUE(WaitUntil([&] { return Impl().ResumeConnectThreads() != 0; }));
        iResumed = Impl().ResumeConnectThreads();
    };
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitOpened(*pConnector, 1));
    element.DropAll(false);
    EXPECT_TRUE(WaitUntil([&] { return pConnector->IsInHook(); }));
    tarnadapter::Fini();
    EXPECT_EQ(iResumed, -1);
}

TEST_F(ConnectorMgr, ARetiredConnectionNeitherCallsHooksNorComesBack)
{
    Start();
    const auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitOpened(*pConnector, 1));
    const ACE_HANDLE handle = pConnector->Handle();
    // In use and open when its type is chosen anew.
    ASSERT_EQ(pConnector->InitCommuProtocolType(TCP_TYPE), 0);
    element.DropAll(false);
    Impl().SweepRubbish();
    EXPECT_TRUE(WaitUntil([&] { return element.Open() == 0; }));
    EXPECT_TRUE(
        WaitUntil([&] { return TEAsyncIOMgrImpl::Existing()->FindConnectorImpl(handle) == nullptr; }));
    EXPECT_EQ(pConnector->nBroken, 0);
    EXPECT_EQ(element.Accepted(), 1);
    // The new transport is another connection.
    pConnector->SetGroupID(TestConnector::GROUP);
    pConnector->SetTargetID(1);
    pConnector->SetAdapterProtocolID(TestConnector::PROTOCOL);
    pConnector->Reach(element.Port());
    EXPECT_EQ(Manager().RequestConnect(1, 1), 0);
    EXPECT_TRUE(WaitUntil([&] { return pConnector->nOpened == 2; }));
    EXPECT_EQ(pConnector->UnRegister(), 0);
    Impl().SweepRubbish();
}

TEST_F(ConnectorMgr, ACallersOwnConnectionIsServedAndLeftToHim)
{
    StartAsking();
    const auto pConnector = MakeConnector(1);
    pConnector->SetControlFlag(6);
    EXPECT_EQ(Manager().Connect(pConnector.get()), 0);
    ASSERT_EQ(pConnector->Register(), 0);
    EXPECT_EQ(pConnector->nOpened, 0);
    EXPECT_TRUE(Asks(*pConnector, 1));
    element.DropAll(false);
    ASSERT_TRUE(WaitUntil([&] { return pConnector->nBroken == 1; }));
    EXPECT_EQ(pConnector->GetConnState(), STATE_CONNECTED); // he closes it
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(Manager().DisConnect(pConnector.get()), 0);
    EXPECT_EQ(pConnector->GetConnState(), STATE_DISCONNECTED);
    EXPECT_EQ(Manager().RequestConnect(1, 1), -1);
}

TEST_F(ConnectorMgr, WhatAnOwnerSendsInTheHookThatReopensItIsSent)
{
    StartAsking();
    const auto pConnector = MakeConnector(1);
    pConnector->SetControlFlag(6);
    std::atomic<bool> bAnswered{false};
    pConnector->onBroken = [&] {
        EXPECT_EQ(pConnector->UnRegister(), 0);
        EXPECT_EQ(pConnector->DisConnect(), 0);
        EXPECT_EQ(pConnector->Connect(), 0);
        EXPECT_EQ(pConnector->Register(), 0);
        // The new registration has had its first call when another thread is answered.
        EXPECT_TRUE(std::async(std::launch::async, [&] { return Asks(*pConnector, 1); }).get());
        bAnswered = Asks(*pConnector, 2);
    };
    EXPECT_EQ(pConnector->Connect(), 0);
    ASSERT_EQ(pConnector->Register(), 0);
    element.DropAll(false);
    EXPECT_TRUE(WaitUntil([&] { return pConnector->nBroken == 1 && !pConnector->IsInHook(); }));
    EXPECT_TRUE(bAnswered);
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(pConnector->DisConnect(), 0);
}

TEST_F(ConnectorMgr, HandlesBeyondACEsSetsAreServedLikeOthers)
{
    StartAsking();
    const DescriptorHog hog(1100);
    ASSERT_GT(hog.Highest(), 1024);
    const auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    for (int nOpened = 1; nOpened <= 3; ++nOpened)
    {
        ASSERT_TRUE(WaitOpened(*pConnector, nOpened));
        EXPECT_GT(pConnector->Handle(), 1024);
        EXPECT_TRUE(Asks(*pConnector, static_cast<std::uint32_t>(nOpened)));
        element.DropAll(false);
    }
    ASSERT_TRUE(WaitOpened(*pConnector, 4));
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(pConnector->nDisorder, 0);
}

TEST_F(ConnectorMgr, AHandleThatTheReactorRefusesIsClosedAnnouncedAndRetried)
{
    Start();
    // Somebody else's handler is left under the number that the connection is going to get, until the reactor notices.
    class : public ACE_Event_Handler
    {
    } other;
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    TEIOReactor& reactor = *TEAsyncIOMgrImpl::Existing()->Reactor();
    const int iNumber = std::min(ends[0], ends[1]);
    ASSERT_EQ(reactor.register_handler(iNumber, &other, ACE_Event_Handler::READ_MASK), 0);
    close(iNumber);
    const auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    EXPECT_TRUE(WaitUntil([&] { return pConnector->nOpened >= 2; }));
    EXPECT_TRUE(WaitUntil([&] { return pConnector->Impl()->IsServed(); }));
    EXPECT_GE(host.CountContaining(1, "Register handle err : -1  errno 17\n"), 1);
    EXPECT_EQ(pConnector->UnRegister(), 0);
    EXPECT_EQ(pConnector->nDisorder, 0);
    reactor.remove_handler(iNumber, ACE_Event_Handler::ALL_EVENTS_MASK | ACE_Event_Handler::DONT_CALL);
    close(std::max(ends[0], ends[1]));
}

TEST_F(ConnectorMgr, NothingIsReopenedWhileTheApplicationExits)
{
    Start();
    const auto pConnector = MakeConnector(1);
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitOpened(*pConnector, 1));
    host.SetAppExit(true);
    element.DropAll(false);
    EXPECT_TRUE(WaitUntil([&] { return pConnector->nBroken == 1; }));
    EXPECT_TRUE(WaitUntil([&] { return pConnector->Impl()->IsUnused(); }));
    EXPECT_EQ(pConnector->GetConnState(), STATE_DISCONNECTED);
    EXPECT_EQ(pConnector->UnRegister(), 0);
}

TEST_F(ConnectorMgr, FiniWithLiveFacadesLeavesTheirDescriptorsToThem)
{
    const std::set<int> threads = Threads();
    StartAsking();
    const auto pOpen = MakeConnector(1);
    const auto pKept = MakeConnector(3);
    HangingListener hanging;
    TestConnector queued(2, hanging.Port());
    queued.SetConnTimeOut(1);
    ASSERT_EQ(pOpen->Register(), 0);
    ASSERT_EQ(queued.Register(), 0);
    ASSERT_EQ(pKept->Register(), 0);
    ASSERT_TRUE(WaitOpened(*pOpen, 1));
    ASSERT_TRUE(WaitOpened(*pKept, 1));
    tarnadapter::Fini();
    EXPECT_TRUE(WaitUntil([&] { return Threads() == threads; })); // the kernel lists them a little longer
    EXPECT_EQ(element.Open(), 2);
    EXPECT_EQ(pOpen->Impl()->GetRefCount(), 2);
    EXPECT_EQ(host.CountContaining(1, "While ~TarnConnectorMgrImpl ,target is not Unregisted! groupid = 1"),
              3);
    EXPECT_EQ(pOpen->DisConnect(), 0);
    EXPECT_TRUE(WaitUntil([&] { return element.Open() == 1; }));
    // The library may be started anew, and the facades be used again, also one that is still open.
    StartAsking();
    ASSERT_EQ(pKept->Register(true, 1), 0);
    EXPECT_TRUE(WaitUntil([&] { return pKept->nOpened == 2; }));
    EXPECT_TRUE(Asks(*pKept, 1));
    EXPECT_EQ(pKept->UnRegister(), 0);
    ASSERT_EQ(pOpen->Register(), 0);
    EXPECT_TRUE(WaitUntil([&] { return pOpen->nOpened == 2; }));
    EXPECT_EQ(pOpen->UnRegister(), 0);
    EXPECT_TRUE(WaitUntil([&] { return pOpen->Impl()->IsUnused(); }));
}

TEST_F(ConnectorMgr, FiniEndsAttemptsWithoutAnEngine)
{
    const std::set<int> threads = Threads();
    ASSERT_EQ(tarnadapter::Init(), 0);
    TestConnector connector(1, 1); // nobody listens there
    ASSERT_EQ(connector.Register(), 0);
    ASSERT_TRUE(WaitUntil([&] { return host.CountContaining(1, "connect fail") > 0; }));
    tarnadapter::Fini();
    EXPECT_TRUE(WaitUntil([&] { return Threads() == threads; }));
    EXPECT_EQ(Mgr::Existing(), nullptr);
    EXPECT_EQ(connector.GetConnState(), STATE_DISCONNECTED);
}

TEST_F(ConnectorMgr, FiniEndsTheAttemptsOfAMessagesHandler)
{
    Start();
    TestConnector absent(2, 1); // nobody listens there
    std::atomic<int> iRegistered{1};
    pAdapter->onAnswer = [&](FrameMessage&) { iRegistered = absent.Register(true, 1'000'000); };
    const auto pConnector = MakeConnector(1);
    pConnector->onOpened = [&] { pConnector->Send(1, "go"); };
    ASSERT_EQ(pConnector->Register(), 0);
    ASSERT_TRUE(WaitUntil([&] { return host.CountContaining(1, "connect fail") > 0; }));
    tarnadapter::Fini();
    EXPECT_NE(iRegistered, 1);
}

} // namespace
