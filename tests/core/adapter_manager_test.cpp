#include "core/ManagerParts.h"
#include "core/TEMessageTimer.h"
#include "support/TestAdapters.h"
#include "support/TestHost.h"

#include <ace/Guard_T.h>
#include <ace/Object_Manager.h>

#include <atomic>
#include <stdexcept>
#include <thread>

namespace {

int g_iStarts = 0;
int g_iDestroys = 0;
int g_iStartResult = 0;

} // namespace

class AdapterManager : public HostTest
{
protected:
    void TearDown() override
    {
        HostTest::TearDown();
        g_ManagerParts = builtParts;
        EXPECT_EQ(TestAdapter::Alive(), 0);
    }

    const ManagerParts builtParts = g_ManagerParts;

    /// A stand-in for asynchronous I/O that counts what the manager asks of it.
    static void InstallAsyncIO(int iStartResult)
    {
        g_iStarts = 0;
        g_iDestroys = 0;
        g_iStartResult = iStartResult;
        g_ManagerParts.pfnStartAsyncIO = [] {
            ++g_iStarts;
            return g_iStartResult;
        };
        g_ManagerParts.pfnDestroyAsyncIO = [] { ++g_iDestroys; };
    }

    static TEAdapterManager& Manager() { return *TEAdapterManager::Instance(); }

    static int Frame(std::uint32_t ulProtocolID)
    {
        std::vector<unsigned char> data = {1, 2, 3};
        return Manager().CheckMessageValid(nullptr, data, ulProtocolID);
    }
};

TEST_F(AdapterManager, RegistrationRefusesNullAndIdZeroAndTakenIds)
{
    EXPECT_EQ(Manager().RegisterProtocolAdapter(0, nullptr, false), -1);
    EXPECT_EQ(host.Count(1, "TEAdapterManager::RegisterProtocolAdapter fail, input para pProtocolMgr=NULL\n"),
              1);
    EXPECT_EQ(host.Lines().size(), 1U);

    TestAdapter refused(5);
    EXPECT_EQ(Manager().RegisterProtocolAdapter(0, &refused, false), -1);
    EXPECT_EQ(host.Count(1, "TEAdapterManager::RegisterProtocolAdapter fail, input para ulProtocolID=0\n"),
              1);

    auto* pFirst = new TestAdapter(5);
    EXPECT_EQ(Manager().RegisterProtocolAdapter(5, pFirst, false), 0);
    EXPECT_EQ(Manager().RegisterProtocolAdapter(5, &refused, false), 1);
    EXPECT_EQ(host.Count(2, "RegisterProtocolAdapter, the protocol(ID=5) is already registed"), 1);
    EXPECT_EQ(Manager().GetProtocolAdapter(5), pFirst);

    // The refused adapter is still its caller's: destroying the manager leaves it alone.
    TEAdapterManager::Destroy();
    EXPECT_EQ(TestAdapter::Alive(), 1);
}

TEST_F(AdapterManager, UnregisteringTwiceFailsTheSecondTime)
{
    Manager().RegisterProtocolAdapter(5, new TestAdapter(5), false);
    EXPECT_EQ(Manager().UnRegisterProtocolAdapter(5), 0);
    EXPECT_EQ(Manager().UnRegisterProtocolAdapter(5), -1);
    EXPECT_EQ(host.Count(2, "UnRegisterProtocolAdapter(ID = 5) failed\n"), 1);
    EXPECT_EQ(Manager().GetProtocolAdapter(5), nullptr);
    EXPECT_EQ(host.Count(2, "GetProtocolAdapter(ID = 5) failed,ProtocolAdapter not registed\n"), 1);
    EXPECT_EQ(TestAdapter::Alive(), 1) << "kept until the manager goes";
}

TEST_F(AdapterManager, DestructionDeletesEveryAdapterOnceAndNamesTheRegisteredOnesInOrder)
{
    Manager().RegisterProtocolAdapter(9, new TestAdapter(9), false);
    Manager().RegisterProtocolAdapter(4294967295U, new TestAdapter(8), false);
    // Registered again after unregistering, so it stands in both maps.
    auto* pTwice = new TestAdapter(7);
    Manager().RegisterProtocolAdapter(7, pTwice, false);
    Manager().UnRegisterProtocolAdapter(7);
    Manager().RegisterProtocolAdapter(7, pTwice, false);
    // Under two ids.
    Manager().RegisterProtocolAdapter(6, pTwice, false);
    // Two adapters unregistered under the same id: the second finds its place taken.
    for (int i = 0; i < 2; ++i)
    {
        Manager().RegisterProtocolAdapter(5, new TestAdapter(5), false);
        Manager().UnRegisterProtocolAdapter(5);
    }
    EXPECT_EQ(TestAdapter::Alive(), 5);
    host.ClearLines();
    TEAdapterManager::Destroy();
    EXPECT_EQ(TestAdapter::Alive(), 0);

    std::vector<std::string> texts;
    for (const LogLine& line : host.Lines())
        texts.push_back(std::to_string(line.iLevel) + line.strText);
    EXPECT_EQ(texts, (std::vector<std::string>{"1while ~TEAdapterManager,protocol(ID=6) has not unregist",
                                               "1while ~TEAdapterManager,protocol(ID=7) has not unregist",
                                               "1while ~TEAdapterManager,protocol(ID=9) has not unregist",
                                               "1while ~TEAdapterManager,protocol(ID=-1) has not unregist",
                                               "3~TEAdapterManager success!\n"}));
}

