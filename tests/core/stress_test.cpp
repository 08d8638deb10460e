#include "core/ManagerParts.h"
#include "core/TEMessageTimer.h"
#include "support/TestAdapters.h"
#include "support/TestHost.h"
#include "support/Threads.h"
#include "tarnadapterframe/tarnbaseutil.h"

#include <chrono>
#include <random>

namespace {

constexpr int THREADS = 8;

TEAdapterManager& Manager()
{
    return *TEAdapterManager::Instance();
}

bool DropLine(const std::string&, TarnLogLevel, const char*, const AsnType*, bool, bool)
{
    return true;
}

} // namespace

/// The log is dropped, since it would order the threads; the manager's locks alone must.
class Stress : public HostTest
{
protected:
    void SetUp() override { TarnInstallLogSink(&DropLine); }
};

// Sources are announced with sinks and user data and then either answered or expired by ticks, whichever
// comes first; each source and user data is deleted exactly once.
TEST_F(Stress, SourcesAreAnsweredOrExpiredExactlyOnce)
{
    TestAdapter sourceAdapter(100);
    TestAdapter sinkAdapter(101);
    std::atomic<int> iExpired{0};
    std::atomic<int> iAnswered{0};
    TestMessageAdapter adapter;
    adapter.onError = [&](TEMessage*, void*, EAdapterError) { ++iExpired; };

    const int iPerThread = StressRounds(10000);
    constexpr int iTickers = 2;
    std::atomic<int> iWorking{THREADS - iTickers};
    std::atomic<int> iMade{0};
    // A busy machine may not give the ticks their turn for a while: go on until they have had it.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const auto bTicksMissing = [&] { return iExpired < 100 && std::chrono::steady_clock::now() < deadline; };

    const auto work = [&](int iThread) {
        std::minstd_rand random(static_cast<unsigned>(iThread + 1));
        std::vector<TEMessageUnit> open;
        const auto answerOldest = [&] {
            const TEMessageUnit unit = open.front();
            open.erase(open.begin());
            bool bFound = false;
            EXPECT_EQ(Manager().AcquireMsgMapMtx(), 0);
            const auto it = Manager().FindSrcMsgInfo(unit, bFound);
            TEMessage* pSource = bFound ? it->second.pSource : nullptr;
            void* pUserData = bFound ? it->second.pUserData : nullptr;
            if (bFound)
                Manager().UnRegisterSourceMessage(pSource);
            Manager().ReleaseMsgMapMtx();
            if (!bFound)
                return;
            ++iAnswered;
            delete static_cast<TEMsgUserData*>(pUserData);
            delete pSource;
        };
        for (int i = 0; i < iPerThread || bTicksMissing(); ++i)
        {
            ++iMade;
            auto* pSource = new TestMessage(&sourceAdapter, ASYNC_MESSAGE, static_cast<int>(random() % 16));
            TestMessage firstSink(&sinkAdapter);
            TestMessage secondSink(&sinkAdapter);
            open.push_back(UnitOf(*pSource));
            Manager().AcquireMsgMapMtx();
            adapter.RegisterPrivateMessage(pSource, &adapter, static_cast<TEMsgUserData*>(new TestUserData),
                                           60);
            adapter.RegisterMessage(pSource, &firstSink);
            adapter.RegisterMessage(pSource, &secondSink);
            Manager().ReleaseMsgMapMtx();
            Manager().UnRegisterSinkMessage(&firstSink);
            if (open.size() > 20)
                answerOldest();
        }
        while (!open.empty())
            answerOldest();
        --iWorking;
    };
    const auto tick = [&] {
        TEMessageTimer timer;
        while (iWorking > 0)
            timer.handle_timeout(ACE_Time_Value::zero, nullptr);
    };
    RunTogether(THREADS, [&](int iThread) { iThread < iTickers ? tick() : work(iThread); });

    EXPECT_EQ(iAnswered + iExpired, iMade);
    EXPECT_GT(iAnswered, 0);
    EXPECT_GE(iExpired, 100);
    EXPECT_EQ(TestMessage::Alive(), 0);
    EXPECT_EQ(TestUserData::Alive(), 0);
}

// Sources, sinks and links come and go without an outer lock, by every operation of the manager: it has to
// order them.
TEST_F(Stress, CorrelationOrdersItsOperationsByItself)
{
    TestAdapter sourceAdapter(100);
    TestAdapter sinkAdapter(101);
    TestMessageAdapter adapter;
    RunTogether(THREADS, [&](int iThread) {
        TEMessageTimer timer;
        for (int i = 0; i < StressRounds(1500); ++i)
        {
            // Nobody times a synchronous source out, so it stays this thread's own.
            TestMessage source(&sourceAdapter, SYNC_MESSAGE);
            TestMessage sink(&sinkAdapter);
            TestMessage strayed(&sinkAdapter);
            EXPECT_EQ(Manager().RegisterPrivateMessage(&source, &adapter, nullptr, 60), 0);
            EXPECT_EQ(Manager().RegisterMessage(&source, &sink), 0);
            EXPECT_EQ(Manager().RegisterMessage(&source, &strayed), 0);
            bool bFound = false;
            const auto itUnit = Manager().FindSrcMsgUnit(UnitOf(sink), bFound);
            EXPECT_TRUE(bFound);
            const auto itInfo = Manager().FindSrcMsgInfo(UnitOf(source), bFound);
            EXPECT_TRUE(bFound && itInfo->second.pSource == &source);
            EXPECT_EQ(Manager().UnRegisterSinkMessage(&strayed), 0);
            if (i % 2 == 0)
            {
                EXPECT_EQ(Manager().EraseFromUnitMap(itUnit), 0);
                EXPECT_EQ(Manager().EraseFromInfoMap(itInfo), 0);
                EXPECT_EQ(Manager().InsertToUnitMap({UnitOf(sink), UnitOf(source)}), 0);
                EXPECT_EQ(
                    Manager().InsertToInfoMap({UnitOf(source), TEMessageInfo(&source, &adapter, &sink, 1)}),
                    0);
            }
            if (iThread == 0 && i % 16 == 0)
                timer.handle_timeout(ACE_Time_Value::zero, nullptr);
            EXPECT_EQ(Manager().UnRegisterSourceMessage(&source), 0);
            Manager().FindSrcMsgUnit(UnitOf(sink), bFound);
            EXPECT_FALSE(bFound);
        }
    });
}

