#ifndef TARN_HOST_INIFILE_H
#define TARN_HOST_INIFILE_H

#include "tarnadapterframe/tarnbaseutil.h"

#include <atomic>
#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct ini_cfgobj;

/// Something an operator is to be told about a settings file: one log line, line feed included.
struct IniReport
{
    TarnLogLevel eLevel;
    std::string strText;
};

struct IniValue
{
    std::string strText; ///< without surrounding blanks; empty for a key without value
    unsigned uLine;      ///< counted from 1
};

/// One version of an INI file, parsed. It never changes once built, so any thread may read it.
///
/// A line that cannot be used costs only itself: it is left out and reported, the others count. A section
/// header that cannot be read takes the keys below it along, so that they do not end up in the section above.
class IniFile
{
public:
    /// A file's content. strPath serves the reports only.
    IniFile(const std::string& strPath, std::string_view text);

    /// A file without content: it is missing, or it could not be read, as the reports tell.
    explicit IniFile(std::vector<IniReport> reports);

    /// Upper and lower case are the same in both names; of a key given twice the last one counts.
    /// @return the value, owned by this object, or null
    const IniValue* Find(std::string_view section, std::string_view key) const;

    /// What is to be logged about this version of the file; empty for every call but the first one. Reports
    /// are kept rather than logged while parsing, because the log itself reads its settings here when it is
    /// started by the first line.
    std::vector<IniReport> ClaimReports() const;

private:
    using Values = std::map<std::string, IniValue>;

    static std::string FoldedName(std::string_view section, std::string_view key);
    int ReadValues(std::string strText, std::vector<std::pair<unsigned, std::string>>& malformed);
    void ReadSection(ini_cfgobj* pConfig, const char* pszSection);

    // Constant after construction.
    Values m_Values;
    std::vector<IniReport> m_Reports;

    mutable std::atomic<bool> m_bReportsClaimed{false};
};

#endif
