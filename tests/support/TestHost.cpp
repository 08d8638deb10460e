#include "support/TestHost.h"

#include "tarnadapterframe/TEAdapterManager.h"
#include "tarnadapterframe/tarnbaseutil.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>
#include <thread>

namespace {

struct State
{
    std::mutex mutex;
    std::vector<LogLine> lines;
    std::map<std::string, std::string> cfg;
    std::vector<std::string> keys;
    std::vector<std::pair<std::string, std::function<void()>>> steps;
    std::atomic<bool> bAppExit{false};
};

State& TheState()
{
    static State state;
    return state;
}

bool TakeLine(const std::string& strModule, TarnLogLevel eLevel, const char* pszText,
              const AsnType* pAsnValue, bool bPrint, bool bLog)
{
    EXPECT_EQ(pAsnValue, nullptr);
    State& state = TheState();
    std::function<void()> step;
    {
        const std::lock_guard<std::mutex> guard(state.mutex);
        state.lines.push_back({strModule, eLevel, pszText, bPrint, bLog});
        const auto it = std::find_if(state.steps.begin(), state.steps.end(), [&](const auto& each) {
            return state.lines.back().strText.find(each.first) != std::string::npos;
        });
        if (it != state.steps.end())
        {
            step = std::move(it->second);
            state.steps.erase(it);
        }
    }
    if (step)
        step();
    return true;
}

bool LookUpCfg(const char* pszKey, std::string& strValue, const char* pszFile)
{
    EXPECT_EQ(pszFile, TarnGetDefaultCfgFile());
    State& state = TheState();
    const std::lock_guard<std::mutex> guard(state.mutex);
    state.keys.emplace_back(pszKey);
    const auto it = state.cfg.find(pszKey);
    if (it == state.cfg.end())
        return false;
    strValue = it->second;
    return true;
}

bool AppIsExit()
{
    return TheState().bAppExit;
}

int CountIf(const std::function<bool(const LogLine&)>& matches)
{
    State& state = TheState();
    const std::lock_guard<std::mutex> guard(state.mutex);
    return static_cast<int>(std::count_if(state.lines.begin(), state.lines.end(), matches));
}

} // namespace

TestHost::TestHost()
{
    State& state = TheState();
    state.lines.clear();
    state.cfg.clear();
    state.keys.clear();
    state.steps.clear();
    state.bAppExit = false;
    TarnInstallLogSink(&TakeLine);
    TarnInstallCfgLookup(&LookUpCfg);
    TarnInstallAppExit(&AppIsExit);
}

TestHost::~TestHost()
{
    TarnInstallLogSink(nullptr);
    TarnInstallCfgLookup(nullptr);
    TarnInstallAppExit(nullptr);
}

void TestHost::SetCfg(const std::string& strKey, const std::string& strValue)
{
    const std::lock_guard<std::mutex> guard(TheState().mutex);
    TheState().cfg[strKey] = strValue;
}

std::vector<std::string> TestHost::LookedUpKeys() const
{
    const std::lock_guard<std::mutex> guard(TheState().mutex);
    return TheState().keys;
}

void TestHost::SetAppExit(bool bExit)
{
    TheState().bAppExit = bExit;
}

void TestHost::StepIn(const std::string& strText, std::function<void()> step)
{
    const std::lock_guard<std::mutex> guard(TheState().mutex);
    TheState().steps.emplace_back(strText, std::move(step));
}

std::vector<LogLine> TestHost::Lines() const
{
    const std::lock_guard<std::mutex> guard(TheState().mutex);
    return TheState().lines;
}

void TestHost::ClearLines()
{
    const std::lock_guard<std::mutex> guard(TheState().mutex);
    TheState().lines.clear();
}

int TestHost::Count(int iLevel, const std::string& strText) const
{
    return CountIf([&](const LogLine& line) { return line.iLevel == iLevel && line.strText == strText; });
}

int TestHost::CountContaining(int iLevel, const std::string& strText) const
{
    return CountIf([&](const LogLine& line) {
        return line.iLevel == iLevel && line.strText.find(strText) != std::string::npos;
    });
}

void HostTest::TearDown()
{
    TEAdapterManager::Destroy();
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::seconds deadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

int StressRounds(int iRounds)
{
    const char* pszFactor = std::getenv("TARN_STRESS_FACTOR");
    return pszFactor != nullptr ? iRounds * std::max(1, std::atoi(pszFactor)) : iRounds;
}
