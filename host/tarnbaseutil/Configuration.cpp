#include "Configuration.h"

#include "IniCache.h"
#include "InstalledFunction.h"

#include <cxxabi.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>

namespace {

constexpr const char* SECTION = "tarnadapter";
const std::size_t MAX_REPORTED_VALUE = 64;

InstalledFunction<bool, const char*, std::string&, const char*> g_CfgLookup;

struct Setting
{
    std::string strText;
    std::string strOrigin; ///< for reports: the file and, where known, the line
};

void Log(TarnLogLevel eLevel, const std::string& strText)
{
    TarnDebugMgr::Instance()->Trace(BASEUTIL_TAG, eLevel, strText.c_str(), nullptr, false, false);
}

bool LookUpInFile(const char* pszKey, const char* pszFile, Setting& setting)
{
    const std::shared_ptr<const IniFile> pFile = OpenIniFile(pszFile);
    for (const IniReport& report : pFile->ClaimReports())
        Log(report.eLevel, report.strText);
    const IniValue* pValue = pFile->Find(SECTION, pszKey);
    if (pValue == nullptr)
        return false;
    setting.strText = pValue->strText;
    setting.strOrigin = std::string(pszFile) + ":" + std::to_string(pValue->uLine);
    return true;
}

bool LookUp(const char* pszKey, const char* pszFile, Setting& setting)
{
    if (pszKey == nullptr || pszFile == nullptr)
        return false;
    setting.strOrigin = pszFile;
    return g_CfgLookup.CallOr(
        false, [&] { return LookUpInFile(pszKey, pszFile, setting); }, pszKey, setting.strText, pszFile);
}

/// Runs one look-up; what it throws can only be want of memory, and the setting then counts as not found.
template <class Body>
bool Guarded(Body&& body)
{
    try
    {
        return body();
    }
    catch (abi::__forced_unwind&)
    {
        throw; // the host's look-up is being cancelled with its thread
    }
    catch (...)
    {
        TarnDebugMgr::Instance()->Trace(BASEUTIL_TAG, TARN_LOG_RESOURCE,
                                        "No memory to look a setting up, taken as not set\n", nullptr, false,
                                        false);
        return false;
    }
}

} // namespace

bool TextToInt(std::string_view text, int& iValue)
{
    constexpr const char* BLANKS = " \t\r\n\v\f";
    text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
    text = text.substr(0, text.find_last_not_of(BLANKS) + 1);
    if (text.size() > 1 && text[0] == '+' && text[1] != '-')
        text.remove_prefix(1);
    int iParsed = 0;
    const char* const pszEnd = text.data() + text.size();
    const auto [pszStop, error] = std::from_chars(text.data(), pszEnd, iParsed);
    if (error != std::errc() || pszStop != pszEnd)
        return false;
    iValue = iParsed;
    return true;
}

std::string BadValueReport(const std::string& strOrigin, std::string_view key, std::string_view value,
                           const char* pszComplaint)
{
    std::string strReport = strOrigin + ": ";
    strReport += key;
    if (value.empty())
        return strReport + " has no value, taken as not set\n";
    const bool bCut = value.size() > MAX_REPORTED_VALUE;
    std::size_t uLength = bCut ? MAX_REPORTED_VALUE : value.size();
    while (bCut && (static_cast<unsigned char>(value[uLength]) & 0xC0U) == 0x80 && uLength > 0)
        --uLength; // not within a UTF-8 character
    strReport.append(" = ").append(value.substr(0, uLength)).append(bCut ? "... " : " ");
    return strReport + pszComplaint + ", taken as not set\n";
}

bool TarnGetCfgInt(const char* pszKey, int& iValue, const char* pszFile)
{
    return Guarded([&] {
        Setting setting;
        if (!LookUp(pszKey, pszFile, setting))
            return false;
        if (TextToInt(setting.strText, iValue))
            return true;
        Log(TARN_LOG_WARNING, BadValueReport(setting.strOrigin, pszKey, setting.strText, "is no number"));
        return false;
    });
}

bool TarnGetCfgString(const char* pszKey, char* pszBuffer, int iLength, const char* pszFile)
{
    if (pszBuffer == nullptr || iLength < 1)
        return false;
    return Guarded([&] {
        Setting setting;
        if (!LookUp(pszKey, pszFile, setting))
            return false;
        const std::size_t uCopied = setting.strText.copy(pszBuffer, static_cast<std::size_t>(iLength) - 1);
        pszBuffer[uCopied] = '\0';
        return true;
    });
}

std::string TarnGetDefaultCfgFile()
{
    constexpr const char* UNNAMED = "tarnadapter.ini";
    const char* pszNamed = std::getenv("TARN_CFG_FILE"); // NOLINT(concurrency-mt-unsafe): only read here
    try
    {
        return pszNamed != nullptr && *pszNamed != '\0' ? pszNamed : UNNAMED;
    }
    catch (...)
    {
        return UNNAMED; // short enough to need no memory
    }
}

TarnCfgLookup TarnInstallCfgLookup(TarnCfgLookup pfnLookup)
{
    return g_CfgLookup.Install(pfnLookup);
}
