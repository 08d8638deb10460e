#include "tarnadapterframe/tarnbaseutil.h"

#include "InstalledFunction.h"
#include "LogBackend.h"
#include "LogText.h"

namespace {

InstalledFunction<bool, const std::string&, TarnLogLevel, const char*, const AsnType*, bool, bool> g_LogSink;

/// The last resort, where the log's thread cannot be started. The caller waits for stderr.
bool TraceToStderr(const std::string& strModule, TarnLogLevel eLevel, const char* pszText,
                   bool bFlagged) noexcept
{
    if (eLevel > TARN_LOG_WARNING && !bFlagged)
        return false;
    try
    {
        return WriteToStderr(Printable(strModule) + ' ' + LevelWord(eLevel) + ' ' +
                             Printable(WithoutLineFeed(pszText)) + '\n');
    }
    catch (...)
    {
        return WriteToStderr(pszText);
    }
}

bool TraceToBackend(const std::string& strModule, TarnLogLevel eLevel, const char* pszText, bool bPrint,
                    bool bLog) noexcept
{
    try
    {
        return LogBackend::Instance().Post(strModule, eLevel, pszText, bPrint, bLog);
    }
    catch (...)
    {
        return TraceToStderr(strModule, eLevel, pszText, bPrint || bLog);
    }
}

} // namespace

TarnDebugMgr* TarnDebugMgr::Instance()
{
    // Without a destructor that does anything, and so usable as long as the process lasts.
    static TarnDebugMgr debugMgr;
    return &debugMgr;
}

bool TarnDebugMgr::Trace(const std::string& strModule, TarnLogLevel eLevel, const char* pszText,
                         const AsnType* pAsnValue, bool bPrint, bool bLog)
{
    if (pszText == nullptr)
        return false;
    return g_LogSink.CallOr(
        false, [&] { return TraceToBackend(strModule, eLevel, pszText, bPrint, bLog); }, strModule, eLevel,
        pszText, pAsnValue, bPrint, bLog);
}

bool TarnDebugMgr::Takes(TarnLogLevel eLevel, bool bPrint, bool bLog)
{
    if (g_LogSink.IsInstalled())
        return true;
    try
    {
        return LogBackend::Instance().Takes(eLevel, bPrint, bLog);
    }
    catch (...)
    {
        return true; // Trace has a last resort
    }
}

bool TarnDebugMgr::Flush(int iTimeoutMs)
{
    LogBackend* pBackend = LogBackend::InstanceIfStarted();
    return pBackend == nullptr || pBackend->Flush(std::chrono::milliseconds(iTimeoutMs));
}

void TarnDebugMgr::Reopen()
{
    // A log that has not been started yet reads its settings with the first line.
    LogBackend* pBackend = LogBackend::InstanceIfStarted();
    if (pBackend != nullptr)
        pBackend->Configure();
}

TarnLogSink TarnInstallLogSink(TarnLogSink pfnSink)
{
    return g_LogSink.Install(pfnSink);
}
