#include "IniFile.h"

#include "IniLines.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>

extern "C" {
#include <ini_configobj.h>
#include <ini_valueobj.h>
}

namespace {

const std::size_t MAX_LINE_REPORTS = 10;

struct IniDelete
{
    void operator()(ini_cfgobj* pConfig) const { ini_config_destroy(pConfig); }
    void operator()(ini_cfgfile* pFile) const { ini_config_file_destroy(pFile); }
};

using MalformedLines = std::vector<std::pair<unsigned, std::string>>;

/// Takes an error of the parser apart: "Error (5) on line 6: Equal sign is missing." The words may be
/// translated, the two numbers and the colon stay.
std::pair<unsigned, std::string> LineOfError(const char* pszError)
{
    const char* pszNumber = std::strchr(pszError, ')');
    pszNumber = pszNumber == nullptr ? nullptr : std::strpbrk(pszNumber, "0123456789");
    if (pszNumber == nullptr)
        return {0, pszError};
    char* pszRest = nullptr;
    const unsigned long ulLine = std::strtoul(pszNumber, &pszRest, 10);
    std::string strText = pszRest + std::strspn(pszRest, ": ");
    while (!strText.empty() && strText.back() == '.')
        strText.pop_back();
    return {static_cast<unsigned>(ulLine), std::move(strText)};
}

MalformedLines TakeErrors(ini_cfgobj* pConfig)
{
    MalformedLines malformed;
    char** ppszErrors = nullptr;
    if (ini_config_error_count(pConfig) == 0 || ini_config_get_errors(pConfig, &ppszErrors) != 0)
        return malformed;
    const std::unique_ptr<char*, void (*)(char**)> guard(ppszErrors, &ini_config_free_errors);
    for (char** ppszError = ppszErrors; *ppszError != nullptr; ++ppszError)
        malformed.push_back(LineOfError(*ppszError));
    return malformed;
}

std::vector<IniReport> LineReports(const std::string& strPath, MalformedLines malformed)
{
    std::stable_sort(malformed.begin(), malformed.end(),
                     [](const auto& left, const auto& right) { return left.first < right.first; });
    std::vector<IniReport> reports;
    for (const auto& [uLine, strText] : malformed)
    {
        if (reports.size() == MAX_LINE_REPORTS)
        {
            const std::size_t uMore = malformed.size() - MAX_LINE_REPORTS;
            reports.push_back(
                {TARN_LOG_WARNING, strPath + ": and " + std::to_string(uMore) + " more lines left out\n"});
            break;
        }
        std::string strReport = strPath;
        strReport.append(":").append(std::to_string(uLine)).append(": ").append(strText);
        reports.push_back({TARN_LOG_WARNING, strReport.append(", left out\n")});
    }
    return reports;
}

} // namespace

IniFile::IniFile(std::vector<IniReport> reports)
    : m_Reports(std::move(reports))
{}

IniFile::IniFile(const std::string& strPath, std::string_view text)
{
    IniLines lines(text);
    MalformedLines malformed = lines.TakeOutUnparsable();

    // The parser gives no values at all when it finds a malformed line, but it names every one of them. So
    // what it names is taken out, and the rest is parsed again.
    MalformedLines named;
    int iError = ReadValues(lines.Text(), named);
    if (!named.empty())
    {
        for (const auto& entry : named)
            lines.TakeOut(entry.first);
        malformed.insert(malformed.end(), named.begin(), named.end());
        named.clear();
        iError = ReadValues(lines.Text(), named);
    }
    m_Reports = LineReports(strPath, std::move(malformed));
    if (iError != 0)
        m_Reports.push_back({TARN_LOG_ERROR, strPath + ": no INI file, taken as empty: " +
                                                 std::generic_category().message(iError) + "\n"});
}

/// Parses the text into m_Values. @return 0 or the parser's errno value; malformed lines are appended
int IniFile::ReadValues(std::string strText, MalformedLines& malformed)
{
    ini_cfgfile* pRawFile = nullptr;
    int iError =
        ini_config_file_from_mem(strText.data(), static_cast<std::uint32_t>(strText.size()), &pRawFile);
    const std::unique_ptr<ini_cfgfile, IniDelete> pFile(pRawFile);
    if (iError != 0)
        return iError;
    ini_cfgobj* pRawConfig = nullptr;
    iError = ini_config_create(&pRawConfig);
    const std::unique_ptr<ini_cfgobj, IniDelete> pConfig(pRawConfig);
    if (iError != 0)
        return iError;
    iError = ini_config_parse(pFile.get(), INI_STOP_ON_NONE,
                              INI_MV1S_OVERWRITE | INI_MV2S_OVERWRITE | INI_MS_MERGE,
                              INI_PARSE_NOWRAP | INI_PARSE_NO_C_COMMENTS, pConfig.get());
    malformed = TakeErrors(pConfig.get());
    if (iError != 0)
        return iError;

    int iCount = 0;
    char** ppszSections = ini_get_section_list(pConfig.get(), &iCount, &iError);
    if (ppszSections == nullptr)
        return iError;
    const std::unique_ptr<char*, void (*)(char**)> guard(ppszSections, &ini_free_section_list);
    for (int i = 0; i < iCount; ++i)
        ReadSection(pConfig.get(), ppszSections[i]);
    return 0;
}

void IniFile::ReadSection(ini_cfgobj* pConfig, const char* pszSection)
{
    int iCount = 0;
    int iError = 0;
    char** ppszKeys = ini_get_attribute_list(pConfig, pszSection, &iCount, &iError);
    if (ppszKeys == nullptr)
        return;
    const std::unique_ptr<char*, void (*)(char**)> guard(ppszKeys, &ini_free_attribute_list);
    for (int i = 0; i < iCount; ++i)
    {
        value_obj* pValue = nullptr; // stays the config object's
        const char* pszText = nullptr;
        std::uint32_t uLine = 0;
        if (ini_get_config_valueobj(pszSection, ppszKeys[i], pConfig, INI_GET_FIRST_VALUE, &pValue) != 0 ||
            pValue == nullptr || value_get_concatenated(pValue, &pszText) != 0 ||
            value_get_line(pValue, &uLine) != 0)
            continue;
        m_Values[FoldedName(pszSection, ppszKeys[i])] = {pszText == nullptr ? "" : pszText, uLine};
    }
}

std::string IniFile::FoldedName(std::string_view section, std::string_view key)
{
    std::string strName(section);
    strName += '\n';
    strName += key;
    for (char& c : strName)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return strName;
}

const IniValue* IniFile::Find(std::string_view section, std::string_view key) const
{
    const auto it = m_Values.find(FoldedName(section, key));
    return it == m_Values.end() ? nullptr : &it->second;
}

std::vector<IniReport> IniFile::ClaimReports() const
{
    return m_bReportsClaimed.exchange(true) ? std::vector<IniReport>() : m_Reports;
}
