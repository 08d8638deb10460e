#include "HostTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <map>
#include <poll.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

const int FLUSH_MS = 60000;

bool Trace(TarnLogLevel eLevel, const std::string& strText, bool bPrint = false, bool bLog = false)
{
    return TarnDebugMgr::Instance()->Trace("TAG", eLevel, strText.c_str(), nullptr, bPrint, bLog);
}

void Flush()
{
    ASSERT_TRUE(TarnDebugMgr::Instance()->Flush(FLUSH_MS));
}

/// Catches what this process writes to stderr while body runs, the log flushed at its end.
template <class Body>
std::string StderrOf(Body&& body)
{
    testing::internal::CaptureStderr();
    body();
    const bool bFlushed = TarnDebugMgr::Instance()->Flush(FLUSH_MS);
    const std::string strText = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(bFlushed);
    return strText;
}

/// The sum of the numbers in all reports of dropped lines.
std::uint64_t DropsReportedIn(const std::string& strText)
{
    const std::string strBefore = "tarnbaseutil ERROR ";
    std::uint64_t uSum = 0;
    for (const std::string& strLine : LinesOf(strText))
    {
        const std::size_t uAt = strLine.find(strBefore);
        if (uAt == std::string::npos)
            continue;
        char* pszRest = nullptr;
        const std::uint64_t uDrops = std::strtoull(strLine.c_str() + uAt + strBefore.size(), &pszRest, 10);
        uSum += std::string(pszRest) == " log lines were dropped" ? uDrops : 0;
    }
    return uSum;
}

class Log : public testing::Test
{
protected:
    void SetUp() override { UseFile(""); }

    /// Leaves the log without a file, or it would be opened again in the folder that goes away.
    void TearDown() override
    {
        Configure(m_Folder, "");
        unsetenv("TARN_CFG_FILE");
    }

    void UseFile(const std::string& strMore)
    {
        Configure(m_Folder, "[log]\nfile=" + m_strFile + "\n" + strMore);
    }

    std::string Written()
    {
        Flush();
        return ReadText(m_strFile);
    }

    TempFolder m_Folder;
    const std::string m_strFile = m_Folder.Path("host.log");
};

struct RouteCase
{
    TarnLogLevel eLevel;
    bool bPrint;
    bool bLog;
    bool bInFile;
    bool bOnStderr;
};

TEST_F(Log, LevelAndFlagsDecideWhereALineGoes)
{
    const RouteCase cases[] = {
        {TARN_LOG_RESOURCE, false, false, true, false}, {TARN_LOG_WARNING, false, false, true, false},
        {TARN_LOG_INFO, false, false, false, false},    {TARN_LOG_INFO, true, false, false, true},
        {TARN_LOG_INFO, false, true, true, false},      {TARN_LOG_INFO, true, true, true, true},
        {TARN_LOG_ERROR, true, false, true, true},
    };
    int i = 0;
    for (const RouteCase& route : cases)
    {
        const std::string strText = "route " + std::to_string(i++);
        bool bTaken = false;
        const std::string strStderr =
            StderrOf([&] { bTaken = Trace(route.eLevel, strText, route.bPrint, route.bLog); });
        EXPECT_EQ(bTaken, route.bInFile || route.bOnStderr) << strText;
        EXPECT_EQ(CountOf(ReadText(m_strFile), strText), route.bInFile ? 1U : 0U) << strText;
        EXPECT_EQ(CountOf(strStderr, strText), route.bOnStderr ? 1U : 0U) << strText;
    }
}

TEST_F(Log, SettingsOfLevelAndConsoleApply)
{
    UseFile("level=3\nconsole=1\n");
    EXPECT_EQ(CountOf(StderrOf([] { EXPECT_TRUE(Trace(TARN_LOG_INFO, "both", true, false)); }), "both"), 1U);
    UseFile("level=0\n");
    EXPECT_FALSE(Trace(TARN_LOG_ERROR, "kept out"));
    EXPECT_FALSE(TarnDebugMgr::Instance()->Trace("TAG", TARN_LOG_ERROR, nullptr, nullptr, true, true));
    EXPECT_EQ(CountOf(Written(), "both"), 1U);
    EXPECT_EQ(CountOf(Written(), "kept out"), 0U);
}

