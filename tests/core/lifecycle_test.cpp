#include "core/Settings.h"
#include "support/DescriptorHog.h"
#include "support/TestAdapters.h"
#include "support/TestHost.h"
#include "support/Threads.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <thread>

namespace {

constexpr char INIT_AGAIN[] = "tarnadapter::Init ,Init again.\n";
constexpr char FINI_AGAIN[] = "tarnadapter::Fini ,Fini again";
constexpr char INIT_FALSE[] = "TEAdapterManager::Init ,Init false.\n";
constexpr char NO_REACTOR[] = "TEAdapterManager::Init ,failed to new ACE_Reactor";

} // namespace

class Lifecycle : public HostTest
{
protected:
    void TearDown() override { tarnadapter::Fini(); }

    bool Flagged(const char* pszText) const
    {
        for (const LogLine& line : host.Lines())
        {
            if (line.strText == pszText && line.iLevel == 2 && line.bPrint && !line.bLog)
                return true;
        }
        return false;
    }
};

TEST_F(Lifecycle, EmptyConfigurationKeepsEveryDefault)
{
    ASSERT_EQ(tarnadapter::Init(), 0);
    const TarnSettings& settings = Settings();
    EXPECT_EQ(settings.nAppProcessRpgMsgLimit, 1000);
    EXPECT_EQ(settings.nAppProcessThreadNum, 4);
    EXPECT_EQ(settings.nAsyncIOThreadNum, 4);
    EXPECT_EQ(settings.nConnectThreadNum, 10);
    EXPECT_EQ(settings.nRecordTarnConnectorImplRefInfo, 0);
    EXPECT_EQ(settings.nConnectSleep, 10);
    EXPECT_EQ(settings.nAppProcessRptMsgThreadNum, 1);
    EXPECT_TRUE(settings.bEnableAdapterLog);
    EXPECT_FALSE(settings.bEnableAdapterPrint);
    EXPECT_FALSE(settings.bEnableSerialCom);
    EXPECT_EQ(settings.nTraceQxDataMaxLength, 100);
    EXPECT_STREQ(settings.TP4DevicePath, "/dev/cots");
    EXPECT_FALSE(settings.bNoNeReconnect);
    EXPECT_EQ(settings.nNECmdTimeoutRate, 1.0F);
    EXPECT_EQ(host.CountContaining(3, "nNECmdTimeoutRate"), 0);
}

TEST_F(Lifecycle, SettingsAreReadInOrderFromTheDefaultFile)
{
    host.SetCfg("nAppProcessRpgMsgLimit", "1");
    host.SetCfg("nAppProcessThreadNum", "2");
    host.SetCfg("nAsyncIOThreadNum", "3");
    host.SetCfg("nConnectThreadNum", "-4");
    host.SetCfg("nRecordTarnConnectorImplRefInfo", "5");
    host.SetCfg("nConnectSleep", "6");
    host.SetCfg("nAppProcessRptMsgThreadNum", "7");
    host.SetCfg("bEnableAdapterLog", "0");
    host.SetCfg("bEnableAdapterPrint", "-1");
    host.SetCfg("bEnableSerialCom", "9");
    host.SetCfg("nTraceQxDataMaxLength", "10");
    host.SetCfg("TP4DevicePath", std::string(150, 'a') + std::string(50, 'b'));
    host.SetCfg("bNoNeReconnect", "1");
    host.SetCfg("nNECmdTimeoutRate", "2");
    ASSERT_EQ(tarnadapter::Init(), 0);

    const TarnSettings& settings = Settings();
    EXPECT_EQ(settings.nAppProcessRpgMsgLimit, 1);
    EXPECT_EQ(settings.nAppProcessThreadNum, 2);
    EXPECT_EQ(settings.nAsyncIOThreadNum, 3);
    EXPECT_EQ(settings.nConnectThreadNum, -4);
    EXPECT_EQ(settings.nRecordTarnConnectorImplRefInfo, 5);
    EXPECT_EQ(settings.nConnectSleep, 6);
    EXPECT_EQ(settings.nAppProcessRptMsgThreadNum, 7);
    EXPECT_FALSE(settings.bEnableAdapterLog);
    EXPECT_TRUE(settings.bEnableAdapterPrint);
    EXPECT_TRUE(settings.bEnableSerialCom);
    EXPECT_EQ(settings.nTraceQxDataMaxLength, 10);
    EXPECT_EQ(settings.TP4DevicePath, std::string(127, 'a'));
    EXPECT_TRUE(settings.bNoNeReconnect);
    EXPECT_EQ(settings.nNECmdTimeoutRate, 0.5F);
    EXPECT_EQ(host.Count(3, "nNECmdTimeoutRate=0.500000\n"), 1);
    EXPECT_EQ(host.LookedUpKeys(),
              (std::vector<std::string>{"nAppProcessRpgMsgLimit", "nAppProcessThreadNum", "nAsyncIOThreadNum",
                                        "nConnectThreadNum", "nRecordTarnConnectorImplRefInfo",
                                        "nConnectSleep", "nAppProcessRptMsgThreadNum", "bEnableAdapterLog",
                                        "bEnableAdapterPrint", "bEnableSerialCom", "nTraceQxDataMaxLength",
                                        "TP4DevicePath", "bNoNeReconnect", "nNECmdTimeoutRate"}));
}