TEST_F(AdapterManager, AdapterMayUseTheManagerWhileItIsDeletedWithIt)
{
    class Curious : public TestAdapter
    {
    public:
        Curious()
            : TestAdapter(5)
        {}
        ~Curious() override
        {
            EXPECT_NE(Manager().GetProtocolAdapter(6), nullptr);
            EXPECT_EQ(Manager().UnRegisterProtocolAdapter(6), 0);
        }
    };
    Manager().RegisterProtocolAdapter(5, new Curious, false);
    Manager().RegisterProtocolAdapter(6, new TestAdapter(6), false);
    TEAdapterManager::Destroy();
    EXPECT_EQ(TestAdapter::Alive(), 0);
}

TEST_F(AdapterManager, AnAdapterUnderTwoIdsLivesAsLongAsItCanBeFound)
{
    class Looking : public TestAdapter
    {
    public:
        Looking(std::uint32_t ulOwnId, std::uint32_t ulOtherId)
            : TestAdapter(ulOwnId)
            , m_ulOtherId(ulOtherId)
        {}
        ~Looking() override
        {
            TarnProtocolAdapter* pOther = Manager().GetProtocolAdapter(m_ulOtherId);
            EXPECT_TRUE(pOther != nullptr && pOther->GetProtocolAdapterID() == 5);
        }

    private:
        const std::uint32_t m_ulOtherId;
    };
    auto* pTwice = new TestAdapter(5);
    Manager().RegisterProtocolAdapter(5, pTwice, false);
    Manager().RegisterProtocolAdapter(7, new Looking(7, 9), false);
    Manager().RegisterProtocolAdapter(9, pTwice, false);
    TEAdapterManager::Destroy();
    EXPECT_EQ(TestAdapter::Alive(), 0);
}

TEST_F(AdapterManager, FramingDispatchMapsTheAdaptersResults)
{
    int iResult = 0;
    void* pSeenHandle = nullptr;
    Manager().RegisterProtocolAdapter(
        5,
        new TestAdapter(5,
                        [&](void* pHandle, std::vector<unsigned char>& data) {
                            pSeenHandle = pHandle;
                            EXPECT_EQ(data, (std::vector<unsigned char>{1, 2, 3}));
                            return iResult;
                        }),
        false);
    int iHandle = 0;
    std::vector<unsigned char> data = {1, 2, 3};
    iResult = 7;
    EXPECT_EQ(Manager().CheckMessageValid(&iHandle, data, 5), 7);
    EXPECT_EQ(pSeenHandle, &iHandle);
    iResult = 0;
    EXPECT_EQ(Frame(5), 0);
    EXPECT_TRUE(host.Lines().empty());
    for (const int iIncomplete : {-2, -3})
    {
        iResult = iIncomplete;
        EXPECT_EQ(Frame(5), 0);
        EXPECT_EQ(
            host.Count(2, "Attention! Message if valid but the count is not enough, data has not received "
                          "completely,count is " +
                              std::to_string(iIncomplete) + " \n"),
            1);
    }
    for (const int iInvalid : {-1, -4})
    {
        iResult = iInvalid;
        EXPECT_EQ(Frame(5), -1);
        EXPECT_EQ(host.Count(2, "Attention! Message not valid for protocol,count is " +
                                    std::to_string(iInvalid) + " \n"),
                  1);
    }

    EXPECT_EQ(Frame(77), 0);
    EXPECT_EQ(host.Count(1, "Attention! not find protocols(ID = 77) ! \n"), 1);

    host.SetAppExit(true);
    host.ClearLines();
    iResult = 3;
    EXPECT_EQ(Frame(5), 0);
    EXPECT_EQ(Frame(77), 0);
    EXPECT_TRUE(host.Lines().empty());
}

TEST_F(AdapterManager, FramingThatThrowsIsInvalidDataAndNamesTheClass)
{
    Manager().RegisterProtocolAdapter(
        5,
        new TestAdapter(
            5, [](void*, std::vector<unsigned char>&) -> int { throw std::runtime_error("bad frame"); }),
        false);
    EXPECT_EQ(Frame(5), -1);
    EXPECT_EQ(host.Count(1, "CheckMessageValid of TestAdapter, exception: bad frame\n"), 1);
}

