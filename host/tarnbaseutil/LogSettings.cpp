#include "LogSettings.h"

#include "Configuration.h"
#include "IniCache.h"

#include <climits>
#include <filesystem>

namespace {

/// Looks settings of [log] up in one version of the file.
class LogSection
{
public:
    LogSection(std::string strPath, std::vector<IniReport>& reports)
        : m_strPath(std::move(strPath))
        , m_pFile(OpenIniFile(m_strPath))
        , m_Reports(reports)
    {
        for (IniReport& report : m_pFile->ClaimReports())
            m_Reports.push_back(std::move(report));
    }

    std::string Text(const char* pszKey) const
    {
        const IniValue* pValue = m_pFile->Find("log", pszKey);
        return pValue == nullptr ? std::string() : pValue->strText;
    }

    int Number(const char* pszKey, int iDefault, int iLeast, int iMost, const char* pszComplaint) const
    {
        const IniValue* pValue = m_pFile->Find("log", pszKey);
        if (pValue == nullptr)
            return iDefault;
        int iValue = 0;
        const bool bNumber = TextToInt(pValue->strText, iValue);
        if (bNumber && iValue >= iLeast && iValue <= iMost)
            return iValue;
        m_Reports.push_back(
            {TARN_LOG_WARNING, BadValueReport(m_strPath + ":" + std::to_string(pValue->uLine), pszKey,
                                              pValue->strText, bNumber ? pszComplaint : "is no number")});
        return iDefault;
    }

private:
    const std::string m_strPath;
    const std::shared_ptr<const IniFile> m_pFile;
    std::vector<IniReport>& m_Reports;
};

/// The log stays where it is when the host changes its working directory, as a daemon does.
std::string Absolute(const std::string& strPath)
{
    std::error_code error;
    const std::filesystem::path path = std::filesystem::absolute(strPath, error);
    return strPath.empty() || error ? strPath : path.string();
}

} // namespace

LogSettings ReadLogSettings(std::vector<IniReport>& reports)
{
    const LogSection section(TarnGetDefaultCfgFile(), reports);
    LogSettings settings;
    settings.strFile = Absolute(section.Text("file"));
    settings.iLevel =
        section.Number("level", settings.iLevel, TARN_LOG_RESOURCE, TARN_LOG_INFO, "is not 0 to 3");
    settings.bConsole = section.Number("console", 0, INT_MIN, INT_MAX, "") != 0;
    const int iRotateKb = section.Number("rotate_size_kb", 10240, 0, INT_MAX, "is below 0");
    settings.uRotateBytes = static_cast<std::size_t>(iRotateKb) * 1024;
    settings.uRotateFiles =
        static_cast<std::size_t>(section.Number("rotate_files", 5, 1, 200, "is not 1 to 200"));
    return settings;
}
