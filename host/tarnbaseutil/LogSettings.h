#ifndef TARN_HOST_LOGSETTINGS_H
#define TARN_HOST_LOGSETTINGS_H

#include "IniFile.h"

#include <cstddef>
#include <string>
#include <vector>

/// Section [log] of the process's configuration file.
struct LogSettings
{
    std::string strFile; ///< empty: the log is stderr
    int iLevel = TARN_LOG_WARNING;
    bool bConsole = false;
    std::size_t uRotateBytes = std::size_t{10240} * 1024; ///< 0: never
    std::size_t uRotateFiles = 5;
};

/// Reads the settings. What is wrong with the file or with a setting is appended to reports, the default
/// stands in for it.
LogSettings ReadLogSettings(std::vector<IniReport>& reports);

#endif