TEST_F(Log, WithoutAFileStderrShowsEachLineOnce)
{
    Configure(m_Folder, "[log]\nconsole=1\n");
    const std::string strStderr = StderrOf([] { Trace(TARN_LOG_ERROR, "once", true, true); });
    EXPECT_EQ(CountOf(strStderr, "once"), 1U) << strStderr;
}

TEST_F(Log, BadSettingsAreReportedAndDefaultsApply)
{
    UseFile("level=9\nconsole=yes\nrotate_size_kb=-1\nrotate_files=0\n");
    EXPECT_TRUE(Trace(TARN_LOG_WARNING, "by default"));
    EXPECT_FALSE(Trace(TARN_LOG_INFO, "kept out"));
    const std::string strIni = m_Folder.Path("host.ini");
    const std::string strLog = Written();
    for (const char* pszReport : {":3: level = 9 is not 0 to 3, taken as not set\n",
                                  ":4: console = yes is no number, taken as not set\n",
                                  ":5: rotate_size_kb = -1 is below 0, taken as not set\n",
                                  ":6: rotate_files = 0 is not 1 to 200, taken as not set\n"})
        EXPECT_EQ(CountOf(strLog, "tarnbaseutil WARNING " + strIni + pszReport), 1U) << strLog;
}

TEST_F(Log, ALineHasTimeThreadTagLevelAndText)
{
    const std::time_t tBefore = std::time(nullptr);
    Trace(TARN_LOG_ERROR, "first\nsecond\n\n");
    Trace(TARN_LOG_RESOURCE, "plain");
    const std::string strLog = Written();
    const std::string strThread = std::to_string(syscall(SYS_gettid));
    std::tm local = {};
    const char* pszFraction = strptime(strLog.c_str(), "%Y-%m-%d %H:%M:%S.", &local);
    ASSERT_NE(pszFraction, nullptr) << strLog;
    char* pszRest = nullptr;
    std::strtoul(pszFraction, &pszRest, 10);
    EXPECT_EQ(pszRest - pszFraction, 6) << strLog;
    const std::string strFirst = " [" + strThread + "] TAG ERROR first\nsecond\n\n";
    EXPECT_EQ(std::string(pszRest).substr(0, strFirst.size()), strFirst);
    const std::string strSecond = " [" + strThread + "] TAG RESOURCE plain\n";
    EXPECT_EQ(strLog.substr(strLog.size() - strSecond.size()), strSecond);
    EXPECT_EQ(CountOf(strLog, "\n"), 4U);
    local.tm_isdst = -1;
    EXPECT_GE(std::mktime(&local), tBefore);
    EXPECT_LE(std::mktime(&local), std::time(nullptr) + 1); // time(2) may be some milliseconds behind
}

TEST_F(Log, ControlCharactersAreEscaped)
{
    const std::string strText = "tab\t cr\r esc\x1B[31m bell\a del\x7F csi\xC2\x9B"
                                "2J \xC3\xA4 \xE2\x82\xAC";
    TarnDebugMgr::Instance()->Trace("T\x1BG", TARN_LOG_ERROR, strText.c_str(), nullptr, false, false);
    EXPECT_NE(Written().find(" T\\x1BG ERROR tab\t cr\r esc\\x1B[31m bell\\x07 del\\x7F csi\\xC2\\x9B"
                             "2J \xC3\xA4 \xE2\x82\xAC\n"),
              std::string::npos)
        << Written();
}

TEST_F(Log, ThreadsLoseAndDoubleNothing)
{
    std::vector<std::thread> threads;
    for (int iThread = 0; iThread < 8; ++iThread)
        threads.emplace_back([iThread] {
            for (int i = 0; i < 700; ++i)
                EXPECT_TRUE(Trace(TARN_LOG_WARNING, "line " + std::to_string(iThread * 1000 + i) + "."));
        });
    for (std::thread& thread : threads)
        thread.join();
    std::map<std::string, int> seen;
    for (const std::string& strLine : LinesOf(Written()))
        ++seen[strLine.substr(strLine.find("line "))];
    EXPECT_EQ(seen.size(), 8U * 700U);
    for (const auto& [strLine, iCount] : seen)
        EXPECT_EQ(iCount, 1) << strLine;
}

