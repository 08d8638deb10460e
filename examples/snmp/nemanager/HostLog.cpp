#include "HostLog.h"

#include <tarnadapterframe/tarnbaseutil.h>

#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

struct State
{
    std::mutex mutex;
    bool bVerbose = false;
    bool bKeepTraces = false;
    std::string strTraces;
    std::string strLastShown;
};

/// Never destroyed: threads may log to the end.
State& TheState()
{
    static auto* const s_pState = new State;
    return *s_pState;
}

bool Lookup(const char* pszKey, std::string& strValue, const char* /*pszFile*/)
{
    if (std::strcmp(pszKey, "nConnectSleep") != 0)
        return false;
    strValue = "1";
    return true;
}

bool Log(const std::string& strModule, TarnLogLevel eLevel, const char* pszText, const AsnType* /*pAsnValue*/,
         bool /*bPrint*/, bool bLog)
{
    State& state = TheState();
    const std::lock_guard<std::mutex> guard(state.mutex);
    if (eLevel == TARN_LOG_INFO && bLog) // only traces of bytes ask for the log like this
    {
        if (state.bKeepTraces)
            state.strTraces += pszText;
        if (state.bVerbose)
            std::fputs(pszText, stderr);
        return true;
    }
    // What stands in the way of a TLS connection, and what the process lacks.
    const bool bForUsers =
        eLevel == TARN_LOG_RESOURCE || (strModule == "tarn_ssl" && eLevel == TARN_LOG_ERROR);
    if (!state.bVerbose &&
        (!bForUsers || state.strLastShown == pszText)) // each attempt to connect says the same
        return true;
    state.strLastShown = pszText;
    const std::size_t uLength = std::strlen(pszText);
    std::fprintf(stderr, "%s: %s%s", strModule.c_str(), pszText,
                 uLength > 0 && pszText[uLength - 1] == '\n' ? "" : "\n");
    return true;
}

} // namespace

void HostLog::Install(bool bVerbose)
{
    TheState().bVerbose = bVerbose;
    TarnInstallCfgLookup(&Lookup);
    TarnInstallLogSink(&Log);
}

void HostLog::KeepTraces()
{
    const std::lock_guard<std::mutex> guard(TheState().mutex);
    TheState().bKeepTraces = true;
}

std::string HostLog::Traces()
{
    const std::lock_guard<std::mutex> guard(TheState().mutex);
    return TheState().strTraces;
}