// Registrations that ask for asynchronous I/O race the start of the manager: it is started, whoever comes
// first.
TEST_F(Stress, WishForAsyncIOIsNotLostBesideTheStart)
{
    static std::atomic<int> s_iStarts{0};
    const ManagerParts builtParts = g_ManagerParts;
    g_ManagerParts.pfnStartAsyncIO = [] { return ++s_iStarts > 0 ? 0 : -1; };
    for (int i = 0; i < StressRounds(2); ++i)
    {
        s_iStarts = 0;
        RunTogether(4, [&](int iThread) {
            const auto ulProtocolID = static_cast<std::uint32_t>(10 + iThread);
            const int iResult =
                iThread == 0
                    ? Manager().Init()
                    : Manager().RegisterProtocolAdapter(ulProtocolID, new TestAdapter(ulProtocolID), true);
            EXPECT_EQ(iResult, 0);
        });
        EXPECT_GT(s_iStarts, 0);
        TEAdapterManager::Destroy();
    }
    g_ManagerParts = builtParts;
}

// Adapters come and go under three ids while others look them up and frame with them: an adapter that was
// found stays usable, and all of them are deleted once, with the manager.
TEST_F(Stress, AdaptersAreRegisteredFoundAndUnregisteredTogether)
{
    std::atomic<int> iRegistered{0};
    std::atomic<int> iFramed{0};
    RunTogether(THREADS, [&](int iThread) {
        const auto ulProtocolID = static_cast<std::uint32_t>(10 + iThread % 3);
        std::vector<unsigned char> data = {1};
        for (int i = 0; i < StressRounds(300); ++i)
        {
            auto* pAdapter =
                new TestAdapter(ulProtocolID, [](void*, std::vector<unsigned char>&) { return 1; });
            if (Manager().RegisterProtocolAdapter(ulProtocolID, pAdapter, false) == 0)
                ++iRegistered;
            else
                delete pAdapter;
            iFramed += Manager().CheckMessageValid(nullptr, data, ulProtocolID);
            const TarnProtocolAdapter* pFound = Manager().GetProtocolAdapter(ulProtocolID);
            EXPECT_EQ(pFound != nullptr ? pFound->GetProtocolAdapterID() : ulProtocolID, ulProtocolID);
            Manager().UnRegisterProtocolAdapter(ulProtocolID);
        }
    });
    EXPECT_GT(iFramed, 0);
    EXPECT_EQ(TestAdapter::Alive(), iRegistered);
    TEAdapterManager::Destroy();
    EXPECT_EQ(TestAdapter::Alive(), 0);
}

// Threads that meet at the first use make one manager.
TEST_F(Stress, FirstUseFromManyThreadsMakesOneManager)
{
    for (int i = 0; i < StressRounds(200); ++i)
    {
        std::vector<TEAdapterManager*> seen(THREADS);
        RunTogether(THREADS, [&](int iThread) { seen[static_cast<std::size_t>(iThread)] = &Manager(); });
        for (const TEAdapterManager* pManager : seen)
            ASSERT_EQ(pManager, seen[0]);
        TEAdapterManager::Destroy();
    }
}

// A message's timeout is counted down by ticks while its users read and set it.
TEST_F(Stress, TimeoutIsSharedByTicksAndUsers)
{
    TestAdapter adapter(100);
    TestMessageAdapter msgAdapter;
    TestMessage message(&adapter, ASYNC_MESSAGE, 1'000'000'000);
    Manager().RegisterPrivateMessage(&message, &msgAdapter, nullptr, 60);
    RunTogether(THREADS, [&](int iThread) {
        TEMessageTimer timer;
        for (int i = 0; i < StressRounds(2000); ++i)
        {
            if (iThread == 0)
                timer.handle_timeout(ACE_Time_Value::zero, nullptr);
            else if (iThread % 2 == 0)
                message.SetTimeOut(1'000'000'000);
            else
                EXPECT_GT(message.GetTimeOut(), 0);
            message.SetType(iThread % 2 == 0 ? COMMAND_MESSAGE : RESPONSE_MESSAGE);
            EXPECT_NE(message.GetType(), 0);
        }
    });
    Manager().UnRegisterSourceMessage(&message);
}