TEST_F(AdapterManager, SecondInitReportsItself)
{
    EXPECT_EQ(Manager().Init(), 0);
    EXPECT_EQ(host.CountContaining(3, "TEAdapterManager Thread process timer eventLoop is 0x"), 1);
    EXPECT_EQ(Manager().Init(), 0);
    EXPECT_EQ(host.Count(2, "TEAdapterManager::Init ,Init again"), 1);
    EXPECT_EQ(host.CountContaining(3, "TEAdapterManager Thread process timer eventLoop is 0x"), 1);
}

TEST_F(AdapterManager, AsyncIOStartsWithTheFirstRegistrationThatAsksForIt)
{
    InstallAsyncIO(0);
    Manager().Init();
    Manager().RegisterProtocolAdapter(5, new TestAdapter(5), false);
    EXPECT_EQ(g_iStarts, 0);
    EXPECT_EQ(Manager().RegisterProtocolAdapter(6, new TestAdapter(6), true), 0);
    EXPECT_EQ(g_iStarts, 1);
    TEAdapterManager::Destroy();
    EXPECT_EQ(g_iDestroys, 1);
}

TEST_F(AdapterManager, AsyncIOAskedForBeforeTheStartComesWithIt)
{
    InstallAsyncIO(-1);
    EXPECT_EQ(Manager().RegisterProtocolAdapter(5, new TestAdapter(5), true), 0);
    EXPECT_EQ(g_iStarts, 0);
    EXPECT_EQ(Manager().Init(), 0) << "the result of the start is not the manager's";
    EXPECT_EQ(g_iStarts, 1);

    // The wish outlives the manager.
    TEAdapterManager::Destroy();
    EXPECT_EQ(Manager().Init(), 0);
    EXPECT_EQ(g_iStarts, 2);
}

TEST_F(AdapterManager, FailedStartOfAsyncIOUnregistersAgain)
{
    InstallAsyncIO(-1);
    Manager().Init();
    EXPECT_EQ(Manager().RegisterProtocolAdapter(5, new TestAdapter(5), true), -1);
    EXPECT_EQ(host.Count(1, "TEAdapterManager::RegisterProtocolAdapter fail to  start AsyncIO.\n"), 1);
    EXPECT_EQ(Manager().GetProtocolAdapter(5), nullptr);
    EXPECT_EQ(TestAdapter::Alive(), 1) << "the manager's from now on";
    EXPECT_EQ(Manager().RegisterProtocolAdapter(5, new TestAdapter(5), false), 0);
}

TEST_F(AdapterManager, LibraryWithoutAsyncIOSaysThatItCannotStartIt)
{
    g_ManagerParts.pfnStartAsyncIO = nullptr;
    Manager().Init();
    EXPECT_EQ(Manager().RegisterProtocolAdapter(5, new TestAdapter(5), true), -1);
    EXPECT_EQ(host.Count(1, "TEAdapterManager::RegisterProtocolAdapter fail to  start AsyncIO.\n"), 1);
    EXPECT_EQ(host.Count(1, "TEAdapterManager, the library is built without asynchronous I/O\n"), 1);
}

TEST_F(AdapterManager, DestructionStopsAsyncIOThenEmptiesTheMapsThenDeletesTheAdapters)
{
    static std::vector<std::string> s_Seen;
    static const auto s_Look = [](const char* pszWho) {
        bool bFound = false;
        Manager().FindSrcMsgInfo({1, 5}, bFound);
        s_Seen.push_back(std::string(pszWho) + (bFound ? ", record there" : ", no record"));
    };
    class Watching : public TestAdapter
    {
    public:
        Watching(std::uint32_t ulProtocolID, const char* pszWho)
            : TestAdapter(ulProtocolID)
            , m_pszWho(pszWho)
        {}
        ~Watching() override { s_Look(m_pszWho); }

    private:
        const char* const m_pszWho;
    };
    s_Seen.clear();
    InstallAsyncIO(0);
    g_ManagerParts.pfnDestroyAsyncIO = [] { s_Look("async I/O"); };
    Manager().Init();
    TestAdapter sourceAdapter(5);
    TestMessage source(&sourceAdapter);
    TestMessageAdapter msgAdapter;
    Manager().RegisterPrivateMessage(&source, &msgAdapter, nullptr, 60);
    Manager().RegisterProtocolAdapter(6, new Watching(6, "retired"), false);
    Manager().UnRegisterProtocolAdapter(6);
    Manager().RegisterProtocolAdapter(7, new Watching(7, "registered"), false);
    TEAdapterManager::Destroy();
    EXPECT_EQ(s_Seen, (std::vector<std::string>{"async I/O, record there", "registered, no record",
                                                "retired, no record"}));
    EXPECT_EQ(sourceAdapter.Alive(), 1);
}