TEST_F(Log, ReopenFollowsAMovedFile)
{
    Trace(TARN_LOG_ERROR, "to the old one");
    Flush();
    fs::rename(m_strFile, m_strFile + ".moved");
    Trace(TARN_LOG_ERROR, "to the moved one");
    Flush();
    TarnDebugMgr::Instance()->Reopen();
    Trace(TARN_LOG_ERROR, "to the new one");
    EXPECT_EQ(CountOf(Written(), "to the new one"), 1U);
    EXPECT_EQ(CountOf(Written(), "\n"), 1U);
    EXPECT_EQ(CountOf(ReadText(m_strFile + ".moved"), "\n"), 2U);
}

TEST_F(Log, AFullFileIsRotated)
{
    UseFile("rotate_size_kb=1\nrotate_files=2\n");
    for (int i = 0; i < 100; ++i)
        Trace(TARN_LOG_ERROR, "line " + std::to_string(i) + std::string(60, '.'));
    const std::string strNewest = Written();
    EXPECT_EQ(CountOf(strNewest, "line 99."), 1U);
    std::size_t uKept = 0;
    for (const char* pszName : {"host.log", "host.1.log", "host.2.log"})
    {
        ASSERT_TRUE(fs::exists(m_Folder.Path(pszName))) << pszName;
        EXPECT_LE(fs::file_size(m_Folder.Path(pszName)), 1024U) << pszName;
        uKept += CountOf(ReadText(m_Folder.Path(pszName)), "\n");
    }
    EXPECT_FALSE(fs::exists(m_Folder.Path("host.3.log")));
    EXPECT_EQ(CountOf(ReadText(m_Folder.Path("host.2.log")), "line " + std::to_string(100 - uKept) + "."),
              1U);
}

TEST_F(Log, AFileInAFolderThatIsNotWritableGrowsAndSaysSo)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root may write everywhere";
    const std::string strFolder = m_Folder.Path("fixed");
    fs::create_directory(strFolder);
    WriteText(strFolder + "/host.log", "");
    fs::permissions(strFolder, fs::perms::owner_read | fs::perms::owner_exec);
    Configure(m_Folder, "[log]\nrotate_size_kb=1\nfile=" + strFolder + "/host.log\n");
    for (int i = 0; i < 100; ++i)
        Trace(TARN_LOG_ERROR, "line " + std::to_string(i) + std::string(60, '.'));
    Flush();
    const std::string strLog = ReadText(strFolder + "/host.log");
    EXPECT_EQ(CountOf(strLog, " TAG ERROR line "), 100U);
    EXPECT_EQ(CountOf(strLog, "tarnbaseutil ERROR The log file grows without bound"), 1U);
    fs::permissions(strFolder, fs::perms::owner_all);
}

TEST_F(Log, AFileThatCannotBeRenamedLosesNothing)
{
    fs::create_directories(m_Folder.Path("host.2.log") + "/in the way");
    UseFile("rotate_size_kb=1\nrotate_files=2\n");
    const auto logLines = [](int iFrom) {
        for (int i = iFrom; i < iFrom + 100; ++i)
            Trace(TARN_LOG_ERROR, "line " + std::to_string(i) + "." + std::string(60, '.'));
    };
    logLines(0);
    Flush();
    const std::string strLog = ReadText(m_strFile) + ReadText(m_Folder.Path("host.1.log"));
    EXPECT_EQ(CountOf(strLog, " TAG ERROR line "), 100U);
    EXPECT_EQ(CountOf(strLog, "tarnbaseutil ERROR The log file grows without bound"), 1U);
    fs::remove_all(m_Folder.Path("host.2.log"));
    logLines(100);
    Flush();
    EXPECT_TRUE(fs::is_regular_file(m_Folder.Path("host.2.log"))); // it goes on when it can
}

