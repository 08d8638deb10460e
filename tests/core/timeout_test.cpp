#include "core/LogArguments.h"
#include "core/TEMessageTimer.h"
#include "support/TestAdapters.h"
#include "support/TestHost.h"

#include <chrono>
#include <cstdio>
#include <future>
#include <limits>

/// The manager is not started here, so the only ticks are the test's.
class Timeouts : public HostTest
{
protected:
    static TEAdapterManager& Manager() { return *TEAdapterManager::Instance(); }

    void Tick(int iTicks = 1)
    {
        for (int i = 0; i < iTicks; ++i)
            EXPECT_EQ(timer.handle_timeout(ACE_Time_Value::zero, nullptr), 0);
    }

    TestMessage* NewSource(int nTimeOut, EMessageSyncFlag eSyncFlag = ASYNC_MESSAGE)
    {
        auto* pSource = new TestMessage(&one, eSyncFlag, nTimeOut);
        Manager().RegisterPrivateMessage(pSource, &adapter, nullptr, 1000);
        return pSource;
    }

    TEMessageTimer timer;
    TestAdapter one{1};
    TestAdapter three{3};
    TestMessageAdapter adapter;
};

TEST_F(Timeouts, SourceExpiresAtTheTickThatTakesItBelowZero)
{
    // timeout -> the tick that reports it
    const std::vector<std::pair<int, int>> expected = {
        {std::numeric_limits<int>::min(), 1}, {-1, 1}, {0, 1}, {3, 1}, {5, 2}, {60, 13}};
    for (const auto& [nTimeOut, iTick] : expected)
    {
        int iReported = 0;
        int nLeft = 0;
        adapter.onError = [&](TEMessage* pSource, void*, EAdapterError eError) {
            ++iReported;
            nLeft = pSource->GetTimeOut();
            EXPECT_EQ(eError, ADAPTER_ERR_TIMEOUT);
        };
        const TestMessage* pSource = NewSource(nTimeOut);
        Tick(iTick - 1);
        EXPECT_EQ(iReported, 0) << nTimeOut;
        EXPECT_EQ(pSource->GetTimeOut(), nTimeOut - 5 * (iTick - 1)) << nTimeOut;
        Tick();
        EXPECT_EQ(iReported, 1) << nTimeOut;
        EXPECT_LT(nLeft, 0);
        Tick();
        EXPECT_EQ(iReported, 1) << nTimeOut;
    }
    EXPECT_EQ(TestMessage::Alive(), 0);
}

TEST_F(Timeouts, RecordShowsTheRemainingTime)
{
    TestMessage* pSource = NewSource(60);
    Tick(2);
    bool bFound = false;
    EXPECT_EQ(Manager().FindSrcMsgInfo(UnitOf(*pSource), bFound)->second.nTimeOut, 50);
    pSource->SetTimeOut(4);
    Tick();
    EXPECT_EQ(TestMessage::Alive(), 0) << "the message's own time governs";
}

TEST_F(Timeouts, MessagesWhoseSenderWaitsAreNotTimedHere)
{
    TestMessage* pSync = NewSource(0, SYNC_MESSAGE);
    TestMessage* pList = NewSource(0, PSYNC_MESSAGE);
    Tick(3);
    EXPECT_EQ(pSync->GetTimeOut(), 0);
    Manager().UnRegisterSourceMessage(pSync);
    Manager().UnRegisterSourceMessage(pList);
    delete pSync;
    delete pList;
}