TEST_F(AdapterManager, StopWaitsForATickUnderWayAndRefusesWhatThatWantsToStart)
{
    InstallAsyncIO(0);
    // The real start takes this lock, which the stop holds while it waits.
    g_ManagerParts.pfnStartAsyncIO = [] {
        ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, *ACE_Static_Object_Lock::instance(), -1);
        return 0;
    };
    Manager().Init();
    TestAdapter sourceAdapter(5);
    TestMessageAdapter msgAdapter;
    std::atomic<bool> bInside{false};
    std::atomic<bool> bTickDone{false};
    msgAdapter.onError = [&](TEMessage*, void*, EAdapterError) {
        bInside = true;
        std::uint32_t ulProtocolID = 10;
        EXPECT_TRUE(WaitUntil([&] {
            ++ulProtocolID;
            return Manager().RegisterProtocolAdapter(ulProtocolID, new TestAdapter(ulProtocolID), true) == -1;
        }));
        bTickDone = true;
    };
    Manager().RegisterPrivateMessage(new TestMessage(&sourceAdapter, ASYNC_MESSAGE, 0), &msgAdapter, nullptr,
                                     0);
    std::thread ticker([] { TEMessageTimer().handle_timeout(ACE_Time_Value::zero, nullptr); });
    EXPECT_TRUE(WaitUntil([&] { return bInside.load(); }));
    TEAdapterManager::Destroy();
    EXPECT_TRUE(bTickDone);
    ticker.join();
    EXPECT_EQ(sourceAdapter.Alive(), 1) << "all the others are gone with the manager";
}

TEST_F(AdapterManager, ManagerThatWasNotStartedStopsNoAsyncIO)
{
    InstallAsyncIO(0);
    Manager();
    TEAdapterManager::Destroy();
    EXPECT_EQ(g_iDestroys, 0);
}

TEST_F(AdapterManager, BuiltInAdapterIsRegisteredUnderIdOneAndOutlivesTheManager)
{
    static TestAdapter* s_pBuiltIn = nullptr;
    TestAdapter builtIn(1);
    s_pBuiltIn = &builtIn;
    g_ManagerParts.pfnBuiltInAdapter = []() -> TarnProtocolAdapter* { return s_pBuiltIn; };
    for (int i = 0; i < 2; ++i)
    {
        EXPECT_EQ(Manager().GetProtocolAdapter(1), &builtIn);
        TEAdapterManager::Destroy();
        EXPECT_EQ(TestAdapter::Alive(), 1);
    }
    EXPECT_EQ(host.CountContaining(1, "has not unregist"), 0);
    EXPECT_EQ(host.CountContaining(2, "UnRegisterProtocolAdapter"), 0);
    // The check after the test counts this one.
    TEAdapterManager::Destroy();
    EXPECT_EQ(TestAdapter::Alive(), 1);
}

TEST_F(AdapterManager, RegistrarsFillTheListsAtTheStart)
{
    static std::vector<TEMessageAdapter*> s_lstFirst;
    static std::vector<TEMessageAdapter*> s_lstSecond;
    TestMessageAdapter one;
    TestMessageAdapter two;
    s_lstFirst = {nullptr, nullptr, nullptr};
    const TEInitMessageAdapter a(&s_lstFirst, &one);
    const TEInitMessageAdapter b(&s_lstFirst, &two);
    const TEInitMessageAdapter c(&s_lstFirst, &one);
    const TEInitMessageAdapter d(&s_lstSecond, &two);
    const TEInitMessageAdapter noList(nullptr, nullptr);
    const TEInitMessageAdapter noAdapter(&s_lstSecond, nullptr);
    EXPECT_EQ(host.Count(1, "TEInitMessageAdapter fail, input para pMsgAdapterList=null"), 1);
    EXPECT_EQ(host.Count(1, "TEInitMessageAdapter fail, input para MsgAdapter=null"), 1);
    EXPECT_TRUE(s_lstSecond.empty()) << "not before the start";

    Manager().Init();
    EXPECT_EQ(s_lstFirst, (std::vector<TEMessageAdapter*>{&one, &two, &one}));
    EXPECT_EQ(s_lstSecond, (std::vector<TEMessageAdapter*>{&two}));

    const TEInitMessageAdapter late(&s_lstSecond, &one);
    EXPECT_EQ(s_lstSecond.size(), 1U);
    TEAdapterManager::Destroy();
    Manager().Init();
    EXPECT_EQ(s_lstSecond, (std::vector<TEMessageAdapter*>{&two, &one}));
}
