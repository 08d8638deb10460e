#include "tarnadapterframe/TarnAdapterTrace.h"

#include "tarnadapterframe/tarnbaseutil.h"

#include <ace/OS_NS_stdio.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <string>

namespace {

constexpr int MAX_MESSAGE_LENGTH = 2048;

/// Whether the text of a format cannot be empty or too long, whatever its arguments: it has numbers in it only.
bool IsSafe(const char* pszFormat)
{
    constexpr std::size_t MAX_FORMAT_LENGTH = 1000; // a number takes at most 20 more than its conversion does
    std::size_t uLength = 0;
    for (; pszFormat[uLength] != '\0' && uLength < MAX_FORMAT_LENGTH; ++uLength)
    {
        if (pszFormat[uLength] != '%')
            continue;
        uLength += std::strspn(pszFormat + uLength + 1, "lhz") + 1;
        if (std::strchr("dux", pszFormat[uLength]) == nullptr || pszFormat[uLength] == '\0')
            return false;
    }
    return uLength > 0 && uLength < MAX_FORMAT_LENGTH;
}

} // namespace

void TarnAdapterFrmtTrace(int iLevel, const char* pszFormat, ...)
{
    // Most lines are left out, and their texts would cost more than what they tell of. Not where making it may fail, which is
    // told whatever the level.
    if (pszFormat != nullptr && IsSafe(pszFormat) &&
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
