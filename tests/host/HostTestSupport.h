#ifndef TARN_TESTS_HOST_HOSTTESTSUPPORT_H
#define TARN_TESTS_HOST_HOSTTESTSUPPORT_H

#include "tarnadapterframe/tarnbaseutil.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// What a test waits for at most. Only a failure gets there.
constexpr std::chrono::seconds DEADLINE{60};

/// A folder of the test's own, removed with everything in it.
class TempFolder
{
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string Path(const std::string& strName) const { return m_strPath + "/" + strName; }

private:
    std::string m_strPath;
};

void WriteText(const std::string& strPath, const std::string& strText);
std::string ReadText(const std::string& strPath); ///< empty when there is no such file
std::vector<std::string> LinesOf(const std::string& strText);
std::size_t CountOf(const std::string& strText, const std::string& strPart);

/// Asks again and again, with naps, until it is so or DEADLINE has passed.
bool Eventually(const std::function<bool()>& isSo);

/// Makes strText the process's configuration file, in folder, and has the log follow it.
void Configure(const TempFolder& folder, const std::string& strText);

/// One line as an installed log sink gets it.
struct LoggedLine
{
    std::string strModule;
    int iLevel;
    std::string strText;
    const AsnType* pAsnValue;
    bool bPrint;
    bool bLog;
};

/// Receives all lines while it lives.
class LogRecorder
{
public:
    LogRecorder();
    ~LogRecorder();
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    std::vector<LoggedLine> Take(); ///< what has come since the last call
};

/// How a run of this test program in a process of its own ended.
struct ChildResult
{
    int iExitStatus = -1; ///< -1: killed, or it did not end in time
    std::string strStderr;
    std::chrono::steady_clock::duration duration{};
};

/// Runs one test case of this program, usually a disabled one, in a process of its own, with more variables
/// in its environment ("NAME=value").
ChildResult RunInChild(const std::string& strTest, const TempFolder& folder,
                       const std::vector<std::string>& environment);

#endif