TEST_F(Lifecycle, UnreadableValueKeepsTheSetting)
{
    host.SetCfg("nConnectSleep", "7");
    host.SetCfg("nNECmdTimeoutRate", "0");
    ReadSettings();
    EXPECT_EQ(Settings().nNECmdTimeoutRate, 0.0F);
    EXPECT_EQ(host.Count(3, "nNECmdTimeoutRate=0.000000\n"), 1);

    host.SetCfg("nConnectSleep", "soon");
    ReadSettings();
    EXPECT_EQ(Settings().nConnectSleep, 7);
}

TEST_F(Lifecycle, SecondInitReportsItselfAndReadsNothing)
{
    host.SetCfg("nConnectSleep", "3");
    ASSERT_EQ(tarnadapter::Init(), 0);
    host.SetCfg("nConnectSleep", "4");
    EXPECT_EQ(tarnadapter::Init(), 0);
    EXPECT_EQ(Settings().nConnectSleep, 3);
    EXPECT_TRUE(Flagged(INIT_AGAIN));

    tarnadapter::Fini();
    EXPECT_FALSE(Flagged(FINI_AGAIN));
    const auto before = host.Lines().size();
    tarnadapter::Fini();
    EXPECT_TRUE(Flagged(FINI_AGAIN));
    EXPECT_EQ(host.Lines().size(), before + 1);

    ASSERT_EQ(tarnadapter::Init(), 0);
    EXPECT_EQ(Settings().nConnectSleep, 4);
}

TEST_F(Lifecycle, FiniBeforeAnyInitStops)
{
    tarnadapter::Fini();
    EXPECT_TRUE(host.Lines().empty());
    tarnadapter::Fini();
    EXPECT_TRUE(Flagged(FINI_AGAIN));
    EXPECT_EQ(tarnadapter::Init(), 0);
}

TEST_F(Lifecycle, StartAndStopAgainAndAgainLeaveNothingBehind)
{
    // Once before counting: the first use may leave helpers of ACE and the sanitizers.
    ASSERT_EQ(tarnadapter::Init(), 0);
    const std::size_t nRunning = Threads().size();
    tarnadapter::Fini();
    host.ClearLines();
    ASSERT_TRUE(WaitUntil([&] { return Threads().size() < nRunning; })) << "the kernel lists its thread on";
    const auto threads = Threads();
    const int iDescriptors = DescriptorCount();
    const int iRounds = StressRounds(4);
    for (int i = 0; i < iRounds; ++i)
    {
        ASSERT_EQ(tarnadapter::Init(), 0);
        EXPECT_EQ(TEAdapterManager::Instance()->RegisterProtocolAdapter(5, new TestAdapter(5), false), 0);
        EXPECT_EQ(Threads().size(), threads.size() + 1);
        tarnadapter::Fini();
        EXPECT_EQ(TestAdapter::Alive(), 0);
        EXPECT_EQ(DescriptorCount(), iDescriptors);
        EXPECT_TRUE(WaitUntil([&] { return Threads() == threads; }));
    }
    EXPECT_EQ(host.Count(3, "~TEAdapterManager success!\n"), iRounds);
    EXPECT_EQ(host.CountContaining(3, "TEAdapterManager Quit Thread process eventLoop is 0x"), iRounds);
}

