#include "TlsLog.h"

#include <openssl/err.h>

#include <cerrno>
#include <system_error>

void TlsLog(TarnLogLevel eLevel, const std::string& strText)
{
    const int iError = errno;
    TarnDebugMgr::Instance()->Trace("tarn_ssl", eLevel, strText.c_str(), nullptr, false, false);
    errno = iError;
}

std::string TakeOpenSslReason()
{
    const int iError = errno;
    std::string strReason;
    // The first entry is the cause, later ones say who stumbled over it.
    const char* pszData = nullptr;
    int iFlags = 0;
    const unsigned long ulFirst = ERR_get_error_all(nullptr, nullptr, nullptr, &pszData, &iFlags);
    if (ulFirst == 0 || ERR_SYSTEM_ERROR(ulFirst))
        strReason = std::generic_category().message(ulFirst == 0 ? iError : ERR_GET_REASON(ulFirst));
    else if (const char* pszReason = ERR_reason_error_string(ulFirst))
        strReason = pszReason;
    else
        strReason = "OpenSSL error " + std::to_string(ulFirst);
    if ((iFlags & ERR_TXT_STRING) != 0 && pszData != nullptr && *pszData != '\0')
        strReason += std::string(" (") + pszData + ")";
    ERR_clear_error();
    errno = iError;
    return strReason;
}