TEST_F(Log, AFileThatCannotBeOpenedIsReportedAndTriedAgain)
{
    const std::string strFolder = m_Folder.Path("blocked");
    const std::string strFile = strFolder + "/host.log";
    WriteText(strFolder, "a file where the log's folder should be");
    Configure(m_Folder, "[log]\nfile=" + strFile + "\n");
    const std::string strStderr = StderrOf([] {
        Trace(TARN_LOG_ERROR, "meanwhile 1");
        Trace(TARN_LOG_ERROR, "meanwhile 2");
    });
    EXPECT_EQ(CountOf(strStderr, "tarnbaseutil: log file " + strFile + " cannot be written"), 1U)
        << strStderr;
    EXPECT_EQ(CountOf(strStderr, "meanwhile"), 2U) << strStderr;

    fs::remove(strFolder);
    int iAstray = 2;
    const std::string strRest = StderrOf([&] {
        EXPECT_TRUE(Eventually([&] {
            Trace(TARN_LOG_ERROR, "attempt");
            Flush();
            iAstray += fs::exists(strFile) ? 0 : 1;
            return fs::exists(strFile);
        }));
    });
    EXPECT_EQ(CountOf(strRest, "cannot be written"), 0U);
    const std::string strExpected = "ERROR The log file works again, " + std::to_string(iAstray) + " lines ";
    EXPECT_EQ(CountOf(ReadText(strFile), strExpected), 1U) << ReadText(strFile);
    EXPECT_EQ(CountOf(ReadText(strFile), "attempt"), 1U);
}

TEST_F(Log, LinesThatAFullDiskRefusesGoToStderr)
{
    Configure(m_Folder, "[log]\nfile=/dev/full\nrotate_size_kb=0\n");
    const std::string strStderr = StderrOf([] {
        for (int i = 0; i < 200; ++i)
            Trace(TARN_LOG_WARNING, "line " + std::to_string(i) + ".");
    });
    for (int i = 0; i < 200; ++i)
        EXPECT_GE(CountOf(strStderr, "line " + std::to_string(i) + "."), 1U) << i;
    EXPECT_EQ(CountOf(strStderr, "cannot be written"), 1U);
}

/// Reads a named pipe until a line is in it, or nothing comes for too long.
std::string DrainUntil(const std::string& strPipe, const std::string& strLast)
{
    std::string strText;
    const int iFd = open(strPipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_TRUE(Eventually([&] {
        char buffer[4096];
        ssize_t iRead = 0;
        while ((iRead = read(iFd, buffer, sizeof buffer)) > 0)
            strText.append(buffer, static_cast<std::size_t>(iRead));
        return strText.find(strLast) != std::string::npos;
    }));
    close(iFd);
    return strText;
}

TEST_F(Log, AStalledDiskHoldsNobodyAndEveryLineIsWrittenOrCounted)
{
    const int iInfos = 4 * 5000;
    const int iErrors = 4 * 1000;
    ASSERT_EQ(mkfifo(m_strFile.c_str(), 0600), 0);
    UseFile("level=3\nrotate_size_kb=0\n");
    std::atomic<int> iTaken{0};
    auto callers = std::async(std::launch::async, [&] {
        std::vector<std::thread> threads;
        for (int iThread = 0; iThread < 4; ++iThread)
            threads.emplace_back([&] {
                for (int i = 0; i < iInfos / 4; ++i)
                    iTaken += Trace(TARN_LOG_INFO, "an information\n") ? 1 : 0;
                for (int i = 0; i < iErrors / 4; ++i)
                    iTaken += Trace(TARN_LOG_ERROR, "an error\n") ? 1 : 0;
            });
        for (std::thread& thread : threads)
            thread.join();
    });
    EXPECT_EQ(callers.wait_for(DEADLINE), std::future_status::ready);
    EXPECT_FALSE(TarnDebugMgr::Instance()->Flush(20)); // nothing has moved while they logged

    auto log = std::async(std::launch::async, [&] { return DrainUntil(m_strFile, "ERROR the last one\n"); });
    callers.wait();
    Trace(TARN_LOG_ERROR, "the last one\n");
    const std::string strLog = log.get();
    const auto uInfos = static_cast<int>(CountOf(strLog, "TAG INFO an information\n"));
    const auto uErrors = static_cast<int>(CountOf(strLog, "TAG ERROR an error\n"));
    EXPECT_EQ(uErrors, iErrors); // information went first
    EXPECT_LT(iTaken, iInfos + iErrors);
    EXPECT_GE(iTaken, uInfos + uErrors);
    EXPECT_EQ(uInfos + uErrors + static_cast<int>(DropsReportedIn(strLog)), iInfos + iErrors);
}

TEST_F(Log, DropsAreReportedExactlyWhileLinesKeepComing)
{
    UseFile("level=3\n");
    std::atomic<std::uint64_t> uTaken{0};
    std::vector<std::thread> threads;
    for (int iThread = 0; iThread < 4; ++iThread)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i)
                uTaken += Trace(TARN_LOG_INFO, "flood\n") ? 1 : 0;
        });
    for (std::thread& thread : threads)
        thread.join();
    // Without another line: the last report comes by itself.
    std::string strLog;
    EXPECT_TRUE(Eventually([&] {
        strLog = Written();
        return CountOf(strLog, "TAG INFO flood\n") + DropsReportedIn(strLog) >= 80000;
    }));
    EXPECT_EQ(CountOf(strLog, "TAG INFO flood\n"), uTaken);
    EXPECT_EQ(CountOf(strLog, "TAG INFO flood\n") + DropsReportedIn(strLog), 80000U);
}