TEST_F(Lifecycle, TimerThreadTakesNoSignalButTheInterrupt)
{
    // Once before: sanitizers start a thread of theirs with the first one of a process.
    std::thread([] {}).join();
    const auto before = Threads();
    ASSERT_EQ(tarnadapter::Init(), 0);
    int iTimerThread = 0;
    for (const int iThread : Threads())
        iTimerThread = before.count(iThread) == 0 ? iThread : iTimerThread;
    ASSERT_NE(iTimerThread, 0);
    // It counts itself before it blocks them.
    EXPECT_TRUE(WaitUntil([&] { return ThreadBlocks(iTimerThread, SIGUSR1); }));
    EXPECT_TRUE(ThreadBlocks(iTimerThread, SIGPIPE));
    EXPECT_TRUE(ThreadBlocks(iTimerThread, SIGTERM));
    EXPECT_FALSE(ThreadBlocks(iTimerThread, SIGINT));
}

TEST_F(Lifecycle, WaitingForTheTimerThreadIsShownOnConsoleAndLog)
{
    ASSERT_EQ(tarnadapter::Init(), 0);
    tarnadapter::Fini();
    for (const LogLine& line : host.Lines())
    {
        const bool bWaiting = line.strText == "~TEAdapterManager,waiting for thread to quit\n";
        EXPECT_TRUE(!bWaiting || (line.iLevel == 3 && line.bPrint && line.bLog));
    }
    EXPECT_EQ(host.Count(3, "~TEAdapterManager success!\n"), 1);
}

TEST_F(Lifecycle, InitFailsClearlyWhenDescriptorNumbersAreTooHighAndSucceedsLater)
{
    {
        const DescriptorHog hog(1100);
        ASSERT_GE(hog.Highest(), 1024) << "the machine's limit of open files is too low for this test";
        EXPECT_EQ(tarnadapter::Init(), -1);
        EXPECT_EQ(host.Count(0, NO_REACTOR), 1);
        EXPECT_TRUE(Flagged(INIT_FALSE));
        EXPECT_EQ(tarnadapter::Init(), -1);
    }
    EXPECT_EQ(tarnadapter::Init(), 0);
    EXPECT_FALSE(Flagged(INIT_AGAIN));
}

TEST_F(Lifecycle, FailedStartIsCleanedUpByFini)
{
    // Before the first start, and after a stop, where Fini also says that it is a repeated one.
    for (const bool bRepeated : {false, true})
    {
        {
            const DescriptorHog hog(1100);
            EXPECT_EQ(tarnadapter::Init(), -1);
            EXPECT_EQ(TEAdapterManager::Instance()->RegisterProtocolAdapter(5, new TestAdapter(5), false), 0);
        }
        host.ClearLines();
        tarnadapter::Fini();
        EXPECT_EQ(TestAdapter::Alive(), 0);
        EXPECT_EQ(host.Count(3, "~TEAdapterManager success!\n"), 1);
        EXPECT_EQ(Flagged(FINI_AGAIN), bRepeated);
    }
}

// Sanitizers need address space of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(Lifecycle, ThreadThatCannotBeSpawnedFailsTheStartAndLeavesNothing)
{
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    long lPages = 0;
    std::ifstream("/proc/self/statm") >> lPages;
    rlimit tight = before;
    // Room for the reactor, but not for a thread's stack of 8 MiB.
    tight.rlim_cur = static_cast<rlim_t>(lPages * sysconf(_SC_PAGESIZE)) + (4U << 20U);
    const int iDescriptors = DescriptorCount();
    ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    const int iResult = tarnadapter::Init();
    ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);

    EXPECT_EQ(iResult, -1);
    EXPECT_EQ(host.Count(1, "TEAdapterManager::Init,failed to spawn thread, which is to handle timer events"),
              1);
    EXPECT_TRUE(Flagged(INIT_FALSE));
    EXPECT_EQ(DescriptorCount(), iDescriptors);
    EXPECT_EQ(tarnadapter::Init(), 0);
}
#endif
