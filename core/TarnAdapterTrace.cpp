#include "tarnadapterframe/TarnAdapterTrace.h"

#include "tarnadapterframe/tarnbaseutil.h"

#include <ace/OS_NS_stdio.h>

#include <cerrno>
#include <cstdarg>
#include <string>

namespace {

constexpr int MAX_MESSAGE_LENGTH = 2048;

} // namespace

void TarnAdapterFrmtTrace(int iLevel, const char* pszFormat, ...)
{
    // Most lines are left out, and their texts would cost more than what they tell of.
    if (pszFormat != nullptr &&
        !TarnDebugMgr::Instance()->Takes(static_cast<TarnLogLevel>(iLevel), false, false))
        return;
    char szText[MAX_MESSAGE_LENGTH + 1];
    int iLength = -1;
    if (pszFormat != nullptr)
    {
        va_list args;
        va_start(args, pszFormat);
        iLength = ACE_OS::vsnprintf(szText, sizeof(szText), pszFormat, args);
        va_end(args);
    }
    if (iLength <= 0 || iLength > MAX_MESSAGE_LENGTH)
    {
        const int iErrno = errno;
        ACE_OS::printf("TarnAdapterFrmtTrace, vsnprintf failed. errno:%d\n", iErrno);
        return;
    }
    TarnAdapterTrace(iLevel, szText, false, false);
}

void TarnAdapterTrace(int iLevel, const char* pszText, bool bPrint, bool bLog)
{
    const std::string strModule("tarnadpfrm");
    TarnDebugMgr::Instance()->Trace(strModule, static_cast<TarnLogLevel>(iLevel), pszText, nullptr, bPrint,
                                    bLog);
}