TEST_F(Log, TheLogThreadTakesNoSignals)
{
    Trace(TARN_LOG_ERROR, "start");
    Flush();
    int iLogThreads = 0;
    for (const fs::directory_entry& task : fs::directory_iterator("/proc/self/task"))
        if (ReadText(task.path() / "comm") == "tarnlog\n")
        {
            ++iLogThreads;
            const std::string strStatus = ReadText(task.path() / "status");
            // All but SIGKILL and SIGSTOP, and the two that the C library keeps for itself.
            EXPECT_NE(strStatus.find("SigBlk:\tfffffffe7ffbfeff"), std::string::npos) << strStatus;
        }
    EXPECT_EQ(iLogThreads, 1);
}

#if !defined(__SANITIZE_THREAD__) // it lets no thread start in the child of a process with threads
/// Runs body in a forked child, which then ends as processes do. @return the child's exit status, -1 if it hung
template <class Body>
int ForkAndRun(Body&& body)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(body() ? 0 : 1);
    int iStatus = -1;
    const bool bEnded = Eventually([&] { return waitpid(child, &iStatus, WNOHANG) == child; });
    if (!bEnded)
    {
        kill(child, SIGKILL);
        waitpid(child, &iStatus, 0);
    }
    return bEnded && WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
}

TEST_F(Log, AForkedChildHasALogOfItsOwn)
{
    Trace(TARN_LOG_WARNING, "in the parent");
    EXPECT_EQ(ForkAndRun([] {
                  const bool bTaken = Trace(TARN_LOG_ERROR, "in the child");
                  fflush(nullptr); // as its exit would: nothing of the parent's may be in a buffer
                  return bTaken && TarnDebugMgr::Instance()->Flush(FLUSH_MS);
              }),
              0);
    Trace(TARN_LOG_ERROR, "still in the parent");
    EXPECT_EQ(CountOf(Written(), "in the parent"), 2U);
    EXPECT_EQ(CountOf(Written(), "in the child"), 1U);
    // The child's thread is another one, also where it continues one that has logged before.
    EXPECT_EQ(CountOf(Written(), "[" + std::to_string(syscall(SYS_gettid)) + "] TAG"), 2U);
}

#if !defined(__SANITIZE_ADDRESS__) // whose allocator's locks stay closed in the child
TEST_F(Log, AForkedChildLogsWhateverTheParentsThreadsWereDoing)
{
    std::atomic<bool> bStop{false};
    std::thread busy([&] {
        for (int i = 0; !bStop; ++i)
        {
            int iValue = 0;
            Trace(TARN_LOG_WARNING, "line " + std::to_string(i) + ".");
            WriteText(m_Folder.Path("looked_up.ini"), "[tarnadapter]\nkey=1\n");
            TarnGetCfgInt("key", iValue, m_Folder.Path("looked_up.ini").c_str());
            if (i % 16 == 0)
                TarnDebugMgr::Instance()->Reopen();
        }
    });
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(ForkAndRun([&] {
                      int iValue = 0;
                      TarnGetCfgInt("key", iValue, m_Folder.Path("looked_up.ini").c_str());
                      return Trace(TARN_LOG_ERROR, "child " + std::to_string(i) + ".") &&
                             TarnDebugMgr::Instance()->Flush(FLUSH_MS);
                  }),
                  0);
    bStop = true;
    busy.join();
    const std::string strLog = Written();
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(CountOf(strLog, " child " + std::to_string(i) + "."), 1U) << i;
    EXPECT_EQ(CountOf(strLog, " line 0."), 1U);
}
#endif
#endif

