#ifndef TARN_TESTS_SUPPORT_TESTHOST_H
#define TARN_TESTS_SUPPORT_TESTHOST_H

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// A line as the library gave it to the host's log.
struct LogLine
{
    std::string strModule;
    int iLevel;
    std::string strText;
    bool bPrint;
    bool bLog;
};

/// A host process for tests: while one exists, the library's log, configuration and exit flag are the test's.
/// One at a time; its operations may be called from any thread.
class TestHost
{
public:
    TestHost();
    ~TestHost();
    TestHost(const TestHost&) = delete;
    TestHost& operator=(const TestHost&) = delete;

    void SetCfg(const std::string& strKey, const std::string& strValue);
    /// The keys that were looked up, in order.
    std::vector<std::string> LookedUpKeys() const;

    void SetAppExit(bool bExit);

    /// Runs a step of the test's, once, on the thread that next logs a line with this text: at a place inside the
    /// library where another thread might come in between. The library may hold locks there.
    void StepIn(const std::string& strText, std::function<void()> step);

    std::vector<LogLine> Lines() const;
    void ClearLines();
    /// How many lines have exactly this text and level.
    int Count(int iLevel, const std::string& strText) const;
    /// How many lines of this level contain the text.
    int CountContaining(int iLevel, const std::string& strText) const;
};

/// A test inside a TestHost; the adapter manager, if the test made one, is destroyed at its end. Settings and
/// the library's state are the process's: tests that look at their first values count on running in a process
/// of their own, as ctest runs them.
class HostTest : public ::testing::Test
{
protected:
    void TearDown() override;

    TestHost host;
};

/// Waits until the condition holds, looking every few milliseconds. False when the deadline came first, which
/// only a failure reaches.
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::seconds deadline = std::chrono::seconds(30));

/// Scales the rounds of a stress test by the environment variable TARN_STRESS_FACTOR (1 unless set).
int StressRounds(int iRounds);

#endif