TEST_F(Timeouts, ExpiryRemovesTheRecordAndItsSinksBeforeItReports)
{
    TestMessage a(&three);
    TestMessage b(&three);
    auto* pSource = new TestMessage(&one, ASYNC_MESSAGE, 0);
    auto* pUserData = new TestUserData;
    Manager().RegisterPrivateMessage(pSource, &adapter, static_cast<TEMsgUserData*>(pUserData), 1);
    Manager().RegisterMessage(pSource, &a);
    Manager().RegisterMessage(pSource, &b);
    // The record owns a message, and one sink has lost its link.
    bool bFound = false;
    Manager().FindSrcMsgInfo(UnitOf(*pSource), bFound)->second.pOwnedMsg = new TestMessage;
    Manager().EraseFromUnitMap(Manager().FindSrcMsgUnit(UnitOf(b), bFound));

    char szLine[100];
    std::snprintf(szLine, sizeof(szLine), "HandleTimeOut() del TestMessage[0x%x]\n", Low32(pSource));
    const TEMessageUnit unit = UnitOf(*pSource);
    int iReported = 0;
    adapter.onError = [&](TEMessage* pExpired, void* pExpiredData, EAdapterError) {
        ++iReported;
        EXPECT_EQ(pExpired, pSource);
        EXPECT_EQ(pExpiredData, static_cast<TEMsgUserData*>(pUserData));
        // No lock is held: another thread can call every operation meanwhile.
        auto other = std::async(std::launch::async, [] {
            Manager().AcquireMsgMapMtx();
            Manager().ReleaseMsgMapMtx();
        });
        EXPECT_EQ(other.wait_for(std::chrono::seconds(30)), std::future_status::ready);
        Manager().FindSrcMsgInfo(unit, bFound);
        EXPECT_FALSE(bFound);
        Manager().FindSrcMsgUnit(UnitOf(a), bFound);
        EXPECT_FALSE(bFound);
        EXPECT_EQ(Manager().UnRegisterSourceMessage(pExpired), 0);
    };
    Tick();
    EXPECT_EQ(iReported, 1);
    EXPECT_EQ(host.Count(2, szLine), 1);
    EXPECT_EQ(host.Count(2, "TEAdapterManager::HandleTimeOut, not found sink message in map.\n"), 1);
    EXPECT_EQ(TestMessage::Alive(), 2) << "the two sinks of the test";
    EXPECT_EQ(TestUserData::Alive(), 0);
}

TEST_F(Timeouts, OwnedMessageMayChangeTheMapsWhenItIsDeletedWithItsRecord)
{
    bool bFound = false;
    // The record that follows the expiring one disappears with it, and the record's own unit is asked for
    // again.
    auto* pFirst = NewSource(0);
    auto* pOwned = new UnregisteringMessage(&one, ASYNC_MESSAGE, 0);
    Manager().RegisterPrivateMessage(pOwned, &adapter, nullptr, 0);
    auto* pLast = NewSource(0);
    Manager().FindSrcMsgInfo(UnitOf(*pFirst), bFound)->second.pOwnedMsg = pOwned;
    Manager().FindSrcMsgInfo(UnitOf(*pLast), bFound)->second.pOwnedMsg = new UnregisteringMessage(*pOwned);
    Tick();
    EXPECT_EQ(TestMessage::Alive(), 0);

    // The same when a source is unregistered and when the manager is destroyed.
    TestMessage source(&one);
    for (const bool bDestroy : {false, true})
    {
        Manager().RegisterPrivateMessage(&source, &adapter, nullptr, 60);
        auto* pOther = new UnregisteringMessage(&one);
        Manager().RegisterPrivateMessage(pOther, &adapter, nullptr, 60);
        Manager().FindSrcMsgInfo(UnitOf(source), bFound)->second.pOwnedMsg = pOther;
        bDestroy ? TEAdapterManager::Destroy()
                 : static_cast<void>(Manager().UnRegisterSourceMessage(&source));
        EXPECT_EQ(TestMessage::Alive(), 1);
    }
}

TEST_F(Timeouts, SourceMayUnregisterItselfWhenItIsAskedForItsSyncFlag)
{
    class Leaving : public TestMessage
    {
    public:
        using TestMessage::TestMessage;
        EMessageSyncFlag GetSyncFlag() override
        {
            Manager().UnRegisterSourceMessage(this);
            return ASYNC_MESSAGE;
        }
    };
    Leaving leaving(&one, ASYNC_MESSAGE, 0);
    Manager().RegisterPrivateMessage(&leaving, &adapter, nullptr, 0);
    NewSource(0);
    int iReported = 0;
    adapter.onError = [&](const TEMessage* pSource, void*, EAdapterError) {
        ++iReported;
        EXPECT_NE(pSource, &leaving);
    };
    Tick();
    EXPECT_EQ(iReported, 1);
    EXPECT_EQ(TestMessage::Alive(), 1);
}