bool ThrowingSink(const std::string&, TarnLogLevel, const char*, const AsnType*, bool, bool)
{
    throw std::runtime_error("the host's own trouble");
}

TEST_F(Log, AnInstalledSinkGetsEveryLineUnchanged)
{
    {
        LogRecorder recorder;
        TarnDebugMgr::Instance()->Trace("A\x1B", TARN_LOG_INFO, "x\x1B\n\n", nullptr, false, false);
        const auto* pAsn = reinterpret_cast<const AsnType*>(&recorder);
        TarnDebugMgr::Instance()->Trace("B", static_cast<TarnLogLevel>(7), "", pAsn, true, true);
        const std::vector<LoggedLine> lines = recorder.Take();
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[0].strModule, "A\x1B");
        EXPECT_EQ(lines[0].iLevel, 3);
        EXPECT_EQ(lines[0].strText, "x\x1B\n\n");
        EXPECT_EQ(lines[0].pAsnValue, nullptr);
        EXPECT_FALSE(lines[0].bPrint || lines[0].bLog);
        EXPECT_EQ(lines[1].iLevel, 7);
        EXPECT_EQ(lines[1].pAsnValue, pAsn);
        EXPECT_TRUE(lines[1].bPrint && lines[1].bLog);
    }
    EXPECT_EQ(TarnInstallLogSink(&ThrowingSink), nullptr);
    EXPECT_NO_THROW(EXPECT_FALSE(Trace(TARN_LOG_ERROR, "thrown away")));
    EXPECT_EQ(TarnInstallLogSink(nullptr), &ThrowingSink);
    Trace(TARN_LOG_ERROR, "after the sink");
    EXPECT_EQ(CountOf(Written(), "\n"), 1U);
    EXPECT_EQ(CountOf(Written(), "after the sink"), 1U);
}

// ---------------------------------------------------------------------------------------------------------
// Processes that log outside of main, or end in a special way. The parent runs the disabled cases.

/// Logs as this program's statics are made and destroyed, when a variable asks for it.
struct LogsOutsideMain
{
    LogsOutsideMain()
    {
        if (getenv("TARN_TEST_EARLY") != nullptr)
            Trace(TARN_LOG_ERROR, "before main");
    }
    ~LogsOutsideMain()
    {
        if (getenv("TARN_TEST_LATER") != nullptr) // when what the log may be waited for would be over
            poll(nullptr, 0, 2500);
        if (getenv("TARN_TEST_LATE") != nullptr)
            for (int i = 0; i < 20; ++i)
                Trace(TARN_LOG_ERROR, "after main " + std::to_string(i) + ".");
    }
} g_LogsOutsideMain;

TEST(LogChild, DISABLED_LogsInMain)
{
    Trace(TARN_LOG_WARNING, "in main");
}

TEST(LogChild, DISABLED_LogsAndLeavesAtOnce)
{
    for (int i = 0; i < 1000; ++i)
        Trace(TARN_LOG_WARNING, "line " + std::to_string(i) + ".");
    exit(0);
}

TEST(LogChild, DISABLED_LogsMuchAndLeaves)
{
    for (int i = 0; i < 4000; ++i)
        Trace(TARN_LOG_INFO, "line " + std::to_string(i) + std::string(200, '.'));
    exit(0);
}

class LogProcess : public testing::Test
{
protected:
    ChildResult Run(const std::string& strTest, const std::string& strSettings,
                    std::vector<std::string> more = {})
    {
        WriteText(m_Folder.Path("child.ini"), strSettings);
        more.push_back("TARN_CFG_FILE=" + m_Folder.Path("child.ini"));
        return RunInChild("LogChild.DISABLED_" + strTest, m_Folder, more);
    }

