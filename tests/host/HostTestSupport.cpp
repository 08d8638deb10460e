#include "HostTestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::mutex g_RecordMutex;
std::vector<LoggedLine> g_Recorded; // guarded by g_RecordMutex

bool Record(const std::string& strModule, TarnLogLevel eLevel, const char* pszText, const AsnType* pAsnValue,
            bool bPrint, bool bLog)
{
    const std::lock_guard<std::mutex> lock(g_RecordMutex);
    g_Recorded.push_back({strModule, eLevel, pszText, pAsnValue, bPrint, bLog});
    return true;
}

} // namespace

TempFolder::TempFolder()
{
    std::string strTemplate = (std::filesystem::temp_directory_path() / "tarnhost-XXXXXX").string();
    if (mkdtemp(strTemplate.data()) == nullptr)
        ADD_FAILURE() << "no folder " << strTemplate;
    m_strPath = strTemplate;
}

TempFolder::~TempFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_strPath, ignored);
}

void WriteText(const std::string& strPath, const std::string& strText)
{
    std::ofstream file(strPath, std::ios::binary | std::ios::trunc);
    file << strText;
    file.close();
    ASSERT_TRUE(file.good()) << strPath;
}

std::string ReadText(const std::string& strPath)
{
    std::ostringstream text;
    text << std::ifstream(strPath, std::ios::binary).rdbuf();
    return text.str();
}

std::vector<std::string> LinesOf(const std::string& strText)
{
    std::vector<std::string> lines;
    std::istringstream text(strText);
    for (std::string strLine; std::getline(text, strLine);)
        lines.push_back(strLine);
    return lines;
}

std::size_t CountOf(const std::string& strText, const std::string& strPart)
{
    std::size_t uCount = 0;
    for (std::size_t uAt = strText.find(strPart); uAt != std::string::npos;
         uAt = strText.find(strPart, uAt + strPart.size()))
        ++uCount;
    return uCount;
}

bool Eventually(const std::function<bool()>& isSo)
{
    const auto tEnd = std::chrono::steady_clock::now() + DEADLINE;
    while (!isSo())
    {
        if (std::chrono::steady_clock::now() > tEnd)
            return false;
        poll(nullptr, 0, 2);
    }
    return true;
}

void Configure(const TempFolder& folder, const std::string& strText)
{
    WriteText(folder.Path("host.ini"), strText);
    setenv("TARN_CFG_FILE", folder.Path("host.ini").c_str(), 1);
    TarnDebugMgr::Instance()->Reopen();
}

LogRecorder::LogRecorder()
{
    Take();
    TarnInstallLogSink(&Record);
}

LogRecorder::~LogRecorder()
{
    TarnInstallLogSink(nullptr);
}

std::vector<LoggedLine> LogRecorder::Take()
{
    const std::lock_guard<std::mutex> lock(g_RecordMutex);
    return std::move(g_Recorded);
}

ChildResult RunInChild(const std::string& strTest, const TempFolder& folder,
                       const std::vector<std::string>& environment)
{
    const std::string strErrors = folder.Path("child.stderr");
    std::vector<std::string> texts = {"/proc/self/exe", "--gtest_also_run_disabled_tests",
                                      "--gtest_filter=" + strTest};
    const std::size_t uArguments = texts.size();
    for (char** ppszVariable = environ; *ppszVariable != nullptr; ++ppszVariable)
        if (std::string(*ppszVariable).rfind("GTEST_", 0) != 0)
            texts.emplace_back(*ppszVariable);
    texts.insert(texts.end(), environment.begin(), environment.end());
    std::vector<char*> arguments;
    std::vector<char*> variables;
    for (std::size_t u = 0; u < texts.size(); ++u)
        (u < uArguments ? arguments : variables).push_back(texts[u].data());
    arguments.push_back(nullptr);
    variables.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, strErrors.c_str(), O_CREAT | O_TRUNC | O_WRONLY,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const auto tStart = std::chrono::steady_clock::now();
    pid_t child = -1;
    const int iError =
        posix_spawn(&child, "/proc/self/exe", &actions, nullptr, arguments.data(), variables.data());
    posix_spawn_file_actions_destroy(&actions);
    EXPECT_EQ(iError, 0);
    if (iError != 0)
        return {};

    int iStatus = 0;
    const bool bEnded = Eventually([&] { return waitpid(child, &iStatus, WNOHANG) == child; });
    ChildResult result;
    result.duration = std::chrono::steady_clock::now() - tStart;
    if (!bEnded)
    {
        kill(child, SIGKILL);
        waitpid(child, &iStatus, 0);
    }
    else if (WIFEXITED(iStatus))
        result.iExitStatus = WEXITSTATUS(iStatus);
    result.strStderr = ReadText(strErrors);
    return result;
}