TEST_F(Timeouts, ExpiredSourcesAreReportedInUnitOrder)
{
    std::vector<TEMessageUnit> reported;
    adapter.onError = [&](TEMessage* pSource, void*, EAdapterError) { reported.push_back(UnitOf(*pSource)); };
    for (TestAdapter* pAdapter : {&three, &one, &three, &one})
        Manager().RegisterPrivateMessage(new TestMessage(pAdapter, ASYNC_MESSAGE, 0), &adapter, nullptr, 0);
    Tick();
    EXPECT_EQ(reported, (std::vector<TEMessageUnit>{{1, 1}, {2, 1}, {1, 3}, {2, 3}}));
}

TEST_F(Timeouts, RecordWithoutMessageAdapterExpiresAndReportsToNobody)
{
    TestMessage source(&one, ASYNC_MESSAGE, 0);
    TestMessage sink(&three);
    Manager().RegisterMessage(&source, &sink);
    Tick();
    EXPECT_EQ(host.CountContaining(2, "HandleTimeOut() del TestMessage"), 1);
    EXPECT_EQ(TestMessage::Alive(), 2);
    host.ClearLines();
    Tick();
    EXPECT_TRUE(host.Lines().empty()) << "the record is gone";
}

TEST_F(Timeouts, RecordWithoutSourceStaysWithAWarning)
{
    Manager().InsertToInfoMap({TEMessageUnit(1, 1), TEMessageInfo()});
    Tick(2);
    EXPECT_EQ(host.Count(1, "TEAdapterManager::HandleTimeOut, warning, pSrcMessage=NULL! \n "), 2);
}

TEST_F(Timeouts, NothingChangesWhileTheApplicationIsExiting)
{
    const TestMessage* pSource = NewSource(0);
    host.SetAppExit(true);
    Tick(3);
    EXPECT_EQ(pSource->GetTimeOut(), 0);
    host.SetAppExit(false);
    Tick();
    EXPECT_EQ(TestMessage::Alive(), 0);
}

TEST_F(Timeouts, AdapterThatThrowsHoldsUpNobody)
{
    int iReported = 0;
    adapter.onError = [&](TEMessage* pSource, void*, EAdapterError) {
        if (++iReported == 1)
        {
            delete pSource;
            throw std::runtime_error("no");
        }
    };
    NewSource(0);
    NewSource(0);
    Tick();
    EXPECT_EQ(iReported, 2);
    EXPECT_EQ(TestMessage::Alive(), 0);
    EXPECT_EQ(host.Count(1, "HandleAsyncError of TestMessageAdapter, exception: no\n"), 1);
}

TEST_F(Timeouts, MessageThatThrowsHoldsUpNobody)
{
    class Troubled : public TestMessage
    {
    public:
        explicit Troubled(TarnProtocolAdapter* pAdapter)
            : TestMessage(pAdapter, ASYNC_MESSAGE, 0)
        {}
        TarnAdapterRuntimeClass* GetRuntimeClass() const override { throw 1; }
    };
    Manager().RegisterPrivateMessage(new Troubled(&one), &adapter, nullptr, 0);
    NewSource(0);
    Tick();
    EXPECT_EQ(TestMessage::Alive(), 0);
    EXPECT_EQ(host.CountContaining(2, "HandleTimeOut() del (no class name)["), 1);
    EXPECT_EQ(host.CountContaining(2, "HandleTimeOut() del TestMessage["), 1);
}

TEST_F(Timeouts, StartedManagerTicksByItself)
{
    ASSERT_EQ(tarnadapter::Init(), 0);
    NewSource(0);
    EXPECT_TRUE(WaitUntil([] { return TestMessage::Alive() == 0; }));
    tarnadapter::Fini();
}