    TempFolder m_Folder;
    const std::string m_strFile = m_Folder.Path("child.log");
};

TEST_F(LogProcess, LinesOutsideMainReachTheFile)
{
    for (const char* pszEarly : {"TARN_TEST_EARLY=1", "TARN_TEST_LATER=1"})
    {
        fs::remove(m_strFile);
        const ChildResult result =
            Run("LogsInMain", "[log]\nfile=" + m_strFile + "\n", {pszEarly, "TARN_TEST_LATE=1"});
        EXPECT_EQ(result.iExitStatus, 0) << result.strStderr;
        EXPECT_EQ(result.strStderr, "");
        const std::string strLog = ReadText(m_strFile);
        EXPECT_EQ(CountOf(strLog, "before main"), std::string(pszEarly) == "TARN_TEST_EARLY=1" ? 1U : 0U);
        EXPECT_EQ(CountOf(strLog, "in main"), 1U);
        EXPECT_EQ(CountOf(strLog, "after main"), 20U);
    }
}

TEST_F(LogProcess, ExitWritesWhatIsQueued)
{
    const ChildResult result = Run("LogsAndLeavesAtOnce", "[log]\nfile=" + m_strFile + "\n");
    EXPECT_EQ(result.iExitStatus, 0) << result.strStderr;
    EXPECT_EQ(CountOf(ReadText(m_strFile), " TAG WARNING line "), 1000U);
}

TEST_F(LogProcess, AStalledDiskDoesNotHoldTheExit)
{
    ASSERT_EQ(mkfifo(m_strFile.c_str(), 0600), 0);
    const ChildResult result =
        Run("LogsAndLeavesAtOnce", "[log]\nfile=" + m_strFile + "\n", {"TARN_TEST_LATE=1"});
    EXPECT_EQ(result.iExitStatus, 0) << result.strStderr;
    EXPECT_LT(result.duration, std::chrono::seconds(20)); // two of them waiting, the rest a slow machine's
    EXPECT_EQ(CountOf(result.strStderr, "tarnbaseutil: the log stands still, about "), 1U)
        << result.strStderr;
}

/// The reader takes a page every 100 ms, too little to finish: each late line could wait for its turn.
TEST_F(LogProcess, ASlowDiskHoldsTheExitOnce)
{
    ASSERT_EQ(mkfifo(m_strFile.c_str(), 0600), 0);
    std::atomic<bool> bStop{false};
    const int iFd = open(m_strFile.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC); // which never blocks on a pipe
    std::thread reader([&] {
        char page[4096];
        while (!bStop && read(iFd, page, sizeof page) != 0)
            poll(nullptr, 0, 100);
    });
    const ChildResult result =
        Run("LogsMuchAndLeaves", "[log]\nlevel=3\nfile=" + m_strFile + "\nrotate_size_kb=0\n",
            {"TARN_TEST_LATE=1"});
    bStop = true;
    reader.join();
    close(iFd);
    EXPECT_EQ(result.iExitStatus, 0) << result.strStderr;
    EXPECT_LT(result.duration, std::chrono::seconds(12)); // twenty late lines of two seconds would be forty
}

TEST_F(LogProcess, TroubleInTheSettingsIsReportedByTheLogThatTheyStart)
{
    const std::string strIni = m_Folder.Path("child.ini");
    const ChildResult result = Run("LogsInMain", "[log]\nwords\nlevel=much\n");
    EXPECT_EQ(result.iExitStatus, 0);
    EXPECT_EQ(LinesOf(result.strStderr).size(), 3U) << result.strStderr;
    EXPECT_EQ(CountOf(result.strStderr,
                      " tarnbaseutil WARNING " + strIni + ":2: Equal sign is missing, left out\n"),
              1U);
    EXPECT_EQ(CountOf(result.strStderr, " tarnbaseutil WARNING " + strIni +
                                            ":3: level = much is no number, taken as not set\n"),
              1U);
    EXPECT_EQ(CountOf(result.strStderr, " TAG WARNING in main\n"), 1U);
}

} // namespace
